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

// Real version (parameters): the same query of item 56.
int32_t getMaxSpeed(KaloContext *context) {
  return kalo::query_call(context, 56, [](KaloContext &ctx) {
    ctx.max_linear_speed = ctx.state_record.max_speed[0];
    ctx.max_angular_speed = ctx.state_record.max_speed[1];
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
