/**
 * @file kalo_math.h
 * @brief Rigid-body math: 3-vectors and dense matrices; includes the headers
 *        of the other records (quaternions, displacements, screws, homogeneous
 *        matrices, solvers).
 *
 * Plain functions over the records of kalo_math_types.h. Storage is row-major;
 * operands come first and the result last, and the result pointer is returned
 * for chaining. Sizes are not checked: the caller guarantees them. Only the
 * `_creer` functions allocate (and return NULL when they cannot); the others
 * never fail. Unless a function says otherwise, its result must not be one of
 * its operands.
 */
#ifndef KALO_MATH_H
#define KALO_MATH_H

#include <stdint.h>

#include "kalo_export.h"
#include "kalo_math_types.h"

KALO_BEGIN_DECLS

/* ---- 3-vectors: creation and copies */

/**
 * @defgroup kalo_math_vect3 3-vectors
 * @brief Creation, copies and arithmetic of VECT3 (three doubles x, y, z).
 * @{
 */
/**
 * @brief New zero vector.
 * @return The vector, or NULL when memory is short. Release it with
 *         VECT3_detruire().
 */
KALO_API VECT3 *VECT3_creer(void);
/**
 * @brief Releases a vector made by VECT3_creer().
 * @param[in] v The vector; NULL is accepted.
 */
KALO_API void VECT3_detruire(VECT3 *v);
/**
 * @brief New kinematic pair (an axis of rotation and a point of it) with two
 *        zero vectors.
 * @return The pair, or NULL when memory is short.
 */
KALO_API VECT3_PAIRE_CINEMATIQUE *VECT3_creer_paire_cinematique(void);
/**
 * @brief Releases both vectors and the pair.
 * @param[in] p The pair made by VECT3_creer_paire_cinematique().
 */
KALO_API void VECT3_detruire_paire_cinematique(VECT3_PAIRE_CINEMATIQUE *p);
/**
 * @brief v = t[0..2], widened to double.
 * @param[out] v The vector to fill.
 * @param[in] t Three floats x, y, z.
 */
KALO_API void VECT3_remplir_float(VECT3 *v, const float *t);
/**
 * @brief v = t[0..2].
 * @param[out] v The vector to fill.
 * @param[in] t Three doubles x, y, z.
 */
KALO_API void VECT3_remplir_double(VECT3 *v, const double *t);
/**
 * @brief t[0..2] = v, narrowed to float.
 * @param[in] v The vector.
 * @param[out] t Receives x, y, z.
 */
KALO_API void VECT3_vider_float(const VECT3 *v, float *t);
/**
 * @brief t[0..2] = v.
 * @param[in] v The vector.
 * @param[out] t Receives x, y, z.
 */
KALO_API void VECT3_vider_double(const VECT3 *v, double *t);
/**
 * @brief Sets the point of a kinematic pair.
 * @param[in,out] p The pair.
 * @param[in] t The point's x, y, z.
 * @return p.
 */
KALO_API VECT3_PAIRE_CINEMATIQUE *
VECT3_remplir_paire_cinematique_par_position(VECT3_PAIRE_CINEMATIQUE *p, const double *t);
/**
 * @brief Sets the axis of a kinematic pair.
 * @param[in,out] p The pair.
 * @param[in] t The axis' x, y, z.
 * @return p.
 */
KALO_API VECT3_PAIRE_CINEMATIQUE *
VECT3_remplir_paire_cinematique_par_axe_rot(VECT3_PAIRE_CINEMATIQUE *p, const double *t);
/**
 * @brief Copies out the point of a kinematic pair.
 * @param[in] p The pair.
 * @param[out] t Receives the point's x, y, z.
 */
KALO_API void VECT3_vider_paire_cinematique_de_position(const VECT3_PAIRE_CINEMATIQUE *p,
                                                        double *t);
/**
 * @brief Copies out the axis of a kinematic pair.
 * @param[in] p The pair.
 * @param[out] t Receives the axis' x, y, z.
 */
KALO_API void VECT3_vider_paire_cinematique_de_axe_rot(const VECT3_PAIRE_CINEMATIQUE *p, double *t);
/**
 * @brief Prints the vector as "%f %f %f\n" on standard output.
 * @param[in] v The vector.
 */
