// The calls on a hand-built context: one table of what each setter puts on
// the wire (its version gate, the fields it marks, a value read back from the
// encoded frame), then which command types allow which call, the automatic
// power handling of the coupling types, and the refusals. What needs the
// controller's answers is tested against the simulator.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <string>

#include "command_fixture.h"

#include <sys/time.h>

using command_test::CommandContext;

namespace {

const float kIdentity[7] = {0, 0, 0, 0, 0, 0, 1};
const float kZero6[6] = {0, 0, 0, 0, 0, 0};
const float kInertia[9] = {0.01f, 0, 0, 0, 0.01f, 0, 0, 0, 0.01f};

// Whether the call returned -1 with code 17.
bool refused17(KaloContext *ctx, int result) {
  return result == -1 && kaloGetErrorCode(ctx) == KALO_ERROR_WRONG_COMMAND_MODE;
}

// One setter: the command type it runs in, its version gate (the highest
// version refused, 0 for none) and the code of that refusal, the fields it
// marks, and a value of the frame decoded from the encoded command record.
struct WireRow {
  const char *call;
  uint32_t type;
  float refused_version;
  int32_t refusal;
  std::function<int(KaloContext *)> run;
  const char *fields;
  std::function<double(const ExchangeRecord &)> on_wire;
  double value;
};

#define WIRE(type, gate, code, fields, member, value, call)                                        \
  WireRow {                                                                                        \
#call, type, gate, code,                                                                       \
        [](KaloContext * c) { return call; }, fields,                                              \
                                           [](const ExchangeRecord &                               \
                                                  r) { return static_cast<double>(r.member); },    \
                                                                                             value \
  }

const float kSix[6] = {1, -2, 3, 0.1f, -0.2f, 0.25f};
const float kFrame[7] = {0.1f, 0.2f, 0.3f, 0, 0, 0.6f, 0.8f};
const float kTen[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
const float kOne = 1.5f;

} // namespace

TEST(Wire, EachSetterMarksItsFieldsAndItsValueSurvivesTheCodec) {
  const WireRow rows[] = {
      WIRE(3, 0, 0, "4", speed_factor, 0.5, kaloSetSpeedFactor(c, 0.5f)),
      WIRE(0, 0, 0, "5", force_factor, 0.75, kaloSetForceFactor(c, 0.75f)),
      WIRE(0, 0, 0, "2", simulation_stiffness[5], 0.25, kaloSetSimulationStiffness(c, kSix)),
      WIRE(0, 0, 0, "3", simulation_damping[1], -2, kaloSetSimulationDamping(c, kSix)),
      WIRE(0, 0, 0, "7", observation_frame[6], 0.8f, kaloSetObservationFrame(c, kFrame)),
      WIRE(0, 0, 0, "8", observation_frame_speed[5], 0.25, kaloSetObservationFrameSpeed(c, kSix)),
      WIRE(0, 0, 0, "9", base_frame[2], 0.3f, kaloSetBaseFrame(c, kFrame)),
      WIRE(0, 0, 0, "10", catch_frame[5], 0.6f, kaloSetCatchFrame(c, kFrame)),
      WIRE(0, 0, 0, "19", indexing_mode, 3, kaloSetIndexingMode(c, 3)),
      WIRE(0, 0, 0, "25", power_on, 1, kaloSetPowerOn(c, 1)),
      WIRE(0, 0, 0, "53", torque_saturation[1], 8, kaloSaturateTorque(c, 7, 8)),
      WIRE(0, 0, 0, "58", speed_control.first, 2.5, kaloActiveSpeedControl(c, 1.5f, 2.5f)),
      WIRE(0, 0, 0, "58", speed_control.second, 1.5, kaloActiveSpeedControl(c, 1.5f, 2.5f)),
      WIRE(0, 0, 0, "59", speed_control.mode, 0, kaloDeactiveSpeedControl(c)),
      WIRE(0, 3.19f, 20, "82", rotation_speed_control.first, 2,
           kaloActiveRotationSpeedControl(c, 1, 2)),
      WIRE(0, 3.19f, 20, "83", rotation_speed_control.mode, 0, kaloDeactiveRotationSpeedControl(c)),
      WIRE(0, 3.55f, 20, "84", force_in_speed_control, 1.5, kaloSetForceInSpeedControl(c, 1.5f)),
      WIRE(0, 3.55f, 20, "85", torque_in_speed_control, 4, kaloSetTorqueInSpeedControl(c, 4)),
      WIRE(0, 0, 0, "77", force_feedback_enabled, 1, kaloEnableForceFeedback(c, 1)),
      WIRE(0, 2.99f, 20, "79", force_shift_button, 1, kaloForceShiftButton(c, 1)),
      WIRE(0, 3.0f, 7, "80", added_force[5], 0.25, kaloAddForce(c, kSix)),
      WIRE(0, 3.55f, 20, "70", articular_position[5], 0.25, kaloSetArticularPosition(c, kSix)),
      WIRE(0, 3.55f, 20, "71", articular_speed[1], -2, kaloSetArticularSpeed(c, kSix)),
      WIRE(0, 3.55f, 20, "72", articular_force[2], 3, kaloSetArticularForce(c, kSix)),
      WIRE(0, 3.1f, 20, "73", additional_axis_position, 1.5,
           kaloSetArticularPositionOfAdditionalAxe(c, &kOne)),
      WIRE(0, 3.1f, 20, "74", additional_axis_speed, 1.5,
           kaloSetArticularSpeedOfAdditionalAxe(c, &kOne)),
      WIRE(0, 3.1f, 20, "81", additional_axis_force, 1.5,
           kaloSetArticularForceOfAdditionalAxe(c, &kOne)),
      WIRE(0, 3.6f, 20, "86", gripper_command_type, 3, kaloSetGripperCommandType(c, 3)),
      WIRE(0, 5.2f, 20, "87", outputs, 0x81, kaloOutputsSetting(c, 0x81)),
      WIRE(0, 5.29f, 20, "89", pwm_output[6], 0.8f, kaloSetPwmOutput(c, kFrame)),
      WIRE(0, 5.79f, 20, "92", finger_tip_speed[4], -0.2f, kaloSetFingerTipSpeed(c, kSix)),
      WIRE(0, 0, 0, "62", friction_force[2], 0.5, kaloSetFrictionForce(c, 0.1f, 0.2f, 0.5f)),
      WIRE(0, 0, 0, "63", field_changed[63], 1, kaloGenerateDebugFile(c)),
      WIRE(4, 0, 0, "17", texture[1], 0.2f, kaloSetTexture(c, kFrame, &kSix[3], -3)),
      WIRE(4, 0, 0, "17", texture_intensity, 0.1f, kaloSetTexture(c, kFrame, &kSix[3], -3)),
      WIRE(4, 0, 0, "17", texture_flag, -3, kaloSetTexture(c, kFrame, &kSix[3], -3)),
      WIRE(5, 0, 0, "27", vm_activate, 1, kaloVmActivate(c)),
      WIRE(5, 0, 0, "28", vm_type, 2, kaloVmSetType(c, 258)),
      WIRE(5, 0, 0, "32", vm_base_frame[6], 0.8f, kaloVmSetBaseFrame(c, kFrame)),
      WIRE(5, 0, 0, "33", vm_min_arti_bounds[9], 10, kaloVmSetMinArtiBounds(c, kTen)),
      WIRE(5, 0, 0, "34", vm_max_arti_bounds[0], 1, kaloVmSetMaxArtiBounds(c, kTen)),
      WIRE(5, 0, 0, "42", vm_default_mode, 1, kaloVmSetDefaultToTransparentMode(c)),
      WIRE(5, 0, 0, "42", vm_default_mode, 0, kaloVmSetDefaultToCartesianPosition(c)),
      WIRE(5, 0, 0, "43", field_changed[43], 1, kaloVmSetBaseFrameToCurrentFrame(c)),
      WIRE(5, 0, 0, "45", vm_robot_mode, 7, kaloVmSetRobotMode(c, 7)),
      WIRE(5, 0, 0, "28,46", spline_name[3], 'h',
           kaloVmSetType(c, 1) + kaloVmSaveCurrentSpline(c, "path")),
      WIRE(5, 0, 0, "28,47", spline_name[1], 'b', kaloVmSetType(c, 1) + kaloVmLoadSpline(c, "ab")),
      WIRE(5, 0, 0, "28,48", spline_name[0], 'a',
           kaloVmSetType(c, 1) + kaloVmDeleteSpline(c, "ab")),
      WIRE(5, 0, 0, "30", traj_sample_count, 3000, kaloVmStartTrajSampling(c, 3000)),
  };
  for (const WireRow &w : rows) {
    SCOPED_TRACE(w.call);
    CommandContext f(w.type);
    KaloContext *c = f.get();
    if (w.refused_version > 0) {
      c->link.controller_version = w.refused_version;
      EXPECT_EQ(w.run(c), w.refusal);
      EXPECT_EQ(f.posted(), "");
      c->link.controller_version = w.refused_version + 0.01f;
    }
    ASSERT_EQ(w.run(c), 0);
    EXPECT_EQ(f.posted(), w.fields);
    ExchangeRecord &sent = c->link.command_record;
    sent.control_point_count = 1;
    sent.axis_count_wire = 6;
    unsigned char frame[kalo::kFrameCapacity];
    const uint32_t n = encode_decode(kalo::kModeEncode, &sent, frame, sizeof frame);
    ASSERT_NE(n, kalo::kCodecFailure);
    auto got = std::make_unique<ExchangeRecord>();
    std::memset(got.get(), 0, sizeof(ExchangeRecord));
    got->control_point_count = 1;
    got->axis_count_wire = 6;
    ASSERT_EQ(encode_decode(kalo::kModeDecode, got.get(), frame, n), n);
    EXPECT_EQ(readout_test::marked(*got), w.fields);
    EXPECT_FLOAT_EQ(static_cast<float>(w.on_wire(*got)), static_cast<float>(w.value));
  }
}

TEST(CommandType, EachCallRunsOnlyInItsCommandTypes) {
  // Rows: command type 0..7; columns: set position, set speed, set force,
  // attach, get force; true where the call is refused with 17.
  const bool refused[8][5] = {
      {true, true, true, true, true},      {true, false, true, true, true},
      {false, false, true, false, false},  {false, true, false, false, true},
      {false, false, true, false, false},  {false, false, true, false, false},
      {false, false, false, false, false}, {false, false, false, false, false},
  };
  for (uint32_t type = 0; type < 8; ++type) {
    CommandContext f(type);
    KaloContext *c = f.get();
    float force[6];
    EXPECT_EQ(refused17(c, kaloSetPosition(c, kIdentity)), refused[type][0]) << "position " << type;
    EXPECT_EQ(refused17(c, kaloSetSpeed(c, kZero6)), refused[type][1]) << "speed " << type;
    EXPECT_EQ(refused17(c, kaloSetForce(c, kZero6)), refused[type][2]) << "force " << type;
    EXPECT_EQ(refused17(c, kaloGetForce(c, force)), refused[type][4]) << "get force " << type;
    EXPECT_EQ(refused17(c, kaloAttachVO(c, kInertia, 1.0f)), refused[type][3]) << "attach " << type;
    EXPECT_EQ(refused17(c, kaloAttachQSVO(c, kZero6, kZero6)), refused[type][3]) << "qs " << type;
  }
}

TEST(SetPoints, StreamOpensOnceAndForcesGoThroughTheServoConversion) {
  CommandContext f(3);
  KaloContext *c = f.get();
  // The device's point 10 cm above the origin: the set-point keeps its
  // force and gains the moment of carrying it to that point.
  const float raised[7] = {0, 0, 0.1f, 0, 0, 0, 1};
  f.device_at(raised);
  const float fx[6] = {2, 0, 0, 0, 0, 0};
  ASSERT_EQ(kaloSetForce(c, fx), 0);
  EXPECT_EQ(f.posted(), "16,61");
  EXPECT_FLOAT_EQ(c->link.command_record.force[0], 2.0f);
  EXPECT_NEAR(std::fabs(c->link.command_record.force[4]), 0.2f, 1e-6f);
  EXPECT_NEAR(c->link.command_record.force[3] + c->link.command_record.force[5], 0.0f, 1e-6f);
  f.clear_posted();
  ASSERT_EQ(kaloSetForce(c, fx), 0);
  EXPECT_EQ(f.posted(), "16");
  c->command.active_command_type = 6;
  f.clear_posted();
  ASSERT_EQ(kaloSetPosition(c, kIdentity), 0);
  EXPECT_EQ(f.posted(), "14");
}

TEST(SetPoints, PositionOutsideTheCouplingTypesIsSentAsGiven) {
  CommandContext f(2);
  KaloContext *c = f.get();
  f.point().object_attached = 1;
  const float pose[7] = {0.1f, -0.2f, 0.3f, 0, 0, 0, 1};
  ASSERT_EQ(kaloSetPosition(c, pose), 0);
  EXPECT_EQ(std::memcmp(c->link.command_record.position, pose, sizeof pose), 0);
  EXPECT_EQ(f.point().object_attached, 0) << "command type 2 releases the object";
  EXPECT_EQ(f.posted(), "14,61") << "no power handling outside the coupling types";
}

TEST(SetPoints, APositionRestartsAStoppedSpeedFactorSmoothingFromTheTarget) {
  CommandContext f(2);
  KaloContext *c = f.get();
  c->servo.filter_disabled = 1; // as after opening, or after command type 3
  c->servo.speed_factor_target->donnees[0] = 0.5;
  c->servo.speed_factor_filtered->donnees[0] = 1.0;
  const float pose[7] = {0.1f, -0.2f, 0.3f, 0, 0, 0, 1};
  ASSERT_EQ(kaloSetPosition(c, pose), 0);
  EXPECT_EQ(c->servo.filter_disabled.load(), 0u) << "the exchange thread steps it again";
  EXPECT_EQ(c->servo.speed_factor_filtered->donnees[0], 0.5) << "it starts from the target";
}

TEST(SetPoints, InvalidQuaternionGives9AndKeepsTheConnection) {
  CommandContext f(6);
  KaloContext *c = f.get();
  const float bad[7] = {0, 0, 0, 0, 0, 0, 1.001f};
  EXPECT_EQ(kaloSetPosition(c, bad), -1);
  EXPECT_EQ(kaloGetErrorCode(c), 9);
  EXPECT_EQ(c->link.connected.load(), 1u);
  EXPECT_FALSE(kalo::carries(c->link.command_record, kalo::Field::position));
}

TEST(SetPoints, SpeedOutsideTheCouplingTypesMarksTheFieldButStoresNothing) {
  for (uint32_t type : {2u, 6u, 7u}) {
    CommandContext f(type);
    KaloContext *c = f.get();
    const float v[6] = {0.1f, 0.2f, 0.3f, 0, 0, 0};
    ASSERT_EQ(kaloSetSpeed(c, v), 0);
    EXPECT_EQ(f.posted(), "15");
    for (float x : c->link.command_record.speed)
      EXPECT_EQ(x, 0.0f) << "type " << type;
  }
  CommandContext f(4);
  const float v[6] = {0.1f, 0.2f, 0.3f, 0, 0, 0};
  ASSERT_EQ(kaloSetSpeed(f.get(), v), 0);
  EXPECT_NEAR(f->link.command_record.speed[0], 0.1f, 1e-6f) << "stored in the coupling types";
}

TEST(PowerHandling, FirstCouplingPositionSwitchesThePowerOnOnce) {
  CommandContext f(4);
  KaloContext *c = f.get();
  ASSERT_EQ(kaloSetPosition(c, kIdentity), 0);
  EXPECT_EQ(f.posted(), "14,25,61");
  EXPECT_EQ(c->link.command_record.power_on, 1);
  f.clear_posted();
  ASSERT_EQ(kaloSetPosition(c, kIdentity), 0);
  EXPECT_EQ(f.posted(), "14");
}

TEST(PowerHandling, GuardTripCutsThePowerAndItReturnsAfterTenSecondsOfQuietCalls) {
  CommandContext f(4);
  KaloContext *c = f.get();
  c->params.time_step = 0.01f;
  ASSERT_EQ(kaloSetSpeed(c, kZero6), 0);
  EXPECT_EQ(c->link.command_record.power_on, 1) << "power on with the first accepted set-point";
  EXPECT_EQ(f.point().speed_power_requested, 1);

  const float runaway[6] = {5, 0, 0, 0, 0, 0}; // far above the 1 m/s the device allows
  f.clear_posted();
  EXPECT_EQ(kaloSetSpeed(c, runaway), -1);
  EXPECT_EQ(kaloGetErrorCode(c), 12);
  EXPECT_EQ(c->link.command_record.power_on, 0);
  EXPECT_EQ(f.posted(), "25") << "the refused speed itself is not sent";

  // Power not requested now: refusals only restart the 10 s count (1000 calls
  // at 0.01 s), and the power comes back with the first quiet call after it.
  EXPECT_EQ(kaloSetSpeed(c, runaway), 0);
  int last_refusal = 0;
  int power_back = -1;
  for (int n = 1; n <= 3000 && power_back < 0; ++n) {
    ASSERT_EQ(kaloSetSpeed(c, kZero6), 0);
    if (f.point().speed_power_wait == 1000)
      last_refusal = n;
    if (c->link.command_record.power_on == 1)
      power_back = n;
  }
  ASSERT_GT(power_back, 0);
  EXPECT_EQ(power_back - last_refusal, 1000);
  EXPECT_EQ(f.point().speed_power_requested, 1);
  EXPECT_EQ(f.output(), "---- depassement Ec (vitesse de translation) ----\n"
                        "=> 5.000, 0.000 0.000 | 10.175/0.407\n"
                        "---- fin de depassement Ec (vitesse de translation) ----\n");
}

TEST(ObjectHandShakes, DetachRequestResetsTheObjectDisplacementsOnTheNextCouplingSetPoint) {
  CommandContext f(4);
  KaloContext *c = f.get();
  ServoPoint &p = f.point();
  const float offset[7] = {0.1f, 0.2f, 0.3f, 0, 0, std::sqrt(0.5f), std::sqrt(0.5f)};
  DEPL_remplir_7_float(p.H_rel, offset);
  DEPL_remplir_7_float(p.X_offset, offset);
  c->vm.detach_pending = 1;
  ASSERT_EQ(kaloSetPosition(c, kIdentity), 0);
  float h[7], x[7];
  DEPL_vider_7_float(p.H_rel, h);
  DEPL_vider_7_float(p.X_offset, x);
  for (int k = 0; k < 7; ++k) {
    EXPECT_EQ(h[k], kIdentity[k]);
    EXPECT_EQ(x[k], kIdentity[k]);
  }
  EXPECT_EQ(c->vm.detach_pending, 0u);
  EXPECT_EQ(p.object_reset, 1);
  EXPECT_FALSE(kalo::carries(c->link.command_record, kalo::Field::power_on))
      << "no power request while detaching";
}

TEST(Switches, RangesAndReadBacks) {
  CommandContext f;
  KaloContext *c = f.get();
  EXPECT_EQ(kaloSetPowerOn(c, 2), -1);
  EXPECT_EQ(kaloGetErrorCode(c), 9);
  EXPECT_EQ(kaloSetIndexingMode(c, 8), -1);
  EXPECT_EQ(kaloGetErrorCode(c), 9);
  EXPECT_EQ(kaloActiveSpeedControl(c, -0.1f, 1), -1);
  EXPECT_EQ(kaloGetErrorCode(c), 9);
  EXPECT_EQ(f.posted(), "");
  ASSERT_EQ(kaloSetIndexingMode(c, 7), 0);
  uint32_t mode = 0;
  ASSERT_EQ(kaloGetIndexingMode(c, &mode), 0);
  EXPECT_EQ(mode, 7u);
  ASSERT_EQ(kaloActiveSpeedControl(c, 1.5f, 2.5f), 0);
  EXPECT_EQ(c->link.command_record.speed_control.mode, 1);
  c->link.state_record.speed_control_state[0] = 1;
  c->link.state_record.speed_control_state[1] = 0;
  int32_t first = -1, second = -1;
  EXPECT_EQ(kaloIsInSpeedControl(c, &first, &second), 0);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);
}

