// The periodic application loop's state (periodic_loop.cpp), part of KaloContext
// (device/context.h). The plain members are guarded by the context's lock;
// the flags and the timing words are atomics, read outside it by design (the
// timing words have the exchange thread or the loop thread as their writer).
#pragma once

#include <atomic>
#include <cstdint>

#include "kalo/kalo_realtime.h"

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

  // Lifetime: threads are never cancelled (see periodic_loop.cpp).
  TR_SEMAPHORE *loop_exited;     // posted by a loop thread when it ends
  TR_TACHE *loop_task_finishing; // a stopped loop whose thread has not been waited for yet
};

} // namespace kalo
