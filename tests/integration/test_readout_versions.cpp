// The texture wrench end to end: sent in the coupling types, and the one call
// of its group that closes the connection (a non-finite wrench). The version
// gates of the joint, input and output calls are in the unit wire table.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <string>

#include "readout_harness.h"

using namespace readout_it;

namespace {

struct Controller {
  kalo::sim::Simulator sim;
  KaloContext *ctx = nullptr;

  Controller(int major, int minor) : sim(config(major, minor)) {
    std::string why;
    EXPECT_TRUE(sim.start(&why)) << why;
    ctx = kaloOpen(core_test::url_for(core_test::free_udp_port(), sim.port()).c_str());
    EXPECT_NE(ctx, nullptr);
    EXPECT_TRUE(sim.wait_for_frame_with(Field::api_version, 1000ms).has_value());
    (void)sim.take_received();
  }
  ~Controller() {
    if (ctx != nullptr)
      kaloClose(ctx);
  }
  static kalo::sim::Config config(int major, int minor) {
    kalo::sim::Config cfg;
    cfg.port = 0;
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
    ids.erase(kalo::id(Field::time_stamp));
    return ids;
  }
};

} // namespace

TEST(TextureForce, FiniteWrenchIsSentAndANonFiniteOneClosesTheConnection) {
  Controller dev(6, 0);
  ASSERT_NE(dev.ctx, nullptr);
  assume_command_type(dev.ctx, 1);
  const float wrench[6] = {1, -2, 3, 0.1f, 0.2f, 0.3f};
  EXPECT_EQ(kaloSetTextureForce(dev.ctx, wrench), -1);
  EXPECT_EQ(kaloGetErrorCode(dev.ctx), 17);

  assume_command_type(dev.ctx, 4);
  EXPECT_EQ(kaloSetTextureForce(dev.ctx, wrench), 0);
  EXPECT_EQ(dev.sent_soon(), std::set<int>{kalo::id(Field::texture_force)});
  EXPECT_EQ(dev.sim.last_command().texture_force[1], -2.0f);

  const float runaway[6] = {0, 0, NAN, 0, 0, 0};
  kaloGlobalError = 0;
  EXPECT_EQ(kaloSetTextureForce(dev.ctx, runaway), -1);
  EXPECT_EQ(kaloGlobalError, 9);
  dev.ctx = nullptr; // released by the close
  EXPECT_TRUE(dev.sim.wait_for_frame_with(Field::close_request, 1000ms).has_value())
      << "the controller was told";
}
