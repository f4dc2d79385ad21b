// Parameters of a connection: time step, speed and force factors, the
// simulation stiffness and damping the controller applies, the observation,
// base and catch frames, the watchdog time-out, debug flags and the output
// stream. The context keeps its own memory of what the application set; the
// stiffness, damping and maximum speeds are asked of the controller.
#include <cstdio>
#include <cstring>
#include <sys/time.h>

#include "device/call_frame.h"
#include "device/context.h"
#include "servo/servo_point.h"
#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_math.h"

namespace {

// A value the context keeps and a getter returns.
template <class T> int read_value(KaloContext *ctx, T *out, T kalo::Parameters::*member) {
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (out == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *out = c.params.*member;
    return KALO_NO_ERROR;
  });
}

// A finite, strictly positive float the context keeps.
int set_positive(KaloContext *ctx, float value, float kalo::Parameters::*member) {
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (!kalo::finite_positive(value))
      return KALO_ERROR_INCORRECT_VALUE;
    c.params.*member = value;
    return KALO_NO_ERROR;
  });
}

// Copies N floats into a command field and marks it.
template <size_t N>
int send_floats(KaloContext *ctx, const float *values, float (ExchangeRecord::*member)[N],
                kalo::Field field) {
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (kalo::finite_or_refused(values, static_cast<int>(N)) != 0)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(c.link.command_record.*member, values, sizeof(float) * N);
    kalo::post_field(c.link.command_record, field);
    return KALO_NO_ERROR;
  });
}

// A frame the context remembers and sends; refused (9) unless its quaternion is a unit one.
int send_frame(KaloContext *ctx, const float *frame, float (ExchangeRecord::*member)[7],
               kalo::Field field, float (kalo::Parameters::*copy)[7]) {
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (kalo::finite_or_refused(frame, 7) != 0 || test_deplacement_valide(frame) == 0)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(c.link.command_record.*member, frame, sizeof(float) * 7);
    std::memcpy(c.params.*copy, frame, sizeof(float) * 7);
    kalo::post_field(c.link.command_record, field);
    return KALO_NO_ERROR;
  });
}

int read_frame(KaloContext *ctx, float *frame, float (kalo::Parameters::*copy)[7]) {
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (frame == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(frame, c.params.*copy, sizeof(float) * 7);
    return KALO_NO_ERROR;
  });
}

// The first control point's six gains, asked of the controller.
int query_gains(KaloContext *ctx, float *out, kalo::Field field) {
  if (kalo::is_live(ctx) && out == nullptr) {
    ctx->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  return kalo::query_call(ctx, field, [&](KaloContext &c) {
    std::memcpy(out,
                field == kalo::Field::simulation_stiffness
                    ? c.link.state_record.simulation_stiffness
                    : c.link.state_record.simulation_damping,
                sizeof(float) * 6);
  });
}

// The controller stamps its frames with the low 32 bits of its wall clock in
// microseconds (a clock synchronised with ours); the age is measured on ours.
uint32_t wall_clock_us_low32() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return static_cast<uint32_t>(tv.tv_sec) * 1000000u + static_cast<uint32_t>(tv.tv_usec);
}

} // namespace

extern "C" {

int32_t kaloSetTimeStep(KaloContext *context, float step) {
  return set_positive(context, step, &kalo::Parameters::time_step);
}

int32_t kaloGetTimeStep(KaloContext *context, float *step) {
  return read_value(context, step, &kalo::Parameters::time_step);
}

int32_t kaloGetTimeLastUpdate(KaloContext *context, uint32_t *age) {
  const uint32_t now = wall_clock_us_low32(); // read first: the age includes the call's own wait
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (age == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    // Wrapping arithmetic; a difference in the upper half of the range is a
    // stamp newer than the reading (a frame came in meanwhile): age 0.
    const uint32_t difference = now - static_cast<uint32_t>(c.link.state_record.time_stamp);
    *age = difference < 0x80000000u ? difference : 0u;
    return KALO_NO_ERROR;
  });
}

int32_t getMaxSpeed(KaloContext *context) {
  return kalo::query_call(context, kalo::Field::max_speed, [](KaloContext &c) {
    c.params.max_linear_speed = c.link.state_record.max_speed[0];
    c.params.max_angular_speed = c.link.state_record.max_speed[1];
  });
}

int32_t kaloSetSpeedFactor(KaloContext *context, float factor) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (!kalo::finite_positive(factor))
      return KALO_ERROR_INCORRECT_VALUE;
    // In command type 3 the controller takes the factor at once; elsewhere the
    // smoothing filter walks towards it and kaloSetPosition sends the steps.
    if (c.command.active_command_type.load() == 3) {
      c.link.command_record.speed_factor = factor;
      kalo::post_field(c.link.command_record, kalo::Field::speed_factor);
    } else {
      c.servo.speed_factor_target->donnees[0] = static_cast<double>(factor);
    }
    return KALO_NO_ERROR;
  });
}

int32_t kaloGetSpeedFactor(KaloContext *context, float *factor) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (factor == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *factor = static_cast<float>(c.servo.speed_factor_target->donnees[0]);
    return KALO_NO_ERROR;
  });
}

int32_t SendSpeedFactor(KaloContext *context) {
  return kalo::locked_call(context, [](KaloContext &c) {
    c.link.command_record.speed_factor =
        static_cast<float>(c.servo.speed_factor_filtered->donnees[0]);
    kalo::post_field(c.link.command_record, kalo::Field::speed_factor);
    return KALO_NO_ERROR;
  });
}

