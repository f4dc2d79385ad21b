/* Displacements: poses and changes of frame, a translation and a rotation
 * quaternion. Composition a o b takes b in the moving frame of a. The flat
 * form is tx, ty, tz, qx, qy, qz, qw. */
#ifndef KALO_DEPLACEMENT_H
#define KALO_DEPLACEMENT_H

#include "kalo_math.h"

KALO_BEGIN_DECLS

/* New identity displacement, or NULL. */
KALO_API DEPL *DEPL_creer(void);
/* Releases translation, rotation and record. */
KALO_API void DEPL_detruire(DEPL *d);
/* d = the flat form t[0..6]. */
KALO_API DEPL *DEPL_remplir_7_float(DEPL *d, const float *t);
KALO_API DEPL *DEPL_remplir_7_double(DEPL *d, const double *t);
/* t[0..6] = the flat form of d. */
KALO_API void DEPL_vider_7_float(const DEPL *d, float *t);
KALO_API void DEPL_vider_7_double(const DEPL *d, double *t);
/* Sets the translation. */
KALO_API DEPL *DEPL_remplir_trans(DEPL *d, double tx, double ty, double tz);
/* Sets the rotation from an axis and an angle (zero axis: identity). */
KALO_API DEPL *DEPL_remplir_vrot(DEPL *d, double x, double y, double z, double angle);
/* Both of the above. */
KALO_API DEPL *DEPL_remplir_trans_vrot(DEPL *d, double tx, double ty, double tz, double x, double y,
                                       double z, double angle);
/* Translation out. */
KALO_API void DEPL_vider_trans(const DEPL *d, double *tx, double *ty, double *tz);
/* Rotation out as axis and angle. */
KALO_API void DEPL_vider_vrot(const DEPL *d, double *x, double *y, double *z, double *angle);
/* Both of the above. */
KALO_API void DEPL_vider_trans_vrot(const DEPL *d, double *tx, double *ty, double *tz, double *x,
                                    double *y, double *z, double *angle);
/* d = identity. */
KALO_API DEPL *DEPL_ra_identite(DEPL *d);
/* Prints " trans = ", the translation, " rot = ", the rotation. */
KALO_API void DEPL_afficher(const DEPL *d);
/* Prints the 4 x 4 homogeneous matrix of d (allocates work matrices). */
KALO_API void DEPL_afficher_homogene(const DEPL *d);
/* Norm of the translation. */
KALO_API double DEPL_translationNorm(const DEPL *d);
/* Unsigned rotation angle in [0, pi]. */
KALO_API double DEPL_rotationAngle(const DEPL *d);

/* c = a o b (c distinct from a and b). */
KALO_API DEPL *DEPL_compose(const DEPL *a, const DEPL *b, DEPL *c);
/* r = inverse of a (r may be a). */
KALO_API DEPL *DEPL_inverse(const DEPL *a, DEPL *r);
/* c = a o inverse(b). */
KALO_API DEPL *DEPL_compose_inv(const DEPL *a, const DEPL *b, DEPL *c);
/* c = inverse(a) o b. */
KALO_API DEPL *DEPL_inv_compose(const DEPL *a, const DEPL *b, DEPL *c);
/* Decoupled difference: c.trans = a.trans - b.trans, c.rot = a.rot conj(b.rot)
 * with a non-negative scalar. */
KALO_API DEPL *DEPL_compose_decouple_trans_rot(const DEPL *a, const DEPL *b, DEPL *c);
/* dt = a.trans - b.trans, dr = QUAT_delta(a.rot, b.rot); returns dr. */
KALO_API VECT3 *DEPL_delta(const DEPL *a, const DEPL *b, VECT3 *dt, VECT3 *dr);
/* 0 when a and b differ by at most the thresholds (norms of dt and dr),
 * -1 otherwise or when dt or dr is NULL. */
KALO_API int32_t DEPL_comparer(const DEPL *a, const DEPL *b, VECT3 *dt, VECT3 *dr,
                               double seuil_translation, double seuil_rotation);
/* c[i] = d[i], c[k] = c[k-1] o d[k] for k = i+1..j; r = c[j]. */
KALO_API DEPL *DEPL_chainage(DEPL *const *d, int32_t i, int32_t j, DEPL *const *c, DEPL *r);

/* h = 4 x 4 homogeneous matrix of d; r (3 x 3) and t are work. */
KALO_API MATD *DEPL_representation_homogene(const DEPL *d, MATD *h, MATD *r, VECT3 *t);
/* Adjoint (6 x 6) for twists ordered translation first: top-left R, top-right
 * [t]x R, bottom-right R; the bottom-left block is not written. s, r, p are
 * 3 x 3 work matrices. */
KALO_API MATD *DEPL_adjoint(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p);
/* Inverse adjoint: top-left R^T, top-right -R^T [t]x, bottom-right R^T. */
KALO_API MATD *DEPL_adjoint_inverse(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p);
/* The same two for 6-vectors ordered rotation first: the off-diagonal block
 * goes to the bottom-left and the top-right block is not written. */
KALO_API MATD *DEPL_adjoint_std(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p);
KALO_API MATD *DEPL_adjoint_inverse_std(const DEPL *d, MATD *a, MATD *s, MATD *r, MATD *p);

KALO_END_DECLS

#endif
