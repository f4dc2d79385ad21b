// Virtual-mechanism, joint-space and device-output calls on a hand-built
// context: what each one refuses and what it keeps (the fields and values
// they send are in the wire table of test_command_calls).
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "readout_fixture.h"

using readout_test::FakeContext;

namespace {

// A context in command type 5, with a command type chosen (as after
// kaloSetCommandType(ctx, 5)).
struct VmContext : FakeContext {
  VmContext() {
    ctx->command.active_command_type = 5;
    ctx->command.command_type_set = 1;
  }
};

} // namespace

TEST(VirtualMechanism, EveryCallOutsideCommandTypeFiveIsRefusedWith17) {
  FakeContext f;
  f->command.active_command_type = 4;
  f->command.command_type_set = 1;
  f->vm.vm_current_type = 1;
  f->vm.vm_active = 1;
  const float frame[10] = {};
  float out[7 * 4] = {};
  int refused = 0;
  auto expect17 = [&](int result, const char *call) {
    EXPECT_EQ(result, -1) << call;
    EXPECT_EQ(kaloGetErrorCode(f.get()), 17) << call;
    ++refused;
  };
  expect17(kaloVmActivate(f.get()), "activate");
  expect17(kaloVmDeactivate(f.get()), "deactivate");
  expect17(kaloVmSetType(f.get(), 1), "type");
  expect17(kaloVmSetBaseFrame(f.get(), frame), "base frame");
  expect17(kaloVmGetBaseFrame(f.get(), out), "get base frame");
  expect17(kaloVmSetMinArtiBounds(f.get(), frame), "min");
  expect17(kaloVmSetMaxArtiBounds(f.get(), frame), "max");
  expect17(kaloVmSetDefaultToCartesianPosition(f.get()), "cartesian");
  expect17(kaloVmSetDefaultToTransparentMode(f.get()), "transparent");
  expect17(kaloVmSetBaseFrameToCurrentFrame(f.get()), "to current");
  expect17(kaloVmSetRobotMode(f.get(), 2), "robot mode");
  expect17(kaloVmSaveCurrentSpline(f.get(), "a"), "save");
  expect17(kaloVmLoadSpline(f.get(), "a"), "load");
  expect17(kaloVmDeleteSpline(f.get(), "a"), "delete");
  expect17(kaloVmStartTrajSampling(f.get(), 10), "start");
  expect17(kaloVmGetTrajSamples(f.get(), out), "samples");
  expect17(kaloVmWaitUpperBound(f.get()), "upper bound");
  EXPECT_EQ(refused, 17);
  EXPECT_EQ(f.posted(), "");
  EXPECT_EQ(f->vm.vm_active, 1u);
  EXPECT_EQ(f->vm.vm_current_type, 1u);
}

TEST(VirtualMechanism, SettersKeepTheirCopies) {
  VmContext f;
  EXPECT_EQ(kaloVmActivate(f.get()), 0);
  EXPECT_EQ(f->vm.vm_active, 1u);
  EXPECT_EQ(kaloVmDeactivate(f.get()), 0);
  EXPECT_EQ(f->vm.vm_active, 0u);
  EXPECT_EQ(kaloVmSetType(f.get(), 258), 0) << "no range check";
  EXPECT_EQ(f->vm.vm_current_type, 258u);
  EXPECT_EQ(f->vm.vm_default_mode_copy, -1);
  EXPECT_EQ(kaloVmSetDefaultToTransparentMode(f.get()), 0);
  EXPECT_EQ(f->vm.vm_default_mode_copy, 1);
  EXPECT_EQ(kaloVmSetDefaultToCartesianPosition(f.get()), 0);
  EXPECT_EQ(f->vm.vm_default_mode_copy, 0);

  f.clear_posted();
  f->command.command_type_set = 0;
  const float frame[7] = {0.1f, 0.2f, 0.3f, 0, 0, 0, 1};
  EXPECT_EQ(kaloVmSetBaseFrame(f.get(), frame), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 19) << "no base frame before a command type was chosen";
  EXPECT_EQ(f.posted(), "");
}

