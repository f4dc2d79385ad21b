// Version gates end to end: the controller's version from the handshake
// decides which joint, input and output calls answer with the bare 20; a
// refused call sends nothing, an accepted one sends its field. Also the one
// call of this group that closes the connection (a non-finite texture wrench).
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <string>

#include "readout_harness.h"

using namespace readout_it;

namespace {

constexpr uint16_t kRemote = 17731, kLocal = 17732;

struct Controller {
  kalo::sim::Simulator sim;
  KaloContext *ctx = nullptr;

  Controller(int major, int minor) : sim(config(major, minor)) {
    std::string why;
    EXPECT_TRUE(sim.start(&why)) << why;
    const std::string url =
        "udpxdr://127.0.0.1:" + std::to_string(kLocal) + "#" + std::to_string(kRemote);
    ctx = kaloOpen(url.c_str());
    EXPECT_NE(ctx, nullptr);
    EXPECT_TRUE(sim.wait_for_frame_with(78, 1000ms).has_value());
    (void)sim.take_received();
  }
  ~Controller() {
    if (ctx != nullptr)
      kaloClose(ctx);
  }
  static kalo::sim::Config config(int major, int minor) {
    kalo::sim::Config cfg;
    cfg.port = kRemote;
    cfg.version_major = major;
    cfg.version_minor = minor;
    return cfg;
  }

  // Every field identifier sent from now until a few frames later.
  std::set<int> sent_soon() {
    std::set<int> ids;
    sim.wait_for_frames_sent(sim.stats().frames_sent + 10, 1000ms);
    for (const auto &f : sim.take_received())
      ids.insert(f.ids.begin(), f.ids.end());
    ids.erase(1);
    return ids;
  }
};

} // namespace

TEST(VersionGates, EachCallOpensAboveItsThreshold) {
  struct Case {
    int major, minor;
    std::set<int> accepted; // fields sent by the gated setters below
    bool inputs;            // kaloGetTorInputs / kaloGetAnalogicInputs answer
  };
  // Thresholds: joints 3.55, additional axis 3.1, gripper 3.6, outputs 5.2,
  // PWM 5.3, finger tips 5.8, inputs 5.59; versions are compared as the
  // single-precision major + minor / 100, so 5.59 and 5.8 pass their own gate.
  const Case cases[] = {
      {3, 55, {73}, false},
      {3, 56, {70, 73}, false},
      {5, 59, {70, 73, 86, 87, 89}, true},
      {5, 80, {70, 73, 86, 87, 89, 92}, true},
  };
  const float q[6] = {1, 2, 3, 4, 5, 6}, one = 1.0f, pwm[7] = {}, tips[5] = {};
  for (const Case &c : cases) {
    SCOPED_TRACE(std::to_string(c.major) + "." + std::to_string(c.minor));
    Controller dev(c.major, c.minor);
    ASSERT_NE(dev.ctx, nullptr);
    KaloContext *ctx = dev.ctx;
    EXPECT_EQ(ctx->controller_version,
              static_cast<float>(c.major) + static_cast<float>(c.minor) / 100.0f);

    auto expect = [&](int result, int field) {
      EXPECT_EQ(result, c.accepted.count(field) ? 0 : 20) << "field " << field;
    };
    expect(kaloSetArticularPosition(ctx, q), 70);
    expect(kaloSetArticularPositionOfAdditionalAxe(ctx, &one), 73);
    expect(kaloSetGripperCommandType(ctx, 1), 86);
    expect(kaloOutputsSetting(ctx, 1), 87);
    expect(kaloSetPwmOutput(ctx, pwm), 89);
    expect(kaloSetFingerTipSpeed(ctx, tips), 92);
    EXPECT_EQ(dev.sent_soon(), c.accepted);

    float values[20];
    uint32_t tor = 0;
    EXPECT_EQ(kaloGetArticularPosition(ctx, values), c.accepted.count(70) ? 0 : 20);
    EXPECT_EQ(kaloGetArticularSpeed(ctx, values), c.accepted.count(70) ? 0 : 20);
    EXPECT_EQ(kaloGetTorInputs(ctx, &tor), c.inputs ? 0 : 20);
    EXPECT_EQ(kaloGetAnalogicInputs(ctx, values), c.inputs ? 0 : 20);
    EXPECT_EQ(kaloGetErrorCode(ctx), 0) << "a refused version records nothing";
  }
}

TEST(TextureForce, FiniteWrenchIsSentAndANonFiniteOneClosesTheConnection) {
  Controller dev(6, 0);
  ASSERT_NE(dev.ctx, nullptr);
  assume_command_type(dev.ctx, 1);
  const float wrench[6] = {1, -2, 3, 0.1f, 0.2f, 0.3f};
  EXPECT_EQ(kaloSetTextureForce(dev.ctx, wrench), -1);
  EXPECT_EQ(kaloGetErrorCode(dev.ctx), 17);

  assume_command_type(dev.ctx, 4);
  EXPECT_EQ(kaloSetTextureForce(dev.ctx, wrench), 0);
  EXPECT_EQ(dev.sent_soon(), std::set<int>{18});
  EXPECT_EQ(dev.sim.last_command().texture_force[1], -2.0f);

  const float runaway[6] = {0, 0, NAN, 0, 0, 0};
  kaloGlobalError = 0;
  EXPECT_EQ(kaloSetTextureForce(dev.ctx, runaway), -1);
  EXPECT_EQ(kaloGlobalError, 9);
  dev.ctx = nullptr; // released by the close
  EXPECT_TRUE(dev.sim.wait_for_frame_with(37, 1000ms).has_value()) << "the controller was told";
}
