// Two arms coupled across a delayed link, as examples/teleoperation.c couples
// them: the follower tracks the leader's position (its controller's own
// position servo), the leader feels the follower's effort (its tracking error
// times a feedback stiffness) as it arrives, late, over the follower's link.
// The follower's kalo-sim holds back every state frame; the follower sits in
// front of a stiff wall that the leader's scripted hand pushes it into.
//
// Without the passivity controller the pair injects energy: the observed
// energy of the leader's port goes well below zero and the contact
// oscillates. With it on both ports, the observed energy stays at zero or
// above, within a few steps' worth, and the contact force stays that of a
// hand pushing a wall.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>
#include <thread>

#include "core_support.h"
#include "kalo/kalo_ext.h"

namespace {

using namespace std::chrono_literals;
using core_test::free_udp_port;
using core_test::url_for;

constexpr float kPeriod = 0.001f;
// N/m: the leader's force per metre of the follower's tracking error, twice
// the follower servo's stiffness: the operator feels twice the contact force.
constexpr double kFeedbackStiffness = 900;
// N s/m: the most damping each port's controller adds, well within what a
// 0.5 kg handle stepped at 1 kHz renders (500); less on the follower, whose
// velocity arrives late.
constexpr double kLeaderCap = 100;
constexpr double kFollowerCap = 40;
constexpr float kWallX = 0.01f;
constexpr int kHistory = 256; // periods of set-points kept to meet the late state frames

struct Pair {
  KaloContext *leader = nullptr;
  KaloContext *follower = nullptr;
  bool control = false;
  std::array<float, 7> leader0{}, follower0{};
  std::array<std::array<float, 3>, kHistory> sent{};
  std::array<double, kHistory> leader_in{};
  uint64_t n = 0;
  KaloExtPassivity leader_port{}, follower_port{};
  std::mutex lock;
  double lowest_energy = 0; // of either port
  uint64_t failures = 0;
};

void tick(KaloContext *, void *user) {
  Pair &p = *static_cast<Pair *>(user);
  float xl[7], vl[6], xf[7], vf[6];
  uint32_t age = 0;
  if (kaloGetPosition(p.leader, xl) != 0 || kaloGetSpeed(p.leader, vl) != 0 ||
      kaloGetPosition(p.follower, xf) != 0 || kaloGetSpeed(p.follower, vf) != 0 ||
      kaloGetTimeLastUpdate(p.follower, &age) != 0) {
    std::lock_guard<std::mutex> hold(p.lock);
    ++p.failures;
    return;
  }
  const uint64_t lag = std::min<uint64_t>({(age + 500) / 1000, p.n, kHistory - 1});
  // The follower starts where it is and comes to the leader's position over
  // the first second, so that nothing jumps.
  const float blend = std::max(0.0f, 1.0f - static_cast<float>(p.n) * kPeriod);
  std::array<float, 7> target = p.follower0;
  for (int k = 0; k < 3; ++k)
    target[k] = xl[k] + blend * (p.follower0[k] - p.leader0[k]);
  p.sent[p.n % kHistory] = {target[0], target[1], target[2]};
  const auto &then = p.sent[(p.n - lag) % kHistory];
  float effort[6] = {0, 0, 0, 0, 0, 0}, on_leader[6] = {0, 0, 0, 0, 0, 0};
  for (int k = 0; k < 3; ++k) {
    effort[k] = static_cast<float>(kFeedbackStiffness * (then[k] - xf[k]));
    on_leader[k] = -effort[k];
  }
  float leader_out[6], follower_out[6], follower_damping[6];
  kaloExtPassivitySetSupply(&p.leader_port, p.follower_port.energy_in);
  kaloExtPassivityStep(&p.leader_port, on_leader, vl, 0, leader_out);
  p.leader_in[p.n % kHistory] = p.leader_port.energy_in;
  kaloExtPassivitySetSupply(&p.follower_port, p.leader_in[(p.n - lag) % kHistory]);
  kaloExtPassivityStep(&p.follower_port, effort, vf, 0, follower_out);
  for (int k = 0; k < 6; ++k)
    follower_damping[k] = p.control ? follower_out[k] - effort[k] : 0.0f;
  const bool ok = kaloSetForce(p.leader, p.control ? leader_out : on_leader) == 0 &&
                  kaloSetPosition(p.follower, target.data()) == 0 &&
                  kaloSetForce(p.follower, follower_damping) == 0;
  ++p.n;
  std::lock_guard<std::mutex> hold(p.lock);
  p.lowest_energy = std::min({p.lowest_energy, p.leader_port.energy, p.follower_port.energy});
  p.failures += ok ? 0 : 1;
}

struct Outcome {
  double lowest_energy;
  float largest_contact; // N, the wall's force on the follower
  uint64_t calls;
};

Outcome run_pair(uint32_t delay_us, bool control) {
  kalo::sim::Config lc = core_test::sim_config();
  lc.hand.path = kalo::sim::HandPath::Line;
  lc.hand.radius = 0.08f;
  lc.hand.frequency_hz = 0.5f;
  kalo::sim::Config fc = core_test::sim_config();
  fc.model.wall = {true, {kWallX, 0, 0}, {-1, 0, 0}, 5000, 5};
  fc.faults.delay_us = delay_us;
  fc.faults.delay_ratio = delay_us > 0 ? 1.0 : 0.0;
  kalo::sim::Simulator leader_sim(lc), follower_sim(fc);
  EXPECT_TRUE(leader_sim.start());
  EXPECT_TRUE(follower_sim.start());

  Pair p;
  p.control = control;
  p.leader_port.size = p.follower_port.size = sizeof(KaloExtPassivity);
  // Without the controller the records only observe: no damping to count.
  EXPECT_EQ(kaloExtPassivityInit(&p.leader_port, kPeriod, control ? kLeaderCap : 0, 0), 0);
  EXPECT_EQ(kaloExtPassivityInit(&p.follower_port, kPeriod, control ? kFollowerCap : 0, 0), 0);
  p.leader = kaloOpen(url_for(free_udp_port(), leader_sim.port()).c_str());
  p.follower = kaloOpen(url_for(free_udp_port(), follower_sim.port()).c_str());
  Outcome o{0, 0, 0};
  if (p.leader == nullptr || p.follower == nullptr) {
    ADD_FAILURE() << "open failed";
    if (p.leader != nullptr)
      kaloClose(p.leader);
    if (p.follower != nullptr)
      kaloClose(p.follower);
    return o;
  }
  float period = kPeriod;
  for (KaloContext *c : {p.leader, p.follower}) {
    EXPECT_EQ(kaloSetTimeStep(c, kPeriod), 0);
    EXPECT_EQ(kaloSetCommandType(c, 3), 0);
    EXPECT_EQ(kaloSetPowerOn(c, 1), 0);
  }
  EXPECT_EQ(kaloGetPosition(p.leader, p.leader0.data()), 0);
  EXPECT_EQ(kaloGetPosition(p.follower, p.follower0.data()), 0);
  EXPECT_EQ(kaloSetPeriodicFunction(p.leader, tick, &period, &p), 0);
  EXPECT_EQ(kaloStartLoop(p.leader), 0);

  // Three seconds: the hand (half a turn a second) pushes the follower into
  // the wall once, after the follower has come to the leader.
  const auto start = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - start < 3s) {
    std::this_thread::sleep_for(1ms);
    o.largest_contact = std::max(o.largest_contact, std::abs(follower_sim.device().contact[0]));
  }
  kaloStopLoop(p.leader);
  {
    std::lock_guard<std::mutex> hold(p.lock);
    o.lowest_energy = p.lowest_energy;
    o.calls = p.n;
    EXPECT_EQ(p.failures, 0U);
  }
  kaloClose(p.follower);
  kaloClose(p.leader);
  return o;
}

