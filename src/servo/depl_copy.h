// Value copy of a displacement into storage the destination already owns
// (translation, then quaternion vector and scalar parts): the servo and the
// spring objects never adopt their callers' records.
#pragma once

#include "kalo/kalo_math.h"

namespace kalo::servo {

inline void copy_depl(const DEPL *from, DEPL *to) {
  for (int k = 0; k < 3; ++k) {
    to->trans[k] = from->trans[k];
    to->rot->partie_vect[k] = from->rot->partie_vect[k];
  }
  to->rot->partie_scal = from->rot->partie_scal;
}

} // namespace kalo::servo
