// Matrix-only rigid-body forms (MATD_*): 4 x 4 homogeneous transforms, twist
// and wrench columns (rotation first), twist matrices, their adjoint, the
// Rodrigues and twist exponentials and the spatial-spring wrench column.
// Homogeneous matrices are addressed with a row stride of 4 and rotation
// operands with a row stride of 3, whatever their records say.
#include <cmath>
#include <cstdlib>

#include "kalo/kalo_math.h"
#include "math/spring_internal.h"

namespace {
constexpr uint64_t kH = 4; // row stride of homogeneous and twist matrices
constexpr uint64_t kR = 3; // row stride of rotation operands

inline double &at(MATD *m, uint64_t i, uint64_t j) {
  return m->donnees[i * m->nb_colonnes + j];
}
inline double at(const MATD *m, uint64_t i, uint64_t j) {
  return m->donnees[i * m->nb_colonnes + j];
}

// A 6 x 1 column with room for seven doubles, the first six zeroed.
MATD *new_column6() {
  auto *m = static_cast<MATD *>(std::malloc(sizeof(MATD)));
  if (m == nullptr)
    return nullptr;
  m->nb_lignes = 6;
  m->nb_colonnes = 1;
  m->donnees = static_cast<double *>(std::malloc(7 * sizeof(double)));
  if (m->donnees == nullptr)
    return nullptr; // NOLINT(clang-analyzer-unix.Malloc): what was allocated stays, as documented
  for (int i = 0; i < 6; ++i)
    m->donnees[i] = 0.0;
  return m;
}
} // namespace

