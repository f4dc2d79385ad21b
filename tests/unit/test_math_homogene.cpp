// Matrix-only rigid-body forms: homogeneous transforms with their fixed
// strides, twist and wrench columns (rotation first), the Rodrigues and twist
// exponentials and the spring wrench column, against Eigen and against the
// record forms.
#include <cmath>

#include <unsupported/Eigen/MatrixFunctions>

#include "math_test_util.h"

using namespace kalo_test;

namespace {
Eigen::Matrix3d skew(const Eigen::Vector3d &v) {
  Eigen::Matrix3d s;
  s << 0, -v.z(), v.y(), v.z(), 0, -v.x(), -v.y(), v.x(), 0;
  return s;
}

Matd homogeneous(const Eigen::Isometry3d &e) {
  Matd h = matd(4, 4);
  from_eigen(e.matrix(), h.get());
  return h;
}

// Work records of MATD_exponentiel_twist.
struct TwistExpWork {
  std::vector<Matd> w, x;
  std::vector<MATD *> wp, xp;
  Matd t = matd(1, 3), id = Matd(MATD_identite(3)), v = matd(3, 1), om = matd(3, 1), s = matd(3, 3),
       p = matd(3, 1), r = matd(3, 3);
  TwistExpWork() {
    for (int i = 0; i < 8; ++i) {
      w.push_back(i == 1 ? matd(1, 1) : matd(3, 3));
      wp.push_back(w.back().get());
    }
    for (int i = 0; i < 4; ++i) {
      x.push_back(matd(3, 1));
      xp.push_back(x.back().get());
    }
  }
  void run(const MATD *xi, MATD *h, float theta) {
    MATD_exponentiel_twist(xi, h, wp.data(), xp.data(), t.get(), id.get(), v.get(), om.get(),
                           s.get(), p.get(), r.get(), theta);
  }
};
} // namespace

TEST(Homogene, CreationAndTheUnwrittenElements) {
  Matd h(MATD_creer_homogene());
  EXPECT_EQ(to_eigen(h.get()), Eigen::Matrix4d::Identity());
  MATD *t = MATD_creer_twist();
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->nb_lignes, 6u);
  EXPECT_EQ(to_eigen(t), Eigen::MatrixXd::Zero(6, 1));
  MATD_detruire_twist(t);
  MATD *w = MATD_creer_wrench();
  EXPECT_EQ(to_eigen(w), Eigen::MatrixXd::Zero(6, 1));
  MATD_detruire_wrench(w);
  MATD *tt = MATD_creer_twisttilde();
  ASSERT_NE(tt, nullptr);
  for (int i = 0; i < 15; ++i)
    EXPECT_EQ(tt->donnees[i], 0.0) << i; // (3, 3) is unset and never read
  MATD_detruire_twisttilde(tt);
  MATD_detruire_homogene(h.release());

  // The skew fill leaves the diagonal's last two elements as they were.
  Matd s = matd(3, 3);
  MATD_remplir_avec_scalaire(s.get(), 1.0);
  Matd v = matd(3, 1, {1, 2, 3});
  MATD_antisymetrique_3(v.get(), s.get());
  Eigen::Matrix3d expected = skew({1, 2, 3});
  expected(1, 1) = expected(2, 2) = 1.0;
  EXPECT_EQ(to_eigen(s.get()), Eigen::MatrixXd(expected));
  Matd back = matd(3, 1);
  MATD_vecteur_extrait_antisymetrique_3(s.get(), back.get());
  EXPECT_EQ(to_eigen(back.get()), to_eigen(v.get()));
}

