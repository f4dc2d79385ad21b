// 3-vectors (VECT3_*): three bare doubles x, y, z, and kinematic pairs.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "kalo/kalo_math.h"

namespace {
// Element (i, j) of a matrix with its own row stride.
inline double &at(MATD *m, uint64_t i, uint64_t j) {
  return m->donnees[i * m->nb_colonnes + j];
}
inline double at(const MATD *m, uint64_t i, uint64_t j) {
  return m->donnees[i * m->nb_colonnes + j];
}
} // namespace

extern "C" {

VECT3 *VECT3_creer(void) {
  return static_cast<VECT3 *>(std::calloc(3, sizeof(double)));
}

void VECT3_detruire(VECT3 *v) {
  std::free(v);
}

VECT3_PAIRE_CINEMATIQUE *VECT3_creer_paire_cinematique(void) {
  auto *p = static_cast<VECT3_PAIRE_CINEMATIQUE *>(std::malloc(sizeof(VECT3_PAIRE_CINEMATIQUE)));
  if (p == nullptr)
    return nullptr;
  p->axe_rot = VECT3_creer();
  if (p->axe_rot == nullptr) {
    std::free(p);
    return nullptr;
  }
  p->position = VECT3_creer();
  if (p->position == nullptr) {
    VECT3_detruire(p->axe_rot);
    std::free(p);
    return nullptr;
  }
  p->reserve = nullptr;
  return p;
}

void VECT3_detruire_paire_cinematique(VECT3_PAIRE_CINEMATIQUE *p) {
  if (p == nullptr)
    return;
  VECT3_detruire(p->axe_rot);
  VECT3_detruire(p->position);
  std::free(p);
}

void VECT3_remplir_float(VECT3 *v, const float *t) {
  for (int i = 0; i < 3; ++i)
    v[i] = t[i];
}

void VECT3_remplir_double(VECT3 *v, const double *t) {
  for (int i = 0; i < 3; ++i)
    v[i] = t[i];
}

void VECT3_vider_float(const VECT3 *v, float *t) {
  for (int i = 0; i < 3; ++i)
    t[i] = static_cast<float>(v[i]);
}

void VECT3_vider_double(const VECT3 *v, double *t) {
  for (int i = 0; i < 3; ++i)
    t[i] = v[i];
}

VECT3_PAIRE_CINEMATIQUE *VECT3_remplir_paire_cinematique_par_position(VECT3_PAIRE_CINEMATIQUE *p,
                                                                      const double *t) {
  VECT3_remplir_double(p->position, t);
  return p;
}

VECT3_PAIRE_CINEMATIQUE *VECT3_remplir_paire_cinematique_par_axe_rot(VECT3_PAIRE_CINEMATIQUE *p,
                                                                     const double *t) {
  VECT3_remplir_double(p->axe_rot, t);
  return p;
}

void VECT3_vider_paire_cinematique_de_position(const VECT3_PAIRE_CINEMATIQUE *p, double *t) {
  VECT3_vider_double(p->position, t);
}

void VECT3_vider_paire_cinematique_de_axe_rot(const VECT3_PAIRE_CINEMATIQUE *p, double *t) {
  VECT3_vider_double(p->axe_rot, t);
}

void VECT3_afficher(const VECT3 *v) {
  std::printf("%f %f %f\n", v[0], v[1], v[2]);
}

double VECT3_norme(const VECT3 *v) {
  return std::sqrt((v[0] * v[0] + v[1] * v[1]) + v[2] * v[2]);
}

VECT3 *VECT3_plus(const VECT3 *a, const VECT3 *b, VECT3 *r) {
  for (int i = 0; i < 3; ++i)
    r[i] = a[i] + b[i];
  return r;
}

VECT3 *VECT3_moins(const VECT3 *a, const VECT3 *b, VECT3 *r) {
  for (int i = 0; i < 3; ++i)
    r[i] = a[i] - b[i];
  return r;
}

double VECT3_produit_scalaire(const VECT3 *a, const VECT3 *b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

VECT3 *VECT3_produit_vectoriel(const VECT3 *a, const VECT3 *b, VECT3 *r) {
  r[0] = a[1] * b[2] - b[1] * a[2];
  r[1] = a[2] * b[0] - b[2] * a[0];
  r[2] = a[0] * b[1] - b[0] * a[1];
  return r;
}

VECT3 *VECT3_oppose(const VECT3 *a, VECT3 *r) {
  for (int i = 0; i < 3; ++i)
    r[i] = -a[i];
  return r;
}

VECT3 *VECT3_mult_par_scalaire(const VECT3 *a, VECT3 *r, double s) {
  for (int i = 0; i < 3; ++i)
    r[i] = s * a[i];
  return r;
}

VECT3 *VECT3_mult_par_matrice(const MATD *m, const VECT3 *v, VECT3 *r) {
  const double x[3] = {v[0], v[1], v[2]}; // read whole: r may be v
  for (uint64_t i = 0; i < 3; ++i) {
    double s = 0.0;
    for (uint64_t k = 0; k < 3; ++k)
      s += at(m, i, k) * x[k];
    r[i] = s;
  }
  return r;
}

VECT3 *VECT3_mult_par_matrice_tr(const MATD *m, const VECT3 *v, VECT3 *r) {
  const double x[3] = {v[0], v[1], v[2]};
  for (uint64_t i = 0; i < 3; ++i) {
    double s = 0.0;
    for (uint64_t k = 0; k < 3; ++k)
      s += at(m, k, i) * x[k];
    r[i] = s;
  }
  return r;
}

MATD *VECT3_tr_mult_par_vecteur(const VECT3 *a, const VECT3 *b, MATD *m) {
  for (uint64_t k = 0; k < 3; ++k)
    for (uint64_t i = 0; i < 3; ++i)
      at(m, k, i) = b[k] * a[i];
  return m;
}

MATD *VECT3_matrice_antisymetrique(const VECT3 *v, MATD *m) {
  at(m, 0, 0) = 0.0;
  at(m, 0, 1) = -v[2];
  at(m, 0, 2) = v[1];
  at(m, 1, 0) = v[2];
  at(m, 1, 1) = 0.0;
  at(m, 1, 2) = -v[0];
  at(m, 2, 0) = -v[1];
  at(m, 2, 1) = v[0];
  at(m, 2, 2) = 0.0;
  return m;
}

VECT3 *VECT3_vecteur_extrait_antisymetrique(const MATD *m, VECT3 *r) {
  r[0] = at(m, 2, 1);
  r[1] = at(m, 0, 2);
  r[2] = at(m, 1, 0);
  return r;
}

void VECT3_saturateNorm(VECT3 *v, double maximum) {
  const double n = VECT3_norme(v);
  if (n == 0.0 || !(n > maximum))
    return;
  VECT3_mult_par_scalaire(v, v, maximum / n);
}

} // extern "C"
