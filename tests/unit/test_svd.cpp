// Singular value decomposition: reconstruction, orthonormal factors and
// singular values against Eigen on random full-rank and rank-deficient
// matrices, the sign rule for negative values, the failure report, and the
// record's ownership of its input.
#include <gtest/gtest.h>

#include <Eigen/Dense>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "kalo/kalo_math.h"
#include "solver_support.h"

using namespace solver_test;

namespace {

struct Svd {
  int32_t status;
  Eigen::MatrixXd u, v;
  Eigen::VectorXd w;
};

Svd svd(const Eigen::MatrixXd &a) {
  const auto n = static_cast<uint64_t>(a.cols());
  Matd A = make(a), W = make(n, 1), V = make(n, n), work = make(n, 1);
  const int32_t status = MATD_svdcmp(A.get(), W.get(), V.get(), work.get());
  return {status, eigen(A.get()), eigen(V.get()), eigen(W.get())};
}

Eigen::VectorXd sorted_descending(Eigen::VectorXd x) {
  std::sort(x.data(), x.data() + x.size(), [](double p, double q) { return p > q; });
  return x;
}

} // namespace

TEST(Svd, DecomposesRandomMatricesLikeEigen) {
  std::mt19937_64 rng(424242);
  for (int trial = 0; trial < 400; ++trial) {
    const Eigen::Index m = 1 + trial % 12;
    const Eigen::Index n = 1 + (trial / 12) % 8;
    const Eigen::Index full = std::min(m, n);
    const bool reduce = full > 1 && trial % 3 == 0;
    const Eigen::Index rank = reduce ? 1 + trial % (full - 1) : full;
    const Eigen::MatrixXd a = random_of_rank(rng, m, n, rank);
    SCOPED_TRACE(testing::Message() << m << " x " << n << " rank " << rank);

    const Svd s = svd(a);
    ASSERT_EQ(s.status, 1);
    EXPECT_TRUE((s.w.array() >= 0.0).all());
    EXPECT_LT(relative_error(s.u * s.w.asDiagonal() * s.v.transpose(), a), 1e-10);
    const Eigen::MatrixXd In = Eigen::MatrixXd::Identity(n, n);
    EXPECT_LT((s.v.transpose() * s.v - In).norm(), 1e-12);
    if (m >= n) {
      EXPECT_LT((s.u.transpose() * s.u - In).norm(), 1e-12);
    } else {
      // A wide A has at most m non-zero values; U's other columns are null
      // and the rest are orthonormal.
      const Eigen::MatrixXd utu = s.u.transpose() * s.u;
      int unit = 0;
      for (Eigen::Index j = 0; j < n; ++j)
        if (utu(j, j) > 0.5)
          ++unit;
        else
          EXPECT_LT(s.w(j), 1e-12);
      EXPECT_EQ(unit, m);
      EXPECT_LT((utu * utu - utu).norm(), 1e-12); // a projector: orthonormal columns or zero
    }
    const Eigen::VectorXd ours = sorted_descending(s.w);
    const Eigen::VectorXd theirs = Eigen::JacobiSVD<Eigen::MatrixXd>(a).singularValues();
    EXPECT_LT((ours.head(full) - theirs).norm(), 1e-13 * theirs(0));
    EXPECT_LT(ours.tail(n - full).norm(), 1e-13 * theirs(0));
  }
}

TEST(Svd, NegativeValuesComeOutPositiveWithASignFlip) {
  Eigen::MatrixXd a(3, 3);
  a << 3, 0, 0, 0, -2, 0, 0, 0, 0.5;
  const Svd s = svd(a);
  ASSERT_EQ(s.status, 1);
  // Each value in its own position, as its absolute value; the sign of the
  // entry is carried by U(k, k) V(k, k).
  for (int k = 0; k < 3; ++k) {
    EXPECT_DOUBLE_EQ(s.w(k), std::fabs(a(k, k))) << k;
    EXPECT_DOUBLE_EQ(s.u(k, k) * s.v(k, k), a(k, k) > 0 ? 1.0 : -1.0) << k;
    EXPECT_DOUBLE_EQ(std::fabs(s.v(k, k)), 1.0) << k;
  }
  EXPECT_LT(relative_error(s.u * s.w.asDiagonal() * s.v.transpose(), a), 1e-15);
}

TEST(Svd, NoColumnsReturnsAtOnce) {
  Matd A = make(3, 0), W = make(1, 1), V = make(1, 1), work = make(1, 1);
  W->donnees[0] = V->donnees[0] = work->donnees[0] = 7.0;
  EXPECT_EQ(MATD_svdcmp(A.get(), W.get(), V.get(), work.get()), 1);
  EXPECT_EQ(W->donnees[0], 7.0);
  EXPECT_EQ(V->donnees[0], 7.0);
  EXPECT_EQ(work->donnees[0], 7.0);
}

TEST(Svd, ReportsNonConvergence) {
  // NaN never lets a superdiagonal element become negligible.
  Eigen::MatrixXd a = Eigen::MatrixXd::Ones(3, 3);
  a(1, 2) = std::numeric_limits<double>::quiet_NaN();
  testing::internal::CaptureStderr();
  const Svd s = svd(a);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(s.status, 0);
  EXPECT_EQ(err, "No convergence in 30 SVDCMP iterations\n");

  // An infinite entry ends too, one way or the other, without touching
  // memory outside the matrices (checked by the sanitizer builds).
  a(1, 2) = std::numeric_limits<double>::infinity();
  testing::internal::CaptureStderr();
  const Svd t = svd(a);
  testing::internal::GetCapturedStderr();
  EXPECT_TRUE(t.status == 0 || t.status == 1);
}

TEST(Svd, RecordIsSizedForItsInputAndOwnsIt) {
  MATD *a = MATD_creer(5, 3);
  MATD_SVD *s = MATD_svd_init(a);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->entree, a);
  EXPECT_EQ(s->u->nb_lignes, 5u);
  EXPECT_EQ(s->u->nb_colonnes, 3u);
  EXPECT_EQ(s->u_travail->nb_lignes, 5u);
  EXPECT_EQ(s->u_travail->nb_colonnes, 3u);
  EXPECT_EQ(eigen(s->identite_m), Eigen::MatrixXd::Identity(5, 5));
  EXPECT_EQ(eigen(s->identite_n), Eigen::MatrixXd::Identity(3, 3));
  const MATD_SVD_DESCRIPTEUR dm = *s->descripteur_m, dn = *s->descripteur_n;
  EXPECT_EQ(dm.dimension, 5u);
  EXPECT_EQ(dn.dimension, 3u);
  for (const auto &d : {dm, dn}) {
    EXPECT_EQ(d.decalage, 0u);
    EXPECT_EQ(d.pas, 1u);
    EXPECT_EQ(d.echelle, 1.0);
    EXPECT_EQ(d.reserve, 0u);
  }
  // Releases a as well: a leak or a double free here shows in the sanitizer
  // builds.
  MATD_svd_detruire(s);
  MATD_svd_detruire(nullptr);
}

TEST(Svd, AllocatesNothing) {
  KALO_REQUIRE_ALLOC_COUNTING();
  std::mt19937_64 rng(11);
  const Eigen::MatrixXd a = random(rng, 12, 8);
  Matd A = make(12, 8), W = make(8, 1), V = make(8, 8), work = make(8, 1);
  kalo_test::AllocCounter counter;
  for (int i = 0; i < 100; ++i) {
    std::copy(a.data(), a.data() + a.size(), A->donnees);
    MATD_svdcmp(A.get(), W.get(), V.get(), work.get());
  }
  EXPECT_EQ(counter.count(), 0u);
}
