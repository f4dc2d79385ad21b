// 3-vectors and dense matrices: the conventions other modules rely on
// (row-major storage, diagonal operands as columns, the 1e-12 tolerance, the
// reversed skew part, the derivative scheme) and products against Eigen.
#include <cmath>

#include "math_test_util.h"

using namespace kalo_test;

TEST(Vect3, SaturateNormLeavesZeroAndBoundaryAndRescalesAbove) {
  double zero[3] = {0, 0, 0};
  VECT3_saturateNorm(zero, 0.0);
  EXPECT_EQ(zero[0], 0.0);
  EXPECT_FALSE(std::isnan(zero[0]));

  double exact[3] = {3, 4, 0}; // norm 5
  VECT3_saturateNorm(exact, 5.0);
  EXPECT_EQ(exact[0], 3.0);
  EXPECT_EQ(exact[1], 4.0);

  double above[3] = {3, 4, 0};
  VECT3_saturateNorm(above, 2.5);
  EXPECT_DOUBLE_EQ(above[0], 1.5);
  EXPECT_DOUBLE_EQ(above[1], 2.0);
  EXPECT_DOUBLE_EQ(VECT3_norme(above), 2.5);
}

TEST(Vect3, CrossProductMatrixAndProductsAgreeWithEigen) {
  Random rnd;
  for (int n = 0; n < 50; ++n) {
    const Eigen::Vector3d a = rnd.vector(3), b = rnd.vector(3);
    double r[3];
    VECT3_produit_vectoriel(a.data(), b.data(), r);
    EXPECT_LT((to_eigen3(r) - a.cross(b)).norm(), 1e-12);
    EXPECT_NEAR(VECT3_produit_scalaire(a.data(), b.data()), a.dot(b), 1e-12);

    // The skew matrix applied to b is a x b; its vector is a again.
    Matd s = matd(3, 3);
    VECT3_matrice_antisymetrique(a.data(), s.get());
    double sb[3], back[3];
    VECT3_mult_par_matrice(s.get(), b.data(), sb);
    EXPECT_LT((to_eigen3(sb) - a.cross(b)).norm(), 1e-12);
    VECT3_vecteur_extrait_antisymetrique(s.get(), back);
    EXPECT_EQ(to_eigen3(back), a);

    // Matrix products use the block's own row stride (a 4-wide record here).
    Matd m = matd(4, 4);
    Eigen::Matrix3d e = Eigen::Matrix3d::Random();
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j)
        m->donnees[i * 4 + j] = e(i, j);
    double mv[3], mtv[3];
    VECT3_mult_par_matrice(m.get(), b.data(), mv);
    VECT3_mult_par_matrice_tr(m.get(), b.data(), mtv);
    EXPECT_LT((to_eigen3(mv) - e * b).norm(), 1e-12);
    EXPECT_LT((to_eigen3(mtv) - e.transpose() * b).norm(), 1e-12);

    // Outer product: M = b a^T.
    VECT3_tr_mult_par_vecteur(a.data(), b.data(), s.get());
    EXPECT_LT((to_eigen(s.get()) - b * a.transpose()).norm(), 1e-12);
  }
}

TEST(Vect3, FloatBoundaryNarrowsAndKinematicPairHoldsBothVectors) {
  double v[3];
  const float in[3] = {0.1f, -2.5f, 3.0f};
  VECT3_remplir_float(v, in);
  EXPECT_EQ(v[0], static_cast<double>(0.1f));
  float out[3];
  const double d[3] = {0.1, 1e40, -1.0};
  VECT3_vider_float(d, out);
  EXPECT_EQ(out[0], 0.1f);
  EXPECT_TRUE(std::isinf(out[1]));

  VECT3_PAIRE_CINEMATIQUE *p = VECT3_creer_paire_cinematique();
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->reserve, nullptr);
  const double axe[3] = {0, 0, 1}, pos[3] = {1, 2, 3};
  VECT3_remplir_paire_cinematique_par_axe_rot(p, axe);
  VECT3_remplir_paire_cinematique_par_position(p, pos);
  double a2[3], p2[3];
  VECT3_vider_paire_cinematique_de_axe_rot(p, a2);
  VECT3_vider_paire_cinematique_de_position(p, p2);
  EXPECT_EQ(a2[2], 1.0);
  EXPECT_EQ(p2[1], 2.0);
  VECT3_detruire_paire_cinematique(p);
}

