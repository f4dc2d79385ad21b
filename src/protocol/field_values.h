// A record's field values as plain numbers, in wire order: the simulator puts
// numbers given on its command line or by a test into a field, and the trace
// and the logs print a field's values as text. The catalogue says where the
// values live; the counts of the record (items 52 and 69) and its room bound
// how many there are. The wire coding itself stays in encode_decode.
#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "protocol/exchange_record.h"

namespace kalo {

// Whether the field's item carries values (some carry the identifier alone).
bool has_values(Field f);

// Stores values, in wire order, into the field's members; values beyond the
// field's length or the record's room are ignored, integers are truncated
// and clamped to their member's range. Item 29 takes the sample index, then
// the 7 values of the sample, stored only if record.traj_samples has that
// slot. Returns the number of values stored.
std::size_t put_values(ExchangeRecord &record, Field f, std::span<const double> values);

// How many values the field's item carries with the record's counts (items
// 52 and 69, bounded by the record's room): what put_values takes in full.
// Item 29 carries the index and one sample: 8.
std::size_t value_count(const ExchangeRecord &record, Field f);

// Appends the field's values, space-separated, to out.
void append_values(const ExchangeRecord &record, Field f, std::string &out);

} // namespace kalo
