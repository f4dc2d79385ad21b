// The periodic application loop's state (periodic_loop.cpp), part of KaloContext
// (device/context.h). The plain members are guarded by the context's lock;
// the flags and the timing words are atomics, read outside it by design (the
// timing words have the exchange thread or the loop thread as their writer).
#pragma once

#include <atomic>
#include <cstdint>

#include "kalo/kalo_ext.h"
#include "kalo/kalo_realtime.h"
#include "link/loop_rules.h"

struct KaloContext;

namespace kalo {

using PeriodicFunction = void (*)(KaloContext *, void *);

struct LoopState {
  std::atomic<uint32_t> loop_running;
  int64_t loop_period_ticks;
  std::atomic<uint32_t> in_periodic_function;
  std::atomic<float> loop_period_us;
  void *periodic_user_data;
  TR_TACHE *loop_task;
  PeriodicFunction periodic_function;
  TR_SEMAPHORE *loop_sem; // posted by the exchange thread on each tick
  std::atomic<uint64_t> loop_start_time;
  std::atomic<uint32_t> loop_overrun;
  std::atomic<uint64_t> last_tick_time;
  std::atomic<uint64_t> last_frame_time;

  // The ticks handed from the exchange thread to the loop thread: each tick
  // writes its record into the ring, then raises ticks_published, then posts
  // loop_sem. A slot's sequence is its tick's number + 1 once written, so the
  // loop thread can tell a record that a much later tick overwrote.
  LoopTicker ticker; // exchange thread only
  struct TickRecord {
    std::atomic<uint64_t> sequence{0};
    std::atomic<uint32_t> stamp{0};
    std::atomic<uint64_t> frames{0};   // state frames received up to the ticking frame
    std::atomic<uint64_t> clock_us{0}; // the ticker's controller clock at the frame
    std::atomic<uint64_t> arrival_us{0};
    std::atomic<uint64_t> elapsed_clock_us{0}; // from the previous tick or the reference
    std::atomic<uint64_t> elapsed_arrival_us{0};
  };
  static constexpr uint64_t kTickRing = 64;
  TickRecord ticks[kTickRing];
  std::atomic<uint64_t> ticks_published{0};

  // Loop thread only, except at a start (under the lock, no loop thread).
  uint64_t ticks_consumed;
  bool have_previous_tick;
  uint64_t previous_tick_clock_us;
  uint64_t previous_tick_arrival_us;
  uint64_t previous_tick_frames;
  uint64_t previous_call_start_us; // 0: the first call since the start

  // The timing of the current (or last) call, under the lock.
  KaloExtLoopTiming timing;

  // The late-call watch (loop thread only) and the share of late calls over
  // a second above which it raises an event.
  LateWatch late_watch;
  std::atomic<double> late_share_threshold{0.02};

  // Lifetime: threads are never cancelled (see periodic_loop.cpp).
  TR_SEMAPHORE *loop_exited;     // posted by a loop thread when it ends
  TR_TACHE *loop_task_finishing; // a stopped loop whose thread has not been waited for yet
};

} // namespace kalo
