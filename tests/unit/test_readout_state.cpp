// Device state readout on a hand-built context: each reader returns what the
// state record holds, in the right bits, and never marks anything for sending.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>

#include <Eigen/Geometry>
#include <cstring>
#include <iterator>
#include <thread>

#include "readout_fixture.h"

using readout_test::FakeContext;

namespace {

const char kDiagnosticBanner[] = "\n****************** Diagnostic materiel ******************\n";
const char kClosingLine[] = "**************************************************************\n";

} // namespace

TEST(DriveFailures, LowestFailedDriveIsReportedWithCodeElevenEverywhere) {
  FakeContext f;
  f->link.state_record.failure = 0x0006;
  kaloGlobalError = 0;
  uint32_t failed = 7;
  EXPECT_EQ(kaloGetError(f.get(), &failed), -1);
  EXPECT_EQ(failed, 1u);
  EXPECT_EQ(f.output(), "\nPanne du variateur 2\n");
  EXPECT_EQ(kaloGlobalError, 11);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 11);

  // Drive 8 is the top bit of the low byte; the high byte names no drive.
  f->link.state_record.failure = static_cast<int16_t>(0xFF80);
  EXPECT_EQ(kaloGetError(f.get(), &failed), -1);
  EXPECT_EQ(f.output(), "\nPanne du variateur 2\n\nPanne du variateur 8\n");

  kaloGlobalError = 0;
  (void)kaloGetErrorCode(f.get());
  for (int16_t word : {int16_t{0}, static_cast<int16_t>(0xFF00)}) {
    f->link.state_record.failure = word;
    failed = 7;
    EXPECT_EQ(kaloGetError(f.get(), &failed), 0);
    EXPECT_EQ(failed, 0u);
  }
  EXPECT_EQ(f.output().size(), 44u) << "nothing printed without a failed drive";
  EXPECT_EQ(kaloGlobalError, 0);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 0);
}

TEST(DriveFailures, HardwareStatusPrintsEveryDriveBetweenBannerAndClosingLine) {
  FakeContext f;
  f->link.state_record.failure = 0x0006;
  EXPECT_EQ(kaloDisplayHardwareStatus(f.get()), 0);
  const std::string expected = std::string(kDiagnosticBanner) +
                               "Variateur 1 : OK\nVariateur 2 : NOK\nVariateur 3 : NOK\n"
                               "Variateur 4 : OK\nVariateur 5 : OK\nVariateur 6 : OK\n"
                               "Variateur 7 : OK\nVariateur 8 : OK\n" +
                               kClosingLine;
  EXPECT_EQ(f.output(), expected);
  EXPECT_EQ(sizeof kDiagnosticBanner - 1, 59u);
  EXPECT_EQ(sizeof kClosingLine - 1, 63u);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 0) << "the diagnosis records no error";

  uint32_t word = 0;
  f->link.state_record.failure = static_cast<int16_t>(0x8001);
  EXPECT_EQ(kaloGetFailure(f.get(), &word), 0);
  EXPECT_EQ(word, 0x8001u) << "the 16-bit word is not sign-extended";
}

TEST(Buttons, EachButtonIsItsOwnBitAndNumbersOutsideOneToSixteenReadZero) {
  FakeContext f;
  f->link.state_record.buttons = static_cast<int16_t>(0x8005); // buttons 1, 3 and 16
  uint32_t v = 9;
  for (uint32_t b : {1u, 3u, 16u}) {
    ASSERT_EQ(kaloGetButton(f.get(), b, &v), 0);
    EXPECT_EQ(v, 1u) << b;
  }
  for (uint32_t b : {0u, 2u, 15u, 17u, 32u, 0xFFFFFFFFu}) {
    ASSERT_EQ(kaloGetButton(f.get(), b, &v), 0);
    EXPECT_EQ(v, 0u) << b;
  }
  EXPECT_EQ(kaloGetEmergencyStop(f.get(), &v), 0);
  EXPECT_EQ(v, 1u);
  EXPECT_EQ(kaloGetDeadMan(f.get(), &v), 0);
  EXPECT_EQ(v, 0u);
  f->link.state_record.buttons = 0x4000;
  EXPECT_EQ(kaloGetDeadMan(f.get(), &v), 0);
  EXPECT_EQ(v, 1u);

  f->link.connected = 0;
  EXPECT_EQ(kaloGetEmergencyStop(f.get(), &v), 0) << "returns 0 whatever the button read gave";
  EXPECT_EQ(f->error_code.load(), 2u);
}

