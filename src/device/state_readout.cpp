// Device state readout: what the controller reported in its last state frame
// (buttons, power, drive failures, alarm and bound bits, inputs, trackball,
// joints), the drive diagnostics printed on the output stream, the wait for a
// button press, and the pose <-> homogeneous matrix conversions. Nothing here
// sends a frame.
#include <cstdio>
#include <cstring>

#include "device/call_frame.h"
#include "device/context.h"
#include "kalo/kalo.h"
#include "kalo/kalo_deplacement.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_math.h"
#include "kalo/kalo_quaternion.h"

namespace {

constexpr uint32_t kBoundsMask = 0x3FFFu;    // status word bits 0..13
constexpr uint32_t kAlarmMask = 0xFFFFC000u; // status word bits 14..31
constexpr int kPowerBit = 16;
constexpr int kLoopOverrunBit = 17;
constexpr int kShiftPositionBit = 19;
constexpr uint32_t kDeadManButton = 15;
constexpr uint32_t kEmergencyStopButton = 16;
constexpr int kDriveCount = 8;
constexpr uint32_t kButtonCount = 16; // one bit each in item 22

// Joint readers and setters exist from controller 3.56 on, and on the one
// 2.33 build; the equality is kept against the double although a float
// version never equals it exactly.
inline bool articular_refused(const KaloContext *ctx) {
  if (ctx == nullptr)
    return false;
  const double v = static_cast<double>(ctx->link.controller_version);
  return !(v > 3.55 || v == 2.33);
}

// The failure word carries one bit per drive in 16 bits: no sign extension.
inline uint32_t failure_word(const KaloContext &c) {
  return static_cast<uint16_t>(c.link.state_record.failure);
}

inline uint32_t button_state(const KaloContext &c, uint32_t button) {
  if (button < 1 || button > kButtonCount)
    return 0;
  return (static_cast<uint16_t>(c.link.state_record.buttons) >> (button - 1)) & 1u;
}

inline int status_bit(KaloContext *ctx, int bit, uint32_t *out) {
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (out == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *out = (static_cast<uint32_t>(c.link.state_record.alarm) >> bit) & 1u;
    return 0;
  });
}

// The axis count that joint arrays use, kept within the record's room.
inline int32_t clamp_axes(int32_t n) {
  return n < 0 ? 0 : (n > kalo::kArticularRoom ? kalo::kArticularRoom : n);
}

// Copies an array member of the state record out to the caller.
template <size_t N>
int copy_state(KaloContext *ctx, float (ExchangeRecord::*member)[N], float *to) {
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (to == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(to, c.link.state_record.*member, sizeof(float) * N);
    return 0;
  });
}

// One joint value per axis from the last state frame (controllers above 3.55).
int32_t read_joints(KaloContext *ctx, float *values,
                    const float (ExchangeRecord::*member)[kalo::kArticularRoom]) {
  if (articular_refused(ctx))
    return KALO_ERROR_INCOMPATIBLE_VERSION;
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (values == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(values, c.link.state_record.*member,
                sizeof(float) * static_cast<size_t>(clamp_axes(c.link.axis_count)));
    return 0;
  });
}

} // namespace

extern "C" {

int32_t kaloGetButton(KaloContext *context, uint32_t button, uint32_t *pressed) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (pressed == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *pressed = button_state(c, button);
    return 0;
  });
}

int32_t kaloGetEmergencyStop(KaloContext *context, uint32_t *value) {
  kaloGetButton(context, kEmergencyStopButton, value);
  return 0;
}

int32_t kaloGetDeadMan(KaloContext *context, uint32_t *value) {
  kaloGetButton(context, kDeadManButton, value);
  return 0;
}

