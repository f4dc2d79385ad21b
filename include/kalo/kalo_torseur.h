/**
 * @file kalo_torseur.h
 * @brief Screws: twists and wrenches, their changes of frame, saturations,
 *        the exponential of a twist, the derivative of a moving displacement
 *        and the wrench of a 6 x 6 spatial spring.
 *
 * A twist holds the linear velocity (m/s) in vtrans and the angular velocity
 * (rad/s) in vrot; its flat form is vx, vy, vz, wx, wy, wz. A wrench holds the
 * moment (N.m) in vtrans and the force (N) in vrot, while its flat form is force
 * first: fx, fy, fz, mx, my, mz; the _effort_ copies swap the halves.
 */
#ifndef KALO_TORSEUR_H
#define KALO_TORSEUR_H

#include "kalo_math.h"

KALO_BEGIN_DECLS

/**
 * @defgroup kalo_math_tors Twists and wrenches
 * @brief TORS records: screws, their frames and saturations.
 * @{
 */
/**
 * @brief New zero screw.
 * @return The screw, or NULL when memory is short. Release it with
 *         TORS_detruire().
 */
KALO_API TORS *TORS_creer(void);
/**
 * @brief Releases the column and the record.
 * @param[in] t The screw made by TORS_creer().
 */
KALO_API void TORS_detruire(TORS *t);
/**
 * @brief Twist from its flat form, widened to double.
 * @param[out] t The screw to fill.
 * @param[in] v vx, vy, vz (m/s), then wx, wy, wz (rad/s).
 */
KALO_API void TORS_remplir_vitesse_float(TORS *t, const float *v);
/**
 * @brief Twist from its flat form.
 * @param[out] t The screw to fill.
 * @param[in] v vx, vy, vz (m/s), then wx, wy, wz (rad/s).
 */
KALO_API void TORS_remplir_vitesse_double(TORS *t, const double *v);
/**
 * @brief Flat form of a twist, narrowed to float.
 * @param[in] t The twist.
 * @param[out] v Receives vx, vy, vz (m/s), then wx, wy, wz (rad/s).
 */
KALO_API void TORS_vider_vitesse_float(const TORS *t, float *v);
/**
 * @brief Flat form of a twist.
 * @param[in] t The twist.
 * @param[out] v Receives vx, vy, vz (m/s), then wx, wy, wz (rad/s).
 */
KALO_API void TORS_vider_vitesse_double(const TORS *t, double *v);
/**
 * @brief Wrench from its flat form (force first), widened to double; the halves
 *        are swapped into the internal order.
 * @param[out] t The screw to fill.
 * @param[in] v fx, fy, fz (N), then mx, my, mz (N.m).
 */
KALO_API void TORS_remplir_effort_float(TORS *t, const float *v);
/**
 * @brief Wrench from its flat form (force first); the halves are swapped into
 *        the internal order.
 * @param[out] t The screw to fill.
 * @param[in] v fx, fy, fz (N), then mx, my, mz (N.m).
 */
KALO_API void TORS_remplir_effort_double(TORS *t, const double *v);
/**
 * @brief Flat form of a wrench (force first), narrowed to float.
 * @param[in] t The wrench.
 * @param[out] v Receives fx, fy, fz (N), then mx, my, mz (N.m).
 */
KALO_API void TORS_vider_effort_float(const TORS *t, float *v);
/**
 * @brief Flat form of a wrench (force first).
 * @param[in] t The wrench.
 * @param[out] v Receives fx, fy, fz (N), then mx, my, mz (N.m).
 */
KALO_API void TORS_vider_effort_double(const TORS *t, double *v);
/**
 * @brief Copies three numbers into the vtrans half (linear velocity, or
 *        moment).
 * @param[in,out] t The screw.
 * @param[in] v Three doubles.
 * @return The vtrans half of t.
 */
KALO_API VECT3 *TORS_remplir_vtrans(TORS *t, const double *v);
/**
 * @brief Copies three numbers into the vrot half (angular velocity, or force).
 * @param[in,out] t The screw.
 * @param[in] v Three doubles.
 * @return The vrot half of t.
 */
KALO_API VECT3 *TORS_remplir_vrot(TORS *t, const double *v);
/**
 * @brief Prints a twist on standard output: " v_trans : ", vtrans, " v_rot : ",
 *        vrot.
 * @param[in] t The twist.
 */
KALO_API void TORS_afficher_vitesse(const TORS *t);
/**
 * @brief Prints a wrench on standard output: " Forces : ", vrot, " Moments : ",
 *        vtrans.
 * @param[in] t The wrench.
 */
KALO_API void TORS_afficher_effort(const TORS *t);

