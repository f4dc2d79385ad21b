/**
 * @file kalo_solvers.h
 * @brief Matrix solvers: pseudo-inverse, Cholesky factorisation, singular
 *        value decomposition.
 *
 * Work records are created once per matrix shape; the solvers themselves never
 * allocate, so they can run inside a control cycle.
 */
#ifndef KALO_SOLVERS_H
#define KALO_SOLVERS_H

#include <stdint.h>

#include "kalo_math.h"

KALO_BEGIN_DECLS

/* ---- Pseudo-inverse (Greville's column recursion) ---------------------- */

/**
 * @defgroup kalo_math_solvers Solvers
 * @brief Pseudo-inverse, Cholesky factorisation and singular value
 *        decomposition of MATD matrices.
 * @{
 */
/**
 * @brief Intermediates of MATD_inverse() for one m x n input shape.
 *
 * The record keeps values from one call to the next (see MATD_inverse()).
 */
typedef struct MATD_TRAVAIL_INVERSE {
  MATD *copie;          /**< m x n: copy of the input */
  MATD *pseudo_inverse; /**< n x m: the pseudo-inverse, built row by row */
  MATD *d;              /**< n x 1: projections of the current column */
  MATD *c;              /**< m x 1: part of the current column outside the span */
  MATD *b;              /**< 1 x m: the new row */
} MATD_TRAVAIL_INVERSE;

/**
 * @brief New work record for m x n inputs, all its matrices zero.
 * @param[in] m Row count of the inputs.
 * @param[in] n Column count of the inputs.
 * @return The record, or NULL when memory is short. Release it with
 *         MATD_detruire_inverse().
 */
KALO_API MATD_TRAVAIL_INVERSE *MATD_init_inverse(int32_t m, int32_t n);
/**
 * @brief Moore-Penrose pseudo-inverse by Greville's column recursion: R =
 *        pinv(A).
 *
 * R is written whatever the result. Values are carried between calls on the same record: row 0 of
 * the result is left as it was when the first column of A is null, and the squared norm of the
 * whole column w->d (its stale tail included) weighs the dependent-column update.
 * @param[in] A The m x n matrix (not modified).
 * @param[out] R Receives the n x m pseudo-inverse.
 * @param[in,out] w The work record made for m x n.
 * @retval 0 Every column of A was independent of the columns before it (squared
 *         norm of its residual above 1e-15).
 * @retval -1 A column was dependent.
 */
KALO_API int32_t MATD_inverse(MATD *A, MATD *R, MATD_TRAVAIL_INVERSE *w);
/**
 * @brief Releases the record and its matrices.
 * @param[in] w The record; NULL is accepted.
 */
KALO_API void MATD_detruire_inverse(MATD_TRAVAIL_INVERSE *w);

/* ---- Cholesky factorisation A = L transpose(L) -------------------------- */

/**
 * @brief Factors of a Cholesky factorisation A = L transpose(L), for n x n
 *        matrices.
 */
typedef struct MATD_CHOLESKY {
  MATD *facteur;         /**< n x n: L (lower triangle and diagonal) */
  MATD *facteur_inverse; /**< n x n: inverse of L (lower triangle and diagonal) */
  MATD *solution;        /**< n x 1: L^-1 b from MATD_resoudre_cholesky */
} MATD_CHOLESKY;

/**
 * @brief New Cholesky record for n x n matrices.
 * @param[in] n The matrices' size.
 * @return The record, or NULL when memory is short. Release it with
 *         MATD_detruire_cholesky().
 */
KALO_API MATD_CHOLESKY *MATD_init_cholesky(int32_t n);
/**
 * @brief Factorises A into c->facteur and solves L y = b into c->solution, so
 *        that y . y = transpose(b) inverse(A) b. Forward half only.
 *
 * There is no positive-definiteness test: a non-positive pivot gives NaN or infinite results.
 * @param[in] A The n x n symmetric positive-definite matrix; its diagonal and
 *        upper triangle are read.
 * @param[in] b The n x 1 right-hand side.
 * @param[in] inutilise Not used.
 * @param[in,out] c The record made for n.
 * @return 0.
 */
KALO_API int32_t MATD_resoudre_cholesky(MATD *A, MATD *b, MATD *inutilise, MATD_CHOLESKY *c);
/**
 * @brief R = inverse(A) through L and inverse(L); R comes out exactly
 *        symmetric.
 * @param[in] A The n x n symmetric positive-definite matrix; its diagonal and
 *        lower triangle are read.
 * @param[out] R Receives the n x n inverse.
 * @param[in,out] c The record made for n.
 */
KALO_API void MATD_inverse_cholesky(MATD *A, MATD *R, MATD_CHOLESKY *c);
/**
 * @brief Releases the three matrix records and the record.
 *
 * Their element blocks are not released: a caller that wants them back frees each matrix's donnees
 * with free() before this call.
 * @param[in] c The record.
 */
KALO_API void MATD_detruire_cholesky(MATD_CHOLESKY *c);

/* ---- Singular value decomposition (Golub-Reinsch) ----------------------- */

/**
 * @brief Five-word shape descriptor kept in the SVD record: {size, 0, 1, 1.0,
 *        0}.
 */
typedef struct MATD_SVD_DESCRIPTEUR {
  uint64_t dimension; /**< the size it describes (m or n) */
  uint64_t decalage;  /**< offset, 0 */
  uint64_t pas;       /**< stride, 1 */
  double echelle;     /**< scale, 1.0 */
  uint64_t reserve;   /**< 0, used by no function */
} MATD_SVD_DESCRIPTEUR;

/**
 * @brief Matrices of a singular value decomposition sized for one m x n input.
 *
 * Only entree is tied to a computation: the record owns it from MATD_svd_init() on.
 */
typedef struct MATD_SVD {
  MATD *entree;                        /**< the matrix given to MATD_svd_init (not copied) */
  MATD *u;                             /**< m x n */
  MATD *identite_m;                    /**< m x m identity */
  MATD *u_travail;                     /**< m x n */
  MATD *identite_n;                    /**< n x n identity */
  MATD_SVD_DESCRIPTEUR *descripteur_m; /**< shape descriptor of size m */
  MATD_SVD_DESCRIPTEUR *descripteur_n; /**< shape descriptor of size n */
} MATD_SVD;

/**
 * @brief Singular value decomposition in place (Golub-Reinsch): A = U diag(w)
 *        transpose(V).
 * @param[in,out] A The m x n matrix; receives U.
 * @param[out] w Receives the n singular values (n x 1), non-negative, in no
 *        particular order.
 * @param[out] V Receives the n x n right singular vectors (V itself, not its
 *        transpose).
 * @param[out] work n x 1 work matrix (holds the superdiagonal).
 * @retval 1 Success (at once when A has no columns).
 * @retval 0 A singular value did not converge in 30 sweeps; a message went to
 *         standard error.
 */
KALO_API int32_t MATD_svdcmp(MATD *A, MATD *w, MATD *V, MATD *work);
/**
 * @brief New SVD record sized for A, taking ownership of A.
 * @param[in] A The m x n matrix; the record owns it from now on.
 * @return The record, or NULL when it cannot be allocated.
 */
KALO_API MATD_SVD *MATD_svd_init(MATD *A);
/**
 * @brief Releases the record, its matrices and the input matrix it was made
 *        from (which the caller must not release again).
 * @param[in] s The record; NULL is accepted.
 */
KALO_API void MATD_svd_detruire(MATD_SVD *s);
/** @} */

KALO_END_DECLS

#endif
