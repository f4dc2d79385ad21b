// The three matrix solvers on 6 x 6 (one arm's Jacobian) and 12 x 12 inputs,
// beside Eigen's counterparts in the same run: JacobiSVD and BDCSVD for the
// SVD, CompleteOrthogonalDecomposition for the pseudo-inverse, LLT for the
// Cholesky inverse. Eigen's objects are constructed once with their sizes, as
// our work records are; Eigen uses dynamic-size matrices like ours.
#include <benchmark/benchmark.h>

#include <Eigen/Dense>

#include <algorithm>
#include <cstdint>
#include <random>

#include "kalo/kalo_math.h"

namespace {

Eigen::MatrixXd random_matrix(Eigen::Index rows, Eigen::Index cols, unsigned seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Eigen::MatrixXd a(rows, cols);
  for (Eigen::Index i = 0; i < rows; ++i)
    for (Eigen::Index j = 0; j < cols; ++j)
      a(i, j) = u(rng);
  return a;
}

Eigen::MatrixXd random_spd(Eigen::Index n) {
  const Eigen::MatrixXd g = random_matrix(n, n, 2);
  return g * g.transpose() + 0.1 * Eigen::MatrixXd::Identity(n, n);
}

// Our matrices are row-major; copy element by element.
MATD *to_matd(const Eigen::MatrixXd &a) {
  MATD *m = MATD_creer(static_cast<uint64_t>(a.rows()), static_cast<uint64_t>(a.cols()));
  for (Eigen::Index i = 0; i < a.rows(); ++i)
    for (Eigen::Index j = 0; j < a.cols(); ++j)
      m->donnees[i * a.cols() + j] = a(i, j);
  return m;
}

// ---- SVD: the in-place decomposition needs a fresh copy of A per run, as
// Eigen's compute() copies its input too.
void BM_Svd_kalo(benchmark::State &state) {
  const auto n = static_cast<Eigen::Index>(state.range(0));
  MATD *src = to_matd(random_matrix(n, n, 1));
  MATD *a = MATD_creer(n, n), *w = MATD_creer(n, 1), *v = MATD_creer(n, n),
       *work = MATD_creer(n, 1);
  for (auto _ : state) {
    std::copy(src->donnees, src->donnees + n * n, a->donnees);
    benchmark::DoNotOptimize(MATD_svdcmp(a, w, v, work));
    benchmark::ClobberMemory();
  }
  MATD_detruire(src);
  MATD_detruire(a);
  MATD_detruire(w);
  MATD_detruire(v);
  MATD_detruire(work);
}

template <class Solver> void BM_Svd_eigen(benchmark::State &state) {
  const auto n = static_cast<Eigen::Index>(state.range(0));
  const Eigen::MatrixXd a = random_matrix(n, n, 1);
  Solver svd(n, n, Eigen::ComputeThinU | Eigen::ComputeThinV);
  for (auto _ : state) {
    svd.compute(a, Eigen::ComputeThinU | Eigen::ComputeThinV);
    benchmark::DoNotOptimize(svd.singularValues().data());
    benchmark::ClobberMemory();
  }
}

// ---- Pseudo-inverse.
void BM_PseudoInverse_kalo(benchmark::State &state) {
  const auto n = static_cast<int32_t>(state.range(0));
  MATD *a = to_matd(random_matrix(n, n, 1));
  MATD *r = MATD_creer(n, n);
  MATD_TRAVAIL_INVERSE *work = MATD_init_inverse(n, n);
  for (auto _ : state) {
    benchmark::DoNotOptimize(MATD_inverse(a, r, work));
    benchmark::ClobberMemory();
  }
  MATD_detruire_inverse(work);
  MATD_detruire(a);
  MATD_detruire(r);
}

void BM_PseudoInverse_eigenCOD(benchmark::State &state) {
  const auto n = static_cast<Eigen::Index>(state.range(0));
  const Eigen::MatrixXd a = random_matrix(n, n, 1);
  Eigen::CompleteOrthogonalDecomposition<Eigen::MatrixXd> cod(n, n);
  Eigen::MatrixXd r(n, n);
  for (auto _ : state) {
    cod.compute(a);
    r = cod.pseudoInverse();
    benchmark::DoNotOptimize(r.data());
    benchmark::ClobberMemory();
  }
}

// ---- Cholesky inverse.
void BM_CholeskyInverse_kalo(benchmark::State &state) {
  const auto n = static_cast<int32_t>(state.range(0));
  MATD *a = to_matd(random_spd(n));
  MATD *r = MATD_creer(n, n);
  MATD_CHOLESKY *c = MATD_init_cholesky(n);
  for (auto _ : state) {
    MATD_inverse_cholesky(a, r, c);
    benchmark::DoNotOptimize(r->donnees);
    benchmark::ClobberMemory();
  }
  std::free(c->facteur->donnees); // the record's release leaves them to us
  std::free(c->facteur_inverse->donnees);
  std::free(c->solution->donnees);
  MATD_detruire_cholesky(c);
  MATD_detruire(a);
  MATD_detruire(r);
}

void BM_CholeskyInverse_eigenLLT(benchmark::State &state) {
  const auto n = static_cast<Eigen::Index>(state.range(0));
  const Eigen::MatrixXd a = random_spd(n);
  Eigen::LLT<Eigen::MatrixXd> llt(n);
  Eigen::MatrixXd r = Eigen::MatrixXd::Identity(n, n);
  const Eigen::MatrixXd identity = Eigen::MatrixXd::Identity(n, n);
  for (auto _ : state) {
    llt.compute(a);
    r = identity;
    llt.solveInPlace(r);
    benchmark::DoNotOptimize(r.data());
    benchmark::ClobberMemory();
  }
}

} // namespace

BENCHMARK(BM_Svd_kalo)->Arg(6)->Arg(12);
BENCHMARK_TEMPLATE(BM_Svd_eigen, Eigen::JacobiSVD<Eigen::MatrixXd>)->Arg(6)->Arg(12);
BENCHMARK_TEMPLATE(BM_Svd_eigen, Eigen::BDCSVD<Eigen::MatrixXd>)->Arg(6)->Arg(12);
BENCHMARK(BM_PseudoInverse_kalo)->Arg(6)->Arg(12);
BENCHMARK(BM_PseudoInverse_eigenCOD)->Arg(6)->Arg(12);
BENCHMARK(BM_CholeskyInverse_kalo)->Arg(6)->Arg(12);
BENCHMARK(BM_CholeskyInverse_eigenLLT)->Arg(6)->Arg(12);

BENCHMARK_MAIN();
