// Which bytes of an exchange record a decoded frame may change, derived from
// the field catalogue: the members of the items whose flags the frame set,
// plus the codec's bookkeeping. The oracle of the hostile-frame tests and of
// the decoder fuzzer.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstring>

#include "protocol/exchange_record.h"
#include "protocol/field_catalogue.h"

namespace kalo_test {

using ItemSet = std::bitset<kalo::kFieldCount + 1>;

// For each byte of the record, the items that may write it.
inline const std::array<ItemSet, sizeof(ExchangeRecord)> &record_byte_owners() {
  static const auto owners = [] {
    std::array<ItemSet, sizeof(ExchangeRecord)> o{};
    for (int id = 1; id <= kalo::kFieldCount; ++id) {
      const auto &d = kalo::wire::kCatalogue[static_cast<std::size_t>(id)];
      for (unsigned k = 0; k < d.segment_count; ++k) {
        const auto &s = d.segments[k];
        for (std::size_t b = 0; b < kalo::wire::member_size(d, s); ++b)
          o[s.offset + b].set(static_cast<std::size_t>(id));
      }
    }
    // Item 30 restarts the sample index.
    for (std::size_t b = 0; b < sizeof(int32_t); ++b)
      o[offsetof(ExchangeRecord, list_index) + b].set(30);
    return o;
  }();
  return owners;
}

// Bookkeeping that decoding may change whatever arrived.
inline bool is_codec_bookkeeping(std::size_t offset) {
  auto within = [offset](std::size_t at, std::size_t size) {
    return offset >= at && offset < at + size;
  };
  return within(offsetof(ExchangeRecord, field_changed), sizeof(ExchangeRecord::field_changed)) ||
         within(offsetof(ExchangeRecord, current_tag), sizeof(uint8_t)) ||
         within(offsetof(ExchangeRecord, items_rejected), sizeof(uint32_t)) ||
         within(offsetof(ExchangeRecord, xdr_scratch), sizeof(ExchangeRecord::xdr_scratch));
}

// The offset of the first byte that changed although none of the items that
// may write it is flagged in `after`, or -1 when every change is accounted for.
inline long unowned_change(const ExchangeRecord &before, const ExchangeRecord &after) {
  const auto *a = reinterpret_cast<const unsigned char *>(&before);
  const auto *b = reinterpret_cast<const unsigned char *>(&after);
  const auto &owners = record_byte_owners();
  constexpr std::size_t kBlock = 64;
  for (std::size_t i = 0; i < sizeof(ExchangeRecord); ++i) {
    if (i % kBlock == 0 && i + kBlock <= sizeof(ExchangeRecord) &&
        std::memcmp(a + i, b + i, kBlock) == 0) {
      i += kBlock - 1; // an unchanged block
      continue;
    }
    if (a[i] == b[i] || is_codec_bookkeeping(i))
      continue;
    bool flagged = false;
    for (int id = 1; id <= kalo::kFieldCount && !flagged; ++id)
      flagged = owners[i].test(static_cast<std::size_t>(id)) && after.field_changed[id] != 0;
    if (!flagged)
      return static_cast<long>(i);
  }
  return -1;
}

// The counts and the name that size copies are within the record's room.
inline bool counts_fit(const ExchangeRecord &r) {
  return r.control_point_count >= 0 && r.control_point_count <= kalo::kControlPointRoom &&
         r.axis_count_wire >= 0 && r.axis_count_wire <= kalo::kArticularRoom &&
         r.traj_sample_count >= 0 && r.traj_sample_count <= kalo::kTrajSampleRoom &&
         std::memchr(r.spline_name, '\0', sizeof r.spline_name) != nullptr;
}

} // namespace kalo_test
