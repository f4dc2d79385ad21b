// Joint-space set-points, the additional axis, the gripper, the device's
// outputs (digital word, PWM, finger-tip speeds), friction, the controller's
// debug file and textures. Each call writes its command field and posts it;
// most exist only on newer controllers and answer older ones with the bare 20.
#include <cmath>
#include <cstring>

#include "device/call_frame.h"
#include "device/context.h"
#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"

namespace {

// Joint set-points exist from controller 3.56 on, and on the one 2.33 build;
// the equality is kept against the double although a float version never
// equals it exactly.
inline bool articular_refused(const KaloContext *ctx) {
  if (ctx == nullptr)
    return false;
  const double v = static_cast<double>(ctx->link.controller_version);
  return !(v > 3.55 || v == 2.33);
}

inline size_t axis_values(const KaloContext &c) {
  const int32_t n = c.link.axis_count;
  return static_cast<size_t>(n < 0 ? 0 : (n > kalo::kArticularRoom ? kalo::kArticularRoom : n));
}

// One joint array (axis_count values) into field `field` of the command record.
int set_articular(KaloContext *ctx, const float *q,
                  float (ExchangeRecord::*member)[kalo::kArticularRoom], kalo::Field field) {
  if (articular_refused(ctx))
    return KALO_ERROR_INCOMPATIBLE_VERSION;
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (kalo::finite_or_refused(q, static_cast<int>(axis_values(c))) != 0)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(c.link.command_record.*member, q, sizeof(float) * axis_values(c));
    kalo::post_field(c.link.command_record, field);
    return 0;
  });
}

// One float of the additional axis (controllers above 3.1).
int set_additional_axis(KaloContext *ctx, const float *value, float ExchangeRecord::*member,
                        kalo::Field field) {
  return kalo::gated_call(ctx, 3.1, [&](KaloContext &c) {
    if (kalo::finite_or_refused(value, 1) != 0)
      return KALO_ERROR_INCORRECT_VALUE;
    c.link.command_record.*member = *value;
    kalo::post_field(c.link.command_record, field);
    return 0;
  });
}

inline bool in_unit_range(float x) {
  return x >= 0.0f && x <= 1.0f;
}

} // namespace

