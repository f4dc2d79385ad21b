/**
 * @file kalo_homogene.h
 * @brief Matrix-only forms built on MATD: 4 x 4 homogeneous transforms, twist
 *        and wrench columns, 4 x 4 twist matrices, their adjoint and
 *        exponentials.
 *
 * Layouts: a homogeneous transform is 4 x 4 (rotation block, translation
 * column in metres, last row 0, 0, 0, 1); rotation operands are 3 x 3. A twist
 * column is 6 x 1, rotation first: elements 0..2 angular (rad/s), 3..5 linear
 * (m/s). A wrench column is 6 x 1: elements 0..2 moment (N.m), 3..5 force (N).
 */
#ifndef KALO_HOMOGENE_H
#define KALO_HOMOGENE_H

#include "kalo_math.h"

KALO_BEGIN_DECLS

/**
 * @defgroup kalo_math_homogene Homogeneous matrices
 * @brief Homogeneous transforms, twist and wrench columns, twist matrices,
 *        adjoints and exponentials on plain MATD.
 * @{
 */
/**
 * @brief New 4 x 4 identity.
 * @return The matrix, or NULL when memory is short. Release it with
 *         MATD_detruire_homogene().
 */
KALO_API MATD *MATD_creer_homogene(void);
/**
 * @brief New zero twist column (6 x 1).
 * @return The column, or NULL when memory is short.
 */
KALO_API MATD *MATD_creer_twist(void);
/**
 * @brief New zero wrench column (6 x 1).
 * @return The column, or NULL when memory is short.
 */
KALO_API MATD *MATD_creer_wrench(void);
/**
 * @brief New 4 x 4 twist matrix, zero except element (3, 3), which is left
 *        unset and never read.
 * @return The matrix, or NULL when memory is short.
 */
KALO_API MATD *MATD_creer_twisttilde(void);
/**
 * @brief Releases a homogeneous matrix (MATD_detruire()).
 * @param[in] h The matrix.
 */
KALO_API void MATD_detruire_homogene(MATD *h);
/**
 * @brief Releases a twist column (MATD_detruire()).
 * @param[in] t The column.
 */
KALO_API void MATD_detruire_twist(MATD *t);
/**
 * @brief Releases a twist matrix (MATD_detruire()).
 * @param[in] t The matrix.
 */
KALO_API void MATD_detruire_twisttilde(MATD *t);
/**
 * @brief Releases a wrench column (MATD_detruire()).
 * @param[in] w The column.
 */
KALO_API void MATD_detruire_wrench(MATD *w);

/**
 * @brief Sets the translation column of a homogeneous matrix.
 * @param[in,out] h The 4 x 4 matrix.
 * @param[in] t The translation (three contiguous numbers, m).
 * @return h.
 */
KALO_API MATD *MATD_remplir_homogene_par_trans(MATD *h, const MATD *t);
/**
 * @brief Sets the rotation block of a homogeneous matrix.
 * @param[in,out] h The 4 x 4 matrix.
 * @param[in] r The 3 x 3 rotation.
 * @return h.
 */
KALO_API MATD *MATD_remplir_homogene_par_rot(MATD *h, const MATD *r);
/**
 * @brief The translation column of a homogeneous matrix.
 * @param[in] h The 4 x 4 matrix.
 * @param[out] t Receives the translation (three contiguous numbers, m).
 * @return t.
 */
KALO_API MATD *MATD_vider_trans_homogene(const MATD *h, MATD *t);
/**
 * @brief The rotation block of a homogeneous matrix.
 * @param[in] h The 4 x 4 matrix.
 * @param[out] r Receives the 3 x 3 rotation.
 * @return r.
 */
KALO_API MATD *MATD_vider_rot_homogene(const MATD *h, MATD *r);
/**
 * @brief Sets the linear half (elements 3..5) of a twist column.
 * @param[in,out] x The twist column.
 * @param[in] v Three contiguous numbers (m/s).
 * @return x.
 */
KALO_API MATD *MATD_remplir_twist_par_vtrans(MATD *x, const MATD *v);
/**
 * @brief Sets the angular half (elements 0..2) of a twist column.
 * @param[in,out] x The twist column.
 * @param[in] v Three contiguous numbers (rad/s).
 * @return x.
 */
KALO_API MATD *MATD_remplir_twist_par_vrot(MATD *x, const MATD *v);
/**
 * @brief The linear half (elements 3..5) of a twist column.
 * @param[in] x The twist column.
 * @param[out] v Receives three numbers (m/s).
 * @return v.
 */
KALO_API MATD *MATD_vider_twist_vtrans(const MATD *x, MATD *v);
/**
 * @brief The angular half (elements 0..2) of a twist column.
 * @param[in] x The twist column.
 * @param[out] v Receives three numbers (rad/s).
 * @return v.
 */
