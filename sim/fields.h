// Where each frame field's values live in an ExchangeRecord, so that the
// simulator can put values given as numbers (tests, command line) into a
// record and print a record's fields as text (trace, logs). The wire coding
// itself stays in the library's encode_decode.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "protocol/exchange_record.h"

namespace kalo::sim {

enum class ValueKind : uint8_t { I32, I16, I8, F32 };

// How the groups of a field repeat: once, once per control point (consecutive
// groups, or every group in the same member), once per axis, or one of the
// two irregular shapes (17: points then a flag; 29: index then a sample).
enum class FieldRepeat : uint8_t { Once, PerPoint, PerPointSame, PerAxis, Texture, TrajSample };

struct FieldSegment {
  uint16_t offset; // of the first value in ExchangeRecord
  ValueKind kind;
  uint8_t count;
};

struct FieldLayout {
  const char *name; // the member name, "" for identifiers not in use
  FieldRepeat repeat;
  uint8_t segment_count; // 0: the identifier carries no value
  FieldSegment segments[3];
};

// Layout of field id (1..92); an empty layout for anything else.
const FieldLayout &field_layout(int id);

// Stores values, in wire order, into field id of the record; values beyond
// the record's room or the field's length are ignored. Item 29 takes the
// sample index then 7 floats and needs record.traj_samples. Returns the
// number of values stored.
std::size_t put_values(ExchangeRecord &record, int id, std::span<const double> values);

// Appends the values of field id held by the record, space-separated, to out
// (nothing for a field without a value). Used by the trace and the logs.
void append_values(const ExchangeRecord &record, int id, std::string &out);

} // namespace kalo::sim
