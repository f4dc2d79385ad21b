// The periodic application loop: the thread "LOOP" calls the application's
// function once per tick of the exchange thread, measures each call and
// reports overruns.
//
// Lifetime: a loop thread is never cancelled. kaloStopLoop clears the loop's
// handle and wakes the thread, which sees that it is no longer the loop and
// ends after its current call, posting loop_exited and letting go of its hold
// on the context as its last accesses. The stopped handle waits in
// loop_task_finishing until somebody other than the loop thread itself has
// seen that post and freed it: the stop itself, or failing that (a function
// that stopped its own loop, or a call longer than the stop's limit) the next
// start, stop or close. kaloStopLoop waits at most 1 s for the current call:
// the function is never called again once it has returned, and a call that
// outlasts the wait ends on its own. kaloClose never frees a context under a
// running periodic function: the loop thread's hold keeps it until the call
// has returned.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include "device/call_frame.h"
#include "device/context.h"
#include "link/events.h"
#include "link/lifecycle.h"
#include "link/loop_rules.h"
#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"
#include "kalo/kalo_internal.h"
#include "realtime/timed_wait.h"

namespace {

using kalo::ContextLock;

// Set on a loop thread whose periodic function closed its own context.
thread_local KaloContext *t_context_closed_by_function = nullptr;

bool is_thread_of(const TR_TACHE *task) {
  return task != nullptr && pthread_equal(task->thread, pthread_self());
}

// Makes the loop's timing start afresh for a new start. Under the lock, with
// no loop thread running (or on the loop thread itself).
void reset_loop_timing(KaloContext *ctx) {
  kalo::LoopState &l = ctx->loop;
  l.ticks_consumed = l.ticks_published.load(std::memory_order_acquire);
  l.have_previous_tick = false;
  l.previous_tick_frames = ctx->link.frames_received;
  l.previous_call_start_us = 0;
  l.late_watch.reset();
}

// Reads tick record `index`; false when a later tick has overwritten it.
bool read_tick(const kalo::LoopState &l, uint64_t index, uint32_t *stamp, uint64_t *frames,
               uint64_t *clock_us, uint64_t *arrival_us, uint64_t *elapsed_clock_us,
               uint64_t *elapsed_arrival_us) {
  const kalo::LoopState::TickRecord &r = l.ticks[index % kalo::LoopState::kTickRing];
  if (r.sequence.load(std::memory_order_acquire) != index + 1)
    return false;
  *stamp = r.stamp.load(std::memory_order_acquire);
  *frames = r.frames.load(std::memory_order_acquire);
  *clock_us = r.clock_us.load(std::memory_order_acquire);
  *arrival_us = r.arrival_us.load(std::memory_order_acquire);
  *elapsed_clock_us = r.elapsed_clock_us.load(std::memory_order_acquire);
  *elapsed_arrival_us = r.elapsed_arrival_us.load(std::memory_order_acquire);
  return r.sequence.load(std::memory_order_acquire) == index + 1;
}

// Fills the timing of the call starting at start_us from the newest tick:
// the call reads the newest state, so it is told the time up to the frame
// behind that state. When the loop wakes late, one call covers the ticks
// that came meanwhile, and the calls that follow back to back (their ticks
// are counted) are told that no time passed. A wake-up without a tick (a
// stop, a test) gives a call with no elapsed time either. Under the lock, on
// the loop thread.
void take_tick(KaloContext *ctx, uint64_t start_us) {
  kalo::LoopState &l = ctx->loop;
  KaloExtLoopTiming &t = l.timing;
  t.size = sizeof t;
  t.frames = 0;
  t.controller_elapsed = 0;
  t.arrival_elapsed = 0;
  // The newest record cannot be overwritten before kTickRing more ticks: a
  // failed read means the loop stalled that long, and the next one is newer.
  for (int attempt = 0; attempt < 3; ++attempt) {
    const uint64_t published = l.ticks_published.load(std::memory_order_acquire);
    if (published <= l.ticks_consumed)
      break;
    const uint64_t index = published - 1;
    uint32_t stamp;
    uint64_t frames, clock_us, arrival_us, elapsed_clock_us, elapsed_arrival_us;
    if (!read_tick(l, index, &stamp, &frames, &clock_us, &arrival_us, &elapsed_clock_us,
                   &elapsed_arrival_us))
      continue;
    if (l.have_previous_tick) {
      elapsed_clock_us = clock_us - l.previous_tick_clock_us;
      elapsed_arrival_us = arrival_us - l.previous_tick_arrival_us;
    }
    t.controller_elapsed = static_cast<double>(elapsed_clock_us) * 1e-6;
    t.arrival_elapsed = static_cast<double>(elapsed_arrival_us) * 1e-6;
    t.frames = static_cast<uint32_t>(frames - l.previous_tick_frames);
    t.stamp = stamp;
    l.previous_tick_frames = frames;
    l.previous_tick_clock_us = clock_us;
    l.previous_tick_arrival_us = arrival_us;
    l.have_previous_tick = true;
    l.ticks_consumed = published;
    break;
  }
  const double period = static_cast<double>(l.loop_period_us.load());
  t.late = l.previous_call_start_us != 0 && period > 0 &&
                   static_cast<double>(start_us - l.previous_call_start_us) > 1.5 * period
               ? 1
               : 0;
  l.previous_call_start_us = start_us;
  t.calls++;
  t.late_calls += t.late;
}

} // namespace

