// Kinetic-energy guards of position and speed commands: thresholds, first
// call after a restart, the held-pose tolerance, one message per excess, the
// shared reference rotation, and the restart countdown on a mode change.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "servo_test_util.h"

using kalo_test::count_of;
using kalo_test::fake_now_us;
using kalo_test::ServoContext;

namespace {

const char kTransStart[] = "---- depassement Ec (position en translation) ----\n";
const char kTransEnd[] = "---- fin de depassement Ec (position en translation) ----\n";

int32_t command(ServoContext &s, float x, float qz = 0.0f) {
  fake_now_us += 1000; // one command per millisecond
  const float qw = std::sqrt(1.0f - qz * qz);
  const float pose[7] = {x, 0, 0, 0, 0, qz, qw};
  return control_ener_cine_position(s.get(), pose, 0);
}

int32_t speed(ServoContext &s, float vx, float wz = 0.0f) {
  const float v[6] = {vx, 0, 0, 0, 0, wz};
  return control_ener_cine_vitesse(s.get(), v, 0);
}

} // namespace

TEST(EnergyThresholds, FromMassInertiaAndMaximumSpeeds) {
  ServoContext s;
  EXPECT_DOUBLE_EQ(s.point().pos_trans.E_max, 0.5 * 1.0 * 4.0);
  const double w = static_cast<double>(6.2831853f);
  EXPECT_DOUBLE_EQ(s.point().pos_rot.E_max, 0.5 * 0.01 * w * w);
  EXPECT_DOUBLE_EQ(s.point().vit_trans.E_max, 2.0);
}

TEST(EnergyPosition, FirstCallAfterRestartOnlyInitialises) {
  ServoContext s;
  EXPECT_EQ(command(s, 100.0f, 0.3f), 0); // a wild pose: no estimate yet
  EXPECT_EQ(s.point().pos_trans.E, 0.0);
  EXPECT_EQ(command(s, 100.0f, 0.3f), 0); // repeated, turned or not: zero speed, zero energy
  EXPECT_EQ(s.point().pos_trans.E, 0.0);
  EXPECT_EQ(s.point().pos_rot.E, 0.0);
  deactive_control_ener_cine(s.get());
  EXPECT_EQ(command(s, -50.0f), 0); // a restart forgets the last pose
  EXPECT_EQ(s.take_output(), "");
}

TEST(EnergyPosition, JumpWithinTheHeldDistanceIsAccepted) {
  ServoContext s;
  command(s, 0.5f);
  // 0.004 in a millisecond: 4 m/s, energy 8 above the threshold 2, but
  // within 0.005 of the held pose.
  EXPECT_EQ(command(s, 0.504f), 0);
  EXPECT_EQ(s.point().pos_trans.limitation, 1);
  EXPECT_EQ(s.point().pos_trans.en_depassement, 0);
  EXPECT_EQ(s.take_output(), "");
}

TEST(EnergyPosition, RepeatedRefusalsPrintOnceAndTheEndPrintsOnce) {
  ServoContext s;
  command(s, 0.5f);
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(command(s, 0.75f), -1) << i;
  // 0.25 in a millisecond; the refused commands keep the last accepted pose.
  EXPECT_EQ(s.take_output(), std::string(kTransStart) + "=> 250.000000, 0.000000 0.000000\n");
  EXPECT_DOUBLE_EQ(s.point().X_cmd_prev->trans[0], 0.5);
  // Back at the held pose: accepted; once the peak falls the end is reported once.
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(command(s, 0.5f), 0) << i;
  const std::string out = s.take_output();
  EXPECT_EQ(out, kTransEnd);
  EXPECT_EQ(s.point().pos_trans.limitation, 0);
  // A new excess is reported again.
  EXPECT_EQ(command(s, 0.75f), -1);
  EXPECT_EQ(count_of(s.take_output(), kTransStart), 1);
}