// The test plays the exchange thread: it changes the buttons word and runs
// the check that follows every frame carrying it.
TEST(Buttons, HeldButtonWakesTheWaiterOnlyAfterReleaseAndNewPress) {
  FakeContext f;
  auto frame = [&](int16_t buttons) {
    {
      kalo::ContextLock hold(f.get());
      f->link.state_record.buttons = buttons;
    }
    EXPECT_EQ(CheckPressButton(f.get()), 0);
  };
  frame(0x0002); // button 2 held before anybody waits
  frame(0x0002);

  std::atomic<int> woke{-2};
  std::thread waiter([&] { woke = kaloWaitPressButton(f.get(), 2); });
  while (f->link.wait_armed.load() == 0)
    std::this_thread::yield();
  frame(0x0002);
  frame(0x0003);
  EXPECT_EQ(f->link.wait_armed.load(), 1u) << "a held button is not a press";
  frame(0x0001);
  EXPECT_EQ(f->link.wait_armed.load(), 1u) << "a release is not a press";
  frame(0x0002);
  waiter.join();
  EXPECT_EQ(woke.load(), 0);
  EXPECT_EQ(f->link.wait_armed.load(), 0u);

  // Waiting for another button that is already held: its own edge counts, not
  // the one of the button watched before.
  frame(0x0000);
  frame(0x0004);
  std::thread second([&] { woke = kaloWaitPressButton(f.get(), 3); });
  while (f->link.wait_armed.load() == 0)
    std::this_thread::yield();
  frame(0x0004);
  EXPECT_EQ(f->link.wait_armed.load(), 1u);
  frame(0x0000);
  frame(0x0004);
  second.join();
  EXPECT_EQ(f.posted(), "") << "watching buttons sends nothing";
}

TEST(StatusWord, BoundsAlarmPowerAndShiftComeFromTheirBits) {
  FakeContext f;
  uint32_t v = 0;
  f->link.state_record.alarm = static_cast<int32_t>(0x80094003u); // bounds 0,1; alarm 14,16,19,31
  EXPECT_EQ(kaloIsInBounds(f.get(), &v), 0);
  EXPECT_EQ(v, 0x3u);
  EXPECT_EQ(kaloGetAlarm(f.get(), &v), 0);
  EXPECT_EQ(v, 0x80094000u);
  EXPECT_EQ(kaloGetPowerOn(f.get(), &v), 0);
  EXPECT_EQ(v, 1u);
  EXPECT_EQ(kaloIsInShiftPosition(f.get(), &v), 0);
  EXPECT_EQ(v, 1u);

  f->link.state_record.alarm = 0x3FFF;
  EXPECT_EQ(kaloGetAlarm(f.get(), &v), 0);
  EXPECT_EQ(v, 0u) << "bound bits are not alarms";
  EXPECT_EQ(kaloGetPowerOn(f.get(), &v), 0);
  EXPECT_EQ(v, 0u);
  EXPECT_EQ(kaloIsInShiftPosition(f.get(), &v), 0);
  EXPECT_EQ(v, 0u);

  f->link.state_record.alarm = 0;
  f->loop.loop_overrun = 1;
  EXPECT_EQ(kaloGetAlarm(f.get(), &v), 0);
  EXPECT_EQ(v, 1u << 17) << "a loop overrun shows as alarm bit 17";
  EXPECT_EQ(f.posted(), "");
}

