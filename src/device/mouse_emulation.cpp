// Desktop pointer emulation driven by the controller's pointer field (item 60).
// This build drives no pointer: showing, hiding, moving and clicking do
// nothing, and activating or deactivating only show or hide the pointer and
// forget the pointer tracking. The exchange thread calls these under the
// context's lock.
#include "device/call_frame.h"
#include "device/context.h"
#include "kalo/kalo.h"

namespace {

// The pointer-tracking words hold -1 while no movement is being followed.
void reset_pointer_tracking(KaloContext *ctx) {
  if (!kalo::is_live(ctx))
    return;
  ctx->mouse.words[0] = -1;
  ctx->mouse.words[1] = -1;
}

} // namespace

extern "C" {

int32_t init_mouse(KaloContext *context) {
  (void)context;
  return 0;
}

int32_t end_mouse(KaloContext *context) {
  (void)context;
  return 0;
}

int32_t show_mouse(KaloContext *context) {
  (void)context;
  return 0;
}

int32_t hide_mouse(KaloContext *context) {
  (void)context;
  return 0;
}

int32_t active_mouse(KaloContext *context) {
  show_mouse(context);
  reset_pointer_tracking(context);
  return 0;
}

int32_t desactive_mouse(KaloContext *context) {
  hide_mouse(context);
  reset_pointer_tracking(context);
  return 0;
}

int32_t move_mouse(KaloContext *context, float x, float y) {
  (void)context;
  (void)x;
  (void)y;
  return 0;
}

int32_t clic_mouse(KaloContext *context, int32_t left, int32_t right) {
  (void)context;
  (void)left;
  (void)right;
  return 0;
}

} // extern "C"
