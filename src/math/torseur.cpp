// Screws (TORS_*): twists and wrenches in one 6 x 1 column with two aliasing
// halves. A twist holds (v, w); a wrench holds (moment, force), so that the
// power pairing is a cross pairing of halves and a twist becomes a wrench by
// swapping them.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "kalo/kalo_math.h"
#include "kalo/kalo_signal.h"
#include "math/spring_internal.h"

namespace {
constexpr double kSmallRotation = 1e-7; // below this |w| the exponential is a translation

// r = a with its halves swapped; a is read whole first, so r may be a.
void swap_halves(const TORS *a, TORS *r) {
  double v[6];
  for (int i = 0; i < 6; ++i)
    v[i] = a->vecteur->donnees[i];
  for (int i = 0; i < 3; ++i) {
    r->vtrans[i] = v[i + 3];
    r->vrot[i] = v[i];
  }
}

// G = 0.5 trace(x) I - x, the co-stiffness of a stiffness block.
void co_stiffness(const MATD *x, const MATD *identite, MATD *work, MATD *g) {
  MATD_mult_par_scalaire(identite, work, 0.5 * MATD_trace(x));
  MATD_moins(work, x, g);
}
} // namespace

namespace kalo::math {

void spring_matrices(const MATD *k, const SpringWork &s) {
  MATD *const *w = s.w;
  MATD_extraire(k, 3, 5, 3, 5, s.ktt);
  MATD_extraire(k, 0, 2, 0, 2, s.koo);
  MATD_extraire(k, 0, 2, 3, 5, s.kot);
  co_stiffness(s.ktt, s.identite, w[0], s.gtt);
  co_stiffness(s.koo, s.identite, w[0], s.goo);
  co_stiffness(s.kot, s.identite, w[0], s.got);

  // Force: -A1 - (A2 + A3).
  MATD_mult(s.gtt, s.t, w[1]); // A1 = Rt as(Gtt T) R
  MATD_antisymetrique_extraite_mat_carre(w[1], w[2]);
  MATD_mult(s.rt, w[2], w[3]);
  MATD_mult(w[3], s.r, w[4]);
  MATD_mult(s.gtt, s.rt, w[1]); // A2 = as(Gtt Rt T R)
  MATD_mult(w[1], s.t, w[2]);
  MATD_mult(w[2], s.r, w[3]);
  MATD_antisymetrique_extraite_mat_carre(w[3], w[5]);
  MATD_mult_par_scalaire(s.got, w[1], 2.0); // A3 = as(2 Got R)
  MATD_mult(w[1], s.r, w[2]);
  MATD_antisymetrique_extraite_mat_carre(w[2], w[6]);
  MATD_plus(w[5], w[6], s.e2);
  MATD_mult_par_scalaire(w[4], s.e1, -1.0);
  MATD_moins(s.e1, s.e2, s.e1);

  // Moment: -2 B1 - (B2 + 2 B3).
  MATD_mult(s.goo, s.r, w[1]); // B1 = as(Goo R)
  MATD_antisymetrique_extraite_mat_carre(w[1], w[2]);
  MATD_mult(s.gtt, s.rt, w[1]); // B2 = as(Gtt Rt T T R)
  MATD_mult(w[1], s.t, w[3]);
  MATD_mult(w[3], s.t, w[1]);
  MATD_mult(w[1], s.r, w[3]);
  MATD_antisymetrique_extraite_mat_carre(w[3], w[4]);
  MATD_mult(s.got, s.t, w[1]); // B3 = as(Got T R)
  MATD_mult(w[1], s.r, w[3]);
  MATD_antisymetrique_extraite_mat_carre(w[3], w[5]);
  MATD_mult_par_scalaire(w[5], w[6], 2.0);
  MATD_plus(w[4], w[6], w[3]);
  MATD_mult_par_scalaire(w[2], s.e2, -2.0);
  MATD_moins(s.e2, w[3], s.e2);
}

} // namespace kalo::math

