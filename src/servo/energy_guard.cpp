// Kinetic-energy guard of the commands given for the virtual object. From
// successive commands it estimates the object's translational and rotational
// kinetic energy, follows the latest peak and refuses commands once the peak
// passes the energy the object would have at the device's maximum speeds. A
// position command in excess is still accepted within a small distance of the
// pose held when the excess began. One message marks the start of an excess
// and one its end, never one per cycle.
#include <cfloat>
#include <cmath>
#include <cstdio>

#include "device/context.h"
#include "servo/depl_copy.h"
#include "link/events.h"
#include "servo/servo_point.h"
#include "kalo/kalo_internal.h"

namespace {

double sign(double x) {
  return x > 0.0 ? 1.0 : (x < 0.0 ? -1.0 : 0.0);
}

// Updates the energy history with e and returns the peak to compare.
double follow_peak(EnergyTrack &t, double e) {
  t.E_prev = t.E;
  t.E = e;
  t.dE_prev = t.dE;
  t.dE = t.E - t.E_prev;
  bool rising = false;
  if (t.dE != 0.0) {
    const double s = t.dE_prev == 0.0 ? sign(t.dE) : sign(t.dE) * sign(t.dE_prev);
    t.E_pic_prev = t.E_pic;
    if (s == 1.0) {
      rising = true;
      t.E_pic = std::fmax(t.E_pic, t.E);
    }
  }
  if (!rising)
    t.E_pic = std::fmax(t.E_prev, t.E);
  return t.E_pic;
}

double filtered_speed_factor(const KaloContext *ctx) {
  return ctx->servo.speed_factor_filtered != nullptr ? ctx->servo.speed_factor_filtered->donnees[0]
                                                     : 1.0;
}

// 0.5 w . (I w)
double rotational_energy(const KaloContext *ctx, const VECT3 *w, VECT3 *work) {
  VECT3_mult_par_matrice(ctx->servo.object_inertia, w, work);
  return 0.5 * VECT3_produit_scalaire(w, work);
}

double translational_energy(const KaloContext *ctx, const VECT3 *v) {
  const double n = VECT3_norme(v);
  return 0.5 * ctx->servo.object_mass * n * n;
}

void print(const KaloContext *ctx, const char *text) {
  if (ctx->params.output_stream != nullptr)
    std::fputs(text, ctx->params.output_stream);
}

void print_vector(const KaloContext *ctx, const VECT3 *v) {
  if (ctx->params.output_stream != nullptr)
    std::fprintf(ctx->params.output_stream, "=> %lf, %lf %lf\n", v[0], v[1], v[2]);
}

// An excess begins: kept as an event, so that the application can tell why
// its commands were refused.
void note_excess(KaloContext *ctx, const EnergyTrack &t, double peak) {
  if (t.en_depassement == 0)
    kalo::record_event(ctx, KALO_EXT_EVENT_ENERGY_GUARD, peak, t.E_max);
}

void end_excess(const KaloContext *ctx, EnergyTrack &t, const char *text) {
  if (t.en_depassement != 0)
    print(ctx, text);
  t.en_depassement = 0;
  t.limitation = 0;
}

} // namespace