KALO_API MATD *MATD_vider_twist_vrot(const MATD *x, MATD *v);
/**
 * @brief Sets the force half (elements 3..5) of a wrench column.
 * @param[in,out] w The wrench column.
 * @param[in] v Three contiguous numbers (N).
 * @return w.
 */
KALO_API MATD *MATD_remplir_wrench_par_force(MATD *w, const MATD *v);
/**
 * @brief Sets the moment half (elements 0..2) of a wrench column.
 * @param[in,out] w The wrench column.
 * @param[in] v Three contiguous numbers (N.m).
 * @return w.
 */
KALO_API MATD *MATD_remplir_wrench_par_moment(MATD *w, const MATD *v);
/**
 * @brief The force half (elements 3..5) of a wrench column.
 * @param[in] w The wrench column.
 * @param[out] v Receives three numbers (N).
 * @return v.
 */
KALO_API MATD *MATD_vider_wrench_force(const MATD *w, MATD *v);
/**
 * @brief The moment half (elements 0..2) of a wrench column.
 * @param[in] w The wrench column.
 * @param[out] v Receives three numbers (N.m).
 * @return v.
 */
KALO_API MATD *MATD_vider_wrench_moment(const MATD *w, MATD *v);
/**
 * @brief Sets the linear part (column 3) of a 4 x 4 twist matrix.
 * @param[in,out] x The twist matrix.
 * @param[in] v Three contiguous numbers (m/s).
 * @return x.
 */
KALO_API MATD *MATD_remplir_twisttilde_par_vtrans(MATD *x, const MATD *v);
/**
 * @brief The linear part (column 3) of a 4 x 4 twist matrix.
 * @param[in] x The twist matrix.
 * @param[out] v Receives three numbers (m/s).
 * @return v.
 */
KALO_API MATD *MATD_vider_twisttilde_vtrans(const MATD *x, MATD *v);
/**
 * @brief Sets the cross-product block (upper-left 3 x 3) of a twist matrix.
 * @param[in,out] x The twist matrix.
 * @param[in] s The 3 x 3 skew-symmetric matrix of the angular velocity.
 * @return x.
 */
KALO_API MATD *MATD_remplir_twisttilde_par_vrottilde(MATD *x, const MATD *s);
/**
 * @brief The cross-product block (upper-left 3 x 3) of a twist matrix.
 * @param[in] x The twist matrix.
 * @param[out] s Receives the 3 x 3 block.
 * @return s.
 */
KALO_API MATD *MATD_vider_twisttilde_vrottilde(const MATD *x, MATD *s);
/**
 * @brief The cross-product matrix of v; s(1, 1) and s(2, 2) are not written.
 * @param[in] v Three contiguous numbers.
 * @param[out] s Receives the 3 x 3 matrix.
 * @return s.
 */
KALO_API MATD *MATD_antisymetrique_3(const MATD *v, MATD *s);
/**
 * @brief The vector of a skew-symmetric matrix: v = (s(2, 1), s(0, 2), s(1,
 *        0)).
 * @param[in] s The 3 x 3 matrix.
 * @param[out] v Receives three numbers.
 * @return v.
 */
KALO_API MATD *MATD_vecteur_extrait_antisymetrique_3(const MATD *s, MATD *v);
/**
 * @brief Element-wise sine.
 * @param[in] a The angles (radians).
 * @param[out] r Receives the sines, the same size; may be a.
 * @return r.
 */
KALO_API MATD *MATD_sin(const MATD *a, MATD *r);
/**
 * @brief Element-wise cosine.
 * @param[in] a The angles (radians).
 * @param[out] r Receives the cosines, the same size; may be a.
 * @return r.
 */
KALO_API MATD *MATD_cos(const MATD *a, MATD *r);

/**
 * @brief Product of two homogeneous transforms, rows 0..2 (row 3 of c is not
 *        written).
 * @param[in] a Left transform.
 * @param[in] b Right transform.
 * @param[out] c Receives a b; distinct from a and b.
 * @return c.
 */
KALO_API MATD *MATD_mult_homogene(const MATD *a, const MATD *b, MATD *c);
/**
 * @brief Inverse of a homogeneous transform (row 3 of hi is not written).
 * @param[in] h The transform.
 * @param[out] hi Receives the inverse; distinct from h.
 * @param[out] r 3 x 3 work matrix.
 * @param[out] t 3 x 1 work matrix.
 * @param[out] u 3 x 1 work matrix.
 * @return hi.
 */
KALO_API MATD *MATD_inverse_homogene(const MATD *h, MATD *hi, MATD *r, MATD *t, MATD *u);
/**
 * @brief Transforms along a serial chain: c[i] takes the pointer h[i] (nothing
 *        is copied), then c[k] = c[k-1] h[k] for k = i+1..j.
 * @param[in] h The relative transforms.
 * @param[in] i First index.
 * @param[in] j Last index, at least i.
 * @param[out] c Receives c[i] = h[i]; entries i+1..j are existing matrices that
 *        receive the products.
 * @return c[j] (h[i] itself when i = j).
 */
