// Cholesky factorisation: the documented small cases, which triangle of A
// each routine reads, NaN rather than an error for a non-positive pivot, and
// agreement with Eigen's LLT on random symmetric positive-definite matrices.
#include <gtest/gtest.h>

#include <Eigen/Dense>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <random>

#include "alloc_counter.h"
#include "kalo/kalo_math.h"
#include "solver_support.h"

using namespace solver_test;

namespace {

// MATD_detruire_cholesky leaves the element blocks to the caller, so the
// tests hand them back first (a release of them by the library would show as
// a double free under AddressSanitizer).
struct CholeskyDeleter {
  void operator()(MATD_CHOLESKY *c) const {
    std::free(c->facteur->donnees);
    std::free(c->facteur_inverse->donnees);
    std::free(c->solution->donnees);
    MATD_detruire_cholesky(c);
  }
};
using Cholesky = std::unique_ptr<MATD_CHOLESKY, CholeskyDeleter>;

Cholesky make_cholesky(Eigen::Index n) {
  return Cholesky(MATD_init_cholesky(static_cast<int32_t>(n)));
}

Eigen::MatrixXd random_spd(std::mt19937_64 &rng, Eigen::Index n) {
  const Eigen::MatrixXd g = random(rng, n, n);
  return g * g.transpose() + 0.1 * Eigen::MatrixXd::Identity(n, n);
}

} // namespace

TEST(Cholesky, ForwardSolveOfADiagonalMatrix) {
  Cholesky c = make_cholesky(2);
  Eigen::MatrixXd a(2, 2), b(2, 1);
  a << 4, 0, 0, 9;
  b << 2, 3;
  Matd A = make(a), B = make(b);
  EXPECT_EQ(MATD_resoudre_cholesky(A.get(), B.get(), nullptr, c.get()), 0);
  EXPECT_EQ(eigen(c->facteur), (Eigen::MatrixXd(2, 2) << 2, 0, 0, 3).finished());
  EXPECT_EQ(eigen(c->solution), (Eigen::MatrixXd(2, 1) << 1, 1).finished());
}

TEST(Cholesky, InverseOfATwoByTwo) {
  Cholesky c = make_cholesky(2);
  Eigen::MatrixXd a(2, 2);
  a << 4, 2, 2, 3;
  Matd A = make(a), R = make(2, 2);
  MATD_inverse_cholesky(A.get(), R.get(), c.get());
  EXPECT_DOUBLE_EQ(at(R.get(), 0, 0), 0.375);
  EXPECT_DOUBLE_EQ(at(R.get(), 0, 1), -0.25);
  EXPECT_DOUBLE_EQ(at(R.get(), 1, 1), 0.5);
  EXPECT_EQ(at(R.get(), 1, 0), at(R.get(), 0, 1)); // exactly symmetric
  // L and its inverse, lower triangles only.
  EXPECT_DOUBLE_EQ(at(c->facteur, 1, 0), 1.0);
  EXPECT_DOUBLE_EQ(at(c->facteur, 1, 1), std::sqrt(2.0));
  EXPECT_DOUBLE_EQ(at(c->facteur_inverse, 1, 0), -0.5 / std::sqrt(2.0));
  EXPECT_EQ(at(c->facteur, 0, 1), 0.0);
  EXPECT_EQ(at(c->facteur_inverse, 0, 1), 0.0);
}

// The forward solve reads A's upper triangle, the inverse its lower one: junk
// in the other triangle must change nothing.
TEST(Cholesky, EachRoutineReadsItsOwnTriangle) {
  std::mt19937_64 rng(3);
  const Eigen::MatrixXd a = random_spd(rng, 5);
  const Eigen::MatrixXd b = random(rng, 5, 1);
  Eigen::MatrixXd upper_only = a, lower_only = a;
  for (int i = 0; i < 5; ++i)
    for (int j = 0; j < i; ++j) {
      upper_only(i, j) = 1e6;
      lower_only(j, i) = -1e6;
    }
  Cholesky c1 = make_cholesky(5), c2 = make_cholesky(5);
  Matd A = make(a), U = make(upper_only), L = make(lower_only), B = make(b);
  MATD_resoudre_cholesky(A.get(), B.get(), nullptr, c1.get());
  MATD_resoudre_cholesky(U.get(), B.get(), nullptr, c2.get());
  EXPECT_EQ(eigen(c1->solution), eigen(c2->solution));
  EXPECT_EQ(eigen(c1->facteur), eigen(c2->facteur));

  Matd R1 = make(5, 5), R2 = make(5, 5);
  MATD_inverse_cholesky(A.get(), R1.get(), c1.get());
  MATD_inverse_cholesky(L.get(), R2.get(), c2.get());
  EXPECT_EQ(eigen(R1.get()), eigen(R2.get()));
}