TEST(Parameters, NonPositiveValuesAreRefusedAndLeaveTheOldOnes) {
  CommandContext f;
  KaloContext *c = f.get();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (float bad : {0.0f, -1.0f, nan}) {
    EXPECT_EQ(kaloSetTimeStep(c, bad), -1);
    EXPECT_EQ(kaloSetSpeedFactor(c, bad), -1);
    EXPECT_EQ(kaloSetForceFactor(c, bad), -1);
    EXPECT_EQ(kaloSetTimeoutValue(c, bad), -1);
    EXPECT_EQ(kaloGetErrorCode(c), 9);
  }
  EXPECT_EQ(kaloSaturateTorque(c, 0, 1), -1);
  EXPECT_EQ(kaloGetErrorCode(c), 9);
  float v = 0;
  ASSERT_EQ(kaloGetTimeStep(c, &v), 0);
  EXPECT_EQ(v, 0.001f);
  ASSERT_EQ(kaloGetSpeedFactor(c, &v), 0);
  EXPECT_EQ(v, 1.0f);
  ASSERT_EQ(kaloGetForceFactor(c, &v), 0);
  EXPECT_EQ(v, 1.0f);
  EXPECT_EQ(f.posted(), "");
  ASSERT_EQ(kaloSetForceFactor(c, 0.5f), 0);
  ASSERT_EQ(kaloGetForceFactor(c, &v), 0);
  EXPECT_EQ(v, 0.5f);
}