extern "C" {

MATD *MATD_creer_homogene(void) {
  return MATD_identite(4);
}

MATD *MATD_creer_twist(void) {
  return new_column6();
}

MATD *MATD_creer_wrench(void) {
  return MATD_creer_twist();
}

MATD *MATD_creer_twisttilde(void) {
  auto *m = static_cast<MATD *>(std::malloc(sizeof(MATD)));
  if (m == nullptr)
    return nullptr;
  m->nb_lignes = 4;
  m->nb_colonnes = 4;
  m->donnees = static_cast<double *>(std::malloc(16 * sizeof(double)));
  if (m->donnees == nullptr)
    return nullptr; // NOLINT(clang-analyzer-unix.Malloc): what was allocated stays, as documented
  // Element (3, 3) is left unset: nothing reads it.
  for (int i = 0; i < 15; ++i)
    m->donnees[i] = 0.0;
  return m;
}

void MATD_detruire_homogene(MATD *h) {
  MATD_detruire(h);
}
void MATD_detruire_twist(MATD *t) {
  MATD_detruire(t);
}
void MATD_detruire_twisttilde(MATD *t) {
  MATD_detruire(t);
}
void MATD_detruire_wrench(MATD *w) {
  MATD_detruire(w);
}

MATD *MATD_remplir_homogene_par_trans(MATD *h, const MATD *t) {
  for (uint64_t i = 0; i < 3; ++i)
    h->donnees[i * kH + 3] = at(t, i, 0);
  return h;
}

MATD *MATD_remplir_homogene_par_rot(MATD *h, const MATD *r) {
  for (uint64_t i = 0; i < 3; ++i)
    for (uint64_t j = 0; j < 3; ++j)
      h->donnees[i * kH + j] = r->donnees[i * kR + j];
  return h;
}

MATD *MATD_vider_trans_homogene(const MATD *h, MATD *t) {
  for (uint64_t i = 0; i < 3; ++i)
    at(t, i, 0) = h->donnees[i * kH + 3];
  return t;
}

MATD *MATD_vider_rot_homogene(const MATD *h, MATD *r) {
  for (uint64_t i = 0; i < 3; ++i)
    for (uint64_t j = 0; j < 3; ++j)
      r->donnees[i * kR + j] = h->donnees[i * kH + j];
  return r;
}

MATD *MATD_remplir_twist_par_vtrans(MATD *x, const MATD *v) {
  for (int i = 0; i < 3; ++i)
    x->donnees[3 + i] = v->donnees[i];
  return x;
}

MATD *MATD_remplir_twist_par_vrot(MATD *x, const MATD *v) {
  for (int i = 0; i < 3; ++i)
    x->donnees[i] = v->donnees[i];
  return x;
}

MATD *MATD_vider_twist_vtrans(const MATD *x, MATD *v) {
  for (int i = 0; i < 3; ++i)
    v->donnees[i] = x->donnees[3 + i];
  return v;
}

MATD *MATD_vider_twist_vrot(const MATD *x, MATD *v) {
  for (int i = 0; i < 3; ++i)
    v->donnees[i] = x->donnees[i];
  return v;
}

MATD *MATD_remplir_wrench_par_force(MATD *w, const MATD *v) {
  return MATD_remplir_twist_par_vtrans(w, v);
}
MATD *MATD_remplir_wrench_par_moment(MATD *w, const MATD *v) {
  return MATD_remplir_twist_par_vrot(w, v);
}
MATD *MATD_vider_wrench_force(const MATD *w, MATD *v) {
  return MATD_vider_twist_vtrans(w, v);
}
MATD *MATD_vider_wrench_moment(const MATD *w, MATD *v) {
  return MATD_vider_twist_vrot(w, v);
}

MATD *MATD_remplir_twisttilde_par_vtrans(MATD *x, const MATD *v) {
  return MATD_remplir_homogene_par_trans(x, v);
}
MATD *MATD_vider_twisttilde_vtrans(const MATD *x, MATD *v) {
  return MATD_vider_trans_homogene(x, v);
}
MATD *MATD_remplir_twisttilde_par_vrottilde(MATD *x, const MATD *s) {
  return MATD_remplir_homogene_par_rot(x, s);
}
MATD *MATD_vider_twisttilde_vrottilde(const MATD *x, MATD *s) {
  return MATD_vider_rot_homogene(x, s);
}

MATD *MATD_antisymetrique_3(const MATD *v, MATD *s) {
  const double x = v->donnees[0], y = v->donnees[1], z = v->donnees[2];
  // S(1, 1) and S(2, 2) are not written: callers pass matrices whose
  // diagonal is zero, as MATD_creer makes them.
  at(s, 0, 0) = 0.0;
  at(s, 0, 1) = -z;
  at(s, 0, 2) = y;
  at(s, 1, 0) = z;
  at(s, 1, 2) = -x;
  at(s, 2, 0) = -y;
  at(s, 2, 1) = x;
  return s;
}

MATD *MATD_vecteur_extrait_antisymetrique_3(const MATD *s, MATD *v) {
  v->donnees[0] = at(s, 2, 1);
  v->donnees[1] = at(s, 0, 2);
  v->donnees[2] = at(s, 1, 0);
  return v;
}

MATD *MATD_sin(const MATD *a, MATD *r) {
  const uint64_t n = a->nb_lignes * a->nb_colonnes;
  for (uint64_t k = 0; k < n; ++k)
    r->donnees[k] = std::sin(a->donnees[k]);
  return r;
}

MATD *MATD_cos(const MATD *a, MATD *r) {
  const uint64_t n = a->nb_lignes * a->nb_colonnes;
  for (uint64_t k = 0; k < n; ++k)
    r->donnees[k] = std::cos(a->donnees[k]);
  return r;
}

MATD *MATD_mult_homogene(const MATD *a, const MATD *b, MATD *c) {
  const double *x = a->donnees;
  const double *y = b->donnees;
  double *z = c->donnees;
  for (uint64_t i = 0; i < 3; ++i) {
    for (uint64_t j = 0; j < 3; ++j) {
      double s = 0.0;
      for (uint64_t k = 0; k < 3; ++k)
        s += x[i * kH + k] * y[k * kH + j];
      z[i * kH + j] = s;
    }
    double s = 0.0;
    for (uint64_t k = 0; k < 3; ++k)
      s += x[i * kH + k] * y[k * kH + 3];
    z[i * kH + 3] = s + x[i * kH + 3];
  }
  return c;
}

MATD *MATD_inverse_homogene(const MATD *h, MATD *hi, MATD *r, MATD *t, MATD *u) {
  for (uint64_t i = 0; i < 3; ++i)
    for (uint64_t j = 0; j < 3; ++j)
      hi->donnees[i * kH + j] = h->donnees[j * kH + i];
  MATD_vider_trans_homogene(h, t);
  MATD_mult_par_scalaire(t, t, -1.0);
  MATD_vider_rot_homogene(hi, r);
  MATD_mult(r, t, u);
  return MATD_remplir_homogene_par_trans(hi, u);
}

MATD *MATD_chainage_homogene(MATD *const *h, int32_t i, int32_t j, MATD **c) {
  c[i] = h[i]; // the first link is shared, not copied
  for (int32_t k = i + 1; k <= j; ++k)
    MATD_mult_homogene(c[k - 1], h[k], c[k]);
  return c[j];
}

MATD *MATD_homogene_adjointe(const MATD *h, MATD *a, MATD *s, MATD *r, MATD *t, MATD *p) {
  MATD_vider_trans_homogene(h, t);
  MATD_vider_rot_homogene(h, r);
  MATD_antisymetrique_3(t, s);
  MATD_mult(s, r, p);
  for (uint64_t i = 0; i < 3; ++i)
    for (uint64_t j = 0; j < 3; ++j) {
      at(a, i, j) = at(r, i, j);
      at(a, i + 3, j) = at(p, i, j);
      at(a, i + 3, j + 3) = at(r, i, j);
    }
  return a;
}

MATD *MATD_exponentiel_matrice_antisymetrique(const MATD *s, MATD *r, MATD *const *w,
                                              const MATD *identite, float theta) {
  const double angle = theta;
  const double sn = std::sin(angle);
  const double cs = std::cos(angle);
  MATD_mult(s, s, w[5]);
  MATD_mult_par_scalaire(w[5], w[6], 1.0 - cs);
  MATD_mult_par_scalaire(s, w[2], sn);
  MATD_plus(w[2], w[6], w[7]);
  return MATD_plus(identite, w[7], r);
}

MATD *MATD_exponentiel_twist(const MATD *xi, MATD *h, MATD *const *w, MATD *const *x, MATD *t,
                             const MATD *identite, MATD *v, MATD *omega, MATD *s, MATD *p, MATD *r,
                             float theta) {
  MATD_vider_twist_vrot(xi, omega);
  MATD_vider_twist_vtrans(xi, v);
  const MATD *translation;
  if (MATD_est_egale_a_zero(omega)) {
    MATD_ra_identite(r);
    MATD_mult_par_scalaire(v, p, theta);
    translation = p;
  } else {
    MATD_antisymetrique_3(omega, s);
    MATD_exponentiel_matrice_antisymetrique(s, r, w, identite, theta);
    MATD_transpose(omega, t);
    MATD_mult(t, v, w[1]);
    MATD_mult_par_scalaire(w[1], w[2], theta);
    MATD_mult(omega, w[2], x[2]);
    MATD_mult(s, v, x[0]);
    MATD_moins(identite, r, w[0]);
    MATD_mult(w[0], x[0], x[1]);
    translation = MATD_plus(x[1], x[2], x[3]);
  }
  MATD_remplir_homogene_par_trans(h, translation);
  return MATD_remplir_homogene_par_rot(h, r);
}

MATD *MATD_calculer_wrench(const MATD *k, const MATD *h, MATD *w, MATD *const *W, void *inutilise,
                           const MATD *identite, MATD *r, MATD *rt, MATD *tv, MATD *t, MATD *ktt,
                           MATD *koo, MATD *kot, MATD *gtt, MATD *goo, MATD *got, MATD *e1,
                           void *inutilise2, MATD *fv, MATD *e2) {
  (void)inutilise;
  (void)inutilise2;
  MATD_vider_rot_homogene(h, r);
  MATD_transpose(r, rt);
  MATD_vider_trans_homogene(h, tv);
  MATD_antisymetrique_3(tv, t);
  kalo::math::spring_matrices(k, {identite, W, r, rt, t, ktt, koo, kot, gtt, goo, got, e1, e2});
  MATD_vecteur_extrait_antisymetrique_3(e1, fv);
  MATD_remplir_wrench_par_force(w, fv);
  // The moment elements take the moment matrix's first stored row as it is.
  return MATD_remplir_wrench_par_moment(w, e2);
}

} // extern "C"
