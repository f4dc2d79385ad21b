// Pseudo-inverse by column recursion: the documented small cases, the
// dependent-column rule with the values the work record carries between
// calls, and the four Moore-Penrose conditions against Eigen on random
// full-rank and rank-deficient matrices.
#include <gtest/gtest.h>

#include <Eigen/Dense>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>

#include "alloc_counter.h"
#include "kalo/kalo_math.h"
#include "solver_support.h"

using namespace solver_test;

namespace {

struct WorkDeleter {
  void operator()(MATD_TRAVAIL_INVERSE *w) const { MATD_detruire_inverse(w); }
};
using Work = std::unique_ptr<MATD_TRAVAIL_INVERSE, WorkDeleter>;

Work make_work(Eigen::Index m, Eigen::Index n) {
  return Work(MATD_init_inverse(static_cast<int32_t>(m), static_cast<int32_t>(n)));
}

// Runs MATD_inverse on a on the given record and returns the status and R.
struct Result {
  int32_t status;
  Eigen::MatrixXd r;
};
Result pinv(const Eigen::MatrixXd &a, MATD_TRAVAIL_INVERSE *w) {
  Matd A = make(a);
  Matd R = make(static_cast<uint64_t>(a.cols()), static_cast<uint64_t>(a.rows()));
  const int32_t status = MATD_inverse(A.get(), R.get(), w);
  return {status, eigen(R.get())};
}
Result pinv(const Eigen::MatrixXd &a) {
  Work w = make_work(a.rows(), a.cols());
  return pinv(a, w.get());
}

} // namespace

TEST(PseudoInverse, SmallCasesWithKnownResults) {
  EXPECT_EQ(MATD_init_inverse(-1, 3), nullptr);
  MATD_detruire_inverse(nullptr);
  // Invertible 2 x 2: the inverse, all columns independent.
  Eigen::MatrixXd a(2, 2);
  a << 4, 7, 2, 6;
  Result r = pinv(a);
  EXPECT_EQ(r.status, 0);
  EXPECT_LT(relative_error(r.r, a.inverse()), 1e-15);

  // A single column: a' / (a.a), and no recursion step.
  Eigen::MatrixXd col(3, 1);
  col << 1, 2, 2;
  r = pinv(col);
  EXPECT_EQ(r.status, 0);
  EXPECT_LT(relative_error(r.r, col.transpose() / 9.0), 1e-15);

  // Two equal columns: dependent, and each row is half the single column's.
  Eigen::MatrixXd twice(3, 2);
  twice << 1, 1, 2, 2, 2, 2;
  r = pinv(twice);
  EXPECT_EQ(r.status, -1);
  Eigen::MatrixXd half(2, 3);
  half << col.transpose() / 18.0, col.transpose() / 18.0;
  EXPECT_LT(relative_error(r.r, half), 1e-15);

  // A null first column: dependent, first row zero on a fresh record, and the
  // rest is still the pseudo-inverse.
  Eigen::MatrixXd zero_first(2, 2);
  zero_first << 0, 1, 0, 2;
  r = pinv(zero_first);
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.r(0, 0), 0.0);
  EXPECT_EQ(r.r(0, 1), 0.0);
  EXPECT_LT(relative_error(r.r, zero_first.completeOrthogonalDecomposition().pseudoInverse()),
            1e-15);
}

TEST(PseudoInverse, DependenceIsJudgedOnTheSquaredNormAgainst1em15) {
  Eigen::MatrixXd a(1, 1);
  a << 1e-7; // squared norm 1e-14: independent
  Result r = pinv(a);
  EXPECT_EQ(r.status, 0);
  EXPECT_DOUBLE_EQ(r.r(0, 0), 1e7);

  a << 1e-8; // squared norm 1e-16: null, though the norm itself is above 1e-15
  r = pinv(a);
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.r(0, 0), 0.0);

  // The same threshold for a later column's residual.
  Eigen::MatrixXd b(2, 2);
  b << 1, 1, 0, 1e-8;
  EXPECT_EQ(pinv(b).status, -1);
  b(1, 1) = 1e-7;
  EXPECT_EQ(pinv(b).status, 0);
}

