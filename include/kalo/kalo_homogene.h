/* Matrix-only forms built on MATD: 4 x 4 homogeneous transforms (row stride 4,
 * rotation operands with row stride 3), 6 x 1 twist columns (rotation first:
 * elements 0..2 angular, 3..5 linear), wrench columns (0..2 moment, 3..5
 * force), 4 x 4 twist matrices, their adjoint and exponentials. */
#ifndef KALO_HOMOGENE_H
#define KALO_HOMOGENE_H

#include "kalo_math.h"

KALO_BEGIN_DECLS

/* New 4 x 4 identity, or NULL. */
KALO_API MATD *MATD_creer_homogene(void);
/* New zero 6 x 1 twist / wrench column, or NULL. */
KALO_API MATD *MATD_creer_twist(void);
KALO_API MATD *MATD_creer_wrench(void);
/* New 4 x 4 twist matrix, zero except element (3, 3), which is left unset. */
KALO_API MATD *MATD_creer_twisttilde(void);
/* Release (MATD_detruire). */
KALO_API void MATD_detruire_homogene(MATD *h);
KALO_API void MATD_detruire_twist(MATD *t);
KALO_API void MATD_detruire_twisttilde(MATD *t);
KALO_API void MATD_detruire_wrench(MATD *w);

/* Translation column / rotation block in and out of a homogeneous matrix. */
KALO_API MATD *MATD_remplir_homogene_par_trans(MATD *h, const MATD *t);
KALO_API MATD *MATD_remplir_homogene_par_rot(MATD *h, const MATD *r);
KALO_API MATD *MATD_vider_trans_homogene(const MATD *h, MATD *t);
KALO_API MATD *MATD_vider_rot_homogene(const MATD *h, MATD *r);
/* Halves of a twist column (v: three contiguous numbers). */
KALO_API MATD *MATD_remplir_twist_par_vtrans(MATD *x, const MATD *v);
KALO_API MATD *MATD_remplir_twist_par_vrot(MATD *x, const MATD *v);
KALO_API MATD *MATD_vider_twist_vtrans(const MATD *x, MATD *v);
KALO_API MATD *MATD_vider_twist_vrot(const MATD *x, MATD *v);
/* Halves of a wrench column. */
KALO_API MATD *MATD_remplir_wrench_par_force(MATD *w, const MATD *v);
KALO_API MATD *MATD_remplir_wrench_par_moment(MATD *w, const MATD *v);
KALO_API MATD *MATD_vider_wrench_force(const MATD *w, MATD *v);
KALO_API MATD *MATD_vider_wrench_moment(const MATD *w, MATD *v);
/* Linear part / cross-product block of a twist matrix. */
KALO_API MATD *MATD_remplir_twisttilde_par_vtrans(MATD *x, const MATD *v);
KALO_API MATD *MATD_vider_twisttilde_vtrans(const MATD *x, MATD *v);
KALO_API MATD *MATD_remplir_twisttilde_par_vrottilde(MATD *x, const MATD *s);
KALO_API MATD *MATD_vider_twisttilde_vrottilde(const MATD *x, MATD *s);
/* s = cross-product matrix of v; s(1, 1) and s(2, 2) are not written. */
KALO_API MATD *MATD_antisymetrique_3(const MATD *v, MATD *s);
/* v = (s(2, 1), s(0, 2), s(1, 0)). */
KALO_API MATD *MATD_vecteur_extrait_antisymetrique_3(const MATD *s, MATD *v);
/* Element-wise sine / cosine. */
KALO_API MATD *MATD_sin(const MATD *a, MATD *r);
KALO_API MATD *MATD_cos(const MATD *a, MATD *r);

/* c = a b for rows 0..2 (row 3 of c not written; c distinct from a, b). */
KALO_API MATD *MATD_mult_homogene(const MATD *a, const MATD *b, MATD *c);
/* hi = inverse of h (row 3 not written); r, t, u are work. */
KALO_API MATD *MATD_inverse_homogene(const MATD *h, MATD *hi, MATD *r, MATD *t, MATD *u);
/* c[i] takes the pointer h[i]; c[k] = c[k-1] h[k] for k = i+1..j; returns c[j]. */
KALO_API MATD *MATD_chainage_homogene(MATD *const *h, int32_t i, int32_t j, MATD **c);
/* Adjoint (6 x 6) for twist columns: top-left R, bottom-left [t]x R,
 * bottom-right R; the top-right block is not written. */
KALO_API MATD *MATD_homogene_adjointe(const MATD *h, MATD *a, MATD *s, MATD *r, MATD *t, MATD *p);
/* r = exp(theta s) = I + sin(theta) s + (1 - cos(theta)) s s for the
 * cross-product matrix s of a unit axis; w[2], w[5..7] are 3 x 3 work. */
KALO_API MATD *MATD_exponentiel_matrice_antisymetrique(const MATD *s, MATD *r, MATD *const *w,
                                                       const MATD *identite, float theta);
/* h = homogeneous transform reached along the twist column xi for theta.
 * Work: w[0], w[2], w[5..7] 3 x 3, w[1] 1 x 1; x[0..3] 3 x 1; t 1 x 3;
 * v, omega, p 3 x 1; s, r 3 x 3 (s with a zero diagonal). */
KALO_API MATD *MATD_exponentiel_twist(const MATD *xi, MATD *h, MATD *const *w, MATD *const *x,
                                      MATD *t, const MATD *identite, MATD *v, MATD *omega, MATD *s,
                                      MATD *p, MATD *r, float theta);
/* w = wrench column of the 6 x 6 spatial spring k stretched by h: force
 * elements 3..5 from the vector of the force matrix, moment elements 0..2 =
 * row 0 of the moment matrix. The fifth and eighteenth arguments are not used. */
KALO_API MATD *MATD_calculer_wrench(const MATD *k, const MATD *h, MATD *w, MATD *const *W,
                                    void *inutilise, const MATD *identite, MATD *r, MATD *rt,
                                    MATD *tv, MATD *t, MATD *ktt, MATD *koo, MATD *kot, MATD *gtt,
                                    MATD *goo, MATD *got, MATD *e1, void *inutilise2, MATD *fv,
                                    MATD *e2);

KALO_END_DECLS

#endif
