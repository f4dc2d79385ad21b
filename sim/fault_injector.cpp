#include "fault_injector.h"

#include <cstring>

namespace kalo::sim {

void FaultInjector::set(const Faults &faults) {
  faults_ = faults;
  random_.seed(faults.seed);
}

const char *FaultInjector::send(unsigned char *datagram, std::size_t size, int64_t now,
                                Wire &wire) {
  if (random_.chance(faults_.drop_ratio)) {
    dropped.fetch_add(1, std::memory_order_relaxed);
    return "dropped";
  }
  const char *note = "";
  if (random_.chance(faults_.corrupt_ratio)) {
    datagram[size - 1] ^= 0x5A;
    corrupted.fetch_add(1, std::memory_order_relaxed);
    note = "corrupt";
  }
  const bool twice = random_.chance(faults_.duplicate_ratio);
  if (twice)
    duplicated.fetch_add(1, std::memory_order_relaxed);
  if (faults_.delay_us > 0 && random_.chance(faults_.delay_ratio)) {
    const int64_t due = now + static_cast<int64_t>(faults_.delay_us) * 1000;
    for (int copy = 0; copy < (twice ? 2 : 1); ++copy)
      hold(datagram, size, due, wire);
    delayed.fetch_add(1, std::memory_order_relaxed);
    if (!*note)
      note = "delayed";
  } else {
    wire.transmit(datagram, size);
    if (twice)
      wire.transmit(datagram, size);
  }
  if (twice && !*note)
    note = "duplicate";
  return note;
}

void FaultInjector::hold(const unsigned char *datagram, std::size_t size, int64_t due, Wire &wire) {
  if (ring_.empty())
    ring_.resize(kSlots);
  if (count_ == kSlots) // full: the oldest goes now
    flush(INT64_MAX / 2, wire);
  Held &slot = ring_[(head_ + count_) % kSlots];
  slot.due = due;
  slot.size = size;
  std::memcpy(slot.bytes.data(), datagram, size);
  ++count_;
}

void FaultInjector::flush(int64_t now, Wire &wire) {
  while (count_ > 0) {
    const Held &slot = ring_[head_];
    if (slot.due > now)
      return;
    wire.transmit(slot.bytes.data(), slot.size);
    head_ = (head_ + 1) % kSlots;
    --count_;
  }
}

} // namespace kalo::sim