int32_t kaloSetForceFactor(KaloContext *context, float factor) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (!kalo::finite_positive(factor))
      return KALO_ERROR_INCORRECT_VALUE;
    c.link.command_record.force_factor = factor;
    kalo::post_field(c.link.command_record, kalo::Field::force_factor);
    c.params.current_force_factor = factor;
    return KALO_NO_ERROR;
  });
}

int32_t kaloGetForceFactor(KaloContext *context, float *factor) {
  return read_value(context, factor, &kalo::Parameters::current_force_factor);
}

int32_t kaloSetSimulationStiffness(KaloContext *context, const float *stiffness) {
  return send_floats(context, stiffness, &ExchangeRecord::simulation_stiffness,
                     kalo::Field::simulation_stiffness);
}

int32_t kaloGetSimulationStiffness(KaloContext *context, float *stiffness) {
  return query_gains(context, stiffness, kalo::Field::simulation_stiffness);
}

int32_t kaloSetSimulationDamping(KaloContext *context, const float *damping) {
  return send_floats(context, damping, &ExchangeRecord::simulation_damping,
                     kalo::Field::simulation_damping);
}

int32_t kaloGetSimulationDamping(KaloContext *context, float *damping) {
  return query_gains(context, damping, kalo::Field::simulation_damping);
}

int32_t kaloSetObservationFrame(KaloContext *context, const float *frame) {
  return send_frame(context, frame, &ExchangeRecord::observation_frame,
                    kalo::Field::observation_frame, &kalo::Parameters::observation_frame_copy);
}

int32_t kaloGetObservationFrame(KaloContext *context, float *frame) {
  return read_frame(context, frame, &kalo::Parameters::observation_frame_copy);
}

int32_t kaloSetObservationFrameSpeed(KaloContext *context, const float *twist) {
  return send_floats(context, twist, &ExchangeRecord::observation_frame_speed,
                     kalo::Field::observation_frame_speed);
}

int32_t kaloSetBaseFrame(KaloContext *context, const float *frame) {
  return send_frame(context, frame, &ExchangeRecord::base_frame, kalo::Field::base_frame,
                    &kalo::Parameters::base_frame_copy);
}

int32_t kaloGetBaseFrame(KaloContext *context, float *frame) {
  return read_frame(context, frame, &kalo::Parameters::base_frame_copy);
}

int32_t kaloSetCatchFrame(KaloContext *context, const float *frame) {
  // The frame is checked before the handle, as it always has been.
  if (kalo::finite_or_refused(frame, 7) != 0 || test_deplacement_valide(frame) == 0) {
    if (kalo::is_live(context))
      context->error_code = KALO_ERROR_INCORRECT_VALUE;
    else
      kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  return kalo::locked_call(context, [&](KaloContext &c) {
    // Only point 0's object displacement is kept here; the others are only sent.
    if (c.link.control_point_count >= 1 && c.servo.points != nullptr) {
      DEPL *h = c.servo.points[0].H_rel;
      DEPL_remplir_7_float(h, frame);
      QUAT_normaliser(h->rot, c.servo.work_quat);
      for (int k = 0; k < 3; ++k)
        h->rot->partie_vect[k] = c.servo.work_quat->partie_vect[k];
      h->rot->partie_scal = c.servo.work_quat->partie_scal;
    }
    const int32_t points = c.link.control_point_count < kalo::kControlPointRoom
                               ? c.link.control_point_count
                               : kalo::kControlPointRoom;
    if (points > 0)
      std::memcpy(c.link.command_record.catch_frame, frame,
                  sizeof(float) * 7 * static_cast<size_t>(points));
    kalo::post_field(c.link.command_record, kalo::Field::catch_frame);
    return KALO_NO_ERROR;
  });
}

int32_t kaloGetCatchFrame(KaloContext *context, float *frame) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (c.link.control_point_count < 1 || c.servo.points == nullptr)
      return KALO_NO_ERROR;
    if (frame == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    DEPL_vider_7_float(c.servo.points[0].H_rel, frame);
    return KALO_NO_ERROR;
  });
}

int32_t kaloSetTimeoutValue(KaloContext *context, float seconds) {
  return set_positive(context, seconds, &kalo::Parameters::watchdog_period);
}

int32_t kaloGetTimeoutValue(KaloContext *context, float *seconds) {
  return read_value(context, seconds, &kalo::Parameters::watchdog_period);
}

int32_t kaloSetDebugFlags(KaloContext *context, uint32_t flags) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    c.params.debug_flags = flags;
    return KALO_NO_ERROR;
  });
}

int32_t kaloSetOutputFile(KaloContext *context, const char *path) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    FILE *opened = path != nullptr ? std::fopen(path, "w") : nullptr;
    // A stream this call opened earlier is closed when it is replaced, so that
    // switching files repeatedly leaks nothing.
    if (c.params.opened_output != nullptr && c.params.output_stream == c.params.opened_output) {
      std::fclose(c.params.opened_output);
      c.params.output_stream = stdout;
    }
    c.params.opened_output = opened;
    if (opened == nullptr) {
      c.params.output_stream = stdout;
      return KALO_ERROR_CONFIG_FILE_NOT_FOUND;
    }
    c.params.output_stream = opened;
    return KALO_NO_ERROR;
  });
}

} // extern "C"
