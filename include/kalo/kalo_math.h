/* Rigid-body math: 3-vectors, dense matrices, quaternions, displacements,
 * twists and wrenches, homogeneous matrices. Row-major storage, operands first
 * and result last; the result pointer is returned for chaining. Sizes are not
 * checked: the caller guarantees them. Only the _creer functions allocate.
 *
 * This header declares the 3-vectors and the dense matrices and includes the
 * headers of the other records. */
#ifndef KALO_MATH_H
#define KALO_MATH_H

#include <stdint.h>

#include "kalo_export.h"
#include "kalo_math_types.h"

KALO_BEGIN_DECLS

/* ---- 3-vectors: creation and copies */

/* New zero vector, or NULL. */
KALO_API VECT3 *VECT3_creer(void);
/* Releases a vector. */
KALO_API void VECT3_detruire(VECT3 *v);
/* New kinematic pair with two zero vectors, or NULL. */
KALO_API VECT3_PAIRE_CINEMATIQUE *VECT3_creer_paire_cinematique(void);
/* Releases both vectors and the pair. */
KALO_API void VECT3_detruire_paire_cinematique(VECT3_PAIRE_CINEMATIQUE *p);
/* v = t[0..2]. */
KALO_API void VECT3_remplir_float(VECT3 *v, const float *t);
KALO_API void VECT3_remplir_double(VECT3 *v, const double *t);
/* t[0..2] = v (the float variant narrows). */
KALO_API void VECT3_vider_float(const VECT3 *v, float *t);
KALO_API void VECT3_vider_double(const VECT3 *v, double *t);
/* Fills / copies out the point or the axis of a pair. */
KALO_API VECT3_PAIRE_CINEMATIQUE *VECT3_remplir_paire_cinematique_par_position(VECT3_PAIRE_CINEMATIQUE *p, const double *t);
KALO_API VECT3_PAIRE_CINEMATIQUE *VECT3_remplir_paire_cinematique_par_axe_rot(VECT3_PAIRE_CINEMATIQUE *p, const double *t);
KALO_API void VECT3_vider_paire_cinematique_de_position(const VECT3_PAIRE_CINEMATIQUE *p, double *t);
KALO_API void VECT3_vider_paire_cinematique_de_axe_rot(const VECT3_PAIRE_CINEMATIQUE *p, double *t);
/* Prints "%f %f %f\n" on standard output. */
KALO_API void VECT3_afficher(const VECT3 *v);

/* ---- 3-vectors: arithmetic (M: the upper-left 3 x 3 block of a MATD) */

/* Euclidean norm. */
KALO_API double VECT3_norme(const VECT3 *v);
/* r = a + b, r = a - b. */
KALO_API VECT3 *VECT3_plus(const VECT3 *a, const VECT3 *b, VECT3 *r);
KALO_API VECT3 *VECT3_moins(const VECT3 *a, const VECT3 *b, VECT3 *r);
/* a . b */
KALO_API double VECT3_produit_scalaire(const VECT3 *a, const VECT3 *b);
/* r = a x b; r distinct from a and b. */
KALO_API VECT3 *VECT3_produit_vectoriel(const VECT3 *a, const VECT3 *b, VECT3 *r);
/* r = -a (r may be a). */
KALO_API VECT3 *VECT3_oppose(const VECT3 *a, VECT3 *r);
/* r = s a. */
KALO_API VECT3 *VECT3_mult_par_scalaire(const VECT3 *a, VECT3 *r, double s);
/* r = M v, r = transpose(M) v. */
KALO_API VECT3 *VECT3_mult_par_matrice(const MATD *m, const VECT3 *v, VECT3 *r);
KALO_API VECT3 *VECT3_mult_par_matrice_tr(const MATD *m, const VECT3 *v, VECT3 *r);
/* M = b transpose(a) (outer product). */
KALO_API MATD *VECT3_tr_mult_par_vecteur(const VECT3 *a, const VECT3 *b, MATD *m);
/* M = cross-product matrix of v, so that M w = v x w. */
KALO_API MATD *VECT3_matrice_antisymetrique(const VECT3 *v, MATD *m);
/* r = (M(2,1), M(0,2), M(1,0)). */
KALO_API VECT3 *VECT3_vecteur_extrait_antisymetrique(const MATD *m, VECT3 *r);
/* Scales v down to norm maximum when its norm is above it. */
KALO_API void VECT3_saturateNorm(VECT3 *v, double maximum);