// The wait starts from the button's state in the last frame, so a button that
// is already held must be released and pressed again; the exchange thread's
// CheckPressButton (which runs under the lock) sees a consistent start.
// A button the device does not have could never be pressed: refused with 9
// at once rather than waited for. kaloClose ends the wait (-1, code 2).
int32_t kaloWaitPressButton(KaloContext *context, uint32_t button) {
  if (!kalo::enter(context))
    return -1;
  if (button < 1 || button > kButtonCount) {
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  kalo::WaitGuard guard(context);
  if (guard.cancelled())
    return -1;
  {
    kalo::ContextLock hold(context);
    const uint32_t now = button_state(*context, button);
    context->link.wait_button = button;
    context->link.button_now = now;
    context->link.button_previous = now;
    context->link.wait_armed = 1;
  }
  const int result = TR_attendre_semaphore(context->link.button_sem) == 0 ? 0 : -1;
  if (guard.cancelled())
    return -1;
  return result;
}

int32_t CheckPressButton(KaloContext *context) {
  if (!kalo::enter(context))
    return -1;
  uint32_t now = 0;
  kaloGetButton(context, context->link.wait_button, &now);
  context->link.button_now = now;
  if (context->link.wait_armed != 0 && now == 1 && context->link.button_previous == 0) {
    context->link.wait_armed = 0;
    TR_poster_semaphore(context->link.button_sem);
  }
  context->link.button_previous = now;
  return 0;
}

int32_t kaloGetPowerOn(KaloContext *context, uint32_t *on) {
  return status_bit(context, kPowerBit, on);
}

int32_t kaloIsInShiftPosition(KaloContext *context, uint32_t *shift) {
  return status_bit(context, kShiftPositionBit, shift);
}

int32_t kaloGetFailure(KaloContext *context, uint32_t *word) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (word == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *word = failure_word(c);
    return 0;
  });
}

int32_t kaloGetError(KaloContext *context, uint32_t *failed) {
  if (!kalo::enter(context))
    return -1;
  if (failed == nullptr) {
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  uint32_t word;
  FILE *out;
  {
    kalo::ContextLock hold(context);
    word = failure_word(*context);
    out = context->params.output_stream;
  }
  *failed = 0;
  for (int drive = 1; drive <= kDriveCount; ++drive) {
    if ((word >> (drive - 1) & 1u) == 0)
      continue;
    *failed = 1;
    context->error_code = KALO_ERROR_HARDWARE;
    kaloGlobalError = KALO_ERROR_HARDWARE;
    char message[] = "\nPanne du variateur 0\n";
    message[sizeof message - 3] = static_cast<char>('0' + drive);
    std::fwrite(message, 1, sizeof message - 1, out);
    std::fflush(out);
    return -1;
  }
  return 0;
}

int32_t kaloDisplayHardwareStatus(KaloContext *context) {
  if (!kalo::enter(context))
    return -1;
  uint32_t word;
  FILE *out;
  {
    kalo::ContextLock hold(context);
    word = failure_word(*context);
    out = context->params.output_stream;
  }
  std::fputs("\n****************** Diagnostic materiel ******************\n", out);
  for (int drive = 1; drive <= kDriveCount; ++drive) {
    char label[] = "Variateur 0 : ";
    label[10] = static_cast<char>('0' + drive);
    std::fputs(label, out);
    std::fputs((word >> (drive - 1) & 1u) != 0 ? "NOK\n" : "OK\n", out);
  }
  std::fputs("**************************************************************\n", out);
  std::fflush(out);
  return 0;
}

int32_t kaloGetAlarm(KaloContext *context, uint32_t *alarm) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (alarm == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *alarm = (static_cast<uint32_t>(c.link.state_record.alarm) & kAlarmMask) |
             (c.loop.loop_overrun.load() << kLoopOverrunBit);
    return 0;
  });
}

int32_t kaloIsInBounds(KaloContext *context, uint32_t *bounds) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (bounds == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *bounds = static_cast<uint32_t>(c.link.state_record.alarm) & kBoundsMask;
    return 0;
  });
}

int32_t kaloGetTrackball(KaloContext *context, uint32_t *x, uint32_t *y) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (x == nullptr || y == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *x = static_cast<uint32_t>(c.link.state_record.trackball_buttons[1]);
    *y = static_cast<uint32_t>(c.link.state_record.trackball_buttons[2]);
    return 0;
  });
}

int32_t kaloGetTrackballButton(KaloContext *context, uint32_t *a, uint32_t *b, uint32_t *c,
                               uint32_t *d) {
  return kalo::locked_call(context, [&](KaloContext &k) {
    if (a == nullptr || b == nullptr || c == nullptr || d == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    const int32_t *t = k.link.state_record.trackball_buttons;
    *a = static_cast<uint32_t>(t[0]);
    *b = static_cast<uint32_t>(t[3]);
    *c = static_cast<uint32_t>(t[4]);
    *d = static_cast<uint32_t>(t[5]);
    return 0;
  });
}

int32_t kaloGetADC(KaloContext *context, int32_t index, float *value) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (index < 1 || index > 3 || value == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *value = c.link.state_record.field_66[index - 1];
    return 0;
  });
}