TEST(Homogene, ColumnsPutRotationFirst) {
  Matd x(MATD_creer_twist());
  Matd a = matd(3, 1, {1, 2, 3}), b = matd(3, 1, {4, 5, 6}), out = matd(3, 1);
  MATD_remplir_twist_par_vtrans(x.get(), a.get());
  MATD_remplir_twist_par_vrot(x.get(), b.get());
  EXPECT_EQ(to_eigen(x.get()), (Eigen::MatrixXd(6, 1) << 4, 5, 6, 1, 2, 3).finished());
  MATD_vider_twist_vtrans(x.get(), out.get());
  EXPECT_EQ(out->donnees[0], 1.0);
  MATD_vider_twist_vrot(x.get(), out.get());
  EXPECT_EQ(out->donnees[0], 4.0);
  MATD_remplir_wrench_par_force(x.get(), b.get());
  MATD_remplir_wrench_par_moment(x.get(), a.get());
  EXPECT_EQ(to_eigen(x.get()), (Eigen::MatrixXd(6, 1) << 1, 2, 3, 4, 5, 6).finished());
  MATD_vider_wrench_force(x.get(), out.get());
  EXPECT_EQ(out->donnees[2], 6.0);
  MATD_vider_wrench_moment(x.get(), out.get());
  EXPECT_EQ(out->donnees[2], 3.0);

  // Twist matrix: skew block and linear part, row 3 untouched.
  Matd tt = matd(4, 4), s = matd(3, 3), s2 = matd(3, 3);
  MATD_antisymetrique_3(a.get(), s.get());
  MATD_remplir_twisttilde_par_vrottilde(tt.get(), s.get());
  MATD_remplir_twisttilde_par_vtrans(tt.get(), b.get());
  Eigen::Matrix4d e = Eigen::Matrix4d::Zero();
  e.topLeftCorner<3, 3>() = skew({1, 2, 3});
  e.topRightCorner<3, 1>() << 4, 5, 6;
  EXPECT_EQ(to_eigen(tt.get()), Eigen::MatrixXd(e));
  MATD_vider_twisttilde_vrottilde(tt.get(), s2.get());
  EXPECT_EQ(to_eigen(s2.get()), to_eigen(s.get()));
  MATD_vider_twisttilde_vtrans(tt.get(), out.get());
  EXPECT_EQ(to_eigen(out.get()), to_eigen(b.get()));
}

TEST(Homogene, ProductsInversesAndChainsAgreeWithEigen) {
  Random rnd(31);
  Depl d = depl();
  Matd r = matd(3, 3), t = matd(3, 1), u = matd(3, 1);
  for (int n = 0; n < 100; ++n) {
    rnd.fill(d.get());
    const Eigen::Isometry3d ea = to_eigen(d.get());
    rnd.fill(d.get());
    const Eigen::Isometry3d eb = to_eigen(d.get());
    Matd a = homogeneous(ea), b = homogeneous(eb), c(MATD_creer_homogene()),
         hi(MATD_creer_homogene());
    MATD_mult_homogene(a.get(), b.get(), c.get());
    EXPECT_LT((to_eigen(c.get()) - (ea * eb).matrix()).norm(), 1e-12);
    MATD_inverse_homogene(a.get(), hi.get(), r.get(), t.get(), u.get());
    EXPECT_LT((to_eigen(hi.get()) - ea.inverse().matrix()).norm(), 1e-12);
  }
  // Row 3 of the result is not written.
  Matd i1(MATD_creer_homogene()), i2(MATD_creer_homogene()), c = matd(4, 4);
  MATD_remplir_avec_scalaire(c.get(), 5.0);
  MATD_mult_homogene(i1.get(), i2.get(), c.get());
  EXPECT_EQ(to_eigen(c.get()).topRows(3), Eigen::MatrixXd::Identity(4, 4).topRows(3));
  EXPECT_EQ(to_eigen(c.get()).row(3), Eigen::RowVector4d::Constant(5.0));

  // Chains: C[i] shares H[i]'s record.
  Matd h0 = homogeneous(Eigen::Isometry3d(Eigen::Translation3d(1, 0, 0))),
       h1 = homogeneous(Eigen::Isometry3d(Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitZ()))),
       h2 = homogeneous(Eigen::Isometry3d(Eigen::Translation3d(0, 2, 0)));
  Matd c1(MATD_creer_homogene()), c2(MATD_creer_homogene());
  MATD *hs[3] = {h0.get(), h1.get(), h2.get()};
  MATD *cs[3] = {nullptr, c1.get(), c2.get()};
  MATD *last = MATD_chainage_homogene(hs, 0, 2, cs);
  EXPECT_EQ(last, c2.get());
  EXPECT_EQ(cs[0], h0.get());
  EXPECT_LT((to_eigen(last).topRightCorner(3, 1) - Eigen::Vector3d(-1, 0, 0)).norm(), 1e-15);
  cs[1] = nullptr;
  EXPECT_EQ(MATD_chainage_homogene(hs, 1, 1, cs), h1.get());
  EXPECT_EQ(cs[1], h1.get());
}

