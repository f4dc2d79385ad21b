// Displacements: composition conventions, inverses, comparisons, chains and
// the adjoint matrices, against Eigen isometries.
#include <array>
#include <cmath>

#include "math_test_util.h"

using namespace kalo_test;

namespace {
Eigen::Matrix<double, 7, 1> flat(const DEPL *d) {
  Eigen::Matrix<double, 7, 1> f;
  DEPL_vider_7_double(d, f.data());
  return f;
}

::testing::AssertionResult same_pose(const DEPL *d, const Eigen::Isometry3d &e, double tol) {
  const double dt = (to_eigen3(d->trans) - e.translation()).norm();
  const double dr = (to_eigen(d->rot).toRotationMatrix() - e.linear()).norm();
  if (dt <= tol && dr <= tol)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "translation off by " << dt << ", rotation by " << dr;
}

// The work records every adjoint takes.
struct AdjointWork {
  Matd a = matd(6, 6), s = matd(3, 3), r = matd(3, 3), p = matd(3, 3);
};
} // namespace

TEST(Depl, CreationFlatFormsAndPrinting) {
  Depl d = depl();
  ASSERT_NE(d, nullptr);
  Eigen::Matrix<double, 7, 1> expected;
  expected << 0, 0, 0, 0, 0, 0, 1;
  EXPECT_EQ(flat(d.get()), expected);

  const float f[7] = {1, 2, 3, 0, 0, 1, 0};
  DEPL_remplir_7_float(d.get(), f);
  float out[7];
  DEPL_vider_7_float(d.get(), out);
  EXPECT_EQ(out[2], 3.0f);
  EXPECT_EQ(out[5], 1.0f);
  EXPECT_EQ(out[6], 0.0f);

  double tx, ty, tz, x, y, z, a;
  DEPL_remplir_trans_vrot(d.get(), 1, 2, 3, 0, 0, 5, M_PI / 2);
  DEPL_vider_trans_vrot(d.get(), &tx, &ty, &tz, &x, &y, &z, &a);
  EXPECT_EQ(ty, 2.0);
  EXPECT_NEAR(z, 1.0, 1e-15);
  EXPECT_NEAR(a, M_PI / 2, 1e-12);
  EXPECT_EQ(DEPL_translationNorm(d.get()), std::sqrt(14.0));

  DEPL_ra_identite(d.get());
  EXPECT_EQ(flat(d.get()), expected);
  DEPL_remplir_trans(d.get(), 1, -2, 0.5);
  ::testing::internal::CaptureStdout();
  DEPL_afficher(d.get());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            " trans = 1.000000 -2.000000 0.500000\n rot = partie scal : 1.000000 ; partie vect : "
            "0.000000 0.000000 0.000000\n");
  ::testing::internal::CaptureStdout();
  DEPL_afficher_homogene(d.get());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "1.000\t0.000\t0.000\t1.000\t\n0.000\t1.000\t0.000\t-2.000\t\n"
            "0.000\t0.000\t1.000\t0.500\t\n0.000\t0.000\t0.000\t1.000\t\n");
}

TEST(Depl, CompositionsAgreeWithEigen) {
  Random rnd(11);
  Depl a = depl(), b = depl(), c = depl(), r = depl();
  for (int n = 0; n < 300; ++n) {
    rnd.fill(a.get());
    rnd.fill(b.get());
    const Eigen::Isometry3d ea = to_eigen(a.get()), eb = to_eigen(b.get());
    DEPL_compose(a.get(), b.get(), c.get());
    EXPECT_TRUE(same_pose(c.get(), ea * eb, 1e-12));
    EXPECT_NEAR(QUAT_norme(c->rot), 1.0, 1e-15);
    DEPL_compose_inv(a.get(), b.get(), c.get());
    EXPECT_TRUE(same_pose(c.get(), ea * eb.inverse(), 1e-12));
    DEPL_inv_compose(a.get(), b.get(), c.get());
    EXPECT_TRUE(same_pose(c.get(), ea.inverse() * eb, 1e-12));
    DEPL_inverse(a.get(), r.get());
    EXPECT_TRUE(same_pose(r.get(), ea.inverse(), 1e-12));

    // a o a^-1 is the identity; the inverse also works in place.
    DEPL_compose(a.get(), r.get(), c.get());
    EXPECT_TRUE(same_pose(c.get(), Eigen::Isometry3d::Identity(), 1e-12));
    DEPL_inverse(a.get(), a.get());
    EXPECT_LT((flat(a.get()) - flat(r.get())).norm(), 1e-15);
  }
}

