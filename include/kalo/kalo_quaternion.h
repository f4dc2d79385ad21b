/**
 * @file kalo_quaternion.h
 * @brief Quaternions: rotations as (x, y, z, w), vector part first.
 *
 * Products, conversions to and from rotation matrices, axis and angle, and
 * angular velocity. A rotation by the angle t (radians) about the unit axis u
 * is (u sin(t/2), cos(t/2)). Products write into their result before they have
 * read everything: the result must be distinct from the operands unless a
 * function says otherwise.
 */
#ifndef KALO_QUATERNION_H
#define KALO_QUATERNION_H

#include "kalo_math.h"

KALO_BEGIN_DECLS

/**
 * @defgroup kalo_math_quat Quaternions
 * @brief QUAT records: rotations, products and conversions.
 * @{
 */
/**
 * @brief New identity quaternion (0, 0, 0, 1).
 * @return The quaternion, or NULL when memory is short. Release it with
 *         QUAT_detruire().
 */
KALO_API QUAT *QUAT_creer(void);
/**
 * @brief Releases the vector part and the record.
 * @param[in] q The quaternion made by QUAT_creer().
 */
KALO_API void QUAT_detruire(QUAT *q);
/**
 * @brief q = (t[0], t[1], t[2], t[3]), widened to double.
 * @param[out] q The quaternion to fill.
 * @param[in] t x, y, z, w.
 */
KALO_API void QUAT_remplir_float(QUAT *q, const float *t);
/**
 * @brief q = (t[0], t[1], t[2], t[3]).
 * @param[out] q The quaternion to fill.
 * @param[in] t x, y, z, w.
 */
KALO_API void QUAT_remplir_double(QUAT *q, const double *t);
/**
 * @brief Copies q out, narrowed to float.
 * @param[in] q The quaternion.
 * @param[out] t Receives x, y, z, w.
 */
KALO_API void QUAT_vider_float(const QUAT *q, float *t);
/**
 * @brief Copies q out.
 * @param[in] q The quaternion.
 * @param[out] t Receives x, y, z, w.
 */
KALO_API void QUAT_vider_double(const QUAT *q, double *t);
/**
 * @brief Prints "partie scal : %f ; partie vect : " and the vector part on
 *        standard output.
 * @param[in] q The quaternion.
 */
KALO_API void QUAT_afficher(const QUAT *q);

/**
 * @brief Norm of a quaternion.
 * @param[in] q The quaternion.
 * @return sqrt(x^2 + y^2 + z^2 + w^2).
 */
KALO_API double QUAT_norme(const QUAT *q);
/**
 * @brief r = q / |q|.
 * @param[in] q A quaternion of non-zero norm.
 * @param[out] r Receives the unit quaternion; may be q.
 * @return r.
 */
KALO_API QUAT *QUAT_normaliser(const QUAT *q, QUAT *r);
/**
 * @brief r = conjugate of q (the vector part negated).
 * @param[in] q The quaternion.
 * @param[out] r Receives the conjugate; may be q.
 * @return r.
 */
KALO_API QUAT *QUAT_conjugue(const QUAT *q, QUAT *r);
/**
 * @brief c = a b, normalised: the rotation b followed by a.
 * @param[in] a Left operand.
 * @param[in] b Right operand.
 * @param[out] c Receives the product; distinct from a and b.
 * @return c.
 */
KALO_API QUAT *QUAT_mult(const QUAT *a, const QUAT *b, QUAT *c);
/**
 * @brief c = a conj(b), normalised.
 * @param[in] a Left operand.
 * @param[in] b Right operand, conjugated.
 * @param[out] c Receives the product; distinct from a and b.
 * @return c.
 */
KALO_API QUAT *QUAT_mult_conj(const QUAT *a, const QUAT *b, QUAT *c);
/**
 * @brief c = conj(a) b, normalised.
 * @param[in] a Left operand, conjugated.
 * @param[in] b Right operand.
 * @param[out] c Receives the product; distinct from a and b.
 * @return c.
 */
KALO_API QUAT *QUAT_conj_mult(const QUAT *a, const QUAT *b, QUAT *c);
/**
 * @brief r = inverse of q, normalised.
 * @param[in] q A quaternion of non-zero norm.
 * @param[out] r Receives the inverse; may be q.
 * @return r.
 */
KALO_API QUAT *QUAT_inverse(const QUAT *q, QUAT *r);
/**
 * @brief Negates q when its scalar part is strictly negative, so that w >= 0
 *        (the same rotation).
 * @param[in,out] q The quaternion.
 */
