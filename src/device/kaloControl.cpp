// Local servo: per-point working set, coupling gains, the spring-damper
// coupling law and the frame conversions around it. Every intermediate is a
// member of the point's ServoPoint, created once by init_asserv, so the
// cycle and the conversions allocate nothing.
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <ctime>

#include "device/context.h"
#include "device/depl_copy.h"
#include "device/servo_point.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_signal.h"

namespace {

uint64_t monotonic_us() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

void init_track(EnergyTrack &t, double ecart_max) {
  t = EnergyTrack{};
  t.ecart_max = ecart_max;
}

void create_point(ServoPoint &p) {
  p = ServoPoint{};
  for (DEPL **d : {&p.X_dev, &p.H_rel, &p.X_dev_inv, &p.X_obj, &p.X_obj_inv, &p.X_cmd_new,
                   &p.X_offset, &p.X_cmd, &p.X_cmd_prev, &p.X_ref, &p.X_catch, &p.X_obj_catch})
    *d = DEPL_creer();
  for (MATD **m : {&p.Ad_obj, &p.Ad_obj_inv, &p.Ad_dev_inv, &p.K, &p.B, &p.K_aux})
    *m = MATD_creer(6, 6);
  for (TORS **t : {&p.V_dev_in, &p.V_dev, &p.V_dev_proj, &p.V_obj_in, &p.V_obj_proj, &p.V_obj,
                   &p.V_err, &p.V_err_obj, &p.W_amort, &p.W_total, &p.W_consigne, &p.W_texture_in,
                   &p.W_texture_proj, &p.W_texture, &p.W_dev_in, &p.W_dev_proj, &p.W_dev,
                   &p.w_tmp[0], &p.w_tmp[1], &p.V_cmd, &p.V_cmd_1, &p.V_cmd_2, &p.V_cmd_3})
    *t = TORS_creer();
  p.ressort = LIN_SPR_6D_new();
  p.identite3 = MATD_identite(3);
  for (MATD *&m : p.m3)
    m = MATD_creer(3, 3);
  for (VECT3 **v : {&p.dt, &p.dr, &p.ec_vit_lin, &p.ec_vit_rot, &p.ec_work})
    *v = VECT3_creer();
  p.q_norm = QUAT_creer();
  p.dq = QUAT_creer();
  p.X_ref_own_vect = p.X_ref->rot->partie_vect;

  p.ec_restart_pos = 1;
  p.ec_scale_pos = 1.0;
  init_track(p.pos_trans, 0.005);
  init_track(p.pos_rot, 0.19634954084936207); // pi / 16
  p.ec_restart_vit = 1;
  p.ec_scale_vit = 1.0;
  p.ec_countdown = 5;
  init_track(p.vit_trans, 0.0);
  init_track(p.vit_rot, 0.0);
  p.clock_us = monotonic_us;
}

void release_point(ServoPoint &p) {
  // X_ref may read its rotation's vector part from X_cmd_prev's storage; give
  // it back its own so that each vector is released exactly once.
  if (p.X_ref != nullptr && p.X_ref->rot != nullptr)
    p.X_ref->rot->partie_vect = p.X_ref_own_vect;
  for (DEPL *d : {p.X_dev, p.H_rel, p.X_dev_inv, p.X_obj, p.X_obj_inv, p.X_cmd_new, p.X_offset,
                  p.X_cmd, p.X_cmd_prev, p.X_ref, p.X_catch, p.X_obj_catch})
    DEPL_detruire(d);
  for (MATD *m : {p.Ad_obj, p.Ad_obj_inv, p.Ad_dev_inv, p.K, p.B, p.K_aux, p.identite3, p.m3[0],
                  p.m3[1], p.m3[2]})
    MATD_detruire(m);
  for (TORS *t : {p.V_dev_in, p.V_dev, p.V_dev_proj, p.V_obj_in, p.V_obj_proj, p.V_obj, p.V_err,
                  p.V_err_obj, p.W_amort, p.W_total, p.W_consigne, p.W_texture_in,
                  p.W_texture_proj, p.W_texture, p.W_dev_in, p.W_dev_proj, p.W_dev, p.w_tmp[0],
                  p.w_tmp[1], p.V_cmd, p.V_cmd_1, p.V_cmd_2, p.V_cmd_3})
    TORS_detruire(t);
  LIN_SPR_6D_delete(p.ressort);
  for (VECT3 *v : {p.dt, p.dr, p.ec_vit_lin, p.ec_vit_rot, p.ec_work})
    VECT3_detruire(v);
  QUAT_detruire(p.q_norm);
  QUAT_detruire(p.dq);
  p = ServoPoint{};
}

// Fills d from 7 floats and normalises its quaternion through the point's work value.
void fill_normalised(ServoPoint &p, DEPL *d, const float *pose) {
  DEPL_remplir_7_float(d, pose);
  QUAT_normaliser(d->rot, p.q_norm);
  for (int k = 0; k < 3; ++k)
    d->rot->partie_vect[k] = p.q_norm->partie_vect[k];
  d->rot->partie_scal = p.q_norm->partie_scal;
}

// The device pose of a point in the received state record.
const float *state_pose(const KaloContext *ctx, int32_t point) {
  constexpr int32_t room = static_cast<int32_t>(sizeof(ctx->state_record.position) / sizeof(float));
  const int32_t offset = 7 * point;
  return offset >= 0 && offset + 7 <= room ? ctx->state_record.position + offset
                                           : ctx->state_record.position;
}

void refresh_device_pose(KaloContext *ctx, ServoPoint &p, int32_t point) {
  fill_normalised(p, p.X_dev, state_pose(ctx, point));
  DEPL_inverse(p.X_dev, p.X_dev_inv);
}

void print_gains(FILE *out, const MATD *k, const MATD *b) {
  const double *kd = k->donnees;
  const double *bd = b->donnees;
  std::fprintf(out, "K = [%g, %g, %g, %g, %g, %g]\n", kd[0], kd[7], kd[14], kd[21], kd[28], kd[35]);
  std::fprintf(out, "B = [%g, %g, %g, %g, %g, %g]\n", bd[0], bd[7], bd[14], bd[21], bd[28], bd[35]);
}

} // namespace

