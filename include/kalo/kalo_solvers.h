/* Matrix solvers: pseudo-inverse, Cholesky factorisation, singular value
 * decomposition. Work records are created once; the solvers never allocate. */
#ifndef KALO_SOLVERS_H
#define KALO_SOLVERS_H

#include "kalo_math.h"

KALO_BEGIN_DECLS

KALO_END_DECLS

#endif