KALO_API void VECT3_afficher(const VECT3 *v);

/* ---- 3-vectors: arithmetic (M: the upper-left 3 x 3 block of a MATD) */

/**
 * @brief Euclidean norm.
 * @param[in] v The vector.
 * @return |v|.
 */
KALO_API double VECT3_norme(const VECT3 *v);
/**
 * @brief r = a + b.
 * @param[in] a First operand.
 * @param[in] b Second operand.
 * @param[out] r Receives the sum; may be a or b.
 * @return r.
 */
KALO_API VECT3 *VECT3_plus(const VECT3 *a, const VECT3 *b, VECT3 *r);
/**
 * @brief r = a - b.
 * @param[in] a First operand.
 * @param[in] b Operand subtracted.
 * @param[out] r Receives the difference; may be a or b.
 * @return r.
 */
KALO_API VECT3 *VECT3_moins(const VECT3 *a, const VECT3 *b, VECT3 *r);
/**
 * @brief Dot product.
 * @param[in] a First operand.
 * @param[in] b Second operand.
 * @return a . b.
 */
KALO_API double VECT3_produit_scalaire(const VECT3 *a, const VECT3 *b);
/**
 * @brief r = a x b (cross product).
 * @param[in] a First operand.
 * @param[in] b Second operand.
 * @param[out] r Receives the product; distinct from a and b.
 * @return r.
 */
KALO_API VECT3 *VECT3_produit_vectoriel(const VECT3 *a, const VECT3 *b, VECT3 *r);
/**
 * @brief r = -a.
 * @param[in] a The operand.
 * @param[out] r Receives the opposite; may be a.
 * @return r.
 */
KALO_API VECT3 *VECT3_oppose(const VECT3 *a, VECT3 *r);
/**
 * @brief r = s a.
 * @param[in] a The vector.
 * @param[out] r Receives the product; may be a.
 * @param[in] s The scalar.
 * @return r.
 */
KALO_API VECT3 *VECT3_mult_par_scalaire(const VECT3 *a, VECT3 *r, double s);
/**
 * @brief r = M v, with M the upper-left 3 x 3 block of m.
 * @param[in] m The matrix (3 x 3 or larger).
 * @param[in] v The vector.
 * @param[out] r Receives the product; distinct from v.
 * @return r.
 */
KALO_API VECT3 *VECT3_mult_par_matrice(const MATD *m, const VECT3 *v, VECT3 *r);
/**
 * @brief r = transpose(M) v, with M the upper-left 3 x 3 block of m.
 * @param[in] m The matrix (3 x 3 or larger).
 * @param[in] v The vector.
 * @param[out] r Receives the product; distinct from v.
 * @return r.
 */
KALO_API VECT3 *VECT3_mult_par_matrice_tr(const MATD *m, const VECT3 *v, VECT3 *r);
/**
 * @brief Outer product: m = b transpose(a), so m(i, j) = b[i] a[j].
 * @param[in] a Right-hand vector.
 * @param[in] b Left-hand vector.
 * @param[out] m Receives the 3 x 3 product.
 * @return m.
 */
KALO_API MATD *VECT3_tr_mult_par_vecteur(const VECT3 *a, const VECT3 *b, MATD *m);
/**
 * @brief The cross-product matrix of v, so that m w = v x w for every w.
 * @param[in] v The vector.
 * @param[out] m Receives the 3 x 3 skew-symmetric matrix.
 * @return m.
 */
KALO_API MATD *VECT3_matrice_antisymetrique(const VECT3 *v, MATD *m);
/**
 * @brief The vector of a skew-symmetric matrix: r = (m(2,1), m(0,2), m(1,0)).
 * @param[in] m The 3 x 3 matrix.
 * @param[out] r Receives the vector.
 * @return r.
 */
KALO_API VECT3 *VECT3_vecteur_extrait_antisymetrique(const MATD *m, VECT3 *r);
/**
 * @brief Scales v down to norm maximum when its norm is above it; leaves it as
 *        it is otherwise.
 * @param[in,out] v The vector.
 * @param[in] maximum The largest norm allowed, at least 0.
 */
