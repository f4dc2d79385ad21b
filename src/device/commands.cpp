// Command types and Cartesian set-points: how the application drives the arm
// (force, position or speed per control point) and the switches acting on the
// same command stream. A call never sends anything itself: it writes the
// command record and marks the field, and the exchange thread puts the marked
// fields into its answer to the next state frame.
//
// The servo conversions run under the context's lock: the servo records of a
// point are shared by every application thread and the exchange thread writes
// the state pose they read.
#include <cmath>
#include <cstring>
#include <unistd.h>

#include "device/call_frame.h"
#include "device/context.h"
#include "servo/servo_point.h"
#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_math.h"

namespace {

// Mode byte sent in item 24 for each accepted command type (-1: refused).
constexpr int kModeByteOf[8] = {0, -1, -1, 4, 9, 10, 1, 3};
// Command type reported for mode bytes 1..10.
constexpr uint32_t kCommandTypeOfMode[10] = {6, 0, 7, 3, 0, 0, 0, 0, 4, 5};

inline bool coupling_type(uint32_t type) {
  return type == 4 || type == 5;
}

// Field 61 opens the set-point stream; it goes out once per connection, with
// the first force or position set-point.
void start_stream(KaloContext &c) {
  if (c.command.stream_started == 0) {
    c.command.stream_started = 1;
    kalo::post_field(c.link.command_record, kalo::Field::set_point_marker);
  }
}

// Both floats of a speed-control item, stored in reverse argument order as
// the controller expects them.
int speed_control(KaloContext *ctx, float a, float b, kalo::SpeedControl ExchangeRecord::*member,
                  kalo::Field field) {
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (kalo::finite_scalars_or_refused(a, b) != 0 || a < 0.0f || b < 0.0f)
      return KALO_ERROR_INCORRECT_VALUE;
    kalo::SpeedControl &s = c.link.command_record.*member;
    s.first = b;
    s.second = a;
    s.mode = 1;
    kalo::post_field(c.link.command_record, field);
    return KALO_NO_ERROR;
  });
}

int speed_control_off(KaloContext *ctx, kalo::SpeedControl ExchangeRecord::*member,
                      kalo::Field field) {
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    (c.link.command_record.*member).mode = 0;
    kalo::post_field(c.link.command_record, field);
    return KALO_NO_ERROR;
  });
}

// Copies count floats per control point out of the state record.
template <size_t N>
int copy_state(KaloContext *ctx, float *out, const float (ExchangeRecord::*member)[N]) {
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (out == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(out, c.link.state_record.*member, sizeof(float) * N);
    return KALO_NO_ERROR;
  });
}

// Whether a set-point call may run in the active command type; sets code 17.
bool refused_in(KaloContext *ctx, bool (*refused)(uint32_t)) {
  if (refused(ctx->command.active_command_type.load())) {
    ctx->error_code = KALO_ERROR_WRONG_COMMAND_MODE;
    return true;
  }
  return false;
}

// kaloSetPosition, one control point, in a coupling command type: the
// automatic power-on and the consumption of the attach and detach requests.
void couple_position(KaloContext *ctx, ServoPoint &p) {
  if (ctx->vm.attach_pending == 0 && ctx->vm.detach_pending == 0) {
    if (p.position_power_wait > 0)
      --p.position_power_wait;
    if (p.position_power_requested == 0 && p.position_power_wait == 0) {
      kaloSetPowerOn(ctx, 1);
      p.position_power_requested = 1;
    }
  } else if (ctx->vm.attach_pending == 0 && ctx->vm.detach_pending == 1) {
    for (DEPL *d : {p.X_offset, p.H_rel}) {
      for (int k = 0; k < 3; ++k) {
        d->trans[k] = 0.0;
        d->rot->partie_vect[k] = 0.0;
      }
      d->rot->partie_scal = 1.0;
    }
    ctx->vm.detach_pending = 0;
    p.object_reset = 1;
  } else if (ctx->vm.attach_pending == 0) {
    p.object_reset = 1;
  } else {
    // The limiter keeps the device-to-object offset found at the attach.
    if (ctx->vm.attach_pending == 1) {
      for (int k = 0; k < 3; ++k) {
        p.X_offset->trans[k] = p.H_rel->trans[k];
        p.X_offset->rot->partie_vect[k] = p.H_rel->rot->partie_vect[k];
      }
      p.X_offset->rot->partie_scal = p.H_rel->rot->partie_scal;
    }
    p.object_reset = 1;
  }
}

