// Virtual mechanisms end to end against the simulator: the base-frame query,
// a full batch of trajectory samples and the upper-bound wait. Refusals and
// fields are unit-tested.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "readout_harness.h"

using namespace readout_it;

namespace {

class VirtualMechanism : public SimulatedDevice {
protected:
  void SetUp() override {
    SimulatedDevice::SetUp();
    assume_command_type(ctx, 5);
  }
};

} // namespace

TEST_F(VirtualMechanism, TheBaseFrameComesBackFromTheController) {
  const float frame[7] = {0.1f, 0.2f, 0.3f, 0, 0, 0, 1};
  EXPECT_EQ(kaloVmSetBaseFrame(ctx, frame), 0);
  expect_sent({Field::vm_base_frame});
  float got[7] = {};
  EXPECT_EQ(kaloVmGetBaseFrame(ctx, got), 0);
  expect_sent({Field::request});
  EXPECT_EQ(0, std::memcmp(got, frame, sizeof frame));
}

TEST_F(VirtualMechanism, AFullBatchOfThreeThousandSamplesComesBackWhole) {
  ASSERT_EQ(kaloVmSetType(ctx, 1), 0);
  expect_sent({Field::vm_type});
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
  expect_sent({Field::traj_sample_count});
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
  expect_sent({Field::traj_sample_count});
  EXPECT_EQ(four[0], 0.0f);
  EXPECT_EQ(four[7 * 3], 0.003f);
  sim->set_trajectory({});
}

TEST_F(VirtualMechanism, UpperBoundWaitEndsWhenTheControllerAnswers) {
  ASSERT_EQ(kaloVmSetType(ctx, 0), 0);
  ASSERT_EQ(kaloVmActivate(ctx), 0);
  expect_sent({Field::vm_activate, Field::vm_type});
  // The simulator answers item 49 in its next frame.
  EXPECT_EQ(kaloVmWaitUpperBound(ctx), 0);
  expect_sent({Field::vm_wait_upper_bound});
  ASSERT_EQ(kaloVmDeactivate(ctx), 0);
  expect_sent({Field::vm_activate});
}
