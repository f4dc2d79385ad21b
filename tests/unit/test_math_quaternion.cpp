// Quaternions: component order, product conventions, the branch rules of the
// two matrix conversions and the sign rules, checked against Eigen.
#include <cmath>

#include "math_test_util.h"

using namespace kalo_test;

namespace {
Eigen::Vector4d coeffs(const QUAT *q) {
  return {q->partie_vect[0], q->partie_vect[1], q->partie_vect[2], q->partie_scal};
}
} // namespace

TEST(Quat, CreationIsIdentityAndPrintingIsByteExact) {
  Quat q(QUAT_creer());
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(coeffs(q.get()), Eigen::Vector4d(0, 0, 0, 1));
  ::testing::internal::CaptureStdout();
  QUAT_afficher(q.get());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "partie scal : 1.000000 ; partie vect : 0.000000 0.000000 0.000000\n");

  // Flat arrays are x, y, z, w in both precisions.
  const float f[4] = {0.5f, -0.5f, 0.25f, 0.75f};
  QUAT_remplir_float(q.get(), f);
  EXPECT_EQ(q->partie_scal, 0.75);
  EXPECT_EQ(q->partie_vect[1], -0.5);
  double d[4];
  QUAT_vider_double(q.get(), d);
  EXPECT_EQ(d[3], 0.75);
  float g[4];
  QUAT_vider_float(q.get(), g);
  EXPECT_EQ(g[2], 0.25f);
}

TEST(Quat, ProductsAgreeWithEigenAndAreNormalised) {
  Random rnd(3);
  Quat a(QUAT_creer()), b(QUAT_creer()), c(QUAT_creer());
  for (int n = 0; n < 200; ++n) {
    // Slightly non-unit operands: the products normalise their result.
    const Eigen::Quaterniond ea(rnd.rotation().coeffs() * rnd.uniform(0.5, 2.0));
    const Eigen::Quaterniond eb(rnd.rotation().coeffs() * rnd.uniform(0.5, 2.0));
    from_eigen(ea, a.get());
    from_eigen(eb, b.get());
    QUAT_mult(a.get(), b.get(), c.get());
    EXPECT_LT((coeffs(c.get()) - (ea * eb).normalized().coeffs()).norm(), 1e-12);
    EXPECT_NEAR(QUAT_norme(c.get()), 1.0, 1e-15);
    QUAT_mult_conj(a.get(), b.get(), c.get());
    EXPECT_LT((coeffs(c.get()) - (ea * eb.conjugate()).normalized().coeffs()).norm(), 1e-12);
    QUAT_conj_mult(a.get(), b.get(), c.get());
    EXPECT_LT((coeffs(c.get()) - (ea.conjugate() * eb).normalized().coeffs()).norm(), 1e-12);
    QUAT_inverse(a.get(), c.get());
    EXPECT_LT((coeffs(c.get()) - ea.inverse().normalized().coeffs()).norm(), 1e-12);
    QUAT_normaliser(a.get(), c.get());
    EXPECT_LT((coeffs(c.get()) - ea.normalized().coeffs()).norm(), 1e-15);
    QUAT_conjugue(a.get(), c.get());
    EXPECT_EQ(coeffs(c.get()), ea.conjugate().coeffs());
  }
  // In-place forms that are allowed.
  from_eigen(Eigen::Quaterniond(2, 0, 0, 0), a.get());
  QUAT_normaliser(a.get(), a.get());
  EXPECT_EQ(a->partie_scal, 1.0);
  from_eigen(Eigen::Quaterniond(0, 0, 3, 0), a.get());
  QUAT_inverse(a.get(), a.get());
  EXPECT_EQ(coeffs(a.get()), Eigen::Vector4d(0, -1, 0, 0));
}

TEST(Quat, MultByIdentityNormalises) {
  Quat q = quat(0.2, 0.4, 0.4, 1.6), id(QUAT_creer()), c(QUAT_creer());
  QUAT_mult(q.get(), id.get(), c.get());
  const Eigen::Vector4d expected = Eigen::Vector4d(0.2, 0.4, 0.4, 1.6).normalized();
  EXPECT_LT((coeffs(c.get()) - expected).norm(), 1e-15);
  QUAT_mult(id.get(), q.get(), c.get());
  EXPECT_LT((coeffs(c.get()) - expected).norm(), 1e-15);
}

