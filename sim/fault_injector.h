// What happens to the state frames on their way out: the injected faults
// (drop, corrupt, duplicate, delay, drawn from a seeded generator so runs
// repeat), and the test's pauses, silences and restart requests.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "protocol/proto_session.h"
#include "simulator.h"

namespace kalo::sim {

// Small, fast generator for the fault draws (xorshift64*).
class Random {
public:
  void seed(uint64_t s) { state_ = s ? s : 0x9E3779B97F4A7C15ull; }
  double uniform() {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return static_cast<double>((state_ * 0x2545F4914F6CDD1Dull) >> 11) * (1.0 / 9007199254740992.0);
  }
  bool chance(double p) { return p > 0 && uniform() < p; }

private:
  uint64_t state_ = 1;
};

// The socket side: where the frames that do go out are sent.
class Wire {
public:
  virtual void transmit(const unsigned char *bytes, std::size_t size) = 0;

protected:
  Wire() = default;
  Wire(const Wire &) = default;
  Wire &operator=(const Wire &) = default;
  ~Wire() = default;
};

class FaultInjector {
public:
  static constexpr std::size_t kDatagramRoom = kSessionBufferSize;

  // ---- from any thread ----
  void pause(bool on) { paused_.store(on, std::memory_order_relaxed); }
  bool paused() const { return paused_.load(std::memory_order_relaxed); }
  // Nothing is sent before this time (CLOCK_MONOTONIC, ns).
  void silence_until(int64_t t) { silent_until_.store(t, std::memory_order_relaxed); }
  void request_restart() { restart_.store(true, std::memory_order_relaxed); }

  // ---- from the frame loop ----
  // Replaces the faults and reseeds the generator.
  void set(const Faults &faults);
  // Whether a state frame may go out now (not paused, not silent).
  bool may_send(int64_t now) const {
    return !paused() && now >= silent_until_.load(std::memory_order_relaxed);
  }
  // Whether a restart was asked for since the last call.
  bool take_restart() { return restart_.exchange(false, std::memory_order_relaxed); }
  // Applies the faults to one enveloped state frame (the last byte is the
  // checksum): sends it through the wire, twice, later or not at all.
  // Returns the trace note ("" when the frame went out untouched).
  const char *send(unsigned char *datagram, std::size_t size, int64_t now, Wire &wire);
  // Sends the held frames that are due.
  void flush(int64_t now, Wire &wire);
  // Forgets the held frames (a restart: nothing in flight survives).
  void drop_held() { head_ = count_ = 0; }
  bool holding() const { return count_ > 0; }
  int64_t next_due() const { return ring_[head_].due; } // valid while holding()

  std::atomic<uint64_t> dropped{0}, duplicated{0}, corrupted{0}, delayed{0};

private:
  // A datagram held back by the delay fault.
  struct Held {
    int64_t due;
    std::size_t size;
    std::array<unsigned char, kDatagramRoom> bytes;
  };
  static constexpr std::size_t kSlots = 4096;

  void hold(const unsigned char *datagram, std::size_t size, int64_t due, Wire &wire);

  std::atomic<bool> paused_{false}, restart_{false};
  std::atomic<int64_t> silent_until_{0};
  Faults faults_;
  Random random_;
  std::vector<Held> ring_; // allocated the first time the delay fault is used
  std::size_t head_ = 0, count_ = 0;
};

} // namespace kalo::sim