KALO_API void VECT3_saturateNorm(VECT3 *v, double maximum);
/** @} */

/**
 * @defgroup kalo_math_matd Dense matrices
 * @brief MATD: creation, access, element-wise operations, products and
 *        diagonal operands; MATI: integer matrices.
 *
 * A diagonal ("dg") operand is a column holding the diagonal.
 * @{
 */

/* ---- dense matrices: creation and access */

/**
 * @brief New matrix of zeros.
 * @param[in] nb_lignes Row count.
 * @param[in] nb_colonnes Column count.
 * @return The matrix, or NULL when memory is short. Release it with
 *         MATD_detruire().
 */
KALO_API MATD *MATD_creer(uint64_t nb_lignes, uint64_t nb_colonnes);
/**
 * @brief New identity matrix.
 * @param[in] n Row and column count.
 * @return The n x n identity, or NULL when memory is short.
 */
KALO_API MATD *MATD_identite(uint64_t n);
/**
 * @brief Releases a matrix made by MATD_creer() or MATD_identite().
 * @param[in] a The matrix; NULL is accepted.
 */
KALO_API void MATD_detruire(MATD *a);
/**
 * @brief Row count.
 * @param[in] a The matrix.
 * @return Its stored row count.
 */
KALO_API uint64_t MATD_nb_lignes(const MATD *a);
/**
 * @brief Column count.
 * @param[in] a The matrix.
 * @return Its stored column count.
 */
KALO_API uint64_t MATD_nb_colonnes(const MATD *a);
/**
 * @brief Element (i, j), unchecked.
 * @param[in] a The matrix.
 * @param[in] i Row index, from 0.
 * @param[in] j Column index, from 0.
 * @return a(i, j).
 */
KALO_API double MATD_lire_element(const MATD *a, int32_t i, int32_t j);
/**
 * @brief Copies every element of source into destination (destination first).
 * @param[out] destination Receives the elements; the same size as source.
 * @param[in] source The matrix copied.
 */
KALO_API void MATD_copier(MATD *destination, const MATD *source);
/**
 * @brief Fills a matrix from a flat array in row-major order.
 * @param[out] a The matrix.
 * @param[in] t rows x columns doubles.
 */
KALO_API void MATD_remplir(MATD *a, const double *t);
/**
 * @brief Copies a matrix out to a flat array in row-major order.
 * @param[in] a The matrix.
 * @param[out] t Receives rows x columns doubles.
 * @return t.
 */
KALO_API double *MATD_vider(const MATD *a, double *t);
/**
 * @brief Fills a matrix from floats in row-major order.
 * @param[out] a The matrix.
 * @param[in] t rows x columns floats.
 * @return a.
 */
KALO_API MATD *MATD_remplir_float(MATD *a, const float *t);
/**
 * @brief Copies a matrix out to floats in row-major order (narrowed).
 * @param[in] a The matrix.
 * @param[out] t Receives rows x columns floats.
 * @return t.
 */
KALO_API float *MATD_vider_float(const MATD *a, float *t);
/**
 * @brief Column j of a = the column c.
 * @param[in,out] a The matrix.
 * @param[in] j Column index, from 0.
 * @param[in] c A column of a's row count.
 * @return a.
 */
KALO_API MATD *MATD_remplir_colonne(MATD *a, int32_t j, const MATD *c);
/**
 * @brief The column c = column j of a.
 * @param[in] a The matrix.
 * @param[in] j Column index, from 0.
 * @param[out] c Receives the column (a's row count x 1).
 * @return c.
 */
KALO_API MATD *MATD_vider_colonne(const MATD *a, int32_t j, MATD *c);
/**
 * @brief Sets every element to s.
 * @param[out] a The matrix.
 * @param[in] s The value.
 * @return a.
 */
KALO_API MATD *MATD_remplir_avec_scalaire(MATD *a, double s);
/**
 * @brief Resets a square matrix to the identity.
 * @param[out] a The matrix, taken as square.
 * @return a.
 */
