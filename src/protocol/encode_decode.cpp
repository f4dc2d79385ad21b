// The frame codec: every field is a one-byte identifier followed by its value
// in XDR. One table of descriptors drives both directions; the few items whose
// shape is irregular (17, 29, 30, 37) have named handlers.
#include <array>
#include <climits>
#include <cstring>
#include <rpc/xdr.h>

#include "kalo/kalo_internal.h"
#include "protocol/exchange_record.h"

namespace {

using kalo::kArticularRoom;
using kalo::kCodecFailure;
using kalo::kControlPointRoom;
using kalo::kFieldCount;
using kalo::kFrameCapacity;
using kalo::kTrajSampleRoom;

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

constexpr std::size_t size_of(Kind k) {
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

constexpr FieldDesc handler() {
  FieldDesc d;
  d.repeat = Repeat::Handler;
  return d;
}

#define AT(member) offsetof(ExchangeRecord, member)
#define SEG(member, kind, count) Segment{static_cast<uint16_t>(AT(member)), Kind::kind, count}

// The field catalogue, indexed by identifier. Identifiers left at their default
// (no segment) carry no value: the identifier byte is the whole item.
constexpr std::array<FieldDesc, kFieldCount + 1> make_catalogue() {
  std::array<FieldDesc, kFieldCount + 1> c{};
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
  c[17] = handler();
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
  c[29] = handler();
  c[30] = handler();
  c[32] = one(AT(vm_base_frame), Kind::Float, 7);
  c[33] = one(AT(vm_min_arti_bounds), Kind::Float, 10);
  c[34] = one(AT(vm_max_arti_bounds), Kind::Float, 10);
  c[35] = one(AT(field_35), Kind::Char);
  c[36] = one(AT(field_36), Kind::Float);
  c[37] = handler();
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
  c[82] = two(SEG(rotation_speed_control.mode, Int, 1), SEG(rotation_speed_control.first, Float, 2));
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

constexpr auto kCatalogue = make_catalogue();

// Codes one element at p (XDR widens chars and shorts to four bytes).
bool code_element(XDR *x, Kind kind, void *p) {
  switch (kind) {
  case Kind::Int:
    return xdr_int(x, static_cast<int *>(p)) != 0;
  case Kind::Float:
    return xdr_float(x, static_cast<float *>(p)) != 0;
  case Kind::Short:
    return xdr_short(x, static_cast<short *>(p)) != 0;
  case Kind::Char:
    return xdr_char(x, static_cast<char *>(p)) != 0;
  case Kind::None:
    break;
  }
  return true;
}

// Elements that have no room in the record are coded through this spare area:
// read as zeros when encoding, discarded when decoding, and counted.
struct Spare {
  alignas(8) unsigned char bytes[64];
};

bool code_run(XDR *x, Kind kind, unsigned char *at, unsigned count) {
  for (unsigned i = 0; i < count; ++i)
    if (!code_element(x, kind, at + i * size_of(kind)))
      return false;
  return true;
}

bool code_spare_run(XDR *x, ExchangeRecord &r, Kind kind, unsigned count) {
  Spare spare{};
  for (unsigned i = 0; i < count; ++i) {
    std::memset(spare.bytes, 0, sizeof spare.bytes);
    if (!code_element(x, kind, spare.bytes))
      return false;
    r.dropped_values++;
  }
  return true;
}

// A count taken from the record (ncp, nax): negative counts code nothing.
unsigned wire_count(int32_t n) { return n > 0 ? static_cast<unsigned>(n) : 0u; }

bool code_table_field(XDR *x, ExchangeRecord &r, const FieldDesc &d) {
  auto *base = reinterpret_cast<unsigned char *>(&r);
  if (d.repeat == Repeat::PerAxis) {
    const Segment &s = d.segments[0];
    const unsigned nax = wire_count(r.axis_count_wire);
    const unsigned kept = nax < static_cast<unsigned>(kArticularRoom) ? nax : kArticularRoom;
    return code_run(x, s.kind, base + s.offset, kept) &&
           code_spare_run(x, r, s.kind, nax - kept);
  }
  unsigned groups = 1;
  if (d.repeat == Repeat::PerPoint || d.repeat == Repeat::PerPointSame)
    groups = wire_count(r.control_point_count);
  for (unsigned g = 0; g < groups; ++g) {
    for (unsigned k = 0; k < d.segment_count; ++k) {
      const Segment &s = d.segments[k];
      const bool has_room = d.repeat != Repeat::PerPoint || g < static_cast<unsigned>(kControlPointRoom);
      const std::size_t group_offset =
          d.repeat == Repeat::PerPoint ? g * s.count * size_of(s.kind) : 0;
      const bool ok = has_room ? code_run(x, s.kind, base + s.offset + group_offset, s.count)
                               : code_spare_run(x, r, s.kind, s.count);
      if (!ok)
        return false;
    }
  }
  return true;
}

// Item 17: a contact point per control point (consecutive) and one intensity
// member shared by every point, then the flag once.
bool code_texture(XDR *x, ExchangeRecord &r) {
  const unsigned groups = wire_count(r.control_point_count);
  for (unsigned g = 0; g < groups; ++g) {
    const bool ok = g < static_cast<unsigned>(kControlPointRoom)
                        ? code_run(x, Kind::Float, reinterpret_cast<unsigned char *>(r.texture), 3)
                        : code_spare_run(x, r, Kind::Float, 3);
    if (!ok || !xdr_float(x, &r.texture_intensity))
      return false;
  }
  return xdr_short(x, &r.texture_flag) != 0;
}

// Item 29: the sender's sample index, then the sample stored at that index.
bool code_traj_sample(XDR *x, ExchangeRecord &r) {
  if (!xdr_int(x, &r.list_index))
    return false;
  const bool in_range = r.traj_samples != nullptr && r.list_index >= 0 && r.list_index < kTrajSampleRoom;
  const bool ok = in_range ? code_run(x, Kind::Float,
                                      reinterpret_cast<unsigned char *>(r.traj_samples[r.list_index]), 7)
                           : code_spare_run(x, r, Kind::Float, 7);
  if (r.list_index < INT32_MAX)
    r.list_index++;
  return ok;
}

// Item 30: the sample count; a new sampling run starts at index 0.
bool code_traj_sample_count(XDR *x, ExchangeRecord &r) {
  if (!xdr_int(x, &r.traj_sample_count))
    return false;
  r.list_index = 0;
  return true;
}

bool code_payload(XDR *x, ExchangeRecord &r, int id) {
  const FieldDesc &d = kCatalogue[static_cast<std::size_t>(id)];
  if (d.repeat != Repeat::Handler)
    return code_table_field(x, r, d);
  switch (id) {
  case 17:
    return code_texture(x, r);
  case 29:
    return code_traj_sample(x, r);
  case 30:
    return code_traj_sample_count(x, r);
  case 37:
    r.close_marker = 0; // the closing request carries no value
    return true;
  default:
    return true;
  }
}

uint32_t encode(ExchangeRecord &r, unsigned char *out, uint32_t size) {
  XDR x;
  xdrmem_create(&x, reinterpret_cast<char *>(r.xdr_scratch), kFrameCapacity, XDR_ENCODE);
  uint32_t written = 0;
  for (int id = kFieldCount; id >= 1; --id) {
    if (r.field_changed[id] == 0)
      continue;
    r.current_tag = static_cast<uint8_t>(id);
    xdr_setpos(&x, 0);
    if (!code_payload(&x, r, id)) {
      xdr_destroy(&x);
      return kCodecFailure;
    }
    const uint32_t n = xdr_getpos(&x);
    if (written + 1 + n > size) { // the frame must fit the caller's buffer
      xdr_destroy(&x);
      return kCodecFailure;
    }
    out[written++] = static_cast<unsigned char>(id);
    std::memcpy(out + written, r.xdr_scratch, n);
    written += n;
  }
  xdr_destroy(&x);
  return written;
}

// Decodes in place from the frame: each value is parsed from a stream bounded
// by the bytes that remain, so a truncated item fails instead of reading stale
// or foreign bytes.
uint32_t decode(ExchangeRecord &r, unsigned char *in, uint32_t size) {
  uint32_t consumed = 0;
  if (size == 0)
    return 0;
  for (int item = 0; item < kFieldCount; ++item) {
    const int id = in[consumed];
    r.current_tag = static_cast<uint8_t>(id);
    if (id == 0 || id > kFieldCount)
      return kCodecFailure;
    r.field_changed[id] = 1;
    consumed++;
    XDR x;
    xdrmem_create(&x, reinterpret_cast<char *>(in + consumed), size - consumed, XDR_DECODE);
    const bool ok = code_payload(&x, r, id);
    const uint32_t used = xdr_getpos(&x);
    xdr_destroy(&x);
    if (!ok)
      return kCodecFailure;
    consumed += used;
    if (consumed >= size)
      return consumed;
  }
  return consumed;
}

} // namespace

extern "C" uint32_t encode_decode(int mode, ExchangeRecord *record, unsigned char *buffer,
                                  uint32_t size) {
  if (record == nullptr || buffer == nullptr)
    return kCodecFailure;
  if (mode == kalo::kModeEncode)
    return encode(*record, buffer, size);
  if (mode == kalo::kModeDecode)
    return decode(*record, buffer, size);
  return kCodecFailure;
}
