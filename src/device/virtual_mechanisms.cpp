// Virtual mechanisms: constraints that the controller imposes on the arm
// itself (a guiding spline, joint bounds), chosen and configured from here.
// The library forwards the settings, remembers the last ones, and offers two
// waits: for a batch of trajectory samples and for the upper-bound signal.
// Every call needs command type 5.
#include <cstring>

#include "device/call_frame.h"
#include "device/context.h"
#include "kalo/kalo.h"
#include "realtime/timed_wait.h"

namespace {

constexpr uint32_t kVmCommandType = 5;
constexpr uint32_t kSplineMechanism = 1;
constexpr int32_t kMaxTrajSamples = kalo::kTrajSampleRoom;

// A sampling run waits this long for its first sample, then this long for
// each next one; a stream that stops early leaves the rest of the batch as the
// array held it. The gap is generous so that a loaded machine does not cut a
// healthy stream short.
constexpr int kFirstSampleTimeoutMs = 3000;
constexpr int kNextSampleTimeoutMs = 500;

// Runs work under the call frame once the command type is known to be 5.
template <class Work> int vm_call(KaloContext *ctx, Work &&work) {
  return kalo::locked_call(ctx, [&](KaloContext &c) {
    if (c.command.active_command_type != kVmCommandType)
      return KALO_ERROR_WRONG_COMMAND_MODE;
    return work(c);
  });
}

// Posts one field whose value the caller has stored.
template <class Store> int vm_post(KaloContext *ctx, kalo::Field field, Store &&store) {
  return vm_call(ctx, [&](KaloContext &c) {
    store(c);
    kalo::post_field(c.link.command_record, field);
    return 0;
  });
}

// The three spline calls share the name member; a name that does not fit its
// 32 bytes (terminator included) is refused and nothing is sent.
int spline_call(KaloContext *ctx, const char *name, kalo::Field field) {
  return vm_call(ctx, [&](KaloContext &c) {
    if (c.vm.vm_current_type != kSplineMechanism)
      return KALO_ERROR_INCORRECT_VM;
    if (name == nullptr || strnlen(name, kalo::kSplineNameRoom) >= kalo::kSplineNameRoom)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memset(c.link.command_record.spline_name, 0, sizeof c.link.command_record.spline_name);
    std::memcpy(c.link.command_record.spline_name, name, std::strlen(name));
    kalo::post_field(c.link.command_record, field);
    return 0;
  });
}

} // namespace

