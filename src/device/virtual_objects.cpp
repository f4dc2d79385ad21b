// Virtual objects: in the coupling command types the application simulates an
// object and the library couples it to the arm through the local servo's 6D
// spring and damper. Attaching takes the next free control point and sets the
// coupling gains (from a mass model or given directly); detaching releases
// every point at once and zeroes the gains on both sides; kaloGetForce runs
// one servo cycle per point and hands the coupling wrenches to the application.
#include <cstring>

#include "device/call_frame.h"
#include "device/context.h"
#include "servo/servo_point.h"
#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"

namespace {

// In command type 5 the gains of the newly attached point go to the
// controller with the attach (fields 2 and 3).
void send_point_gains(KaloContext &c, int32_t point) {
  if (c.command.active_command_type.load() != 5 || point >= kalo::kControlPointRoom)
    return;
  float k[6];
  float b[6];
  lecture_gains(&c, k, b, point);
  std::memcpy(c.link.command_record.simulation_stiffness + 6 * point, k, sizeof k);
  std::memcpy(c.link.command_record.simulation_damping + 6 * point, b, sizeof b);
  kalo::post_field(c.link.command_record, kalo::Field::simulation_stiffness);
  kalo::post_field(c.link.command_record, kalo::Field::simulation_damping);
}

// Marks the attach; the next kaloSetPosition completes the hand-shake.
void record_attach(KaloContext &c, int32_t point, bool avatar) {
  if (avatar)
    c.link.command_record.avatar_attached = 1;
  else
    c.link.command_record.vo_attached = 1;
  c.vm.attach_pending = 1;
  c.vm.attached_object_count = point + 1;
}

// The point the next attach uses, or -1 (no error recorded) when every point
// has an object. Code 17 below command type 2.
int attach_point(KaloContext &c, int32_t *point) {
  if (c.command.active_command_type.load() < 2)
    return KALO_ERROR_WRONG_COMMAND_MODE;
  const int32_t i = c.vm.attached_object_count;
  *point = i >= 0 && i < c.link.control_point_count && i < kalo::points_in_use(c) ? i : -1;
  return KALO_NO_ERROR;
}

// The attach sequence shared by the three attach calls: command type (17),
// the call's own argument check, the next free point (-1 with no error when
// there is none), then its gains, the attached flag and the attach request.
template <class Check, class SetGains>
int attach(KaloContext *ctx, bool avatar, Check &&check, SetGains &&set_gains) {
  if (!kalo::enter(ctx))
    return -1;
  kalo::ContextLock hold(ctx);
  int32_t i = -1;
  int code = attach_point(*ctx, &i);
  if (code == KALO_NO_ERROR)
    code = check();
  if (code != KALO_NO_ERROR) {
    ctx->error_code = static_cast<uint32_t>(code);
    return -1;
  }
  if (i < 0)
    return -1;
  set_gains(ctx->servo.points[i], i);
  ctx->servo.points[i].object_attached = 1;
  send_point_gains(*ctx, i);
  record_attach(*ctx, i, avatar);
  return 0;
}

// The mass and the inertia's diagonal must be finite and positive, and the
// whole 3x3 inertia finite: the gains derived from them go to the controller.
bool valid_mass_model(const float *inertia, float mass) {
  return kalo::finite_positive(mass) && kalo::finite_or_refused(inertia, 9) == 0 &&
         inertia[0] > 0.0f && inertia[4] > 0.0f && inertia[8] > 0.0f;
}

int attach_with_mass(KaloContext *ctx, const float *inertia, float mass, bool avatar) {
  return attach(
      ctx, avatar,
      [&] { return valid_mass_model(inertia, mass) ? KALO_NO_ERROR : KALO_ERROR_INCORRECT_VALUE; },
      [&](ServoPoint &, int32_t i) { calcul_gains(ctx, inertia, i, mass); });
}

// Detaching: the attach flag goes out on field 11 or (avatar) 23, the gains
// are zeroed in the servo and on the controller, and the next coupling
// set-point resets the object displacements.
int detach(KaloContext *ctx, kalo::Field field) {
  const int result = kalo::locked_call(ctx, [&](KaloContext &c) {
    c.link.command_record.vo_attached = 0;
    kalo::post_field(c.link.command_record, field);
    return KALO_NO_ERROR;
  });
  if (result != 0)
    return result;
  int32_t points;
  {
    kalo::ContextLock hold(ctx);
    if (ctx->servo.gain_stiffness_buffer == nullptr || ctx->servo.gain_damping_buffer == nullptr)
      return 0;
    points = kalo::points_in_use(*ctx);
    const auto floats = 6 * static_cast<size_t>(ctx->servo.point_array_count);
    std::memset(ctx->servo.gain_stiffness_buffer, 0, sizeof(float) * floats);
    std::memset(ctx->servo.gain_damping_buffer, 0, sizeof(float) * floats);
    for (int32_t i = 0; i < points; ++i)
      ecriture_gains(ctx, ctx->servo.gain_stiffness_buffer + 6 * i,
                     ctx->servo.gain_damping_buffer + 6 * i, i);
  }
  kaloSetSimulationStiffness(ctx, ctx->servo.gain_stiffness_buffer);
  kaloSetSimulationDamping(ctx, ctx->servo.gain_damping_buffer);
  float ignored[6];
  kaloGetSimulationStiffness(ctx, ignored);
  kalo::ContextLock hold(ctx);
  ctx->vm.detach_pending = 1;
  ctx->vm.attached_object_count = 0;
  return 0;
}

} // namespace

