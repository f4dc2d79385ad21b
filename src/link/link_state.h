// The link and the exchange: the state shared by the exchange thread, the
// watchdog, the queries and the waits that the exchange thread ends. Part of
// KaloContext (device/context.h); every plain member is guarded by the
// context's lock, the atomics are read outside it by design.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "kalo/kalo_realtime.h"
#include "protocol/exchange_record.h"
#include "protocol/link_counters.h"
#include "link/telemetry.h"

namespace kalo {

struct LinkState {
  // ---- connection
  int32_t session;
  std::atomic<uint32_t> connected;
  std::atomic<uint32_t> frame_received; // the controller's first frame arrived
  std::atomic<uint32_t> backend_stop;
  TR_TACHE *backend_task;
  TR_SEMAPHORE *backend_exited; // posted once when the exchange thread ends
  // What open and close wait for instead of sleeping: the controller's first
  // state frame (posted once), and each command frame sent while a waiter
  // watches (see kalo::wait_marks_sent).
  TR_SEMAPHORE *first_frame_sem;
  TR_SEMAPHORE *frame_sent_sem;
  std::atomic<uint32_t> sent_watched;

  // ---- exchange records
  ExchangeRecord command_record; // library to controller
  ExchangeRecord state_record;   // controller to library

  // ---- what the exchange thread wakes: a query's reply, a trajectory
  // sample, a pressed button, an upper bound
  TR_SEMAPHORE *reply_sem;
  TR_SEMAPHORE *traj_sample_sem;
  TR_SEMAPHORE *button_sem;
  TR_SEMAPHORE *upper_bound_sem;
  // Held by a query from its request to its reply (see kalo::query_call).
  std::mutex query_mutex;

  // ---- watchdog
  uint32_t watchdog_counter;
  TR_TACHE *watchdog_task;
  uint32_t control_connection_disabled;
  std::atomic<uint32_t> watchdog_started; // watchdog threads that entered / left
  std::atomic<uint32_t> watchdog_ended;

  // ---- controller version (major + minor / 100, 2.6 until the handshake)
  int32_t controller_version_major;
  int32_t controller_version_minor;
  float controller_version;

  // ---- the controller's counts
  int32_t control_point_count; // the controller's value after opening
  int32_t axis_count;          // articular values copied by the joint-space calls

  // ---- counters
  uint64_t frames_sent;
  uint64_t frames_received;
  LinkCounters link_counters; // what the link saw since open
  Telemetry telemetry;        // frames, timing, loop calls, recording (link/telemetry.h)

  // ---- state readout: the button watched by kaloWaitPressButton (the waiting
  // thread arms it, the exchange thread checks it on every buttons item)
  std::atomic<uint32_t> wait_button;
  std::atomic<uint32_t> wait_armed;
  std::atomic<uint32_t> button_now;
  std::atomic<uint32_t> button_previous;
};

} // namespace kalo