TEST(Parameters, FramesAreCheckedAndRemembered) {
  CommandContext f;
  KaloContext *c = f.get();
  const float bad[7] = {0, 0, 0, 0, 0, 0, 0.5f};
  const float frame[7] = {0.1f, 0.2f, 0.3f, 0, 0, 0, 1};
  float out[7];
  for (auto set : {kaloSetObservationFrame, kaloSetBaseFrame, kaloSetCatchFrame}) {
    EXPECT_EQ(set(c, bad), -1);
    EXPECT_EQ(kaloGetErrorCode(c), 9);
  }
  kaloGlobalError = 0;
  EXPECT_EQ(kaloSetCatchFrame(nullptr, frame), -1);
  EXPECT_EQ(kaloGlobalError, 3);
  EXPECT_EQ(f.posted(), "");

  ASSERT_EQ(kaloSetObservationFrame(c, frame), 0);
  ASSERT_EQ(kaloGetObservationFrame(c, out), 0);
  EXPECT_EQ(std::memcmp(out, frame, sizeof out), 0);
  ASSERT_EQ(kaloSetBaseFrame(c, frame), 0);
  ASSERT_EQ(kaloGetBaseFrame(c, out), 0);
  EXPECT_EQ(std::memcmp(out, frame, sizeof out), 0);

  // The catch frame becomes point 0's object displacement.
  const float catch_frame[7] = {0.1f, 0, 0, 0, 0, 0.6f, 0.8f};
  ASSERT_EQ(kaloSetCatchFrame(c, catch_frame), 0);
  ASSERT_EQ(kaloGetCatchFrame(c, out), 0);
  for (int k = 0; k < 7; ++k)
    EXPECT_NEAR(out[k], catch_frame[k], 1e-6f);

  // Without control points nothing is read back.
  c->link.control_point_count = 0;
  float untouched[7] = {9, 9, 9, 9, 9, 9, 9};
  ASSERT_EQ(kaloGetCatchFrame(c, untouched), 0);
  for (float x : untouched)
    EXPECT_EQ(x, 9.0f);
}