extern "C" {

int32_t kaloAttachVO(KaloContext *context, const float *inertia, float mass) {
  return attach_with_mass(context, inertia, mass, false);
}

int32_t kaloAttachVOAvatar(KaloContext *context, const float *inertia, float mass) {
  return attach_with_mass(context, inertia, mass, true);
}

int32_t kaloAttachQSVO(KaloContext *context, const float *stiffness, const float *damping) {
  return attach(
      context, false,
      [&] {
        return kalo::finite_or_refused(stiffness, 6) == 0 &&
                       kalo::finite_or_refused(damping, 6) == 0
                   ? KALO_NO_ERROR
                   : KALO_ERROR_INCORRECT_VALUE;
      },
      [&](ServoPoint &p, int32_t) {
        // The given gains go on the diagonals as they are, no mass model.
        for (int j = 0; j < 6; ++j) {
          p.K->donnees[j * 7] = static_cast<double>(stiffness[j]);
          p.B->donnees[j * 7] = static_cast<double>(damping[j]);
        }
      });
}

int32_t kaloDetachVO(KaloContext *context) {
  return detach(context, kalo::Field::vo_attached);
}

int32_t kaloDetachVOAvatar(KaloContext *context) {
  return detach(context, kalo::Field::avatar_attached);
}

int32_t kaloModifGains(KaloContext *context) {
  if (!kalo::is_live(context)) {
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  float *k = context->servo.gain_stiffness_buffer;
  float *b = context->servo.gain_damping_buffer;
  if (k == nullptr || b == nullptr)
    return -1;
  int32_t points;
  {
    kalo::ContextLock hold(context);
    points = kalo::points_in_use(*context);
    for (int32_t i = 0; i < points; ++i)
      lecture_gains(context, k + 6 * i, b + 6 * i, i);
  }
  // The controller's answers are what it actually applies; the servo takes those.
  if (kaloSetSimulationStiffness(context, k) == -1 || kaloSetSimulationDamping(context, b) == -1 ||
      kaloGetSimulationStiffness(context, k) == -1 || kaloGetSimulationDamping(context, b) == -1 ||
      kaloGetSimulationStiffness(context, k) == -1 || kaloGetSimulationDamping(context, b) == -1)
    return -1;
  kalo::ContextLock hold(context);
  for (int32_t i = 0; i < points; ++i)
    ecriture_gains(context, k + 6 * i, b + 6 * i, i);
  return 0;
}

int32_t kaloGetForce(KaloContext *context, float *force) {
  if (!kalo::enter(context))
    return -1;
  const uint32_t type = context->command.active_command_type.load();
  if (type <= 1 || type == 3) {
    context->error_code = KALO_ERROR_WRONG_COMMAND_MODE;
    return -1;
  }
  kaloGetPosition(context, context->servo.scratch_position);
  kaloGetSpeed(context, context->servo.scratch_speed);
  int32_t count;
  int32_t points;
  bool gains_to_send = false;
  {
    kalo::ContextLock hold(context);
    count = context->link.control_point_count;
    points = kalo::points_in_use(*context);
    // With one control point, point 0's gains go to the controller once the
    // arm has reached the object (poses agree within the servo's tolerances).
    if (points > 0 && context->servo.points[0].object_attached != 0)
      gains_to_send = count == (erreur_position(context, 0) == 0 ? 1 : 0);
  }
  if (count == 0) {
    kaloModifGains(context);
    return 0;
  }
  if (count < 0)
    return 0;
  if (gains_to_send && kaloModifGains(context) == 0) {
    kalo::ContextLock hold(context);
    context->servo.points[0].object_attached = 0;
  }
  if (force == nullptr && points > 0) {
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  // A pose the controller reported without a valid rotation (a zero
  // quaternion) makes the coupling law undefined: that point's wrench is
  // zero (no force rather than a non-number) and the call reports code 9.
  bool undefined = false;
  {
    kalo::ContextLock hold(context);
    for (int32_t i = 0; i < points; ++i) {
      calcul_asserv(context, i);
      float *wrench = force + 6 * i;
      copie_force(context, wrench, i);
      if (!kalo::all_finite(wrench, 6)) {
        std::memset(wrench, 0, sizeof(float) * 6);
        undefined = true;
      }
    }
  }
  if (undefined) {
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  if (points > 0)
    kalo::telemetry_coupling_force(context, force);
  return 0;
}

int32_t kaloSaturateTorque(KaloContext *context, float a, float b) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (!kalo::finite_positive(a) || !kalo::finite_positive(b))
      return KALO_ERROR_INCORRECT_VALUE;
    c.link.command_record.torque_saturation[0] = a;
    c.link.command_record.torque_saturation[1] = b;
    kalo::post_field(c.link.command_record, kalo::Field::torque_saturation);
    return KALO_NO_ERROR;
  });
}

} // extern "C"
