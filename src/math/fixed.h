// Fixed-size values on the stack for the hot paths (servo cycle, frame
// conversions, spring): 3-vectors, 3 x 3 matrices, quaternions and poses,
// with inline operations that the compiler unrolls. Each operation computes
// what the record function it stands for computes, equal to it to rounding
// (the matrix sums are even taken in the same order); loads and stores move
// values between these and the records.
#pragma once

#include <cmath>

#include "kalo/kalo_math.h"

namespace kalo::fixed {

// Forced inlining: these are a few instructions each, and a call would cost
// more than the arithmetic.
#define KALO_FIXED [[gnu::always_inline]] inline

struct V3 {
  double x, y, z;
};

// Row-major, like MATD: m[3 * i + j] is element (i, j).
struct M3 {
  double m[9];
  [[gnu::always_inline]] double operator()(int i, int j) const { return m[3 * i + j]; }
  [[gnu::always_inline]] double &operator()(int i, int j) { return m[3 * i + j]; }
};

struct Q {
  double x, y, z, w;
};

struct Pose {
  V3 t;
  Q q;
};

// ---- loads and stores

KALO_FIXED V3 load(const VECT3 *v) {
  return {v[0], v[1], v[2]};
}
KALO_FIXED V3 load_float(const float *v) {
  return {static_cast<double>(v[0]), static_cast<double>(v[1]), static_cast<double>(v[2])};
}
KALO_FIXED void store(const V3 &a, VECT3 *v) {
  v[0] = a.x;
  v[1] = a.y;
  v[2] = a.z;
}
KALO_FIXED void store_float(const V3 &a, float *v) {
  v[0] = static_cast<float>(a.x);
  v[1] = static_cast<float>(a.y);
  v[2] = static_cast<float>(a.z);
}

KALO_FIXED Q load(const QUAT *q) {
  const VECT3 *v = q->partie_vect;
  return {v[0], v[1], v[2], q->partie_scal};
}
KALO_FIXED QUAT *store(const Q &a, QUAT *q) {
  VECT3 *v = q->partie_vect;
  v[0] = a.x;
  v[1] = a.y;
  v[2] = a.z;
  q->partie_scal = a.w;
  return q;
}

KALO_FIXED Pose load(const DEPL *d) {
  return {load(d->trans), load(d->rot)};
}
KALO_FIXED void store(const Pose &p, DEPL *d) {
  store(p.t, d->trans);
  store(p.q, d->rot);
}

// A 3 x 3 block of a MATD with its own row stride.
KALO_FIXED M3 load_block(const MATD *a, int row, int col) {
  const uint64_t s = a->nb_colonnes;
  const double *d = a->donnees + static_cast<uint64_t>(row) * s + static_cast<uint64_t>(col);
  return {{d[0], d[1], d[2], d[s], d[s + 1], d[s + 2], d[2 * s], d[2 * s + 1], d[2 * s + 2]}};
}

// ---- 3-vectors

KALO_FIXED V3 operator+(const V3 &a, const V3 &b) {
  return {a.x + b.x, a.y + b.y, a.z + b.z};
}
KALO_FIXED V3 operator-(const V3 &a, const V3 &b) {
  return {a.x - b.x, a.y - b.y, a.z - b.z};
}
KALO_FIXED V3 operator-(const V3 &a) {
  return {-a.x, -a.y, -a.z};
}
KALO_FIXED V3 operator*(double s, const V3 &a) {
  return {s * a.x, s * a.y, s * a.z};
}
// As VECT3_produit_vectoriel.
KALO_FIXED V3 cross(const V3 &a, const V3 &b) {
  return {a.y * b.z - b.y * a.z, a.z * b.x - b.z * a.x, a.x * b.y - b.x * a.y};
}
KALO_FIXED double max_abs(const V3 &a) {
  return std::fmax(std::fabs(a.x), std::fmax(std::fabs(a.y), std::fabs(a.z)));
}

// ---- 3 x 3 matrices (sums in increasing index order, as MATD_mult)

KALO_FIXED M3 mul(const M3 &a, const M3 &b) {
  M3 r;
#pragma GCC unroll 9
  for (int i = 0; i < 3; ++i)
#pragma GCC unroll 9
    for (int j = 0; j < 3; ++j)
      r(i, j) = (a(i, 0) * b(0, j) + a(i, 1) * b(1, j)) + a(i, 2) * b(2, j);
  return r;
}
// a [t]x, the zero diagonal of the cross-product matrix left out of the sums.
KALO_FIXED M3 mul_skew(const M3 &a, const V3 &t) {
  M3 r;
#pragma GCC unroll 9
  for (int i = 0; i < 3; ++i) {
    r(i, 0) = a(i, 1) * t.z + a(i, 2) * -t.y;
    r(i, 1) = a(i, 0) * -t.z + a(i, 2) * t.x;
    r(i, 2) = a(i, 0) * t.y + a(i, 1) * -t.x;
  }
  return r;
}
KALO_FIXED M3 transpose(const M3 &a) {
  return {{a.m[0], a.m[3], a.m[6], a.m[1], a.m[4], a.m[7], a.m[2], a.m[5], a.m[8]}};
}
KALO_FIXED M3 operator+(const M3 &a, const M3 &b) {
  M3 r;
#pragma GCC unroll 9
  for (int k = 0; k < 9; ++k)
    r.m[k] = a.m[k] + b.m[k];
  return r;
}
KALO_FIXED M3 operator-(const M3 &a, const M3 &b) {
  M3 r;
#pragma GCC unroll 9
  for (int k = 0; k < 9; ++k)
    r.m[k] = a.m[k] - b.m[k];
  return r;
}
KALO_FIXED M3 operator*(double s, const M3 &a) {
  M3 r;
#pragma GCC unroll 9
  for (int k = 0; k < 9; ++k)
    r.m[k] = s * a.m[k];
  return r;
}
KALO_FIXED V3 operator*(const M3 &a, const V3 &v) {
  return {(a(0, 0) * v.x + a(0, 1) * v.y) + a(0, 2) * v.z,
          (a(1, 0) * v.x + a(1, 1) * v.y) + a(1, 2) * v.z,
          (a(2, 0) * v.x + a(2, 1) * v.y) + a(2, 2) * v.z};
}
// transpose(a) v
KALO_FIXED V3 mul_tr(const M3 &a, const V3 &v) {
  return {(a(0, 0) * v.x + a(1, 0) * v.y) + a(2, 0) * v.z,
          (a(0, 1) * v.x + a(1, 1) * v.y) + a(2, 1) * v.z,
          (a(0, 2) * v.x + a(1, 2) * v.y) + a(2, 2) * v.z};
}
// 0.5 (transpose(a) - a), as MATD_antisymetrique_extraite_mat_carre.
KALO_FIXED M3 skew_part(const M3 &a) {
  M3 r;
#pragma GCC unroll 9
  for (int i = 0; i < 3; ++i)
#pragma GCC unroll 9
    for (int j = 0; j < 3; ++j)
      r(j, i) = 0.5 * (a(i, j) - a(j, i));
  return r;
}
// As VECT3_vecteur_extrait_antisymetrique.
KALO_FIXED V3 skew_vector(const M3 &a) {
  return {a(2, 1), a(0, 2), a(1, 0)};
}
// 0.5 trace(a) I - a: the co-stiffness of a stiffness block.
KALO_FIXED M3 co_stiffness(const M3 &a) {
  const double h = 0.5 * ((a(0, 0) + a(1, 1)) + a(2, 2));
  M3 r;
#pragma GCC unroll 9
  for (int k = 0; k < 9; ++k)
    r.m[k] = 0.0 - a.m[k];
#pragma GCC unroll 9
  for (int i = 0; i < 3; ++i)
    r(i, i) = h - a(i, i);
  return r;
}

// ---- quaternions (x, y, z, w); the formulas of the QUAT_ functions

KALO_FIXED double norm(const Q &a) {
  return std::sqrt((a.x * a.x + a.y * a.y + a.z * a.z) + a.w * a.w);
}

// As QUAT_normaliser.
KALO_FIXED Q normalised(const Q &a) {
  const double n = norm(a);
  return {a.x / n, a.y / n, a.z / n, a.w / n};
}

// normalised(a) to rounding: left as it is when its squared norm is within
// a few roundings of one (dividing would move it by rounding only), else
// scaled by one reciprocal.
KALO_FIXED Q unit(const Q &a) {
  const double s = (a.x * a.x + a.y * a.y + a.z * a.z) + a.w * a.w;
  if (std::fabs(s - 1.0) <= 0x1p-50)
    return a;
  const double r = 1.0 / std::sqrt(s);
  return {a.x * r, a.y * r, a.z * r, a.w * r};
}

// Full Hamilton product a b, not normalised: the cross product of the vector
// parts first, then a.w b.v, then b.w a.v.
KALO_FIXED Q hamilton(const Q &a, const Q &b) {
  Q c;
  c.x = a.y * b.z - b.y * a.z;
  c.y = a.z * b.x - b.z * a.x;
  c.z = a.x * b.y - b.x * a.y;
  c.x = (c.x + a.w * b.x) + b.w * a.x;
  c.y = (c.y + a.w * b.y) + b.w * a.y;
  c.z = (c.z + a.w * b.z) + b.w * a.z;
  c.w = a.w * b.w - (a.x * b.x + a.y * b.y + a.z * b.z);
  return c;
}

// a conj(b), not normalised.
KALO_FIXED Q mult_conj_raw(const Q &a, const Q &b) {
  Q c;
  c.x = -(a.y * b.z - b.y * a.z);
  c.y = -(a.z * b.x - b.z * a.x);
  c.z = -(a.x * b.y - b.x * a.y);
  c.x = (c.x + b.w * a.x) - a.w * b.x;
  c.y = (c.y + b.w * a.y) - a.w * b.y;
  c.z = (c.z + b.w * a.z) - a.w * b.z;
  c.w = (a.x * b.x + a.y * b.y + a.z * b.z) + a.w * b.w;
  return c;
}

// conj(a) b, not normalised.
KALO_FIXED Q conj_mult_raw(const Q &a, const Q &b) {
  Q c;
  c.x = -(a.y * b.z - b.y * a.z);
  c.y = -(a.z * b.x - b.z * a.x);
  c.z = -(a.x * b.y - b.x * a.y);
  c.x = (c.x + a.w * b.x) - b.w * a.x;
  c.y = (c.y + a.w * b.y) - b.w * a.y;
  c.z = (c.z + a.w * b.z) - b.w * a.z;
  c.w = (a.x * b.x + a.y * b.y + a.z * b.z) + a.w * b.w;
  return c;
}

// a conj(b) and conj(a) b, normalised, as QUAT_mult_conj and QUAT_conj_mult.
KALO_FIXED Q mult_conj(const Q &a, const Q &b) {
  return normalised(mult_conj_raw(a, b));
}
KALO_FIXED Q conj_mult(const Q &a, const Q &b) {
  return normalised(conj_mult_raw(a, b));
}

KALO_FIXED Q conj(const Q &a) {
  return {-a.x, -a.y, -a.z, a.w};
}

KALO_FIXED Q forced_positive(const Q &a) {
  return a.w < 0.0 ? Q{-a.x, -a.y, -a.z, -a.w} : a;
}

// q v conj(q), as QUAT_rot_vecteur.
KALO_FIXED V3 rotate(const Q &a, const V3 &v) {
  const Q p = hamilton(hamilton(a, Q{v.x, v.y, v.z, 0.0}), conj(a));
  return {p.x, p.y, p.z};
}

// conj(q) v q, as QUAT_inv_rot_vecteur.
KALO_FIXED V3 inv_rotate(const Q &a, const V3 &v) {
  const Q p = hamilton(hamilton(conj(a), Q{v.x, v.y, v.z, 0.0}), a);
  return {p.x, p.y, p.z};
}

// rotate(a, v) to rounding for a unit a, in half the work: with u the vector
// part, v + w c + u x c where c = 2 u x v.
KALO_FIXED V3 turn(const Q &a, const V3 &v) {
  const V3 u{a.x, a.y, a.z};
  const V3 c = 2.0 * cross(u, v);
  return v + a.w * c + cross(u, c);
}

// inv_rotate(a, v) to rounding for a unit a.
KALO_FIXED V3 turn_back(const Q &a, const V3 &v) {
  return turn(conj(a), v);
}

// As QUAT_convertir_quaternion_en_matrice.
KALO_FIXED M3 rotation_matrix(const Q &a) {
  const double x = a.x, y = a.y, z = a.z, w = a.w;
  return {{2.0 * (w * w + x * x) - 1.0, 2.0 * (x * y - z * w), 2.0 * (w * y + x * z),
           2.0 * (w * z + x * y), 2.0 * (w * w + y * y) - 1.0, 2.0 * (y * z - w * x),
           2.0 * (x * z - w * y), 2.0 * (w * x + y * z), 2.0 * (w * w + z * z) - 1.0}};
}

// ---- poses (DEPL_ formulas)

KALO_FIXED bool is_identity(const Pose &p) {
  return p.t.x == 0.0 && p.t.y == 0.0 && p.t.z == 0.0 && p.q.x == 0.0 && p.q.y == 0.0 &&
         p.q.z == 0.0 && p.q.w == 1.0;
}

// a o b, as DEPL_compose.
KALO_FIXED Pose compose(const Pose &a, const Pose &b) {
  return {a.t + rotate(a.q, b.t), normalised(hamilton(a.q, b.q))};
}

// a^-1, as DEPL_inverse.
KALO_FIXED Pose inverse(const Pose &a) {
  const Q c = conj(a.q);
  return {-rotate(c, a.t), c};
}

// a^-1 o b, as DEPL_inv_compose.
KALO_FIXED Pose inv_compose(const Pose &a, const Pose &b) {
  return {inv_rotate(a.q, b.t - a.t), conj_mult(a.q, b.q)};
}

// inverse(a) to rounding for a unit a.
KALO_FIXED Pose inverse_unit(const Pose &a) {
  const Q c = conj(a.q);
  return {-turn(c, a.t), c};
}

// inv_compose(a, b) to rounding for a unit a.
KALO_FIXED Pose inv_compose_unit(const Pose &a, const Pose &b) {
  return {turn_back(a.q, b.t - a.t), unit(conj_mult_raw(a.q, b.q))};
}

// ---- the spatial spring

// A wrench in its internal order: moment first (vtrans), then force (vrot).
struct Wrench {
  V3 moment, force;
};

// The elements (i, j) of a b, summed as in mul.
KALO_FIXED double product_element(const M3 &a, const M3 &b, int i, int j) {
  return (a(i, 0) * b(0, j) + a(i, 1) * b(1, j)) + a(i, 2) * b(2, j);
}

// skew_vector(skew_part(a b)) from the six off-diagonal elements of a b alone.
KALO_FIXED V3 skew_vector_of_product(const M3 &a, const M3 &b) {
  return {0.5 * (product_element(a, b, 1, 2) - product_element(a, b, 2, 1)),
          0.5 * (product_element(a, b, 2, 0) - product_element(a, b, 0, 2)),
          0.5 * (product_element(a, b, 0, 1) - product_element(a, b, 1, 0))};
}

KALO_FIXED bool is_diagonal(const M3 &a) {
  return a.m[1] == 0.0 && a.m[2] == 0.0 && a.m[3] == 0.0 && a.m[5] == 0.0 && a.m[6] == 0.0 &&
         a.m[7] == 0.0;
}

// mul_skew(g, t) and skew_vector_of_product(g, r) for a diagonal g: the
// terms of the zero elements left out of the sums.
KALO_FIXED M3 diagonal_mul_skew(const M3 &g, const V3 &t) {
  return {{0.0, g(0, 0) * -t.z, g(0, 0) * t.y, g(1, 1) * t.z, 0.0, g(1, 1) * -t.x, g(2, 2) * -t.y,
           g(2, 2) * t.x, 0.0}};
}
KALO_FIXED V3 diagonal_skew_vector_of_product(const M3 &g, const M3 &r) {
  return {0.5 * (g(1, 1) * r(1, 2) - g(2, 2) * r(2, 1)),
          0.5 * (g(2, 2) * r(2, 0) - g(0, 0) * r(0, 2)),
          0.5 * (g(0, 0) * r(0, 1) - g(1, 1) * r(1, 0))};
}

// skew_vector(skew_part(a)).
KALO_FIXED V3 skew_vector_of(const M3 &a) {
  return {0.5 * (a(1, 2) - a(2, 1)), 0.5 * (a(2, 0) - a(0, 2)), 0.5 * (a(0, 1) - a(1, 0))};
}

// The wrench of the 6 x 6 stiffness k (row-major, 36 doubles) stretched by
// the displacement d, as TORS_calculer_effort to rounding: force =
// vect(-A1 - (A2 + A3)), moment = vect(-2 B1 - (B2 + 2 B3)). With R the
// rotation, T = [t]x and u = R^T t, the rotation's conjugations are folded:
// R^T T R = [u]x, so vect(A1) = R^T vect(as(Gtt T)), A2 = as(Gtt [u]x) and
// B2 = as(Gtt [u]x [u]x); only the elements that the vectors read are summed.
KALO_FIXED Wrench spring_wrench(const double *k, const Pose &d) {
  const M3 ktt{{k[21], k[22], k[23], k[27], k[28], k[29], k[33], k[34], k[35]}};
  const M3 koo{{k[0], k[1], k[2], k[6], k[7], k[8], k[12], k[13], k[14]}};
  const M3 kot{{k[3], k[4], k[5], k[9], k[10], k[11], k[15], k[16], k[17]}};
  const M3 gtt = co_stiffness(ktt), goo = co_stiffness(koo);
  const M3 r = rotation_matrix(d.q);
  const V3 &t = d.t;
  const V3 u = mul_tr(r, t);

  // A diagonal block (the servo's gains) skips its zero terms.
  const bool tt_diagonal = is_diagonal(gtt);
  const V3 a1 =
      mul_tr(r, skew_vector_of(tt_diagonal ? diagonal_mul_skew(gtt, t) : mul_skew(gtt, t)));
  const M3 gtt_u = tt_diagonal ? diagonal_mul_skew(gtt, u) : mul_skew(gtt, u);
  const V3 a2 = skew_vector_of(gtt_u);
  const V3 b1 =
      is_diagonal(goo) ? diagonal_skew_vector_of_product(goo, r) : skew_vector_of_product(goo, r);
  const V3 b2 = skew_vector_of(mul_skew(gtt_u, u));
  // Without translation-rotation coupling (a diagonal stiffness, the servo's
  // case) A3 and B3 are zero and leave the sums as they are.
  bool coupled = false;
#pragma GCC unroll 9
  for (int n = 0; n < 9; ++n)
    coupled = coupled || kot.m[n] != 0.0;
  if (!coupled)
    return {-2.0 * b1 - b2, -1.0 * a1 - a2};
  const M3 got = co_stiffness(kot);
  const V3 a3 = skew_vector_of_product(2.0 * got, r);
  const V3 b3 = skew_vector_of_product(mul_skew(got, t), r);
  return {-2.0 * b1 - (b2 + 2.0 * b3), -1.0 * a1 - (a2 + a3)};
}

#undef KALO_FIXED

} // namespace kalo::fixed
