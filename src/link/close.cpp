// Closing a connection, in order: the pointer emulation and the virtual
// objects, the periodic loop, the closing request to the controller, the
// threads, then every resource of the context.
//
// A context whose link has failed (connected 0: a send failed, or the
// watchdog saw the controller go silent) is released all the same; the call
// then returns -1 with code 2 in kaloGlobalError, the record being gone.
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
// watchdog ends within one period once backend_stop is set.
void wait_for_watchdogs(KaloContext *ctx) {
  if (ctx->link.watchdog_task != nullptr) {
    // Registered but perhaps not yet running: it will enter and see the stop.
    while (ctx->link.watchdog_started.load() == 0)
      TR_delai(0.001);
  }
  while (ctx->link.watchdog_ended.load() != ctx->link.watchdog_started.load())
    TR_delai(0.001);
  kalo::release_task_handle(ctx->link.watchdog_task);
  ctx->link.watchdog_task = nullptr;
}

// Ends every library wait on the context: the waiting threads see the waits
// cancelled and leave with code 2; returns once none is left inside.
void end_waits(KaloContext *ctx) {
  ctx->lifetime.waits_cancelled = 1;
  while (ctx->lifetime.waiters.load() != 0) {
    for (TR_SEMAPHORE *s : {ctx->link.reply_sem, ctx->link.traj_sample_sem, ctx->link.button_sem,
                            ctx->link.upper_bound_sem})
      TR_poster_semaphore(s);
    TR_delai(0.001);
  }
}

} // namespace

namespace kalo {

void release_context(KaloContext *ctx) {
  if (ctx == nullptr)
    return;
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
  // First of all: a thread blocked in a wait (the loop's function among them)
  // must not hold the close up. The detach below then goes out without its
  // confirming round trip.
  end_waits(ctx);

  end_mouse(ctx);
  if (was_connected) {
    kaloDetachVO(ctx);
    TR_delai(0.2);
  }
  const bool on_loop_thread = kalo::stop_loop(ctx);
  if (was_connected)
    TR_delai(0.2);

  {
    kalo::ContextLock hold(ctx);
    kalo::post_field(ctx->link.command_record, kalo::Field::close_request);
    ctx->link.backend_stop = 1;
  }
  // The exchange thread sends the closing request with its answer to the next
  // state frame, then ends.
  if (was_connected)
    TR_delai(0.5);

  wait_for_watchdogs(ctx);
  if (on_loop_thread) {
    // Closed from the periodic function: its thread is the caller; it returns
    // from the function without touching the context again.
    kalo::release_task_handle(ctx->loop.loop_task_finishing);
    ctx->loop.loop_task_finishing = nullptr;
    kalo::mark_closed_by_loop_thread(ctx);
  }
  if (ctx->link.backend_task != nullptr) {
    TR_attendre_semaphore(ctx->link.backend_exited);
    kalo::release_task_handle(ctx->link.backend_task);
    ctx->link.backend_task = nullptr;
  }

  end_waits(ctx); // a call that began a wait meanwhile
  kalo::release_context(ctx);
  if (!was_connected) {
    kaloGlobalError = KALO_ERROR_COMMUNICATION;
    return -1;
  }
  return 0;
}

} // extern "C"
