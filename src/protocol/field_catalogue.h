// The field catalogue: for each identifier 1..92, the record members its item
// carries, their element kind and how often they repeat. It drives the codec
// and lets tests and fuzzers reason about which bytes an item may touch.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "protocol/exchange_record.h"

namespace kalo::wire {

enum class Kind : uint8_t { None, Int, Short, Char, Float };

// How many times a field's segments are coded.
enum class Repeat : uint8_t {
  Once,
  PerPoint,     // ncp groups, consecutive in the record (room for one point)
  PerPointSame, // ncp groups, every one coded from or into the same member
  PerAxis,      // nax single values (articular arrays)
  Handler,      // irregular shape, coded by a named handler
};

struct Segment {
  uint16_t offset;
  Kind kind;
  uint8_t count;
};

struct FieldDesc {
  Repeat repeat = Repeat::Once;
  uint8_t segment_count = 0;
  std::array<Segment, 3> segments{};
};

inline constexpr std::size_t size_of(Kind k) {
  switch (k) {
  case Kind::Int:
  case Kind::Float:
    return 4;
  case Kind::Short:
    return 2;
  case Kind::Char:
    return 1;
  case Kind::None:
    break;
  }
  return 0;
}

// Bytes that a segment's member occupies in the record.
inline constexpr std::size_t member_size(const FieldDesc &d, const Segment &s) {
  std::size_t n = s.count * size_of(s.kind);
  if (d.repeat == Repeat::PerPoint)
    n *= kControlPointRoom;
  if (d.repeat == Repeat::PerAxis)
    n *= kArticularRoom;
  return n;
}

constexpr FieldDesc one(std::size_t offset, Kind kind, uint8_t count = 1,
                        Repeat repeat = Repeat::Once) {
  FieldDesc d;
  d.repeat = repeat;
  d.segment_count = 1;
  d.segments[0] = Segment{static_cast<uint16_t>(offset), kind, count};
  return d;
}

constexpr FieldDesc two(Segment a, Segment b) {
  FieldDesc d;
  d.segment_count = 2;
  d.segments[0] = a;
  d.segments[1] = b;
  return d;
}

constexpr FieldDesc three(Segment a, Segment b, Segment c) {
  FieldDesc d;
  d.segment_count = 3;
  d.segments[0] = a;
  d.segments[1] = b;
  d.segments[2] = c;
  return d;
}

// An item of irregular shape, coded by a named handler; its segments name the
// members it writes, for the readers of the catalogue.
constexpr FieldDesc handler(FieldDesc members) {
  members.repeat = Repeat::Handler;
  return members;
}

#define AT(member) offsetof(ExchangeRecord, member)
#define SEG(member, kind, count)                                                                   \
  Segment {                                                                                        \
    static_cast<uint16_t>(AT(member)), Kind::kind, count                                           \
  }

// The field catalogue, indexed by identifier. Identifiers left at their default
// (no segment) carry no value: the identifier byte is the whole item.
constexpr std::array<FieldDesc, kalo::kFieldCount + 1> make_catalogue() {
  std::array<FieldDesc, kalo::kFieldCount + 1> c{};
  c[1] = one(AT(time_stamp), Kind::Int);
  c[2] = one(AT(simulation_stiffness), Kind::Float, 6, Repeat::PerPoint);
  c[3] = one(AT(simulation_damping), Kind::Float, 6, Repeat::PerPoint);
  c[4] = one(AT(speed_factor), Kind::Float);
  c[5] = one(AT(force_factor), Kind::Float);
  c[7] = one(AT(observation_frame), Kind::Float, 7);
  c[8] = one(AT(observation_frame_speed), Kind::Float, 6);
  c[9] = one(AT(base_frame), Kind::Float, 7);
  c[10] = one(AT(catch_frame), Kind::Float, 7);
  c[11] = one(AT(vo_attached), Kind::Int);
  c[12] = one(AT(field_12), Kind::Float);
  c[13] = one(AT(field_13), Kind::Float, 9);
  c[14] = one(AT(position), Kind::Float, 7, Repeat::PerPoint);
  c[15] = one(AT(speed), Kind::Float, 6, Repeat::PerPoint);
  c[16] = one(AT(force), Kind::Float, 6, Repeat::PerPoint);
  c[17] = handler(
      three(SEG(texture, Float, 3), SEG(texture_intensity, Float, 1), SEG(texture_flag, Short, 1)));
  c[18] = one(AT(texture_force), Kind::Float, 6, Repeat::PerPoint);
  c[19] = one(AT(indexing_mode), Kind::Char);
  c[20] = one(AT(request), Kind::Short);
  c[21] = one(AT(failure), Kind::Short);
  c[22] = one(AT(buttons), Kind::Short);
  c[23] = one(AT(avatar_attached), Kind::Int);
  c[24] = one(AT(command_type), Kind::Char);
  c[25] = one(AT(power_on), Kind::Char);
  c[27] = one(AT(vm_activate), Kind::Char);
  c[28] = one(AT(vm_type), Kind::Char);
  c[29] = handler(one(AT(list_index), Kind::Int));        // and one slot of traj_samples
  c[30] = handler(one(AT(traj_sample_count), Kind::Int)); // and list_index
  c[32] = one(AT(vm_base_frame), Kind::Float, 7);
  c[33] = one(AT(vm_min_arti_bounds), Kind::Float, 10);
  c[34] = one(AT(vm_max_arti_bounds), Kind::Float, 10);
  c[35] = one(AT(field_35), Kind::Char);
  c[36] = one(AT(field_36), Kind::Float);
  c[37] = handler(one(AT(close_marker), Kind::Int)); // written, not carried
  c[38] = one(AT(controller_version), Kind::Int, 2);
  c[39] = one(AT(physical_position), Kind::Float, 7, Repeat::PerPointSame);
  c[40] = one(AT(avatar_position), Kind::Float, 7, Repeat::PerPointSame);
  c[42] = one(AT(vm_default_mode), Kind::Int);
  c[45] = one(AT(vm_robot_mode), Kind::Int);
  c[46] = one(AT(spline_name), Kind::Char, kalo::kSplineNameRoom);
  c[47] = c[46];
  c[48] = c[46];
  c[50] = one(AT(control_connection_disabled), Kind::Int);
  c[51] = one(AT(physical_speed), Kind::Float, 6, Repeat::PerPointSame);
  c[52] = one(AT(control_point_count), Kind::Int);
  c[53] = one(AT(torque_saturation), Kind::Float, 2);
  c[54] = one(AT(alarm), Kind::Int);
  c[56] = one(AT(max_speed), Kind::Float, 2);
  c[58] = two(SEG(speed_control.mode, Int, 1), SEG(speed_control.first, Float, 2));
  c[59] = one(AT(speed_control.mode), Kind::Int);
  c[60] = three(SEG(mouse_state.state, Int, 1), SEG(mouse_state.x, Float, 2),
                SEG(mouse_state.click_left, Int, 2));
  c[62] = one(AT(friction_force), Kind::Float, 3);
  c[64] = one(AT(center_sphere), Kind::Float, 7);
  c[65] = one(AT(axis_of_rotation), Kind::Float, 3);
  c[66] = one(AT(field_66), Kind::Float, 3);
  c[67] = one(AT(trackball_buttons), Kind::Int, 6);
  c[69] = one(AT(axis_count_wire), Kind::Int);
  c[70] = one(AT(articular_position), Kind::Float, 1, Repeat::PerAxis);
  c[71] = one(AT(articular_speed), Kind::Float, 1, Repeat::PerAxis);
  c[72] = one(AT(articular_force), Kind::Float, 1, Repeat::PerAxis);
  c[73] = one(AT(additional_axis_position), Kind::Float);
  c[74] = one(AT(additional_axis_speed), Kind::Float);
  c[75] = one(AT(speed_control_state), Kind::Int, 2);
  c[76] = one(AT(field_76), Kind::Int);
  c[77] = one(AT(force_feedback_enabled), Kind::Int);
  c[78] = one(AT(api_version), Kind::Int, 2);
  c[79] = one(AT(force_shift_button), Kind::Int);
  c[80] = one(AT(added_force), Kind::Float, 6);
  c[81] = one(AT(additional_axis_force), Kind::Float);
  c[82] =
      two(SEG(rotation_speed_control.mode, Int, 1), SEG(rotation_speed_control.first, Float, 2));
  c[83] = one(AT(rotation_speed_control.mode), Kind::Int);
  c[84] = one(AT(force_in_speed_control), Kind::Float);
  c[85] = one(AT(torque_in_speed_control), Kind::Float);
  c[86] = one(AT(gripper_command_type), Kind::Int);
  c[87] = one(AT(outputs), Kind::Int);
  c[88] = one(AT(device_id), Kind::Int, 2);
  c[89] = one(AT(pwm_output), Kind::Float, 7);
  c[90] = one(AT(analogic_inputs), Kind::Float, 7);
  c[91] = one(AT(tor_inputs), Kind::Int);
  c[92] = one(AT(finger_tip_speed), Kind::Float, 5);
  return c;
}

#undef SEG
#undef AT

inline constexpr auto kCatalogue = make_catalogue();

} // namespace kalo::wire
