// The exchange record: one member per frame field (identifiers 1 to 92), used
// in both directions (command_record: library to controller; state_record:
// controller to library), plus the bookkeeping of what changed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "protocol/field_id.h"

namespace kalo {

constexpr int kFieldCount = 92;           // field identifiers are 1..92
constexpr int kControlPointRoom = 1;      // per-control-point members hold one point
constexpr int kArticularRoom = 20;        // articular arrays
constexpr int kTrajSampleRoom = 3000;     // trajectory samples behind traj_samples
constexpr int kSplineNameRoom = 32;       // spline names, terminator included
constexpr uint32_t kFrameCapacity = 1440; // largest frame (payload of one datagram)
constexpr uint32_t kCodecFailure = 0xFFFFFFFFu;

constexpr int kModeDecode = 0;
constexpr int kModeEncode = 1;

// Items 58 and 82: a mode word and two values (59 and 83 carry the mode alone).
struct SpeedControl {
  int32_t mode;
  float first;
  float second;
};

// Item 60: the controller's pointer emulation state.
struct MouseState {
  int32_t state;
  float x;
  float y;
  int32_t click_left;
  int32_t click_right;
};

} // namespace kalo

struct ExchangeRecord {
  int32_t time_stamp;                      // 1: microseconds, low 32 bits of the monotonic clock
  float simulation_stiffness[6];           // 2
  float simulation_damping[6];             // 3
  float speed_factor;                      // 4
  float force_factor;                      // 5
  float observation_frame[7];              // 7
  float observation_frame_speed[6];        // 8
  float base_frame[7];                     // 9
  float catch_frame[7];                    // 10
  int32_t vo_attached;                     // 11
  float field_12;                          // 12
  float field_13[9];                       // 13
  float position[7];                       // 14
  float speed[6];                          // 15
  float force[6];                          // 16
  float texture[3];                        // 17: contact point of each control point
  float texture_intensity;                 // 17: one member shared by every point
  int16_t texture_flag;                    // 17: after the groups
  float texture_force[6];                  // 18
  char indexing_mode;                      // 19
  int16_t request;                         // 20: identifier of the field wanted in reply
  int16_t failure;                         // 21: bit k = drive k+1 failed
  int16_t buttons;                         // 22: bit k = button k+1
  int32_t avatar_attached;                 // 23
  char command_type;                       // 24
  char power_on;                           // 25
  char vm_activate;                        // 27
  char vm_type;                            // 28
  int32_t traj_sample_count;               // 30
  float vm_base_frame[7];                  // 32
  float vm_min_arti_bounds[10];            // 33
  float vm_max_arti_bounds[10];            // 34
  char field_35;                           // 35
  float field_36;                          // 36
  int32_t close_marker;                    // 37 sets it to 0 when coded
  int32_t controller_version[2];           // 38: major, minor
  float physical_position[7];              // 39
  float avatar_position[7];                // 40
  int32_t vm_default_mode;                 // 42
  int32_t vm_robot_mode;                   // 45
  char spline_name[kalo::kSplineNameRoom]; // 46, 47, 48
  int32_t control_connection_disabled;     // 50
  float physical_speed[6];                 // 51
  int32_t control_point_count;             // 52: ncp, the group count of per-point items
  float torque_saturation[2];              // 53
  int32_t alarm;                           // 54
  float max_speed[2];                      // 56: linear, angular
  kalo::SpeedControl speed_control;        // 58 (59 carries the mode)
  kalo::MouseState mouse_state;            // 60
  float friction_force[3];                 // 62
  float center_sphere[7];                  // 64
  float axis_of_rotation[3];               // 65
  float field_66[3];                       // 66
  int32_t trackball_buttons[6];            // 67
  int32_t axis_count_wire;                 // 69: nax, the length of items 70 to 72
  float articular_position[kalo::kArticularRoom]; // 70
  float articular_speed[kalo::kArticularRoom];    // 71
  float articular_force[kalo::kArticularRoom];    // 72
  float additional_axis_position;                 // 73
  float additional_axis_speed;                    // 74
  int32_t speed_control_state[2];                 // 75
  int32_t field_76;                               // 76
  int32_t force_feedback_enabled;                 // 77
  int32_t api_version[2];                         // 78: major, minor
  int32_t force_shift_button;                     // 79
  float added_force[6];                           // 80
  float additional_axis_force;                    // 81
  kalo::SpeedControl rotation_speed_control;      // 82 (83 carries the mode)
  float force_in_speed_control;                   // 84
  float torque_in_speed_control;                  // 85
  int32_t gripper_command_type;                   // 86
  int32_t outputs;                                // 87
  int32_t device_id[2];                           // 88: device type, serial number
  float pwm_output[7];                            // 89
  float analogic_inputs[7];                       // 90
  int32_t tor_inputs;                             // 91
  float finger_tip_speed[5];                      // 92

  // Bookkeeping. field_changed is indexed by identifier (entry 0 is unused).
  uint32_t field_changed[kalo::kFieldCount + 1];
  uint32_t send_request;    // non-zero: a frame is due (by convention the last id marked)
  uint8_t current_tag;      // identifier being coded
  float (*traj_samples)[7]; // item 29 samples, owned outside the record
  int32_t list_index;       // index used by item 29
  // Items decoded from the wire but not adopted because a count, an index or a
  // name did not fit the record (see the codec); the exchange thread adds them
  // to the link counters.
  uint32_t items_rejected;
  unsigned char xdr_scratch[kalo::kFrameCapacity]; // each item's value is built here
};

namespace kalo {

// Marks a field for the next command frame. Call under the context lock.
inline void post_field(ExchangeRecord &r, Field f) {
  r.field_changed[id(f)] = 1;
  r.send_request = static_cast<uint32_t>(id(f));
}

// Whether the last frame decoded into (or the next one encoded from) the
// record carries the field.
inline bool carries(const ExchangeRecord &r, Field f) {
  return r.field_changed[id(f)] != 0;
}

// Clears every change flag and the send request.
inline void clear_changes(ExchangeRecord &r) {
  for (auto &f : r.field_changed)
    f = 0;
  r.send_request = 0;
}

} // namespace kalo
