// The frame codec: every field is a one-byte identifier followed by its value
// in XDR. The field catalogue drives both directions; the few items whose
// shape is irregular (17, 29, 30, 37) and the counts that size other items
// (52, 69) have named handlers.
//
// Nothing from the wire is trusted to size a copy. A count (52, 69, 30), a
// sample index (29), the group count of a per-point or per-axis item, or a
// spline name without its terminator that does not fit the record is read
// off the wire, not adopted, and counted in items_rejected; its flag is left
// as it was, so nothing reacts to it. The stream stays aligned, and the rest
// of the frame decodes: a count item sizes the later items of the same frame
// as its sender meant, even when the record does not adopt it (a controller
// puts 52 and 69 at the head of every state frame). Where the bytes do not
// hold what the counts announce, the item fails and the frame is malformed;
// items decoded before it keep their values and flags.
#include <cstdint>
#include <cstring>
#include <rpc/xdr.h>

#include "kalo/kalo_internal.h"
#include "protocol/exchange_record.h"
#include "protocol/field_catalogue.h"

namespace {

using kalo::Field;
using kalo::kArticularRoom;
using kalo::kCodecFailure;
using kalo::kControlPointRoom;
using kalo::kFieldCount;
using kalo::kFrameCapacity;
using kalo::kSplineNameRoom;
using kalo::kTrajSampleRoom;
using kalo::wire::FieldDesc;
using kalo::wire::kCatalogue;
using kalo::wire::Kind;
using kalo::wire::Repeat;
using kalo::wire::Segment;
using kalo::wire::size_of;

enum class Outcome { adopted, rejected, failed };

Outcome outcome_of(bool ok) {
  return ok ? Outcome::adopted : Outcome::failed;
}

// One coding pass over a frame. ncp and nax size the per-point and per-axis
// items: the record's own counts, or, while decoding, the counts that the
// frame itself carried before them.
struct Coder {
  XDR *x;
  ExchangeRecord &r;
  bool decoding;
  int32_t ncp;
  int32_t nax;
};

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

bool code_run(XDR *x, Kind kind, unsigned char *at, unsigned count) {
  for (unsigned i = 0; i < count; ++i)
    if (!code_element(x, kind, at + i * size_of(kind)))
      return false;
  return true;
}

// Elements that have no room in the record: read and discarded when decoding,
// sent as zeros when encoding.
bool code_spare_run(XDR *x, Kind kind, unsigned count) {
  for (unsigned i = 0; i < count; ++i) {
    alignas(8) unsigned char spare[8] = {};
    if (!code_element(x, kind, spare))
      return false;
  }
  return true;
}

// A count that sizes a loop: negative counts code nothing.
unsigned wire_count(int32_t n) {
  return n > 0 ? static_cast<unsigned>(n) : 0u;
}

// An item of `groups` groups when the record holds `room`: what does not fit
// is sent as zeros; on receipt the whole item is read off and rejected.
Outcome code_groups(Coder &c, const FieldDesc &d, unsigned groups, unsigned room) {
  auto *base = reinterpret_cast<unsigned char *>(&c.r);
  const bool fits = groups <= room;
  for (unsigned g = 0; g < groups; ++g) {
    for (unsigned k = 0; k < d.segment_count; ++k) {
      const Segment &s = d.segments[k];
      const std::size_t step = d.repeat == Repeat::PerPointSame ? 0 : s.count * size_of(s.kind);
      bool ok;
      if (g < room && (fits || !c.decoding))
        ok = code_run(c.x, s.kind, base + s.offset + g * step, s.count);
      else
        ok = code_spare_run(c.x, s.kind, s.count);
      if (!ok)
        return Outcome::failed;
    }
  }
  return fits ? Outcome::adopted : Outcome::rejected;
}

Outcome code_table_field(Coder &c, const FieldDesc &d) {
  switch (d.repeat) {
  case Repeat::PerAxis: {
    // One value per axis: the group is the single element of the member.
    FieldDesc single = d;
    single.repeat = Repeat::PerPoint;
    return code_groups(c, single, wire_count(c.nax), kArticularRoom);
  }
  case Repeat::PerPoint:
    return code_groups(c, d, wire_count(c.ncp), kControlPointRoom);
  case Repeat::PerPointSame:
    // Every group lands on the same member: any count fits.
    return code_groups(c, d, wire_count(c.ncp), UINT32_MAX);
  default:
    return code_groups(c, d, 1, 1);
  }
}

// A count from the wire (52, 69, 30) is adopted only when it fits the room
// the record has for what it counts. frame_count, when given, takes it anyway
// so that the later items of this frame are read as the sender coded them.
Outcome code_count(Coder &c, int32_t &member, int32_t room, int32_t *frame_count) {
  int32_t value = member;
  if (!xdr_int(c.x, &value))
    return Outcome::failed;
  if (!c.decoding)
    return Outcome::adopted;
  if (frame_count != nullptr)
    *frame_count = value;
  if (value < 0 || value > room)
    return Outcome::rejected;
  member = value;
  return Outcome::adopted;
}

// Item 17: a contact point per control point (consecutive) and one intensity
// member shared by every point, then the flag once.
Outcome code_texture(Coder &c) {
  const unsigned groups = wire_count(c.ncp);
  const bool fits = groups <= static_cast<unsigned>(kControlPointRoom);
  if (c.decoding && !fits) {
    for (unsigned g = 0; g < groups; ++g)
      if (!code_spare_run(c.x, Kind::Float, 4))
        return Outcome::failed;
    return code_spare_run(c.x, Kind::Short, 1) ? Outcome::rejected : Outcome::failed;
  }
  for (unsigned g = 0; g < groups; ++g) {
    const bool ok =
        g < static_cast<unsigned>(kControlPointRoom)
            ? code_run(c.x, Kind::Float, reinterpret_cast<unsigned char *>(c.r.texture), 3)
            : code_spare_run(c.x, Kind::Float, 3);
    if (!ok || !xdr_float(c.x, &c.r.texture_intensity))
      return Outcome::failed;
  }
  return outcome_of(xdr_short(c.x, &c.r.texture_flag) != 0);
}

bool sample_slot_exists(const ExchangeRecord &r, int32_t index) {
  return r.traj_samples != nullptr && index >= 0 && index < kTrajSampleRoom;
}

// Item 29: the sender's sample index, then the sample stored at that index.
// A received index outside the sample array is rejected with its sample and
// leaves list_index alone.
Outcome code_traj_sample(Coder &c) {
  ExchangeRecord &r = c.r;
  int32_t index = r.list_index;
  if (!xdr_int(c.x, &index))
    return Outcome::failed;
  if (c.decoding && !sample_slot_exists(r, index))
    return code_spare_run(c.x, Kind::Float, 7) ? Outcome::rejected : Outcome::failed;
  r.list_index = index;
  const bool ok =
      sample_slot_exists(r, index)
          ? code_run(c.x, Kind::Float, reinterpret_cast<unsigned char *>(r.traj_samples[index]), 7)
          : code_spare_run(c.x, Kind::Float, 7);
  if (r.list_index < INT32_MAX)
    r.list_index++;
  return outcome_of(ok);
}

// Item 30: the sample count; a new sampling run starts at index 0.
Outcome code_traj_sample_count(Coder &c) {
  const Outcome o = code_count(c, c.r.traj_sample_count, kTrajSampleRoom, nullptr);
  if (o == Outcome::adopted)
    c.r.list_index = 0;
  return o;
}

// Items 46 to 48: a received name is adopted only with its terminator, so
// that readers of spline_name never run past it.
Outcome decode_spline_name(Coder &c) {
  char name[kSplineNameRoom];
  if (!code_run(c.x, Kind::Char, reinterpret_cast<unsigned char *>(name), kSplineNameRoom))
    return Outcome::failed;
  if (std::memchr(name, '\0', sizeof name) == nullptr)
    return Outcome::rejected;
  std::memcpy(c.r.spline_name, name, sizeof name);
  return Outcome::adopted;
}

Outcome code_payload(Coder &c, int id) {
  switch (static_cast<Field>(id)) {
  case Field::texture:
    return code_texture(c);
  case Field::traj_sample:
    return code_traj_sample(c);
  case Field::traj_sample_count:
    return code_traj_sample_count(c);
  case Field::close_request:
    c.r.close_marker = 0; // the closing request carries no value
    return Outcome::adopted;
  case Field::control_point_count:
    return code_count(c, c.r.control_point_count, kControlPointRoom, &c.ncp);
  case Field::axis_count_wire:
    return code_count(c, c.r.axis_count_wire, kArticularRoom, &c.nax);
  default:
    break;
  }
  if (c.decoding && id >= kalo::id(Field::vm_save_spline) &&
      id <= kalo::id(Field::vm_delete_spline))
    return decode_spline_name(c);
  return code_table_field(c, kCatalogue[static_cast<std::size_t>(id)]);
}

uint32_t encode(ExchangeRecord &r, unsigned char *out, uint32_t size) {
  XDR x;
  xdrmem_create(&x, reinterpret_cast<char *>(r.xdr_scratch), kFrameCapacity, XDR_ENCODE);
  Coder c{&x, r, false, r.control_point_count, r.axis_count_wire};
  uint32_t written = 0;
  for (int id = kFieldCount; id >= 1; --id) {
    if (r.field_changed[id] == 0)
      continue;
    r.current_tag = static_cast<uint8_t>(id);
    xdr_setpos(&x, 0);
    if (code_payload(c, id) == Outcome::failed) {
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
// by the bytes that remain, so a truncated item fails instead of reading past
// the frame.
uint32_t decode(ExchangeRecord &r, unsigned char *in, uint32_t size) {
  uint32_t consumed = 0;
  if (size == 0)
    return 0;
  Coder c{nullptr, r, true, r.control_point_count, r.axis_count_wire};
  for (int item = 0; item < kFieldCount; ++item) {
    const int id = in[consumed];
    r.current_tag = static_cast<uint8_t>(id);
    if (id == 0 || id > kFieldCount)
      return kCodecFailure;
    const uint32_t flag_before = r.field_changed[id];
    r.field_changed[id] = 1;
    consumed++;
    XDR x;
    xdrmem_create(&x, reinterpret_cast<char *>(in + consumed), size - consumed, XDR_DECODE);
    c.x = &x;
    const Outcome o = code_payload(c, id);
    const uint32_t used = xdr_getpos(&x);
    xdr_destroy(&x);
    if (o == Outcome::failed)
      return kCodecFailure;
    if (o == Outcome::rejected) {
      r.field_changed[id] = flag_before;
      r.items_rejected++;
    }
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