TEST(Depl, DecoupledDifferenceDeltaAndComparison) {
  Depl a = depl(), b = depl(), c = depl();
  DEPL_remplir_trans_vrot(a.get(), 1, 1, 1, 0, 0, 1, 0.2);
  DEPL_remplir_trans_vrot(b.get(), 0.5, 1, 3, 0, 0, 1, 0.1);
  DEPL_compose_decouple_trans_rot(a.get(), b.get(), c.get());
  EXPECT_EQ(to_eigen3(c->trans), Eigen::Vector3d(0.5, 0, -2)); // plain difference
  EXPECT_NEAR(c->rot->partie_vect[2], std::sin(0.05), 1e-15);
  // Scalar part made non-negative.
  QUAT_remplir_double(b->rot, std::array<double, 4>{0, 0, -std::sin(0.05), -std::cos(0.05)}.data());
  DEPL_compose_decouple_trans_rot(a.get(), b.get(), c.get());
  EXPECT_GE(c->rot->partie_scal, 0.0);

  double dt[3], dr[3];
  DEPL_remplir_trans_vrot(a.get(), 0, 0, 0.1, 0, 0, 0, 0);
  DEPL_remplir_trans_vrot(b.get(), 0, 0, 0, 0, 0, 0, 0);
  EXPECT_EQ(DEPL_comparer(a.get(), b.get(), dt, dr, 0.1, 0.0), 0); // equal to the threshold
  EXPECT_EQ(dt[2], 0.1);
  EXPECT_EQ(DEPL_comparer(a.get(), b.get(), dt, dr, 0.0999, 0.0), -1);
  DEPL_remplir_vrot(a.get(), 1, 0, 0, 0.2);
  EXPECT_EQ(DEPL_comparer(a.get(), b.get(), dt, dr, 1.0, 0.0998), -1);
  EXPECT_EQ(DEPL_comparer(a.get(), b.get(), dt, dr, 1.0, 0.1001), 0);
  EXPECT_NEAR(dr[0], std::sin(0.1), 1e-15);
  dt[0] = 42;
  EXPECT_EQ(DEPL_comparer(a.get(), b.get(), dt, nullptr, 1e9, 1e9), -1);
  EXPECT_EQ(DEPL_comparer(a.get(), b.get(), nullptr, dr, 1e9, 1e9), -1);
  EXPECT_EQ(dt[0], 42.0); // nothing computed
  EXPECT_EQ(DEPL_delta(a.get(), b.get(), dt, dr), dr);
}

TEST(Depl, RotationAngleIsUnsignedAndFolded) {
  Depl d = depl();
  QUAT_remplir_double(d->rot, std::array<double, 4>{0, 0, 0, -1}.data());
  EXPECT_EQ(DEPL_rotationAngle(d.get()), 0.0);
  DEPL_remplir_vrot(d.get(), 0, 1, 0, 3 * M_PI / 2);
  EXPECT_NEAR(DEPL_rotationAngle(d.get()), M_PI / 2, 1e-12);
  DEPL_remplir_vrot(d.get(), 0, 1, 0, 0.7);
  EXPECT_NEAR(DEPL_rotationAngle(d.get()), 0.7, 1e-12);
  QUAT_remplir_double(d->rot, std::array<double, 4>{0, 0, 0, 1.0000001}.data());
  EXPECT_EQ(DEPL_rotationAngle(d.get()), 0.0); // out of acos's domain
}

TEST(Depl, ChainAccumulatesAndCopies) {
  Random rnd(12);
  Depl d0 = depl(), d1 = depl(), d2 = depl(), c0 = depl(), c1 = depl(), c2 = depl(), r = depl();
  DEPL *d[3] = {d0.get(), d1.get(), d2.get()};
  DEPL *c[3] = {c0.get(), c1.get(), c2.get()};
  for (DEPL *x : d)
    rnd.fill(x);
  EXPECT_EQ(DEPL_chainage(d, 0, 2, c, r.get()), r.get());
  const Eigen::Isometry3d expected = to_eigen(d0.get()) * to_eigen(d1.get()) * to_eigen(d2.get());
  EXPECT_TRUE(same_pose(r.get(), expected, 1e-12));
  EXPECT_TRUE(same_pose(c1.get(), to_eigen(d0.get()) * to_eigen(d1.get()), 1e-12));
  // i = j copies D[i] into C[i] and R (contents, not the record).
  DEPL_chainage(d, 1, 1, c, r.get());
  EXPECT_EQ(flat(c1.get()), flat(d1.get()));
  EXPECT_EQ(flat(r.get()), flat(d1.get()));
  EXPECT_NE(c1->trans, d1->trans);
}

TEST(Depl, HomogeneousRepresentation) {
  Random rnd(13);
  Depl d = depl();
  rnd.fill(d.get());
  Matd h = matd(4, 4), r = matd(3, 3);
  double t[3];
  DEPL_representation_homogene(d.get(), h.get(), r.get(), t);
  EXPECT_LT((to_eigen(h.get()) - to_eigen(d.get()).matrix()).norm(), 1e-14);
}