TEST(Parameters, OutputFileFallsBackToStandardOutput) {
  CommandContext f;
  KaloContext *c = f.get();
  FILE *captured = c->params.output_stream;
  EXPECT_EQ(kaloSetOutputFile(c, "/nonexistent-dir/kalo.log"), -1);
  EXPECT_EQ(kaloGetErrorCode(c), 4);
  EXPECT_EQ(c->params.output_stream, stdout);

  char first[] = "/tmp/kalo-output-XXXXXX";
  char second[] = "/tmp/kalo-output-XXXXXX";
  ASSERT_GE(mkstemp(first), 0);
  ASSERT_GE(mkstemp(second), 0);
  ASSERT_EQ(kaloSetOutputFile(c, first), 0);
  c->params.debug_flags = 1;
  calcul_gains(c, kInertia, 0, 1.0f);
  // Switching files closes the one opened before (a leak otherwise).
  ASSERT_EQ(kaloSetOutputFile(c, second), 0);
  FILE *in = std::fopen(first, "r");
  ASSERT_NE(in, nullptr);
  char line[64] = {};
  ASSERT_NE(std::fgets(line, sizeof line, in), nullptr);
  EXPECT_EQ(std::string(line), "--------- object n 0 ---------\n");
  std::fclose(in);
  std::fclose(c->params.output_stream);
  c->params.output_stream = captured;
  std::remove(first);
  std::remove(second);
}