extern "C" {

int32_t init_asserv(KaloContext *ctx) {
  const int32_t n = ctx->servo_point_count > 0 ? ctx->servo_point_count : 0;
  ctx->servo = n > 0 ? static_cast<ServoPoint *>(std::calloc(static_cast<size_t>(n), sizeof(ServoPoint)))
                     : nullptr;
  if (ctx->servo == nullptr)
    return 0;
  for (int32_t i = 0; i < n; ++i)
    create_point(ctx->servo[i]);
  return 0;
}

int32_t close_asserv(KaloContext *ctx) {
  if (ctx->servo == nullptr)
    return 0;
  for (int32_t i = 0; i < ctx->servo_point_count; ++i)
    release_point(ctx->servo[i]);
  std::free(ctx->servo);
  ctx->servo = nullptr;
  return 0;
}

int32_t init_filtres(KaloContext *ctx) {
  MATD_copier(ctx->speed_factor_filtered, ctx->speed_factor_target);
  // A repeated call replaces the filter; the earlier one is released here so
  // that reopening the smoothing never leaks.
  TSIG_FILTRE *previous = ctx->speed_factor_filter;
  ctx->speed_factor_filter = TSIG_creer_filtre_1er_ordre(ctx->speed_factor_cutoff, 0.0009765625);
  if (previous != nullptr && previous != ctx->speed_factor_filter)
    TSIG_filtre_detruire(previous);
  if (ctx->speed_factor_filter != nullptr)
    TSIG_filtre_reinitialiser(ctx->speed_factor_filter, ctx->speed_factor_target);
  ctx->filter_disabled = 0;
  return 0;
}

int32_t calcul_gains(KaloContext *ctx, const float *inertia, int32_t point, float mass) {
  ServoPoint &p = ctx->servo[point];
  const float dt_f = ctx->time_step;
  const float dt2_f = dt_f * dt_f; // squared in single precision, then widened
  const double dt2 = static_cast<double>(dt2_f);
  const double dt = static_cast<double>(dt_f);
  const double m = static_cast<double>(mass);
  double *k = p.K->donnees;
  double *b = p.B->donnees;
  for (int i = 3; i < 6; ++i) {
    k[i * 7] = m * 0.12 / dt2;
    b[i * 7] = m * 0.9 / dt;
  }
  for (int i = 0; i < 3; ++i) {
    const double ii = static_cast<double>(inertia[i * 4]);
    k[i * 7] = ii * 0.12 / dt2;
    b[i * 7] = ii * 0.9 / dt;
  }
  if ((ctx->debug_flags & 1u) != 0 && ctx->output_stream != nullptr) {
    FILE *out = ctx->output_stream;
    std::fprintf(out, "--------- object n %d ---------\n", point);
    std::fprintf(out, "mass = %g\n", m);
    std::fprintf(out, "inertia = [[%g, %g, %g],[%g, %g, %g],[%g, %g, %g]]\n",
                 static_cast<double>(inertia[0]), static_cast<double>(inertia[1]),
                 static_cast<double>(inertia[2]), static_cast<double>(inertia[3]),
                 static_cast<double>(inertia[4]), static_cast<double>(inertia[5]),
                 static_cast<double>(inertia[6]), static_cast<double>(inertia[7]),
                 static_cast<double>(inertia[8]));
    std::fprintf(out, "Gains theoriques calcules:\n");
    print_gains(out, p.K, p.B);
  }
  for (int i = 0; i < 6; ++i)
    p.K_aux->donnees[i * 7] = 0.0;
  return 0;
}

int32_t lecture_gains(KaloContext *ctx, float *k, float *b, int32_t point) {
  const ServoPoint &p = ctx->servo[point];
  for (int i = 0; i < 3; ++i) {
    k[i] = static_cast<float>(p.K->donnees[(i + 3) * 7]);
    k[i + 3] = static_cast<float>(p.K->donnees[i * 7]);
    b[i] = static_cast<float>(p.B->donnees[(i + 3) * 7]);
    b[i + 3] = static_cast<float>(p.B->donnees[i * 7]);
  }
  return 0;
}

int32_t ecriture_gains(KaloContext *ctx, const float *k, const float *b, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  for (int i = 0; i < 3; ++i) {
    p.K->donnees[i * 7] = static_cast<double>(k[i + 3]);
    p.K->donnees[(i + 3) * 7] = static_cast<double>(k[i]);
    p.B->donnees[i * 7] = static_cast<double>(b[i + 3]);
    p.B->donnees[(i + 3) * 7] = static_cast<double>(b[i]);
  }
  if ((ctx->debug_flags & 1u) != 0 && ctx->output_stream != nullptr) {
    std::fprintf(ctx->output_stream, "Gains effectivement utilises:\n");
    print_gains(ctx->output_stream, p.K, p.B);
  }
  return 0;
}

int32_t test_deplacement_valide(const float *pose) {
  const float *q = pose + 3;
  const float s = ((q[0] * q[0] + q[1] * q[1]) + q[2] * q[2]) + q[3] * q[3];
  return std::fabs(std::sqrt(static_cast<double>(s)) - 1.0) < 1.1920928955078125e-7 ? 1 : 0;
}

int32_t lecture_position(KaloContext *ctx, const float *pose, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  fill_normalised(p, p.X_dev, pose);
  DEPL_inverse(p.X_dev, p.X_dev_inv);
  return 0;
}

int32_t ecriture_position(KaloContext *ctx, const float *pose, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  fill_normalised(p, p.X_obj, pose);
  DEPL_adjoint(p.X_obj, p.Ad_obj, p.m3[0], p.m3[1], p.m3[2]);
  DEPL_inverse(p.X_obj, p.X_obj_inv);
  DEPL_adjoint(p.X_obj_inv, p.Ad_obj_inv, p.m3[0], p.m3[1], p.m3[2]);
  return 0;
}

int32_t lecture_vitesse(KaloContext *ctx, const float *in, float *out, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  TORS_remplir_vitesse_float(p.V_dev_in, in);
  DEPL_inverse(p.X_dev, p.X_dev_inv);
  DEPL_adjoint(p.X_dev_inv, p.Ad_dev_inv, p.m3[0], p.m3[1], p.m3[2]);
  TORS_mult_vitesse_par_adjointe(p.V_dev_in, p.Ad_dev_inv, p.V_dev);
  TORS_changer_repere_projection(p.V_dev, p.X_dev, p.V_dev_proj);
  TORS_vider_vitesse_float(p.V_dev_proj, out);
  return 0;
}

int32_t ecriture_vitesse(KaloContext *ctx, const float *in, float *out, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  TORS_remplir_vitesse_float(p.V_obj_in, in);
  DEPL_inverse(p.X_obj, p.X_obj_inv);
  TORS_changer_repere_projection(p.V_obj_in, p.X_obj_inv, p.V_obj_proj);
  DEPL_adjoint(p.X_obj, p.Ad_obj, p.m3[0], p.m3[1], p.m3[2]);
  TORS_mult_vitesse_par_adjointe(p.V_obj_proj, p.Ad_obj, p.V_obj);
  TORS_vider_vitesse_float(p.V_obj, out);
  return 0;
}

int32_t ecriture_force(KaloContext *ctx, const float *in, float *out, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  TORS_remplir_effort_float(p.W_consigne, in);
  refresh_device_pose(ctx, p, point);
  TORS_changer_repere_projection(p.W_consigne, p.X_dev_inv, p.W_total);
  DEPL_adjoint(p.X_dev_inv, p.Ad_obj_inv, p.m3[0], p.m3[1], p.m3[2]);
  TORS_mult_effort_par_adjointe_transpose(p.W_total, p.Ad_obj_inv, p.w_tmp, p.W_dev);
  TORS_vider_effort_float(p.W_dev, out);
  return 0;
}

int32_t ecriture_texture_force(KaloContext *ctx, const float *in, float *out, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  TORS_remplir_effort_float(p.W_texture_in, in);
  DEPL_inverse(p.X_obj, p.X_obj_inv);
  TORS_changer_repere_projection(p.W_texture_in, p.X_obj_inv, p.W_texture_proj);
  refresh_device_pose(ctx, p, point);
  DEPL_adjoint(p.X_obj_inv, p.Ad_obj_inv, p.m3[0], p.m3[1], p.m3[2]);
  TORS_mult_effort_par_adjointe_transpose(p.W_texture_proj, p.Ad_obj_inv, p.w_tmp, p.W_texture);
  TORS_vider_effort_float(p.W_texture, out);
  return 0;
}

int32_t erreur_position(KaloContext *ctx, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  return DEPL_comparer(p.X_obj, p.X_dev, p.dt, p.dr, 0.002, 0.02);
}

int32_t calcul_asserv(KaloContext *ctx, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  DEPL_inv_compose(p.X_dev, p.X_obj, p.H_rel);
  TORS_moins(p.V_dev_in, p.V_obj, p.V_err);
  LIN_SPR_6D_setStiffnessMatrix(p.ressort, p.K);
  LIN_SPR_6D_set_H_1_2(p.ressort, p.H_rel);
  const TORS *w = LIN_SPR_6D_get_W_2_1_1_ref(p.ressort);
  DEPL_adjoint_inverse(p.X_obj, p.Ad_obj_inv, p.m3[0], p.m3[1], p.m3[2]);
  TORS_mult_vitesse_par_adjointe(p.V_err, p.Ad_obj_inv, p.V_err_obj);
  TORS_mult_vitesse_par_matrice_vers_effort(p.V_err_obj, p.B, p.w_tmp[0], p.W_amort);
  TORS_plus(w, p.W_amort, p.W_total);
  TORS_changer_repere_projection(p.W_total, p.X_obj, p.W_consigne);
  return 0;
}

int32_t copie_force(KaloContext *ctx, float *out, int32_t point) {
  TORS_vider_effort_float(ctx->servo[point].W_consigne, out);
  return 0;
}

} // extern "C"
