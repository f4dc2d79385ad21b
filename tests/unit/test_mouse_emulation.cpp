// The pointer emulation entry points: activating and deactivating forget the
// pointer tracking; showing, hiding, moving and clicking change nothing.
#include <gtest/gtest.h>

#include "device/context.h"
#include "kalo/kalo.h"

namespace {

TEST(MouseEmulation, ActivationAndDeactivationResetThePointerTracking) {
  KaloContext ctx{};
  ctx.magic = kalo::kContextMagic;
  for (auto entry : {active_mouse, desactive_mouse}) {
    ctx.mouse.words[0] = 12;
    ctx.mouse.words[1] = 34;
    EXPECT_EQ(entry(&ctx), 0);
    EXPECT_EQ(ctx.mouse.words[0], -1);
    EXPECT_EQ(ctx.mouse.words[1], -1);
  }
}

TEST(MouseEmulation, TheOtherEntryPointsLeaveTheContextAlone) {
  KaloContext ctx{};
  ctx.magic = kalo::kContextMagic;
  ctx.mouse.words[0] = 12;
  ctx.mouse.words[1] = 34;
  EXPECT_EQ(init_mouse(&ctx), 0);
  EXPECT_EQ(show_mouse(&ctx), 0);
  EXPECT_EQ(hide_mouse(&ctx), 0);
  EXPECT_EQ(move_mouse(&ctx, 0.5f, -0.5f), 0);
  EXPECT_EQ(clic_mouse(&ctx, 1, 1), 0);
  EXPECT_EQ(end_mouse(&ctx), 0);
  EXPECT_EQ(ctx.mouse.words[0], 12);
  EXPECT_EQ(ctx.mouse.words[1], 34);
  // A handle that is not a live context is left untouched, not crashed on.
  EXPECT_EQ(active_mouse(nullptr), 0);
  ctx.magic = 0;
  EXPECT_EQ(desactive_mouse(&ctx), 0);
  EXPECT_EQ(ctx.mouse.words[0], 12);
}

} // namespace