TEST(Inputs, TrackballAdcAndInputsReadTheirMembers) {
  FakeContext f;
  const int32_t members[6] = {11, 22, 33, 44, 55, 66};
  std::memcpy(f->link.state_record.trackball_buttons, members, sizeof members);
  uint32_t x = 0, y = 0, a = 0, b = 0, c = 0, d = 0;
  EXPECT_EQ(kaloGetTrackball(f.get(), &x, &y), 0);
  EXPECT_EQ(x, 22u);
  EXPECT_EQ(y, 33u);
  EXPECT_EQ(kaloGetTrackballButton(f.get(), &a, &b, &c, &d), 0);
  EXPECT_EQ(a, 11u);
  EXPECT_EQ(b, 44u);
  EXPECT_EQ(c, 55u);
  EXPECT_EQ(d, 66u);

  const float adc[3] = {0.5f, 1.5f, 2.5f};
  std::memcpy(f->link.state_record.field_66, adc, sizeof adc);
  float value = -1;
  EXPECT_EQ(kaloGetADC(f.get(), 1, &value), 0);
  EXPECT_EQ(value, 0.5f);
  EXPECT_EQ(kaloGetADC(f.get(), 3, &value), 0);
  EXPECT_EQ(value, 2.5f);
  for (int index : {0, 4, -1}) {
    EXPECT_EQ(kaloGetADC(f.get(), index, &value), -1) << index;
    EXPECT_EQ(kaloGetErrorCode(f.get()), 9);
  }

  f->link.state_record.tor_inputs = static_cast<int32_t>(0xA5A5A5A5u);
  for (int i = 0; i < 7; ++i)
    f->link.state_record.analogic_inputs[i] = static_cast<float>(i) + 0.25f;
  uint32_t tor = 0;
  float analog[8] = {0, 0, 0, 0, 0, 0, 0, -7.0f};
  EXPECT_EQ(kaloGetTorInputs(f.get(), &tor), 0);
  EXPECT_EQ(tor, 0xA5A5A5A5u);
  EXPECT_EQ(kaloGetAnalogicInputs(f.get(), analog), 0);
  EXPECT_EQ(analog[6], 6.25f);
  EXPECT_EQ(analog[7], -7.0f) << "seven values, no more";

  const float axis[3] = {0, 0, 1};
  const float centre[7] = {1, 2, 3, 0, 0, 0, 1};
  std::memcpy(f->link.state_record.axis_of_rotation, axis, sizeof axis);
  std::memcpy(f->link.state_record.center_sphere, centre, sizeof centre);
  float got_axis[3] = {}, got_centre[7] = {};
  EXPECT_EQ(kaloGetAxisOfRotation(f.get(), got_axis), 0);
  EXPECT_EQ(kaloGetCenterSphere(f.get(), got_centre), 0);
  EXPECT_EQ(0, std::memcmp(axis, got_axis, sizeof axis));
  EXPECT_EQ(0, std::memcmp(centre, got_centre, sizeof centre));
  EXPECT_EQ(f.posted(), "");
}

TEST(VersionGates, InputsNeedAbove559AndJointsAbove355) {
  FakeContext f;
  uint32_t tor = 0;
  float values[20] = {};
  f->error_code = 4;
  f->link.controller_version = 5.58f;
  EXPECT_EQ(kaloGetTorInputs(f.get(), &tor), 20);
  EXPECT_EQ(kaloGetAnalogicInputs(f.get(), values), 20);
  f->link.controller_version = 5.59f; // widened, just above the double 5.59
  EXPECT_EQ(kaloGetTorInputs(f.get(), &tor), 0);
  EXPECT_EQ(kaloGetAnalogicInputs(f.get(), values), 0);

  f->link.controller_version = 3.55f;
  EXPECT_EQ(kaloGetArticularPosition(f.get(), values), 20);
  EXPECT_EQ(kaloGetArticularSpeed(f.get(), values), 20);
  f->link.controller_version = 2.33f; // never equal to the double 2.33
  EXPECT_EQ(kaloGetArticularPosition(f.get(), values), 20);
  f->link.controller_version = 3.56f;
  EXPECT_EQ(kaloGetArticularPosition(f.get(), values), 0);
  EXPECT_EQ(kaloGetArticularSpeed(f.get(), values), 0);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 4) << "a refused version records nothing";

  kaloGlobalError = 0;
  EXPECT_EQ(kaloGetTorInputs(nullptr, &tor), -1) << "a null handle is still refused";
  EXPECT_EQ(kaloGlobalError, 3);
}