/* ---- dense matrices: creation and access */

/* New rows x columns matrix of zeros, or NULL. */
KALO_API MATD *MATD_creer(uint64_t nb_lignes, uint64_t nb_colonnes);
/* New n x n identity matrix, or NULL. */
KALO_API MATD *MATD_identite(uint64_t n);
/* Releases a matrix; NULL is accepted. */
KALO_API void MATD_detruire(MATD *a);
/* Stored row / column count. */
KALO_API uint64_t MATD_nb_lignes(const MATD *a);
KALO_API uint64_t MATD_nb_colonnes(const MATD *a);
/* Element (i, j), unchecked. */
KALO_API double MATD_lire_element(const MATD *a, int32_t i, int32_t j);
/* Copies every element of source into destination (destination first). */
KALO_API void MATD_copier(MATD *destination, const MATD *source);
/* a = t in row-major order. */
KALO_API void MATD_remplir(MATD *a, const double *t);
/* t = a in row-major order; returns t. */
KALO_API double *MATD_vider(const MATD *a, double *t);
/* Float versions of the two above. */
KALO_API MATD *MATD_remplir_float(MATD *a, const float *t);
KALO_API float *MATD_vider_float(const MATD *a, float *t);
/* Column j of a = column c / column c = column j of a. */
KALO_API MATD *MATD_remplir_colonne(MATD *a, int32_t j, const MATD *c);
KALO_API MATD *MATD_vider_colonne(const MATD *a, int32_t j, MATD *c);
/* Every element = s. */
KALO_API MATD *MATD_remplir_avec_scalaire(MATD *a, double s);
/* a = identity (taken as square). */
KALO_API MATD *MATD_ra_identite(MATD *a);
/* Prints each row as "%1.3f\t" per element and a newline. */
KALO_API void MATD_afficher(const MATD *a);
/* Prints the transpose the same way. */
KALO_API void MATD_afficher_tr(const MATD *a);

/* ---- dense matrices: element-wise and whole-matrix operations */

/* r = a + b, r = a - b (r may be a or b). */
KALO_API MATD *MATD_plus(const MATD *a, const MATD *b, MATD *r);
KALO_API MATD *MATD_moins(const MATD *a, const MATD *b, MATD *r);
/* r = s a. */
KALO_API MATD *MATD_mult_par_scalaire(const MATD *a, MATD *r, double s);
/* 1 when every element pair differs by at most 1e-12, else 0. */
KALO_API int32_t MATD_sont_egales(const MATD *a, const MATD *b);
/* 1 when every element is at most 1e-12 in absolute value, else 0. */
KALO_API int32_t MATD_est_egale_a_zero(const MATD *a);
/* Sum of the diagonal. */
KALO_API double MATD_trace(const MATD *a);
/* d[k] = a(k, k). */
KALO_API MATD *MATD_diag(const MATD *a, MATD *d);
/* r = the block of a from (l0, c0) to (l1, c1), bounds inclusive. */
KALO_API MATD *MATD_extraire(const MATD *a, int32_t l0, int32_t l1, int32_t c0, int32_t c1, MATD *r);
/* r = transpose(a); r distinct from a. */
KALO_API MATD *MATD_transpose(const MATD *a, MATD *r);
/* Divides each column whose norm is above 1e-12 by its norm. */
KALO_API MATD *MATD_normer_colonne(MATD *a);
/* Dot product of two columns / two rows of a. */
KALO_API double MATD_produit_scal_colonnes(const MATD *a, int32_t c1, int32_t c2);
KALO_API double MATD_produit_scal_lignes(const MATD *a, int32_t l1, int32_t l2);
/* r = 0.5 (transpose(a) - a). */
KALO_API MATD *MATD_antisymetrique_extraite_mat_carre(const MATD *a, MATD *r);
/* r = 0.5 (a + transpose(a)). */
KALO_API MATD *MATD_symetrique_extraite_mat_carre(const MATD *a, MATD *r);
/* Derivative of each row (signal along the columns) / each column, central
 * differences inside and one-sided ones at both ends. */