TEST(Cholesky, EmptyAndIndefiniteInputs) {
  EXPECT_EQ(MATD_init_cholesky(-2), nullptr);
  // n = 0: returns 0 and writes nothing.
  Cholesky c0 = make_cholesky(0);
  c0->solution->donnees[0] = 42.0; // the block always has room for one element
  Matd A0 = make(0, 0), B0 = make(0, 1);
  EXPECT_EQ(MATD_resoudre_cholesky(A0.get(), B0.get(), nullptr, c0.get()), 0);
  EXPECT_EQ(c0->solution->donnees[0], 42.0);

  // A negative diagonal: NaN, no error.
  Cholesky c = make_cholesky(2);
  Eigen::MatrixXd a(2, 2), b(2, 1);
  a << -4, 1, 1, 3;
  b << 1, 1;
  Matd A = make(a), B = make(b), R = make(2, 2);
  EXPECT_EQ(MATD_resoudre_cholesky(A.get(), B.get(), nullptr, c.get()), 0);
  EXPECT_TRUE(std::isnan(at(c->facteur, 0, 0)));
  EXPECT_TRUE(std::isnan(c->solution->donnees[1]));
  MATD_inverse_cholesky(A.get(), R.get(), c.get());
  EXPECT_TRUE(std::isnan(at(R.get(), 0, 0)));
  EXPECT_TRUE(std::isnan(at(R.get(), 1, 1)));
}

TEST(Cholesky, MatchesEigenLltOnRandomPositiveDefiniteMatrices) {
  std::mt19937_64 rng(99);
  for (int trial = 0; trial < 240; ++trial) {
    const Eigen::Index n = 1 + trial % 12;
    const Eigen::MatrixXd a = random_spd(rng, n);
    const Eigen::MatrixXd b = random(rng, n, 1);
    const Eigen::LLT<Eigen::MatrixXd> llt(a);
    const Eigen::MatrixXd l = llt.matrixL();
    const auto sv = Eigen::JacobiSVD<Eigen::MatrixXd>(a).singularValues();
    const double cond = sv(0) / sv(n - 1);
    SCOPED_TRACE(testing::Message() << "n " << n << " cond " << cond);
    Cholesky c = make_cholesky(n);
    Matd A = make(a), B = make(b), R = make(n, n);

    MATD_resoudre_cholesky(A.get(), B.get(), nullptr, c.get());
    EXPECT_LT(relative_error(eigen(c->facteur), l), 1e-14 * cond);
    const Eigen::MatrixXd y = l.triangularView<Eigen::Lower>().solve(b);
    EXPECT_LT(relative_error(eigen(c->solution), y), 1e-14 * cond);
    const double weighted = (b.transpose() * llt.solve(b))(0, 0);
    EXPECT_NEAR(eigen(c->solution).squaredNorm(), weighted, 1e-13 * cond * std::fabs(weighted));

    MATD_inverse_cholesky(A.get(), R.get(), c.get());
    const Eigen::MatrixXd inv = llt.solve(Eigen::MatrixXd::Identity(n, n));
    EXPECT_LT(relative_error(eigen(R.get()), inv), 1e-14 * cond);
    EXPECT_EQ(eigen(R.get()), eigen(R.get()).transpose());
    EXPECT_LT(relative_error(eigen(c->facteur_inverse), l.inverse()), 1e-14 * cond);
  }
}

TEST(Cholesky, AllocatesNothing) {
  KALO_REQUIRE_ALLOC_COUNTING();
  std::mt19937_64 rng(5);
  Cholesky c = make_cholesky(12);
  Matd A = make(random_spd(rng, 12)), B = make(random(rng, 12, 1)), R = make(12, 12);
  kalo_test::AllocCounter counter;
  for (int i = 0; i < 100; ++i) {
    MATD_resoudre_cholesky(A.get(), B.get(), nullptr, c.get());
    MATD_inverse_cholesky(A.get(), R.get(), c.get());
  }
  EXPECT_EQ(counter.count(), 0u);
}