KALO_API void QUAT_forcer_positif(QUAT *q);
/**
 * @brief Small rotation error between two orientations: the vector part of a
 *        conj(b), with the sign that makes its scalar non-negative.
 *
 * For a small error it is (angle / 2) times the axis, in the reference frame.
 * @param[in] a The orientation reached.
 * @param[in] b The orientation compared with.
 * @param[out] r Receives the vector part.
 * @return r.
 */
KALO_API VECT3 *QUAT_delta(const QUAT *a, const QUAT *b, VECT3 *r);
/**
 * @brief Rotates a vector: r = q (0, v) conj(q), with q taken as given (not
 *        normalised).
 * @param[in] q The rotation, a unit quaternion for a pure rotation.
 * @param[in] v The vector.
 * @param[out] r Receives the rotated vector; may be v.
 * @return r.
 */
KALO_API VECT3 *QUAT_rot_vecteur(const QUAT *q, const VECT3 *v, VECT3 *r);
/**
 * @brief Rotates a vector by the inverse rotation: r = conj(q) (0, v) q, with q
 *        taken as given.
 * @param[in] q The rotation, a unit quaternion for a pure rotation.
 * @param[in] v The vector.
 * @param[out] r Receives the rotated vector; may be v.
 * @return r.
 */
KALO_API VECT3 *QUAT_inv_rot_vecteur(const QUAT *q, const VECT3 *v, VECT3 *r);

/**
 * @brief Rotation matrix of q, written into the upper-left 3 x 3 block of m; q
 *        is taken as given.
 * @param[in] q The rotation, a unit quaternion.
 * @param[out] m Receives the matrix (3 x 3 or larger; the other elements are
 *        untouched).
 * @return m.
 */
KALO_API MATD *QUAT_convertir_quaternion_en_matrice(const QUAT *q, MATD *m);
/**
 * @brief Quaternion of a rotation matrix; the branch is chosen on the largest
 *        candidate component.
 *
 * The result is not normalised and follows no sign rule.
 * @param[in] m A rotation matrix (upper-left 3 x 3 block).
 * @param[out] q Receives the quaternion.
 * @return q.
 */
KALO_API QUAT *QUAT_convertir_matrice_en_quaternion(const MATD *m, QUAT *q);
/**
 * @brief Quaternion of a rotation matrix, normalised, with the sign that keeps
 *        it near a previous quaternion (no jump of a full turn).
 * @param[in] m A rotation matrix (upper-left 3 x 3 block).
 * @param[in] p The previous quaternion, a record distinct from q.
 * @param[out] q Receives the quaternion.
 * @return q.
 */
KALO_API QUAT *QUAT_convertir_mat_en_quat_avec_gestion_du_tour(const MATD *m, const QUAT *p,
                                                               QUAT *q);
/**
 * @brief q = the rotation by an angle about an axis.
 *
 * A zero axis gives the identity.
 * @param[out] q The quaternion to fill.
 * @param[in] x Axis, x component (any non-zero length).
 * @param[in] y Axis, y component.
 * @param[in] z Axis, z component.
 * @param[in] angle The angle in radians.
 */
KALO_API void QUAT_remplir_vrot(QUAT *q, double x, double y, double z, double angle);
/**
 * @brief Axis and angle of a unit quaternion.
 * @param[in] q The unit quaternion.
 * @param[out] x Receives the unit axis' x (0 for the identity).
 * @param[out] y Receives the unit axis' y (0 for the identity).
 * @param[out] z Receives the unit axis' z (0 for the identity).
 * @param[out] angle Receives the angle in radians, in [0, 2 pi] (0 for the
 *        identity).
 */
KALO_API void QUAT_vider_vrot(const QUAT *q, double *x, double *y, double *z, double *angle);
/**
 * @brief Derivative of an orientation under an angular velocity: dq = 0.5 (0,
 *        w) q.
 * @param[in] q The orientation.
 * @param[in] w The angular velocity wx, wy, wz (rad/s) in the reference frame.
 * @param[out] dq Receives the derivative (per second).
 */
KALO_API void QUAT_convertir_vitesse_rotation_en_quaternion_derive(const QUAT *q, const double *w,
                                                                   QUAT *dq);
/**
 * @brief Angular velocity from an orientation and its derivative: w = 2 vect(dq
 *        conj(q)).
 * @param[in] q The orientation, a unit quaternion.
 * @param[in] dq Its derivative (per second).
 * @param[out] w Receives wx, wy, wz (rad/s) in the reference frame.
 */
KALO_API void QUAT_convertir_quaternion_derive_en_vitesse_rotation(const QUAT *q, const QUAT *dq,
                                                                   double *w);
/** @} */

KALO_END_DECLS

#endif