TEST(Quat, RotationOfVectorsIsActiveAndScalesWithSquaredNorm) {
  Random rnd(4);
  Quat q(QUAT_creer());
  for (int n = 0; n < 100; ++n) {
    const Eigen::Quaterniond e = rnd.rotation();
    from_eigen(e, q.get());
    Eigen::Vector3d v = rnd.vector(5), r;
    QUAT_rot_vecteur(q.get(), v.data(), r.data());
    EXPECT_LT((r - e * v).norm(), 1e-12);
    QUAT_inv_rot_vecteur(q.get(), v.data(), r.data());
    EXPECT_LT((r - e.conjugate() * v).norm(), 1e-12);
    // In place.
    Eigen::Vector3d w = v;
    QUAT_rot_vecteur(q.get(), w.data(), w.data());
    EXPECT_LT((w - e * v).norm(), 1e-12);
  }
  // Not normalised: a quaternion of norm 2 scales by 4.
  Quat two = quat(0, 0, 0, 2);
  double v[3] = {1, 2, 3}, r[3];
  QUAT_rot_vecteur(two.get(), v, r);
  EXPECT_EQ(r[2], 12.0);
  // Rotating x by +90 degrees about z gives y.
  Quat z90(QUAT_creer());
  QUAT_remplir_vrot(z90.get(), 0, 0, 1, M_PI / 2);
  const double x[3] = {1, 0, 0};
  QUAT_rot_vecteur(z90.get(), x, r);
  EXPECT_NEAR(r[1], 1.0, 1e-15);
  EXPECT_NEAR(r[0], 0.0, 1e-15);
}

TEST(Quat, MatrixFormsAgreeWithEigenBothWays) {
  Random rnd(5);
  Quat q(QUAT_creer()), back(QUAT_creer()), prev(QUAT_creer());
  Matd m = matd(3, 3);
  for (int n = 0; n < 500; ++n) {
    const Eigen::Quaterniond e = rnd.rotation();
    from_eigen(e, q.get());
    QUAT_convertir_quaternion_en_matrice(q.get(), m.get());
    EXPECT_LT((to_eigen(m.get()) - e.toRotationMatrix()).norm(), 1e-14);

    QUAT_convertir_matrice_en_quaternion(m.get(), back.get());
    EXPECT_TRUE(same_rotation(to_eigen(back.get()), e, 1e-13));
    const Eigen::Quaterniond from_eigen_matrix(e.toRotationMatrix());
    EXPECT_TRUE(same_rotation(to_eigen(back.get()), from_eigen_matrix, 1e-13));

    // The continuity version keeps the sign of the previous sample.
    from_eigen(e, prev.get());
    QUAT_convertir_mat_en_quat_avec_gestion_du_tour(m.get(), prev.get(), back.get());
    EXPECT_LT((coeffs(back.get()) - e.coeffs()).norm(), 1e-12);
    from_eigen(Eigen::Quaterniond(-e.coeffs()), prev.get());
    QUAT_convertir_mat_en_quat_avec_gestion_du_tour(m.get(), prev.get(), back.get());
    EXPECT_LT((coeffs(back.get()) + e.coeffs()).norm(), 1e-12);
  }
  // Rows are written with the record's own stride: a 4 x 4 record.
  Matd h = matd(4, 4);
  MATD_remplir_avec_scalaire(h.get(), 7.0);
  const Eigen::Quaterniond e = rnd.rotation();
  from_eigen(e, q.get());
  QUAT_convertir_quaternion_en_matrice(q.get(), h.get());
  EXPECT_LT((to_eigen(h.get()).topLeftCorner<3, 3>() - e.toRotationMatrix()).norm(), 1e-14);
  EXPECT_EQ(h->donnees[3], 7.0);
  EXPECT_EQ(h->donnees[15], 7.0);
}