TEST(Homogene, AdjointMatchesTheRecordFormForRotationFirstTwists) {
  Random rnd(32);
  Depl d = depl();
  Matd a = matd(6, 6), a2 = matd(6, 6), s = matd(3, 3), r = matd(3, 3), t = matd(3, 1),
       p = matd(3, 3);
  for (int n = 0; n < 50; ++n) {
    rnd.fill(d.get());
    Matd h = homogeneous(to_eigen(d.get()));
    MATD_remplir_avec_scalaire(a.get(), 0.0);
    MATD_remplir_avec_scalaire(a2.get(), 0.0);
    MATD_homogene_adjointe(h.get(), a.get(), s.get(), r.get(), t.get(), p.get());
    DEPL_adjoint_std(d.get(), a2.get(), s.get(), r.get(), p.get());
    EXPECT_LT((to_eigen(a.get()) - to_eigen(a2.get())).norm(), 1e-12);
  }
  MATD_remplir_avec_scalaire(a.get(), 3.0);
  Matd h(MATD_creer_homogene());
  MATD_homogene_adjointe(h.get(), a.get(), s.get(), r.get(), t.get(), p.get());
  EXPECT_EQ(to_eigen(a.get()).topRightCorner(3, 3), Eigen::MatrixXd::Constant(3, 3, 3.0));
}

TEST(Homogene, RodriguesAgreesWithAngleAxis) {
  Random rnd(33);
  TwistExpWork w;
  Matd s = matd(3, 3), r = matd(3, 3);
  for (int n = 0; n < 200; ++n) {
    const Eigen::Vector3d axis = rnd.vector().normalized();
    const float theta = static_cast<float>(rnd.uniform(-6.3, 6.3));
    from_eigen(skew(axis), s.get());
    MATD_exponentiel_matrice_antisymetrique(s.get(), r.get(), w.wp.data(), w.id.get(), theta);
    // The angle is used exactly as the float it arrived as.
    const Eigen::Matrix3d expected =
        Eigen::AngleAxisd(static_cast<double>(theta), axis).toRotationMatrix();
    EXPECT_LT((to_eigen(r.get()) - expected).norm(), 1e-14);
  }
}

TEST(Homogene, TwistExponentialAgreesWithTheMatrixExponential) {
  TwistExpWork w;
  Matd xi(MATD_creer_twist()), h(MATD_creer_homogene());
  // No rotation: identity and theta v.
  from_eigen((Eigen::MatrixXd(6, 1) << 0, 1e-13, 0, 1, 2, 3).finished(), xi.get());
  w.run(xi.get(), h.get(), 0.5f);
  EXPECT_EQ(to_eigen(h.get()).topLeftCorner(3, 3), Eigen::MatrixXd::Identity(3, 3));
  EXPECT_EQ(to_eigen(h.get()).topRightCorner(3, 1), Eigen::Vector3d(0.5, 1, 1.5));
  // A quarter turn about z.
  from_eigen((Eigen::MatrixXd(6, 1) << 0, 0, 1, 0, 0, 0).finished(), xi.get());
  w.run(xi.get(), h.get(), static_cast<float>(M_PI / 2));
  const Eigen::Matrix3d rz =
      Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitZ()).toRotationMatrix();
  EXPECT_LT((to_eigen(h.get()).topLeftCorner(3, 3) - rz).norm(), 1e-7);

  Random rnd(34);
  Depl d = depl();
  for (int n = 0; n < 100; ++n) {
    const Eigen::Vector3d om = rnd.vector().normalized(), v = rnd.vector(2);
    const float theta = static_cast<float>(rnd.uniform(-3, 3));
    from_eigen((Eigen::MatrixXd(6, 1) << om, v).finished(), xi.get());
    w.run(xi.get(), h.get(), theta);
    Eigen::Matrix4d x = Eigen::Matrix4d::Zero();
    x.topLeftCorner<3, 3>() = skew(om);
    x.topRightCorner<3, 1>() = v;
    const Eigen::Matrix4d expected = (x * static_cast<double>(theta)).exp();
    EXPECT_LT((to_eigen(h.get()).topRows(3) - expected.topRows(3)).norm(), 1e-12);
  }
}