extern "C" {

int32_t kaloVmActivate(KaloContext *context) {
  return vm_post(context, kalo::Field::vm_activate, [](KaloContext &c) {
    c.vm.vm_active = 1;
    c.link.command_record.vm_activate = 1;
  });
}

int32_t kaloVmDeactivate(KaloContext *context) {
  return vm_post(context, kalo::Field::vm_activate, [](KaloContext &c) {
    c.vm.vm_active = 0;
    c.link.command_record.vm_activate = 0;
  });
}

int32_t kaloVmSetType(KaloContext *context, uint32_t type) {
  return vm_post(context, kalo::Field::vm_type, [&](KaloContext &c) {
    c.vm.vm_current_type = type;
    c.link.command_record.vm_type = static_cast<char>(type);
  });
}

int32_t kaloVmSetBaseFrame(KaloContext *context, const float frame[7]) {
  return vm_call(context, [&](KaloContext &c) {
    if (c.command.command_type_set != 1)
      return KALO_ERROR_WRONG_MOMENT;
    if (kalo::finite_or_refused(frame, 7) != 0)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(c.link.command_record.vm_base_frame, frame,
                sizeof c.link.command_record.vm_base_frame);
    kalo::post_field(c.link.command_record, kalo::Field::vm_base_frame);
    return 0;
  });
}

int32_t kaloVmGetBaseFrame(KaloContext *context, float frame[7]) {
  if (vm_call(context, [&](KaloContext &) {
        return frame == nullptr ? KALO_ERROR_INCORRECT_VALUE : 0;
      }) != 0)
    return -1;
  return kalo::query_call(context, kalo::Field::vm_base_frame, [&](KaloContext &c) {
    std::memcpy(frame, c.link.state_record.vm_base_frame, sizeof c.link.state_record.vm_base_frame);
  });
}

int32_t kaloVmSetMinArtiBounds(KaloContext *context, const float bounds[10]) {
  return vm_call(context, [&](KaloContext &c) {
    if (kalo::finite_or_refused(bounds, 10) != 0)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(c.link.command_record.vm_min_arti_bounds, bounds,
                sizeof c.link.command_record.vm_min_arti_bounds);
    kalo::post_field(c.link.command_record, kalo::Field::vm_min_arti_bounds);
    return 0;
  });
}

int32_t kaloVmSetMaxArtiBounds(KaloContext *context, const float bounds[10]) {
  return vm_call(context, [&](KaloContext &c) {
    if (kalo::finite_or_refused(bounds, 10) != 0)
      return KALO_ERROR_INCORRECT_VALUE;
    std::memcpy(c.link.command_record.vm_max_arti_bounds, bounds,
                sizeof c.link.command_record.vm_max_arti_bounds);
    kalo::post_field(c.link.command_record, kalo::Field::vm_max_arti_bounds);
    return 0;
  });
}

int32_t kaloVmSetDefaultToCartesianPosition(KaloContext *context) {
  return vm_post(context, kalo::Field::vm_default_mode, [](KaloContext &c) {
    c.link.command_record.vm_default_mode = 0;
    c.vm.vm_default_mode_copy = 0;
  });
}

int32_t kaloVmSetDefaultToTransparentMode(KaloContext *context) {
  return vm_post(context, kalo::Field::vm_default_mode, [](KaloContext &c) {
    c.link.command_record.vm_default_mode = 1;
    c.vm.vm_default_mode_copy = 1;
  });
}

int32_t kaloVmSetBaseFrameToCurrentFrame(KaloContext *context) {
  return vm_post(context, kalo::Field::vm_base_frame_to_current, [](KaloContext &) {});
}

int32_t kaloVmSetRobotMode(KaloContext *context, uint32_t mode) {
  return vm_post(context, kalo::Field::vm_robot_mode, [&](KaloContext &c) {
    c.link.command_record.vm_robot_mode = static_cast<int32_t>(mode);
  });
}

int32_t kaloVmSaveCurrentSpline(KaloContext *context, const char *name) {
  return spline_call(context, name, kalo::Field::vm_save_spline);
}

int32_t kaloVmLoadSpline(KaloContext *context, const char *name) {
  return spline_call(context, name, kalo::Field::vm_load_spline);
}

int32_t kaloVmDeleteSpline(KaloContext *context, const char *name) {
  return spline_call(context, name, kalo::Field::vm_delete_spline);
}

// A new run discards the previous batch: samples are stored from the start of
// the array again, and sample signals left over from an earlier run are
// dropped so that they cannot stand for samples of this one.
int32_t kaloVmStartTrajSampling(KaloContext *context, int32_t count) {
  return vm_call(context, [&](KaloContext &c) {
    if (count < 1 || count > kMaxTrajSamples)
      return KALO_ERROR_INCORRECT_VALUE;
    c.link.command_record.traj_sample_count = count;
    c.link.state_record.traj_sample_count = count;
    c.vm.traj_requested = count;
    c.link.state_record.list_index = 0;
    kalo::drain(c.link.traj_sample_sem);
    kalo::post_field(c.link.command_record, kalo::Field::traj_sample_count);
    return 0;
  });
}

// Waits as many times as samples were asked for, whatever their indices, so
// that samples arriving out of order all land; copies at most the batch the
// application asked for (the size its array has), never what the wire says.
int32_t kaloVmGetTrajSamples(KaloContext *context, float *samples) {
  if (!kalo::enter(context))
    return -1;
  kalo::WaitGuard guard(context);
  int32_t count = 0;
  int32_t received = 0;
  const int checked = vm_call(context, [&](KaloContext &c) {
    if (c.vm.vm_current_type != kSplineMechanism)
      return KALO_ERROR_INCORRECT_VM;
    if (samples == nullptr)
      return KALO_ERROR_INCORRECT_VALUE;
    count = c.vm.traj_requested < 0
                ? 0
                : (c.vm.traj_requested > kMaxTrajSamples ? kMaxTrajSamples : c.vm.traj_requested);
    received = c.link.state_record.list_index;
    return 0;
  });
  if (checked != 0 || guard.cancelled())
    return -1;

  // The exchange thread signals each frame that carried a sample.
  if (received < count) {
    if (!kalo::wait_posted(context->link.traj_sample_sem, kFirstSampleTimeoutMs) ||
        guard.cancelled())
      return -1;
    for (int32_t i = 1; i < count && context->lifetime.waits_cancelled.load() == 0; ++i)
      if (!kalo::wait_posted(context->link.traj_sample_sem, kNextSampleTimeoutMs))
        break;
    if (guard.cancelled())
      return -1;
  }

  kalo::ContextLock hold(context);
  if (context->link.state_record.traj_samples != nullptr)
    std::memcpy(samples, context->link.state_record.traj_samples,
                sizeof(float) * 7 * static_cast<size_t>(count));
  return 0;
}

int32_t kaloVmWaitUpperBound(KaloContext *context) {
  const int posted = vm_call(context, [](KaloContext &c) {
    if (c.vm.vm_current_type > kSplineMechanism)
      return KALO_ERROR_INCORRECT_VM;
    if (c.vm.vm_active == 0)
      return KALO_ERROR_WRONG_MOMENT;
    kalo::post_field(c.link.command_record, kalo::Field::vm_wait_upper_bound);
    return 0;
  });
  if (posted != 0)
    return -1;
  kalo::WaitGuard guard(context); // kaloClose ends the wait (-1, code 2)
  if (guard.cancelled())
    return -1;
  const int result = TR_attendre_semaphore(context->link.upper_bound_sem);
  if (guard.cancelled())
    return -1;
  return result;
}

} // extern "C"