TEST(EnergyPosition, NumericalExplosionIsReportedOnce) {
  ServoContext s;
  command(s, 0.0f);
  // An infinite pose, or a vanishing speed factor, overflows the energy.
  EXPECT_EQ(command(s, INFINITY), -1);
  EXPECT_EQ(command(s, INFINITY), -1);
  EXPECT_EQ(s.take_output(),
            "---- depassement Ec (position en translation): explosion numerique ----\n");
}

TEST(EnergyPosition, RotationalHoldSharesTheLastAcceptedVectorPart) {
  ServoContext s;
  ServoPoint &p = s.point();
  command(s, 0.0f, 0.0f);
  // A turn of about 0.02 rad in a millisecond: 20 rad/s, energy 2 above the
  // rotational threshold (about 0.197), yet close to the held rotation.
  EXPECT_EQ(command(s, 0.0f, 0.01f), 0);
  EXPECT_EQ(p.pos_rot.limitation, 1);
  EXPECT_EQ(p.X_ref->rot->partie_vect, p.X_cmd_prev->rot->partie_vect);
  EXPECT_EQ(p.X_ref->rot->partie_scal, 1.0);             // scalar part frozen at the hold
  EXPECT_NEAR(p.X_ref->rot->partie_vect[2], 0.01, 1e-7); // vector part moved along
  // Far from the held rotation: refused, one message with the angular speed.
  EXPECT_EQ(command(s, 0.0f, 0.5f), -1);
  EXPECT_EQ(command(s, 0.0f, 0.5f), -1);
  const std::string out = s.take_output();
  EXPECT_EQ(count_of(out, "---- depassement Ec (rotation) ----\n=> "), 1);
  // Teardown gives X_ref its own storage back (checked by the sanitizer build).
}

TEST(EnergySpeed, ExcessPrintsOnceWithThePeakAndTheThreshold) {
  ServoContext s;
  EXPECT_EQ(speed(s, 100.0f), 0); // first call only initialises
  EXPECT_EQ(speed(s, 1.0f), 0);
  EXPECT_EQ(speed(s, 10.0f), -1);
  EXPECT_EQ(speed(s, 10.0f), -1);
  EXPECT_EQ(s.take_output(), "---- depassement Ec (vitesse de translation) ----\n"
                             "=> 10.000, 0.000 0.000 | 50.000/2.000\n");
  EXPECT_EQ(speed(s, 0.0f), -1); // the peak still holds the last energy
  EXPECT_EQ(speed(s, 0.0f), 0);
  EXPECT_EQ(s.take_output(), "---- fin de depassement Ec (vitesse de translation) ----\n");
  EXPECT_EQ(speed(s, 0.0f, 100.0f), -1);
  EXPECT_EQ(speed(s, 0.0f, 100.0f), -1);
  EXPECT_EQ(count_of(s.take_output(), "---- depassement Ec (vitesse de rotation) ----\n=> "), 1);
}

TEST(EnergySpeed, ModeChangeRestartsForFiveCalls) {
  ServoContext s;
  KaloContext *ctx = s.get();
  speed(s, 0.0f);
  EXPECT_EQ(speed(s, 10.0f), -1);
  ctx->vm.vm_default_mode = 1;
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(speed(s, 10.0f), 0) << i;
    EXPECT_EQ(ctx->vm.vm_default_mode_seen, i == 4 ? 1 : -1) << i;
  }
  EXPECT_EQ(s.point().ec_countdown, 5);
  EXPECT_EQ(speed(s, 10.0f), -1);
}

TEST(EnergySpeed, SpeedFactorScalesTheTranslationAtRestart) {
  ServoContext s;
  s.get()->servo.speed_factor_filtered->donnees[0] = 10.0;
  deactive_control_ener_cine(s.get());
  EXPECT_EQ(speed(s, 0.0f), 0);
  EXPECT_EQ(speed(s, 15.0f), 0); // 1.5 m/s once scaled: below 2 m/s
  EXPECT_EQ(speed(s, 25.0f), -1);
}
