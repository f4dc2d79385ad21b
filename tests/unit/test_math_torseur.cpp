// Screws: the storage order of twists and wrenches, frame changes (checked by
// power conservation and against Eigen), saturations, the exponential of a
// twist, the derivative of a moving displacement and the spatial spring.
#include <cmath>

#include <unsupported/Eigen/MatrixFunctions>

#include "kalo/kalo_signal.h"
#include "math_test_util.h"

using namespace kalo_test;

namespace {
using Vec6 = Eigen::Matrix<double, 6, 1>;

void set(TORS *t, const Vec6 &v) {
  for (int i = 0; i < 6; ++i)
    t->vecteur->donnees[i] = v(i);
}
Vec6 vec6(double a, double b, double c, double d, double e, double f) {
  Vec6 v;
  v << a, b, c, d, e, f;
  return v;
}

// Work records for TORS_exponentiel.
struct ExpWork {
  Matd s = matd(3, 3), r = matd(3, 3), id = Matd(MATD_identite(3));
  std::vector<Matd> w;
  std::vector<MATD *> wp;
  double v[4][3] = {};
  VECT3 *vp[4] = {v[0], v[1], v[2], v[3]};
  ExpWork() {
    for (int i = 0; i < 8; ++i) {
      w.push_back(matd(3, 3));
      wp.push_back(w.back().get());
    }
  }
};

// Work records for TORS_calculer_effort.
struct SpringWork {
  std::vector<Matd> m;
  std::vector<MATD *> W;
  Matd id = Matd(MATD_identite(3));
  double e1[3], e2[3];
  SpringWork() {
    for (int i = 0; i < 7 + 12; ++i)
      m.push_back(matd(3, 3));
    for (int i = 0; i < 7; ++i)
      W.push_back(m[i].get());
  }
  MATD *x(int i) { return m[7 + i].get(); }
  void run(const MATD *k, const DEPL *d, TORS *w) {
    TORS_calculer_effort(k, d, w, W.data(), nullptr, id.get(), x(0), x(1), x(2), x(3), x(4), x(5),
                         x(6), x(7), x(8), x(9), x(10), e1, e2);
  }
};
} // namespace

TEST(Tors, WrenchHalvesAreSwappedAtTheFlatBoundary) {
  Tors t = tors();
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->vtrans, t->vecteur->donnees);
  EXPECT_EQ(t->vrot, t->vecteur->donnees + 3);
  const double in[6] = {1, 2, 3, 4, 5, 6};
  TORS_remplir_effort_double(t.get(), in);
  double out[6];
  TORS_vider_vitesse_double(t.get(), out);
  EXPECT_EQ(Vec6(out), vec6(4, 5, 6, 1, 2, 3));
  TORS_vider_effort_double(t.get(), out);
  EXPECT_EQ(Vec6(out), vec6(1, 2, 3, 4, 5, 6));
  ::testing::internal::CaptureStdout();
  TORS_afficher_effort(t.get());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            " Forces : 1.000000 2.000000 3.000000\n Moments : 4.000000 5.000000 6.000000\n");
  ::testing::internal::CaptureStdout();
  TORS_afficher_vitesse(t.get());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            " v_trans : 4.000000 5.000000 6.000000\n v_rot : 1.000000 2.000000 3.000000\n");

  const float fin[6] = {1, 2, 3, 4, 5, 6};
  TORS_remplir_vitesse_float(t.get(), fin);
  float fout[6];
  TORS_vider_effort_float(t.get(), fout);
  EXPECT_EQ(fout[0], 4.0f);
  EXPECT_EQ(fout[3], 1.0f);
  TORS_remplir_effort_float(t.get(), fin);
  TORS_vider_vitesse_float(t.get(), fout);
  EXPECT_EQ(fout[0], 4.0f);
  const double half[3] = {7, 8, 9};
  EXPECT_EQ(TORS_remplir_vrot(t.get(), half), t->vrot);
  EXPECT_EQ(TORS_remplir_vtrans(t.get(), half), t->vtrans);
  EXPECT_EQ(to_eigen6(t.get()), vec6(7, 8, 9, 7, 8, 9));
}