KALO_API MATD *MATD_deriver_par_lignes(const MATD *a, MATD *r, double dt);
KALO_API MATD *MATD_deriver_par_colonnes(const MATD *a, MATD *r, double dt);

/* ---- dense matrices: products (r distinct from both operands) */

/* r = a b, a transpose(b), transpose(a) b, transpose(a) transpose(b). */
KALO_API MATD *MATD_mult(const MATD *a, const MATD *b, MATD *r);
KALO_API MATD *MATD_mult_tr(const MATD *a, const MATD *b, MATD *r);
KALO_API MATD *MATD_tr_mult(const MATD *a, const MATD *b, MATD *r);
KALO_API MATD *MATD_tr_mult_tr(const MATD *a, const MATD *b, MATD *r);
/* y = a x with flat vectors. */
KALO_API void MATD_mult_matrice_par_vecteur(const MATD *a, const double *x, double *y);

/* ---- diagonal operands d (columns holding a diagonal) */

/* a(i, i) = d(i); other elements untouched. */
KALO_API MATD *MATD_remplir_dg(MATD *a, const MATD *d);
/* d(i) = a(i, i). */
KALO_API MATD *MATD_vider_dg(const MATD *a, MATD *d);
/* r(i) = 1 / d(i). */
KALO_API MATD *MATD_dg_inv(const MATD *d, MATD *r);
/* r(i, i) = d(i) + b(i, i); only the diagonal of r is written. */
KALO_API MATD *MATD_dg_plus(const MATD *d, const MATD *b, MATD *r);
/* r = diag(d) b. */
KALO_API MATD *MATD_dg_mult(const MATD *d, const MATD *b, MATD *r);
/* r = inverse(diag(d)) b. */
KALO_API MATD *MATD_dg_inv_mult(const MATD *d, const MATD *b, MATD *r);
/* r = diag(d) transpose(b). */
KALO_API MATD *MATD_dg_mult_tr(const MATD *d, const MATD *b, MATD *r);
/* r = a diag(d). */
KALO_API MATD *MATD_mult_dg(const MATD *a, const MATD *d, MATD *r);
/* r = transpose(a) diag(d). */
KALO_API MATD *MATD_tr_mult_dg(const MATD *a, const MATD *d, MATD *r);
/* r[k] = d1[k] d2[k]. */
KALO_API MATD *MATD_dg_mult_dg(const MATD *d1, const MATD *d2, MATD *r);

/* ---- integer matrices */

/* New rows x columns matrix of zeros, or NULL. */
KALO_API MATI *MATI_creer(uint64_t nb_lignes, uint64_t nb_colonnes);
/* Releases a matrix; NULL is accepted. */
KALO_API void MATI_detruire(MATI *a);
/* Copies every element of source; returns destination. */
KALO_API MATI *MATI_copier(MATI *destination, const MATI *source);
/* a = t / t = a, row-major. */
KALO_API MATI *MATI_remplir(MATI *a, const int32_t *t);
KALO_API int32_t *MATI_vider(const MATI *a, int32_t *t);
/* Stored row / column count. */
KALO_API uint64_t MATI_nb_lignes(const MATI *a);
KALO_API uint64_t MATI_nb_colonnes(const MATI *a);

KALO_END_DECLS

#include "kalo_quaternion.h"
#include "kalo_deplacement.h"
#include "kalo_torseur.h"
#include "kalo_homogene.h"

#include "kalo_solvers.h"

#endif
