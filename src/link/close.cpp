// Closing a connection, in order: the periodic loop (its function may go on
// calling the arm until its current call ends), the library waits, the
// pointer emulation and the virtual objects, the closing request to the
// controller, the threads, then every resource of the context. Each step
// waits for the event it stands for (the loop thread ended, the detach sent,
// the closing frame sent and the exchange thread ended), each with a limit:
// a thread that outlives its limit (a host's shutdown may have stopped it for
// good) keeps its hold on the context, which is released when it lets go.
//
// A context whose link has failed (connected 0: a send failed, or the
// watchdog saw the controller go silent) is released all the same; the call
// then returns -1 with code 2 in kaloGlobalError, the record being gone.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "device/call_frame.h"
#include "device/context.h"
#include "link/lifecycle.h"
#include "link/live_contexts.h"
#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_math.h"
#include "kalo/kalo_deplacement.h"
#include "kalo/kalo_quaternion.h"
#include "kalo/kalo_signal.h"
#include "realtime/timed_wait.h"

namespace {

void destroy_semaphore(TR_SEMAPHORE *&s) {
  if (s != nullptr)
    TR_detruire_semaphore(s);
  s = nullptr;
}

void destroy_matrix(MATD *&m) {
  MATD_detruire(m);
  m = nullptr;
}

// Waits until every watchdog thread that entered the context has left it. A
// watchdog ends within one of its periods once backend_stop is set. False
// when one is still inside after the limit.
bool wait_for_watchdogs(KaloContext *ctx) {
  const double period = static_cast<double>(ctx->params.watchdog_period);
  const kalo::Deadline limit(1000 + static_cast<int>(std::fmin(2.0 * period, 60.0) * 1000.0));
  const auto inside = [ctx] {
    // Registered but perhaps not yet running: it will enter and see the stop.
    return (ctx->link.watchdog_task != nullptr && ctx->link.watchdog_started.load() == 0) ||
           ctx->link.watchdog_ended.load() != ctx->link.watchdog_started.load();
  };
  while (inside()) {
    if (limit.left_ms() == 0)
      return false;
    TR_delai(0.001);
  }
  kalo::release_task_handle(ctx->link.watchdog_task);
  ctx->link.watchdog_task = nullptr;
  return true;
}

// Ends every library wait on the context: the waiting threads see the waits
// cancelled and leave with code 2. A woken wait leaves at once; false when a
// thread is still inside after the limit.
bool end_waits(KaloContext *ctx) {
  ctx->lifetime.waits_cancelled = 1;
  const kalo::Deadline limit(1000);
  while (ctx->lifetime.waiters.load() != 0) {
    if (limit.left_ms() == 0)
      return false;
    for (TR_SEMAPHORE *s : {ctx->link.reply_sem, ctx->link.traj_sample_sem, ctx->link.button_sem,
                            ctx->link.upper_bound_sem})
      TR_poster_semaphore(s);
    TR_delai(0.001);
  }
  return true;
}

} // namespace

namespace kalo {

void hold(KaloContext *ctx) {
  ctx->lifetime.holders.fetch_add(1);
}

void let_go(KaloContext *ctx, uint32_t holds) {
  if (ctx->lifetime.holders.fetch_sub(holds) == holds)
    release_context(ctx);
}

bool wait_marks_sent(KaloContext *ctx, int limit_ms) {
  uint64_t target;
  {
    ContextLock hold(ctx);
    if (ctx->link.command_record.send_request == 0)
      return true;
    target = ctx->link.frames_sent + 1;
    drain(ctx->link.frame_sent_sem);
    ctx->link.sent_watched = 1;
  }
  const Deadline limit(limit_ms);
  bool sent = false;
  while (!sent && wait_posted(ctx->link.frame_sent_sem, limit.left_ms())) {
    ContextLock hold(ctx);
    sent = ctx->link.frames_sent >= target;
  }
  ctx->link.sent_watched = 0;
  return sent;
}

void release_context(KaloContext *ctx) {
  if (ctx == nullptr)
    return;
  // Handles of threads that ended after the close stopped waiting for them.
  for (TR_TACHE **task : {&ctx->link.backend_task, &ctx->loop.loop_task,
                          &ctx->loop.loop_task_finishing, &ctx->link.watchdog_task}) {
    release_task_handle(*task);
    *task = nullptr;
  }
  telemetry_release(ctx); // a running recording ends with the connection
  destroy_matrix(ctx->servo.work_matrix4);
  destroy_matrix(ctx->servo.work_matrix3);
  VECT3_detruire(ctx->servo.work_vect3);
  DEPL_detruire(ctx->servo.work_depl);
  QUAT_detruire(ctx->servo.work_quat);
  ctx->servo.work_vect3 = nullptr;
  ctx->servo.work_depl = nullptr;
  ctx->servo.work_quat = nullptr;
  destroy_matrix(ctx->servo.object_inertia);

  destroy_semaphore(ctx->lock);
  destroy_semaphore(ctx->link.reply_sem);
  destroy_semaphore(ctx->loop.loop_sem);
  destroy_semaphore(ctx->link.traj_sample_sem);
  destroy_semaphore(ctx->link.backend_exited);
  destroy_semaphore(ctx->loop.loop_exited);
  destroy_semaphore(ctx->link.first_frame_sem);
  destroy_semaphore(ctx->link.frame_sent_sem);
  destroy_semaphore(ctx->link.button_sem);
  destroy_semaphore(ctx->link.upper_bound_sem);

  destroy_matrix(ctx->servo.speed_factor_target);
  destroy_matrix(ctx->servo.speed_factor_filtered);
  destroy_matrix(ctx->servo.speed_factor_cutoff);
  TSIG_filtre_detruire(ctx->servo.speed_factor_filter);
  ctx->servo.speed_factor_filter = nullptr;

  if (ctx->link.session >= 0 && close_protocol(ctx->link.session) == -1 &&
      ctx->params.output_stream != nullptr)
    std::fputs("Error in close_protocol()\n", ctx->params.output_stream);
  if (ctx->params.output_stream != nullptr && ctx->params.output_stream != stdout)
    std::fclose(ctx->params.output_stream);
  if (ctx->params.opened_output != nullptr &&
      ctx->params.opened_output != ctx->params.output_stream)
    std::fclose(ctx->params.opened_output);
  ctx->params.output_stream = nullptr;
  ctx->params.opened_output = nullptr;

  retire_context(ctx);
  ctx->magic = 0;
  close_asserv(ctx);
  std::free(ctx->servo.gain_stiffness_buffer);
  std::free(ctx->servo.gain_damping_buffer);
  std::free(ctx->servo.scratch_speed);
  std::free(ctx->servo.scratch_force);
  std::free(ctx->servo.scratch_position);
  std::free(ctx->link.state_record.traj_samples);
  delete ctx;
}

} // namespace kalo