TEST(Joints, AxisCountComesFromTheControllerOnlyWhenAskedFor) {
  FakeContext f;
  for (int i = 0; i < 20; ++i) {
    f->link.state_record.articular_position[i] = 1.0f + static_cast<float>(i);
    f->link.state_record.articular_speed[i] = -1.0f - static_cast<float>(i);
  }
  f->link.state_record.axis_count_wire = 3;
  float q[21];
  std::fill(std::begin(q), std::end(q), 99.0f);
  EXPECT_EQ(kaloGetArticularPosition(f.get(), q), 0);
  EXPECT_EQ(q[5], 6.0f);
  EXPECT_EQ(q[6], 99.0f) << "six values until the count is taken from the controller";

  uint32_t wire = 0;
  EXPECT_EQ(kaloGetNbAxes(f.get(), &wire), 0);
  EXPECT_EQ(wire, 3u);
  EXPECT_EQ(f->link.axis_count, 6) << "kaloGetNbAxes does not adopt the count";

  EXPECT_EQ(kaloGetNumberOfAxes(f.get()), 0);
  EXPECT_EQ(f->link.axis_count, 3);
  EXPECT_EQ(f->link.command_record.axis_count_wire, 3);
  EXPECT_EQ(f.posted(), "") << "the count is copied, not sent";
  std::fill(std::begin(q), std::end(q), 99.0f);
  EXPECT_EQ(kaloGetArticularSpeed(f.get(), q), 0);
  EXPECT_EQ(q[2], -3.0f);
  EXPECT_EQ(q[3], 99.0f);

  // A count beyond the record's room is held to it.
  f->link.state_record.axis_count_wire = 1000;
  EXPECT_EQ(kaloGetNumberOfAxes(f.get()), 0);
  EXPECT_EQ(f->link.axis_count, 20);
  std::fill(std::begin(q), std::end(q), 99.0f);
  EXPECT_EQ(kaloGetArticularPosition(f.get(), q), 0);
  EXPECT_EQ(q[19], 20.0f);
  EXPECT_EQ(q[20], 99.0f);

  float extra = 0;
  f->link.state_record.additional_axis_position = 0.75f;
  f->link.state_record.additional_axis_speed = -0.5f;
  f->link.controller_version = 1.0f; // no gate on the additional axis
  EXPECT_EQ(kaloGetArticularPositionOfAdditionalAxe(f.get(), &extra), 0);
  EXPECT_EQ(extra, 0.75f);
  EXPECT_EQ(kaloGetArticularSpeedOfAdditionalAxe(f.get(), &extra), 0);
  EXPECT_EQ(extra, -0.5f);
}

TEST(MouseState, ReadEvenWhenTheConnectionIsDown) {
  FakeContext f;
  f->link.state_record.mouse_state = {1, 0.25f, -0.5f, 1, 0};
  f->link.connected = 0;
  int32_t state = 0;
  float x = 0, y = 0;
  EXPECT_EQ(kaloGetMouseState(f.get(), &state, &x, &y), 0);
  EXPECT_EQ(state, 1);
  EXPECT_EQ(x, 0.25f);
  EXPECT_EQ(y, -0.5f);
  EXPECT_EQ(f->error_code.load(), 0u);
}

