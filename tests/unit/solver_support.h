// Shared by the solver tests: MATD records owned by the test, conversion to
// and from Eigen (the oracle), and random matrices of chosen rank.
#pragma once

#include <Eigen/Dense>

#include <cstdint>
#include <memory>
#include <random>

#include "kalo/kalo_math.h"

namespace solver_test {

struct MatdDeleter {
  void operator()(MATD *m) const { MATD_detruire(m); }
};
using Matd = std::unique_ptr<MATD, MatdDeleter>;

using RowMajor = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

inline Matd make(uint64_t rows, uint64_t cols) {
  return Matd(MATD_creer(rows, cols));
}

inline Matd make(const Eigen::MatrixXd &e) {
  Matd m = make(static_cast<uint64_t>(e.rows()), static_cast<uint64_t>(e.cols()));
  Eigen::Map<RowMajor>(m->donnees, e.rows(), e.cols()) = e;
  return m;
}

inline Eigen::MatrixXd eigen(const MATD *m) {
  return Eigen::Map<const RowMajor>(m->donnees, static_cast<Eigen::Index>(m->nb_lignes),
                                    static_cast<Eigen::Index>(m->nb_colonnes));
}

inline double at(const MATD *m, uint64_t i, uint64_t j) {
  return m->donnees[i * m->nb_colonnes + j];
}

// Entries uniform in [-1, 1].
inline Eigen::MatrixXd random(std::mt19937_64 &rng, Eigen::Index rows, Eigen::Index cols) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Eigen::MatrixXd a(rows, cols);
  for (Eigen::Index i = 0; i < rows; ++i)
    for (Eigen::Index j = 0; j < cols; ++j)
      a(i, j) = u(rng);
  return a;
}

// A rows x cols matrix of rank `rank` (a product of two random factors).
inline Eigen::MatrixXd random_of_rank(std::mt19937_64 &rng, Eigen::Index rows, Eigen::Index cols,
                                      Eigen::Index rank) {
  return random(rng, rows, rank) * random(rng, rank, cols);
}

// Frobenius norm of a - b relative to the norm of b (absolute when b is zero).
inline double relative_error(const Eigen::MatrixXd &a, const Eigen::MatrixXd &b) {
  const double scale = b.norm();
  return (a - b).norm() / (scale > 0.0 ? scale : 1.0);
}

} // namespace solver_test