KALO_API MATD *MATD_chainage_homogene(MATD *const *h, int32_t i, int32_t j, MATD **c);
/**
 * @brief The 6 x 6 adjoint of a transform for twist columns (rotation first):
 *        top-left R, bottom-left [t]x R, bottom-right R; the top-right block is
 *        not written.
 * @param[in] h The transform.
 * @param[out] a Receives the adjoint.
 * @param[out] s 3 x 3 work matrix.
 * @param[out] r 3 x 3 work matrix.
 * @param[out] t 3 x 1 work matrix.
 * @param[out] p 3 x 3 work matrix.
 * @return a.
 */
KALO_API MATD *MATD_homogene_adjointe(const MATD *h, MATD *a, MATD *s, MATD *r, MATD *t, MATD *p);
/**
 * @brief Rodrigues' formula: r = exp(theta s) = I + sin(theta) s + (1 -
 *        cos(theta)) s s, for the cross-product matrix s of a unit axis.
 * @param[in] s The 3 x 3 cross-product matrix of a unit axis.
 * @param[out] r Receives the 3 x 3 rotation.
 * @param[out] w Work 3 x 3 matrices; indices 2, 5, 6 and 7 are used.
 * @param[in] identite The 3 x 3 identity.
 * @param[in] theta The angle in radians.
 * @return r.
 */
KALO_API MATD *MATD_exponentiel_matrice_antisymetrique(const MATD *s, MATD *r, MATD *const *w,
                                                       const MATD *identite, float theta);
/**
 * @brief The homogeneous transform reached by moving along a twist column: h =
 *        exp(theta xi).
 * @param[in] xi The twist column, with a unit (or zero) angular half.
 * @param[out] h Receives the 4 x 4 transform.
 * @param[out] w Work matrices: w[0], w[2], w[5..7] 3 x 3, w[1] 1 x 1.
 * @param[out] x Work matrices x[0..3], 3 x 1.
 * @param[out] t 1 x 3 work matrix.
 * @param[in] identite The 3 x 3 identity.
 * @param[out] v 3 x 1 work matrix.
 * @param[out] omega 3 x 1 work matrix.
 * @param[out] s 3 x 3 work matrix, its diagonal zero.
 * @param[out] p 3 x 1 work matrix.
 * @param[out] r 3 x 3 work matrix.
 * @param[in] theta The parameter: radians for a rotation, metres along a pure
 *        translation.
 * @return h.
 */
KALO_API MATD *MATD_exponentiel_twist(const MATD *xi, MATD *h, MATD *const *w, MATD *const *x,
                                      MATD *t, const MATD *identite, MATD *v, MATD *omega, MATD *s,
                                      MATD *p, MATD *r, float theta);
/**
 * @brief The wrench column of a 6 x 6 spatial spring of stiffness k stretched
 *        by the transform h (TORS_calculer_effort() on matrices).
 *
 * The force elements 3..5 come from the vector of the force matrix, the moment elements 0..2 are
 * row 0 of the moment matrix.
 * @param[in] k The 6 x 6 stiffness, rotation first (N.m/rad, N/m).
 * @param[in] h The transform stretching the spring.
 * @param[out] w Receives the wrench column.
 * @param[out] W Seven work 3 x 3 matrices.
 * @param[in] inutilise Not used.
 * @param[in] identite The 3 x 3 identity.
 * @param[out] r 3 x 3 work matrix.
 * @param[out] rt 3 x 3 work matrix.
 * @param[out] tv 3 x 1 work matrix.
 * @param[out] t 3 x 3 work matrix.
 * @param[out] ktt 3 x 3 work matrix.
 * @param[out] koo 3 x 3 work matrix.
 * @param[out] kot 3 x 3 work matrix.
 * @param[out] gtt 3 x 3 work matrix.
 * @param[out] goo 3 x 3 work matrix.
 * @param[out] got 3 x 3 work matrix.
 * @param[out] e1 3 x 3 work matrix.
 * @param[in] inutilise2 Not used.
 * @param[out] fv 3 x 1 work matrix.
 * @param[out] e2 3 x 3 work matrix.
 * @return w.
 */
KALO_API MATD *MATD_calculer_wrench(const MATD *k, const MATD *h, MATD *w, MATD *const *W,
                                    void *inutilise, const MATD *identite, MATD *r, MATD *rt,
                                    MATD *tv, MATD *t, MATD *ktt, MATD *koo, MATD *kot, MATD *gtt,
                                    MATD *goo, MATD *got, MATD *e1, void *inutilise2, MATD *fv,
                                    MATD *e2);
/** @} */

KALO_END_DECLS

#endif
