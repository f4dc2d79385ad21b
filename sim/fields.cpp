#include "fields.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace kalo::sim {
namespace {

constexpr FieldLayout none(const char *name = "") {
  return FieldLayout{name, FieldRepeat::Once, 0, {}};
}

constexpr FieldLayout one(const char *name, std::size_t offset, ValueKind kind, uint8_t count = 1,
                          FieldRepeat repeat = FieldRepeat::Once) {
  return FieldLayout{
      name, repeat, 1, {FieldSegment{static_cast<uint16_t>(offset), kind, count}, {}, {}}};
}

#define AT(member) offsetof(ExchangeRecord, member)
#define SEG(member, kind, count)                                                                   \
  FieldSegment {                                                                                   \
    static_cast<uint16_t>(AT(member)), ValueKind::kind, count                                      \
  }

using K = ValueKind;
using R = FieldRepeat;

constexpr std::array<FieldLayout, kFieldCount + 1> make_layouts() {
  std::array<FieldLayout, kFieldCount + 1> t{};
  for (auto &l : t)
    l = none();
  t[1] = one("time_stamp", AT(time_stamp), K::I32);
  t[2] = one("simulation_stiffness", AT(simulation_stiffness), K::F32, 6, R::PerPoint);
  t[3] = one("simulation_damping", AT(simulation_damping), K::F32, 6, R::PerPoint);
  t[4] = one("speed_factor", AT(speed_factor), K::F32);
  t[5] = one("force_factor", AT(force_factor), K::F32);
  t[7] = one("observation_frame", AT(observation_frame), K::F32, 7);
  t[8] = one("observation_frame_speed", AT(observation_frame_speed), K::F32, 6);
  t[9] = one("base_frame", AT(base_frame), K::F32, 7);
  t[10] = one("catch_frame", AT(catch_frame), K::F32, 7);
  t[11] = one("vo_attached", AT(vo_attached), K::I32);
  t[12] = one("field_12", AT(field_12), K::F32);
  t[13] = one("field_13", AT(field_13), K::F32, 9);
  t[14] = one("position", AT(position), K::F32, 7, R::PerPoint);
  t[15] = one("speed", AT(speed), K::F32, 6, R::PerPoint);
  t[16] = one("force", AT(force), K::F32, 6, R::PerPoint);
  t[17] = FieldLayout{
      "texture",
      R::Texture,
      3,
      {SEG(texture, F32, 3), SEG(texture_intensity, F32, 1), SEG(texture_flag, I16, 1)}};
  t[18] = one("texture_force", AT(texture_force), K::F32, 6, R::PerPoint);
  t[19] = one("indexing_mode", AT(indexing_mode), K::I8);
  t[20] = one("request", AT(request), K::I16);
  t[21] = one("failure", AT(failure), K::I16);
  t[22] = one("buttons", AT(buttons), K::I16);
  t[23] = one("avatar_attached", AT(avatar_attached), K::I32);
  t[24] = one("command_type", AT(command_type), K::I8);
  t[25] = one("power_on", AT(power_on), K::I8);
  t[27] = one("vm_activate", AT(vm_activate), K::I8);
  t[28] = one("vm_type", AT(vm_type), K::I8);
  t[29] = FieldLayout{"traj_sample", R::TrajSample, 1, {SEG(list_index, I32, 1), {}, {}}};
  t[30] = one("traj_sample_count", AT(traj_sample_count), K::I32);
  t[32] = one("vm_base_frame", AT(vm_base_frame), K::F32, 7);
  t[33] = one("vm_min_arti_bounds", AT(vm_min_arti_bounds), K::F32, 10);
  t[34] = one("vm_max_arti_bounds", AT(vm_max_arti_bounds), K::F32, 10);
  t[35] = one("field_35", AT(field_35), K::I8);
  t[36] = one("field_36", AT(field_36), K::F32);
  t[37] = none("close_request");
  t[38] = one("controller_version", AT(controller_version), K::I32, 2);
  t[39] = one("physical_position", AT(physical_position), K::F32, 7, R::PerPointSame);
  t[40] = one("avatar_position", AT(avatar_position), K::F32, 7, R::PerPointSame);
  t[42] = one("vm_default_mode", AT(vm_default_mode), K::I32);
  t[43] = none("vm_base_frame_to_current");
  t[44] = none("hello");
  t[45] = one("vm_robot_mode", AT(vm_robot_mode), K::I32);
  t[46] = one("vm_save_spline", AT(spline_name), K::I8, kSplineNameRoom);
  t[47] = one("vm_load_spline", AT(spline_name), K::I8, kSplineNameRoom);
  t[48] = one("vm_delete_spline", AT(spline_name), K::I8, kSplineNameRoom);
  t[49] = none("vm_wait_upper_bound");
  t[50] = one("control_connection_disabled", AT(control_connection_disabled), K::I32);
  t[51] = one("physical_speed", AT(physical_speed), K::F32, 6, R::PerPointSame);
  t[52] = one("control_point_count", AT(control_point_count), K::I32);
  t[53] = one("torque_saturation", AT(torque_saturation), K::F32, 2);
  t[54] = one("alarm", AT(alarm), K::I32);
  t[56] = one("max_speed", AT(max_speed), K::F32, 2);
  t[57] = none("energy_control_off");
  t[58] = FieldLayout{"speed_control",
                      R::Once,
                      2,
                      {SEG(speed_control.mode, I32, 1), SEG(speed_control.first, F32, 2), {}}};
  t[59] = one("speed_control_off", AT(speed_control.mode), K::I32);
  t[60] = FieldLayout{"mouse_state",
                      R::Once,
                      3,
                      {SEG(mouse_state.state, I32, 1), SEG(mouse_state.x, F32, 2),
                       SEG(mouse_state.click_left, I32, 2)}};
  t[61] = none("stream_start");
  t[62] = one("friction_force", AT(friction_force), K::F32, 3);
  t[63] = none("debug_file");
  t[64] = one("center_sphere", AT(center_sphere), K::F32, 7);
  t[65] = one("axis_of_rotation", AT(axis_of_rotation), K::F32, 3);
  t[66] = one("field_66", AT(field_66), K::F32, 3);
  t[67] = one("trackball_buttons", AT(trackball_buttons), K::I32, 6);
  t[69] = one("axis_count_wire", AT(axis_count_wire), K::I32);
  t[70] = one("articular_position", AT(articular_position), K::F32, 1, R::PerAxis);
  t[71] = one("articular_speed", AT(articular_speed), K::F32, 1, R::PerAxis);
  t[72] = one("articular_force", AT(articular_force), K::F32, 1, R::PerAxis);
  t[73] = one("additional_axis_position", AT(additional_axis_position), K::F32);
  t[74] = one("additional_axis_speed", AT(additional_axis_speed), K::F32);
  t[75] = one("speed_control_state", AT(speed_control_state), K::I32, 2);
  t[76] = one("field_76", AT(field_76), K::I32);
  t[77] = one("force_feedback_enabled", AT(force_feedback_enabled), K::I32);
  t[78] = one("api_version", AT(api_version), K::I32, 2);
  t[79] = one("force_shift_button", AT(force_shift_button), K::I32);
  t[80] = one("added_force", AT(added_force), K::F32, 6);
  t[81] = one("additional_axis_force", AT(additional_axis_force), K::F32);
  t[82] = FieldLayout{
      "rotation_speed_control",
      R::Once,
      2,
      {SEG(rotation_speed_control.mode, I32, 1), SEG(rotation_speed_control.first, F32, 2), {}}};
  t[83] = one("rotation_speed_control_off", AT(rotation_speed_control.mode), K::I32);
  t[84] = one("force_in_speed_control", AT(force_in_speed_control), K::F32);
  t[85] = one("torque_in_speed_control", AT(torque_in_speed_control), K::F32);
  t[86] = one("gripper_command_type", AT(gripper_command_type), K::I32);
  t[87] = one("outputs", AT(outputs), K::I32);
  t[88] = one("device_id", AT(device_id), K::I32, 2);
  t[89] = one("pwm_output", AT(pwm_output), K::F32, 7);
  t[90] = one("analogic_inputs", AT(analogic_inputs), K::F32, 7);
  t[91] = one("tor_inputs", AT(tor_inputs), K::I32);
  t[92] = one("finger_tip_speed", AT(finger_tip_speed), K::F32, 5);
  return t;
}

#undef SEG
#undef AT

constexpr auto kLayouts = make_layouts();
const FieldLayout kEmpty = none();

constexpr std::size_t size_of(ValueKind k) {
  switch (k) {
  case ValueKind::I32:
  case ValueKind::F32:
    return 4;
  case ValueKind::I16:
    return 2;
  case ValueKind::I8:
    break;
  }
  return 1;
}

unsigned positive(int32_t n) {
  return n > 0 ? static_cast<unsigned>(n) : 0u;
}

// Calls fn(kind, address) for each value of field id that has room in the
// record, in wire order.
template <class Rec, class Fn> void for_each_value(Rec &record, int id, Fn &&fn) {
  const FieldLayout &l = field_layout(id);
  auto *base = reinterpret_cast<
      std::conditional_t<std::is_const_v<Rec>, const unsigned char, unsigned char> *>(&record);
  auto run = [&](const FieldSegment &s, std::size_t extra, unsigned count) {
    for (unsigned i = 0; i < count; ++i)
      fn(s.kind, base + s.offset + extra + i * size_of(s.kind));
  };
  const unsigned ncp = positive(record.control_point_count);
  const unsigned points = ncp < static_cast<unsigned>(kControlPointRoom) ? ncp : kControlPointRoom;
  switch (l.repeat) {
  case FieldRepeat::Once:
    for (unsigned k = 0; k < l.segment_count; ++k)
      run(l.segments[k], 0, l.segments[k].count);
    break;
  case FieldRepeat::PerPoint:
  case FieldRepeat::PerPointSame:
    for (unsigned g = 0; g < points; ++g)
      run(l.segments[0], l.repeat == FieldRepeat::PerPoint ? g * l.segments[0].count * 4u : 0,
          l.segments[0].count);
    break;
  case FieldRepeat::PerAxis: {
    const unsigned nax = positive(record.axis_count_wire);
    run(l.segments[0], 0, nax < static_cast<unsigned>(kArticularRoom) ? nax : kArticularRoom);
    break;
  }
  case FieldRepeat::Texture:
    for (unsigned g = 0; g < points; ++g) {
      run(l.segments[0], 0, 3);
      run(l.segments[1], 0, 1);
    }
    run(l.segments[2], 0, 1);
    break;
  case FieldRepeat::TrajSample:
    run(l.segments[0], 0, 1);
    if (record.traj_samples != nullptr && record.list_index >= 0 &&
        record.list_index < kTrajSampleRoom)
      for (int i = 0; i < 7; ++i)
        fn(ValueKind::F32,
           reinterpret_cast<decltype(base)>(&record.traj_samples[record.list_index][i]));
    break;
  }
}

} // namespace