KALO_API MATD *MATD_ra_identite(MATD *a);
/**
 * @brief Prints the matrix on standard output, each row as "%1.3f\t" per
 *        element then a newline.
 * @param[in] a The matrix.
 */
KALO_API void MATD_afficher(const MATD *a);
/**
 * @brief Prints the transpose of the matrix the same way as MATD_afficher().
 * @param[in] a The matrix.
 */
KALO_API void MATD_afficher_tr(const MATD *a);

/* ---- dense matrices: element-wise and whole-matrix operations */

/**
 * @brief r = a + b, element by element.
 * @param[in] a First operand.
 * @param[in] b Second operand, the same size.
 * @param[out] r Receives the sum; may be a or b.
 * @return r.
 */
KALO_API MATD *MATD_plus(const MATD *a, const MATD *b, MATD *r);
/**
 * @brief r = a - b, element by element.
 * @param[in] a First operand.
 * @param[in] b Operand subtracted, the same size.
 * @param[out] r Receives the difference; may be a or b.
 * @return r.
 */
KALO_API MATD *MATD_moins(const MATD *a, const MATD *b, MATD *r);
/**
 * @brief r = s a.
 * @param[in] a The matrix.
 * @param[out] r Receives the product; may be a.
 * @param[in] s The scalar.
 * @return r.
 */
KALO_API MATD *MATD_mult_par_scalaire(const MATD *a, MATD *r, double s);
/**
 * @brief Whether two matrices are equal within 1e-12 element by element.
 * @param[in] a First matrix.
 * @param[in] b Second matrix, the same size.
 * @retval 1 Every element pair differs by at most 1e-12.
 * @retval 0 Otherwise.
 */
KALO_API int32_t MATD_sont_egales(const MATD *a, const MATD *b);
/**
 * @brief Whether a matrix is zero within 1e-12.
 * @param[in] a The matrix.
 * @retval 1 Every element is at most 1e-12 in absolute value.
 * @retval 0 Otherwise.
 */
KALO_API int32_t MATD_est_egale_a_zero(const MATD *a);
/**
 * @brief Sum of the diagonal.
 * @param[in] a A square matrix.
 * @return The trace.
 */
KALO_API double MATD_trace(const MATD *a);
/**
 * @brief The diagonal of a as a column: d[k] = a(k, k).
 * @param[in] a A square matrix.
 * @param[out] d Receives the diagonal (n x 1).
 * @return d.
 */
KALO_API MATD *MATD_diag(const MATD *a, MATD *d);
/**
 * @brief The block of a from (l0, c0) to (l1, c1), bounds included.
 * @param[in] a The matrix.
 * @param[in] l0 First row.
 * @param[in] l1 Last row.
 * @param[in] c0 First column.
 * @param[in] c1 Last column.
 * @param[out] r Receives the (l1 - l0 + 1) x (c1 - c0 + 1) block.
 * @return r.
 */
KALO_API MATD *MATD_extraire(const MATD *a, int32_t l0, int32_t l1, int32_t c0, int32_t c1,
                             MATD *r);
/**
 * @brief r = transpose(a).
 * @param[in] a The matrix.
 * @param[out] r Receives the transpose; distinct from a.
 * @return r.
 */
KALO_API MATD *MATD_transpose(const MATD *a, MATD *r);
/**
 * @brief Divides each column whose norm is above 1e-12 by its norm; other
 *        columns stay.
 * @param[in,out] a The matrix.
 * @return a.
 */
KALO_API MATD *MATD_normer_colonne(MATD *a);
/**
 * @brief Dot product of two columns of a.
 * @param[in] a The matrix.
 * @param[in] c1 First column index.
 * @param[in] c2 Second column index.
 * @return The dot product.
 */
KALO_API double MATD_produit_scal_colonnes(const MATD *a, int32_t c1, int32_t c2);
/**
 * @brief Dot product of two rows of a.
 * @param[in] a The matrix.
 * @param[in] l1 First row index.
 * @param[in] l2 Second row index.
 * @return The dot product.
 */
KALO_API double MATD_produit_scal_lignes(const MATD *a, int32_t l1, int32_t l2);
/**
 * @brief Skew-symmetric part: r = 0.5 (transpose(a) - a).
 * @param[in] a A square matrix.
 * @param[out] r Receives the result; distinct from a.
 * @return r.
 */
