// The per-connection record behind the application's opaque KaloContext
// handle. One recursive lock (`lock`) guards both exchange records and every
// field shared by the application's threads, the backend thread and the
// periodic loop. Fields that are read outside the lock by design (the error
// code, the connection and loop flags, the loop timing) are atomics.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <thread>

#include "kalo/kalo.h"
#include "kalo/kalo_math.h"
#include "kalo/kalo_realtime.h"
#include "kalo/kalo_deplacement.h"
#include "kalo/kalo_quaternion.h"
#include "protocol/exchange_record.h"
#include "protocol/link_counters.h"
#include "device/telemetry.h"

struct ServoPoint; // per-control-point servo state (servo/servo_point.h)
struct TSIG_FILTRE;

namespace kalo {
constexpr uint64_t kContextMagic = 0x4B414C4F; // "KALO"
using PeriodicFunction = void (*)(KaloContext *, void *);
} // namespace kalo

struct KaloContext {
  // ---- identity and connection state
  uint64_t magic;
  std::atomic<uint32_t> frame_received;
  TR_SEMAPHORE *lock;
  TR_SEMAPHORE *reply_sem;
  TR_SEMAPHORE *loop_sem;
  TR_SEMAPHORE *traj_sample_sem;
  TR_SEMAPHORE *button_sem;
  TR_SEMAPHORE *upper_bound_sem;
  TR_TACHE *backend_task;

  ExchangeRecord command_record; // library to controller
  ExchangeRecord state_record;   // controller to library

  std::atomic<uint32_t> error_code;
  int32_t session;
  uint32_t debug_flags; // bit 0: gain printouts and overrun messages
  FILE *output_stream;  // diagnostics; standard output unless kaloSetOutputFile chose a file
  FILE *opened_output;  // the stream kaloSetOutputFile opened last (closed when replaced)
  float watchdog_period;
  uint32_t watchdog_counter;
  std::atomic<uint32_t> connected;
  TR_TACHE *watchdog_task;
  uint32_t control_connection_disabled;
  std::atomic<uint32_t> backend_stop;

  // ---- periodic loop
  std::atomic<uint32_t> loop_running;
  int64_t loop_period_ticks;
  std::atomic<uint32_t> in_periodic_function;
  std::atomic<float> loop_period_us;
  void *periodic_user_data;
  TR_TACHE *loop_task;
  kalo::PeriodicFunction periodic_function;
  std::atomic<uint64_t> loop_start_time;
  std::atomic<uint32_t> loop_overrun;
  std::atomic<uint64_t> last_tick_time;
  std::atomic<uint64_t> last_frame_time;

  // ---- parameters
  float time_step;        // seconds, the application's declared step
  float max_linear_speed; // from the controller's item 56
  float max_angular_speed;
  float current_force_factor;
  float observation_frame_copy[7];
  float base_frame_copy[7];

  // ---- speed-factor smoothing (1x1 matrices) and its filter
  MATD *speed_factor_target; // 1.0 at open
  MATD *speed_factor_filtered;
  MATD *speed_factor_cutoff; // 0.5 Hz
  TSIG_FILTRE *speed_factor_filter;
  std::atomic<uint32_t> filter_disabled;

  // ---- mouse emulation
  int32_t mouse_previous_state;
  int32_t mouse_words[2]; // pointer tracking, -1 when idle

  // ---- counts
  int32_t control_point_count; // the controller's value after opening
  int32_t servo_point_count;   // servo records in use
  int32_t axis_count;          // articular values copied by the joint-space calls

  // ---- virtual object defaults and servo work objects
  double object_mass;   // 0.814
  MATD *object_inertia; // 3x3, diagonal 2 * mass * 0.3352 / 5
  MATD *work_matrix4;   // 4x4
  MATD *work_matrix3;   // 3x3
  VECT3 *work_vect3;
  DEPL *work_depl;
  QUAT *work_quat;

  uint64_t frames_sent;
  uint64_t frames_received;
  kalo::LinkCounters link_counters; // what the link saw since open
  kalo::Telemetry telemetry;        // frames, timing, loop calls, recording (device/telemetry.h)

  // ---- per-control-point arrays, allocated after connecting for
  // point_array_count points (the controller's count, at least 1, bounded)
  int32_t point_array_count;
  float *gain_stiffness_buffer; // 6 per point
  float *gain_damping_buffer;   // 6 per point
  float *scratch_speed;         // 6 per point (kaloGetForce)
  float *scratch_force;         // 6 per point
  float *scratch_position;      // 7 per point (kaloGetForce)

  // ---- controller version (major + minor / 100, 2.6 until the handshake)
  int32_t controller_version_major;
  int32_t controller_version_minor;
  float controller_version;

  // ---- servo
  ServoPoint *servo; // servo_point_count records

  // ---- command types and set-points
  // Written by kaloSetCommandType after it released the lock, read by every
  // set-point call on any thread: atomics, so that the hand-over is defined.
  std::atomic<uint32_t> active_command_type;
  std::atomic<uint32_t> command_type_set;
  uint32_t stream_started;
  uint32_t active_indexing_mode;
  uint32_t attach_pending;
  uint32_t detach_pending;
  int32_t vm_default_mode;      // -1 at open
  int32_t vm_default_mode_seen; // -1 at open

  // ---- virtual objects
  int32_t attached_object_count;

  // ---- state readout: the button watched by kaloWaitPressButton (the waiting
  // thread arms it, the exchange thread checks it on every buttons item)
  std::atomic<uint32_t> wait_button;
  std::atomic<uint32_t> wait_armed;
  std::atomic<uint32_t> button_now;
  std::atomic<uint32_t> button_previous;

  // ---- virtual mechanisms
  uint32_t vm_active;
  int32_t traj_requested; // samples the application asked for (kaloVmStartTrajSampling)
  uint32_t vm_current_type;
  int32_t vm_default_mode_copy; // -1 at open

  // ---- thread lifetimes. Threads are never cancelled: each one ends by itself
  // and says so, and kaloClose waits for that before it frees anything.
  TR_SEMAPHORE *backend_exited;           // posted once when the exchange thread ends
  TR_SEMAPHORE *loop_exited;              // posted by a loop thread when it ends
  TR_TACHE *loop_task_finishing;          // a stopped loop whose thread has not been waited for yet
  std::atomic<uint32_t> watchdog_started; // watchdog threads that entered / left
  std::atomic<uint32_t> watchdog_ended;
  // Threads inside a library wait (button, upper bound, trajectory samples,
  // queries; see kalo::WaitGuard). kaloClose sets waits_cancelled, wakes them
  // and frees nothing until the count is back to 0. close_claimed makes a
  // second close of the same handle a refusal.
  std::atomic<uint32_t> waiters;
  std::atomic<uint32_t> waits_cancelled;
  std::atomic<uint32_t> close_claimed;
  std::atomic<std::thread::id> closing_thread; // the thread inside kaloClose
  // Held by a query from its request to its reply (see kalo::query_call).
  std::mutex query_mutex;
};
