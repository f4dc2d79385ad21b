// Servo set-up: the per-point servo records (every work object the cycle and
// the energy guards use is created here, once, so that the cycle allocates
// nothing) and the speed-factor smoothing filter.
#include <cstdlib>
#include <ctime>
#include <initializer_list>

#include "device/context.h"
#include "servo/servo_point.h"
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

// Every record a point owns: the one list that the allocation check and the
// release walk.
template <class Visit> void each_record(ServoPoint &p, Visit &&visit) {
  for (DEPL **d : {&p.X_dev, &p.H_rel, &p.X_dev_inv, &p.X_obj, &p.X_obj_inv, &p.X_cmd_new,
                   &p.X_offset, &p.X_cmd, &p.X_cmd_prev, &p.X_ref, &p.X_catch, &p.X_obj_catch})
    visit(*d);
  for (MATD **m : {&p.Ad_obj, &p.Ad_obj_inv, &p.Ad_dev_inv, &p.K, &p.B, &p.K_aux, &p.identite3,
                   &p.m3[0], &p.m3[1], &p.m3[2]})
    visit(*m);
  for (TORS **t : {&p.V_dev_in,   &p.V_dev,        &p.V_dev_proj,     &p.V_obj_in,  &p.V_obj_proj,
                   &p.V_obj,      &p.V_err,        &p.V_err_obj,      &p.W_amort,   &p.W_total,
                   &p.W_consigne, &p.W_texture_in, &p.W_texture_proj, &p.W_texture, &p.W_dev_in,
                   &p.W_dev_proj, &p.W_dev,        &p.w_tmp[0],       &p.w_tmp[1],  &p.V_cmd,
                   &p.V_cmd_1,    &p.V_cmd_2,      &p.V_cmd_3})
    visit(*t);
  for (VECT3 **v : {&p.dt, &p.dr, &p.ec_vit_lin, &p.ec_vit_rot, &p.ec_work})
    visit(*v);
  visit(p.ressort);
  visit(p.q_norm);
  visit(p.dq);
}

bool all_allocated(ServoPoint &p) {
  bool all = true;
  each_record(p, [&all](const auto *record) { all = all && record != nullptr; });
  return all;
}

struct Release {
  void operator()(DEPL *d) const { DEPL_detruire(d); }
  void operator()(MATD *m) const { MATD_detruire(m); }
  void operator()(TORS *t) const { TORS_detruire(t); }
  void operator()(VECT3 *v) const { VECT3_detruire(v); }
  void operator()(QUAT *q) const { QUAT_detruire(q); }
  void operator()(LIN_SPR_6D *s) const { LIN_SPR_6D_delete(s); }
};

// Allocates one point's records; false when any allocation failed (what was
// allocated is then released by release_point).
bool create_point(ServoPoint &p) {
  p = ServoPoint{};
  for (DEPL **d : {&p.X_dev, &p.H_rel, &p.X_dev_inv, &p.X_obj, &p.X_obj_inv, &p.X_cmd_new,
                   &p.X_offset, &p.X_cmd, &p.X_cmd_prev, &p.X_ref, &p.X_catch, &p.X_obj_catch})
    *d = DEPL_creer();
  for (MATD **m : {&p.Ad_obj, &p.Ad_obj_inv, &p.Ad_dev_inv, &p.K, &p.B, &p.K_aux})
    *m = MATD_creer(6, 6);
  for (TORS **t : {&p.V_dev_in,   &p.V_dev,        &p.V_dev_proj,     &p.V_obj_in,  &p.V_obj_proj,
                   &p.V_obj,      &p.V_err,        &p.V_err_obj,      &p.W_amort,   &p.W_total,
                   &p.W_consigne, &p.W_texture_in, &p.W_texture_proj, &p.W_texture, &p.W_dev_in,
                   &p.W_dev_proj, &p.W_dev,        &p.w_tmp[0],       &p.w_tmp[1],  &p.V_cmd,
                   &p.V_cmd_1,    &p.V_cmd_2,      &p.V_cmd_3})
    *t = TORS_creer();
  p.ressort = LIN_SPR_6D_new();
  p.identite3 = MATD_identite(3);
  for (MATD *&m : p.m3)
    m = MATD_creer(3, 3);
  for (VECT3 **v : {&p.dt, &p.dr, &p.ec_vit_lin, &p.ec_vit_rot, &p.ec_work})
    *v = VECT3_creer();
  p.q_norm = QUAT_creer();
  p.dq = QUAT_creer();
  if (p.X_ref == nullptr || !all_allocated(p)) // X_ref named for the analyzer, read below
    return false;
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
  return true;
}

void release_point(ServoPoint &p) {
  // X_ref may read its rotation's vector part from X_cmd_prev's storage; give
  // it back its own so that each vector is released exactly once.
  if (p.X_ref != nullptr && p.X_ref->rot != nullptr && p.X_ref_own_vect != nullptr)
    p.X_ref->rot->partie_vect = p.X_ref_own_vect;
  each_record(p, Release{});
  p = ServoPoint{};
}

} // namespace

extern "C" {

int32_t init_asserv(KaloContext *ctx) {
  const int32_t n = ctx->servo.point_count > 0 ? ctx->servo.point_count : 0;
  ctx->servo.points =
      n > 0 ? static_cast<ServoPoint *>(std::calloc(static_cast<size_t>(n), sizeof(ServoPoint)))
            : nullptr;
  if (ctx->servo.points == nullptr)
    return 0;
  bool complete = true;
  for (int32_t i = 0; i < n; ++i)
    complete = create_point(ctx->servo.points[i]) && complete;
  if (!complete) {
    // Out of memory: no servo rather than one that would dereference a
    // missing record; the walks over control points then find none.
    for (int32_t i = 0; i < n; ++i)
      release_point(ctx->servo.points[i]);
    std::free(ctx->servo.points);
    ctx->servo.points = nullptr;
  }
  return 0;
}

int32_t close_asserv(KaloContext *ctx) {
  if (ctx->servo.points == nullptr)
    return 0;
  for (int32_t i = 0; i < ctx->servo.point_count; ++i)
    release_point(ctx->servo.points[i]);
  std::free(ctx->servo.points);
  ctx->servo.points = nullptr;
  return 0;
}

int32_t init_filtres(KaloContext *ctx) {
  MATD_copier(ctx->servo.speed_factor_filtered, ctx->servo.speed_factor_target);
  // A repeated call replaces the filter; the earlier one is released here so
  // that reopening the smoothing never leaks.
  TSIG_FILTRE *previous = ctx->servo.speed_factor_filter;
  ctx->servo.speed_factor_filter =
      TSIG_creer_filtre_1er_ordre(ctx->servo.speed_factor_cutoff, 0.0009765625);
  if (previous != nullptr && previous != ctx->servo.speed_factor_filter)
    TSIG_filtre_detruire(previous);
  if (ctx->servo.speed_factor_filter != nullptr)
    TSIG_filtre_reinitialiser(ctx->servo.speed_factor_filter, ctx->servo.speed_factor_target);
  ctx->servo.filter_disabled = 0;
  return 0;
}

} // extern "C"