KALO_API MATD *MATD_antisymetrique_extraite_mat_carre(const MATD *a, MATD *r);
/**
 * @brief Symmetric part: r = 0.5 (a + transpose(a)).
 * @param[in] a A square matrix.
 * @param[out] r Receives the result; distinct from a.
 * @return r.
 */
KALO_API MATD *MATD_symetrique_extraite_mat_carre(const MATD *a, MATD *r);
/**
 * @brief Derivative of each row, the signal running along the columns: central
 *        differences inside, one-sided ones at both ends.
 * @param[in] a The samples, one signal per row.
 * @param[out] r Receives the derivatives, the same size.
 * @param[in] dt The sampling period in seconds.
 * @return r.
 */
KALO_API MATD *MATD_deriver_par_lignes(const MATD *a, MATD *r, double dt);
/**
 * @brief Derivative of each column, the signal running along the rows: central
 *        differences inside, one-sided ones at both ends.
 * @param[in] a The samples, one signal per column.
 * @param[out] r Receives the derivatives, the same size.
 * @param[in] dt The sampling period in seconds.
 * @return r.
 */
KALO_API MATD *MATD_deriver_par_colonnes(const MATD *a, MATD *r, double dt);

/* ---- dense matrices: products (r distinct from both operands) */

/**
 * @brief r = a b.
 * @param[in] a Left operand (n x k).
 * @param[in] b Right operand (k x m).
 * @param[out] r Receives the n x m product; distinct from a and b.
 * @return r.
 */
KALO_API MATD *MATD_mult(const MATD *a, const MATD *b, MATD *r);
/**
 * @brief r = a transpose(b).
 * @param[in] a Left operand (n x k).
 * @param[in] b Right operand (m x k).
 * @param[out] r Receives the n x m product; distinct from a and b.
 * @return r.
 */
KALO_API MATD *MATD_mult_tr(const MATD *a, const MATD *b, MATD *r);
/**
 * @brief r = transpose(a) b.
 * @param[in] a Left operand (k x n).
 * @param[in] b Right operand (k x m).
 * @param[out] r Receives the n x m product; distinct from a and b.
 * @return r.
 */
KALO_API MATD *MATD_tr_mult(const MATD *a, const MATD *b, MATD *r);
/**
 * @brief r = transpose(a) transpose(b).
 * @param[in] a Left operand (k x n).
 * @param[in] b Right operand (m x k).
 * @param[out] r Receives the n x m product; distinct from a and b.
 * @return r.
 */
KALO_API MATD *MATD_tr_mult_tr(const MATD *a, const MATD *b, MATD *r);
/**
 * @brief y = a x with flat vectors.
 * @param[in] a The matrix (n x m).
 * @param[in] x m doubles.
 * @param[out] y Receives n doubles; distinct from x.
 */
KALO_API void MATD_mult_matrice_par_vecteur(const MATD *a, const double *x, double *y);

/* ---- diagonal operands d (columns holding a diagonal) */

/**
 * @brief Writes a diagonal: a(i, i) = d(i); the other elements are untouched.
 * @param[in,out] a A square matrix.
 * @param[in] d The diagonal (n x 1).
 * @return a.
 */
KALO_API MATD *MATD_remplir_dg(MATD *a, const MATD *d);
/**
 * @brief Reads a diagonal: d(i) = a(i, i).
 * @param[in] a A square matrix.
 * @param[out] d Receives the diagonal (n x 1).
 * @return d.
 */
KALO_API MATD *MATD_vider_dg(const MATD *a, MATD *d);
/**
 * @brief Inverse of a diagonal: r(i) = 1 / d(i).
 * @param[in] d The diagonal (n x 1), no zero element.
 * @param[out] r Receives the inverse diagonal; may be d.
 * @return r.
 */
KALO_API MATD *MATD_dg_inv(const MATD *d, MATD *r);
/**
 * @brief r(i, i) = d(i) + b(i, i); only the diagonal of r is written.
 * @param[in] d The diagonal (n x 1).
 * @param[in] b A square matrix.
 * @param[out] r Receives the diagonal sum.
 * @return r.
 */