TEST(Tors, ArithmeticAndPowerPairing) {
  Tors a = tors(), b = tors(), r = tors();
  set(a.get(), vec6(1, -2, 3, -4, 5, -6));
  set(b.get(), vec6(0.5, 0.5, 0.5, 1, 1, 1));
  TORS_plus(a.get(), b.get(), r.get());
  EXPECT_EQ(to_eigen6(r.get()), vec6(1.5, -1.5, 3.5, -3, 6, -5));
  TORS_moins(a.get(), b.get(), r.get());
  EXPECT_EQ(to_eigen6(r.get()), vec6(0.5, -2.5, 2.5, -5, 4, -7));
  TORS_oppose(a.get(), r.get());
  EXPECT_EQ(to_eigen6(r.get()), -to_eigen6(a.get()));
  TORS_mult_par_scalaire(a.get(), r.get(), 2.0);
  EXPECT_EQ(to_eigen6(r.get()), 2.0 * to_eigen6(a.get()));
  TORS_absolu(r.get());
  EXPECT_EQ(to_eigen6(r.get()), vec6(2, 4, 6, 8, 10, 12));
  // Twist (v, w) against wrench (moment m, force f): v.f + w.m.
  EXPECT_EQ(TORS_produit_scalaire(a.get(), b.get()), (1 - 2 + 3) * 1.0 + (-4 + 5 - 6) * 0.5);
  TORS_convertir_cinematique_effort(a.get(), a.get()); // in place
  EXPECT_EQ(to_eigen6(a.get()), vec6(-4, 5, -6, 1, -2, 3));
}

TEST(Tors, FrameChangesConservePowerAndMatchEigen) {
  Random rnd(21);
  Depl d = depl();
  Matd A = matd(6, 6), S = matd(3, 3), R = matd(3, 3), P = matd(3, 3), M = matd(6, 6);
  Tors t = tors(), f = tors(), r = tors(), w0 = tors(), w1 = tors(), ft = tors();
  TORS *pair[2] = {w0.get(), w1.get()};
  for (int n = 0; n < 100; ++n) {
    rnd.fill(d.get());
    MATD_remplir_avec_scalaire(A.get(), 0.0);
    DEPL_adjoint(d.get(), A.get(), S.get(), R.get(), P.get());
    set(t.get(), Vec6::Random());
    set(f.get(), Vec6::Random());
    // The wrench carried by the transpose adjoint delivers the same power.
    TORS_mult_vitesse_par_adjointe(t.get(), A.get(), r.get());
    TORS_mult_effort_par_adjointe_transpose(f.get(), A.get(), pair, ft.get());
    EXPECT_NEAR(TORS_produit_scalaire(r.get(), f.get()), TORS_produit_scalaire(t.get(), ft.get()),
                1e-12);
    EXPECT_LT((to_eigen6(r.get()) - to_eigen(A.get()) * to_eigen6(t.get())).norm(), 1e-12);

    // Matrix to wrench: M applied to the swapped twist.
    from_eigen(Eigen::MatrixXd::Random(6, 6), M.get());
    TORS_mult_vitesse_par_matrice_vers_effort(t.get(), M.get(), w0.get(), r.get());
    Vec6 swapped;
    swapped << to_eigen6(t.get()).tail<3>(), to_eigen6(t.get()).head<3>();
    EXPECT_LT((to_eigen6(r.get()) - to_eigen(M.get()) * swapped).norm(), 1e-12);

    // Projection: both halves rotated.
    const Eigen::Quaterniond q = to_eigen(d->rot);
    TORS_changer_repere_projection(t.get(), d.get(), r.get());
    Vec6 e;
    e << q * to_eigen3(t->vtrans), q * to_eigen3(t->vrot);
    EXPECT_LT((to_eigen6(r.get()) - e).norm(), 1e-12);

    // Moved to d.trans then expressed in d's moving frame.
    TORS_changer_centre_reduction_et_repere_projection(t.get(), d.get(), r.get());
    const Eigen::Vector3d p = to_eigen3(d->trans), om = to_eigen3(t->vrot);
    e << q.conjugate() * (om.cross(p) + to_eigen3(t->vtrans)), q.conjugate() * om;
    EXPECT_LT((to_eigen6(r.get()) - e).norm(), 1e-12);
  }
}

TEST(Tors, ReductionCentreGivesPointVelocityAndMomentAboutThePoint) {
  Tors t = tors(), r = tors();
  // Twist: rotation about z at 2 rad/s, no linear velocity at the origin:
  // the point (1, 0, 0) moves at (0, 2, 0).
  set(t.get(), vec6(0, 0, 0, 0, 0, 2));
  const double p[3] = {1, 0, 0};
  TORS_changer_centre_reduction(t.get(), p, r.get());
  EXPECT_EQ(to_eigen6(r.get()), vec6(0, 2, 0, 0, 0, 2));
  // Wrench: a force (0, 0, -10) at the origin has, about (1, 0, 0), the
  // moment (-1, 0, 0) x f = (0, -10, 0); held as (moment, force).
  const double w[6] = {0, 0, -10, 0, 0, 0};
  TORS_remplir_effort_double(t.get(), w);
  TORS_changer_centre_reduction(t.get(), p, t.get()); // in place
  EXPECT_EQ(to_eigen6(t.get()), vec6(0, -10, 0, 0, 0, -10));
}