TEST(Quat, MatrixConversionBranchRules) {
  Quat q(QUAT_creer());
  // Rotation by pi about x: t_w = 0, t_x = 4, so the x branch.
  Matd rx = matd(3, 3, {1, 0, 0, 0, -1, 0, 0, 0, -1});
  QUAT_convertir_matrice_en_quaternion(rx.get(), q.get());
  EXPECT_EQ(coeffs(q.get()), Eigen::Vector4d(1, 0, 0, 0));
  // About y and z.
  Matd ry = matd(3, 3, {-1, 0, 0, 0, 1, 0, 0, 0, -1});
  QUAT_convertir_matrice_en_quaternion(ry.get(), q.get());
  EXPECT_EQ(coeffs(q.get()), Eigen::Vector4d(0, 1, 0, 0));
  Matd rz = matd(3, 3, {-1, 0, 0, 0, -1, 0, 0, 0, 1});
  QUAT_convertir_matrice_en_quaternion(rz.get(), q.get());
  EXPECT_EQ(coeffs(q.get()), Eigen::Vector4d(0, 0, 1, 0));
  // Ties fall to the later branch: the zero matrix ties all four at 1 -> z.
  Matd zero = matd(3, 3);
  QUAT_convertir_matrice_en_quaternion(zero.get(), q.get());
  EXPECT_EQ(coeffs(q.get()), Eigen::Vector4d(0, 0, 0.5, 0));
  // Not normalised: a scaled identity keeps its scale.
  Matd two(MATD_identite(3));
  MATD_mult_par_scalaire(two.get(), two.get(), 2.0);
  QUAT_convertir_matrice_en_quaternion(two.get(), q.get());
  EXPECT_DOUBLE_EQ(q->partie_scal, 0.5 * std::sqrt(7.0));
  // In the x branch w may come out negative: no sign rule.
  Quat e(QUAT_creer());
  QUAT_remplir_vrot(e.get(), 1, 0, 0, 3.0); // close to pi about x
  from_eigen(Eigen::Quaterniond(-e->partie_scal, e->partie_vect[0], 0, 0), e.get());
  Matd m = matd(3, 3);
  QUAT_convertir_quaternion_en_matrice(e.get(), m.get());
  QUAT_convertir_matrice_en_quaternion(m.get(), q.get());
  EXPECT_GT(q->partie_vect[0], 0.0);
  EXPECT_LT(q->partie_scal, 0.0);
}

TEST(Quat, ContinuityConversionFallbacksAndStreamHasNoJump) {
  Quat q(QUAT_creer()), p(QUAT_creer());
  // Half turn about x: t = 0, the x fallback.
  Matd rx = matd(3, 3, {1, 0, 0, 0, -1, 0, 0, 0, -1});
  QUAT_convertir_mat_en_quat_avec_gestion_du_tour(rx.get(), p.get(), q.get());
  EXPECT_EQ(coeffs(q.get()), Eigen::Vector4d(1, 0, 0, 0));
  // Half turn about y: x fallback fails (s = 0), y fallback.
  Matd ry = matd(3, 3, {-1, 0, 0, 0, 1, 0, 0, 0, -1});
  QUAT_convertir_mat_en_quat_avec_gestion_du_tour(ry.get(), p.get(), q.get());
  EXPECT_EQ(coeffs(q.get()), Eigen::Vector4d(0, 1, 0, 0));
  // Half turn about z: the last fallback z = 1.
  Matd rz = matd(3, 3, {-1, 0, 0, 0, -1, 0, 0, 0, 1});
  QUAT_convertir_mat_en_quat_avec_gestion_du_tour(rz.get(), p.get(), q.get());
  EXPECT_EQ(coeffs(q.get()), Eigen::Vector4d(0, 0, 1, 0));
  // The same record as previous value never flips the sign.
  Quat self = quat(0, 0, 0, -1);
  Matd id(MATD_identite(3));
  QUAT_convertir_mat_en_quat_avec_gestion_du_tour(id.get(), self.get(), self.get());
  EXPECT_EQ(coeffs(self.get()), Eigen::Vector4d(0, 0, 0, 1));

  // A rotation sweeping several turns: consecutive samples stay close.
  Matd m = matd(3, 3);
  Quat cur(QUAT_creer()), last(QUAT_creer());
  const Eigen::Vector3d axis = Eigen::Vector3d(0.3, -0.5, 0.8).normalized();
  for (int k = 0; k <= 400; ++k) {
    const double angle = k * 0.05;
    from_eigen(Eigen::Quaterniond(Eigen::AngleAxisd(angle, axis)), cur.get());
    QUAT_convertir_quaternion_en_matrice(cur.get(), m.get());
    QUAT_convertir_mat_en_quat_avec_gestion_du_tour(m.get(), last.get(), q.get());
    if (k > 0) {
      EXPECT_LT((coeffs(q.get()) - coeffs(last.get())).norm(), 0.05) << k;
    }
    EXPECT_TRUE(same_rotation(to_eigen(q.get()), to_eigen(cur.get()), 1e-12));
    QUAT_normaliser(q.get(), last.get());
  }
}