namespace kalo {

bool reap_stopped_loop(KaloContext *ctx, int limit_ms) {
  const Deadline limit(limit_ms);
  for (;;) {
    TR_TACHE *finishing;
    {
      ContextLock hold(ctx);
      finishing = ctx->loop.loop_task_finishing;
      if (finishing == nullptr || is_thread_of(finishing))
        return true;
      ctx->loop.loop_task_finishing = nullptr;
    }
    if (!wait_posted(ctx->loop.loop_exited, limit.left_ms())) {
      // Still in its call: the next start, stop or close waits for it again.
      ContextLock hold(ctx);
      ctx->loop.loop_task_finishing = finishing;
      return false;
    }
    release_task_handle(finishing);
  }
}

void release_task_handle(TR_TACHE *task) {
  if (task == nullptr)
    return;
  pthread_attr_destroy(&task->attr);
  std::free(task);
}

LoopStop stop_loop(KaloContext *ctx, int limit_ms) {
  bool on_loop_thread;
  {
    ContextLock hold(ctx);
    if (ctx->loop.loop_task != nullptr) {
      // The start reaps any earlier stopped loop before it creates a task, so
      // the finishing slot is free here.
      ctx->loop.loop_task_finishing = ctx->loop.loop_task;
      ctx->loop.loop_task = nullptr;
    }
    ctx->loop.loop_running = 0;
    TR_poster_semaphore(ctx->loop.loop_sem);
    on_loop_thread = is_thread_of(ctx->loop.loop_task_finishing);
  }
  if (on_loop_thread)
    return LoopStop::on_loop_thread;
  return reap_stopped_loop(ctx, limit_ms) ? LoopStop::ended : LoopStop::still_running;
}

void mark_closed_by_loop_thread(KaloContext *ctx) {
  t_context_closed_by_function = ctx;
}

} // namespace kalo