const FieldLayout &field_layout(int id) {
  if (id < 1 || id > kFieldCount)
    return kEmpty;
  return kLayouts[static_cast<std::size_t>(id)];
}

std::size_t put_values(ExchangeRecord &record, int id, std::span<const double> values) {
  std::size_t i = 0;
  for_each_value(record, id, [&](ValueKind kind, unsigned char *p) {
    if (i >= values.size())
      return;
    const double v = values[i++];
    switch (kind) {
    case ValueKind::I32: {
      const auto x = static_cast<int32_t>(static_cast<int64_t>(v));
      std::memcpy(p, &x, sizeof x);
      break;
    }
    case ValueKind::I16: {
      const auto x = static_cast<int16_t>(static_cast<int64_t>(v));
      std::memcpy(p, &x, sizeof x);
      break;
    }
    case ValueKind::I8: {
      const auto x = static_cast<char>(static_cast<int64_t>(v));
      std::memcpy(p, &x, sizeof x);
      break;
    }
    case ValueKind::F32: {
      const auto x = static_cast<float>(v);
      std::memcpy(p, &x, sizeof x);
      break;
    }
    }
  });
  return i;
}

void append_values(const ExchangeRecord &record, int id, std::string &out) {
  bool first = true;
  for_each_value(record, id, [&](ValueKind kind, const unsigned char *p) {
    char text[32];
    int n = 0;
    switch (kind) {
    case ValueKind::I32: {
      int32_t x;
      std::memcpy(&x, p, sizeof x);
      n = std::snprintf(text, sizeof text, "%d", x);
      break;
    }
    case ValueKind::I16: {
      int16_t x;
      std::memcpy(&x, p, sizeof x);
      n = std::snprintf(text, sizeof text, "%d", x);
      break;
    }
    case ValueKind::I8:
      n = std::snprintf(text, sizeof text, "%d", static_cast<int>(static_cast<signed char>(*p)));
      break;
    case ValueKind::F32: {
      float x;
      std::memcpy(&x, p, sizeof x);
      n = std::snprintf(text, sizeof text, "%.9g", static_cast<double>(x));
      break;
    }
    }
    if (!first)
      out.push_back(' ');
    first = false;
    out.append(text, static_cast<std::size_t>(n > 0 ? n : 0));
  });
}

} // namespace kalo::sim
