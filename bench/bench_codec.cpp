// Cost of the frame codec on a typical state frame (time stamp, position,
// speed, buttons, failure, alarm), encode plus decode, beside a hand-written
// big-endian coder of the same frame in the same run.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

#include "kalo/kalo_internal.h"
#include "protocol/exchange_record.h"

namespace {

std::unique_ptr<ExchangeRecord> typical_state() {
  auto r = std::make_unique<ExchangeRecord>();
  std::memset(r.get(), 0, sizeof(ExchangeRecord));
  r->control_point_count = 1;
  r->axis_count_wire = 6;
  r->time_stamp = 123456789;
  const float pose[7] = {0.1f, 0.2f, 0.3f, 0.0f, 0.0f, 0.0f, 1.0f};
  std::memcpy(r->position, pose, sizeof pose);
  for (int i = 0; i < 6; ++i)
    r->speed[i] = 0.01f * static_cast<float>(i);
  r->buttons = 3;
  r->failure = 0;
  r->alarm = 1 << 16;
  for (kalo::Field f : {kalo::Field::time_stamp, kalo::Field::position, kalo::Field::speed,
                        kalo::Field::failure, kalo::Field::buttons, kalo::Field::alarm})
    kalo::post_field(*r, f);
  return r;
}

void BM_CodecEncodeDecode(benchmark::State &state) {
  auto out = typical_state();
  auto in = typical_state();
  unsigned char frame[1440];
  for (auto _ : state) {
    const uint32_t n = encode_decode(1, out.get(), frame, sizeof frame);
    benchmark::DoNotOptimize(encode_decode(0, in.get(), frame, n));
    benchmark::ClobberMemory();
  }
  state.SetLabel("ns per frame (encode + decode)");
}
BENCHMARK(BM_CodecEncodeDecode);

// Baseline: the same items written and read by hand, no XDR, no table.
inline unsigned char *put32(unsigned char *p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
  return p + 4;
}
inline const unsigned char *get32(const unsigned char *p, uint32_t &v) {
  v = (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
  return p + 4;
}
inline unsigned char *putf(unsigned char *p, float f) {
  uint32_t v;
  std::memcpy(&v, &f, 4);
  return put32(p, v);
}
inline const unsigned char *getf(const unsigned char *p, float &f) {
  uint32_t v;
  p = get32(p, v);
  std::memcpy(&f, &v, 4);
  return p;
}

std::size_t hand_encode(const ExchangeRecord &r, unsigned char *p0) {
  unsigned char *p = p0;
  *p++ = 54;
  p = put32(p, static_cast<uint32_t>(r.alarm));
  *p++ = 22;
  p = put32(p, static_cast<uint32_t>(static_cast<int32_t>(r.buttons)));
  *p++ = 21;
  p = put32(p, static_cast<uint32_t>(static_cast<int32_t>(r.failure)));
  *p++ = 15;
  for (float v : r.speed)
    p = putf(p, v);
  *p++ = 14;
  for (float v : r.position)
    p = putf(p, v);
  *p++ = 1;
  p = put32(p, static_cast<uint32_t>(r.time_stamp));
  return static_cast<std::size_t>(p - p0);
}

void hand_decode(ExchangeRecord &r, const unsigned char *p, std::size_t n) {
  const unsigned char *end = p + n;
  uint32_t v;
  while (p < end) {
    const int id = *p++;
    r.field_changed[id] = 1;
    switch (id) {
    case 54:
      p = get32(p, v);
      r.alarm = static_cast<int32_t>(v);
      break;
    case 22:
      p = get32(p, v);
      r.buttons = static_cast<int16_t>(v);
      break;
    case 21:
      p = get32(p, v);
      r.failure = static_cast<int16_t>(v);
      break;
    case 15:
      for (float &f : r.speed)
        p = getf(p, f);
      break;
    case 14:
      for (float &f : r.position)
        p = getf(p, f);
      break;
    case 1:
      p = get32(p, v);
      r.time_stamp = static_cast<int32_t>(v);
      break;
    default:
      return;
    }
  }
}

void BM_HandWrittenBigEndian(benchmark::State &state) {
  auto out = typical_state();
  auto in = typical_state();
  unsigned char frame[1440];
  for (auto _ : state) {
    const std::size_t n = hand_encode(*out, frame);
    hand_decode(*in, frame, n);
    benchmark::DoNotOptimize(in.get());
    benchmark::ClobberMemory();
  }
  state.SetLabel("baseline: hand-written big-endian");
}
BENCHMARK(BM_HandWrittenBigEndian);

} // namespace

BENCHMARK_MAIN();
