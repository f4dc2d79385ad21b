// Driving the arm end to end against the simulator: command types, the
// gains' round trips, the attach and detach hand-shakes, the automatic power handling
// of the coupling types, and the closing of the connection on a non-finite
// set-point. The tests of the fixture share one connection and run in order.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "readout_harness.h"

using namespace readout_it;

namespace {

const float kIdentity[7] = {0, 0, 0, 0, 0, 0, 1};
const float kZero6[6] = {0, 0, 0, 0, 0, 0};

class Driving : public SimulatedDevice {
protected:
  static void set_type(uint32_t type) { ASSERT_EQ(kaloSetCommandType(ctx, type), 0); }
  static uint32_t controller_type() {
    uint32_t type = 99;
    EXPECT_EQ(kaloGetCommandType(ctx, &type), 0) << kaloGetErrorMessage(kaloGetErrorCode(ctx));
    return type;
  }
};

} // namespace

TEST_F(Driving, CommandTypesRoundTripThroughTheController) {
  const int mode_byte[8] = {0, -1, -1, 4, 9, 10, 1, 3};
  for (uint32_t type : {3u, 4u, 5u, 6u, 7u, 0u}) {
    set_type(type);
    EXPECT_EQ(expect_sent({Field::command_type}).command_type, mode_byte[type]);
    EXPECT_EQ(controller_type(), type);
    expect_sent({Field::request});
  }
  // Mode bytes without a command type of their own read as 0.
  for (double byte : {2.0, 5.0, 8.0, 11.0}) {
    sim->put_field(Field::command_type, {byte}, true);
    ASSERT_TRUE(sim->wait_for_frames_sent(sim->stats().frames_sent + 3, 1000ms));
    EXPECT_EQ(controller_type(), 0u) << "mode byte " << byte;
    expect_sent({Field::request});
  }
  sim->clear_fields();
  // Refusals send nothing (the fixture fails on any stray frame).
  EXPECT_EQ(kaloSetCommandType(ctx, 1), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 18);
  EXPECT_EQ(kaloSetCommandType(ctx, 2), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 9);
  EXPECT_EQ(kaloSetCommandType(ctx, 8), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 9);
  EXPECT_EQ(kaloSetForce(ctx, kZero6), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 17);
}

// What each setter marks and sends is in the unit wire table; here, the
// gains the controller holds come back through the stiffness round trips.
TEST_F(Driving, GainsComeBackFromTheController) {
  const float k[6] = {100, 200, 300, 1, 2, 3};
  const float b[6] = {4, 5, 6, 0.4f, 0.5f, 0.6f};
  ASSERT_EQ(kaloSetSimulationStiffness(ctx, k), 0);
  ASSERT_EQ(kaloSetSimulationDamping(ctx, b), 0);
  expect_sent({Field::simulation_stiffness, Field::simulation_damping});
  float back[6] = {};
  ASSERT_EQ(kaloGetSimulationStiffness(ctx, back), 0);
  EXPECT_EQ(0, std::memcmp(back, k, sizeof k));
  ASSERT_EQ(kaloGetSimulationDamping(ctx, back), 0);
  EXPECT_EQ(0, std::memcmp(back, b, sizeof b));
  expect_sent({Field::request});
}

TEST_F(Driving, CouplingTypesSwitchThePowerAndTheGuardCutsIt) {
  set_type(4);
  expect_sent({Field::command_type});
  ASSERT_EQ(kaloSetTimeStep(ctx, 0.01f), 0);
  // Opening detached every object: the first coupling set-point completes
  // that detach (and opens the set-point stream), the next one switches the
  // power on.
  ASSERT_EQ(kaloSetPosition(ctx, kIdentity), 0);
  expect_sent({Field::position, Field::set_point_marker});
  ASSERT_EQ(kaloSetPosition(ctx, kIdentity), 0);
  EXPECT_EQ(expect_sent({Field::position, Field::power_on}).power_on, 1);
  ASSERT_TRUE(eventually([] { return sim->device().power; }));

  ASSERT_EQ(kaloSetSpeed(ctx, kZero6), 0);
  expect_sent({Field::speed, Field::power_on});
  const float runaway[6] = {5, 0, 0, 0, 0, 0};
  {
    CapturedOutput out(ctx);
    EXPECT_EQ(kaloSetSpeed(ctx, runaway), -1);
    EXPECT_EQ(kaloGetErrorCode(ctx), 12);
    EXPECT_EQ(out.text().rfind("---- depassement Ec (vitesse de translation) ----\n", 0), 0u);
  }
  EXPECT_EQ(expect_sent({Field::power_on}).power_on, 0);
  ASSERT_TRUE(eventually([] { return !sim->device().power; }));

  // The power's return after the 10 s count is followed call by call in the
  // unit tests; here, the same on the wire once it comes back.
  {
    CapturedOutput out(ctx);
    for (int calls = 0; calls < 1100; ++calls)
      ASSERT_EQ(kaloSetSpeed(ctx, kZero6), 0);
  }
  EXPECT_EQ(expect_sent({Field::speed, Field::power_on}).power_on, 1);
  ASSERT_EQ(kaloSetTimeStep(ctx, 0.1f), 0);
}