TEST(Matd, LayoutIsRowMajorAndCreationHandlesEmpty) {
  Matd m = matd(2, 3, {1, 2, 3, 4, 5, 6});
  EXPECT_EQ(MATD_lire_element(m.get(), 1, 0), 4.0);
  EXPECT_EQ(MATD_lire_element(m.get(), 0, 2), 3.0);
  EXPECT_EQ(MATD_nb_lignes(m.get()), 2u);
  EXPECT_EQ(MATD_nb_colonnes(m.get()), 3u);

  Matd empty = matd(0, 5);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(MATD_trace(empty.get()), 0.0);
  EXPECT_EQ(MATD_sont_egales(empty.get(), empty.get()), 1);
  EXPECT_EQ(MATD_est_egale_a_zero(empty.get()), 1);
  Matd id0(MATD_identite(0));
  ASSERT_NE(id0, nullptr);
  MATD_detruire(nullptr);

  Matd col = matd(2, 1);
  MATD_vider_colonne(m.get(), 2, col.get());
  EXPECT_EQ(col->donnees[1], 6.0);
  MATD_remplir_colonne(m.get(), 0, col.get());
  EXPECT_EQ(MATD_lire_element(m.get(), 1, 0), 6.0);
}

TEST(Matd, ComparisonToleranceIsAbsoluteOneEMinus12AndScansEverything) {
  Matd a = matd(1, 3, {0.0, 0.0, 0.0});
  Matd b = matd(1, 3, {0.0, 0.0, 0.0});
  b->donnees[0] = 1e-12;
  EXPECT_EQ(MATD_sont_egales(a.get(), b.get()), 1);
  b->donnees[0] = 1.0000001e-12;
  EXPECT_EQ(MATD_sont_egales(a.get(), b.get()), 0);
  // A difference only in the last element must still be seen.
  b->donnees[0] = 0.0;
  b->donnees[2] = 2e-12;
  EXPECT_EQ(MATD_sont_egales(a.get(), b.get()), 0);
  EXPECT_EQ(MATD_est_egale_a_zero(b.get()), 0);
  b->donnees[2] = -1e-12;
  EXPECT_EQ(MATD_est_egale_a_zero(b.get()), 1);
  b->donnees[1] = NAN;
  EXPECT_EQ(MATD_est_egale_a_zero(b.get()), 0);
}

TEST(Matd, NormaliseColumnsLeavesZeroColumnAlone) {
  Matd a = matd(2, 3, {3, 0, 1e-13, 4, 0, 0});
  MATD_normer_colonne(a.get());
  EXPECT_DOUBLE_EQ(a->donnees[0], 0.6);
  EXPECT_DOUBLE_EQ(a->donnees[3], 0.8);
  EXPECT_EQ(a->donnees[1], 0.0);
  EXPECT_FALSE(std::isnan(a->donnees[4]));
  EXPECT_EQ(a->donnees[2], 1e-13); // norm not above the threshold
}

TEST(Matd, SkewPartHasTheReversedSignAndSymmetricPartIsPlain) {
  const double v[3] = {1.5, -2.0, 0.25};
  Matd s = matd(3, 3), r = matd(3, 3), expected = matd(3, 3);
  VECT3_matrice_antisymetrique(v, s.get());
  MATD_antisymetrique_extraite_mat_carre(s.get(), r.get());
  const double minus_v[3] = {-1.5, 2.0, -0.25};
  VECT3_matrice_antisymetrique(minus_v, expected.get());
  EXPECT_EQ(MATD_sont_egales(r.get(), expected.get()), 1);
  double back[3];
  VECT3_vecteur_extrait_antisymetrique(r.get(), back);
  EXPECT_EQ(back[0], -1.5);
  EXPECT_EQ(back[2], -0.25);

  Matd a = matd(2, 2, {1, 2, 4, 3}), sym = matd(2, 2);
  MATD_symetrique_extraite_mat_carre(a.get(), sym.get());
  EXPECT_EQ(sym->donnees[1], 3.0);
  EXPECT_EQ(sym->donnees[2], 3.0);
}

TEST(Matd, DerivativesUseCentralDifferencesInsideAndOneSidedAtEnds) {
  Matd row = matd(1, 3, {0, 1, 4}), d = matd(1, 3);
  MATD_deriver_par_lignes(row.get(), d.get(), 1.0);
  EXPECT_EQ(d->donnees[0], 1.0);
  EXPECT_EQ(d->donnees[1], 2.0);
  EXPECT_EQ(d->donnees[2], 3.0);

  // Two signals sampled along the rows, dt = 0.5.
  Matd cols = matd(4, 2, {0, 0, 1, 2, 4, 4, 9, 6}), dc = matd(4, 2);
  MATD_deriver_par_colonnes(cols.get(), dc.get(), 0.5);
  const double expected[8] = {2, 4, 4, 4, 8, 4, 10, 4};
  for (int k = 0; k < 8; ++k)
    EXPECT_EQ(dc->donnees[k], expected[k]) << k;
}