extern "C" {

int32_t kaloSetPeriodicFunction(KaloContext *context, KaloPeriodicFunction function, float *period,
                                void *user_data) {
  return kalo::locked_call(context, [&](KaloContext &ctx) {
    kalo::LoopPeriod rounded{};
    // A period of 0 ticks the loop on every frame; a negative or non-finite
    // one is refused.
    if (period == nullptr || !std::isfinite(*period) || *period < 0.0f ||
        !kalo::round_loop_period(*period, ctx.link.controller_version, &rounded))
      return KALO_ERROR_INCORRECT_VALUE;
    ctx.loop.periodic_function = function;
    ctx.loop.loop_period_ticks = rounded.ticks;
    ctx.loop.periodic_user_data = user_data;
    ctx.loop.loop_period_us = rounded.period_us;
    *period = rounded.period_us / 1000000.0f;
    return KALO_NO_ERROR;
  });
}

int32_t kaloStartLoop(KaloContext *context) {
  if (!kalo::enter(context))
    return -1;
  KaloContext *ctx = context;
  // A loop stopped from its own function may still be ending its last call;
  // one that is still in it after the limit counts as a loop that exists.
  const bool earlier_loop_ended = kalo::reap_stopped_loop(ctx, kalo::kStopLoopCallLimitMs);
  int code = KALO_NO_ERROR;
  {
    ContextLock hold(ctx);
    if (ctx->loop.periodic_function == nullptr) {
      code = KALO_ERROR_NO_PERIODIC_FUNCTION;
    } else {
      ctx->loop.loop_running = 1;
      if (ctx->loop.loop_task != nullptr || !earlier_loop_ended) {
        code = KALO_ERROR_LOOP_ALREADY_STARTED;
      } else if (is_thread_of(ctx->loop.loop_task_finishing)) {
        // The function stopped and restarts its own loop: this thread goes on.
        ctx->loop.loop_task = ctx->loop.loop_task_finishing;
        ctx->loop.loop_task_finishing = nullptr;
        reset_loop_timing(ctx);
      } else {
        // Ticks left over from an earlier loop must not fire the new one at once.
        kalo::drain(ctx->loop.loop_sem);
        reset_loop_timing(ctx);
        // The new thread reads its own handle under the lock held here, so it
        // sees the identifier that the creation stores.
        kalo::hold(ctx);
        ctx->loop.loop_task =
            TR_creer_tache("LOOP", kalo::kTaskPriorityOffset, kalo::kLoopStackSize, _kaloLoop, ctx);
        if (ctx->loop.loop_task == nullptr) {
          ctx->lifetime.holders.fetch_sub(1);
          ctx->loop.loop_running = 0;
          code = KALO_ERROR_OUT_OF_MEMORY;
        }
      }
    }
  }
  if (code != KALO_NO_ERROR) {
    ctx->error_code = static_cast<uint32_t>(code);
    return -1;
  }
  return 0;
}

int32_t kaloStopLoop(KaloContext *context) {
  if (!kalo::enter(context))
    return -1;
  kalo::stop_loop(context, kalo::kStopLoopCallLimitMs);
  return 0;
}

void *_kaloLoop(void *context) {
  auto *ctx = static_cast<KaloContext *>(context);
  for (;;) {
    TR_attendre_semaphore(ctx->loop.loop_sem);
    kalo::PeriodicFunction function;
    void *user_data;
    uint64_t start;
    bool late;
    {
      ContextLock hold(ctx);
      const bool still_the_loop =
          ctx->loop.loop_running.load() != 0 && is_thread_of(ctx->loop.loop_task);
      if (!still_the_loop) {
        if (is_thread_of(ctx->loop.loop_task)) {
          ctx->loop.loop_task_finishing = ctx->loop.loop_task;
          ctx->loop.loop_task = nullptr;
        }
        break;
      }
      function = ctx->loop.periodic_function;
      user_data = ctx->loop.periodic_user_data;
      if (function == nullptr)
        continue;
      start = getTime(ctx);
      take_tick(ctx, start);
      late = ctx->loop.timing.late != 0;
    }

    ctx->loop.loop_start_time = start;
    ctx->loop.in_periodic_function = 1;
    function(ctx, user_data);
    if (t_context_closed_by_function == ctx) {
      // The function closed the connection: the context is gone.
      t_context_closed_by_function = nullptr;
      return nullptr;
    }
    ctx->loop.in_periodic_function = 0;
    const uint64_t duration = getTime(ctx) - start;
    ctx->loop.loop_start_time = duration;

    ContextLock hold(ctx);
    const uint64_t allowed = kalo::allowed_call_us(ctx->params.time_step);
    if (kalo::call_overran(duration, allowed)) {
      ctx->loop.loop_overrun = 1;
      if ((ctx->params.debug_flags & 1u) != 0 && ctx->params.output_stream != nullptr) {
        std::fprintf(ctx->params.output_stream, "Overrun de %d ms\n",
                     kalo::overrun_ms(duration, allowed));
        std::fflush(ctx->params.output_stream);
      }
    } else {
      ctx->loop.loop_overrun = 0;
    }
    kalo::telemetry_periodic_call(ctx, start, duration, ctx->loop.loop_overrun.load() != 0, late);
    double share = 0;
    const double threshold = ctx->loop.late_share_threshold.load(std::memory_order_relaxed);
    if (ctx->loop.late_watch.add(start, late, threshold, &share))
      kalo::record_event(ctx, KALO_EXT_EVENT_LOOP_LATE, share, threshold);
  }
  TR_poster_semaphore(ctx->loop.loop_exited);
  kalo::let_go(ctx); // last access to the context
  return nullptr;
}

int32_t kaloExtGetLoopTiming(KaloContext *context, KaloExtLoopTiming *timing) {
  if (!kalo::is_live(context)) {
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  if (timing == nullptr || timing->size < 8) {
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  const uint32_t wanted = timing->size;
  KaloExtLoopTiming copy{};
  {
    ContextLock hold(context);
    copy = context->loop.timing;
  }
  copy.size = wanted < sizeof copy ? wanted : static_cast<uint32_t>(sizeof copy);
  std::memcpy(timing, &copy, copy.size);
  return 0;
}

int32_t kaloExtSetLoopLateThreshold(KaloContext *context, double share) {
  if (!kalo::is_live(context)) {
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  if (!(share >= 0.0 && share <= 1.0)) {
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  context->loop.late_share_threshold.store(share, std::memory_order_relaxed);
  return 0;
}

} // extern "C"