TEST(Tors, SaturationsClampScaleAndZero) {
  Tors t = tors(), hi = tors(), lo = tors();
  set(hi.get(), vec6(2, 2, 2, 1, 1, 1));
  set(lo.get(), vec6(-2, -2, -2, -1, -1, -1));
  uint32_t sat = 7;
  set(t.get(), vec6(4, 0, 0, 0, 0, 0));
  TORS_saturer_homogene(t.get(), hi.get(), lo.get(), &sat);
  EXPECT_EQ(to_eigen6(t.get()), vec6(2, 0, 0, 0, 0, 0));
  EXPECT_EQ(sat, 1u);
  // Direction is kept: both components of the half shrink by the same factor.
  set(t.get(), vec6(1, -4, 1, 0.5, 0, -3));
  TORS_saturer_homogene(t.get(), hi.get(), lo.get(), &sat);
  EXPECT_EQ(to_eigen6(t.get()), vec6(0.5, -2, 0.5, 0.5 / 3, 0, -1));
  EXPECT_EQ(sat, 1u);
  set(t.get(), vec6(1, -1, 0.5, 0.2, -0.9, 1));
  TORS_saturer_homogene(t.get(), hi.get(), lo.get(), &sat);
  EXPECT_EQ(to_eigen6(t.get()), vec6(1, -1, 0.5, 0.2, -0.9, 1));
  EXPECT_EQ(sat, 0u);
  // A zero upper bound zeroes its component; a zero lower bound does not.
  hi->vecteur->donnees[1] = 0.0;
  lo->vecteur->donnees[4] = 0.0;
  set(t.get(), vec6(1, -1, 0.5, 0.2, -0.9, 1));
  TORS_saturer_homogene(t.get(), hi.get(), lo.get(), &sat);
  EXPECT_EQ(to_eigen6(t.get()), vec6(1, 0, 0.5, 0.2, -0.9, 1));

  set(hi.get(), vec6(1, 1, 1, 1, 1, 1));
  set(lo.get(), vec6(-1, -1, -1, 2, 2, 2)); // crossing bounds: min wins
  set(t.get(), vec6(5, -5, 0.5, 5, -5, 1.5));
  EXPECT_EQ(TORS_saturer(t.get(), hi.get(), lo.get()), t.get());
  EXPECT_EQ(to_eigen6(t.get()), vec6(1, -1, 0.5, 2, 2, 2));
}

TEST(Tors, ExponentialIsAScrewMotion) {
  ExpWork w;
  Tors t = tors();
  Depl d = depl();
  // No rotation: a pure translation theta v.
  set(t.get(), vec6(1, -2, 0.5, 0, 0, 5e-8));
  TORS_exponentiel(t.get(), d.get(), w.s.get(), w.wp.data(), w.vp, w.id.get(), w.r.get(), 2.0);
  EXPECT_EQ(to_eigen3(d->trans), Eigen::Vector3d(2, -4, 1));
  EXPECT_EQ(to_eigen(d->rot).coeffs(), Eigen::Vector4d(0, 0, 0, 1));

  // Unit angular part: the matrix exponential of the 4 x 4 twist matrix.
  Random rnd(22);
  for (int n = 0; n < 100; ++n) {
    const Eigen::Vector3d om = rnd.vector().normalized(), v = rnd.vector(2);
    const double theta = rnd.uniform(-3, 3);
    set(t.get(), (Vec6() << v, om).finished());
    TORS_exponentiel(t.get(), d.get(), w.s.get(), w.wp.data(), w.vp, w.id.get(), w.r.get(), theta);
    Eigen::Matrix4d xi = Eigen::Matrix4d::Zero();
    xi.topLeftCorner<3, 3>() << 0, -om.z(), om.y(), om.z(), 0, -om.x(), -om.y(), om.x(), 0;
    xi.topRightCorner<3, 1>() = v;
    const Eigen::Matrix4d expected = (xi * theta).exp();
    // The angle passes through single precision.
    const double tol = 1e-6 * (1 + v.norm());
    EXPECT_LT((to_eigen3(d->trans) - expected.topRightCorner<3, 1>()).norm(), tol);
    EXPECT_LT((to_eigen(d->rot).toRotationMatrix() - expected.topLeftCorner<3, 3>()).norm(), 1e-6);
  }
}

