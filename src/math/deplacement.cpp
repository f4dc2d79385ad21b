// Displacements (DEPL_*): a translation and a rotation quaternion; the pose
// format of the whole system and the 6 x 6 adjoints that carry screws between
// frames.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "kalo/kalo_math.h"
#include "math/fixed.h"

namespace {
constexpr double kPi = 3.14159265358979323846;

inline double &at(MATD *m, uint64_t i, uint64_t j) {
  return m->donnees[i * m->nb_colonnes + j];
}
inline double at(const MATD *m, uint64_t i, uint64_t j) {
  return m->donnees[i * m->nb_colonnes + j];
}

// Copies the 3 x 3 block b into a at (row, col).
void put_block(MATD *a, uint64_t row, uint64_t col, const MATD *b) {
  for (uint64_t i = 0; i < 3; ++i)
    for (uint64_t j = 0; j < 3; ++j)
      at(a, row + i, col + j) = at(b, i, j);
}

// r = matrix of d.rot, s = [d.trans]x, p = s r: the blocks of every adjoint.
void adjoint_blocks(const DEPL *d, MATD *s, MATD *r, MATD *p) {
  QUAT_convertir_quaternion_en_matrice(d->rot, r);
  VECT3_matrice_antisymetrique(d->trans, s);
  MATD_mult(s, r, p);
}

void copy(const DEPL *from, DEPL *to) {
  for (int i = 0; i < 3; ++i) {
    to->trans[i] = from->trans[i];
    to->rot->partie_vect[i] = from->rot->partie_vect[i];
  }
  to->rot->partie_scal = from->rot->partie_scal;
}
} // namespace

