/**
 * @file kalo_deplacement.h
 * @brief Displacements: rigid-body poses and changes of frame, a translation
 *        and a rotation quaternion.
 *
 * A displacement d maps a point p of its moving frame to d.trans + rot(d.rot,
 * p) in its reference frame. Composition a o b takes b in the moving frame of
 * a. The flat form is tx, ty, tz (metres), then qx, qy, qz, qw: the pose format
 * of the whole device interface.
 */
#ifndef KALO_DEPLACEMENT_H
#define KALO_DEPLACEMENT_H

#include "kalo_math.h"

KALO_BEGIN_DECLS

/**
 * @defgroup kalo_math_depl Displacements
 * @brief DEPL records: poses, compositions, comparisons and adjoints.
 * @{
 */
/**
 * @brief New identity displacement (zero translation, identity rotation).
 * @return The displacement, or NULL when memory is short. Release it with
 *         DEPL_detruire().
 */
KALO_API DEPL *DEPL_creer(void);
/**
 * @brief Releases the translation, the rotation and the record.
 * @param[in] d The displacement made by DEPL_creer().
 */
KALO_API void DEPL_detruire(DEPL *d);
/**
 * @brief d = the flat form t, widened to double (the quaternion is taken as
 *        given).
 * @param[out] d The displacement to fill.
 * @param[in] t tx, ty, tz (m), then qx, qy, qz, qw.
 * @return d.
 */
KALO_API DEPL *DEPL_remplir_7_float(DEPL *d, const float *t);
/**
 * @brief d = the flat form t (the quaternion is taken as given).
 * @param[out] d The displacement to fill.
 * @param[in] t tx, ty, tz (m), then qx, qy, qz, qw.
 * @return d.
 */
KALO_API DEPL *DEPL_remplir_7_double(DEPL *d, const double *t);
/**
 * @brief The flat form of d, narrowed to float.
 * @param[in] d The displacement.
 * @param[out] t Receives tx, ty, tz (m), then qx, qy, qz, qw.
 */
KALO_API void DEPL_vider_7_float(const DEPL *d, float *t);
/**
 * @brief The flat form of d.
 * @param[in] d The displacement.
 * @param[out] t Receives tx, ty, tz (m), then qx, qy, qz, qw.
 */
KALO_API void DEPL_vider_7_double(const DEPL *d, double *t);
/**
 * @brief Sets the translation; the rotation is untouched.
 * @param[in,out] d The displacement.
 * @param[in] tx Translation along x (m).
 * @param[in] ty Translation along y (m).
 * @param[in] tz Translation along z (m).
 * @return d.
 */
KALO_API DEPL *DEPL_remplir_trans(DEPL *d, double tx, double ty, double tz);
/**
 * @brief Sets the rotation from an axis and an angle (a zero axis gives the
 *        identity); the translation is untouched.
 * @param[in,out] d The displacement.
 * @param[in] x Axis, x component (any non-zero length).
 * @param[in] y Axis, y component.
 * @param[in] z Axis, z component.
 * @param[in] angle The angle in radians.
 * @return d.
 */
KALO_API DEPL *DEPL_remplir_vrot(DEPL *d, double x, double y, double z, double angle);
/**
 * @brief Sets the translation and the rotation (axis and angle; a zero axis
 *        gives the identity).
 * @param[out] d The displacement.
 * @param[in] tx Translation along x (m).
 * @param[in] ty Translation along y (m).
 * @param[in] tz Translation along z (m).
 * @param[in] x Axis, x component (any non-zero length).
 * @param[in] y Axis, y component.
 * @param[in] z Axis, z component.
 * @param[in] angle The angle in radians.
 * @return d.
 */
KALO_API DEPL *DEPL_remplir_trans_vrot(DEPL *d, double tx, double ty, double tz, double x, double y,
                                       double z, double angle);
/**
 * @brief The translation.
 * @param[in] d The displacement.
 * @param[out] tx Receives the translation along x (m).
 * @param[out] ty Receives the translation along y (m).
 * @param[out] tz Receives the translation along z (m).
 */
KALO_API void DEPL_vider_trans(const DEPL *d, double *tx, double *ty, double *tz);
/**
 * @brief The rotation as a unit axis and an angle (all zero for the identity).
 * @param[in] d The displacement, with a unit quaternion.
 * @param[out] x Receives the axis' x.
 * @param[out] y Receives the axis' y.
 * @param[out] z Receives the axis' z.
 * @param[out] angle Receives the angle in radians, in [0, 2 pi].
 */
