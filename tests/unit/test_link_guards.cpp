// The device layer's own guards, whatever the codec lets through: no
// non-number leaves the library, copies into the application's arrays stay
// within what it asked for, the coupling wrench is never a NaN, and a wait on
// a button that does not exist is refused at once.
#include "command_fixture.h"

#include <cmath>
#include <functional>
#include <limits>
#include <thread>
#include <vector>

namespace {

using command_test::CommandContext;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

void dummy_periodic(KaloContext *, void *) {}

struct Row {
  const char *call;
  std::function<int32_t(KaloContext *, float)> with; // the call, given one bad value
};

// Every call that sends floats to the controller (or keeps a value that sizes
// what it sends: time step, time-out, period, mass, inertia), each with the
// bad value in one place and valid values elsewhere.
const std::vector<Row> &rows() {
  static const std::vector<Row> table = {
      {"kaloSetArticularPosition",
       [](KaloContext *c, float x) {
         float q[6] = {0, 0, 0, x, 0, 0};
         return kaloSetArticularPosition(c, q);
       }},
      {"kaloSetArticularSpeed",
       [](KaloContext *c, float x) {
         float q[6] = {0, 0, 0, 0, 0, x};
         return kaloSetArticularSpeed(c, q);
       }},
      {"kaloSetArticularForce",
       [](KaloContext *c, float x) {
         float q[6] = {x, 0, 0, 0, 0, 0};
         return kaloSetArticularForce(c, q);
       }},
      {"kaloSetArticularPositionOfAdditionalAxe",
       [](KaloContext *c, float x) { return kaloSetArticularPositionOfAdditionalAxe(c, &x); }},
      {"kaloSetArticularSpeedOfAdditionalAxe",
       [](KaloContext *c, float x) { return kaloSetArticularSpeedOfAdditionalAxe(c, &x); }},
      {"kaloSetArticularForceOfAdditionalAxe",
       [](KaloContext *c, float x) { return kaloSetArticularForceOfAdditionalAxe(c, &x); }},
      {"kaloSetPwmOutput",
       [](KaloContext *c, float x) {
         float v[7] = {0, 0, 0, 0, 0, 0, x};
         return kaloSetPwmOutput(c, v);
       }},
      {"kaloSetFingerTipSpeed",
       [](KaloContext *c, float x) {
         float v[5] = {0, 0, x, 0, 0};
         return kaloSetFingerTipSpeed(c, v);
       }},
      {"kaloSetFrictionForce",
       [](KaloContext *c, float x) { return kaloSetFrictionForce(c, 0, x, 0); }},
      {"kaloSetTexture",
       [](KaloContext *c, float x) {
         float p[7] = {0, x, 0, 0, 0, 0, 1};
         float i = 0.5f;
         return kaloSetTexture(c, p, &i, 0);
       }},
      {"kaloVmSetBaseFrame",
       [](KaloContext *c, float x) {
         float f[7] = {x, 0, 0, 0, 0, 0, 1};
         return kaloVmSetBaseFrame(c, f);
       }},
      {"kaloVmSetMinArtiBounds",
       [](KaloContext *c, float x) {
         float b[10] = {0, 0, 0, 0, 0, 0, 0, 0, 0, x};
         return kaloVmSetMinArtiBounds(c, b);
       }},
      {"kaloVmSetMaxArtiBounds",
       [](KaloContext *c, float x) {
         float b[10] = {x};
         return kaloVmSetMaxArtiBounds(c, b);
       }},
      {"kaloActiveSpeedControl",
       [](KaloContext *c, float x) { return kaloActiveSpeedControl(c, x, 1); }},
      {"kaloActiveRotationSpeedControl",
       [](KaloContext *c, float x) { return kaloActiveRotationSpeedControl(c, 1, x); }},
      {"kaloSetForceInSpeedControl",
       [](KaloContext *c, float x) { return kaloSetForceInSpeedControl(c, x); }},
      {"kaloSetTorqueInSpeedControl",
       [](KaloContext *c, float x) { return kaloSetTorqueInSpeedControl(c, x); }},
      {"kaloSetSpeedFactor", [](KaloContext *c, float x) { return kaloSetSpeedFactor(c, x); }},
      {"kaloSetForceFactor", [](KaloContext *c, float x) { return kaloSetForceFactor(c, x); }},
      {"kaloSaturateTorque", [](KaloContext *c, float x) { return kaloSaturateTorque(c, x, 1); }},
      {"kaloSetSimulationStiffness",
       [](KaloContext *c, float x) {
         float k[6] = {1, 1, x, 1, 1, 1};
         return kaloSetSimulationStiffness(c, k);
       }},
      {"kaloSetSimulationDamping",
       [](KaloContext *c, float x) {
         float b[6] = {1, 1, 1, 1, 1, x};
         return kaloSetSimulationDamping(c, b);
       }},
      {"kaloSetObservationFrameSpeed",
       [](KaloContext *c, float x) {
         float v[6] = {x};
         return kaloSetObservationFrameSpeed(c, v);
       }},
      {"kaloSetObservationFrame",
       [](KaloContext *c, float x) {
         float f[7] = {0, x, 0, 0, 0, 0, 1};
         return kaloSetObservationFrame(c, f);
       }},
      {"kaloSetBaseFrame",
       [](KaloContext *c, float x) {
         float f[7] = {0, 0, x, 0, 0, 0, 1};
         return kaloSetBaseFrame(c, f);
       }},
      {"kaloSetCatchFrame",
       [](KaloContext *c, float x) {
         float f[7] = {x, 0, 0, 0, 0, 0, 1};
         return kaloSetCatchFrame(c, f);
       }},
      {"kaloAttachQSVO",
       [](KaloContext *c, float x) {
         float k[6] = {1, 1, 1, 1, x, 1};
         float b[6] = {1, 1, 1, 1, 1, 1};
         return kaloAttachQSVO(c, k, b);
       }},
      {"kaloAttachVO inertia",
       [](KaloContext *c, float x) {
         float i[9] = {1, 0, 0, 0, x, 0, 0, 0, 1};
         return kaloAttachVO(c, i, 1);
       }},
      {"kaloAttachVO mass",
       [](KaloContext *c, float x) {
         float i[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
         return kaloAttachVO(c, i, x);
       }},
      {"kaloAttachVOAvatar inertia",
       [](KaloContext *c, float x) {
         float i[9] = {1, 0, x, 0, 1, 0, 0, 0, 1};
         return kaloAttachVOAvatar(c, i, 1);
       }},
      {"kaloSetTimeStep", [](KaloContext *c, float x) { return kaloSetTimeStep(c, x); }},
      {"kaloSetTimeoutValue", [](KaloContext *c, float x) { return kaloSetTimeoutValue(c, x); }},
      {"kaloSetPeriodicFunction",
       [](KaloContext *c, float x) {
         return kaloSetPeriodicFunction(c, dummy_periodic, &x, nullptr);
       }},
  };
  return table;
}

// Calls that keep their value rather than send it, and the ones that take a
// mass, a period or a factor, must also refuse what is not above 0.
bool must_be_positive(const std::string &call) {
  for (const char *name :
       {"kaloSetTimeStep", "kaloSetTimeoutValue", "kaloSetPeriodicFunction", "kaloAttachVO mass",
        "kaloSetSpeedFactor", "kaloSetForceFactor", "kaloSaturateTorque"})
    if (call == name)
      return true;
  return false;
}

TEST(LinkGuards, EveryFloatSendingCallRefusesANonNumberAndSendsNothing) {
  for (const Row &row : rows()) {
    std::vector<float> bad = {kNaN, kInf, -kInf};
    if (must_be_positive(row.call))
      bad.push_back(-1.0f);
    if (must_be_positive(row.call) && std::string(row.call) != "kaloSetPeriodicFunction")
      bad.push_back(0.0f); // a period of 0 is a loop ticked on every frame
    for (const float x : bad) {
      CommandContext f(5); // command type 5 admits every call of the table
      KaloContext *c = f.get();
      const float step = c->params.time_step;
      const float timeout = c->params.watchdog_period;
      EXPECT_EQ(row.with(c, x), -1) << row.call << " given " << x;
      EXPECT_EQ(kaloGetErrorCode(c), KALO_ERROR_INCORRECT_VALUE) << row.call << " given " << x;
      EXPECT_EQ(f.posted(), "") << row.call << " given " << x << ": nothing may go out";
      EXPECT_EQ(c->link.command_record.send_request, 0u) << row.call;
      EXPECT_EQ(c->link.connected.load(), 1u) << row.call << ": the connection stays open";
      EXPECT_EQ(c->params.time_step, step) << row.call;
      EXPECT_EQ(c->params.watchdog_period, timeout) << row.call;
      EXPECT_EQ(c->loop.periodic_function, nullptr) << row.call;
      EXPECT_EQ(c->servo.points[0].object_attached, 0) << row.call;
    }
    // The same call with valid values passes, so the refusal above is the value's.
    CommandContext f(5);
    EXPECT_EQ(row.with(f.get(), 0.5f), 0) << row.call << " with a valid value";
  }
}

TEST(LinkGuards, AZeroQuaternionFromTheControllerGivesAZeroWrenchAndCode9) {
  CommandContext f(4);
  KaloContext *c = f.get();
  const float k[6] = {2, 2, 2, 1000, 1000, 1000};
  const float b[6] = {1, 1, 1, 1, 1, 1};
  ASSERT_EQ(kaloAttachQSVO(c, k, b), 0);
  c->vm.attach_pending = 0;
  const float object[7] = {0.01f, 0, 0, 0, 0, 0, 1};
  ASSERT_EQ(kaloSetPosition(c, object), 0);
  const float invalid[7] = {0, 0, 0, 0, 0, 0, 0};
  f.device_at(invalid);
  float w[6] = {7, 7, 7, 7, 7, 7};
  EXPECT_EQ(kaloGetForce(c, w), -1);
  EXPECT_EQ(kaloGetErrorCode(c), KALO_ERROR_INCORRECT_VALUE);
  for (const float v : w)
    EXPECT_EQ(v, 0.0f);
  // A valid pose again: a real wrench again.
  const float identity[7] = {0, 0, 0, 0, 0, 0, 1};
  f.device_at(identity);
  EXPECT_EQ(kaloGetForce(c, w), 0) << kaloGetErrorCode(c);
  EXPECT_NEAR(w[0], -10.0f, 0.05f); // 1 cm on 1000 N/m
}

TEST(LinkGuards, WaitingForAButtonTheDeviceHasNotIsRefusedAtOnce) {
  CommandContext f;
  for (const uint32_t button : {0u, 17u, 0xFFFFFFFFu}) {
    EXPECT_EQ(kaloWaitPressButton(f.get(), button), -1) << button;
    EXPECT_EQ(kaloGetErrorCode(f.get()), KALO_ERROR_INCORRECT_VALUE) << button;
  }
}

// A frame (from anyone) that claims 3000 samples must not make the library
// copy more than the batch the application asked for into its array.
TEST(LinkGuards, TrajectorySamplesCopyOnlyTheBatchAskedFor) {
  CommandContext f(5);
  KaloContext *c = f.get();
  c->vm.vm_current_type = 1;
  ASSERT_EQ(kaloVmStartTrajSampling(c, 10), 0);
  {
    kalo::ContextLock hold(c);
    c->link.state_record.traj_sample_count = 3000;
    c->link.state_record.list_index = 3000;
  }
  std::vector<float> samples(70 + 7, -1.0f); // 10 samples, then a guard sample
  ASSERT_EQ(kaloVmGetTrajSamples(c, samples.data()), 0);
  for (std::size_t k = 70; k < samples.size(); ++k)
    EXPECT_EQ(samples[k], -1.0f) << "past the 10 samples asked for, at " << k;
}

// Samples that arrive out of index order all land: the call waits once per
// sample asked for, not until the highest index has come.
TEST(LinkGuards, SamplesArrivingOutOfOrderAllLand) {
  CommandContext f(5);
  KaloContext *c = f.get();
  c->vm.vm_current_type = 1;
  ASSERT_EQ(kaloVmStartTrajSampling(c, 3), 0);
  std::thread controller([c] {
    for (const int index : {2, 0, 1}) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      kalo::ContextLock hold(c);
      for (int k = 0; k < 7; ++k)
        c->link.state_record.traj_samples[index][k] = static_cast<float>(index + 1);
      c->link.state_record.list_index = index + 1;
      TR_poster_semaphore(c->link.traj_sample_sem);
    }
  });
  float samples[21] = {};
  EXPECT_EQ(kaloVmGetTrajSamples(c, samples), 0);
  controller.join();
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(samples[7 * i], static_cast<float>(i + 1)) << "sample " << i;
}

} // namespace