TEST_F(Driving, AttachHandShakeForceAndDetach) {
  // The handle held at the origin: no power, no coupling gains on the
  // controller's side, and a 0.1 s step for the mass model's gains.
  set_type(4);
  ASSERT_EQ(kaloSetPowerOn(ctx, 0), 0);
  ASSERT_EQ(kaloSetSimulationStiffness(ctx, kZero6), 0);
  ASSERT_EQ(kaloSetSimulationDamping(ctx, kZero6), 0);
  expect_sent({Field::simulation_stiffness, Field::simulation_damping, Field::command_type,
               Field::power_on});
  ASSERT_EQ(kaloSetTimeStep(ctx, 0.1f), 0);
  sim->set_pose({0, 0, 0, 0, 0, 0, 1});
  ASSERT_TRUE(eventually([] {
    float p[7];
    return kaloGetPosition(ctx, p) == 0 && p[0] == 0.0f && p[1] == 0.0f && p[2] == 0.0f;
  }));
  const float inertia[9] = {0.01f, 0, 0, 0, 0.01f, 0, 0, 0, 0.01f};
  ASSERT_EQ(kaloAttachVO(ctx, inertia, 1.0f), 0);
  // The object 1 cm from the handle (at the origin, at rest) along x.
  const float object[7] = {0.01f, 0, 0, 0, 0, 0, 1};
  ASSERT_EQ(kaloSetPosition(ctx, object), 0);
  // The three round trips were answered before the call returned, so every
  // frame of the hand-shake has reached the simulator.
  int requests = 0;
  bool together = false;
  for (const auto &f : sim->take_received()) {
    if (f.has(Field::position)) {
      together = f.has(Field::vo_attached) && f.record.vo_attached == 1;
      EXPECT_EQ(requests, 1) << "the object goes out after the first round trip";
    }
    if (f.has(Field::request)) {
      EXPECT_EQ(f.record.request, kalo::id(Field::simulation_stiffness)) << "stiffness round trips";
      ++requests;
    }
  }
  EXPECT_TRUE(together) << "items 11 and 14 travel in one frame";
  EXPECT_EQ(requests, 3);

  // Spring of the mass model at a 0.1 s step: 1 kg * 0.12 / 0.01 s^2 = 12 N/m.
  float w[6];
  ASSERT_EQ(kaloGetForce(ctx, w), 0);
  EXPECT_NEAR(w[0], -12.0f * 0.01f, 0.005f);
  EXPECT_NEAR(w[1], 0.0f, 0.005f);
  EXPECT_NEAR(w[2], 0.0f, 0.005f);

  ASSERT_EQ(kaloDetachVO(ctx), 0);
  ExchangeRecord r = expect_sent(
      {Field::simulation_stiffness, Field::simulation_damping, Field::vo_attached, Field::request});
  EXPECT_EQ(r.vo_attached, 0);
  for (int j = 0; j < 6; ++j) {
    EXPECT_EQ(r.simulation_stiffness[j], 0.0f);
    EXPECT_EQ(r.simulation_damping[j], 0.0f);
  }
  ASSERT_EQ(kaloSetPosition(ctx, kIdentity), 0);
  expect_sent({Field::position});
  ASSERT_EQ(kaloGetCatchFrame(ctx, w), 0);
  EXPECT_EQ(w[0], 0.0f) << "the detach reset the object displacement";
}

