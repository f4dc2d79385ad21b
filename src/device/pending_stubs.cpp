// Placeholders for the calls that opening, closing and the exchange thread
// make into subsystems still being written. Each does what opening and
// closing need today and nothing more; whoever implements a call for real
// deletes its placeholder here.
#include "device/call_frame.h"
#include "device/context.h"
#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_math.h"
#include "kalo/kalo_signal.h"

extern "C" {

// Real version (servo): allocates the servo records of every control point.
int32_t init_asserv(KaloContext *context) {
  (void)context;
  return 0;
}

// Real version (servo): the same, in the servo's own file.
int32_t init_filtres(KaloContext *context) {
  KaloContext *ctx = context;
  MATD_copier(ctx->speed_factor_filtered, ctx->speed_factor_target);
  ctx->speed_factor_filter = TSIG_creer_filtre_1er_ordre(ctx->speed_factor_cutoff, 0.0009765625);
  if (ctx->speed_factor_filter == nullptr)
    return 0; // the filter stays disabled
  TSIG_filtre_reinitialiser(ctx->speed_factor_filter, ctx->speed_factor_target);
  ctx->filter_disabled = 0;
  return 0;
}

// Real version (servo): releases what init_asserv created.
int32_t close_asserv(KaloContext *context) {
  (void)context;
  return 0;
}

// Real version (energy guard): sets point 0's kinetic-energy thresholds from the maximum speeds.
int32_t init_control_energie_cinetique(KaloContext *context) {
  (void)context;
  return 0;
}

// Real version (energy guard): makes both guards of point 0 restart their estimation.
void deactive_control_ener_cine(KaloContext *context) {
  (void)context;
}

// Real version (state readout): the same edge check, reading the button through kaloGetButton.
int32_t CheckPressButton(KaloContext *context) {
  if (!kalo::enter(context))
    return -1;
  KaloContext *ctx = context;
  kalo::ContextLock hold(ctx);
  uint32_t now = 0;
  const uint32_t button = ctx->wait_button;
  if (button >= 1 && button <= 16)
    now =
        (static_cast<uint32_t>(static_cast<uint16_t>(ctx->state_record.buttons)) >> (button - 1)) &
        1u;
  ctx->button_now = now;
  if (ctx->wait_armed != 0 && now == 1 && ctx->button_previous == 0) {
    TR_poster_semaphore(ctx->button_sem);
    ctx->wait_armed = 0;
  }
  ctx->button_previous = now;
  return 0;
}

// Real version (parameters): the same query of item 56.
int32_t getMaxSpeed(KaloContext *context) {
  return kalo::query_call(context, 56, [](KaloContext &ctx) {
    ctx.max_linear_speed = ctx.state_record.max_speed[0];
    ctx.max_angular_speed = ctx.state_record.max_speed[1];
  });
}

// Real version (state readout): the same copy of field 69.
int32_t kaloGetNumberOfAxes(KaloContext *context) {
  return kalo::locked_call(context, [](KaloContext &ctx) {
    int32_t axes = ctx.state_record.axis_count_wire;
    // The joint arrays hold kArticularRoom values: a larger count from the wire is clamped.
    if (axes < 0)
      axes = 0;
    if (axes > kalo::kArticularRoom)
      axes = kalo::kArticularRoom;
    ctx.axis_count = axes;
    ctx.command_record.axis_count_wire = axes;
    return KALO_NO_ERROR;
  });
}

// Real version (virtual objects): also zeroes the coupling gains and sends them with a round trip.
int32_t kaloDetachVO(KaloContext *context) {
  return kalo::locked_call(context, [](KaloContext &ctx) {
    ctx.command_record.vo_attached = 0;
    kalo::post_field(ctx.command_record, 11);
    ctx.detach_pending = 1;
    ctx.attached_object_count = 0;
    return KALO_NO_ERROR;
  });
}

} // extern "C"