extern "C" {

int32_t kaloClose(KaloContext *context) {
  if (!kalo::is_live(context)) {
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  KaloContext *ctx = context;
  if (ctx->lifetime.close_claimed.exchange(1) != 0) {
    // Another thread is closing this handle already.
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  ctx->lifetime.closing_thread = std::this_thread::get_id();
  const bool was_connected = ctx->link.connected.load() != 0;
  // A controller that never answered has nothing attached to detach.
  const bool heard = ctx->link.frame_received.load() != 0;

  // The loop first, while every call still works: a periodic function that
  // calls the arm during the close gets its answers until its current call
  // ends. A function blocked in a library wait is freed by ending the waits,
  // then given as long again.
  kalo::LoopStop loop = kalo::stop_loop(ctx, kalo::kLoopStopLimitMs);
  bool waits_ended = end_waits(ctx);
  if (loop == kalo::LoopStop::still_running && kalo::reap_stopped_loop(ctx, kalo::kLoopStopLimitMs))
    loop = kalo::LoopStop::ended;

  // The waits being ended, the detach goes out without its confirming round
  // trip: wait for the frame that carries it.
  end_mouse(ctx);
  if (was_connected && heard) {
    kaloDetachVO(ctx);
    kalo::wait_marks_sent(ctx, kalo::kCloseDetachSentLimitMs);
  }

  {
    kalo::ContextLock hold(ctx);
    kalo::post_field(ctx->link.command_record, kalo::Field::close_request);
    ctx->link.backend_stop = 1;
  }
  // The exchange thread sends the closing request with its answer to the next
  // state frame, then ends (within one receive time-out when none comes).
  // A thread that outlives the limit keeps its hold: the context is released
  // when it ends.
  if (ctx->link.backend_task != nullptr &&
      kalo::wait_posted(ctx->link.backend_exited, kalo::kExchangeEndLimitMs)) {
    kalo::release_task_handle(ctx->link.backend_task);
    ctx->link.backend_task = nullptr;
  }
  const bool watchdogs_ended = wait_for_watchdogs(ctx);
  waits_ended = end_waits(ctx) && waits_ended; // a call that began a wait meanwhile

  uint32_t holds = 1; // the application's
  if (loop == kalo::LoopStop::on_loop_thread) {
    // Closed from the periodic function: its thread is the caller; it returns
    // from the function without touching the context again, so its hold goes
    // with the application's.
    kalo::release_task_handle(ctx->loop.loop_task_finishing);
    ctx->loop.loop_task_finishing = nullptr;
    kalo::mark_closed_by_loop_thread(ctx);
    holds = 2;
  }
  // From here on the handle is stale: a periodic function still in its call
  // gets code 3 from every call.
  kalo::retire_context(ctx);
  if (waits_ended && watchdogs_ended)
    kalo::let_go(ctx, holds);
  // else: a thread is still inside a wait or a watchdog after every limit;
  // freeing the context under it is worse than leaving it allocated.
  if (!was_connected) {
    kaloGlobalError = KALO_ERROR_COMMUNICATION;
    return -1;
  }
  return 0;
}

} // extern "C"
