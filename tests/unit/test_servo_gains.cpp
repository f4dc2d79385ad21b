// Coupling gains from mass, inertia and time step; reading and writing them;
// the speed-factor filter set-up; the per-point records' lifetime.
#include <gtest/gtest.h>

#include "servo_test_util.h"

using kalo_test::ServoContext;

namespace {
const float kUnitInertia[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
double diag(const MATD *m, int i) {
  return m->donnees[i * 7];
}
} // namespace

TEST(ServoGains, MassAndTimeStepGiveTheTranslationalGains) {
  ServoContext s;
  calcul_gains(s.get(), kUnitInertia, 0, 2.0f);
  for (int i = 3; i < 6; ++i) {
    EXPECT_DOUBLE_EQ(diag(s.point().K, i), 239999.97332110367);
    EXPECT_DOUBLE_EQ(diag(s.point().B, i), 1799.9999145045917);
  }
}

TEST(ServoGains, OnlyTheInertiaDiagonalCountsAndOffDiagonalGainsStay) {
  ServoContext s;
  s.point().K->donnees[1] = 7.0; // an off-diagonal entry set elsewhere
  s.point().K_aux->donnees[0] = 3.0;
  const float inertia[9] = {0.5f, 9, 9, 9, 0.25f, 9, 9, 9, 0.125f};
  calcul_gains(s.get(), inertia, 0, 1.0f);
  const double dt = static_cast<double>(0.001f);
  const double dt2 = static_cast<double>(0.001f * 0.001f);
  const double ii[3] = {0.5, 0.25, 0.125};
  for (int i = 0; i < 3; ++i) {
    EXPECT_DOUBLE_EQ(diag(s.point().K, i), ii[i] * 0.12 / dt2);
    EXPECT_DOUBLE_EQ(diag(s.point().B, i), ii[i] * 0.9 / dt);
  }
  EXPECT_EQ(s.point().K->donnees[1], 7.0);
  EXPECT_EQ(s.point().K_aux->donnees[0], 0.0);
}

TEST(ServoGains, PrintoutOnlyWithDebugBitZero) {
  ServoContext quiet(0);
  calcul_gains(quiet.get(), kUnitInertia, 0, 2.0f);
  const float k[6] = {1, 2, 3, 4, 5, 6};
  ecriture_gains(quiet.get(), k, k, 0);
  EXPECT_EQ(quiet.take_output(), "");

  ServoContext loud(1);
  const float inertia[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  loud.get()->params.time_step = 0.5f;
  calcul_gains(loud.get(), inertia, 0, 2.0f);
  EXPECT_EQ(loud.take_output(), "--------- object n 0 ---------\n"
                                "mass = 2\n"
                                "inertia = [[1, 2, 3],[4, 5, 6],[7, 8, 9]]\n"
                                "Gains theoriques calcules:\n"
                                "K = [0.48, 2.4, 4.32, 0.96, 0.96, 0.96]\n"
                                "B = [1.8, 9, 16.2, 3.6, 3.6, 3.6]\n");
  const float kk[6] = {10, 20, 30, 1, 2, 3};
  const float bb[6] = {0.5f, 0.25f, 4, 5, 6, 7};
  ecriture_gains(loud.get(), kk, bb, 0);
  EXPECT_EQ(loud.take_output(), "Gains effectivement utilises:\n"
                                "K = [1, 2, 3, 10, 20, 30]\n"
                                "B = [5, 6, 7, 0.5, 0.25, 4]\n");
}

TEST(ServoGains, WrittenGainsReadBackInInterfaceOrder) {
  ServoContext s;
  const float k[6] = {100, 200, 300, 4, 5, 6};
  const float b[6] = {1.5f, 2.5f, 3.5f, 0.1f, 0.2f, 0.3f};
  ecriture_gains(s.get(), k, b, 0);
  // Inside, rotation comes first.
  EXPECT_EQ(diag(s.point().K, 0), 4.0);
  EXPECT_EQ(diag(s.point().K, 3), 100.0);
  float k_out[6], b_out[6];
  lecture_gains(s.get(), k_out, b_out, 0);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(k_out[i], k[i]);
    EXPECT_EQ(b_out[i], b[i]);
  }
}

TEST(ServoFilter, StartsAtRestOnTheRequestedFactorAndCanBeRestarted) {
  ServoContext s;
  KaloContext *ctx = s.get();
  ctx->servo.speed_factor_target->donnees[0] = 0.25;
  ctx->servo.filter_disabled = 1;
  init_filtres(ctx); // the earlier filter is replaced without leaking
  EXPECT_EQ(ctx->servo.speed_factor_filtered->donnees[0], 0.25);
  EXPECT_EQ(ctx->servo.filter_disabled.load(), 0u);
  ASSERT_NE(ctx->servo.speed_factor_filter, nullptr);
  EXPECT_DOUBLE_EQ(ctx->servo.speed_factor_filter->Tech, 0.0009765625);
  MATD *out = MATD_creer(1, 1);
  TSIG_filtre_calculer(ctx->servo.speed_factor_filter, ctx->servo.speed_factor_target, out);
  EXPECT_NEAR(out->donnees[0], 0.25, 1e-12); // at rest: a constant input stays put
  MATD_detruire(out);
}

TEST(ServoRecords, EveryPointIsCreatedAndCloseReleasesThem) {
  ServoContext s;
  KaloContext *ctx = s.get();
  close_asserv(ctx);
  ctx->servo.point_count = 3;
  init_asserv(ctx);
  for (int i = 0; i < 3; ++i) {
    ServoPoint &p = ctx->servo.points[i];
    ASSERT_NE(p.ressort, nullptr);
    ASSERT_NE(p.W_consigne, nullptr);
    EXPECT_EQ(p.ec_restart_pos, 1);
    EXPECT_EQ(p.ec_restart_vit, 1);
    EXPECT_EQ(p.ec_countdown, 5);
    EXPECT_EQ(p.pos_trans.ecart_max, 0.005);
    EXPECT_EQ(p.pos_rot.ecart_max, 0.19634954084936207);
  }
  ctx->servo.points[0].clock_us = kalo_test::fake_clock;
  close_asserv(ctx);
  EXPECT_EQ(ctx->servo.points, nullptr);
  ctx->servo.point_count = 1;
  init_asserv(ctx); // the fixture closes this one
}