KALO_API void DEPL_vider_vrot(const DEPL *d, double *x, double *y, double *z, double *angle);
/**
 * @brief The translation, and the rotation as a unit axis and an angle.
 * @param[in] d The displacement, with a unit quaternion.
 * @param[out] tx Receives the translation along x (m).
 * @param[out] ty Receives the translation along y (m).
 * @param[out] tz Receives the translation along z (m).
 * @param[out] x Receives the axis' x.
 * @param[out] y Receives the axis' y.
 * @param[out] z Receives the axis' z.
 * @param[out] angle Receives the angle in radians, in [0, 2 pi].
 */
KALO_API void DEPL_vider_trans_vrot(const DEPL *d, double *tx, double *ty, double *tz, double *x,
                                    double *y, double *z, double *angle);
/**
 * @brief Resets d to the identity.
 * @param[out] d The displacement.
 * @return d.
 */
KALO_API DEPL *DEPL_ra_identite(DEPL *d);
/**
 * @brief Prints " trans = ", the translation, " rot = " and the rotation on
 *        standard output.
 * @param[in] d The displacement.
 */
KALO_API void DEPL_afficher(const DEPL *d);
/**
 * @brief Prints the 4 x 4 homogeneous matrix of d on standard output (allocates
 *        work matrices).
 * @param[in] d The displacement.
 */
KALO_API void DEPL_afficher_homogene(const DEPL *d);
/**
 * @brief Length of the translation.
 * @param[in] d The displacement.
 * @return |d.trans| (m).
 */
KALO_API double DEPL_translationNorm(const DEPL *d);
/**
 * @brief Unsigned angle of the rotation.
 * @param[in] d The displacement, with a unit quaternion.
 * @return The angle in radians, in [0, pi].
 */
KALO_API double DEPL_rotationAngle(const DEPL *d);

/**
 * @brief c = a o b: the pose b, given in the moving frame of a, expressed in
 *        a's reference frame.
 * @param[in] a The outer displacement.
 * @param[in] b The inner displacement.
 * @param[out] c Receives the composition; distinct from a and b.
 * @return c.
 */
KALO_API DEPL *DEPL_compose(const DEPL *a, const DEPL *b, DEPL *c);
/**
 * @brief r = the inverse of a, so that a o r is the identity.
 * @param[in] a The displacement.
 * @param[out] r Receives the inverse; may be a.
 * @return r.
 */
KALO_API DEPL *DEPL_inverse(const DEPL *a, DEPL *r);
/**
 * @brief c = a o inverse(b).
 * @param[in] a The outer displacement.
 * @param[in] b The displacement inverted.
 * @param[out] c Receives the result; distinct from a and b.
 * @return c.
 */
KALO_API DEPL *DEPL_compose_inv(const DEPL *a, const DEPL *b, DEPL *c);
/**
 * @brief c = inverse(a) o b: the pose b seen from the moving frame of a.
 * @param[in] a The displacement inverted.
 * @param[in] b The inner displacement.
 * @param[out] c Receives the result; distinct from a and b.
 * @return c.
 */
KALO_API DEPL *DEPL_inv_compose(const DEPL *a, const DEPL *b, DEPL *c);
/**
 * @brief Decoupled difference: c.trans = a.trans - b.trans (no rotation), c.rot
 *        = a.rot conj(b.rot) with a non-negative scalar.
 * @param[in] a The displacement reached.
 * @param[in] b The displacement compared with.
 * @param[out] c Receives the difference; distinct from a and b.
 * @return c.
 */
KALO_API DEPL *DEPL_compose_decouple_trans_rot(const DEPL *a, const DEPL *b, DEPL *c);
/**
 * @brief Translation and rotation differences: dt = a.trans - b.trans, dr =
 *        QUAT_delta(a.rot, b.rot).
 * @param[in] a The displacement reached.
 * @param[in] b The displacement compared with.
 * @param[out] dt Receives the translation difference (m).
 * @param[out] dr Receives the rotation difference ((angle / 2) axis for a small
 *        one).
 * @return dr.
 */