extern "C" {

TORS *TORS_creer(void) {
  auto *t = static_cast<TORS *>(std::malloc(sizeof(TORS)));
  if (t == nullptr)
    return nullptr;
  t->vecteur = MATD_creer(6, 1);
  if (t->vecteur == nullptr)
    return nullptr; // NOLINT(clang-analyzer-unix.Malloc): what was allocated stays, as documented
  t->vtrans = t->vecteur->donnees;
  t->vrot = t->vecteur->donnees + 3;
  return t;
}

void TORS_detruire(TORS *t) {
  if (t == nullptr)
    return;
  MATD_detruire(t->vecteur);
  std::free(t);
}

void TORS_remplir_vitesse_float(TORS *t, const float *v) {
  VECT3_remplir_float(t->vtrans, v);
  VECT3_remplir_float(t->vrot, v + 3);
}

void TORS_remplir_vitesse_double(TORS *t, const double *v) {
  VECT3_remplir_double(t->vtrans, v);
  VECT3_remplir_double(t->vrot, v + 3);
}

void TORS_vider_vitesse_float(const TORS *t, float *v) {
  VECT3_vider_float(t->vtrans, v);
  VECT3_vider_float(t->vrot, v + 3);
}

void TORS_vider_vitesse_double(const TORS *t, double *v) {
  VECT3_vider_double(t->vtrans, v);
  VECT3_vider_double(t->vrot, v + 3);
}

void TORS_remplir_effort_float(TORS *t, const float *v) {
  VECT3_remplir_float(t->vrot, v);
  VECT3_remplir_float(t->vtrans, v + 3);
}

void TORS_remplir_effort_double(TORS *t, const double *v) {
  VECT3_remplir_double(t->vrot, v);
  VECT3_remplir_double(t->vtrans, v + 3);
}

void TORS_vider_effort_float(const TORS *t, float *v) {
  VECT3_vider_float(t->vrot, v);
  VECT3_vider_float(t->vtrans, v + 3);
}

void TORS_vider_effort_double(const TORS *t, double *v) {
  VECT3_vider_double(t->vrot, v);
  VECT3_vider_double(t->vtrans, v + 3);
}

VECT3 *TORS_remplir_vtrans(TORS *t, const double *v) {
  VECT3_remplir_double(t->vtrans, v);
  return t->vtrans;
}

VECT3 *TORS_remplir_vrot(TORS *t, const double *v) {
  VECT3_remplir_double(t->vrot, v);
  return t->vrot;
}

void TORS_afficher_vitesse(const TORS *t) {
  std::printf(" v_trans : ");
  VECT3_afficher(t->vtrans);
  std::printf(" v_rot : ");
  VECT3_afficher(t->vrot);
}

void TORS_afficher_effort(const TORS *t) {
  std::printf(" Forces : ");
  VECT3_afficher(t->vrot);
  std::printf(" Moments : ");
  VECT3_afficher(t->vtrans);
}

TORS *TORS_plus(const TORS *a, const TORS *b, TORS *r) {
  MATD_plus(a->vecteur, b->vecteur, r->vecteur);
  return r;
}

TORS *TORS_moins(const TORS *a, const TORS *b, TORS *r) {
  MATD_moins(a->vecteur, b->vecteur, r->vecteur);
  return r;
}

TORS *TORS_oppose(const TORS *a, TORS *r) {
  VECT3_oppose(a->vtrans, r->vtrans);
  VECT3_oppose(a->vrot, r->vrot);
  return r;
}

TORS *TORS_mult_par_scalaire(const TORS *a, TORS *r, double s) {
  VECT3_mult_par_scalaire(a->vtrans, r->vtrans, s);
  VECT3_mult_par_scalaire(a->vrot, r->vrot, s);
  return r;
}

TORS *TORS_absolu(TORS *t) {
  for (int i = 0; i < 6; ++i)
    t->vecteur->donnees[i] = std::fabs(t->vecteur->donnees[i]);
  return t;
}

double TORS_produit_scalaire(const TORS *a, const TORS *b) {
  return VECT3_produit_scalaire(a->vrot, b->vtrans) + VECT3_produit_scalaire(a->vtrans, b->vrot);
}

TORS *TORS_convertir_cinematique_effort(const TORS *a, TORS *r) {
  swap_halves(a, r);
  return r;
}

TORS *TORS_mult_vitesse_par_adjointe(const TORS *t, const MATD *a, TORS *r) {
  MATD_mult(a, t->vecteur, r->vecteur);
  return r;
}

TORS *TORS_mult_vitesse_par_matrice_vers_effort(const TORS *t, const MATD *m, TORS *w, TORS *r) {
  swap_halves(t, w);
  MATD_mult(m, w->vecteur, r->vecteur);
  return r;
}

TORS *TORS_mult_effort_par_adjointe_transpose(const TORS *f, const MATD *a, TORS *const *w,
                                              TORS *r) {
  swap_halves(f, w[0]);
  MATD_tr_mult(a, w[0]->vecteur, w[1]->vecteur);
  swap_halves(w[1], r);
  return r;
}

TORS *TORS_changer_repere_projection(const TORS *t, const DEPL *d, TORS *r) {
  QUAT_rot_vecteur(d->rot, t->vtrans, r->vtrans);
  QUAT_rot_vecteur(d->rot, t->vrot, r->vrot);
  return r;
}

TORS *TORS_changer_centre_reduction(const TORS *t, const double *p, TORS *r) {
  double m[3];
  VECT3_produit_vectoriel(t->vrot, p, m);
  VECT3_plus(m, t->vtrans, r->vtrans);
  if (r != t)
    VECT3_remplir_double(r->vrot, t->vrot);
  return r;
}

TORS *TORS_changer_centre_reduction_et_repere_projection(const TORS *t, const DEPL *d, TORS *r) {
  TORS_changer_centre_reduction(t, d->trans, r);
  QUAT_inv_rot_vecteur(d->rot, r->vtrans, r->vtrans);
  QUAT_inv_rot_vecteur(d->rot, r->vrot, r->vrot);
  return r;
}

TORS *TORS_saturer(TORS *t, const TORS *max, const TORS *min) {
  double *x = t->vecteur->donnees;
  const double *hi = max->vecteur->donnees;
  const double *lo = min->vecteur->donnees;
  for (int k = 0; k < 6; ++k) {
    if (x[k] > hi[k])
      x[k] = hi[k];
    if (lo[k] > x[k])
      x[k] = lo[k];
  }
  return t;
}

TORS *TORS_saturer_homogene(TORS *t, const TORS *max, const TORS *min, uint32_t *sature) {
  double *x = t->vecteur->donnees;
  const double *hi = max->vecteur->donnees;
  const double *lo = min->vecteur->donnees;
  *sature = 0;
  double kt = 1.0, kr = 1.0;
  double rt = 1.0, rr = 1.0; // running ratios, kept from one step to the next
  const auto compare = [&] {
    if (rt > kt) {
      kt = rt;
      *sature = 1;
    }
    if (rr > kr) {
      kr = rr;
      *sature = 1;
    }
  };
  for (int i = 0; i < 3; ++i) {
    if (hi[i] == 0.0)
      x[i] = 0.0;
    else
      rt = x[i] / hi[i];
    if (hi[i + 3] == 0.0)
      x[i + 3] = 0.0;
    else
      rr = x[i + 3] / hi[i + 3];
    compare();
    if (lo[i] != 0.0)
      rt = x[i] / lo[i];
    if (lo[i + 3] != 0.0)
      rr = x[i + 3] / lo[i + 3];
    compare();
  }
  for (int i = 0; i < 3; ++i) {
    x[i] /= kt;
    x[i + 3] /= kr;
  }
  return t;
}

DEPL *TORS_exponentiel(const TORS *t, DEPL *d, MATD *s, MATD *const *w, VECT3 *const *v,
                       const MATD *identite, MATD *r, double theta) {
  const VECT3 *omega = t->vrot;
  const VECT3 *lin = t->vtrans;
  if (VECT3_norme(omega) < kSmallRotation) {
    MATD_ra_identite(r);
    VECT3_mult_par_scalaire(lin, d->trans, theta);
  } else {
    VECT3_matrice_antisymetrique(omega, s);
    // The angle goes through single precision here, as the rotation
    // exponential takes it.
    MATD_exponentiel_matrice_antisymetrique(s, r, w, identite, static_cast<float>(theta));
    VECT3_tr_mult_par_vecteur(omega, omega, w[0]);
    VECT3_mult_par_matrice(w[0], lin, v[2]);
    VECT3_mult_par_scalaire(v[2], v[3], theta);
    VECT3_mult_par_matrice(s, lin, v[0]);
    MATD_moins(identite, r, w[0]);
    VECT3_mult_par_matrice(w[0], v[0], v[1]);
    VECT3_plus(v[1], v[3], d->trans);
  }
  QUAT_convertir_matrice_en_quaternion(r, d->rot);
  return d;
}

TORS *TORS_deriver_deplacement(const DEPL *d, const DEPL *d_prev, DEPL *d_travail, MATD *min_,
                               MATD *mout, TSIG_FILTRE *filtre, TORS *t, TORS *t_corps, TORS *r,
                               MATD *a, MATD *s, MATD *rot, MATD *p) {
  VECT3_moins(d->trans, d_prev->trans, t->vtrans);
  QUAT_delta(d->rot, d_prev->rot, t->vrot);
  TORS_mult_par_scalaire(t, t, 1.0 / TSIG_periode_echantillon(filtre));
  MATD_remplir(min_, t->vecteur->donnees);
  TSIG_filtre_calculer(filtre, min_, mout);
  const uint64_t n = mout->nb_lignes * mout->nb_colonnes;
  for (uint64_t k = 0; k < n && k < 6; ++k)
    t->vecteur->donnees[k] = mout->donnees[k];
  DEPL_inverse(d, d_travail);
  TORS_changer_repere_projection(t, d_travail, t_corps);
  DEPL_adjoint(d, a, s, rot, p);
  return TORS_mult_vitesse_par_adjointe(t_corps, a, r);
}

TORS *TORS_calculer_effort(const MATD *k, const DEPL *d, TORS *w, MATD *const *W, void *inutilise,
                           const MATD *identite, MATD *r, MATD *rt, MATD *t, MATD *ktt, MATD *koo,
                           MATD *kot, MATD *gtt, MATD *goo, MATD *got, MATD *e1, MATD *e2,
                           VECT3 *v1, VECT3 *v2) {
  (void)inutilise;
  QUAT_convertir_quaternion_en_matrice(d->rot, r);
  MATD_transpose(r, rt);
  VECT3_matrice_antisymetrique(d->trans, t);
  kalo::math::spring_matrices(k, {identite, W, r, rt, t, ktt, koo, kot, gtt, goo, got, e1, e2});
  VECT3_vecteur_extrait_antisymetrique(e1, v1);
  VECT3_vecteur_extrait_antisymetrique(e2, v2);
  VECT3_remplir_double(w->vrot, v1);
  VECT3_remplir_double(w->vtrans, v2);
  return w;
}

} // extern "C"
