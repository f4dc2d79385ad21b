// Virtual mechanisms end to end against the simulator: the command-type rule,
// spline names on the wire, a full batch of trajectory samples, the base-frame
// query and the upper-bound wait.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "readout_harness.h"

using namespace readout_it;

namespace {

class VirtualMechanism : public SimulatedDevice<17721, 17722> {
protected:
  void SetUp() override {
    SimulatedDevice::SetUp();
    assume_command_type(ctx, 5);
  }
};

} // namespace

TEST_F(VirtualMechanism, OutsideCommandTypeFiveEveryCallIsRefusedWith17) {
  assume_command_type(ctx, 4);
  float frame[7] = {0, 0, 0, 0, 0, 0, 1};
  EXPECT_EQ(kaloVmActivate(ctx), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 17);
  EXPECT_EQ(kaloVmSetType(ctx, 1), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 17);
  EXPECT_EQ(kaloVmGetBaseFrame(ctx, frame), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 17);
  EXPECT_EQ(kaloVmStartTrajSampling(ctx, 10), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 17);
  EXPECT_EQ(kaloVmWaitUpperBound(ctx), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 17);
  // TearDown checks that nothing went out.
}

TEST_F(VirtualMechanism, SettingsReachTheController) {
  const float frame[7] = {0.1f, 0.2f, 0.3f, 0, 0, 0, 1};
  float low[10], high[10];
  for (int i = 0; i < 10; ++i) {
    low[i] = -1.0f - static_cast<float>(i);
    high[i] = 1.0f + static_cast<float>(i);
  }
  EXPECT_EQ(kaloVmSetType(ctx, 0), 0);
  EXPECT_EQ(kaloVmActivate(ctx), 0);
  EXPECT_EQ(kaloVmSetBaseFrame(ctx, frame), 0);
  EXPECT_EQ(kaloVmSetMinArtiBounds(ctx, low), 0);
  EXPECT_EQ(kaloVmSetMaxArtiBounds(ctx, high), 0);
  EXPECT_EQ(kaloVmSetDefaultToTransparentMode(ctx), 0);
  EXPECT_EQ(kaloVmSetRobotMode(ctx, 3), 0);
  ExchangeRecord r = expect_sent({27, 28, 32, 33, 34, 42, 45});
  EXPECT_EQ(r.vm_activate, 1);
  EXPECT_EQ(r.vm_type, 0);
  EXPECT_EQ(0, std::memcmp(r.vm_base_frame, frame, sizeof frame));
  EXPECT_EQ(r.vm_min_arti_bounds[9], -10.0f);
  EXPECT_EQ(r.vm_max_arti_bounds[9], 10.0f);
  EXPECT_EQ(r.vm_default_mode, 1);
  EXPECT_EQ(r.vm_robot_mode, 3);

  // The base frame the controller holds comes back through a query.
  float got[7] = {};
  EXPECT_EQ(kaloVmGetBaseFrame(ctx, got), 0);
  expect_sent({20});
  EXPECT_EQ(0, std::memcmp(got, frame, sizeof frame));

  EXPECT_EQ(kaloVmSetBaseFrameToCurrentFrame(ctx), 0);
  EXPECT_EQ(kaloVmSetDefaultToCartesianPosition(ctx), 0);
  EXPECT_EQ(kaloVmDeactivate(ctx), 0);
  r = expect_sent({43, 42, 27});
  EXPECT_EQ(r.vm_default_mode, 0);
  EXPECT_EQ(r.vm_activate, 0);
}