KALO_API VECT3 *DEPL_delta(const DEPL *a, const DEPL *b, VECT3 *dt, VECT3 *dr);
/**
 * @brief Whether two displacements agree within thresholds, on the norms of the
 *        differences of DEPL_delta().
 * @param[in] a The displacement reached.
 * @param[in] b The displacement compared with.
 * @param[out] dt Work vector, receives the translation difference.
 * @param[out] dr Work vector, receives the rotation difference.
 * @param[in] seuil_translation Translation threshold (m).
 * @param[in] seuil_rotation Rotation threshold, on the norm of dr.
 * @retval 0 Both norms are at most their thresholds.
 * @retval -1 A norm is above its threshold, or dt or dr is NULL (nothing
 *         computed).
 */
KALO_API int32_t DEPL_comparer(const DEPL *a, const DEPL *b, VECT3 *dt, VECT3 *dr,
                               double seuil_translation, double seuil_rotation);
/**
 * @brief Poses along a serial chain: c[i] = d[i], then c[k] = c[k-1] o d[k] for
 *        k = i+1..j, and r = c[j].
 * @param[in] d The relative poses of the chain's bodies.
 * @param[in] i First index.
 * @param[in] j Last index, at least i.
 * @param[out] c Existing records, receive the cumulative poses i..j.
 * @param[out] r Receives the last cumulative pose.
 * @return r.
 */
KALO_API DEPL *DEPL_chainage(DEPL *const *d, int32_t i, int32_t j, DEPL *const *c, DEPL *r);

/**
 * @brief The 4 x 4 homogeneous matrix of d: rotation block, translation column,
 *        last row (0, 0, 0, 1).
 * @param[in] d The displacement.
 * @param[out] h Receives the 4 x 4 matrix.
 * @param[out] r 3 x 3 work matrix.
 * @param[out] t Work vector.
 * @return h.
 */
KALO_API MATD *DEPL_representation_homogene(const DEPL *d, MATD *h, MATD *r, VECT3 *t);
/**
 * @brief The 6 x 6 adjoint of d for twists ordered translation first: carries a
 *        twist from the moving frame of d to its reference frame (v' = R v +
 *        [t]x R w, w' = R w).
 *
 * Blocks: top-left R, top-right [t]x R, bottom-right R; the bottom-left block is not written.
 * @param[in] d The displacement.
 * @param[out] a Receives the adjoint (6 x 6).
 * @param[out] s 3 x 3 work matrix.
 * @param[out] r 3 x 3 work matrix.
 * @param[out] p 3 x 3 work matrix.
 * @return a.
 */
KALO_API MATD *DEPL_adjoint(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p);
/**
 * @brief The inverse of DEPL_adjoint(): carries a twist from the reference
 *        frame of d to its moving frame.
 *
 * Blocks: top-left transpose(R), top-right -transpose(R) [t]x, bottom-right transpose(R); the
 * bottom-left block is not written.
 * @param[in] d The displacement.
 * @param[out] a Receives the adjoint (6 x 6).
 * @param[out] s 3 x 3 work matrix.
 * @param[out] r 3 x 3 work matrix.
 * @param[out] p 3 x 3 work matrix.
 * @return a.
 */
KALO_API MATD *DEPL_adjoint_inverse(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p);
/**
 * @brief DEPL_adjoint() for 6-vectors ordered rotation first: the off-diagonal
 *        block goes to the bottom-left and the top-right block is not written.
 * @param[in] d The displacement.
 * @param[out] a Receives the adjoint (6 x 6).
 * @param[out] s 3 x 3 work matrix.
 * @param[out] r 3 x 3 work matrix.
 * @param[out] p 3 x 3 work matrix.
 * @return a.
 */
KALO_API MATD *DEPL_adjoint_std(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p);
/**
 * @brief DEPL_adjoint_inverse() for 6-vectors ordered rotation first: the
 *        off-diagonal block goes to the bottom-left and the top-right block is
 *        not written.
 * @param[in] d The displacement.
 * @param[out] a Receives the adjoint (6 x 6).
 * @param[out] s 3 x 3 work matrix.
 * @param[out] r 3 x 3 work matrix.
 * @param[out] p 3 x 3 work matrix.
 * @return a.
 */
KALO_API MATD *DEPL_adjoint_inverse_std(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p);
/** @} */

KALO_END_DECLS

#endif
