/* Rigid-body math: 3-vectors, dense matrices, quaternions, displacements,
 * twists and wrenches, homogeneous matrices. Row-major storage, operands first
 * and result last; only the _creer functions allocate. */
#ifndef KALO_MATH_H
#define KALO_MATH_H

#include <stdint.h>

#include "kalo_export.h"

KALO_BEGIN_DECLS

/* Dense real matrix, row-major: element (i, j) is donnees[i * nb_colonnes + j].
 * A diagonal ("dg") operand is a column holding the diagonal. */
typedef struct MATD {
  uint64_t nb_lignes;
  uint64_t nb_colonnes;
  double *donnees;
} MATD;

/* Dense signed 32-bit integer matrix, same layout as MATD. */
typedef struct MATI {
  uint64_t nb_lignes;
  uint64_t nb_colonnes;
  int32_t *donnees;
} MATI;

/* New rows x columns matrix of zeros, or NULL. */
KALO_API MATD *MATD_creer(uint64_t nb_lignes, uint64_t nb_colonnes);
/* New n x n identity matrix, or NULL. */
KALO_API MATD *MATD_identite(uint64_t n);
/* Releases a matrix; NULL is accepted. */
KALO_API void MATD_detruire(MATD *a);

KALO_END_DECLS

#include "kalo_solvers.h"

#endif