/**
 * @brief r = a + b, element by element.
 * @param[in] a First operand.
 * @param[in] b Second operand.
 * @param[out] r Receives the sum; may be a or b.
 * @return r.
 */
KALO_API TORS *TORS_plus(const TORS *a, const TORS *b, TORS *r);
/**
 * @brief r = a - b, element by element.
 * @param[in] a First operand.
 * @param[in] b Operand subtracted.
 * @param[out] r Receives the difference; may be a or b.
 * @return r.
 */
KALO_API TORS *TORS_moins(const TORS *a, const TORS *b, TORS *r);
/**
 * @brief r = -a.
 * @param[in] a The operand.
 * @param[out] r Receives the opposite; may be a.
 * @return r.
 */
KALO_API TORS *TORS_oppose(const TORS *a, TORS *r);
/**
 * @brief r = s a.
 * @param[in] a The screw.
 * @param[out] r Receives the product; may be a.
 * @param[in] s The scalar.
 * @return r.
 */
KALO_API TORS *TORS_mult_par_scalaire(const TORS *a, TORS *r, double s);
/**
 * @brief Replaces each component by its absolute value.
 * @param[in,out] t The screw.
 * @return t.
 */
KALO_API TORS *TORS_absolu(TORS *t);
/**
 * @brief Power pairing of a twist and a wrench: a.vrot . b.vtrans + a.vtrans .
 *        b.vrot.
 * @param[in] a First screw.
 * @param[in] b Second screw.
 * @return The pairing (W for a twist with a wrench).
 */
KALO_API double TORS_produit_scalaire(const TORS *a, const TORS *b);
/**
 * @brief r = a with its halves swapped (between the twist order and the wrench
 *        order).
 * @param[in] a The screw.
 * @param[out] r Receives the swapped screw; may be a.
 * @return r.
 */
KALO_API TORS *TORS_convertir_cinematique_effort(const TORS *a, TORS *r);
/**
 * @brief r = A t: a twist carried by a 6 x 6 adjoint (DEPL_adjoint()).
 * @param[in] t The twist.
 * @param[in] a The 6 x 6 matrix.
 * @param[out] r Receives the product; distinct from t.
 * @return r.
 */
KALO_API TORS *TORS_mult_vitesse_par_adjointe(const TORS *t, const MATD *a, TORS *r);
/**
 * @brief r = M (t with its halves swapped): a twist through a 6 x 6 matrix (a
 *        damping, say) to a wrench in the internal order.
 * @param[in] t The twist.
 * @param[in] m The 6 x 6 matrix, rotation first.
 * @param[out] w Work screw.
 * @param[out] r Receives the wrench; distinct from t and w.
 * @return r.
 */
KALO_API TORS *TORS_mult_vitesse_par_matrice_vers_effort(const TORS *t, const MATD *m, TORS *w,
                                                         TORS *r);
/**
 * @brief r = transpose(A) applied to a wrench held in its internal order: the
 *        dual of TORS_mult_vitesse_par_adjointe().
 * @param[in] f The wrench.
 * @param[in] a The 6 x 6 adjoint.
 * @param[out] w Two work screws, w[0] and w[1].
 * @param[out] r Receives the wrench; distinct from f.
 * @return r.
 */
KALO_API TORS *TORS_mult_effort_par_adjointe_transpose(const TORS *f, const MATD *a, TORS *const *w,
                                                       TORS *r);
/**
 * @brief Projects a screw on other axes: both halves rotated by d.rot (the
 *        translation of d is not used).
 * @param[in] t The screw.
 * @param[in] d The displacement whose rotation is applied.
 * @param[out] r Receives the screw; distinct from t.
 * @return r.
 */
KALO_API TORS *TORS_changer_repere_projection(const TORS *t, const DEPL *d, TORS *r);
/**
 * @brief Moves a screw to another reference point: r.vrot = t.vrot, r.vtrans =
 *        t.vrot x p + t.vtrans (the velocity of the point, or the moment about
 *        it).
 * @param[in] t The screw.
 * @param[in] p The new point's x, y, z (m).
 * @param[out] r Receives the screw; distinct from t.
 * @return r.
 */
KALO_API TORS *TORS_changer_centre_reduction(const TORS *t, const double *p, TORS *r);
/**
 * @brief Moves a screw to d.trans (TORS_changer_centre_reduction()), then
 *        rotates both halves by the inverse of d.rot: the screw expressed in
 *        the moving frame of d.
 * @param[in] t The screw.
 * @param[in] d The displacement.
 * @param[out] r Receives the screw; distinct from t.
 * @return r.
 */
KALO_API TORS *TORS_changer_centre_reduction_et_repere_projection(const TORS *t, const DEPL *d,
                                                                  TORS *r);