TEST(Homogene, SpringWrenchColumnMatchesTheRecordFormExceptTheMomentRow) {
  std::vector<Matd> m;
  for (int i = 0; i < 40; ++i)
    m.push_back(matd(3, 3));
  MATD *W[7];
  for (int i = 0; i < 7; ++i)
    W[i] = m[i].get();
  auto x = [&](int i) { return m[7 + i].get(); };
  Matd id(MATD_identite(3)), tv = matd(3, 1), fv = matd(3, 1), w(MATD_creer_wrench()),
                             K = matd(6, 6);
  auto run = [&](const MATD *h) {
    MATD_calculer_wrench(K.get(), h, w.get(), W, nullptr, id.get(), x(0), x(1), tv.get(), x(2),
                         x(3), x(4), x(5), x(6), x(7), x(8), x(9), nullptr, fv.get(), x(10));
  };
  // Identity pose, diagonal stiffness: nothing.
  Eigen::MatrixXd k = Eigen::VectorXd::LinSpaced(6, 1, 6).asDiagonal();
  from_eigen(k, K.get());
  Matd h(MATD_creer_homogene());
  run(h.get());
  EXPECT_EQ(to_eigen(w.get()), Eigen::MatrixXd::Zero(6, 1));

  // A general pose: the force equals the record form's, the moment elements
  // are row 0 of the moment matrix (x(10)).
  Random rnd(35);
  Depl d = depl();
  Tors f = tors();
  double e1[3], e2[3];
  for (int n = 0; n < 20; ++n) {
    rnd.fill(d.get(), 0.5);
    k = Eigen::MatrixXd::Random(6, 6);
    k = (k * k.transpose()).eval();
    from_eigen(k, K.get());
    Matd hd = homogeneous(to_eigen(d.get()));
    run(hd.get());
    TORS_calculer_effort(K.get(), d.get(), f.get(), W, nullptr, id.get(), x(11), x(12), x(13),
                         x(14), x(15), x(16), x(17), x(18), x(19), x(20), x(21), e1, e2);
    const Eigen::MatrixXd col = to_eigen(w.get());
    EXPECT_LT((col.bottomRows(3) - to_eigen3(f->vrot)).norm(), 1e-12);
    const Eigen::MatrixXd moment_matrix = to_eigen(x(10));
    EXPECT_EQ(col.topRows(3), moment_matrix.row(0).transpose());
    // The record form extracts the vector of the same matrix instead.
    EXPECT_LT((to_eigen3(f->vtrans) -
               Eigen::Vector3d(moment_matrix(2, 1), moment_matrix(0, 2), moment_matrix(1, 0)))
                  .norm(),
              1e-12);
  }
}

TEST(Homogene, ElementWiseSineAndCosine) {
  Matd a = matd(2, 2, {0, M_PI / 2, M_PI, -1}), r = matd(2, 2);
  MATD_sin(a.get(), r.get());
  EXPECT_EQ(r->donnees[1], 1.0);
  EXPECT_EQ(r->donnees[3], std::sin(-1.0));
  MATD_cos(a.get(), r.get());
  EXPECT_EQ(r->donnees[0], 1.0);
  EXPECT_EQ(r->donnees[2], -1.0);
}
