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
#include <pthread.h>

#include "device/call_frame.h"
#include "device/context.h"
#include "link/lifecycle.h"
#include "link/loop_rules.h"
#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"
#include "realtime/timed_wait.h"

namespace {

using kalo::ContextLock;

// Set on a loop thread whose periodic function closed its own context.
thread_local KaloContext *t_context_closed_by_function = nullptr;

bool is_thread_of(const TR_TACHE *task) {
  return task != nullptr && pthread_equal(task->thread, pthread_self());
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
      } else {
        // Ticks left over from an earlier loop must not fire the new one at once.
        kalo::drain(ctx->loop.loop_sem);
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
    }
    if (function == nullptr)
      continue;

    const uint64_t start = getTime(ctx);
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
    kalo::telemetry_periodic_call(ctx, start, duration, ctx->loop.loop_overrun.load() != 0);
  }
  TR_poster_semaphore(ctx->loop.loop_exited);
  kalo::let_go(ctx); // last access to the context
  return nullptr;
}

} // extern "C"