TEST(Depl, AdjointsCarryTwistsBetweenFrames) {
  Random rnd(14);
  Depl d = depl();
  AdjointWork w;
  for (int n = 0; n < 100; ++n) {
    rnd.fill(d.get());
    const Eigen::Matrix3d R = to_eigen(d->rot).toRotationMatrix();
    const Eigen::Vector3d t = to_eigen3(d->trans);
    // A body moving with twist (v, w) in the moving frame of d: in the
    // reference frame its velocity at the origin is R v + t x (R w) and its
    // angular velocity R w.
    const Eigen::Vector3d v = rnd.vector(), om = rnd.vector();
    Eigen::Matrix<double, 6, 1> twist, expected, rot_first;
    twist << v, om;
    expected << R * v + t.cross(R * om), R * om;

    MATD_remplir_avec_scalaire(w.a.get(), 0.0);
    DEPL_adjoint(d.get(), w.a.get(), w.s.get(), w.r.get(), w.p.get());
    Eigen::MatrixXd A = to_eigen(w.a.get());
    EXPECT_LT((A * twist - expected).norm(), 1e-12);
    MATD_remplir_avec_scalaire(w.a.get(), 0.0);
    DEPL_adjoint_inverse(d.get(), w.a.get(), w.s.get(), w.r.get(), w.p.get());
    Eigen::MatrixXd Ai = to_eigen(w.a.get());
    EXPECT_LT((Ai * expected - twist).norm(), 1e-12);
    EXPECT_LT((Ai * A - Eigen::MatrixXd::Identity(6, 6)).norm(), 1e-12);

    // Rotation-first forms.
    rot_first << om, v;
    Eigen::Matrix<double, 6, 1> expected_rf;
    expected_rf << expected.tail<3>(), expected.head<3>();
    MATD_remplir_avec_scalaire(w.a.get(), 0.0);
    DEPL_adjoint_std(d.get(), w.a.get(), w.s.get(), w.r.get(), w.p.get());
    EXPECT_LT((to_eigen(w.a.get()) * rot_first - expected_rf).norm(), 1e-12);
    MATD_remplir_avec_scalaire(w.a.get(), 0.0);
    DEPL_adjoint_inverse_std(d.get(), w.a.get(), w.s.get(), w.r.get(), w.p.get());
    EXPECT_LT((to_eigen(w.a.get()) * expected_rf - rot_first).norm(), 1e-12);
  }
}

TEST(Depl, AdjointOfACompositionIsTheProductOfAdjoints) {
  Random rnd(15);
  Depl a = depl(), b = depl(), c = depl();
  AdjointWork wa, wb, wc;
  for (int n = 0; n < 50; ++n) {
    rnd.fill(a.get());
    rnd.fill(b.get());
    DEPL_compose(a.get(), b.get(), c.get());
    for (AdjointWork *w : {&wa, &wb, &wc})
      MATD_remplir_avec_scalaire(w->a.get(), 0.0);
    DEPL_adjoint(a.get(), wa.a.get(), wa.s.get(), wa.r.get(), wa.p.get());
    DEPL_adjoint(b.get(), wb.a.get(), wb.s.get(), wb.r.get(), wb.p.get());
    DEPL_adjoint(c.get(), wc.a.get(), wc.s.get(), wc.r.get(), wc.p.get());
    EXPECT_LT((to_eigen(wa.a.get()) * to_eigen(wb.a.get()) - to_eigen(wc.a.get())).norm(), 1e-11);
  }
}

TEST(Depl, AdjointsLeaveTheirUnwrittenBlockAlone) {
  Depl d = depl();
  DEPL_remplir_trans_vrot(d.get(), 1, 2, 3, 1, 1, 0, 0.4);
  AdjointWork w;
  MATD_remplir_avec_scalaire(w.a.get(), 1.0);
  DEPL_adjoint(d.get(), w.a.get(), w.s.get(), w.r.get(), w.p.get());
  EXPECT_EQ(to_eigen(w.a.get()).bottomLeftCorner(3, 3), Eigen::MatrixXd::Ones(3, 3));
  MATD_remplir_avec_scalaire(w.a.get(), 1.0);
  DEPL_adjoint_inverse(d.get(), w.a.get(), w.s.get(), w.r.get(), w.p.get());
  EXPECT_EQ(to_eigen(w.a.get()).bottomLeftCorner(3, 3), Eigen::MatrixXd::Ones(3, 3));
  MATD_remplir_avec_scalaire(w.a.get(), 1.0);
  DEPL_adjoint_std(d.get(), w.a.get(), w.s.get(), w.r.get(), w.p.get());
  EXPECT_EQ(to_eigen(w.a.get()).topRightCorner(3, 3), Eigen::MatrixXd::Ones(3, 3));
  MATD_remplir_avec_scalaire(w.a.get(), 1.0);
  DEPL_adjoint_inverse_std(d.get(), w.a.get(), w.s.get(), w.r.get(), w.p.get());
  EXPECT_EQ(to_eigen(w.a.get()).topRightCorner(3, 3), Eigen::MatrixXd::Ones(3, 3));
}