extern "C" {

DEPL *DEPL_creer(void) {
  auto *d = static_cast<DEPL *>(std::malloc(sizeof(DEPL)));
  if (d == nullptr)
    return nullptr;
  // What was already allocated is not released on failure (documented behaviour).
  d->trans = VECT3_creer();
  if (d->trans == nullptr)
    return nullptr; // NOLINT(clang-analyzer-unix.Malloc): what was allocated stays, as documented
  d->rot = QUAT_creer();
  if (d->rot == nullptr)
    return nullptr;
  return d;
}

void DEPL_detruire(DEPL *d) {
  if (d == nullptr)
    return;
  VECT3_detruire(d->trans);
  QUAT_detruire(d->rot);
  std::free(d);
}

DEPL *DEPL_remplir_7_float(DEPL *d, const float *t) {
  VECT3_remplir_float(d->trans, t);
  QUAT_remplir_float(d->rot, t + 3);
  return d;
}

DEPL *DEPL_remplir_7_double(DEPL *d, const double *t) {
  VECT3_remplir_double(d->trans, t);
  QUAT_remplir_double(d->rot, t + 3);
  return d;
}

void DEPL_vider_7_float(const DEPL *d, float *t) {
  VECT3_vider_float(d->trans, t);
  QUAT_vider_float(d->rot, t + 3);
}

void DEPL_vider_7_double(const DEPL *d, double *t) {
  VECT3_vider_double(d->trans, t);
  QUAT_vider_double(d->rot, t + 3);
}

DEPL *DEPL_remplir_trans(DEPL *d, double tx, double ty, double tz) {
  d->trans[0] = tx;
  d->trans[1] = ty;
  d->trans[2] = tz;
  return d;
}

DEPL *DEPL_remplir_vrot(DEPL *d, double x, double y, double z, double angle) {
  QUAT_remplir_vrot(d->rot, x, y, z, angle);
  return d;
}

DEPL *DEPL_remplir_trans_vrot(DEPL *d, double tx, double ty, double tz, double x, double y,
                              double z, double angle) {
  DEPL_remplir_trans(d, tx, ty, tz);
  return DEPL_remplir_vrot(d, x, y, z, angle);
}

void DEPL_vider_trans(const DEPL *d, double *tx, double *ty, double *tz) {
  *tx = d->trans[0];
  *ty = d->trans[1];
  *tz = d->trans[2];
}

void DEPL_vider_vrot(const DEPL *d, double *x, double *y, double *z, double *angle) {
  QUAT_vider_vrot(d->rot, x, y, z, angle);
}

void DEPL_vider_trans_vrot(const DEPL *d, double *tx, double *ty, double *tz, double *x, double *y,
                           double *z, double *angle) {
  DEPL_vider_trans(d, tx, ty, tz);
  DEPL_vider_vrot(d, x, y, z, angle);
}

DEPL *DEPL_ra_identite(DEPL *d) {
  DEPL_remplir_trans(d, 0.0, 0.0, 0.0);
  return DEPL_remplir_vrot(d, 0.0, 0.0, 0.0, 1.0); // a zero axis gives the identity
}

void DEPL_afficher(const DEPL *d) {
  std::printf(" trans = ");
  VECT3_afficher(d->trans);
  std::printf(" rot = ");
  QUAT_afficher(d->rot);
}

void DEPL_afficher_homogene(const DEPL *d) {
  MATD *h = MATD_creer(4, 4);
  MATD *r = MATD_creer(3, 3);
  VECT3 *t = VECT3_creer();
  if (h != nullptr && r != nullptr && t != nullptr) {
    DEPL_representation_homogene(d, h, r, t);
    MATD_afficher(h);
  }
  MATD_detruire(h);
  MATD_detruire(r);
  VECT3_detruire(t);
}

double DEPL_translationNorm(const DEPL *d) {
  return VECT3_norme(d->trans);
}

double DEPL_rotationAngle(const DEPL *d) {
  const double w = d->rot->partie_scal;
  if (w > 1.0 || w < -1.0)
    return 0.0;
  const double a = 2.0 * std::acos(w);
  return a <= kPi ? a : 2.0 * kPi - a;
}

// The compositions are computed on the stack (kalo::fixed), with the same
// formulas as the quaternion and vector functions they stand for.
DEPL *DEPL_compose(const DEPL *a, const DEPL *b, DEPL *c) {
  kalo::fixed::store(kalo::fixed::compose(kalo::fixed::load(a), kalo::fixed::load(b)), c);
  return c;
}

DEPL *DEPL_inverse(const DEPL *a, DEPL *r) {
  kalo::fixed::store(kalo::fixed::inverse(kalo::fixed::load(a)), r);
  return r;
}

DEPL *DEPL_compose_inv(const DEPL *a, const DEPL *b, DEPL *c) {
  QUAT_mult_conj(a->rot, b->rot, c->rot);
  QUAT_rot_vecteur(c->rot, b->trans, c->trans);
  VECT3_moins(a->trans, c->trans, c->trans);
  return c;
}

DEPL *DEPL_inv_compose(const DEPL *a, const DEPL *b, DEPL *c) {
  kalo::fixed::store(kalo::fixed::inv_compose(kalo::fixed::load(a), kalo::fixed::load(b)), c);
  return c;
}

DEPL *DEPL_compose_decouple_trans_rot(const DEPL *a, const DEPL *b, DEPL *c) {
  QUAT_mult_conj(a->rot, b->rot, c->rot);
  QUAT_forcer_positif(c->rot);
  VECT3_moins(a->trans, b->trans, c->trans);
  return c;
}

VECT3 *DEPL_delta(const DEPL *a, const DEPL *b, VECT3 *dt, VECT3 *dr) {
  VECT3_moins(a->trans, b->trans, dt);
  return QUAT_delta(a->rot, b->rot, dr);
}

int32_t DEPL_comparer(const DEPL *a, const DEPL *b, VECT3 *dt, VECT3 *dr, double seuil_translation,
                      double seuil_rotation) {
  if (dt == nullptr || dr == nullptr)
    return -1;
  DEPL_delta(a, b, dt, dr);
  if (VECT3_norme(dt) > seuil_translation || VECT3_norme(dr) > seuil_rotation)
    return -1;
  return 0;
}

DEPL *DEPL_chainage(DEPL *const *d, int32_t i, int32_t j, DEPL *const *c, DEPL *r) {
  copy(d[i], c[i]);
  for (int32_t k = i + 1; k <= j; ++k)
    DEPL_compose(c[k - 1], d[k], c[k]);
  copy(c[j], r);
  return r;
}

MATD *DEPL_representation_homogene(const DEPL *d, MATD *h, MATD *r, VECT3 *t) {
  QUAT_convertir_quaternion_en_matrice(d->rot, r);
  VECT3_vider_double(d->trans, t);
  for (uint64_t i = 0; i < 3; ++i) {
    for (uint64_t j = 0; j < 3; ++j)
      at(h, i, j) = at(r, i, j);
    at(h, i, 3) = t[i];
  }
  at(h, 3, 0) = 0.0;
  at(h, 3, 1) = 0.0;
  at(h, 3, 2) = 0.0;
  at(h, 3, 3) = 1.0;
  return h;
}

MATD *DEPL_adjoint(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p) {
  adjoint_blocks(d, s, r, p);
  put_block(a, 0, 0, r);
  put_block(a, 0, 3, p);
  put_block(a, 3, 3, r);
  return a;
}

MATD *DEPL_adjoint_inverse(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p) {
  adjoint_blocks(d, s, r, p);
  MATD_transpose(p, s); // s = transpose([t]x R) = -R^T [t]x
  MATD_transpose(r, p); // p = R^T
  put_block(a, 0, 0, p);
  put_block(a, 0, 3, s);
  put_block(a, 3, 3, p);
  return a;
}

MATD *DEPL_adjoint_std(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p) {
  adjoint_blocks(d, s, r, p);
  put_block(a, 0, 0, r);
  put_block(a, 3, 0, p);
  put_block(a, 3, 3, r);
  return a;
}

MATD *DEPL_adjoint_inverse_std(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p) {
  adjoint_blocks(d, s, r, p);
  MATD_transpose(p, s);
  MATD_transpose(r, p);
  put_block(a, 0, 0, p);
  put_block(a, 3, 0, s);
  put_block(a, 3, 3, p);
  return a;
}

} // extern "C"
