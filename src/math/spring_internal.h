// The matrix core shared by the two spatial-spring wrench functions
// (TORS_calculer_effort, MATD_calculer_wrench).
#pragma once

#include "kalo/kalo_math.h"

namespace kalo::math {

// Work records of the spring computation, all 3 x 3 but k (6 x 6); w: seven
// 3 x 3 work matrices.
struct SpringWork {
  const MATD *identite;
  MATD *const *w;
  MATD *r, *rt, *t, *ktt, *koo, *kot, *gtt, *goo, *got, *e1, *e2;
};

// With r, rt and t (rotation, its transpose, cross-product matrix of the
// translation) already filled: e1 = the force matrix -A1 - (A2 + A3) and
// e2 = the moment matrix -2 B1 - (B2 + 2 B3).
void spring_matrices(const MATD *k, const SpringWork &s);

} // namespace kalo::math
