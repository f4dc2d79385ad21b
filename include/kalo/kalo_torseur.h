/* Screws: twists (vtrans = linear velocity, vrot = angular velocity) and
 * wrenches (vtrans = moment, vrot = force; flat form force first). Frame
 * changes, saturations, the exponential of a twist, the derivative of a moving
 * displacement and the wrench of a 6 x 6 spatial spring. */
#ifndef KALO_TORSEUR_H
#define KALO_TORSEUR_H

#include "kalo_math.h"

KALO_BEGIN_DECLS

/* New zero screw, or NULL. */
KALO_API TORS *TORS_creer(void);
/* Releases the column and the record. */
KALO_API void TORS_detruire(TORS *t);
/* Twist from / to the flat form (vx, vy, vz, wx, wy, wz). */
KALO_API void TORS_remplir_vitesse_float(TORS *t, const float *v);
KALO_API void TORS_remplir_vitesse_double(TORS *t, const double *v);
KALO_API void TORS_vider_vitesse_float(const TORS *t, float *v);
KALO_API void TORS_vider_vitesse_double(const TORS *t, double *v);
/* Wrench from / to the flat form (fx, fy, fz, mx, my, mz): halves swapped. */
KALO_API void TORS_remplir_effort_float(TORS *t, const float *v);
KALO_API void TORS_remplir_effort_double(TORS *t, const double *v);
KALO_API void TORS_vider_effort_float(const TORS *t, float *v);
KALO_API void TORS_vider_effort_double(const TORS *t, double *v);
/* Copies three numbers into one half; returns that half. */
KALO_API VECT3 *TORS_remplir_vtrans(TORS *t, const double *v);
KALO_API VECT3 *TORS_remplir_vrot(TORS *t, const double *v);
/* Prints a twist: " v_trans : " vtrans " v_rot : " vrot. */
KALO_API void TORS_afficher_vitesse(const TORS *t);
/* Prints a wrench: " Forces : " vrot " Moments : " vtrans. */
KALO_API void TORS_afficher_effort(const TORS *t);

/* r = a + b, r = a - b, r = -a, r = s a (element-wise, r may be an operand). */
KALO_API TORS *TORS_plus(const TORS *a, const TORS *b, TORS *r);
KALO_API TORS *TORS_moins(const TORS *a, const TORS *b, TORS *r);
KALO_API TORS *TORS_oppose(const TORS *a, TORS *r);
KALO_API TORS *TORS_mult_par_scalaire(const TORS *a, TORS *r, double s);
/* Absolute value of each component, in place. */
KALO_API TORS *TORS_absolu(TORS *t);
/* Power pairing a.vrot . b.vtrans + a.vtrans . b.vrot. */
KALO_API double TORS_produit_scalaire(const TORS *a, const TORS *b);
/* r = a with its halves swapped (r may be a). */
KALO_API TORS *TORS_convertir_cinematique_effort(const TORS *a, TORS *r);
/* r = A t (A 6 x 6, r distinct from t). */
KALO_API TORS *TORS_mult_vitesse_par_adjointe(const TORS *t, const MATD *a, TORS *r);
/* r = M (t with halves swapped); w is work. */
KALO_API TORS *TORS_mult_vitesse_par_matrice_vers_effort(const TORS *t, const MATD *m, TORS *w, TORS *r);
/* r = transpose(A) applied to the wrench f in its internal order; w[0], w[1]
 * are work screws. */
KALO_API TORS *TORS_mult_effort_par_adjointe_transpose(const TORS *f, const MATD *a, TORS *const *w, TORS *r);
/* Both halves rotated by d.rot (the translation of d is not used). */
KALO_API TORS *TORS_changer_repere_projection(const TORS *t, const DEPL *d, TORS *r);
/* The screw moved to the point p: r.vtrans = t.vrot x p + t.vtrans. */
KALO_API TORS *TORS_changer_centre_reduction(const TORS *t, const double *p, TORS *r);
/* Moved to d.trans, then both halves rotated by the inverse of d.rot. */
KALO_API TORS *TORS_changer_centre_reduction_et_repere_projection(const TORS *t, const DEPL *d, TORS *r);

/* Clamps each component to [min, max], the lower bound last. Returns t. */
KALO_API TORS *TORS_saturer(TORS *t, const TORS *max, const TORS *min);
/* Scales each half uniformly so that no component passes its bounds (a zero
 * upper bound zeroes its component); *sature = 1 when scaled. Returns t. */
KALO_API TORS *TORS_saturer_homogene(TORS *t, const TORS *max, const TORS *min, uint32_t *sature);
/* d = the displacement reached along the twist t (unit angular part) for the
 * parameter theta. s, r: 3 x 3 work; w: work 3 x 3 matrices (indices 0, 2,
 * 5, 6, 7); v: four work vectors; identite: the 3 x 3 identity. */
KALO_API DEPL *TORS_exponentiel(const TORS *t, DEPL *d, MATD *s, MATD *const *w, VECT3 *const *v,
                                const MATD *identite, MATD *r, double theta);
/* r = filtered velocity twist of the moving displacement d (previous value
 * d_prev) in the reference frame; the others are work records: min_, mout
 * 6 x 1, a 6 x 6 (bottom-left block zero), s, rot, p 3 x 3. */
KALO_API TORS *TORS_deriver_deplacement(const DEPL *d, const DEPL *d_prev, DEPL *d_travail,
                                        MATD *min_, MATD *mout, TSIG_FILTRE *filtre, TORS *t,
                                        TORS *t_corps, TORS *r, MATD *a, MATD *s, MATD *rot,
                                        MATD *p);
/* w = wrench of the 6 x 6 spatial spring k stretched by d. W: seven work
 * 3 x 3 matrices; identite: the 3 x 3 identity; the others 3 x 3 work
 * matrices and two work vectors. The fifth argument is not used. */
KALO_API TORS *TORS_calculer_effort(const MATD *k, const DEPL *d, TORS *w, MATD *const *W,
                                    void *inutilise, const MATD *identite, MATD *r, MATD *rt,
                                    MATD *t, MATD *ktt, MATD *koo, MATD *kot, MATD *gtt, MATD *goo,
                                    MATD *got, MATD *e1, MATD *e2, VECT3 *v1, VECT3 *v2);

KALO_END_DECLS

#endif
