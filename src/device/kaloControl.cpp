// Local servo: per-point working set, coupling gains, the spring-damper
// coupling law and the frame conversions around it. The state lives in the
// point's ServoPoint, created once by init_asserv; the cycle and the
// conversions compute with fixed-size values on the stack, so they allocate
// nothing and cost little more than the arithmetic itself.
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <ctime>

#include "device/context.h"
#include "device/depl_copy.h"
#include "device/servo_point.h"
#include "math/fixed.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_signal.h"

namespace {

namespace fx = kalo::fixed;

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
  for (TORS *t :
       {p.V_dev_in,       p.V_dev,     p.V_dev_proj, p.V_obj_in,   p.V_obj_proj, p.V_obj,
        p.V_err,          p.V_err_obj, p.W_amort,    p.W_total,    p.W_consigne, p.W_texture_in,
        p.W_texture_proj, p.W_texture, p.W_dev_in,   p.W_dev_proj, p.W_dev,      p.w_tmp[0],
        p.w_tmp[1],       p.V_cmd,     p.V_cmd_1,    p.V_cmd_2,    p.V_cmd_3})
    TORS_detruire(t);
  LIN_SPR_6D_delete(p.ressort);
  for (VECT3 *v : {p.dt, p.dr, p.ec_vit_lin, p.ec_vit_rot, p.ec_work})
    VECT3_detruire(v);
  QUAT_detruire(p.q_norm);
  QUAT_detruire(p.dq);
  p = ServoPoint{};
}

// A pose of 7 floats with its quaternion normalised.
[[gnu::always_inline]] inline fx::Pose normalised_pose(const float *pose) {
  const fx::Q q{static_cast<double>(pose[3]), static_cast<double>(pose[4]),
                static_cast<double>(pose[5]), static_cast<double>(pose[6])};
  return {fx::load_float(pose), fx::unit(q)};
}

// The device pose of a point in the received state record.
const float *state_pose(const KaloContext *ctx, int32_t point) {
  constexpr int32_t room = static_cast<int32_t>(sizeof(ctx->state_record.position) / sizeof(float));
  const int32_t offset = 7 * point;
  return offset >= 0 && offset + 7 <= room ? ctx->state_record.position + offset
                                           : ctx->state_record.position;
}

// X_dev from 7 floats (normalised) and its inverse X_dev_inv.
[[gnu::always_inline]] inline void set_device_pose(ServoPoint &p, const float *pose) {
  const fx::Pose x = normalised_pose(pose);
  fx::store(x, p.X_dev);
  fx::store(fx::inverse_unit(x), p.X_dev_inv);
}

// 36 doubles copied in pairs: a block copy would start a string move whose
// set-up costs more than the copy.
[[gnu::always_inline]] inline void copy_36(const double *from, double *to) {
  using Pair = double __attribute__((vector_size(16)));
#pragma GCC unroll 18
  for (int i = 0; i < 36; i += 2) {
    Pair v;
    std::memcpy(&v, from + i, sizeof v);
    std::memcpy(to + i, &v, sizeof v);
  }
}

// A screw's halves as stored (vtrans, then vrot).
struct Halves {
  fx::V3 a, b;
};
[[gnu::always_inline]] inline Halves load(const TORS *t) {
  return {fx::load(t->vtrans), fx::load(t->vrot)};
}
[[gnu::always_inline]] inline void store(const Halves &h, TORS *t) {
  fx::store(h.a, t->vtrans);
  fx::store(h.b, t->vrot);
}

// A wrench given at the origin of a frame at translation t and brought to
// the frame's origin point, the transposed adjoint of the frame's inverse
// after projection into it: the force is unchanged and the moment gains t x f.
// force, moment are the application's 6 floats (force first); the result is
// stored in the wrench record w and written out as 6 floats.
[[gnu::always_inline]] inline void wrench_to_point(const fx::V3 &t, const float *in, TORS *w,
                                                   float *out) {
  const fx::V3 f = fx::load_float(in), m = fx::load_float(in + 3);
  const fx::V3 moment = m + fx::cross(t, f);
  fx::store(moment, w->vtrans);
  fx::store(f, w->vrot);
  fx::store_float(f, out);
  fx::store_float(moment, out + 3);
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
  ctx->servo =
      n > 0 ? static_cast<ServoPoint *>(std::calloc(static_cast<size_t>(n), sizeof(ServoPoint)))
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
  set_device_pose(ctx->servo[point], pose);
  return 0;
}

// The adjoint members are left alone here: every path that needs an adjoint
// computes it on the stack.
int32_t ecriture_position(KaloContext *ctx, const float *pose, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  const fx::Pose x = normalised_pose(pose);
  fx::store(x, p.X_obj);
  fx::store(fx::inverse_unit(x), p.X_obj_inv);
  return 0;
}

// The device twist, given at the device point in the device's axes, brought
// to the reference origin: the adjoint of X_dev's inverse then the rotation
// by X_dev, which together leave w and give v - t x w.
int32_t lecture_vitesse(KaloContext *ctx, const float *in, float *out, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  const fx::V3 v = fx::load_float(in), w = fx::load_float(in + 3);
  fx::store(v, p.V_dev_in->vtrans);
  fx::store(w, p.V_dev_in->vrot);
  const fx::Pose x = fx::load(p.X_dev);
  fx::store(fx::inverse_unit(x), p.X_dev_inv);
  const fx::V3 lin = v - fx::cross(x.t, w);
  store({lin, w}, p.V_dev_proj);
  fx::store_float(lin, out);
  fx::store_float(w, out + 3);
  return 0;
}