KALO_API MATD *MATD_dg_plus(const MATD *d, const MATD *b, MATD *r);
/**
 * @brief r = diag(d) b.
 * @param[in] d The diagonal (n x 1).
 * @param[in] b The matrix (n x m).
 * @param[out] r Receives the product; distinct from b.
 * @return r.
 */
KALO_API MATD *MATD_dg_mult(const MATD *d, const MATD *b, MATD *r);
/**
 * @brief r = inverse(diag(d)) b.
 * @param[in] d The diagonal (n x 1), no zero element.
 * @param[in] b The matrix (n x m).
 * @param[out] r Receives the product; distinct from b.
 * @return r.
 */
KALO_API MATD *MATD_dg_inv_mult(const MATD *d, const MATD *b, MATD *r);
/**
 * @brief r = diag(d) transpose(b).
 * @param[in] d The diagonal (n x 1).
 * @param[in] b The matrix (m x n).
 * @param[out] r Receives the n x m product; distinct from b.
 * @return r.
 */
KALO_API MATD *MATD_dg_mult_tr(const MATD *d, const MATD *b, MATD *r);
/**
 * @brief r = a diag(d).
 * @param[in] a The matrix (n x m).
 * @param[in] d The diagonal (m x 1).
 * @param[out] r Receives the product; distinct from a.
 * @return r.
 */
KALO_API MATD *MATD_mult_dg(const MATD *a, const MATD *d, MATD *r);
/**
 * @brief r = transpose(a) diag(d).
 * @param[in] a The matrix (m x n).
 * @param[in] d The diagonal (m x 1).
 * @param[out] r Receives the n x m product; distinct from a.
 * @return r.
 */
KALO_API MATD *MATD_tr_mult_dg(const MATD *a, const MATD *d, MATD *r);
/**
 * @brief Product of two diagonals: r[k] = d1[k] d2[k].
 * @param[in] d1 First diagonal (n x 1).
 * @param[in] d2 Second diagonal (n x 1).
 * @param[out] r Receives the product; may be d1 or d2.
 * @return r.
 */
KALO_API MATD *MATD_dg_mult_dg(const MATD *d1, const MATD *d2, MATD *r);

/* ---- integer matrices */

/**
 * @brief New integer matrix of zeros.
 * @param[in] nb_lignes Row count.
 * @param[in] nb_colonnes Column count.
 * @return The matrix, or NULL when memory is short. Release it with
 *         MATI_detruire().
 */
KALO_API MATI *MATI_creer(uint64_t nb_lignes, uint64_t nb_colonnes);
/**
 * @brief Releases an integer matrix.
 * @param[in] a The matrix; NULL is accepted.
 */
KALO_API void MATI_detruire(MATI *a);
/**
 * @brief Copies every element of source into destination.
 * @param[out] destination Receives the elements; the same size as source.
 * @param[in] source The matrix copied.
 * @return destination.
 */
KALO_API MATI *MATI_copier(MATI *destination, const MATI *source);
/**
 * @brief Fills an integer matrix from a flat array in row-major order.
 * @param[out] a The matrix.
 * @param[in] t rows x columns integers.
 * @return a.
 */
KALO_API MATI *MATI_remplir(MATI *a, const int32_t *t);
/**
 * @brief Copies an integer matrix out in row-major order.
 * @param[in] a The matrix.
 * @param[out] t Receives rows x columns integers.
 * @return t.
 */
KALO_API int32_t *MATI_vider(const MATI *a, int32_t *t);
/**
 * @brief Row count.
 * @param[in] a The matrix.
 * @return Its stored row count.
 */
KALO_API uint64_t MATI_nb_lignes(const MATI *a);
/**
 * @brief Column count.
 * @param[in] a The matrix.
 * @return Its stored column count.
 */
KALO_API uint64_t MATI_nb_colonnes(const MATI *a);
/** @} */

KALO_END_DECLS

#include "kalo_quaternion.h"
#include "kalo_deplacement.h"
#include "kalo_torseur.h"
#include "kalo_homogene.h"

#include "kalo_solvers.h"

#endif