TEST(Quat, AxisAngleRulesAndRoundTrip) {
  Quat q(QUAT_creer());
  QUAT_remplir_vrot(q.get(), 0, 0, 2, M_PI);
  EXPECT_EQ(coeffs(q.get()), Eigen::Vector4d(0, 0, 1, std::cos(M_PI / 2)));
  QUAT_remplir_vrot(q.get(), 0, 0, 0, 1.3);
  EXPECT_EQ(coeffs(q.get()), Eigen::Vector4d(0, 0, 0, 1));

  double x, y, z, a;
  QUAT_vider_vrot(q.get(), &x, &y, &z, &a);
  EXPECT_EQ(x, 0.0);
  EXPECT_EQ(y, 0.0);
  EXPECT_EQ(z, 0.0);
  EXPECT_EQ(a, 0.0);

  Random rnd(6);
  for (int n = 0; n < 100; ++n) {
    const Eigen::Vector3d axis = rnd.vector().normalized();
    const double angle = rnd.uniform(0.01, 2 * M_PI - 0.01);
    QUAT_remplir_vrot(q.get(), 3 * axis.x(), 3 * axis.y(), 3 * axis.z(), angle);
    EXPECT_TRUE(same_rotation(to_eigen(q.get()), Eigen::Quaterniond(Eigen::AngleAxisd(angle, axis)),
                              1e-14));
    QUAT_vider_vrot(q.get(), &x, &y, &z, &a);
    EXPECT_NEAR(a, angle, 1e-7); // acos near 0 and 2 pi loses precision
    EXPECT_LT((Eigen::Vector3d(x, y, z) - axis).norm(), 1e-6);
  }
}

TEST(Quat, ForcePositiveAndDelta) {
  Quat q = quat(0.1, 0, 0, -0.9);
  QUAT_forcer_positif(q.get());
  EXPECT_EQ(coeffs(q.get()), Eigen::Vector4d(-0.1, 0, 0, 0.9));
  Quat w0 = quat(1, 0, 0, 0);
  QUAT_forcer_positif(w0.get());
  EXPECT_EQ(coeffs(w0.get()), Eigen::Vector4d(1, 0, 0, 0));
  Quat mz = quat(0, 1, 0, -0.0);
  QUAT_forcer_positif(mz.get());
  EXPECT_EQ(mz->partie_vect[1], 1.0);

  // A small rotation error gives (angle / 2) axis in the reference frame,
  // whatever sign the operands carry.
  Random rnd(8);
  Quat a(QUAT_creer()), b(QUAT_creer());
  for (int n = 0; n < 50; ++n) {
    const Eigen::Quaterniond base = rnd.rotation();
    const Eigen::Vector3d axis = rnd.vector().normalized();
    const double angle = 1e-4;
    const Eigen::Quaterniond moved = Eigen::Quaterniond(Eigen::AngleAxisd(angle, axis)) * base;
    from_eigen(moved, a.get());
    from_eigen(Eigen::Quaterniond(-base.coeffs()), b.get());
    double d[3];
    QUAT_delta(a.get(), b.get(), d);
    EXPECT_LT((Eigen::Vector3d(d[0], d[1], d[2]) - angle / 2 * axis).norm(), 1e-11);
  }
}

TEST(Quat, AngularVelocityConversionsAreInverseAndMatchTheMotion) {
  Random rnd(9);
  Quat q(QUAT_creer()), dq(QUAT_creer());
  for (int n = 0; n < 100; ++n) {
    const Eigen::Quaterniond e = rnd.rotation();
    from_eigen(e, q.get());
    const Eigen::Vector3d w = rnd.vector(3);
    QUAT_convertir_vitesse_rotation_en_quaternion_derive(q.get(), w.data(), dq.get());
    // Finite difference of q(t) = exp(w t) q(0), w in the reference frame.
    const double h = 1e-6;
    const Eigen::Quaterniond later =
        Eigen::Quaterniond(Eigen::AngleAxisd(w.norm() * h, w.normalized())) * e;
    const Eigen::Vector4d fd = (later.coeffs() - e.coeffs()) / h;
    EXPECT_LT((coeffs(dq.get()) - fd).norm(), 1e-5);
    Eigen::Vector3d back;
    QUAT_convertir_quaternion_derive_en_vitesse_rotation(q.get(), dq.get(), back.data());
    EXPECT_LT((back - w).norm(), 1e-12);
  }
}