// The end of an attach: the stiffness round trips frame the attach flag and
// the first object pose so that the controller takes them together.
int complete_attach(KaloContext *ctx) {
  float ignored[6];
  kaloGetSimulationStiffness(ctx, ignored);
  {
    kalo::ContextLock hold(ctx);
    if (ctx->link.command_record.vo_attached == 1)
      kalo::post_field(ctx->link.command_record, kalo::Field::vo_attached);
    if (ctx->link.command_record.avatar_attached == 1)
      kalo::post_field(ctx->link.command_record, kalo::Field::avatar_attached);
    kalo::post_field(ctx->link.command_record, kalo::Field::position);
  }
  kaloGetSimulationStiffness(ctx, ignored);
  kaloGetSimulationStiffness(ctx, ignored);
  kalo::ContextLock hold(ctx);
  ctx->vm.attach_pending = 0;
  return 0;
}

} // namespace

extern "C" {

int32_t kaloSetCommandType(KaloContext *context, uint32_t type) {
  const int result = kalo::locked_call(context, [&](KaloContext &c) {
    if (type == 1)
      return KALO_ERROR_MODE_NOT_SUPPORTED;
    if (type > 7 || kModeByteOf[type] < 0)
      return KALO_ERROR_INCORRECT_VALUE;
    c.link.command_record.command_type = static_cast<char>(kModeByteOf[type]);
    kalo::post_field(c.link.command_record, kalo::Field::command_type);
    return KALO_NO_ERROR;
  });
  if (result != 0)
    return result;
  sleep(0);
  context->command.command_type_set = 1;
  context->command.active_command_type = type;
  return 0;
}

int32_t kaloGetCommandType(KaloContext *context, uint32_t *type) {
  if (kalo::is_live(context) && type == nullptr) {
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  return kalo::query_call(context, kalo::Field::command_type, [&](KaloContext &c) {
    const int mode = static_cast<unsigned char>(c.link.state_record.command_type);
    *type = mode >= 1 && mode <= 10 ? kCommandTypeOfMode[mode - 1] : 0;
  });
}

int32_t kaloSetForce(KaloContext *context, const float *force) {
  if (!kalo::enter(context))
    return -1;
  if (refused_in(context, [](uint32_t t) { return t <= 2 || coupling_type(t); }))
    return -1;
  int32_t points;
  {
    kalo::ContextLock hold(context);
    start_stream(*context);
    points = kalo::points_in_use(*context);
  }
  const int walked =
      kalo::each_set_point(context, force, 6, points, [&](const float *entry, int32_t i) {
        float converted[6];
        ecriture_force(context, entry, converted, i);
        std::memcpy(context->link.command_record.force + 6 * i, converted, sizeof converted);
        return 0;
      });
  if (walked != 0)
    return walked;
  kalo::ContextLock hold(context);
  kalo::post_field(context->link.command_record, kalo::Field::force);
  return 0;
}

int32_t kaloAddForce(KaloContext *context, const float *force) {
  if (context != nullptr && !(static_cast<double>(context->link.controller_version) > 3.0))
    return KALO_ERROR_NOT_IMPLEMENTED;
  if (!kalo::enter(context))
    return -1;
  if (force == nullptr) {
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  if (!kalo::all_finite(force, 6))
    return kalo::reject_non_finite(context, force, 6);
  kalo::ContextLock hold(context);
  std::memcpy(context->link.command_record.added_force, force, sizeof(float) * 6);
  kalo::post_field(context->link.command_record, kalo::Field::added_force);
  return 0;
}

int32_t kaloSetPosition(KaloContext *context, const float *position) {
  if (!kalo::enter(context))
    return -1;
  if (refused_in(context, [](uint32_t t) { return t < 2; }))
    return -1;
  int32_t points;
  {
    kalo::ContextLock hold(context);
    start_stream(*context);
    if (context->servo.filter_disabled.load() != 0) {
      init_filtres(context);
      SendSpeedFactor(context);
    }
    if (std::fabs(context->servo.speed_factor_target->donnees[0] -
                  context->servo.speed_factor_filtered->donnees[0]) > 0.0001)
      SendSpeedFactor(context);
    points = kalo::points_in_use(*context);
  }
  const uint32_t type = context->command.active_command_type.load();
  const int walked =
      kalo::each_set_point(context, position, 7, points, [&](const float *entry, int32_t i) {
        if (test_deplacement_valide(entry) == 0)
          return KALO_ERROR_INCORRECT_VALUE; // the connection stays open
        ServoPoint &p = context->servo.points[i];
        ecriture_position(context, entry, i);
        if (coupling_type(type))
          couple_position(context, p);
        else if (type == 2 && p.object_attached != 0)
          p.object_attached = 0;
        // The controller gets the pose as the application gave it.
        std::memcpy(context->link.command_record.position + 7 * i, entry, sizeof(float) * 7);
        return 0;
      });
  if (walked != 0)
    return walked;
  uint32_t attach;
  {
    kalo::ContextLock hold(context);
    attach = context->vm.attach_pending;
    if (!coupling_type(type) || attach != 1) {
      kalo::post_field(context->link.command_record, kalo::Field::position);
      return 0;
    }
  }
  return complete_attach(context);
}

int32_t kaloSetSpeed(KaloContext *context, const float *speed) {
  if (!kalo::enter(context))
    return -1;
  if (refused_in(context, [](uint32_t t) { return t == 0 || t == 3; }))
    return -1;
  const uint32_t type = context->command.active_command_type.load();
  int32_t points;
  {
    kalo::ContextLock hold(context);
    points = kalo::points_in_use(*context);
  }
  const int walked =
      kalo::each_set_point(context, speed, 6, points, [&](const float *entry, int32_t i) {
        float converted[6];
        ecriture_vitesse(context, entry, converted, i);
        // Outside the coupling types the converted speed is not stored: only the
        // field is marked (the controller has always been sent it that way).
        if (!coupling_type(type))
          return 0;
        ServoPoint &p = context->servo.points[i];
        const int32_t guard = control_ener_cine_vitesse(context, entry, i);
        if (p.speed_power_wait > 0)
          --p.speed_power_wait;
        if (guard == -1 && p.speed_power_requested == 1) {
          p.speed_power_requested = 0;
          kaloSetPowerOn(context, 0);
          return KALO_ERROR_POSITION_DISCONTINUITY;
        }
        if (guard == -1) {
          // Power comes back only after 10 s worth of time steps without a refusal.
          p.speed_power_wait =
              static_cast<int32_t>(10.0 / static_cast<double>(context->params.time_step));
        } else if (p.speed_power_requested == 0 && p.speed_power_wait == 0) {
          p.speed_power_requested = 1;
          kaloSetPowerOn(context, 1);
        }
        std::memcpy(context->link.command_record.speed + 6 * i, converted, sizeof converted);
        return 0;
      });
  if (walked != 0)
    return walked;
  kalo::ContextLock hold(context);
  kalo::post_field(context->link.command_record, kalo::Field::speed);
  return 0;
}

int32_t kaloGetPosition(KaloContext *context, float *position) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    const int32_t points = kalo::points_in_use(c);
    if (position == nullptr && points > 0)
      return KALO_ERROR_INCORRECT_VALUE;
    if (points > 0)
      std::memcpy(position, c.link.state_record.position,
                  sizeof(float) * 7 * static_cast<size_t>(points));
    for (int32_t i = 0; i < points; ++i)
      lecture_position(context, position + 7 * i, i);
    return KALO_NO_ERROR;
  });
}