int32_t kaloGetTorInputs(KaloContext *context, uint32_t *inputs) {
  return kalo::gated_call(context, 5.59, [&](KaloContext &c) {
    if (inputs == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *inputs = static_cast<uint32_t>(c.link.state_record.tor_inputs);
    return 0;
  });
}

int32_t kaloGetAnalogicInputs(KaloContext *context, float inputs[7]) {
  if (kalo::version_refused(context, 5.59))
    return KALO_ERROR_INCOMPATIBLE_VERSION;
  return copy_state(context, &ExchangeRecord::analogic_inputs, inputs);
}

// Read by the pointer emulation on any live context, connected or not.
int32_t kaloGetMouseState(KaloContext *context, int32_t *state, float *x, float *y) {
  if (!kalo::is_live(context)) {
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  if (state == nullptr || x == nullptr || y == nullptr)
    return -1;
  kalo::ContextLock hold(context);
  *state = context->link.state_record.mouse_state.state;
  *x = context->link.state_record.mouse_state.x;
  *y = context->link.state_record.mouse_state.y;
  return 0;
}

int32_t kaloGetAxisOfRotation(KaloContext *context, float axis[3]) {
  return copy_state(context, &ExchangeRecord::axis_of_rotation, axis);
}

int32_t kaloGetCenterSphere(KaloContext *context, float centre[7]) {
  return copy_state(context, &ExchangeRecord::center_sphere, centre);
}

int32_t kaloGetNumberOfAxes(KaloContext *context) {
  return kalo::locked_call(context, [](KaloContext &c) {
    const int32_t n = clamp_axes(c.link.state_record.axis_count_wire);
    c.link.axis_count = n;
    c.link.command_record.axis_count_wire = n;
    return 0;
  });
}

int32_t kaloGetNbAxes(KaloContext *context, uint32_t *count) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (count == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *count = static_cast<uint32_t>(c.link.state_record.axis_count_wire);
    return 0;
  });
}

int32_t kaloGetArticularPosition(KaloContext *context, float *values) {
  return read_joints(context, values, &ExchangeRecord::articular_position);
}

int32_t kaloGetArticularSpeed(KaloContext *context, float *values) {
  return read_joints(context, values, &ExchangeRecord::articular_speed);
}

int32_t kaloGetArticularPositionOfAdditionalAxe(KaloContext *context, float *value) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (value == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *value = c.link.state_record.additional_axis_position;
    return 0;
  });
}

int32_t kaloGetArticularSpeedOfAdditionalAxe(KaloContext *context, float *value) {
  return kalo::locked_call(context, [&](KaloContext &c) {
    if (value == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    *value = c.link.state_record.additional_axis_speed;
    return 0;
  });
}

// The records are built on the stack over local storage: the conversion
// allocates nothing and two threads may convert at once.
int32_t kaloConvertDeplToHomogeneMatrix(KaloContext *context, const float depl[7],
                                        float matrix[16]) {
  return kalo::locked_call(context, [&](KaloContext &) {
    if (depl == nullptr || matrix == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    double trans[3], vect[3], unit_vect[3], h[16], r[9], t[3];
    QUAT rot{vect, 0.0};
    DEPL d{trans, &rot};
    DEPL_remplir_7_float(&d, depl);
    QUAT unit{unit_vect, 0.0};
    QUAT_normaliser(&rot, &unit);
    std::memcpy(vect, unit_vect, sizeof vect);
    rot.partie_scal = unit.partie_scal;
    MATD hm{4, 4, h};
    MATD rm{3, 3, r};
    DEPL_representation_homogene(&d, &hm, &rm, t);
    for (int col = 0; col < 4; ++col)
      for (int row = 0; row < 4; ++row)
        matrix[4 * col + row] = static_cast<float>(h[4 * row + col]);
    return 0;
  });
}

int32_t kaloConvertHomogeneMatrixToDepl(KaloContext *context, float depl[7],
                                        const float matrix[16]) {
  return kalo::locked_call(context, [&](KaloContext &) {
    if (depl == nullptr || matrix == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    double r[9], vect[3];
    for (int row = 0; row < 3; ++row)
      for (int col = 0; col < 3; ++col)
        r[3 * row + col] = matrix[4 * col + row];
    MATD rm{3, 3, r};
    QUAT q{vect, 0.0};
    QUAT_convertir_matrice_en_quaternion(&rm, &q);
    depl[0] = matrix[12];
    depl[1] = matrix[13];
    depl[2] = matrix[14];
    depl[3] = static_cast<float>(vect[0]);
    depl[4] = static_cast<float>(vect[1]);
    depl[5] = static_cast<float>(vect[2]);
    depl[6] = static_cast<float>(q.partie_scal);
    return 0;
  });
}

} // extern "C"
