// Reading the device and commanding its joints and outputs, end to end
// against the simulator: readers return what the last state frame held, and
// setters put exactly their field on the wire.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <thread>

#include "readout_harness.h"

using namespace readout_it;

namespace {

class Readout : public SimulatedDevice<17711, 17712> {
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

TEST_F(Readout, DriveFailuresAreReportedWithTheirExactTexts) {
  sim->set_failure(0x0006);
  settle([] { return read_u32(kaloGetFailure, ctx) == 6u; });
  {
    CapturedOutput out(ctx);
    kaloGlobalError = 0;
    uint32_t failed = 0;
    EXPECT_EQ(kaloGetError(ctx, &failed), -1);
    EXPECT_EQ(failed, 1u);
    EXPECT_EQ(kaloGlobalError, 11);
    EXPECT_EQ(kaloGetErrorCode(ctx), 11);
    EXPECT_EQ(out.text(), "\nPanne du variateur 2\n");
  }
  {
    CapturedOutput out(ctx);
    EXPECT_EQ(kaloDisplayHardwareStatus(ctx), 0);
    EXPECT_EQ(out.text(), "\n****************** Diagnostic materiel ******************\n"
                          "Variateur 1 : OK\nVariateur 2 : NOK\nVariateur 3 : NOK\n"
                          "Variateur 4 : OK\nVariateur 5 : OK\nVariateur 6 : OK\n"
                          "Variateur 7 : OK\nVariateur 8 : OK\n"
                          "**************************************************************\n");
  }
  sim->set_failure(0);
  settle([] { return read_u32(kaloGetFailure, ctx) == 0u; });
  CapturedOutput out(ctx);
  uint32_t failed = 1;
  EXPECT_EQ(kaloGetError(ctx, &failed), 0);
  EXPECT_EQ(failed, 0u);
  EXPECT_EQ(out.text(), "");
}

TEST_F(Readout, HeldButtonWakesTheWaiterOnlyAfterReleaseAndNewPress) {
  auto button1 = [] {
    uint32_t v = 9;
    EXPECT_EQ(kaloGetButton(ctx, 1, &v), 0);
    return v;
  };
  sim->set_buttons(0x0001);
  settle([&] { return button1() == 1u; });

  std::atomic<int> woke{-2};
  std::thread waiter([&] { woke = kaloWaitPressButton(ctx, 1); });
  ASSERT_TRUE(eventually([] { return ctx->wait_armed.load() == 1u; }));
  // Frames keep carrying the held button: no press.
  ASSERT_TRUE(sim->wait_for_frames_sent(sim->stats().frames_sent + 20, 1000ms));
  sim->set_buttons(0x0003);
  ASSERT_TRUE(sim->wait_for_frames_sent(sim->stats().frames_sent + 20, 1000ms));
  EXPECT_EQ(woke.load(), -2) << "woken by a button that was already held";
  sim->set_buttons(0x0000);
  settle([&] { return button1() == 0u; });
  EXPECT_EQ(woke.load(), -2) << "woken by a release";
  sim->set_buttons(0x0001);
  waiter.join();
  EXPECT_EQ(woke.load(), 0);

  sim->set_buttons(0x8000 | 0x4000);
  uint32_t v = 0;
  settle([&] { return kaloGetEmergencyStop(ctx, &v) == 0 && v == 1u; });
  EXPECT_EQ(kaloGetDeadMan(ctx, &v), 0);
  EXPECT_EQ(v, 1u);
  EXPECT_EQ(kaloGetButton(ctx, 17, &v), 0);
  EXPECT_EQ(v, 0u);
  sim->set_buttons(0);
}

TEST_F(Readout, StatusWordGivesAlarmBoundsShiftAndPower) {
  sim->set_alarm((1u << 19) | (1u << 14) | (1u << 8));
  sim->set_power(true);
  settle([] { return read_u32(kaloIsInShiftPosition, ctx) == 1u; });
  EXPECT_EQ(read_u32(kaloGetPowerOn, ctx), 1u);
  EXPECT_EQ(read_u32(kaloGetAlarm, ctx), (1u << 19) | (1u << 16) | (1u << 14));
  EXPECT_EQ(read_u32(kaloIsInBounds, ctx) & 0x3FC0u, 1u << 8);

  ctx->loop_overrun = 1;
  EXPECT_EQ(read_u32(kaloGetAlarm, ctx) & (1u << 17), 1u << 17) << "a loop overrun is alarm bit 17";
  ctx->loop_overrun = 0;

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
  EXPECT_EQ(ctx->axis_count, 6) << "the count is adopted only by kaloGetNumberOfAxes";
  got[6] = 99;
  EXPECT_EQ(kaloGetArticularSpeed(ctx, got), 0);
  EXPECT_EQ(got[6], 99.0f);
  EXPECT_EQ(kaloGetNumberOfAxes(ctx), 0);
  EXPECT_EQ(ctx->axis_count, 8);
  sim->set_joints(q, dq); // now carried with eight values
  settle([&] { return kaloGetArticularSpeed(ctx, got) == 0 && got[7] == -8.0f; });

  // Joint set-points now carry eight values, which the controller decodes
  // with its own count: a wrong length would garble the rest of the frame.
  const uint64_t malformed = sim->stats().malformed;
  EXPECT_EQ(kaloSetArticularPosition(ctx, q), 0);
  const ExchangeRecord sent = expect_sent({70});
  EXPECT_EQ(0, std::memcmp(sent.articular_position, q, sizeof q));
  EXPECT_EQ(sim->stats().malformed, malformed);

  sim->set_counts(1, 6);
  settle([&] { return kaloGetNbAxes(ctx, &n) == 0 && n == 6u; });
  EXPECT_EQ(kaloGetNumberOfAxes(ctx), 0);
}

TEST_F(Readout, JointAxisAndOutputSettersPostTheirFields) {
  const float q[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(kaloSetArticularPosition(ctx, q), 0);
  EXPECT_EQ(kaloSetArticularSpeed(ctx, q), 0);
  EXPECT_EQ(kaloSetArticularForce(ctx, q), 0);
  ExchangeRecord r = expect_sent({70, 71, 72});
  EXPECT_EQ(r.articular_position[5], 6.0f);
  EXPECT_EQ(r.articular_speed[0], 1.0f);
  EXPECT_EQ(r.articular_force[3], 4.0f);
  EXPECT_EQ(sim->stats().malformed, 0u);

  const float p = 0.5f, s = -0.5f, f = 2.5f;
  EXPECT_EQ(kaloSetArticularPositionOfAdditionalAxe(ctx, &p), 0);
  EXPECT_EQ(kaloSetArticularSpeedOfAdditionalAxe(ctx, &s), 0);
  EXPECT_EQ(kaloSetArticularForceOfAdditionalAxe(ctx, &f), 0);
  EXPECT_EQ(kaloSetGripperCommandType(ctx, 2), 0);
  r = expect_sent({73, 74, 81, 86});
  EXPECT_EQ(r.additional_axis_position, 0.5f);
  EXPECT_EQ(r.additional_axis_speed, -0.5f);
  EXPECT_EQ(r.additional_axis_force, 2.5f);
  EXPECT_EQ(r.gripper_command_type, 2);

  const float pwm[7] = {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.7f};
  const float tips[5] = {1, 2, 3, 4, 5};
  EXPECT_EQ(kaloOutputsSetting(ctx, 0x5A), 0);
  EXPECT_EQ(kaloSetPwmOutput(ctx, pwm), 0);
  EXPECT_EQ(kaloSetFingerTipSpeed(ctx, tips), 0);
  EXPECT_EQ(kaloSetFrictionForce(ctx, 0.25f, 0.5f, 0.75f), 0);
  EXPECT_EQ(kaloGenerateDebugFile(ctx), 0);
  r = expect_sent({87, 89, 92, 62, 63});
  EXPECT_EQ(r.outputs, 0x5A);
  EXPECT_EQ(0, std::memcmp(r.pwm_output, pwm, sizeof pwm));
  EXPECT_EQ(0, std::memcmp(r.finger_tip_speed, tips, sizeof tips));
  EXPECT_EQ(r.friction_force[0], 0.25f);
  EXPECT_EQ(r.friction_force[2], 0.75f);
}

TEST_F(Readout, TextureIntensityOutOfRangeIsABareNineAndSendsNothing) {
  const float pose[7] = {0.01f, 0.02f, 0.03f, 0, 0, 0, 1};
  float intensity = 1.01f;
  assume_command_type(ctx, 0);
  EXPECT_EQ(kaloSetTexture(ctx, pose, &intensity, 0), -1); // leaves code 17 behind

  assume_command_type(ctx, 4);
  EXPECT_EQ(kaloSetTexture(ctx, pose, &intensity, 0), 9);
  EXPECT_EQ(kaloGetErrorCode(ctx), 17) << "the code of the earlier failure, untouched";
  ASSERT_TRUE(sim->wait_for_frames_sent(sim->stats().frames_sent + 5, 1000ms));
  EXPECT_EQ(sim->received_count(), 0u) << "a refused texture sends nothing";

  intensity = 1.0f;
  EXPECT_EQ(kaloSetTexture(ctx, pose, &intensity, 1), 0);
  const ExchangeRecord r = expect_sent({17});
  EXPECT_EQ(r.texture[1], 0.02f);
  EXPECT_EQ(r.texture_intensity, 1.0f);
  EXPECT_EQ(r.texture_flag, 1);
  assume_command_type(ctx, 0);
}

TEST_F(Readout, PoseAndHomogeneousMatrixConvertBothWays) {
  float m[16];
  const float identity[7] = {0, 0, 0, 0, 0, 0, 1};
  ASSERT_EQ(kaloConvertDeplToHomogeneMatrix(ctx, identity, m), 0);
  for (int i = 0; i < 16; ++i)
    EXPECT_EQ(m[i], (i % 5 == 0) ? 1.0f : 0.0f) << i;

  // A quarter turn about z, then a translation; the quaternion is given at
  // twice its length and comes back normalised.
  const float h = std::sqrt(0.5f);
  const float pose[7] = {0.1f, -0.2f, 0.3f, 0, 0, 2 * h, 2 * h};
  ASSERT_EQ(kaloConvertDeplToHomogeneMatrix(ctx, pose, m), 0);
  EXPECT_NEAR(m[1], 1.0f, 1e-6) << "column-major: R(1,0) is element 1";
  EXPECT_NEAR(m[4], -1.0f, 1e-6);
  EXPECT_EQ(m[12], 0.1f);
  EXPECT_EQ(m[13], -0.2f);
  EXPECT_EQ(m[14], 0.3f);
  EXPECT_EQ(m[15], 1.0f);
  float back[7];
  ASSERT_EQ(kaloConvertHomogeneMatrixToDepl(ctx, back, m), 0);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(back[i], pose[i]);
  for (int i = 3; i < 7; ++i)
    EXPECT_NEAR(back[i], pose[i] / 2, 1e-6) << i;

  ctx->connected = 0;
  EXPECT_EQ(kaloConvertDeplToHomogeneMatrix(ctx, pose, m), -1) << "the connection is checked";
  ctx->connected = 1;
  EXPECT_EQ(kaloGetErrorCode(ctx), 2);
}
