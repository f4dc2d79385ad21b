// The names of the frame fields. Every piece of code that marks, requests,
// checks or looks up a field names it here instead of by its number; the
// numbers are the identifier bytes on the wire and never change.
#pragma once

#include <cstdint>

namespace kalo {

// Every field: X(name, identifier). Item 61 is marked with every force or
// position command; unused_N and field_N are carried but unused by the
// library.
#define KALO_FIELDS(X)                                                                             \
  X(time_stamp, 1)                                                                                 \
  X(simulation_stiffness, 2)                                                                       \
  X(simulation_damping, 3)                                                                         \
  X(speed_factor, 4)                                                                               \
  X(force_factor, 5)                                                                               \
  X(unused_6, 6)                                                                                   \
  X(observation_frame, 7)                                                                          \
  X(observation_frame_speed, 8)                                                                    \
  X(base_frame, 9)                                                                                 \
  X(catch_frame, 10)                                                                               \
  X(vo_attached, 11)                                                                               \
  X(field_12, 12)                                                                                  \
  X(field_13, 13)                                                                                  \
  X(position, 14)                                                                                  \
  X(speed, 15)                                                                                     \
  X(force, 16)                                                                                     \
  X(texture, 17)                                                                                   \
  X(texture_force, 18)                                                                             \
  X(indexing_mode, 19)                                                                             \
  X(request, 20)                                                                                   \
  X(failure, 21)                                                                                   \
  X(buttons, 22)                                                                                   \
  X(avatar_attached, 23)                                                                           \
  X(command_type, 24)                                                                              \
  X(power_on, 25)                                                                                  \
  X(unused_26, 26)                                                                                 \
  X(vm_activate, 27)                                                                               \
  X(vm_type, 28)                                                                                   \
  X(traj_sample, 29)                                                                               \
  X(traj_sample_count, 30)                                                                         \
  X(unused_31, 31)                                                                                 \
  X(vm_base_frame, 32)                                                                             \
  X(vm_min_arti_bounds, 33)                                                                        \
  X(vm_max_arti_bounds, 34)                                                                        \
  X(field_35, 35)                                                                                  \
  X(field_36, 36)                                                                                  \
  X(close_request, 37)                                                                             \
  X(controller_version, 38)                                                                        \
  X(physical_position, 39)                                                                         \
  X(avatar_position, 40)                                                                           \
  X(unused_41, 41)                                                                                 \
  X(vm_default_mode, 42)                                                                           \
  X(vm_base_frame_to_current, 43)                                                                  \
  X(hello, 44)                                                                                     \
  X(vm_robot_mode, 45)                                                                             \
  X(vm_save_spline, 46)                                                                            \
  X(vm_load_spline, 47)                                                                            \
  X(vm_delete_spline, 48)                                                                          \
  X(vm_wait_upper_bound, 49)                                                                       \
  X(control_connection_disabled, 50)                                                               \
  X(physical_speed, 51)                                                                            \
  X(control_point_count, 52)                                                                       \
  X(torque_saturation, 53)                                                                         \
  X(alarm, 54)                                                                                     \
  X(unused_55, 55)                                                                                 \
  X(max_speed, 56)                                                                                 \
  X(energy_control_off, 57)                                                                        \
  X(speed_control, 58)                                                                             \
  X(speed_control_off, 59)                                                                         \
  X(mouse_state, 60)                                                                               \
  X(set_point_marker, 61)                                                                          \
  X(friction_force, 62)                                                                            \
  X(debug_file, 63)                                                                                \
  X(center_sphere, 64)                                                                             \
  X(axis_of_rotation, 65)                                                                          \
  X(field_66, 66)                                                                                  \
  X(trackball_buttons, 67)                                                                         \
  X(unused_68, 68)                                                                                 \
  X(axis_count_wire, 69)                                                                           \
  X(articular_position, 70)                                                                        \
  X(articular_speed, 71)                                                                           \
  X(articular_force, 72)                                                                           \
  X(additional_axis_position, 73)                                                                  \
  X(additional_axis_speed, 74)                                                                     \
  X(speed_control_state, 75)                                                                       \
  X(field_76, 76)                                                                                  \
  X(force_feedback_enabled, 77)                                                                    \
  X(api_version, 78)                                                                               \
  X(force_shift_button, 79)                                                                        \
  X(added_force, 80)                                                                               \
  X(additional_axis_force, 81)                                                                     \
  X(rotation_speed_control, 82)                                                                    \
  X(rotation_speed_control_off, 83)                                                                \
  X(force_in_speed_control, 84)                                                                    \
  X(torque_in_speed_control, 85)                                                                   \
  X(gripper_command_type, 86)                                                                      \
  X(outputs, 87)                                                                                   \
  X(device_id, 88)                                                                                 \
  X(pwm_output, 89)                                                                                \
  X(analogic_inputs, 90)                                                                           \
  X(tor_inputs, 91)                                                                                \
  X(finger_tip_speed, 92)

enum class Field : uint8_t {
#define KALO_FIELD_ENUMERATOR(name, number) name = (number),
  KALO_FIELDS(KALO_FIELD_ENUMERATOR)
#undef KALO_FIELD_ENUMERATOR
};

// The identifier byte of a field, as the wire and field_changed index it.
constexpr int id(Field f) {
  return static_cast<int>(f);
}

// The name of identifier 1..92 (its enumerator's name); "" for any other.
const char *field_name(int id);

// The identifier whose name is `name`, or 0.
int field_by_name(const char *name);

} // namespace kalo