int32_t kaloGetSpeed(KaloContext *context, float *speed) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    const int32_t points = kalo::points_in_use(c);
    if (speed == nullptr && points > 0)
      return KALO_ERROR_INCORRECT_VALUE;
    if (points > 0)
      std::memcpy(c.servo.scratch_speed, c.link.state_record.speed,
                  sizeof(float) * 6 * static_cast<size_t>(points));
    for (int32_t i = 0; i < points; ++i)
      lecture_vitesse(context, c.servo.scratch_speed + 6 * i, speed + 6 * i, i);
    return KALO_NO_ERROR;
  });
}

int32_t kaloGetPhysicalPosition(KaloContext *context, float *position) {
  return copy_state(context, position, &ExchangeRecord::physical_position);
}

int32_t kaloGetPhysicalSpeed(KaloContext *context, float *speed) {
  return copy_state(context, speed, &ExchangeRecord::physical_speed);
}

int32_t kaloGetAvatarPosition(KaloContext *context, float *position) {
  return copy_state(context, position, &ExchangeRecord::avatar_position);
}

int32_t kaloSetPowerOn(KaloContext *context, uint32_t on) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (on > 1)
      return KALO_ERROR_INCORRECT_VALUE;
    c.link.command_record.power_on = static_cast<char>(on);
    kalo::post_field(c.link.command_record, kalo::Field::power_on);
    return KALO_NO_ERROR;
  });
}

