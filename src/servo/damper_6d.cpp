// Linear 6D damper between two bodies: each attached damping matrix is
// brought to its body as soon as it or its frame changes; the result at
// body 1 is the mean of the two, the second carried across the bodies'
// relative displacement. Recomputed lazily, without allocating.
#include "kalo/kalo_spring.h"

#include <cstdlib>
#include <initializer_list>

#include "servo/depl_copy.h"

using kalo::servo::copy_depl;

namespace {

void copy6(MATD *to, const MATD *from) {
  const uint64_t n = from->nb_lignes * from->nb_colonnes;
  for (uint64_t i = 0; i < n && i < 36; ++i)
    to->donnees[i] = from->donnees[i];
}

// out = Ad^T b Ad with Ad the standard inverse adjoint of h.
void transport(LIN_DAMP_6D *d, const DEPL *h, const MATD *b, MATD *out) {
  DEPL_adjoint_inverse_std(h, d->Ad, d->s, d->r, d->p);
  MATD_mult(b, d->Ad, d->M);
  MATD_tr_mult(d->Ad, d->M, out);
}

} // namespace

extern "C" {

LIN_DAMP_6D *LIN_DAMP_6D_new(void) {
  auto *d = static_cast<LIN_DAMP_6D *>(std::calloc(1, sizeof(LIN_DAMP_6D)));
  if (d == nullptr)
    return nullptr;
  // What was allocated before a failure is not released (documented behaviour).
  if (!(d->H_1c_1 = DEPL_creer()) || !(d->H_2c_2 = DEPL_creer()) || !(d->H_1_2 = DEPL_creer()))
    return nullptr; // NOLINT(clang-analyzer-unix.Malloc): what was allocated stays, as documented
  for (MATD **m : {&d->B_1c_1c, &d->B_2c_2c, &d->B_1c_1, &d->B_2c_2, &d->B_1, &d->Ad, &d->M})
    if (!(*m = MATD_creer(6, 6)))
      return nullptr;
  for (MATD **m : {&d->s, &d->r, &d->p})
    if (!(*m = MATD_creer(3, 3)))
      return nullptr;
  if (!(d->B_tmp = MATD_creer(6, 6)))
    return nullptr;
  d->valide = 0;
  return d;
}

void LIN_DAMP_6D_delete(LIN_DAMP_6D *d) {
  if (d == nullptr)
    return;
  for (DEPL *h : {d->H_1c_1, d->H_2c_2, d->H_1_2})
    DEPL_detruire(h);
  for (MATD *m : {d->B_1c_1c, d->B_2c_2c, d->B_1c_1, d->B_2c_2, d->B_1, d->Ad, d->M, d->s, d->r,
                  d->p, d->B_tmp})
    MATD_detruire(m);
  std::free(d);
}

void LIN_DAMP_6D_compute_B_1c_1(LIN_DAMP_6D *d) {
  transport(d, d->H_1c_1, d->B_1c_1c, d->B_1c_1);
}

void LIN_DAMP_6D_compute_B_2c_2(LIN_DAMP_6D *d) {
  transport(d, d->H_2c_2, d->B_2c_2c, d->B_2c_2);
}

void LIN_DAMP_6D_set_B_1c_1c(LIN_DAMP_6D *d, const MATD *b) {
  copy6(d->B_1c_1c, b);
  LIN_DAMP_6D_compute_B_1c_1(d);
  d->valide = 0;
}

void LIN_DAMP_6D_set_B_2c_2c(LIN_DAMP_6D *d, const MATD *b) {
  copy6(d->B_2c_2c, b);
  LIN_DAMP_6D_compute_B_2c_2(d);
  d->valide = 0;
}

void LIN_DAMP_6D_set_H_1c_1(LIN_DAMP_6D *d, const DEPL *h) {
  copy_depl(h, d->H_1c_1);
  LIN_DAMP_6D_compute_B_1c_1(d);
  d->valide = 0;
}

void LIN_DAMP_6D_set_H_2c_2(LIN_DAMP_6D *d, const DEPL *h) {
  copy_depl(h, d->H_2c_2);
  LIN_DAMP_6D_compute_B_2c_2(d);
  d->valide = 0;
}

void LIN_DAMP_6D_setParameters(LIN_DAMP_6D *d, const MATD *b_1c_1c, const MATD *b_2c_2c,
                               const DEPL *h_1c_1, const DEPL *h_2c_2) {
  copy6(d->B_1c_1c, b_1c_1c);
  copy6(d->B_2c_2c, b_2c_2c);
  copy_depl(h_1c_1, d->H_1c_1);
  copy_depl(h_2c_2, d->H_2c_2);
  LIN_DAMP_6D_compute_B_1c_1(d);
  LIN_DAMP_6D_compute_B_2c_2(d);
  d->valide = 0;
}

void LIN_DAMP_6D_set_H_1_2(LIN_DAMP_6D *d, const DEPL *h) {
  copy_depl(h, d->H_1_2);
  d->valide = 0;
}

void LIN_DAMP_6D_update_B_1(LIN_DAMP_6D *d) {
  if (d->valide != 0)
    return;
  DEPL_adjoint_std(d->H_1_2, d->Ad, d->s, d->r, d->p);
  MATD_mult(d->B_2c_2, d->Ad, d->M);
  MATD_tr_mult(d->Ad, d->M, d->B_tmp);
  MATD_plus(d->B_1c_1, d->B_tmp, d->B_tmp);
  MATD_mult_par_scalaire(d->B_tmp, d->B_1, 0.5);
  d->valide = 1;
}

MATD *LIN_DAMP_6D_get_B_1_ref(LIN_DAMP_6D *d) {
  LIN_DAMP_6D_update_B_1(d);
  return d->B_1;
}

} // extern "C"