TEST_F(Driving, CommandTypeFiveSendsTheGainsAndTheAcknowledgedOnesAreKept) {
  set_type(5);
  expect_sent({Field::command_type});
  const float k[6] = {1, 2, 3, 40, 50, 60}; // rotation first
  const float b[6] = {0.1f, 0.2f, 0.3f, 4, 5, 6};
  ASSERT_EQ(kaloAttachQSVO(ctx, k, b), 0);
  ExchangeRecord r = expect_sent({Field::simulation_stiffness, Field::simulation_damping});
  EXPECT_EQ(r.simulation_stiffness[0], 40.0f);
  EXPECT_EQ(r.simulation_stiffness[3], 1.0f);
  EXPECT_EQ(r.simulation_damping[5], 0.3f);
  ASSERT_EQ(kaloSetPosition(ctx, kIdentity), 0);
  expect_sent({Field::vo_attached, Field::position, Field::request});
  // The object is on the handle: the first force query sends the gains once
  // more and keeps what the controller acknowledges.
  float w[6];
  ASSERT_EQ(kaloGetForce(ctx, w), 0);
  r = expect_sent({Field::simulation_stiffness, Field::simulation_damping, Field::request});
  EXPECT_EQ(r.simulation_stiffness[1], 50.0f);
  ASSERT_EQ(kaloGetForce(ctx, w), 0);
  ASSERT_EQ(kaloDetachVO(ctx), 0);
  expect_sent(
      {Field::simulation_stiffness, Field::simulation_damping, Field::vo_attached, Field::request});
  ASSERT_EQ(kaloSetPosition(ctx, kIdentity), 0);
  expect_sent({Field::position});
  set_type(0);
  expect_sent({Field::command_type});
}

TEST_F(Driving, SpeedFactorIsSmoothedOutsideCommandTypeThree) {
  set_type(6);
  expect_sent({Field::command_type});
  ASSERT_EQ(kaloSetSpeedFactor(ctx, 0.5f), 0); // nothing sent yet
  ASSERT_TRUE(sim->wait_for_frames_sent(sim->stats().frames_sent + 50, 1000ms));
  ASSERT_EQ(kaloSetPosition(ctx, kIdentity), 0);
  const float sent = expect_sent({Field::speed_factor, Field::position}).speed_factor;
  EXPECT_LT(sent, 1.0f);
  EXPECT_GT(sent, 0.5f);
  float target = 0;
  ASSERT_EQ(kaloGetSpeedFactor(ctx, &target), 0);
  EXPECT_EQ(target, 0.5f);
}

// A non-finite set-point closes the connection before it can reach the arm.
TEST(NonFiniteSetPoint, ClosesTheConnectionAndNeverReachesTheWire) {
  kalo::sim::Config cfg;
  cfg.port = 0;
  kalo::sim::Simulator sim(cfg);
  std::string why;
  ASSERT_TRUE(sim.start(&why)) << why;
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  struct Case {
    const char *call;
    uint32_t type;
    int (*run)(KaloContext *, float);
  };
  const Case cases[] = {
      {"force", 3,
       [](KaloContext *c, float x) {
         const float f[6] = {0, 0, x, 0, 0, 0};
         return kaloSetForce(c, f);
       }},
      {"position", 6,
       [](KaloContext *c, float x) {
         const float p[7] = {x, 0, 0, 0, 0, 0, 1};
         return kaloSetPosition(c, p);
       }},
      {"speed", 4,
       [](KaloContext *c, float x) {
         const float v[6] = {0, 0, 0, 0, x, 0};
         return kaloSetSpeed(c, v);
       }},
      {"added force", 0,
       [](KaloContext *c, float x) {
         const float f[6] = {0, 0, 0, 0, 0, x};
         return kaloAddForce(c, f);
       }},
  };
  bool use_nan = true;
  for (const Case &c : cases) {
    KaloContext *ctx = kaloOpen(core_test::url_for(core_test::free_udp_port(), sim.port()).c_str());
    ASSERT_NE(ctx, nullptr) << c.call;
    if (c.type != 0) {
      ASSERT_EQ(kaloSetCommandType(ctx, c.type), 0);
    }
    kaloGlobalError = 0;
    EXPECT_EQ(c.run(ctx, use_nan ? nan : inf), -1) << c.call;
    EXPECT_EQ(kaloGlobalError, 9) << c.call;
    use_nan = !use_nan;
    // The connection was closed: the simulator got the goodbye, and no frame
    // ever carried a non-finite set-point.
    EXPECT_TRUE(sim.wait_for_frame_with(Field::close_request, std::chrono::seconds(1))) << c.call;
    std::vector<kalo::sim::ReceivedFrame> frames = sim.take_received();
    for (const auto &f : frames) {
      const ExchangeRecord &r = f.record;
      for (float x : r.force)
        EXPECT_TRUE(std::isfinite(x)) << c.call;
      for (float x : r.position)
        EXPECT_TRUE(std::isfinite(x)) << c.call;
      for (float x : r.speed)
        EXPECT_TRUE(std::isfinite(x)) << c.call;
      for (float x : r.added_force)
        EXPECT_TRUE(std::isfinite(x)) << c.call;
    }
  }
}