// The object twist from the application: projection by X_obj's inverse then
// the adjoint of X_obj, which together leave w and give v + t x w.
int32_t ecriture_vitesse(KaloContext *ctx, const float *in, float *out, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  const fx::V3 v = fx::load_float(in), w = fx::load_float(in + 3);
  fx::store(v, p.V_obj_in->vtrans);
  fx::store(w, p.V_obj_in->vrot);
  const fx::Pose x = fx::load(p.X_obj);
  fx::store(fx::inverse_unit(x), p.X_obj_inv);
  const fx::V3 lin = v + fx::cross(x.t, w);
  store({lin, w}, p.V_obj);
  fx::store_float(lin, out);
  fx::store_float(w, out + 3);
  return 0;
}

int32_t ecriture_force(KaloContext *ctx, const float *in, float *out, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  store({fx::load_float(in + 3), fx::load_float(in)}, p.W_consigne);
  set_device_pose(p, state_pose(ctx, point));
  wrench_to_point(fx::load(p.X_dev->trans), in, p.W_dev, out);
  return 0;
}

int32_t ecriture_texture_force(KaloContext *ctx, const float *in, float *out, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  store({fx::load_float(in + 3), fx::load_float(in)}, p.W_texture_in);
  const fx::Pose x = fx::load(p.X_obj);
  fx::store(fx::inverse_unit(x), p.X_obj_inv);
  set_device_pose(p, state_pose(ctx, point));
  wrench_to_point(x.t, in, p.W_texture, out);
  return 0;
}

int32_t erreur_position(KaloContext *ctx, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  return DEPL_comparer(p.X_obj, p.X_dev, p.dt, p.dr, 0.002, 0.02);
}

// The spring between device and object (its wrench already pulls back) plus
// the damping of the speed error brought to the object, expressed for the
// application. The speed error at the object is the inverse adjoint of X_obj
// applied to V_err: (R^T (v - t x w), R^T w).
int32_t calcul_asserv(KaloContext *ctx, int32_t point) {
  ServoPoint &p = ctx->servo[point];
  const fx::Pose x_obj = fx::load(p.X_obj);
  const fx::Pose h_rel = fx::inv_compose_unit(fx::load(p.X_dev), x_obj);
  fx::store(h_rel, p.H_rel);
  const Halves dev = load(p.V_dev_in), obj = load(p.V_obj);
  const Halves err{dev.a - obj.a, dev.b - obj.b};

  // The servo never moves the spring's attachment frames from the bodies, so
  // its wrench is the stiffness's own for H_rel, pulled back: computed here
  // directly. Frames set elsewhere go through the spring object.
  LIN_SPR_6D *spring = p.ressort;
  Halves w;
  if (fx::is_identity(fx::load(spring->H_c2_2)) && fx::is_identity(fx::load(spring->H_1c_1))) {
    const fx::Wrench s = fx::spring_wrench(p.K->donnees, h_rel);
    w = {-1.0 * s.moment, -1.0 * s.force};
  } else {
    copy_36(p.K->donnees, spring->K->donnees); // the spring never adopts a caller's matrix
    fx::store(h_rel, spring->H_1_2);
    spring->valide = 0;
    w = load(LIN_SPR_6D_get_W_2_1_1_ref(spring));
  }

  const fx::M3 r = fx::rotation_matrix(x_obj.q);
  const Halves err_obj{fx::mul_tr(r, err.a - fx::cross(x_obj.t, err.b)), fx::mul_tr(r, err.b)};
  // B times the speed error laid out as a wrench (halves swapped).
  const double x[6] = {err_obj.b.x, err_obj.b.y, err_obj.b.z,
                       err_obj.a.x, err_obj.a.y, err_obj.a.z};
  const double *b = p.B->donnees;
  double d[6];
  bool b_diagonal = true; // the gains set it so; its zero terms are then left out
  for (std::size_t i = 0; i < 6; ++i)
    for (std::size_t j = 0; j < 6; ++j)
      b_diagonal = b_diagonal && (i == j || b[6 * i + j] == 0.0);
  if (b_diagonal) {
    for (std::size_t i = 0; i < 6; ++i)
      d[i] = b[7 * i] * x[i];
  } else {
    for (std::size_t i = 0; i < 6; ++i) {
      const double *row = b + 6 * i;
      d[i] = ((((row[0] * x[0] + row[1] * x[1]) + row[2] * x[2]) + row[3] * x[3]) + row[4] * x[4]) +
             row[5] * x[5];
    }
  }
  const Halves total{w.a + fx::V3{d[0], d[1], d[2]}, w.b + fx::V3{d[3], d[4], d[5]}};
  store({r * total.a, r * total.b}, p.W_consigne);
  return 0;
}

int32_t copie_force(KaloContext *ctx, float *out, int32_t point) {
  TORS_vider_effort_float(ctx->servo[point].W_consigne, out);
  return 0;
}

} // extern "C"
