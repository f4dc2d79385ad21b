/* Quaternions: rotations as (x, y, z, w), vector part first. Products,
 * conversions to and from rotation matrices, axis-angle and angular velocity.
 * Products write into their result before reading everything: the result must
 * be distinct from the operands unless stated. */
#ifndef KALO_QUATERNION_H
#define KALO_QUATERNION_H

#include "kalo_math.h"

KALO_BEGIN_DECLS

/* New identity quaternion (0, 0, 0, 1), or NULL. */
KALO_API QUAT *QUAT_creer(void);
/* Releases the vector part and the record. */
KALO_API void QUAT_detruire(QUAT *q);
/* q = (t[0], t[1], t[2], t[3]). */
KALO_API void QUAT_remplir_float(QUAT *q, const float *t);
KALO_API void QUAT_remplir_double(QUAT *q, const double *t);
/* t = (x, y, z, w) of q. */
KALO_API void QUAT_vider_float(const QUAT *q, float *t);
KALO_API void QUAT_vider_double(const QUAT *q, double *t);
/* Prints "partie scal : %f ; partie vect : " and the vector part. */
KALO_API void QUAT_afficher(const QUAT *q);

/* sqrt(x^2 + y^2 + z^2 + w^2). */
KALO_API double QUAT_norme(const QUAT *q);
/* r = q / |q| (r may be q). */
KALO_API QUAT *QUAT_normaliser(const QUAT *q, QUAT *r);
/* r = conjugate of q (r may be q). */
KALO_API QUAT *QUAT_conjugue(const QUAT *q, QUAT *r);
/* c = a b, normalised. */
KALO_API QUAT *QUAT_mult(const QUAT *a, const QUAT *b, QUAT *c);
/* c = a conj(b), normalised. */
KALO_API QUAT *QUAT_mult_conj(const QUAT *a, const QUAT *b, QUAT *c);
/* c = conj(a) b, normalised. */
KALO_API QUAT *QUAT_conj_mult(const QUAT *a, const QUAT *b, QUAT *c);
/* r = inverse of q, normalised (r may be q). */
KALO_API QUAT *QUAT_inverse(const QUAT *q, QUAT *r);
/* Negates q when its scalar part is strictly negative. */
KALO_API void QUAT_forcer_positif(QUAT *q);
/* r = vector part of a conj(b) with a non-negative scalar: (angle/2) axis for
 * a small rotation error, in the reference frame. */
KALO_API VECT3 *QUAT_delta(const QUAT *a, const QUAT *b, VECT3 *r);
/* r = q (0, v) conj(q), q not normalised (r may be v). */
KALO_API VECT3 *QUAT_rot_vecteur(const QUAT *q, const VECT3 *v, VECT3 *r);
/* r = conj(q) (0, v) q, q not normalised (r may be v). */
KALO_API VECT3 *QUAT_inv_rot_vecteur(const QUAT *q, const VECT3 *v, VECT3 *r);

/* Rotation matrix of q into the upper-left 3 x 3 block of m (q as given). */
KALO_API MATD *QUAT_convertir_quaternion_en_matrice(const QUAT *q, MATD *m);
/* Quaternion of a rotation matrix, branch chosen on the largest candidate;
 * not normalised, no sign rule. */
KALO_API QUAT *QUAT_convertir_matrice_en_quaternion(const MATD *m, QUAT *q);
/* Quaternion of a rotation matrix, sign chosen to stay near the previous
 * quaternion p (a record distinct from q), normalised. */
KALO_API QUAT *QUAT_convertir_mat_en_quat_avec_gestion_du_tour(const MATD *m, const QUAT *p, QUAT *q);
/* q = rotation by angle about the axis (x, y, z) of any non-zero length;
 * identity for a zero axis. */
KALO_API void QUAT_remplir_vrot(QUAT *q, double x, double y, double z, double angle);
/* Axis and angle in [0, 2 pi] of the unit quaternion q; all zero for the
 * identity. */
KALO_API void QUAT_vider_vrot(const QUAT *q, double *x, double *y, double *z, double *angle);
/* dq = 0.5 (0, w) q: the derivative of q under the angular velocity w
 * (reference frame). */
KALO_API void QUAT_convertir_vitesse_rotation_en_quaternion_derive(const QUAT *q, const double *w, QUAT *dq);
/* w = 2 vect(dq conj(q)). */
KALO_API void QUAT_convertir_quaternion_derive_en_vitesse_rotation(const QUAT *q, const QUAT *dq, double *w);

KALO_END_DECLS

#endif