TEST_F(VirtualMechanism, SplineNamesNeedTheSplineMechanismAndTravelWhole) {
  ASSERT_EQ(kaloVmSetType(ctx, 0), 0);
  expect_sent({28});
  EXPECT_EQ(kaloVmSaveCurrentSpline(ctx, "approach"), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 21);
  EXPECT_EQ(kaloVmLoadSpline(ctx, "approach"), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 21);
  EXPECT_EQ(kaloVmDeleteSpline(ctx, "approach"), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 21);

  ASSERT_EQ(kaloVmSetType(ctx, 1), 0);
  expect_sent({28});
  const std::string name(31, 'k');
  EXPECT_EQ(kaloVmSaveCurrentSpline(ctx, name.c_str()), 0);
  ExchangeRecord r = expect_sent({46});
  EXPECT_EQ(std::string(r.spline_name, strnlen(r.spline_name, 32)), name);
  EXPECT_EQ(kaloVmLoadSpline(ctx, "approach"), 0);
  r = expect_sent({47});
  EXPECT_STREQ(r.spline_name, "approach");
  EXPECT_EQ(kaloVmDeleteSpline(ctx, "approach"), 0);
  expect_sent({48});

  const std::string too_long(32, 'x');
  EXPECT_EQ(kaloVmSaveCurrentSpline(ctx, too_long.c_str()), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 9);
  // TearDown checks that the refused name was not sent.
}

TEST_F(VirtualMechanism, AFullBatchOfThreeThousandSamplesComesBackWhole) {
  ASSERT_EQ(kaloVmSetType(ctx, 1), 0);
  expect_sent({28});
  for (int32_t count : {0, 3001}) {
    EXPECT_EQ(kaloVmStartTrajSampling(ctx, count), -1);
    EXPECT_EQ(kaloGetErrorCode(ctx), 9);
  }

  // Sample i is a pose whose x is i millimetres: a lost, repeated or
  // misplaced sample shows.
  std::vector<kalo::sim::Pose> path(3000);
  for (size_t i = 0; i < path.size(); ++i)
    path[i] = {0.001f * static_cast<float>(i), 0.5f, -0.5f, 0, 0, 0, 1};
  sim->set_trajectory(path);

  ASSERT_EQ(kaloVmStartTrajSampling(ctx, 3000), 0);
  auto samples = std::make_unique<float[]>(7 * 3000 + 1);
  samples[7 * 3000] = -42.0f;
  ASSERT_EQ(kaloVmGetTrajSamples(ctx, samples.get()), 0);
  expect_sent({30});
  int wrong = 0;
  for (size_t i = 0; i < path.size(); ++i)
    for (int k = 0; k < 7; ++k)
      wrong += samples[7 * i + static_cast<size_t>(k)] != path[i][static_cast<size_t>(k)];
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(samples[7 * 3000], -42.0f) << "nothing written past the batch";

  // A small batch after it starts again from the first slot.
  ASSERT_EQ(kaloVmStartTrajSampling(ctx, 4), 0);
  float four[7 * 4];
  ASSERT_EQ(kaloVmGetTrajSamples(ctx, four), 0);
  expect_sent({30});
  EXPECT_EQ(four[0], 0.0f);
  EXPECT_EQ(four[7 * 3], 0.003f);
  sim->set_trajectory({});
}

TEST_F(VirtualMechanism, UpperBoundWaitEndsWhenTheControllerAnswers) {
  ASSERT_EQ(kaloVmSetType(ctx, 2), 0);
  ASSERT_EQ(kaloVmActivate(ctx), 0);
  expect_sent({27, 28});
  EXPECT_EQ(kaloVmWaitUpperBound(ctx), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 21);

  ASSERT_EQ(kaloVmSetType(ctx, 0), 0);
  ASSERT_EQ(kaloVmDeactivate(ctx), 0);
  expect_sent({27, 28});
  EXPECT_EQ(kaloVmWaitUpperBound(ctx), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), 19);

  ASSERT_EQ(kaloVmActivate(ctx), 0);
  expect_sent({27});
  std::atomic<int> result{-2};
  std::thread waiter([&] { result = kaloVmWaitUpperBound(ctx); });
  waiter.join(); // the simulator answers item 49 in its next frame
  EXPECT_EQ(result.load(), 0);
  expect_sent({49});
  ASSERT_EQ(kaloVmDeactivate(ctx), 0);
  expect_sent({27});
}
