// Quaternions (QUAT_*): (x, y, z, w), vector part first; active rotations.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "kalo/kalo_math.h"
#include "math/fixed.h"

namespace {
constexpr double kEpsilon = 1e-38; // guard of square roots and divisions in conversions

using kalo::fixed::conj;
using kalo::fixed::conj_mult;
using kalo::fixed::forced_positive;
using kalo::fixed::hamilton;
using kalo::fixed::load;
using kalo::fixed::mult_conj;
using kalo::fixed::norm;
using kalo::fixed::normalised;
using kalo::fixed::Q;
using kalo::fixed::store;

inline double m(const MATD *mat, uint64_t i, uint64_t j) {
  return mat->donnees[i * mat->nb_colonnes + j];
}
} // namespace

extern "C" {

QUAT *QUAT_creer(void) {
  auto *q = static_cast<QUAT *>(std::malloc(sizeof(QUAT)));
  if (q == nullptr)
    return nullptr;
  q->partie_vect = VECT3_creer();
  if (q->partie_vect == nullptr)
    return nullptr; // NOLINT(clang-analyzer-unix.Malloc): what was allocated stays, as documented
  q->partie_scal = 1.0;
  return q;
}

void QUAT_detruire(QUAT *q) {
  if (q == nullptr)
    return;
  VECT3_detruire(q->partie_vect);
  std::free(q);
}

void QUAT_remplir_float(QUAT *q, const float *t) {
  VECT3_remplir_float(q->partie_vect, t);
  q->partie_scal = t[3];
}

void QUAT_remplir_double(QUAT *q, const double *t) {
  VECT3_remplir_double(q->partie_vect, t);
  q->partie_scal = t[3];
}

void QUAT_vider_float(const QUAT *q, float *t) {
  VECT3_vider_float(q->partie_vect, t);
  t[3] = static_cast<float>(q->partie_scal);
}

void QUAT_vider_double(const QUAT *q, double *t) {
  VECT3_vider_double(q->partie_vect, t);
  t[3] = q->partie_scal;
}

void QUAT_afficher(const QUAT *q) {
  std::printf("partie scal : %f ; partie vect : ", q->partie_scal);
  VECT3_afficher(q->partie_vect);
}

double QUAT_norme(const QUAT *q) {
  return norm(load(q));
}

QUAT *QUAT_normaliser(const QUAT *q, QUAT *r) {
  return store(normalised(load(q)), r);
}

QUAT *QUAT_conjugue(const QUAT *q, QUAT *r) {
  return store(conj(load(q)), r);
}

QUAT *QUAT_mult(const QUAT *a, const QUAT *b, QUAT *c) {
  return store(normalised(hamilton(load(a), load(b))), c);
}

QUAT *QUAT_mult_conj(const QUAT *a, const QUAT *b, QUAT *c) {
  return store(mult_conj(load(a), load(b)), c);
}

QUAT *QUAT_conj_mult(const QUAT *a, const QUAT *b, QUAT *c) {
  return store(conj_mult(load(a), load(b)), c);
}

QUAT *QUAT_inverse(const QUAT *q, QUAT *r) {
  const Q a = load(q);
  const double n2 = (a.x * a.x + a.y * a.y + a.z * a.z) + a.w * a.w;
  return store(normalised(Q{-a.x / n2, -a.y / n2, -a.z / n2, a.w / n2}), r);
}

void QUAT_forcer_positif(QUAT *q) {
  store(forced_positive(load(q)), q);
}

VECT3 *QUAT_delta(const QUAT *a, const QUAT *b, VECT3 *r) {
  const Q c = forced_positive(mult_conj(load(a), load(b)));
  r[0] = c.x;
  r[1] = c.y;
  r[2] = c.z;
  return r;
}

VECT3 *QUAT_rot_vecteur(const QUAT *q, const VECT3 *v, VECT3 *r) {
  kalo::fixed::store(kalo::fixed::rotate(load(q), load(v)), r);
  return r;
}

VECT3 *QUAT_inv_rot_vecteur(const QUAT *q, const VECT3 *v, VECT3 *r) {
  kalo::fixed::store(kalo::fixed::inv_rotate(load(q), load(v)), r);
  return r;
}

MATD *QUAT_convertir_quaternion_en_matrice(const QUAT *q, MATD *mat) {
  const Q a = load(q);
  const double x = a.x, y = a.y, z = a.z, w = a.w;
  const uint64_t s = mat->nb_colonnes;
  double *r = mat->donnees;
  r[0] = 2.0 * (w * w + x * x) - 1.0;
  r[1] = 2.0 * (x * y - z * w);
  r[2] = 2.0 * (w * y + x * z);
  r[s + 0] = 2.0 * (w * z + x * y);
  r[s + 1] = 2.0 * (w * w + y * y) - 1.0;
  r[s + 2] = 2.0 * (y * z - w * x);
  r[2 * s + 0] = 2.0 * (x * z - w * y);
  r[2 * s + 1] = 2.0 * (w * x + y * z);
  r[2 * s + 2] = 2.0 * (w * w + z * z) - 1.0;
  return mat;
}

QUAT *QUAT_convertir_matrice_en_quaternion(const MATD *mat, QUAT *q) {
  const double m00 = m(mat, 0, 0), m01 = m(mat, 0, 1), m02 = m(mat, 0, 2);
  const double m10 = m(mat, 1, 0), m11 = m(mat, 1, 1), m12 = m(mat, 1, 2);
  const double m20 = m(mat, 2, 0), m21 = m(mat, 2, 1), m22 = m(mat, 2, 2);
  const double tw = (m00 + 1.0) + m11 + m22;
  const double tx = (m00 + 1.0) - m11 - m22;
  const double ty = (1.0 - m00) + m11 - m22;
  const double tz = (1.0 - m00) - m11 + m22;
  Q r;
  if (tw > tx && tw > ty && tw > tz) {
    r.w = 0.5 * std::sqrt(tw);
    const double d = 4.0 * r.w;
    r.x = (m21 - m12) / d;
    r.y = (m02 - m20) / d;
    r.z = (m10 - m01) / d;
  } else if (tx > ty && tx > tz) {
    r.x = 0.5 * std::sqrt(tx);
    const double d = 4.0 * r.x;
    r.w = (m21 - m12) / d;
    r.y = (m10 + m01) / d;
    r.z = (m20 + m02) / d;
  } else if (ty > tz) {
    r.y = 0.5 * std::sqrt(ty);
    const double d = 4.0 * r.y;
    r.w = (m02 - m20) / d;
    r.x = (m10 + m01) / d;
    r.z = (m21 + m12) / d;
  } else {
    r.z = 0.5 * std::sqrt(tz);
    const double d = 4.0 * r.z;
    r.w = (m10 - m01) / d;
    r.x = (m20 + m02) / d;
    r.y = (m21 + m12) / d;
  }
  return store(r, q);
}

QUAT *QUAT_convertir_mat_en_quat_avec_gestion_du_tour(const MATD *mat, const QUAT *p, QUAT *q) {
  const double m00 = m(mat, 0, 0), m11 = m(mat, 1, 1), m22 = m(mat, 2, 2);
  Q r;
  const double t = (m00 + 1.0 + m11 + m22) * 0.25;
  if (t > kEpsilon) {
    r.w = std::sqrt(t);
    const double d = 4.0 * r.w;
    r.x = (m(mat, 2, 1) - m(mat, 1, 2)) / d;
    r.y = (m(mat, 0, 2) - m(mat, 2, 0)) / d;
    r.z = (m(mat, 1, 0) - m(mat, 0, 1)) / d;
  } else {
    r.w = 0.0;
    const double sx = -0.5 * (m11 + m22);
    if (sx > kEpsilon) {
      r.x = std::sqrt(sx);
      r.y = m(mat, 1, 0) / (2.0 * r.x);
      r.z = m(mat, 2, 0) / (2.0 * r.x);
    } else {
      r.x = 0.0;
      const double sy = 0.5 * (1.0 - m22);
      if (sy > kEpsilon) {
        r.y = std::sqrt(sy);
        r.z = m(mat, 2, 1) / (2.0 * r.y);
      } else {
        r.y = 0.0;
        r.z = 1.0;
      }
    }
  }
  store(r, q);
  // p is read only now, after q was written: a p that is q itself compares
  // the new value with itself and never flips the sign.
  const Q prev = load(p);
  const double dx = prev.x - r.x, dy = prev.y - r.y, dz = prev.z - r.z, dw = prev.w - r.w;
  if (dx * dx + dy * dy + dz * dz + dw * dw > 2.0)
    store(Q{-r.x, -r.y, -r.z, -r.w}, q);
  return QUAT_normaliser(q, q);
}

void QUAT_remplir_vrot(QUAT *q, double x, double y, double z, double angle) {
  const double h = angle * 0.5;
  const double s = std::sin(h);
  const double c = std::cos(h);
  const double n = std::sqrt(x * x + y * y + z * z);
  if (n > kEpsilon) {
    store(Q{x / n * s, y / n * s, z / n * s, c}, q);
  } else {
    store(Q{0.0, 0.0, 0.0, 1.0}, q);
  }
}

void QUAT_vider_vrot(const QUAT *q, double *x, double *y, double *z, double *angle) {
  const Q a = load(q);
  const double s2 = 1.0 - a.w * a.w;
  if (!(s2 > kEpsilon)) {
    *x = *y = *z = *angle = 0.0;
    return;
  }
  const double s = std::sqrt(s2);
  *x = a.x / s;
  *y = a.y / s;
  *z = a.z / s;
  *angle = 2.0 * std::acos(a.w);
}

void QUAT_convertir_vitesse_rotation_en_quaternion_derive(const QUAT *q, const double *w,
                                                          QUAT *dq) {
  const Q a = load(q);
  const double cx = w[1] * a.z - a.y * w[2];
  const double cy = w[2] * a.x - a.z * w[0];
  const double cz = w[0] * a.y - a.x * w[1];
  const Q d{0.5 * (a.w * w[0] + cx), 0.5 * (a.w * w[1] + cy), 0.5 * (a.w * w[2] + cz),
            -0.5 * (w[0] * a.x + w[1] * a.y + w[2] * a.z)};
  store(d, dq);
}

void QUAT_convertir_quaternion_derive_en_vitesse_rotation(const QUAT *q, const QUAT *dq,
                                                          double *w) {
  const Q a = load(q);
  const Q d = load(dq);
  const double cx = d.y * a.z - a.y * d.z;
  const double cy = d.z * a.x - a.z * d.x;
  const double cz = d.x * a.y - a.x * d.y;
  w[0] = 2.0 * ((a.w * d.x - d.w * a.x) - cx);
  w[1] = 2.0 * ((a.w * d.y - d.w * a.y) - cy);
  w[2] = 2.0 * ((a.w * d.z - d.w * a.z) - cz);
}

} // extern "C"