int32_t kaloActiveSpeedControl(KaloContext *context, float a, float b) {
  return speed_control(context, a, b, &ExchangeRecord::speed_control, kalo::Field::speed_control);
}

int32_t kaloDeactiveSpeedControl(KaloContext *context) {
  return speed_control_off(context, &ExchangeRecord::speed_control, kalo::Field::speed_control_off);
}

int32_t kaloActiveRotationSpeedControl(KaloContext *context, float a, float b) {
  if (kalo::version_refused(context, 3.2))
    return KALO_ERROR_INCOMPATIBLE_VERSION;
  return speed_control(context, a, b, &ExchangeRecord::rotation_speed_control,
                       kalo::Field::rotation_speed_control);
}

int32_t kaloDeactiveRotationSpeedControl(KaloContext *context) {
  if (kalo::version_refused(context, 3.2))
    return KALO_ERROR_INCOMPATIBLE_VERSION;
  return speed_control_off(context, &ExchangeRecord::rotation_speed_control,
                           kalo::Field::rotation_speed_control_off);
}

int32_t kaloSetForceInSpeedControl(KaloContext *context, float force) {
  return kalo::gated_call(context, 3.55, [&](KaloContext &c) {
    if (kalo::finite_scalars_or_refused(force) != 0)
      return KALO_ERROR_INCORRECT_VALUE;
    c.link.command_record.force_in_speed_control = force;
    kalo::post_field(c.link.command_record, kalo::Field::force_in_speed_control);
    return KALO_NO_ERROR;
  });
}

int32_t kaloSetTorqueInSpeedControl(KaloContext *context, float torque) {
  return kalo::gated_call(context, 3.55, [&](KaloContext &c) {
    if (kalo::finite_scalars_or_refused(torque) != 0)
      return KALO_ERROR_INCORRECT_VALUE;
    c.link.command_record.torque_in_speed_control = torque;
    kalo::post_field(c.link.command_record, kalo::Field::torque_in_speed_control);
    return KALO_NO_ERROR;
  });
}

int32_t kaloIsInSpeedControl(KaloContext *context, int32_t *first, int32_t *second) {
  return kalo::gated_call(context, 3.55, [&](KaloContext &c) {
    if (first == nullptr || second == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *first = c.link.state_record.speed_control_state[0];
    *second = c.link.state_record.speed_control_state[1];
    return KALO_NO_ERROR;
  });
}

int32_t kaloEnableForceFeedback(KaloContext *context, int32_t enable) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    c.link.command_record.force_feedback_enabled = enable;
    kalo::post_field(c.link.command_record, kalo::Field::force_feedback_enabled);
    return KALO_NO_ERROR;
  });
}

int32_t kaloForceShiftButton(KaloContext *context, int32_t value) {
  if (context != nullptr && static_cast<double>(context->link.controller_version) < 3.0)
    return KALO_ERROR_INCOMPATIBLE_VERSION;
  return kalo::locked_call(context, [&](KaloContext &c) {
    c.link.command_record.force_shift_button = value;
    kalo::post_field(c.link.command_record, kalo::Field::force_shift_button);
    return KALO_NO_ERROR;
  });
}

int32_t kaloSetIndexingMode(KaloContext *context, uint32_t mode) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (mode > 7)
      return KALO_ERROR_INCORRECT_VALUE;
    c.command.active_indexing_mode = mode;
    c.link.command_record.indexing_mode = static_cast<char>(mode);
    kalo::post_field(c.link.command_record, kalo::Field::indexing_mode);
    return KALO_NO_ERROR;
  });
}

int32_t kaloGetIndexingMode(KaloContext *context, uint32_t *mode) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (mode == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *mode = c.command.active_indexing_mode;
    return KALO_NO_ERROR;
  });
}

} // extern "C"
