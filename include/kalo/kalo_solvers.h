/* Matrix solvers: pseudo-inverse, Cholesky factorisation, singular value
 * decomposition. Work records are created once per matrix shape; the solvers
 * themselves never allocate, so they can run inside a control cycle. */
#ifndef KALO_SOLVERS_H
#define KALO_SOLVERS_H

#include <stdint.h>

#include "kalo_math.h"

KALO_BEGIN_DECLS

/* ---- Pseudo-inverse (Greville's column recursion) ---------------------- */

/* Intermediates of MATD_inverse for one m x n input shape. The record keeps
 * values from one call to the next (see MATD_inverse). */
typedef struct MATD_TRAVAIL_INVERSE {
  MATD *copie;          /* m x n: copy of the input */
  MATD *pseudo_inverse; /* n x m: the pseudo-inverse, built row by row */
  MATD *d;              /* n x 1: projections of the current column */
  MATD *c;              /* m x 1: part of the current column outside the span */
  MATD *b;              /* 1 x m: the new row */
} MATD_TRAVAIL_INVERSE;

/* New work record for m x n inputs (all matrices zero), or NULL. */
KALO_API MATD_TRAVAIL_INVERSE *MATD_init_inverse(int32_t m, int32_t n);
/* R (n x m) = Moore-Penrose pseudo-inverse of A (m x n). Returns 0 when every
 * column of A was independent of the columns before it (squared norm of its
 * residual above 1e-15), -1 when one was dependent; R is written either way.
 * Carried between calls on the same record: row 0 of the result is left as
 * it was when the first column is null, and the squared norm of the whole
 * column w->d (stale tail included) weighs the dependent-column update. */
KALO_API int32_t MATD_inverse(MATD *A, MATD *R, MATD_TRAVAIL_INVERSE *w);
/* Releases the record and its matrices; NULL is accepted. */
KALO_API void MATD_detruire_inverse(MATD_TRAVAIL_INVERSE *w);

/* ---- Cholesky factorisation A = L transpose(L) -------------------------- */

typedef struct MATD_CHOLESKY {
  MATD *facteur;         /* n x n: L (lower triangle and diagonal) */
  MATD *facteur_inverse; /* n x n: inverse of L (lower triangle and diagonal) */
  MATD *solution;        /* n x 1: L^-1 b from MATD_resoudre_cholesky */
} MATD_CHOLESKY;

/* New record for n x n matrices, or NULL. */
KALO_API MATD_CHOLESKY *MATD_init_cholesky(int32_t n);
/* Factorises A (reading its diagonal and upper triangle) into c->facteur and
 * solves L y = b into c->solution, so y.y = b' A^-1 b. Forward half only.
 * The third argument is not used. Returns 0. No positive-definiteness test:
 * a non-positive pivot gives NaN or infinite results. */
KALO_API int32_t MATD_resoudre_cholesky(MATD *A, MATD *b, MATD *inutilise, MATD_CHOLESKY *c);
/* R = A^-1 for a symmetric positive-definite A (reading its diagonal and
 * lower triangle), through L and L^-1; R comes out exactly symmetric. */
KALO_API void MATD_inverse_cholesky(MATD *A, MATD *R, MATD_CHOLESKY *c);
/* Releases the three matrix records and the record. Their element blocks are
 * NOT released: a caller that wants them back frees each matrix's donnees
 * with free() before this call. */
KALO_API void MATD_detruire_cholesky(MATD_CHOLESKY *c);

/* ---- Singular value decomposition (Golub-Reinsch) ----------------------- */

/* Five-word shape descriptor kept in the SVD record: {size, 0, 1, 1.0, 0}. */
typedef struct MATD_SVD_DESCRIPTEUR {
  uint64_t dimension;
  uint64_t decalage;
  uint64_t pas;
  double echelle;
  uint64_t reserve;
} MATD_SVD_DESCRIPTEUR;

/* Matrices sized for one m x n input. Only entree is tied to a computation:
 * the record owns it from MATD_svd_init on. */
typedef struct MATD_SVD {
  MATD *entree;     /* the matrix given to MATD_svd_init (not copied) */
  MATD *u;          /* m x n */
  MATD *identite_m; /* m x m identity */
  MATD *u_travail;  /* m x n */
  MATD *identite_n; /* n x n identity */
  MATD_SVD_DESCRIPTEUR *descripteur_m;
  MATD_SVD_DESCRIPTEUR *descripteur_n;
} MATD_SVD;

/* A = U diag(w) V' in place: A (m x n) receives U, w (n x 1) the singular
 * values (unordered, non-negative), V (n x n) the right singular vectors
 * (V itself, not its transpose); work (n x 1) holds the superdiagonal.
 * Returns 1 on success (at once when A has no columns), 0 when a singular
 * value did not converge in 30 sweeps, after a message on standard error. */
KALO_API int32_t MATD_svdcmp(MATD *A, MATD *w, MATD *V, MATD *work);
/* New record sized for A, taking ownership of A; NULL when the record cannot
 * be allocated. */
KALO_API MATD_SVD *MATD_svd_init(MATD *A);
/* Releases the record, its matrices and the input matrix A it was made from
 * (which the caller must not release again); NULL is accepted. */
KALO_API void MATD_svd_detruire(MATD_SVD *s);

KALO_END_DECLS

#endif
