// Linear 6D spring between two bodies: the wrench of a stiffness given in
// the attachment frame, for the displacement between the attachment frames,
// brought back to body 1. Recomputed lazily, on the stack with fixed-size
// values, so an update allocates nothing.
#include "kalo/kalo_spring.h"

#include <cstdlib>
#include <initializer_list>

#include "servo/depl_copy.h"
#include "math/fixed.h"

using kalo::servo::copy_depl;

extern "C" {

LIN_SPR_6D *LIN_SPR_6D_new(void) {
  auto *s = static_cast<LIN_SPR_6D *>(std::calloc(1, sizeof(LIN_SPR_6D)));
  if (s == nullptr)
    return nullptr;
  // What was allocated before a failure is not released (documented behaviour).
  if (!(s->H_1c_1 = DEPL_creer()) || !(s->H_2c_2 = DEPL_creer()) || !(s->H_c2_2 = DEPL_creer()) ||
      !(s->H_1_2 = DEPL_creer()) || !(s->K = MATD_creer(6, 6)) || !(s->W_c = TORS_creer()) ||
      !(s->W_2_1_1 = TORS_creer()) || !(s->H_tmp1 = DEPL_creer()) || !(s->H_c = DEPL_creer()) ||
      !(s->Ad = MATD_creer(6, 6)))
    return nullptr; // NOLINT(clang-analyzer-unix.Malloc): what was allocated stays, as documented
  for (MATD *&w : s->W)
    if (!(w = MATD_creer(3, 3)))
      return nullptr;
  for (MATD *&v : s->v)
    if (!(v = MATD_creer(3, 1)))
      return nullptr;
  if (!(s->identite = MATD_identite(3)))
    return nullptr;
  for (MATD **m :
       {&s->r, &s->rt, &s->t, &s->ktt, &s->koo, &s->kot, &s->gtt, &s->goo, &s->got, &s->e1, &s->e2})
    if (!(*m = MATD_creer(3, 3)))
      return nullptr;
  if (!(s->v1 = VECT3_creer()) || !(s->v2 = VECT3_creer()))
    return nullptr;
  for (TORS *&w : s->w_tmp)
    if (!(w = TORS_creer()))
      return nullptr;
  s->valide = 0;
  return s;
}

void LIN_SPR_6D_delete(LIN_SPR_6D *s) {
  if (s == nullptr)
    return;
  for (DEPL *d : {s->H_1c_1, s->H_2c_2, s->H_c2_2, s->H_1_2, s->H_tmp1, s->H_c})
    DEPL_detruire(d);
  for (MATD *m : {s->K, s->Ad, s->identite, s->r, s->rt, s->t, s->ktt, s->koo, s->kot, s->gtt,
                  s->goo, s->got, s->e1, s->e2})
    MATD_detruire(m);
  for (MATD *m : s->W)
    MATD_detruire(m);
  for (MATD *m : s->v)
    MATD_detruire(m);
  VECT3_detruire(s->v1);
  VECT3_detruire(s->v2);
  TORS_detruire(s->W_c);
  TORS_detruire(s->W_2_1_1);
  for (TORS *w : s->w_tmp)
    TORS_detruire(w);
  std::free(s);
}

void LIN_SPR_6D_setStiffnessMatrix(LIN_SPR_6D *s, const MATD *k) {
  const uint64_t n = k->nb_lignes * k->nb_colonnes;
  for (uint64_t i = 0; i < n && i < 36; ++i)
    s->K->donnees[i] = k->donnees[i];
  s->valide = 0;
}

void LIN_SPR_6D_set_H_1c_1(LIN_SPR_6D *s, const DEPL *h) {
  copy_depl(h, s->H_1c_1);
  s->valide = 0;
}

void LIN_SPR_6D_set_H_2c_2(LIN_SPR_6D *s, const DEPL *h) {
  copy_depl(h, s->H_2c_2);
  DEPL_inverse(s->H_2c_2, s->H_c2_2);
  s->valide = 0;
}

void LIN_SPR_6D_set_H_1_2(LIN_SPR_6D *s, const DEPL *h) {
  copy_depl(h, s->H_1_2);
  s->valide = 0;
}

void LIN_SPR_6D_setParameters(LIN_SPR_6D *s, const MATD *k, const DEPL *h_1c_1,
                              const DEPL *h_2c_2) {
  LIN_SPR_6D_setStiffnessMatrix(s, k);
  LIN_SPR_6D_set_H_1c_1(s, h_1c_1);
  LIN_SPR_6D_set_H_2c_2(s, h_2c_2);
  s->valide = 0;
}

void LIN_SPR_6D_update_W_2_1_1(LIN_SPR_6D *s) {
  if (s->valide != 0)
    return;
  using namespace kalo::fixed;
  // Displacement from attachment frame c2 to attachment frame c1 through the
  // bodies. Attachment frames at the bodies (the servo's case) compose to the
  // body displacement itself, normalised as a composition would leave it.
  const Pose c2_2 = load(s->H_c2_2), h_1_2 = load(s->H_1_2), c1_1 = load(s->H_1c_1);
  const bool at_bodies = is_identity(c2_2) && is_identity(c1_1);
  Pose h_c{h_1_2.t, unit(h_1_2.q)};
  if (!at_bodies) {
    const Pose tmp = compose(c2_2, h_1_2);
    store(tmp, s->H_tmp1);
    h_c = compose(tmp, c1_1);
  }
  store(h_c, s->H_c);
  const Wrench w = spring_wrench(s->K->donnees, h_c);
  const V3 m = -1.0 * w.moment, f = -1.0 * w.force; // the spring pulls back
  store(m, s->W_c->vtrans);
  store(f, s->W_c->vrot);
  if (at_bodies) {
    store(m, s->W_2_1_1->vtrans);
    store(f, s->W_2_1_1->vrot);
  } else {
    // The transposed inverse adjoint of H_1c_1 carries the wrench from c1 to
    // body 1: force R f, moment t x (R f) + R m.
    const M3 r = rotation_matrix(c1_1.q);
    const V3 rf = r * f;
    store(cross(c1_1.t, rf) + r * m, s->W_2_1_1->vtrans);
    store(rf, s->W_2_1_1->vrot);
  }
  s->valide = 1;
}

TORS *LIN_SPR_6D_get_W_2_1_1_ref(LIN_SPR_6D *s) {
  LIN_SPR_6D_update_W_2_1_1(s);
  return s->W_2_1_1;
}

} // extern "C"
