// Helpers shared by the math tests: owners for the C records, conversions to
// and from Eigen (the independent oracle) and seeded random samples.
#pragma once

#include <Eigen/Dense>
#include <Eigen/Geometry>
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "kalo/kalo_math.h"

namespace kalo_test {

struct MatdDeleter {
  void operator()(MATD *m) const { MATD_detruire(m); }
};
struct QuatDeleter {
  void operator()(QUAT *q) const { QUAT_detruire(q); }
};
struct DeplDeleter {
  void operator()(DEPL *d) const { DEPL_detruire(d); }
};
struct TorsDeleter {
  void operator()(TORS *t) const { TORS_detruire(t); }
};
using Matd = std::unique_ptr<MATD, MatdDeleter>;
using Quat = std::unique_ptr<QUAT, QuatDeleter>;
using Depl = std::unique_ptr<DEPL, DeplDeleter>;
using Tors = std::unique_ptr<TORS, TorsDeleter>;

inline Matd matd(uint64_t rows, uint64_t cols) {
  return Matd(MATD_creer(rows, cols));
}
inline Matd matd(uint64_t rows, uint64_t cols, std::initializer_list<double> values) {
  Matd m(MATD_creer(rows, cols));
  uint64_t k = 0;
  for (double v : values)
    m->donnees[k++] = v;
  return m;
}
inline Quat quat(double x, double y, double z, double w) {
  Quat q(QUAT_creer());
  const double t[4] = {x, y, z, w};
  QUAT_remplir_double(q.get(), t);
  return q;
}
inline Depl depl() {
  return Depl(DEPL_creer());
}
inline Tors tors() {
  return Tors(TORS_creer());
}

inline Eigen::MatrixXd to_eigen(const MATD *m) {
  Eigen::MatrixXd e(m->nb_lignes, m->nb_colonnes);
  for (uint64_t i = 0; i < m->nb_lignes; ++i)
    for (uint64_t j = 0; j < m->nb_colonnes; ++j)
      e(i, j) = m->donnees[i * m->nb_colonnes + j];
  return e;
}
inline void from_eigen(const Eigen::MatrixXd &e, MATD *m) {
  for (uint64_t i = 0; i < m->nb_lignes; ++i)
    for (uint64_t j = 0; j < m->nb_colonnes; ++j)
      m->donnees[i * m->nb_colonnes + j] = e(i, j);
}
inline Eigen::Quaterniond to_eigen(const QUAT *q) {
  return Eigen::Quaterniond(q->partie_scal, q->partie_vect[0], q->partie_vect[1],
                            q->partie_vect[2]);
}
inline void from_eigen(const Eigen::Quaterniond &e, QUAT *q) {
  const double t[4] = {e.x(), e.y(), e.z(), e.w()};
  QUAT_remplir_double(q, t);
}
inline Eigen::Vector3d to_eigen3(const VECT3 *v) {
  return {v[0], v[1], v[2]};
}
// The pose of a displacement as an Eigen isometry.
inline Eigen::Isometry3d to_eigen(const DEPL *d) {
  Eigen::Isometry3d e = Eigen::Isometry3d::Identity();
  e.linear() = to_eigen(d->rot).normalized().toRotationMatrix();
  e.translation() = to_eigen3(d->trans);
  return e;
}
inline Eigen::Matrix<double, 6, 1> to_eigen6(const TORS *t) {
  Eigen::Matrix<double, 6, 1> e;
  for (int i = 0; i < 6; ++i)
    e(i) = t->vecteur->donnees[i];
  return e;
}

// Seeded samples, so a failure reproduces.
class Random {
public:
  explicit Random(unsigned seed = 12345) : gen_(seed) {}
  double uniform(double lo, double hi) {
    return std::uniform_real_distribution<double>(lo, hi)(gen_);
  }
  Eigen::Vector3d vector(double scale = 1.0) {
    return {uniform(-scale, scale), uniform(-scale, scale), uniform(-scale, scale)};
  }
  // A unit quaternion of either sign, uniformly over rotations.
  Eigen::Quaterniond rotation() {
    return Eigen::Quaterniond(Eigen::Vector4d(normal(), normal(), normal(), normal()).normalized());
  }
  void fill(DEPL *d, double scale = 2.0) {
    const Eigen::Quaterniond q = rotation();
    const Eigen::Vector3d t = vector(scale);
    const double flat[7] = {t.x(), t.y(), t.z(), q.x(), q.y(), q.z(), q.w()};
    DEPL_remplir_7_double(d, flat);
  }

private:
  double normal() { return std::normal_distribution<double>(0.0, 1.0)(gen_); }
  std::mt19937 gen_;
};

// True when two rotations agree, whichever sign their quaternions have.
inline ::testing::AssertionResult same_rotation(const Eigen::Quaterniond &a,
                                                const Eigen::Quaterniond &b, double tol) {
  const double d = std::min((a.coeffs() - b.coeffs()).norm(), (a.coeffs() + b.coeffs()).norm());
  if (d <= tol)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "quaternions differ by " << d;
}

} // namespace kalo_test