// The controller stamps with the wall clock; a stamp newer than the reading
// (a frame that came in meanwhile) is an age of 0, not some 4.29e9 us.
TEST(Parameters, AgeOfTheLastUpdateOnTheWallClock) {
  CommandContext f;
  KaloContext *c = f.get();
  timeval tv{};
  gettimeofday(&tv, nullptr);
  const uint32_t now =
      static_cast<uint32_t>(tv.tv_sec) * 1000000u + static_cast<uint32_t>(tv.tv_usec);
  c->link.state_record.time_stamp = static_cast<int32_t>(now - 5000u);
  uint32_t age = 0;
  ASSERT_EQ(kaloGetTimeLastUpdate(c, &age), 0);
  EXPECT_GE(age, 5000u);
  EXPECT_LT(age, 1005000u);
  c->link.state_record.time_stamp = static_cast<int32_t>(now + 1000000u);
  ASSERT_EQ(kaloGetTimeLastUpdate(c, &age), 0);
  EXPECT_EQ(age, 0u);
}

TEST(VirtualObjects, AttachChecksInOrderAndFillsThePointsInTurn) {
  CommandContext f(1);
  KaloContext *c = f.get();
  EXPECT_EQ(kaloAttachVO(c, kInertia, 0.0f), -1);
  EXPECT_EQ(kaloGetErrorCode(c), 17) << "the command type is checked before the mass";
  c->command.active_command_type = 4;
  EXPECT_EQ(kaloAttachVO(c, kInertia, 0.0f), -1);
  EXPECT_EQ(kaloGetErrorCode(c), 9);
  ASSERT_EQ(kaloAttachVO(c, kInertia, 2.0f), 0);
  EXPECT_EQ(c->vm.attach_pending, 1u);
  EXPECT_EQ(c->vm.attached_object_count, 1);
  EXPECT_EQ(c->link.command_record.vo_attached, 1);
  EXPECT_EQ(f.point().object_attached, 1);
  EXPECT_EQ(f.posted(), "") << "the next position set-point completes the attach";
  // Gains from the mass and the time step (the translational half is second).
  EXPECT_DOUBLE_EQ(f.point().K->donnees[3 * 7], 2.0 * 0.12 / (double)(0.001f * 0.001f));
  // One control point, already taken: -1 and the error code is left alone.
  c->error_code = 0;
  EXPECT_EQ(kaloAttachVO(c, kInertia, 2.0f), -1);
  EXPECT_EQ(kaloAttachQSVO(c, kZero6, kZero6), -1);
  EXPECT_EQ(kaloGetErrorCode(c), 0);
}