TEST(VirtualMechanism, SplineNamesNeedTheSplineTypeAndFitInThirtyTwoBytes) {
  VmContext f;
  EXPECT_EQ(kaloVmSaveCurrentSpline(f.get(), "path"), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 21);
  EXPECT_EQ(kaloVmLoadSpline(f.get(), "path"), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 21);
  EXPECT_EQ(kaloVmDeleteSpline(f.get(), "path"), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 21);
  EXPECT_EQ(f.posted(), "");

  f->vm.vm_current_type = 1;
  const std::string longest(31, 'x');
  EXPECT_EQ(kaloVmSaveCurrentSpline(f.get(), longest.c_str()), 0);
  EXPECT_EQ(std::string(f->link.command_record.spline_name), longest);
  // A shorter name leaves nothing of the longer one behind.
  EXPECT_EQ(kaloVmLoadSpline(f.get(), "ab"), 0);
  const char expected[32] = "ab";
  EXPECT_EQ(0, std::memcmp(f->link.command_record.spline_name, expected, 32));
  f.clear_posted();

  const std::string too_long(32, 'y');
  for (const char *name : {too_long.c_str(), static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(kaloVmSaveCurrentSpline(f.get(), name), -1);
    EXPECT_EQ(kaloGetErrorCode(f.get()), 9);
  }
  EXPECT_EQ(f.posted(), "") << "a refused name sends nothing";
  EXPECT_EQ(0, std::memcmp(f->link.command_record.spline_name, expected, 32));
}

TEST(VirtualMechanism, SamplingAcceptsOneToThreeThousandAndRestartsTheBatch) {
  VmContext f;
  for (int32_t count : {0, -1, 3001}) {
    EXPECT_EQ(kaloVmStartTrajSampling(f.get(), count), -1) << count;
    EXPECT_EQ(kaloGetErrorCode(f.get()), 9);
  }
  EXPECT_EQ(f.posted(), "");

  f->link.state_record.list_index = 17;
  TR_poster_semaphore(f->link.traj_sample_sem); // a signal left from an earlier run
  EXPECT_EQ(kaloVmStartTrajSampling(f.get(), 3000), 0);
  EXPECT_EQ(f.posted(), "30");
  EXPECT_EQ(f->link.command_record.traj_sample_count, 3000);
  EXPECT_EQ(f->link.state_record.traj_sample_count, 3000);
  EXPECT_EQ(f->link.state_record.list_index, 0);
  EXPECT_EQ(TR_tester_semaphore(f->link.traj_sample_sem), -1) << "stale sample signals are dropped";
}

TEST(VirtualMechanism, SamplesAreCopiedOnceTheBatchHasArrived) {
  VmContext f;
  float out[7 * 5 + 1];
  EXPECT_EQ(kaloVmGetTrajSamples(f.get(), out), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 21);

  f->vm.vm_current_type = 1;
  ASSERT_EQ(kaloVmStartTrajSampling(f.get(), 5), 0);
  // The exchange thread stores each sample and signals it, one per frame.
  std::thread feeder([&] {
    for (int i = 0; i < 5; ++i) {
      {
        kalo::ContextLock hold(f.get());
        for (int k = 0; k < 7; ++k)
          f->link.state_record.traj_samples[i][k] = static_cast<float>(10 * i + k);
        f->link.state_record.list_index = i + 1;
      }
      TR_poster_semaphore(f->link.traj_sample_sem);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  out[35] = -1.0f;
  EXPECT_EQ(kaloVmGetTrajSamples(f.get(), out), 0);
  feeder.join();
  for (int i = 0; i < 5; ++i)
    for (int k = 0; k < 7; ++k)
      ASSERT_EQ(out[7 * i + k], static_cast<float>(10 * i + k)) << i << "," << k;
  EXPECT_EQ(out[35], -1.0f) << "the batch and nothing more";

  // A batch already complete is copied without waiting; a controller that
  // announces more samples than the array holds is held to the array.
  std::memset(out, 0, sizeof out);
  EXPECT_EQ(kaloVmGetTrajSamples(f.get(), out), 0);
  EXPECT_EQ(out[34], 46.0f);
  f->link.state_record.traj_sample_count = 1 << 30;
  f->link.state_record.list_index = 1 << 30;
  auto big = std::make_unique<float[]>(7 * 3000 + 1);
  big[7 * 3000] = -2.0f;
  EXPECT_EQ(kaloVmGetTrajSamples(f.get(), big.get()), 0);
  EXPECT_EQ(big[7 * 3000], -2.0f);
}

TEST(VirtualMechanism, UpperBoundWaitChecksTypeThenActivityThenBlocksUntilAnswered) {
  VmContext f;
  f->vm.vm_current_type = 2;
  f->vm.vm_active = 1;
  EXPECT_EQ(kaloVmWaitUpperBound(f.get()), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 21);
  f->vm.vm_active = 0;
  EXPECT_EQ(kaloVmWaitUpperBound(f.get()), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 21) << "the type is checked first";
  f->vm.vm_current_type = 0;
  EXPECT_EQ(kaloVmWaitUpperBound(f.get()), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 19);
  EXPECT_EQ(f.posted(), "");

  f->vm.vm_active = 1;
  std::atomic<int> result{-2};
  std::thread waiter([&] { result = kaloVmWaitUpperBound(f.get()); });
  // The request goes out while the waiter blocks without the lock.
  for (;;) {
    kalo::ContextLock hold(f.get());
    if (kalo::carries(f->link.command_record, kalo::Field::vm_wait_upper_bound))
      break;
  }
  EXPECT_EQ(result.load(), -2);
  TR_poster_semaphore(f->link.upper_bound_sem);
  waiter.join();
  EXPECT_EQ(result.load(), 0);
}

TEST(VirtualMechanism, BaseFrameIsAskedForAndCopiedFromTheReply) {
  VmContext f;
  const float answer[7] = {1, 2, 3, 0, 0, 0.6f, 0.8f};
  std::thread controller([&] {
    for (;;) {
      kalo::ContextLock hold(f.get());
      if (kalo::carries(f->link.command_record, kalo::Field::request)) {
        EXPECT_EQ(f->link.command_record.request, 32);
        std::memcpy(f->link.state_record.vm_base_frame, answer, sizeof answer);
        TR_poster_semaphore(f->link.reply_sem);
        return;
      }
    }
  });
  float frame[7] = {};
  EXPECT_EQ(kaloVmGetBaseFrame(f.get(), frame), 0);
  controller.join();
  EXPECT_EQ(0, std::memcmp(frame, answer, sizeof answer));
}

TEST(JointSpace, SettersSendAxisCountValuesAndLeaveTheErrorCode) {
  FakeContext f;
  float q[20];
  for (int i = 0; i < 20; ++i)
    q[i] = 0.5f * static_cast<float>(i + 1);
  f->link.axis_count = 4;
  f->error_code = 6;
  f->link.controller_version = 2.33f; // never equal to the double 2.33
  EXPECT_EQ(kaloSetArticularPosition(f.get(), q), 20);
  f->link.controller_version = 3.56f;
  EXPECT_EQ(kaloSetArticularPosition(f.get(), q), 0);
  EXPECT_EQ(kaloSetArticularSpeed(f.get(), q), 0);
  EXPECT_EQ(kaloSetArticularForce(f.get(), q), 0);
  using Member = float(ExchangeRecord::*)[kalo::kArticularRoom];
  for (Member member : {&ExchangeRecord::articular_position, &ExchangeRecord::articular_speed,
                        &ExchangeRecord::articular_force}) {
    const float *sent = f->link.command_record.*member;
    EXPECT_EQ(sent[3], 2.0f);
    EXPECT_EQ(sent[4], 0.0f) << "axis_count values, no more";
  }
  EXPECT_EQ(kaloGetErrorCode(f.get()), 6) << "setters leave an earlier code alone";
}

TEST(Textures, IntensityOutsideUnitRangeIsABareNineThatRecordsNothing) {
  FakeContext f;
  const float pose[7] = {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.7f};
  float intensity = 0.5f;
  f->command.active_command_type = 1;
  EXPECT_EQ(kaloSetTexture(f.get(), pose, &intensity, 1), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 17);

  f->command.active_command_type = 4;
  f->error_code = 12;
  for (float bad : {1.01f, -0.01f, NAN}) {
    intensity = bad;
    EXPECT_EQ(kaloSetTexture(f.get(), pose, &intensity, 1), 9) << bad;
  }
  EXPECT_EQ(f.posted(), "");
  EXPECT_EQ(kaloGetErrorCode(f.get()), 12) << "the earlier code is still there";

  intensity = 1.0f;
  EXPECT_EQ(kaloSetTexture(f.get(), pose, &intensity, -3), 0);
  EXPECT_EQ(f.posted(), "17");
  const ExchangeRecord &r = f->link.command_record;

  // A count beyond the record's room walks only the point the record holds:
  // the caller's arrays are never read further.
  f.clear_posted();
  f->link.control_point_count = 1000;
  const float poses[7] = {9, 8, 7, 0, 0, 0, 1};
  const float one = 0.25f;
  EXPECT_EQ(kaloSetTexture(f.get(), poses, &one, 0), 0);
  EXPECT_EQ(r.texture[0], 9.0f);
  EXPECT_EQ(r.texture_intensity, 0.25f);
  EXPECT_EQ(f.posted(), "17");
}

TEST(Textures, GrayscaleWeighsTheChannels) {
  float gray = -1;
  const float white[3] = {1, 1, 1}, red[3] = {1, 0, 0}, mix[3] = {0.2f, 0.4f, 0.6f};
  EXPECT_EQ(kaloConvertRGBToGrayscale(nullptr, white, &gray), 0) << "needs no context";
  EXPECT_EQ(gray, 1.0f);
  EXPECT_EQ(kaloConvertRGBToGrayscale(nullptr, red, &gray), 0);
  EXPECT_EQ(gray, 0.299f);
  EXPECT_EQ(kaloConvertRGBToGrayscale(nullptr, mix, &gray), 0);
  EXPECT_NEAR(gray, 0.299 * 0.2 + 0.587 * 0.4 + 0.114 * 0.6, 1e-6);
}