TEST(Matd, ExtractTraceDiagAndScalarProducts) {
  Matd a = matd(3, 4, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
  Matd blk = matd(2, 2);
  MATD_extraire(a.get(), 1, 2, 2, 3, blk.get());
  EXPECT_EQ(blk->donnees[0], 7.0);
  EXPECT_EQ(blk->donnees[3], 12.0);
  // An empty range copies nothing.
  MATD_remplir_avec_scalaire(blk.get(), -1.0);
  MATD_extraire(a.get(), 2, 1, 0, 1, blk.get());
  EXPECT_EQ(blk->donnees[0], -1.0);

  Matd d = matd(3, 1);
  MATD_diag(a.get(), d.get());
  EXPECT_EQ(d->donnees[2], 11.0);
  EXPECT_EQ(MATD_trace(a.get()), 1.0 + 6.0 + 11.0);
  EXPECT_EQ(MATD_produit_scal_colonnes(a.get(), 0, 3), 1 * 4 + 5 * 8 + 9 * 12);
  EXPECT_EQ(MATD_produit_scal_lignes(a.get(), 0, 2), 1 * 9 + 2 * 10 + 3 * 11 + 4 * 12);

  Matd t = matd(4, 3);
  MATD_transpose(a.get(), t.get());
  EXPECT_EQ(to_eigen(t.get()), to_eigen(a.get()).transpose());
}

TEST(Matd, ProductsAgreeWithEigenForEveryTransposition) {
  Random rnd(7);
  for (int n = 0; n < 20; ++n) {
    const int p = 1 + n % 5, q = 2 + n % 4, r = 1 + n % 3;
    Eigen::MatrixXd ea = Eigen::MatrixXd::Random(p, q), eb = Eigen::MatrixXd::Random(q, r);
    Eigen::MatrixXd ebt = eb.transpose(), eat = ea.transpose();
    Matd a = matd(p, q), b = matd(q, r), bt = matd(r, q), at = matd(q, p);
    from_eigen(ea, a.get());
    from_eigen(eb, b.get());
    from_eigen(ebt, bt.get());
    from_eigen(eat, at.get());
    Matd out = matd(p, r);
    MATD_remplir_avec_scalaire(out.get(), 99.0); // results are reset, not accumulated
    MATD_mult(a.get(), b.get(), out.get());
    EXPECT_LT((to_eigen(out.get()) - ea * eb).norm(), 1e-12);
    MATD_mult_tr(a.get(), bt.get(), out.get());
    EXPECT_LT((to_eigen(out.get()) - ea * eb).norm(), 1e-12);
    MATD_tr_mult(at.get(), b.get(), out.get());
    EXPECT_LT((to_eigen(out.get()) - ea * eb).norm(), 1e-12);
    MATD_tr_mult_tr(at.get(), bt.get(), out.get());
    EXPECT_LT((to_eigen(out.get()) - ea * eb).norm(), 1e-12);

    Eigen::VectorXd x = Eigen::VectorXd::Random(q), y(p);
    MATD_mult_matrice_par_vecteur(a.get(), x.data(), y.data());
    EXPECT_LT((y - ea * x).norm(), 1e-12);
  }
}

TEST(Matd, DiagonalOperandsAreColumns) {
  Matd d = matd(3, 1, {2, 4, 8});
  Matd b = matd(3, 3, {1, 2, 3, 4, 5, 6, 7, 8, 9});
  const Eigen::MatrixXd D = Eigen::Vector3d(2, 4, 8).asDiagonal();
  const Eigen::MatrixXd B = to_eigen(b.get());
  Matd r = matd(3, 3);
  MATD_dg_mult(d.get(), b.get(), r.get());
  EXPECT_EQ(to_eigen(r.get()), D * B);
  MATD_dg_inv_mult(d.get(), b.get(), r.get());
  EXPECT_LT((to_eigen(r.get()) - D.inverse() * B).norm(), 1e-15);
  MATD_dg_mult_tr(d.get(), b.get(), r.get());
  EXPECT_EQ(to_eigen(r.get()), D * B.transpose());
  MATD_mult_dg(b.get(), d.get(), r.get());
  EXPECT_EQ(to_eigen(r.get()), B * D);
  MATD_tr_mult_dg(b.get(), d.get(), r.get());
  EXPECT_EQ(to_eigen(r.get()), B.transpose() * D);

  Matd inv = matd(3, 1), sq = matd(3, 1);
  MATD_dg_inv(d.get(), inv.get());
  EXPECT_EQ(inv->donnees[2], 0.125);
  MATD_dg_mult_dg(d.get(), d.get(), sq.get());
  EXPECT_EQ(sq->donnees[1], 16.0);
  Matd z = matd(1, 1, {0.0}), zi = matd(1, 1);
  MATD_dg_inv(z.get(), zi.get());
  EXPECT_TRUE(std::isinf(zi->donnees[0]));

  // dg_plus writes only the diagonal of a result distinct from B.
  MATD_remplir_avec_scalaire(r.get(), -7.0);
  MATD_dg_plus(d.get(), b.get(), r.get());
  EXPECT_EQ(r->donnees[0], 3.0);
  EXPECT_EQ(r->donnees[4], 9.0);
  EXPECT_EQ(r->donnees[1], -7.0);
  EXPECT_EQ(r->donnees[3], -7.0);

  MATD_ra_identite(r.get());
  MATD_remplir_dg(r.get(), d.get());
  EXPECT_EQ(r->donnees[8], 8.0);
  EXPECT_EQ(r->donnees[1], 0.0);
  Matd back = matd(3, 1);
  MATD_vider_dg(b.get(), back.get());
  EXPECT_EQ(back->donnees[2], 9.0);
}

TEST(Matd, FillEmptyAndElementWiseOperations) {
  Matd a = matd(2, 2), b = matd(2, 2);
  const double t[4] = {1, 2, 3, 4};
  MATD_remplir(a.get(), t);
  const float f[4] = {0.5f, 0.25f, 1e-3f, 8.0f};
  MATD_remplir_float(b.get(), f);
  EXPECT_EQ(b->donnees[2], static_cast<double>(1e-3f));
  double out[4];
  EXPECT_EQ(MATD_vider(a.get(), out), out);
  EXPECT_EQ(out[3], 4.0);
  float fo[4];
  MATD_vider_float(b.get(), fo);
  EXPECT_EQ(fo[2], 1e-3f);
  MATD_plus(a.get(), b.get(), a.get()); // in place
  EXPECT_EQ(a->donnees[0], 1.5);
  MATD_moins(a.get(), b.get(), b.get());
  EXPECT_EQ(b->donnees[0], 1.0);
  MATD_mult_par_scalaire(a.get(), a.get(), -2.0);
  EXPECT_EQ(a->donnees[1], -4.5);
  Matd c = matd(2, 2);
  MATD_copier(c.get(), a.get());
  EXPECT_EQ(MATD_sont_egales(c.get(), a.get()), 1);
  MATD_ra_identite(c.get());
  EXPECT_EQ(to_eigen(c.get()), Eigen::Matrix2d::Identity());
}

TEST(Matd, PrintingIsByteExact) {
  Matd id(MATD_identite(2));
  ::testing::internal::CaptureStdout();
  MATD_afficher(id.get());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "1.000\t0.000\t\n0.000\t1.000\t\n");

  Matd a = matd(2, 3, {1, 2, 3, 4, 5, 6.0006});
  ::testing::internal::CaptureStdout();
  MATD_afficher_tr(a.get());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "1.000\t4.000\t\n2.000\t5.000\t\n3.000\t6.001\t\n");

  const double v[3] = {1, -0.5, 2};
  ::testing::internal::CaptureStdout();
  VECT3_afficher(v);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "1.000000 -0.500000 2.000000\n");
}

TEST(Mati, IntegerMatricesCopyFillAndEmpty) {
  MATI *a = MATI_creer(2, 3);
  MATI *b = MATI_creer(2, 3);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(a->donnees[5], 0);
  const int32_t t[6] = {1, -2, 3, INT32_MAX, INT32_MIN, 6};
  EXPECT_EQ(MATI_remplir(a, t), a);
  EXPECT_EQ(MATI_copier(b, a), b);
  int32_t out[6];
  MATI_vider(b, out);
  EXPECT_EQ(out[3], INT32_MAX);
  EXPECT_EQ(out[4], INT32_MIN);
  EXPECT_EQ(MATI_nb_lignes(a), 2u);
  EXPECT_EQ(MATI_nb_colonnes(a), 3u);
  MATI_detruire(a);
  MATI_detruire(b);
  MATI_detruire(nullptr);
}