TEST(Tors, DerivativeOfAMovingDisplacement) {
  const double tech = 1.0 / 1024;
  Matd fc = matd(6, 1);
  MATD_remplir_avec_scalaire(fc.get(), 100.0);
  TSIG_FILTRE *filter = TSIG_creer_filtre_1er_ordre(fc.get(), tech);
  ASSERT_NE(filter, nullptr);
  Depl d = depl(), prev = depl(), work = depl();
  Matd in = matd(6, 1), out = matd(6, 1), A = matd(6, 6), S = matd(3, 3), R = matd(3, 3),
       P = matd(3, 3);
  Tors t = tors(), body = tors(), r = tors();
  // Spinning about z at 2 rad/s at a fixed point p, while also translating at v.
  const Eigen::Vector3d p0(0.3, -0.2, 0.1), v(0.05, 0.1, -0.2);
  const double rate = 2.0;
  for (int k = 0; k < 2000; ++k) {
    const Eigen::Vector3d p = p0 + v * (k * tech);
    DEPL_remplir_trans_vrot(d.get(), p.x(), p.y(), p.z(), 0, 0, 1, rate * k * tech);
    if (k > 0)
      TORS_deriver_deplacement(d.get(), prev.get(), work.get(), in.get(), out.get(), filter,
                               t.get(), body.get(), r.get(), A.get(), S.get(), R.get(), P.get());
    double flat[7];
    DEPL_vider_7_double(d.get(), flat);
    DEPL_remplir_7_double(prev.get(), flat);
  }
  // The rotational half is the quaternion-delta rate, half the angular rate;
  // the linear half is the velocity of the origin plus p x that half.
  const Eigen::Vector3d half_rate(0, 0, std::sin(rate * tech / 2) / tech);
  EXPECT_LT((to_eigen3(r->vrot) - half_rate).norm(), 1e-6);
  const Eigen::Vector3d p = to_eigen3(d->trans);
  EXPECT_LT((to_eigen3(r->vtrans) - (v + p.cross(half_rate))).norm(), 1e-6);
  TSIG_filtre_detruire(filter);
}

TEST(Tors, SpatialSpringWrench) {
  SpringWork w;
  Depl d = depl();
  Tors f = tors();
  Matd K = matd(6, 6);
  // Identity pose with symmetric blocks: no wrench.
  Eigen::MatrixXd k = Eigen::MatrixXd::Zero(6, 6);
  k.topLeftCorner(3, 3) << 3, 1, 0, 1, 4, 0.5, 0, 0.5, 2;
  k.bottomRightCorner(3, 3) << 10, 2, 1, 2, 20, 0, 1, 0, 30;
  k.topRightCorner(3, 3) << 1, 2, 3, 2, 5, 6, 3, 6, 9;
  from_eigen(k, K.get());
  w.run(K.get(), d.get(), f.get());
  EXPECT_EQ(to_eigen6(f.get()), Vec6::Zero());

  // A non-symmetric coupling block leaves the force vect(-as(2 Got)).
  k.topRightCorner(3, 3) << 0, 1, 0, 0, 0, 0, 0, 0, 0;
  from_eigen(k, K.get());
  w.run(K.get(), d.get(), f.get());
  const Eigen::Matrix3d kot = k.topRightCorner(3, 3);
  const Eigen::Matrix3d got = 0.5 * kot.trace() * Eigen::Matrix3d::Identity() - kot;
  const Eigen::Matrix3d m = -0.5 * ((2 * got).transpose() - 2 * got);
  EXPECT_LT((to_eigen3(f->vrot) - Eigen::Vector3d(m(2, 1), m(0, 2), m(1, 0))).norm(), 1e-15);
  EXPECT_EQ(to_eigen3(f->vtrans), Eigen::Vector3d::Zero());

  // Isotropic spring: a small translation gives force k t and no moment, a
  // small rotation a moment k angle axis and no force.
  k = Eigen::MatrixXd::Zero(6, 6);
  k.topLeftCorner(3, 3) = 5 * Eigen::Matrix3d::Identity();
  k.bottomRightCorner(3, 3) = 100 * Eigen::Matrix3d::Identity();
  from_eigen(k, K.get());
  DEPL_remplir_trans(d.get(), 1e-3, -2e-3, 5e-4);
  w.run(K.get(), d.get(), f.get());
  EXPECT_LT((to_eigen3(f->vrot) - 100 * Eigen::Vector3d(1e-3, -2e-3, 5e-4)).norm(), 1e-9);
  EXPECT_LT(to_eigen3(f->vtrans).norm(), 1e-9);
  DEPL_remplir_trans_vrot(d.get(), 0, 0, 0, 1, 2, 2, 1e-3);
  w.run(K.get(), d.get(), f.get());
  EXPECT_LT((to_eigen3(f->vtrans) - 5e-3 * Eigen::Vector3d(1, 2, 2) / 3).norm(), 1e-9);
  EXPECT_LT(to_eigen3(f->vrot).norm(), 1e-12);
}
