// The frame that every device call follows: version gate where one applies,
// handle check (code 3 in kaloGlobalError), connection check (code 2), then
// the work under the context's lock. A failing check stores its code and the
// call returns -1.
#pragma once

#include <cmath>

#include "device/context.h"
#include "link/events.h"
#include "link/live_contexts.h"
#include "kalo/kalo.h"
#include "protocol/error_detail.h"
#include "realtime/timed_wait.h"

namespace kalo {

// True when the handle points at a live context. A closed handle is known to
// the registry and its memory is never read.
inline bool is_live(const KaloContext *ctx) {
  if (ctx == nullptr)
    return false;
  if (&handle_state != nullptr && handle_state(ctx) == HandleState::stale)
    return false;
  return ctx->magic == kContextMagic;
}

// The controller-version gate: the single-precision version, widened, must be
// above the call's minimum. A null handle is left to the handle check.
inline bool version_refused(const KaloContext *ctx, double minimum) {
  return ctx != nullptr && !(static_cast<double>(ctx->link.controller_version) > minimum);
}

// Holds the context's recursive lock for a scope.
class ContextLock {
public:
  explicit ContextLock(KaloContext *ctx) : lock_(ctx->lock) { TR_attendre_semaphore(lock_); }
  ~ContextLock() { TR_poster_semaphore(lock_); }
  ContextLock(const ContextLock &) = delete;
  ContextLock &operator=(const ContextLock &) = delete;

private:
  TR_SEMAPHORE *lock_;
};

// Handle and connection checks; false when the call must return -1. A call
// starts the thread's error detail afresh.
inline bool enter(KaloContext *ctx) {
  clear_error_detail();
  if (!is_live(ctx)) {
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return false;
  }
  if (ctx->link.connected.load() == 0) {
    ctx->error_code = KALO_ERROR_COMMUNICATION;
    return false;
  }
  return true;
}

// Runs work(ctx) under the lock after the checks. work returns 0 on success or
// an error code, which is stored in the context (the call then returns -1).
template <class Work> int locked_call(KaloContext *ctx, Work &&work) {
  if (!enter(ctx))
    return -1;
  int code;
  {
    ContextLock hold(ctx);
    code = work(*ctx);
  }
  if (code != 0) {
    ctx->error_code = static_cast<uint32_t>(code);
    return -1;
  }
  return 0;
}

// The same behind a controller-version gate: a controller at or below the
// minimum gets the bare 20, with nothing touched.
template <class Work> int gated_call(KaloContext *ctx, double minimum, Work &&work) {
  if (version_refused(ctx, minimum))
    return KALO_ERROR_INCOMPATIBLE_VERSION;
  return locked_call(ctx, static_cast<Work &&>(work));
}

// Control points the set-point and servo calls work on: the controller's
// count, kept within the exchange record's room and the servo records that
// exist, so that a count from the wire never indexes past either.
inline int32_t points_in_use(const KaloContext &c) {
  int32_t n = c.link.control_point_count;
  if (n > kControlPointRoom)
    n = kControlPointRoom;
  if (n > c.servo.point_count)
    n = c.servo.point_count;
  if (c.servo.points == nullptr || n < 0)
    n = 0;
  return n;
}

// The set-point test: not NaN and no larger in magnitude than the largest float.
inline bool all_finite(const float *v, int n) {
  for (int k = 0; k < n; ++k)
    if (!(v[k] == v[k]) || v[k] > 3.4028235e38f || v[k] < -3.4028235e38f)
      return false;
  return true;
}

// The test of every value that is sent to the controller outside the five
// Cartesian set-points: a null array or a non-finite value gives code 9 and
// the call sends nothing (the connection stays open). Returns 0 or the code.
inline int finite_or_refused(const float *v, int n) {
  return v != nullptr && all_finite(v, n) ? 0 : KALO_ERROR_INCORRECT_VALUE;
}
template <class... F> inline int finite_scalars_or_refused(F... values) {
  const float v[] = {values...};
  return finite_or_refused(v, static_cast<int>(sizeof...(values)));
}

// Masses, inertias, periods, time steps and time-outs: finite and above 0.
inline bool finite_positive(double x) {
  return std::isfinite(x) && x > 0.0;
}

// A non-finite set-point must never reach the arm: the connection is closed
// (the caller must not hold the lock) and, the context being gone, code 9 is
// reported in kaloGlobalError. The offending value of v[0..n) is kept as an
// event, readable after the close.
inline int reject_non_finite(KaloContext *ctx, const float *v, int n) {
  int k = 0;
  while (k + 1 < n && all_finite(v + k, 1))
    ++k;
  kalo::record_event(ctx, KALO_EXT_EVENT_NON_FINITE_SET_POINT, static_cast<double>(v[k]),
                     3.4028234663852886e38);
  kaloClose(ctx);
  kaloGlobalError = KALO_ERROR_INCORRECT_VALUE;
  return -1;
}

// The per-point walk of a set-point call: each control point's entry of
// `stride` floats must be finite (or the connection is closed), then
// work(entry, point) runs under the lock and returns 0 or an error code,
// which stops the walk (entries already written stay written).
template <class Work>
int each_set_point(KaloContext *ctx, const float *values, int stride, int32_t points, Work &&work) {
  if (values == nullptr && points > 0) {
    ctx->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  for (int32_t i = 0; i < points; ++i) {
    const float *entry = values + stride * i;
    if (!all_finite(entry, stride))
      return reject_non_finite(ctx, entry, stride);
    int code;
    {
      ContextLock hold(ctx);
      code = work(entry, i);
    }
    if (code != 0) {
      ctx->error_code = static_cast<uint32_t>(code);
      return -1;
    }
  }
  return 0;
}

} // namespace kalo

#include <mutex>

namespace kalo {

// How long a query waits for the controller's reply before reporting code 6.
// The controller answers within a few frames; a silent one must not hang the
// application's thread forever.
constexpr int kReplyTimeoutMs = 2000;

// Held by a thread for as long as it is inside a library wait (and the work
// around it). kaloClose cancels the waits, wakes them and frees nothing while
// a guard is alive; a wait that finds the waits cancelled ends with -1 and
// code 2, in the context and in kaloGlobalError (the context is about to go).
// Several woken waiters write the plain global at once: one at a time.
inline void report_closed_wait() {
  static std::mutex global_error_writes;
  std::lock_guard<std::mutex> hold(global_error_writes);
  kaloGlobalError = KALO_ERROR_COMMUNICATION;
}

class WaitGuard {
public:
  explicit WaitGuard(KaloContext *ctx) : ctx_(ctx) { ctx_->lifetime.waiters.fetch_add(1); }
  ~WaitGuard() { ctx_->lifetime.waiters.fetch_sub(1); } // the last access when a close waits
  WaitGuard(const WaitGuard &) = delete;
  WaitGuard &operator=(const WaitGuard &) = delete;
  // True (with the codes set) once kaloClose has cancelled the waits.
  bool cancelled() const {
    if (ctx_->lifetime.waits_cancelled.load() == 0)
      return false;
    ctx_->error_code = KALO_ERROR_COMMUNICATION;
    if (ctx_->lifetime.closing_thread.load() !=
        std::this_thread::get_id()) // the close's own queries
      report_closed_wait();
    return true;
  }

private:
  KaloContext *ctx_;
};

// The query frame: asks the controller for a field it sends only on demand
// (item 20 carrying the wanted identifier), waits for the reply outside the
// lock, then copies it from the state record under the lock.
// Queries are answered one at a time: the reply semaphore and the backend's
// pending request are single slots, so a second query in flight would take
// the first one's reply or leave it waiting for nothing.
template <class Copy> int query_call(KaloContext *ctx, Field wanted, Copy &&copy) {
  if (!enter(ctx))
    return -1;
  WaitGuard guard(ctx);
  if (guard.cancelled())
    return -1;
  std::lock_guard<std::mutex> one_query_at_a_time(ctx->link.query_mutex);
  if (guard.cancelled())
    return -1;
  {
    ContextLock hold(ctx);
    // A reply that arrived after an earlier query gave up must not answer this one.
    drain(ctx->link.reply_sem);
    ctx->link.command_record.request = static_cast<int16_t>(id(wanted));
    post_field(ctx->link.command_record, Field::request);
  }
  const bool answered = wait_posted(ctx->link.reply_sem, kReplyTimeoutMs);
  if (guard.cancelled())
    return -1;
  if (!answered) {
    ctx->error_code = KALO_ERROR_TIMEOUT;
    return -1;
  }
  ContextLock hold(ctx);
  copy(*ctx);
  return 0;
}

} // namespace kalo
