// The encoder against the decoder: a command record built from the fuzz input
// (any member bytes, any set of flagged items, counts within the record's
// room) is encoded, decoded into a fresh record holding the same counts, and
// compared member by member through the field catalogue; the decoded record
// must encode to the very same bytes.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "kalo/kalo_internal.h"
#include "protocol/exchange_record.h"
#include "protocol/field_catalogue.h"

namespace {

using kalo::wire::kCatalogue;
using kalo::wire::Repeat;

constexpr uint32_t kLargeFrame = 8192; // every item flagged does not fit 1440 bytes

struct Side {
  std::unique_ptr<ExchangeRecord> r = std::make_unique<ExchangeRecord>();
  std::vector<float> samples = std::vector<float>(kalo::kTrajSampleRoom * 7, 0.0f);
  std::vector<unsigned char> frame = std::vector<unsigned char>(kLargeFrame);
  uint32_t encode() {
    uint32_t n = encode_decode(kalo::kModeEncode, r.get(), frame.data(), kalo::kFrameCapacity);
    if (n == kalo::kCodecFailure)
      n = encode_decode(kalo::kModeEncode, r.get(), frame.data(), kLargeFrame);
    return n;
  }
};

// Bytes of a member that the wire carries, given the counts of the frame.
std::size_t carried_bytes(int id, unsigned segment, const ExchangeRecord &r) {
  const auto &d = kCatalogue[static_cast<std::size_t>(id)];
  const auto &s = d.segments[segment];
  const std::size_t element = kalo::wire::size_of(s.kind) * s.count;
  if (id == 17 && segment < 2) // the texture point and intensity travel once per point
    return r.control_point_count > 0 ? element : 0;
  switch (d.repeat) {
  case Repeat::PerPoint:
  case Repeat::PerPointSame:
    return r.control_point_count > 0 ? element : 0;
  case Repeat::PerAxis:
    return element * static_cast<std::size_t>(r.axis_count_wire);
  default:
    return element;
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  static Side a, b;
  FuzzedDataProvider in(data, size);
  ExchangeRecord &ra = *a.r;
  std::memset(&ra, 0, sizeof ra);
  // Flags and counts come from the end of the input, member bytes from the front.
  const auto low = in.ConsumeIntegral<uint64_t>();
  const auto high = in.ConsumeIntegral<uint32_t>();
  for (int id = 1; id <= kalo::kFieldCount; ++id)
    ra.field_changed[id] = ((id <= 64 ? low >> (id - 1) : high >> (id - 65)) & 1u) != 0 ? 1u : 0u;
  const int32_t ncp = in.ConsumeIntegralInRange<int32_t>(0, kalo::kControlPointRoom);
  const int32_t nax = in.ConsumeIntegralInRange<int32_t>(0, kalo::kArticularRoom);
  const int32_t samples = in.ConsumeIntegralInRange<int32_t>(0, kalo::kTrajSampleRoom);
  const int32_t list_index = in.ConsumeIntegralInRange<int32_t>(0, kalo::kTrajSampleRoom - 1);
  const auto sample = in.ConsumeBytes<unsigned char>(7 * sizeof(float));
  if (!sample.empty())
    std::memcpy(a.samples.data() + list_index * 7, sample.data(), sample.size());
  const auto members = in.ConsumeBytes<unsigned char>(offsetof(ExchangeRecord, field_changed));
  if (!members.empty())
    std::memcpy(&ra, members.data(), members.size());
  ra.control_point_count = ncp;
  ra.axis_count_wire = nax;
  ra.traj_sample_count = samples;
  ra.list_index = list_index;
  ra.spline_name[kalo::kSplineNameRoom - 1] = '\0';
  ra.traj_samples = reinterpret_cast<float(*)[7]>(a.samples.data());

  ExchangeRecord &rb = *b.r;
  std::memset(&rb, 0, sizeof rb);
  rb.control_point_count = ra.control_point_count;
  rb.axis_count_wire = ra.axis_count_wire;
  rb.list_index = list_index;
  rb.traj_samples = reinterpret_cast<float(*)[7]>(b.samples.data());

  const uint32_t n = a.encode();
  if (n == kalo::kCodecFailure)
    std::abort();
  if (encode_decode(kalo::kModeDecode, &rb, a.frame.data(), n) != n || rb.items_rejected != 0)
    std::abort();
  for (int id = 1; id <= kalo::kFieldCount; ++id) {
    if ((ra.field_changed[id] != 0) != (rb.field_changed[id] != 0))
      std::abort();
    if (ra.field_changed[id] == 0)
      continue;
    const auto &d = kCatalogue[static_cast<std::size_t>(id)];
    for (unsigned k = 0; k < d.segment_count; ++k) {
      const auto &s = d.segments[k];
      const auto *pa = reinterpret_cast<const unsigned char *>(&ra) + s.offset;
      const auto *pb = reinterpret_cast<const unsigned char *>(&rb) + s.offset;
      if (std::memcmp(pa, pb, carried_bytes(id, k, ra)) != 0)
        std::abort();
    }
  }
  if (kalo::carries(ra, kalo::Field::traj_sample) &&
      std::memcmp(&a.samples[static_cast<std::size_t>(rb.list_index - 1) * 7],
                  &b.samples[static_cast<std::size_t>(rb.list_index - 1) * 7],
                  7 * sizeof(float)) != 0)
    std::abort();

  // The decoded record says the same on the wire.
  rb.list_index = list_index;
  const uint32_t m = b.encode();
  if (m != n || std::memcmp(a.frame.data(), b.frame.data(), n) != 0)
    std::abort();
  std::memset(a.samples.data() + list_index * 7, 0, 7 * sizeof(float));
  std::memset(b.samples.data() + list_index * 7, 0, 7 * sizeof(float));
  return 0;
}