extern "C" {

int32_t kaloSetArticularPosition(KaloContext *context, const float *q) {
  return set_articular(context, q, &ExchangeRecord::articular_position,
                       kalo::Field::articular_position);
}

int32_t kaloSetArticularSpeed(KaloContext *context, const float *q) {
  return set_articular(context, q, &ExchangeRecord::articular_speed, kalo::Field::articular_speed);
}

int32_t kaloSetArticularForce(KaloContext *context, const float *q) {
  return set_articular(context, q, &ExchangeRecord::articular_force, kalo::Field::articular_force);
}

int32_t kaloSetArticularPositionOfAdditionalAxe(KaloContext *context, const float *value) {
  return set_additional_axis(context, value, &ExchangeRecord::additional_axis_position,
                             kalo::Field::additional_axis_position);
}

int32_t kaloSetArticularSpeedOfAdditionalAxe(KaloContext *context, const float *value) {
  return set_additional_axis(context, value, &ExchangeRecord::additional_axis_speed,
                             kalo::Field::additional_axis_speed);
}

int32_t kaloSetArticularForceOfAdditionalAxe(KaloContext *context, const float *value) {
  return set_additional_axis(context, value, &ExchangeRecord::additional_axis_force,
                             kalo::Field::additional_axis_force);
}

int32_t kaloSetGripperCommandType(KaloContext *context, uint32_t type) {
  return kalo::gated_call(context, 3.6, [&](KaloContext &c) {
    c.link.command_record.gripper_command_type = static_cast<int32_t>(type);
    kalo::post_field(c.link.command_record, kalo::Field::gripper_command_type);
    return 0;
  });
}

int32_t kaloOutputsSetting(KaloContext *context, uint32_t outputs) {
  return kalo::gated_call(context, 5.2, [&](KaloContext &c) {
    c.link.command_record.outputs = static_cast<int32_t>(outputs);
    kalo::post_field(c.link.command_record, kalo::Field::outputs);
    return 0;
  });
}

int32_t kaloSetPwmOutput(KaloContext *context, const float pwm[7]) {
  return kalo::gated_call(context, 5.3, [&](KaloContext &c) {
    if (kalo::finite_or_refused(pwm, 7) != 0)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(c.link.command_record.pwm_output, pwm, sizeof c.link.command_record.pwm_output);
    kalo::post_field(c.link.command_record, kalo::Field::pwm_output);
    return 0;
  });
}

int32_t kaloSetFingerTipSpeed(KaloContext *context, const float speed[5]) {
  return kalo::gated_call(context, 5.8, [&](KaloContext &c) {
    if (kalo::finite_or_refused(speed, 5) != 0)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(c.link.command_record.finger_tip_speed, speed,
                sizeof c.link.command_record.finger_tip_speed);
    kalo::post_field(c.link.command_record, kalo::Field::finger_tip_speed);
    return 0;
  });
}

int32_t kaloSetFrictionForce(KaloContext *context, float a, float b, float c) {
  return kalo::locked_call(context, [&](KaloContext &k) {
    if (kalo::finite_scalars_or_refused(a, b, c) != 0)
      return KALO_ERROR_INCORRECT_VALUE;
    k.link.command_record.friction_force[0] = a;
    k.link.command_record.friction_force[1] = b;
    k.link.command_record.friction_force[2] = c;
    kalo::post_field(k.link.command_record, kalo::Field::friction_force);
    return 0;
  });
}

int32_t kaloGenerateDebugFile(KaloContext *context) {
  return kalo::locked_call(context, [](KaloContext &c) {
    kalo::post_field(c.link.command_record, kalo::Field::debug_file);
    return 0;
  });
}

// An intensity outside [0, 1] answers the bare 9 and records nothing; the
// points written before it stay written (unposted until a later success).
// Only the points the record holds are walked, whatever count the
// controller gave. A non-finite contact point is refused (-1, code 9)
// before anything is written.
int32_t kaloSetTexture(KaloContext *context, const float *position, const float *intensity,
                       int32_t flag) {
  if (!kalo::enter(context))
    return -1;
  if (position == nullptr || intensity == nullptr) {
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  kalo::ContextLock hold(context);
  if (context->command.active_command_type < 2) {
    context->error_code = KALO_ERROR_WRONG_COMMAND_MODE;
    return -1;
  }
  const int32_t n = context->link.control_point_count;
  const int32_t points = n < 0 ? 0 : (n > kalo::kControlPointRoom ? kalo::kControlPointRoom : n);
  for (int32_t i = 0; i < points; ++i)
    if (!kalo::all_finite(position + 7 * i, 3)) {
      context->error_code = KALO_ERROR_INCORRECT_VALUE;
      return -1;
    }
  if (points >= 1 && !in_unit_range(intensity[0]))
    return KALO_ERROR_INCORRECT_VALUE;
  ExchangeRecord &r = context->link.command_record;
  for (int32_t i = 0; i < points; ++i) {
    std::memcpy(r.texture + 3 * i, position + 7 * i, 3 * sizeof(float));
    r.texture_intensity = intensity[i];
    r.texture_flag = static_cast<int16_t>(flag);
    if (i + 1 < points && !in_unit_range(intensity[i + 1]))
      return KALO_ERROR_INCORRECT_VALUE;
  }
  kalo::post_field(r, kalo::Field::texture);
  return 0;
}

// A non-finite wrench is taken for a runaway application: the connection is
// closed, as for any Cartesian set-point, and 9 is reported globally since the
// context is gone.
int32_t kaloSetTextureForce(KaloContext *context, const float *wrench) {
  if (!kalo::enter(context))
    return -1;
  int32_t points;
  {
    kalo::ContextLock hold(context);
    if (context->command.active_command_type < 2) {
      context->error_code = KALO_ERROR_WRONG_COMMAND_MODE;
      return -1;
    }
    points = kalo::points_in_use(*context);
  }
  const int walked =
      kalo::each_set_point(context, wrench, 6, points, [&](const float *entry, int32_t i) {
        float converted[6];
        ecriture_texture_force(context, entry, converted, i);
        std::memcpy(context->link.command_record.texture_force + 6 * i, converted,
                    sizeof converted);
        return 0;
      });
  if (walked != 0)
    return walked;
  kalo::ContextLock hold(context);
  kalo::post_field(context->link.command_record, kalo::Field::texture_force);
  return 0;
}

// 0.299 R + 0.587 G + 0.114 B, rounded the way intensities have always been:
// the weighted sum in double, rounded to float, then scaled in float.
int32_t kaloConvertRGBToGrayscale(KaloContext *context, const float rgb[3], float *gray) {
  (void)context;
  if (rgb == nullptr || gray == nullptr)
    return -1;
  const double sum = static_cast<double>(rgb[0]) * 29.9 + static_cast<double>(rgb[1]) * 58.7 +
                     static_cast<double>(rgb[2]) * 11.4;
  *gray = static_cast<float>(sum) / 100.0f;
  return 0;
}

} // extern "C"