TEST(VirtualObjects, CommandTypeFiveSendsTheGainsWithTheAttach) {
  CommandContext f(5);
  KaloContext *c = f.get();
  const float k[6] = {1, 2, 3, 400, 500, 600}; // rotation first
  const float b[6] = {0.1f, 0.2f, 0.3f, 4, 5, 6};
  ASSERT_EQ(kaloAttachQSVO(c, k, b), 0);
  EXPECT_EQ(f.posted(), "2,3");
  EXPECT_EQ(c->link.command_record.send_request, 3u);
  // On the wire the translational gains come first.
  const float wire_k[6] = {400, 500, 600, 1, 2, 3};
  const float wire_b[6] = {4, 5, 6, 0.1f, 0.2f, 0.3f};
  for (int j = 0; j < 6; ++j) {
    EXPECT_EQ(c->link.command_record.simulation_stiffness[j], wire_k[j]);
    EXPECT_EQ(c->link.command_record.simulation_damping[j], wire_b[j]);
  }
}

TEST(VirtualObjects, CouplingForcePullsTheObjectBackToTheArm) {
  CommandContext f(2);
  KaloContext *c = f.get();
  const float k[6] = {2, 2, 2, 1000, 1000, 1000};
  const float b[6] = {0, 0, 0, 0, 0, 0};
  ASSERT_EQ(kaloAttachQSVO(c, k, b), 0);
  f.device_at(kIdentity);
  // Object 1 cm along x, turned 0.02 rad about z.
  const float half = 0.01f;
  const float object[7] = {0.01f, 0, 0, 0, 0, std::sin(half), std::cos(half)};
  c->vm.attach_pending = 0;
  ASSERT_EQ(kaloSetPosition(c, object), 0);
  ASSERT_EQ(kaloSetSpeed(c, kZero6), 0);
  float w[6];
  ASSERT_EQ(kaloGetForce(c, w), 0);
  EXPECT_NEAR(w[0], -10.0f, 0.05f);
  EXPECT_NEAR(w[1], 0.0f, 0.25f);
  EXPECT_NEAR(w[2], 0.0f, 1e-4f);
  EXPECT_NEAR(w[5], -0.04f, 0.005f);
  f.clear_posted();
  c->command.active_command_type = 3;
  EXPECT_EQ(kaloGetForce(c, w), -1);
  EXPECT_EQ(kaloGetErrorCode(c), 17);
}