TEST(Readers, NullOutputsAndDeadConnectionsAreRefusedNotFollowed) {
  FakeContext f;
  EXPECT_EQ(kaloGetButton(f.get(), 1, nullptr), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 9);
  uint32_t failed = 0;
  EXPECT_EQ(kaloGetError(f.get(), nullptr), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 9);
  EXPECT_EQ(kaloGetAnalogicInputs(f.get(), nullptr), -1);
  EXPECT_EQ(kaloGetMouseState(f.get(), nullptr, nullptr, nullptr), -1);

  f->link.connected = 0;
  f->link.state_record.failure = 1;
  EXPECT_EQ(kaloGetError(f.get(), &failed), -1);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 2);
  EXPECT_EQ(kaloDisplayHardwareStatus(f.get()), -1);
  EXPECT_EQ(f.output(), "") << "nothing printed without a connection";
  EXPECT_EQ(kaloWaitPressButton(f.get(), 1), -1) << "does not block on a dead connection";
  EXPECT_EQ(kaloGetErrorCode(f.get()), 2);
}

// The conversions against Eigen: a pose's matrix is Eigen's rotation of the
// normalised quaternion with the translation in the last column, and the way
// back recovers the pose (up to the quaternion's sign).
TEST(PoseConversion, MatrixAgreesWithAnIndependentOracleAndConvertsBack) {
  FakeContext f;
  float m[16];
  const float identity[7] = {0, 0, 0, 0, 0, 0, 1};
  ASSERT_EQ(kaloConvertDeplToHomogeneMatrix(f.get(), identity, m), 0);
  for (int i = 0; i < 16; ++i)
    EXPECT_EQ(m[i], i % 5 == 0 ? 1.0f : 0.0f) << i;

  std::srand(7);
  auto uniform = [] { return 2.0f * static_cast<float>(std::rand()) / RAND_MAX - 1.0f; };
  for (int sample = 0; sample < 200; ++sample) {
    float pose[7];
    for (float &v : pose)
      v = uniform();
    const float scale = 0.2f + 3.0f * std::fabs(uniform()); // a quaternion that is not unit
    for (int i = 3; i < 7; ++i)
      pose[i] *= scale;
    ASSERT_EQ(kaloConvertDeplToHomogeneMatrix(f.get(), pose, m), 0);

    const Eigen::Quaterniond q(pose[6], pose[3], pose[4], pose[5]);
    const Eigen::Matrix3d r = q.normalized().toRotationMatrix();
    for (int row = 0; row < 3; ++row) {
      for (int col = 0; col < 3; ++col)
        ASSERT_NEAR(m[4 * col + row], r(row, col), 1e-5) << sample << ": " << row << "," << col;
      ASSERT_EQ(m[12 + row], pose[row]);
      ASSERT_EQ(m[4 * row + 3], 0.0f);
    }
    ASSERT_EQ(m[15], 1.0f);

    float back[7];
    ASSERT_EQ(kaloConvertHomogeneMatrixToDepl(f.get(), back, m), 0);
    const Eigen::Quaterniond u = q.normalized();
    const double sign =
        (back[3] * u.x() + back[4] * u.y() + back[5] * u.z() + back[6] * u.w()) < 0 ? -1 : 1;
    for (int i = 0; i < 3; ++i)
      ASSERT_EQ(back[i], pose[i]);
    ASSERT_NEAR(back[3], sign * u.x(), 1e-5) << sample;
    ASSERT_NEAR(back[4], sign * u.y(), 1e-5) << sample;
    ASSERT_NEAR(back[5], sign * u.z(), 1e-5) << sample;
    ASSERT_NEAR(back[6], sign * u.w(), 1e-5) << sample;
  }

  // The bottom row of the input matrix is not read.
  ASSERT_EQ(kaloConvertDeplToHomogeneMatrix(f.get(), identity, m), 0);
  m[3] = m[7] = m[11] = 5.0f;
  m[15] = -3.0f;
  float back[7];
  ASSERT_EQ(kaloConvertHomogeneMatrixToDepl(f.get(), back, m), 0);
  EXPECT_EQ(back[6], 1.0f);
  EXPECT_EQ(back[3], 0.0f);
}
