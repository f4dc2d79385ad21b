// The servo cycle: the spring-damper coupling law and the frame conversions
// around it. The state lives in the point's ServoPoint (servo_setup.cpp
// creates it); the cycle and the conversions compute with fixed-size values on
// the stack, so they allocate nothing and cost little more than the arithmetic
// itself.
#include <cfloat>
#include <cmath>
#include <cstring>

#include "device/context.h"
#include "servo/servo_point.h"
#include "math/fixed.h"
#include "kalo/kalo_internal.h"

namespace {

namespace fx = kalo::fixed;

// A pose of 7 floats with its quaternion normalised.
[[gnu::always_inline]] inline fx::Pose normalised_pose(const float *pose) {
  const fx::Q q{static_cast<double>(pose[3]), static_cast<double>(pose[4]),
                static_cast<double>(pose[5]), static_cast<double>(pose[6])};
  return {fx::load_float(pose), fx::unit(q)};
}

// The device pose of a point in the received state record.
const float *state_pose(const KaloContext *ctx, int32_t point) {
  constexpr int32_t room =
      static_cast<int32_t>(sizeof(ctx->link.state_record.position) / sizeof(float));
  const int32_t offset = 7 * point;
  return offset >= 0 && offset + 7 <= room ? ctx->link.state_record.position + offset
                                           : ctx->link.state_record.position;
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

} // namespace

extern "C" {

int32_t test_deplacement_valide(const float *pose) {
  const float *q = pose + 3;
  const float s = ((q[0] * q[0] + q[1] * q[1]) + q[2] * q[2]) + q[3] * q[3];
  return std::fabs(std::sqrt(static_cast<double>(s)) - 1.0) < 1.1920928955078125e-7 ? 1 : 0;
}

int32_t lecture_position(KaloContext *ctx, const float *pose, int32_t point) {
  set_device_pose(ctx->servo.points[point], pose);
  return 0;
}

// The adjoint members are left alone here: every path that needs an adjoint
// computes it on the stack.
int32_t ecriture_position(KaloContext *ctx, const float *pose, int32_t point) {
  ServoPoint &p = ctx->servo.points[point];
  const fx::Pose x = normalised_pose(pose);
  fx::store(x, p.X_obj);
  fx::store(fx::inverse_unit(x), p.X_obj_inv);
  return 0;
}

// The device twist, given at the device point in the device's axes, brought
// to the reference origin: the adjoint of X_dev's inverse then the rotation
// by X_dev, which together leave w and give v - t x w.
int32_t lecture_vitesse(KaloContext *ctx, const float *in, float *out, int32_t point) {
  ServoPoint &p = ctx->servo.points[point];
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
  ServoPoint &p = ctx->servo.points[point];
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
  ServoPoint &p = ctx->servo.points[point];
  store({fx::load_float(in + 3), fx::load_float(in)}, p.W_consigne);
  set_device_pose(p, state_pose(ctx, point));
  wrench_to_point(fx::load(p.X_dev->trans), in, p.W_dev, out);
  return 0;
}

int32_t ecriture_texture_force(KaloContext *ctx, const float *in, float *out, int32_t point) {
  ServoPoint &p = ctx->servo.points[point];
  store({fx::load_float(in + 3), fx::load_float(in)}, p.W_texture_in);
  const fx::Pose x = fx::load(p.X_obj);
  fx::store(fx::inverse_unit(x), p.X_obj_inv);
  set_device_pose(p, state_pose(ctx, point));
  wrench_to_point(x.t, in, p.W_texture, out);
  return 0;
}

int32_t erreur_position(KaloContext *ctx, int32_t point) {
  ServoPoint &p = ctx->servo.points[point];
  return DEPL_comparer(p.X_obj, p.X_dev, p.dt, p.dr, 0.002, 0.02);
}

// The spring between device and object (its wrench already pulls back) plus
// the damping of the speed error brought to the object, expressed for the
// application. The speed error at the object is the inverse adjoint of X_obj
// applied to V_err: (R^T (v - t x w), R^T w).
int32_t calcul_asserv(KaloContext *ctx, int32_t point) {
  ServoPoint &p = ctx->servo.points[point];
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
  TORS_vider_effort_float(ctx->servo.points[point].W_consigne, out);
  return 0;
}

} // extern "C"