/**
 * @brief Clamps each component to [min, max], the upper bound first, so that a
 *        min above max wins.
 * @param[in,out] t The screw.
 * @param[in] max The upper bounds.
 * @param[in] min The lower bounds.
 * @return t.
 */
KALO_API TORS *TORS_saturer(TORS *t, const TORS *max, const TORS *min);
/**
 * @brief Scales each half of t uniformly so that no component passes its
 *        bounds, keeping each half's direction.
 *
 * A zero upper bound zeroes its component.
 * @param[in,out] t The screw.
 * @param[in] max The upper bounds.
 * @param[in] min The lower bounds.
 * @param[out] sature Receives 1 when t was scaled, else 0.
 * @return t.
 */
KALO_API TORS *TORS_saturer_homogene(TORS *t, const TORS *max, const TORS *min, uint32_t *sature);
/**
 * @brief The displacement reached by moving along a twist: d = exp(theta t).
 * @param[in] t The twist, with a unit (or zero) angular part.
 * @param[out] d Receives the displacement.
 * @param[out] s 3 x 3 work matrix.
 * @param[out] w Work 3 x 3 matrices; indices 0, 2, 5, 6 and 7 are used.
 * @param[out] v Four work vectors.
 * @param[in] identite The 3 x 3 identity.
 * @param[out] r 3 x 3 work matrix.
 * @param[in] theta The parameter: radians for a rotation, metres along a pure
 *        translation.
 * @return d.
 */
KALO_API DEPL *TORS_exponentiel(const TORS *t, DEPL *d, MATD *s, MATD *const *w, VECT3 *const *v,
                                const MATD *identite, MATD *r, double theta);
/**
 * @brief The filtered velocity twist of a moving displacement, in the reference
 *        frame.
 *
 * The difference from the previous displacement, divided by the filter's sampling period, passes
 * the first-order filter, then is brought to the reference frame.
 * @param[in] d The displacement now.
 * @param[in] d_prev The displacement one sampling period earlier.
 * @param[out] d_travail Work displacement.
 * @param[out] min_ Work 6 x 1 matrix (the filter's input).
 * @param[out] mout Work 6 x 1 matrix (the filter's output).
 * @param[in,out] filtre The filter (kalo_signal.h), whose period is the
 *        sampling period.
 * @param[out] t Work screw.
 * @param[out] t_corps Work screw.
 * @param[out] r Receives the twist: m/s, then rad/s.
 * @param[out] a Work 6 x 6 matrix, its bottom-left block zero.
 * @param[out] s 3 x 3 work matrix.
 * @param[out] rot 3 x 3 work matrix.
 * @param[out] p 3 x 3 work matrix.
 * @return r.
 */
KALO_API TORS *TORS_deriver_deplacement(const DEPL *d, const DEPL *d_prev, DEPL *d_travail,
                                        MATD *min_, MATD *mout, TSIG_FILTRE *filtre, TORS *t,
                                        TORS *t_corps, TORS *r, MATD *a, MATD *s, MATD *rot,
                                        MATD *p);
/**
 * @brief The wrench of a 6 x 6 spatial spring of stiffness k stretched by the
 *        displacement d.
 * @param[in] k The 6 x 6 stiffness, rotation first (N.m/rad, N/m).
 * @param[in] d The displacement stretching the spring.
 * @param[out] w Receives the wrench (internal order: moment in vtrans, force in
 *        vrot).
 * @param[out] W Seven work 3 x 3 matrices.
 * @param[in] inutilise Not used.
 * @param[in] identite The 3 x 3 identity.
 * @param[out] r 3 x 3 work matrix.
 * @param[out] rt 3 x 3 work matrix.
 * @param[out] t 3 x 3 work matrix.
 * @param[out] ktt 3 x 3 work matrix.
 * @param[out] koo 3 x 3 work matrix.
 * @param[out] kot 3 x 3 work matrix.
 * @param[out] gtt 3 x 3 work matrix.
 * @param[out] goo 3 x 3 work matrix.
 * @param[out] got 3 x 3 work matrix.
 * @param[out] e1 3 x 3 work matrix.
 * @param[out] e2 3 x 3 work matrix.
 * @param[out] v1 Work vector.
 * @param[out] v2 Work vector.
 * @return w.
 */
KALO_API TORS *TORS_calculer_effort(const MATD *k, const DEPL *d, TORS *w, MATD *const *W,
                                    void *inutilise, const MATD *identite, MATD *r, MATD *rt,
                                    MATD *t, MATD *ktt, MATD *koo, MATD *kot, MATD *gtt, MATD *goo,
                                    MATD *got, MATD *e1, MATD *e2, VECT3 *v1, VECT3 *v2);
/** @} */

KALO_END_DECLS

#endif
