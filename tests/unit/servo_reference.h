// The servo cycle, its frame conversions and the spring update computed the
// record way: every step an exported math call on the ServoPoint's heap
// records. The library computes the same on fixed-size stack values; this
// is the reference the two are compared against.
#pragma once

#include "device/context.h"
#include "servo/servo_point.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_spring.h"

namespace kalo_test::reference {

inline void fill_normalised(ServoPoint &p, DEPL *d, const float *pose) {
  DEPL_remplir_7_float(d, pose);
  QUAT_normaliser(d->rot, p.q_norm);
  for (int k = 0; k < 3; ++k)
    d->rot->partie_vect[k] = p.q_norm->partie_vect[k];
  d->rot->partie_scal = p.q_norm->partie_scal;
}

inline void spring_update(LIN_SPR_6D *s) {
  DEPL_compose(s->H_c2_2, s->H_1_2, s->H_tmp1);
  DEPL_compose(s->H_tmp1, s->H_1c_1, s->H_c);
  TORS_calculer_effort(s->K, s->H_c, s->W_c, s->W, nullptr, s->identite, s->r, s->rt, s->t, s->ktt,
                       s->koo, s->kot, s->gtt, s->goo, s->got, s->e1, s->e2, s->v1, s->v2);
  TORS_mult_par_scalaire(s->W_c, s->W_c, -1.0);
  DEPL_adjoint_inverse(s->H_1c_1, s->Ad, s->r, s->rt, s->t);
  TORS_mult_effort_par_adjointe_transpose(s->W_c, s->Ad, s->w_tmp, s->W_2_1_1);
  s->valide = 1;
}

inline void lecture_position(ServoPoint &p, const float *pose) {
  fill_normalised(p, p.X_dev, pose);
  DEPL_inverse(p.X_dev, p.X_dev_inv);
}

inline void ecriture_position(ServoPoint &p, const float *pose) {
  fill_normalised(p, p.X_obj, pose);
  DEPL_adjoint(p.X_obj, p.Ad_obj, p.m3[0], p.m3[1], p.m3[2]);
  DEPL_inverse(p.X_obj, p.X_obj_inv);
  DEPL_adjoint(p.X_obj_inv, p.Ad_obj_inv, p.m3[0], p.m3[1], p.m3[2]);
}

inline void lecture_vitesse(ServoPoint &p, const float *in, float *out) {
  TORS_remplir_vitesse_float(p.V_dev_in, in);
  DEPL_inverse(p.X_dev, p.X_dev_inv);
  DEPL_adjoint(p.X_dev_inv, p.Ad_dev_inv, p.m3[0], p.m3[1], p.m3[2]);
  TORS_mult_vitesse_par_adjointe(p.V_dev_in, p.Ad_dev_inv, p.V_dev);
  TORS_changer_repere_projection(p.V_dev, p.X_dev, p.V_dev_proj);
  TORS_vider_vitesse_float(p.V_dev_proj, out);
}

inline void ecriture_vitesse(ServoPoint &p, const float *in, float *out) {
  TORS_remplir_vitesse_float(p.V_obj_in, in);
  DEPL_inverse(p.X_obj, p.X_obj_inv);
  TORS_changer_repere_projection(p.V_obj_in, p.X_obj_inv, p.V_obj_proj);
  DEPL_adjoint(p.X_obj, p.Ad_obj, p.m3[0], p.m3[1], p.m3[2]);
  TORS_mult_vitesse_par_adjointe(p.V_obj_proj, p.Ad_obj, p.V_obj);
  TORS_vider_vitesse_float(p.V_obj, out);
}

inline void ecriture_force(ServoPoint &p, const float *device_pose, const float *in, float *out) {
  TORS_remplir_effort_float(p.W_consigne, in);
  lecture_position(p, device_pose);
  TORS_changer_repere_projection(p.W_consigne, p.X_dev_inv, p.W_total);
  DEPL_adjoint(p.X_dev_inv, p.Ad_obj_inv, p.m3[0], p.m3[1], p.m3[2]);
  TORS_mult_effort_par_adjointe_transpose(p.W_total, p.Ad_obj_inv, p.w_tmp, p.W_dev);
  TORS_vider_effort_float(p.W_dev, out);
}

inline void ecriture_texture_force(ServoPoint &p, const float *device_pose, const float *in,
                                   float *out) {
  TORS_remplir_effort_float(p.W_texture_in, in);
  DEPL_inverse(p.X_obj, p.X_obj_inv);
  TORS_changer_repere_projection(p.W_texture_in, p.X_obj_inv, p.W_texture_proj);
  lecture_position(p, device_pose);
  DEPL_adjoint(p.X_obj_inv, p.Ad_obj_inv, p.m3[0], p.m3[1], p.m3[2]);
  TORS_mult_effort_par_adjointe_transpose(p.W_texture_proj, p.Ad_obj_inv, p.w_tmp, p.W_texture);
  TORS_vider_effort_float(p.W_texture, out);
}

inline void calcul_asserv(ServoPoint &p) {
  DEPL_inv_compose(p.X_dev, p.X_obj, p.H_rel);
  TORS_moins(p.V_dev_in, p.V_obj, p.V_err);
  LIN_SPR_6D_setStiffnessMatrix(p.ressort, p.K);
  LIN_SPR_6D_set_H_1_2(p.ressort, p.H_rel);
  spring_update(p.ressort);
  const TORS *w = p.ressort->W_2_1_1;
  DEPL_adjoint_inverse(p.X_obj, p.Ad_obj_inv, p.m3[0], p.m3[1], p.m3[2]);
  TORS_mult_vitesse_par_adjointe(p.V_err, p.Ad_obj_inv, p.V_err_obj);
  TORS_mult_vitesse_par_matrice_vers_effort(p.V_err_obj, p.B, p.w_tmp[0], p.W_amort);
  TORS_plus(w, p.W_amort, p.W_total);
  TORS_changer_repere_projection(p.W_total, p.X_obj, p.W_consigne);
}

} // namespace kalo_test::reference
