// The receive path of a state frame: the envelope (through read_protocol, with
// a transport that hands over the fuzz input as one datagram) and then the
// decoder, into a state record set up as after an open.
//
// An input starting with 0xC3 is a whole datagram; any other input is a
// payload, wrapped in a right envelope and followed by stray bytes. Checked:
// read_protocol returns exactly the declared payload length or -1; the decoder
// reads nothing beyond it (the payload is decoded from a heap copy of exactly
// that size); only the members of the items whose flags the frame set change;
// the counts, indices and names that size copies stay within the record; the
// samples change only when item 29 arrived.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "kalo/kalo_internal.h"
#include "protocol/exchange_record.h"
#include "protocol/proto_session.h"
#include "record_oracle.h"

namespace {

constexpr int kDescriptor = 63; // a table slot: the fuzz transport has no socket
constexpr std::size_t kStrayBytes = 9;

const uint8_t *g_datagram = nullptr;
std::size_t g_datagram_size = 0;

int fuzz_read(int, void *bytes, int capacity, sockaddr_in *) {
  const std::size_t n = g_datagram_size < static_cast<std::size_t>(capacity)
                            ? g_datagram_size
                            : static_cast<std::size_t>(capacity);
  std::memcpy(bytes, g_datagram, n);
  return static_cast<int>(n);
}
int fuzz_write(int, const void *, int count, sockaddr_in *) {
  return count;
}
int fuzz_close(int, sockaddr_in *, void *) {
  return 0;
}

// What the envelope declares, computed here independently: the payload length
// of a datagram that is long enough and sums to zero, else -1.
int declared_length(const uint8_t *d, std::size_t received) {
  if (received < 6)
    return -1;
  const std::size_t length = d[2] | (static_cast<std::size_t>(d[3]) << 8);
  if (length + 6 > received)
    return -1;
  unsigned sum = 0;
  for (std::size_t i = 0; i < length + 4; ++i)
    sum += d[i];
  sum += d[length + 4] | (d[length + 5] << 8);
  return (sum & 0xFFFF) == 0 ? static_cast<int>(length) : -1;
}

struct Fixture {
  std::unique_ptr<ExchangeRecord> live = std::make_unique<ExchangeRecord>();
  std::unique_ptr<ExchangeRecord> state = std::make_unique<ExchangeRecord>();
  std::vector<float> samples = std::vector<float>(kalo::kTrajSampleRoom * 7, 0.0f);
  std::vector<float> zero_samples = samples;
  Fixture() {
    if (open_protocol(1, kDescriptor, fuzz_read, fuzz_write, fuzz_close, nullptr) != kDescriptor)
      std::abort();
    std::memset(live.get(), 0, sizeof(ExchangeRecord));
    auto *bytes = reinterpret_cast<unsigned char *>(live.get());
    for (std::size_t i = 0; i < offsetof(ExchangeRecord, field_changed); ++i)
      bytes[i] = static_cast<unsigned char>(i * 37 + 11);
    live->control_point_count = 1;
    live->axis_count_wire = 6;
    live->traj_sample_count = 10;
    live->list_index = 0;
    std::memcpy(live->spline_name, "circle", 7);
    live->traj_samples = reinterpret_cast<float(*)[7]>(samples.data());
  }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  static Fixture f;
  std::vector<uint8_t> datagram;
  if (size > 0 && data[0] == kalo::kEnvelopeMarker0) {
    datagram.assign(data, data + size);
  } else {
    const std::size_t n = size < kalo::kFrameCapacity ? size : kalo::kFrameCapacity;
    datagram.resize(n + kalo::kEnvelopeOverhead + kStrayBytes, 0x5A);
    kalo::envelope_wrap(data, n, datagram.data());
  }
  g_datagram = datagram.data();
  g_datagram_size = datagram.size();

  // The frame buffer still holds an earlier, longer frame.
  static unsigned char frame[kalo::kFrameCapacity];
  std::memset(frame, 0x2C, sizeof frame);
  const int n = read_protocol(kDescriptor, frame, static_cast<int>(sizeof frame));
  const std::size_t received =
      datagram.size() < kalo::kSessionBufferSize ? datagram.size() : kalo::kSessionBufferSize;
  const int expected = received <= 5 ? -1 : declared_length(datagram.data(), received);
  if (n != expected)
    std::abort();
  if (n < 0)
    return 0;
  if (datagram[0] != kalo::kEnvelopeMarker0 &&
      n != static_cast<int>(datagram.size() - 6 - kStrayBytes))
    std::abort();

  std::unique_ptr<uint8_t[]> payload(new uint8_t[n > 0 ? static_cast<std::size_t>(n) : 1]);
  std::memcpy(payload.get(), frame, static_cast<std::size_t>(n));
  if (std::memcmp(payload.get(), datagram.data() + 4, static_cast<std::size_t>(n)) != 0)
    std::abort();

  ExchangeRecord &state = *f.state;
  state = *f.live;
  const uint32_t used =
      encode_decode(kalo::kModeDecode, &state, payload.get(), static_cast<uint32_t>(n));
  if (used != kalo::kCodecFailure && used > static_cast<uint32_t>(n))
    std::abort();
  if (kalo_test::unowned_change(*f.live, state) >= 0 || !kalo_test::counts_fit(state))
    std::abort();
  const std::size_t sample_bytes = f.samples.size() * sizeof(float);
  if (kalo::carries(state, kalo::Field::traj_sample))
    std::memset(f.samples.data(), 0, sample_bytes); // samples landed where the frame said
  else if (std::memcmp(f.samples.data(), f.zero_samples.data(), sample_bytes) != 0)
    std::abort();
  return 0;
}
