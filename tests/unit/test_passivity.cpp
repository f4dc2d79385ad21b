// The passivity observer and controller against sequences computed by hand:
// a passive port never gets damping; an active one gets exactly the damping
// that takes its excess back over one time step, no more than the cap; the
// damping is counted over the interval that really passed; a delayed link's
// port is judged on the other port's energy; bad numbers never reach the arm.
#include <gtest/gtest.h>

#include <array>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <string>
#include <limits>
#include <vector>

#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"

namespace {

constexpr double kT = 0.001;        // s
constexpr double kLinearCap = 10.0; // N s/m
constexpr double kAngularCap = 0.1; // N m s/rad

struct Step {
  std::array<float, 6> force;
  std::array<float, 6> velocity;
  double elapsed; // 0: the time step
  // expected after the step
  double energy;
  double linear_damping;
  std::array<float, 6> out;
};

struct Sequence {
  const char *name;
  double supply; // < 0: a port on its own
  std::vector<Step> steps;
};

constexpr std::array<float, 6> X(float x) {
  return {x, 0, 0, 0, 0, 0};
}

// Each row's numbers follow from p = -f.v, W = in - out + dissipated (or
// supply - out + dissipated), fraction = -W / (T (bl |v|^2 + ba |w|^2)).
const std::vector<Sequence> &sequences() {
  static const std::vector<Sequence> s = {
      {"a damper is passive: energy only flows in",
       -1,
       {
           {X(-0.2f), X(0.1f), 0, 2e-5, 0, X(-0.2f)},
           {X(0.4f), X(-0.2f), 0, 2e-5 + 8e-5, 0, X(0.4f)},
           {X(0), X(0), 0, 1e-4, 0, X(0)},
       }},
      {"a spring gives back what it took: never below zero, no damping",
       -1,
       {
           {X(-1), X(0.1f), 0, 1e-4, 0, X(-1)},
           {X(-1), X(-0.1f), 0, 0, 0, X(-1)},
       }},
      {"an active port gets exactly the damping that cancels its excess",
       -1,
       {
           {X(-1), X(0.1f), 0, 1e-4, 0, X(-1)},
           // out 1.1e-4: W = -1e-5; fraction = 1e-5 / (1e-3 * 10 * 0.01) = 0.1
           {X(-1.1f), X(-0.1f), 0, -1e-5, 1.0, X(-1)},
           // the damping took 1 * 0.01 * 1e-3 = 1e-5 back: W = 0, nothing more added
           {X(0), X(-0.1f), 0, 0, 0, X(0)},
       }},
      {"the excess beyond what the cap can take back stays observed",
       -1,
       {
           {X(-1), X(0.1f), 0, 1e-4, 0, X(-1)},
           // out 2e-4: W = -1e-4; fraction = 1e-4 / (1e-3 * 10 * 0.0025) = 4, held at 1
           {X(-4), X(-0.05f), 0, -1e-4, kLinearCap, X(-3.5f)},
           // the cap took 10 * 0.0025 * 1e-3 = 2.5e-5 back: still short, still capped
           {X(0), X(-0.05f), 0, -7.5e-5, kLinearCap, X(0.5f)},
       }},
      {"a longer interval counts the power and the damping over it",
       -1,
       {
           {X(-1), X(0.1f), 0, 1e-4, 0, X(-1)},
           {X(-1.1f), X(-0.1f), 0, -1e-5, 1.0, X(-1)},
           // 3 ms of 0.01 W of damping: W = -1e-5 + 3e-5
           {X(0), X(-0.1f), 0.003, 2e-5, 0, X(0)},
           // 2 ms of 0.2 W flowing in
           {X(-2), X(0.1f), 0.002, 2e-5 + 4e-4, 0, X(-2)},
       }},
      {"an arm at rest gets no damping: none would take energy back",
       -1,
       {
           {X(2), X(0.1f), 0, -2e-4, kLinearCap, X(1)},
           {X(1), X(0), 0, -1e-4, 0, X(1)},
           {X(1), X(0), 0, -1e-4, 0, X(1)},
       }},
      {"force and moment share one fraction of their caps",
       -1,
       {
           // p = -(0.1 * 0.1 + 0.01 * 0.2) = -0.012 W; full = 10 * 0.01 + 0.1 * 0.04 = 0.104 W
           // fraction = 1.2e-5 / (1e-3 * 0.104) = 0.115384...
           {{0.1f, 0, 0, 0, 0, 0.01f},
            {0.1f, 0, 0, 0, 0, 0.2f},
            0,
            -1.2e-5,
            10 * 0.12 / 1.04,
            {0.1f - 0.12f / 1.04f, 0, 0, 0, 0, 0.01f - 0.0024f / 1.04f}},
           {{0, 0, 0, 0, 0, 0}, {0.1f, 0, 0, 0, 0, 0.2f}, 0, 0, 0, {0, 0, 0, 0, 0, 0}},
       }},
      {"a port of a delayed link is judged on the energy that entered at the other port",
       5e-5,
       {
           // its own input (1e-4) does not count: it was handed to the other port
           {X(-1), X(0.1f), 0, 5e-5, 0, X(-1)},
           // out 1e-4: W = 5e-5 - 1e-4; fraction = 5e-5 / (1e-3 * 10 * 0.01) = 0.5
           {X(1), X(0.1f), 0, -5e-5, 5.0, X(0.5f)},
       }},
  };
  return s;
}

KaloExtPassivity fresh() {
  KaloExtPassivity p{};
  p.size = sizeof p;
  EXPECT_EQ(kaloExtPassivityInit(&p, kT, kLinearCap, kAngularCap), 0);
  return p;
}

TEST(Passivity, FollowsTheHandComputedSequences) {
  for (const Sequence &seq : sequences()) {
    SCOPED_TRACE(seq.name);
    KaloExtPassivity p = fresh();
    if (seq.supply >= 0) {
      ASSERT_EQ(kaloExtPassivitySetSupply(&p, seq.supply), 0);
      ASSERT_EQ(kaloExtPassivitySetSupply(&p, seq.supply / 2), 0);
      EXPECT_EQ(p.supply, seq.supply) << "a lower supply that arrived late is ignored";
    }
    uint64_t active = 0;
    for (std::size_t i = 0; i < seq.steps.size(); ++i) {
      SCOPED_TRACE("step " + std::to_string(i));
      const Step &s = seq.steps[i];
      std::array<float, 6> out{};
      ASSERT_EQ(kaloExtPassivityStep(&p, s.force.data(), s.velocity.data(), s.elapsed, out.data()),
                0);
      EXPECT_NEAR(p.energy, s.energy, 1e-10);
      EXPECT_NEAR(p.linear_damping, s.linear_damping, 1e-6);
      EXPECT_NEAR(p.angular_damping, s.linear_damping * kAngularCap / kLinearCap, 1e-8);
      for (int k = 0; k < 6; ++k)
        EXPECT_NEAR(out[k], s.out[k], 1e-6) << "component " << k;
      active += s.linear_damping > 0 ? 1 : 0;
    }
    EXPECT_EQ(p.steps, seq.steps.size());
    EXPECT_LE(p.capped_steps, p.active_steps);
    EXPECT_EQ(p.active_steps, active);
    EXPECT_GE(p.energy_in, 0.0);
    EXPECT_GE(p.energy_out, 0.0);
  }
}

TEST(Passivity, RefusesWhatItCannotUse) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  struct Init {
    double time_step, linear_cap, angular_cap;
  };
  for (const Init &bad : {Init{0, 1, 1}, Init{-kT, 1, 1}, Init{nan, 1, 1}, Init{inf, 1, 1},
                          Init{kT, -1, 1}, Init{kT, nan, 1}, Init{kT, 1, -1}, Init{kT, 1, inf}}) {
    KaloExtPassivity p{};
    p.size = sizeof p;
    kaloGlobalError = 0;
    EXPECT_EQ(kaloExtPassivityInit(&p, bad.time_step, bad.linear_cap, bad.angular_cap), -1);
    EXPECT_EQ(kaloGlobalError, KALO_ERROR_INCORRECT_VALUE);
    EXPECT_EQ(p.time_step, 0.0) << "left as it was";
    EXPECT_NE(std::string(kaloExtLastErrorDetail()).find(bad.time_step == kT ? "cap" : "time step"),
              std::string::npos)
        << kaloExtLastErrorDetail();
  }
  KaloExtPassivity small{};
  small.size = sizeof small - 8;
  EXPECT_EQ(kaloExtPassivityInit(&small, kT, 1, 1), -1) << "a record shorter than this library's";
  EXPECT_EQ(kaloExtPassivityInit(nullptr, kT, 1, 1), -1);