TEST(PseudoInverse, WorkRecordCarriesValuesBetweenCalls) {
  Work w = make_work(3, 3);
  // First call: the last step leaves d = (1, 1, 0).
  Eigen::MatrixXd first(3, 3);
  first << 1, 0, 1, 0, 1, 1, 0, 0, 1;
  Result r = pinv(first, w.get());
  ASSERT_EQ(r.status, 0);
  EXPECT_LT(relative_error(r.r, first.inverse()), 1e-15);

  // Column 1 equals column 0. The update divides by 1 + |d|^2 over all of d,
  // the stale d[1] included: 1 + 1 + 1 = 3 where a fresh record gives 2.
  Eigen::MatrixXd second(3, 3);
  second << 1, 1, 0, 0, 0, 1, 0, 0, 0;
  Eigen::MatrixXd carried(3, 3);
  carried << 2.0 / 3, 0, 0, 1.0 / 3, 0, 0, 0, 1, 0;
  r = pinv(second, w.get());
  EXPECT_EQ(r.status, -1);
  EXPECT_LT(relative_error(r.r, carried), 1e-15);
  Eigen::MatrixXd fresh(3, 3);
  fresh << 0.5, 0, 0, 0.5, 0, 0, 0, 1, 0;
  r = pinv(second);
  EXPECT_EQ(r.status, -1);
  EXPECT_LT(relative_error(r.r, fresh), 1e-15);

  // A null first column leaves row 0 as the previous call made it.
  Work w2 = make_work(2, 2);
  Eigen::MatrixXd full(2, 2);
  full << 2, 0, 0, 4;
  ASSERT_EQ(pinv(full, w2.get()).status, 0);
  Eigen::MatrixXd zero_first(2, 2);
  zero_first << 0, 0, 0, 1;
  r = pinv(zero_first, w2.get());
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.r(0, 0), 0.5);
  EXPECT_EQ(r.r(0, 1), 0.0);
}

// The recursion squares the condition number (like normal equations), so the
// residuals are allowed eps-level growth with cond^2; Eigen's complete
// orthogonal decomposition grows with cond only.
TEST(PseudoInverse, MeetsMoorePenroseAndMatchesEigenOnRandomMatrices) {
  std::mt19937_64 rng(20240611);
  int full_rank = 0, deficient = 0;
  for (int trial = 0; trial < 400; ++trial) {
    const Eigen::Index m = 1 + trial % 12;
    const Eigen::Index n = 1 + (trial / 12) % 8;
    const Eigen::Index full = std::min(m, n);
    const bool reduce = full > 1 && trial % 3 == 0;
    const Eigen::Index rank = reduce ? 1 + trial % (full - 1) : full;
    const Eigen::MatrixXd a = random_of_rank(rng, m, n, rank);
    const auto sv = Eigen::JacobiSVD<Eigen::MatrixXd>(a).singularValues();
    const double cond = sv(0) / sv(rank - 1);
    const double tolerance = 1e-12 + 1e-13 * cond * cond;
    SCOPED_TRACE(testing::Message() << m << " x " << n << " rank " << rank << " cond " << cond);

    const Result r = pinv(a);
    const Eigen::MatrixXd &x = r.r;
    // Rank-deficient inputs always meet a dependent column; so do wide ones.
    if (rank < n) {
      EXPECT_EQ(r.status, -1);
    } else {
      EXPECT_EQ(r.status, 0);
    }
    const Eigen::MatrixXd ax = a * x, xa = x * a;
    EXPECT_LT(relative_error(a * x * a, a), tolerance);
    EXPECT_LT(relative_error(x * a * x, x), tolerance);
    EXPECT_LT(relative_error(ax.transpose(), ax), tolerance);
    EXPECT_LT(relative_error(xa.transpose(), xa), tolerance);
    if (rank == full) {
      ++full_rank;
      EXPECT_LT(relative_error(x, a.completeOrthogonalDecomposition().pseudoInverse()), tolerance);
    } else {
      ++deficient;
    }
  }
  EXPECT_GT(full_rank, 200);
  EXPECT_GT(deficient, 80);
}

TEST(PseudoInverse, AllocatesNothing) {
  KALO_REQUIRE_ALLOC_COUNTING();
  std::mt19937_64 rng(7);
  Work w = make_work(12, 8);
  Matd A = make(random_of_rank(rng, 12, 8, 5)); // takes the dependent-column path too
  Matd R = make(8, 12);
  kalo_test::AllocCounter counter;
  for (int i = 0; i < 100; ++i)
    MATD_inverse(A.get(), R.get(), w.get());
  EXPECT_EQ(counter.count(), 0u);
}
