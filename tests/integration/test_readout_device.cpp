// Reading the device end to end against the simulator: readers return what
// the last state frame held, and the joint count taken from the controller
// sizes both directions. The texts, bits and refusals of each reader are
// unit-tested on a hand-built context.
#include <gtest/gtest.h>

#include <cstring>

#include "readout_harness.h"

using namespace readout_it;

namespace {

class Readout : public SimulatedDevice {
protected:
  // Waits until the library has seen what the simulator now sends.
  static void settle(const std::function<bool()> &seen) {
    ASSERT_TRUE(eventually(seen)) << "the state never reached the library";
  }
};

uint32_t read_u32(int32_t (*reader)(KaloContext *, uint32_t *), KaloContext *ctx) {
  uint32_t v = 0xDEADBEEF;
  EXPECT_EQ(reader(ctx, &v), 0);
  return v;
}

} // namespace

TEST_F(Readout, StatusWordGivesAlarmBoundsShiftAndPower) {
  sim->set_alarm((1u << 19) | (1u << 14) | (1u << 8));
  sim->set_power(true);
  settle([] { return read_u32(kaloIsInShiftPosition, ctx) == 1u; });
  EXPECT_EQ(read_u32(kaloGetPowerOn, ctx), 1u);
  EXPECT_EQ(read_u32(kaloGetAlarm, ctx), (1u << 19) | (1u << 16) | (1u << 14));
  EXPECT_EQ(read_u32(kaloIsInBounds, ctx) & 0x3FC0u, 1u << 8);

  ctx->loop.loop_overrun = 1;
  EXPECT_EQ(read_u32(kaloGetAlarm, ctx) & (1u << 17), 1u << 17) << "a loop overrun is alarm bit 17";
  ctx->loop.loop_overrun = 0;

  sim->set_alarm(0);
  sim->set_power(false);
  settle([] { return read_u32(kaloGetPowerOn, ctx) == 0u; });
  EXPECT_EQ(read_u32(kaloIsInShiftPosition, ctx), 0u);
  EXPECT_EQ(read_u32(kaloGetAlarm, ctx), 0u);
}

TEST_F(Readout, InputsTrackballAdcSphereAndAxisReachTheApplication) {
  sim->set_trackball({7, -3, 12, 1, 0, 1});
  sim->set_adc({0.25f, 0.5f, 0.75f});
  sim->set_tor_inputs(0x00C3);
  sim->set_analog_inputs({1, 2, 3, 4, 5, 6, 7.5f});
  sim->set_center_sphere({0.1f, 0.2f, 0.3f, 0, 0, 0, 1});
  sim->set_axis_of_rotation({0, 1, 0});
  settle([] { return read_u32(kaloGetTorInputs, ctx) == 0xC3u; });

  uint32_t x = 0, y = 0, a = 9, b = 9, c = 9, d = 9;
  settle([&] { return kaloGetTrackball(ctx, &x, &y) == 0 && x == static_cast<uint32_t>(-3); });
  EXPECT_EQ(y, 12u);
  EXPECT_EQ(kaloGetTrackballButton(ctx, &a, &b, &c, &d), 0);
  EXPECT_EQ(a, 7u);
  EXPECT_EQ(b, 1u);
  EXPECT_EQ(c, 0u);
  EXPECT_EQ(d, 1u);

  float v = 0;
  settle([&] { return kaloGetADC(ctx, 3, &v) == 0 && v == 0.75f; });
  EXPECT_EQ(kaloGetADC(ctx, 1, &v), 0);
  EXPECT_EQ(v, 0.25f);
  for (int index : {0, 4}) {
    EXPECT_EQ(kaloGetADC(ctx, index, &v), -1);
    EXPECT_EQ(kaloGetErrorCode(ctx), 9);
  }

  float analog[7] = {}, centre[7] = {}, axis[3] = {};
  settle([&] { return kaloGetAnalogicInputs(ctx, analog) == 0 && analog[6] == 7.5f; });
  settle([&] { return kaloGetCenterSphere(ctx, centre) == 0 && centre[2] == 0.3f; });
  EXPECT_EQ(centre[6], 1.0f);
  settle([&] { return kaloGetAxisOfRotation(ctx, axis) == 0 && axis[1] == 1.0f; });
}

TEST_F(Readout, JointReadersFollowTheAxisCountTakenFromTheController) {
  const float q[8] = {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.7f, 0.8f};
  const float dq[8] = {-1, -2, -3, -4, -5, -6, -7, -8};
  sim->set_joints(q, dq);
  sim->set_additional_axis(0.125f, -0.25f);
  float got[21];
  settle([&] { return kaloGetArticularPosition(ctx, got) == 0 && got[5] == 0.6f; });
  settle([&] {
    float p = 0, s = 0;
    return kaloGetArticularPositionOfAdditionalAxe(ctx, &p) == 0 && p == 0.125f &&
           kaloGetArticularSpeedOfAdditionalAxe(ctx, &s) == 0 && s == -0.25f;
  });

  sim->set_counts(1, 8);
  uint32_t n = 0;
  settle([&] { return kaloGetNbAxes(ctx, &n) == 0 && n == 8u; });
  EXPECT_EQ(ctx->link.axis_count, 6) << "the count is adopted only by kaloGetNumberOfAxes";
  got[6] = 99;
  EXPECT_EQ(kaloGetArticularSpeed(ctx, got), 0);
  EXPECT_EQ(got[6], 99.0f);
  EXPECT_EQ(kaloGetNumberOfAxes(ctx), 0);
  EXPECT_EQ(ctx->link.axis_count, 8);
  sim->set_joints(q, dq); // now carried with eight values
  settle([&] { return kaloGetArticularSpeed(ctx, got) == 0 && got[7] == -8.0f; });

  // Joint set-points now carry eight values, which the controller decodes
  // with its own count: a wrong length would garble the rest of the frame.
  const uint64_t malformed = sim->stats().malformed;
  EXPECT_EQ(kaloSetArticularPosition(ctx, q), 0);
  const ExchangeRecord sent = expect_sent({Field::articular_position});
  EXPECT_EQ(0, std::memcmp(sent.articular_position, q, sizeof q));
  EXPECT_EQ(sim->stats().malformed, malformed);

  sim->set_counts(1, 6);
  settle([&] { return kaloGetNbAxes(ctx, &n) == 0 && n == 6u; });
  EXPECT_EQ(kaloGetNumberOfAxes(ctx), 0);
}