TEST(Teleoperation, DelayedPairInjectsEnergyWithoutThePassivityControllerAndNotWithIt) {
  const uint32_t delay_us = 10000;
  const Outcome open = run_pair(delay_us, false);
  const Outcome held = run_pair(delay_us, true);
  std::printf("without the controller: lowest observed energy %.3f J, largest contact %.1f N\n",
              open.lowest_energy, static_cast<double>(open.largest_contact));
  std::printf("with the controller:    lowest observed energy %.3f J, largest contact %.1f N\n",
              held.lowest_energy, static_cast<double>(held.largest_contact));
  ASSERT_GT(open.calls, 1000U);
  ASSERT_GT(held.calls, 1000U);
  EXPECT_LT(open.lowest_energy, -1.0) << "the delayed pair without the controller injects energy";
  // A step's worth of deficit, or a few while the damping is held at its
  // cap, is the controller's tolerance; tens of joules are the instability.
  EXPECT_GT(held.lowest_energy, -0.15) << "the controller keeps the observed energy up";
  // The hand's grip (200 N/m) pulls at most about 20 N through the 8 cm of
  // its stroke beyond the wall; the unstable pair bangs the wall harder.
  EXPECT_LT(held.largest_contact, 25.f) << "a hand pushing a wall, no more";
}

} // namespace
