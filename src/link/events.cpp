// The process-wide ring of safety events and kaloExtGetEvents. Each slot is a
// small sequence lock made of atomics: a writer claims a slot by a counter,
// marks it odd while it fills it and even when done; a reader keeps a slot
// only when its mark was even and unchanged across the copy.
#include "link/events.h"

#include <atomic>
#include <cstring>

#include "device/call_frame.h"
#include "device/context.h"
#include "link/telemetry.h"

namespace {

constexpr uint64_t kRingSize = 256;
constexpr uint64_t kForeignEventSpacingUs = 1000000;

struct Slot {
  std::atomic<uint64_t> sequence{0}; // 2 * (index + 1) once written, odd while written
  std::atomic<uint32_t> kind{0};
  std::atomic<uint64_t> connection{0};
  std::atomic<uint64_t> time_us{0};
  std::atomic<double> value{0};
  std::atomic<double> threshold{0};
};

Slot g_ring[kRingSize];
std::atomic<uint64_t> g_next{0};

// Copies slot `index` into *out; false when it was being rewritten. Events
// are rare, so every access of the ring is sequentially consistent: that makes
// the sequence check sound without fences (which ThreadSanitizer cannot follow).
bool read_slot(uint64_t index, KaloExtEvent *out) {
  const Slot &s = g_ring[index % kRingSize];
  const uint64_t expected = 2 * (index + 1);
  if (s.sequence.load(std::memory_order_seq_cst) != expected)
    return false;
  out->kind = s.kind.load(std::memory_order_seq_cst);
  out->connection = s.connection.load(std::memory_order_seq_cst);
  out->time = static_cast<double>(s.time_us.load(std::memory_order_seq_cst)) * 1e-6;
  out->value = s.value.load(std::memory_order_seq_cst);
  out->threshold = s.threshold.load(std::memory_order_seq_cst);
  return s.sequence.load(std::memory_order_seq_cst) == expected;
}

int32_t fail(KaloContext *ctx, int32_t code) {
  if (ctx != nullptr)
    ctx->error_code = static_cast<uint32_t>(code);
  else
    kaloGlobalError = code;
  return -1;
}

} // namespace

namespace kalo {

void record_event(KaloContext *ctx, uint32_t kind, double value, double threshold) {
  const uint64_t now = monotonic_us();
  if (kind == KALO_EXT_EVENT_FOREIGN_DATAGRAM) {
    uint64_t &last = ctx->link.telemetry.last_foreign_event_us;
    if (last != 0 && now - last < kForeignEventSpacingUs)
      return;
    last = now;
  }
  const uint64_t index = g_next.fetch_add(1, std::memory_order_seq_cst);
  Slot &s = g_ring[index % kRingSize];
  s.sequence.store(2 * index + 1, std::memory_order_seq_cst);
  s.kind.store(kind, std::memory_order_seq_cst);
  s.connection.store(connection_number(ctx->link.telemetry), std::memory_order_seq_cst);
  s.time_us.store(now, std::memory_order_seq_cst);
  s.value.store(value, std::memory_order_seq_cst);
  s.threshold.store(threshold, std::memory_order_seq_cst);
  s.sequence.store(2 * (index + 1), std::memory_order_seq_cst);
}

} // namespace kalo

extern "C" {

int32_t kaloExtGetEvents(KaloContext *context, KaloExtEvent *events, uint32_t max,
                         uint32_t *count) {
  if (context != nullptr && !kalo::is_live(context)) {
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  if (count == nullptr || (events == nullptr && max > 0))
    return fail(context, KALO_ERROR_INCORRECT_VALUE);
  *count = 0;
  if (max == 0)
    return 0;
  const uint32_t stride = events[0].size;
  if (stride < 8)
    return fail(context, KALO_ERROR_INCORRECT_VALUE);
  const uint32_t filled = stride < sizeof(KaloExtEvent) ? stride : sizeof(KaloExtEvent);
  const uint64_t wanted = context != nullptr ? kalo::connection_number(context->link.telemetry) : 0;

  // Newest first into the caller's array, then reversed: the most recent
  // `max` matching events, oldest first.
  const uint64_t end = g_next.load(std::memory_order_acquire);
  const uint64_t begin = end > kRingSize ? end - kRingSize : 0;
  uint32_t n = 0;
  auto *base = reinterpret_cast<unsigned char *>(events);
  for (uint64_t i = end; i > begin && n < max; --i) {
    KaloExtEvent e{};
    if (!read_slot(i - 1, &e) || (wanted != 0 && e.connection != wanted))
      continue;
    e.size = filled;
    std::memcpy(base + static_cast<size_t>(n) * stride, &e, filled);
    ++n;
  }
  for (uint32_t a = 0, b = n; a + 1 < b; ++a, --b) {
    KaloExtEvent x{}, y{};
    std::memcpy(&x, base + static_cast<size_t>(a) * stride, filled);
    std::memcpy(&y, base + static_cast<size_t>(b - 1) * stride, filled);
    std::memcpy(base + static_cast<size_t>(a) * stride, &y, filled);
    std::memcpy(base + static_cast<size_t>(b - 1) * stride, &x, filled);
  }
  *count = n;
  return 0;
}

const char *kaloExtEventName(uint32_t kind) {
  switch (kind) {
  case KALO_EXT_EVENT_ENERGY_GUARD:
    return "energy guard";
  case KALO_EXT_EVENT_NON_FINITE_SET_POINT:
    return "non-finite set-point";
  case KALO_EXT_EVENT_WATCHDOG:
    return "watchdog";
  case KALO_EXT_EVENT_FOREIGN_DATAGRAM:
    return "foreign datagram";
  case KALO_EXT_EVENT_SEND_FAILED:
    return "send failed";
  case KALO_EXT_EVENT_LINK_RELOCKED:
    return "link relocked";
  case KALO_EXT_EVENT_RECORDING_FAILED:
    return "recording failed";
  case KALO_EXT_EVENT_LOOP_LATE:
    return "loop late";
  default:
    return "unknown";
  }
}

} // extern "C"