extern "C" {

int32_t init_control_energie_cinetique(KaloContext *ctx) {
  if (ctx->link.control_point_count < 1 || ctx->servo.points == nullptr)
    return 0;
  ServoPoint &p = ctx->servo.points[0];
  const double v = static_cast<double>(ctx->params.max_linear_speed);
  const double e_trans = 0.5 * ctx->servo.object_mass * v * v;
  const double w[3] = {static_cast<double>(ctx->params.max_angular_speed), 0.0, 0.0};
  double iw[3];
  VECT3_mult_par_matrice(ctx->servo.object_inertia, w, iw);
  const double e_rot = 0.5 * VECT3_produit_scalaire(w, iw);
  p.pos_trans.E_max = e_trans;
  p.vit_trans.E_max = e_trans;
  p.pos_rot.E_max = e_rot;
  p.vit_rot.E_max = e_rot;
  return 0;
}

void deactive_control_ener_cine(KaloContext *ctx) {
  if (ctx->link.control_point_count < 1 || ctx->servo.points == nullptr)
    return;
  ctx->servo.points[0].ec_restart_pos = 1;
  ctx->servo.points[0].ec_restart_vit = 1;
}

int32_t control_ener_cine_position(KaloContext *ctx, const float *pose, int32_t point) {
  ServoPoint &p = ctx->servo.points[point];
  DEPL_remplir_7_float(p.X_cmd_new, pose);
  QUAT_normaliser(p.X_cmd_new->rot, p.q_norm);
  for (int k = 0; k < 3; ++k)
    p.X_cmd_new->rot->partie_vect[k] = p.q_norm->partie_vect[k];
  p.X_cmd_new->rot->partie_scal = p.q_norm->partie_scal;
  DEPL_compose(p.X_cmd_new, p.X_offset, p.X_cmd);

  if (p.ec_restart_pos != 0) {
    kalo::servo::copy_depl(p.X_cmd, p.X_cmd_prev);
    p.ec_restart_pos = 0;
    p.ec_scale_pos = filtered_speed_factor(ctx);
    p.t_now = p.t_prev = p.clock_us();
    return 0;
  }
  p.t_prev = p.t_now;
  p.t_now = p.clock_us();
  // Two commands within the clock's resolution count as one microsecond
  // apart, so that a repeated pose still gives a zero speed.
  const double dt = p.t_now > p.t_prev ? static_cast<double>(p.t_now - p.t_prev) / 1e6 : 1e-6;

  VECT3_moins(p.X_cmd->trans, p.X_cmd_prev->trans, p.ec_vit_lin);
  VECT3_mult_par_scalaire(p.ec_vit_lin, p.ec_vit_lin, 1.0 / dt);
  VECT3_mult_par_scalaire(p.ec_vit_lin, p.ec_vit_lin, 1.0 / p.ec_scale_pos);
  for (int k = 0; k < 3; ++k)
    p.dq->partie_vect[k] = (p.X_cmd->rot->partie_vect[k] - p.X_cmd_prev->rot->partie_vect[k]) / dt;
  p.dq->partie_scal = (p.X_cmd->rot->partie_scal - p.X_cmd_prev->rot->partie_scal) / dt;
  QUAT_convertir_quaternion_derive_en_vitesse_rotation(p.X_dev->rot, p.dq, p.ec_vit_rot);

  // ---- translation
  EnergyTrack &tt = p.pos_trans;
  const double pic_t = follow_peak(tt, translational_energy(ctx, p.ec_vit_lin));
  if (pic_t > tt.E_max) {
    if (std::fabs(pic_t) > DBL_MAX) {
      if (tt.en_depassement == 0)
        print(ctx, "---- depassement Ec (position en translation): explosion numerique ----\n");
      note_excess(ctx, tt, pic_t);
      tt.en_depassement = 1;
      return -1;
    }
    if (tt.limitation == 0) {
      for (int k = 0; k < 3; ++k)
        p.X_ref->trans[k] = p.X_cmd_prev->trans[k];
      tt.limitation = 1;
    }
    VECT3_moins(p.X_cmd->trans, p.X_ref->trans, p.ec_work);
    tt.ecart = VECT3_norme(p.ec_work) / p.ec_scale_pos;
    if (tt.ecart > tt.ecart_max) {
      if (tt.en_depassement == 0) {
        print(ctx, "---- depassement Ec (position en translation) ----\n");
        print_vector(ctx, p.ec_vit_lin);
      }
      note_excess(ctx, tt, pic_t);
      tt.en_depassement = 1;
      return -1;
    }
  } else if (tt.limitation != 0) {
    end_excess(ctx, tt, "---- fin de depassement Ec (position en translation) ----\n");
  }

  // ---- rotation
  EnergyTrack &tr = p.pos_rot;
  const double pic_r = follow_peak(tr, rotational_energy(ctx, p.ec_vit_rot, p.ec_work));
  if (pic_r > tr.E_max) {
    if (std::fabs(pic_r) > DBL_MAX) {
      if (tr.en_depassement == 0)
        print(ctx, "---- depassement Ec (position en rotation): explosion numerique ----\n");
      note_excess(ctx, tr, pic_r);
      tr.en_depassement = 1;
      return -1;
    }
    if (tr.limitation == 0) {
      // The held rotation keeps the scalar part of this moment and reads its
      // vector part from the last accepted command's storage from now on.
      p.X_ref->rot->partie_scal = p.X_cmd_prev->rot->partie_scal;
      p.X_ref->rot->partie_vect = p.X_cmd_prev->rot->partie_vect;
      tr.limitation = 1;
    }
    QUAT_delta(p.X_ref->rot, p.X_cmd->rot, p.ec_work);
    tr.ecart = VECT3_norme(p.ec_work);
    if (tr.ecart > tr.ecart_max) {
      if (tr.en_depassement == 0) {
        print(ctx, "---- depassement Ec (rotation) ----\n");
        print_vector(ctx, p.ec_vit_rot);
      }
      note_excess(ctx, tr, pic_r);
      tr.en_depassement = 1;
      return -1;
    }
  } else if (tr.limitation != 0) {
    end_excess(ctx, tr, "---- fin de depassement Ec (position en rotation) ----\n");
  }

  kalo::servo::copy_depl(p.X_cmd, p.X_cmd_prev);
  return 0;
}

int32_t control_ener_cine_vitesse(KaloContext *ctx, const float *speed, int32_t point) {
  ServoPoint &p = ctx->servo.points[point];
  if (ctx->vm.vm_default_mode != ctx->vm.vm_default_mode_seen) {
    p.ec_restart_vit = 1;
    --p.ec_countdown;
  }
  if (p.ec_countdown == 0) {
    p.ec_countdown = 5;
    ctx->vm.vm_default_mode_seen = ctx->vm.vm_default_mode;
  }
  if (p.ec_restart_vit != 0) {
    p.ec_scale_vit = filtered_speed_factor(ctx);
    p.ec_restart_vit = 0;
    return 0;
  }

  TORS_remplir_vitesse_float(p.V_cmd, speed);
  VECT3_mult_par_scalaire(p.V_cmd->vtrans, p.V_cmd->vtrans, 1.0 / p.ec_scale_vit);
  DEPL_inverse(p.X_obj, p.X_obj_inv);
  TORS_changer_repere_projection(p.V_cmd, p.X_obj_inv, p.V_cmd_1);
  TORS_changer_centre_reduction_et_repere_projection(p.V_cmd_1, p.X_catch, p.V_cmd_2);
  DEPL_compose(p.X_obj, p.X_catch, p.X_obj_catch);
  TORS_changer_repere_projection(p.V_cmd_2, p.X_obj_catch, p.V_cmd_3);

  EnergyTrack &tt = p.vit_trans;
  const VECT3 *v = p.V_cmd_3->vtrans;
  const double pic_t = follow_peak(tt, translational_energy(ctx, v));
  if (pic_t > tt.E_max) {
    if (tt.en_depassement == 0 && ctx->params.output_stream != nullptr) {
      std::fputs("---- depassement Ec (vitesse de translation) ----\n", ctx->params.output_stream);
      std::fprintf(ctx->params.output_stream, "=> %.3f, %.3f %.3f | %.3f/%.3f\n", v[0], v[1], v[2],
                   pic_t, tt.E_max);
    }
    note_excess(ctx, tt, pic_t);
    tt.en_depassement = 1;
    tt.limitation = 1;
    return -1;
  }
  if (tt.limitation != 0)
    end_excess(ctx, tt, "---- fin de depassement Ec (vitesse de translation) ----\n");

  EnergyTrack &tr = p.vit_rot;
  const VECT3 *w = p.V_cmd_3->vrot;
  const double pic_r = follow_peak(tr, rotational_energy(ctx, w, p.ec_work));
  if (pic_r > tr.E_max) {
    if (tr.en_depassement == 0) {
      print(ctx, "---- depassement Ec (vitesse de rotation) ----\n");
      print_vector(ctx, w);
    }
    note_excess(ctx, tr, pic_r);
    tr.en_depassement = 1;
    tr.limitation = 1;
    return -1;
  }
  if (tr.limitation != 0)
    end_excess(ctx, tr, "---- fin de depassement Ec (vitesse de rotation) ----\n");
  return 0;
}

} // extern "C"