  // A record never initialised, and supplies that are no energy.
  KaloExtPassivity zero{};
  zero.size = sizeof zero;
  const float f[6] = {1, 0, 0, 0, 0, 0};
  float out[6] = {9, 9, 9, 9, 9, 9};
  EXPECT_EQ(kaloExtPassivityStep(&zero, f, f, 0, out), -1);
  EXPECT_EQ(kaloExtPassivitySetSupply(&zero, 1.0), -1);
  KaloExtPassivity p = fresh();
  for (double bad : {-1.0, nan, inf})
    EXPECT_EQ(kaloExtPassivitySetSupply(&p, bad), -1);
  EXPECT_EQ(p.two_port, 0U);
}

TEST(Passivity, NeverTurnsBadNumbersIntoAForce) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  for (float bad : {nan, inf, -inf})
    for (int which = 0; which < 12; ++which) {
      SCOPED_TRACE(which);
      KaloExtPassivity p = fresh();
      float force[6] = {1, 2, 3, 0.1f, 0.2f, 0.3f}, velocity[6] = {0.1f, 0, 0, 0, 0, 0};
      (which < 6 ? force : velocity)[which % 6] = bad;
      const KaloExtPassivity before = p;
      float out[6] = {9, 9, 9, 9, 9, 9};
      kaloGlobalError = 0;
      EXPECT_EQ(kaloExtPassivityStep(&p, force, velocity, 0, out), -1);
      EXPECT_EQ(kaloGlobalError, KALO_ERROR_INCORRECT_VALUE);
      for (float v : out)
        EXPECT_EQ(v, 0.0f) << "nothing to apply";
      EXPECT_EQ(std::memcmp(&before, &p, sizeof p), 0) << "the record is left as it was";
    }

  // The largest floats, a cap and intervals far beyond reason: still finite forces.
  KaloExtPassivity p{};
  p.size = sizeof p;
  ASSERT_EQ(kaloExtPassivityInit(&p, kT, 1e300, 1e300), 0);
  const float big[6] = {FLT_MAX, -FLT_MAX, FLT_MAX, FLT_MAX, FLT_MAX, -FLT_MAX};
  const float fast[6] = {FLT_MAX, FLT_MAX, -FLT_MAX, FLT_MAX, -FLT_MAX, FLT_MAX};
  for (double elapsed : {0.0, 1e300, std::numeric_limits<double>::quiet_NaN(), 1e-300}) {
    float out[6];
    ASSERT_EQ(kaloExtPassivityStep(&p, big, fast, elapsed, out), 0);
    for (float v : out)
      EXPECT_TRUE(std::isfinite(v)) << "elapsed " << elapsed;
  }

  // The output may be written over the force.
  KaloExtPassivity q = fresh();
  float inout[6] = {1, 0, 0, 0, 0, 0};
  const float v[6] = {0.1f, 0, 0, 0, 0, 0};
  ASSERT_EQ(kaloExtPassivityStep(&q, inout, v, 0, inout), 0);
  EXPECT_NEAR(inout[0], 1 - kLinearCap * 0.1, 1e-6) << "active at once, capped, from its own force";
}

} // namespace
