// The servo's state in the context: the per-point servo records, the speed-
// factor smoothing, the virtual object's defaults, the work objects and the
// per-control-point arrays of the gain and set-point calls. Part of
// KaloContext (device/context.h), guarded by the context's lock but for
// filter_disabled, an atomic read outside it by design.
#pragma once

#include <atomic>
#include <cstdint>

#include "kalo/kalo_math.h"
#include "kalo/kalo_deplacement.h"
#include "kalo/kalo_quaternion.h"

struct ServoPoint; // per-control-point servo state (servo/servo_point.h)
struct TSIG_FILTRE;

namespace kalo {

struct ServoState {
  ServoPoint *points;  // point_count records
  int32_t point_count; // servo records in use

  // ---- speed-factor smoothing (1x1 matrices) and its filter
  MATD *speed_factor_target; // 1.0 at open
  MATD *speed_factor_filtered;
  MATD *speed_factor_cutoff; // 0.5 Hz
  TSIG_FILTRE *speed_factor_filter;
  std::atomic<uint32_t> filter_disabled;

  // ---- virtual object defaults and work objects
  double object_mass;   // 0.814
  MATD *object_inertia; // 3x3, diagonal 2 * mass * 0.3352 / 5
  MATD *work_matrix4;   // 4x4
  MATD *work_matrix3;   // 3x3
  VECT3 *work_vect3;
  DEPL *work_depl;
  QUAT *work_quat;

  // ---- per-control-point arrays, allocated after connecting for
  // point_array_count points (the controller's count, at least 1, bounded)
  int32_t point_array_count;
  float *gain_stiffness_buffer; // 6 per point
  float *gain_damping_buffer;   // 6 per point
  float *scratch_speed;         // 6 per point (kaloGetForce)
  float *scratch_force;         // 6 per point
  float *scratch_position;      // 7 per point (kaloGetForce)
};

} // namespace kalo
