// Per-connection telemetry: what the exchange thread and the periodic loop
// saw, for kaloExtGetLinkStatistics, and the hand-over of each exchange to a
// running recording. Every figure has one writing thread (the exchange thread
// or the loop thread) and is a relaxed atomic: collecting takes no lock and
// allocates nothing. Readers subtract a baseline taken at the last reset
// instead of clearing the writers' counters, so a reset never races with a
// count.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <time.h>

#include "link/frame_timing.h"

struct KaloContext;

namespace kalo {

class Recorder;

// A wait this long for a state frame is a silence (the watchdog's period).
constexpr uint32_t kSilenceUs = 100000;

// The monotonic clock in microseconds (the clock of getTime).
inline uint64_t monotonic_us() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

// The same in nanoseconds, for the exchange thread's own times.
inline uint64_t monotonic_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

// Counts that only grow; a reset moves the readers' baseline.
enum Count {
  kStateFrames,
  kCommandFrames,
  kLost,      // slots skipped...
  kRecovered, // ...and filled by a late frame
  kDuplicated,
  kLate,
  kPlaced, // distinct frames placed by the loss detector
  kPeriodicCalls,
  kLateCalls,
  kOverruns,
  kSilentPeriods,
  kCountKinds
};

struct Telemetry {
  Telemetry() : since_us(monotonic_us()) {}

  std::atomic<uint64_t> connection{0}; // see connection_number
  std::atomic<uint64_t> counts[kCountKinds] = {};
  std::atomic<uint64_t> histogram[kHistogramBins] = {};
  std::atomic<uint64_t> interarrival_max_us{0};
  std::atomic<uint64_t> longest_silence_us{0};
  std::atomic<uint64_t> longest_call_us{0};
  std::atomic<uint32_t> period_us{0};
  std::atomic<uint64_t> last_arrival_us{0};
  std::atomic<uint64_t> last_interarrival_us{0};
  // The exchange thread's latest turnaround: from a state frame's receive to
  // the send of its answer (bench_latency reads it).
  std::atomic<uint64_t> turnaround_ns{0};
  // The latest call of the periodic function (loop thread).
  std::atomic<uint64_t> call_start_us{0};
  std::atomic<uint64_t> call_duration_us{0};

  float coupling_force[6] = {}; // the latest kaloGetForce; under the context lock
  // Exchange thread only.
  StampTracker stamps{kSilenceUs};
  bool frame_this_cycle = false;
  uint64_t last_foreign_event_us = 0;

  // Readers only (never taken on the exchange or loop thread).
  std::mutex reader_mutex;
  uint64_t count_base[kCountKinds] = {};
  uint64_t histogram_base[kHistogramBins] = {};
  uint64_t link_baseline[6] = {}; // malformed, foreign, dropped for size, rejected, hellos, relocks
  std::atomic<uint64_t> since_us;

  // The running recording. The exchange thread raises `recorder_busy` before
  // it looks at `recorder` and lowers it when done; a stop takes the pointer
  // away and then waits for busy to fall, so the recorder is never freed
  // under the exchange thread.
  std::atomic<Recorder *> recorder{nullptr};
  std::atomic<uint32_t> recorder_busy{0};
  std::mutex recording_mutex; // start and stop only
  std::atomic<uint64_t> recording_rows{0};
  std::atomic<uint64_t> recording_dropped{0};
};

// One writer per counter: a load and a store, no read-modify-write.
inline void bump(std::atomic<uint64_t> &c, uint64_t n = 1) {
  c.store(c.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}
inline void raise_to(std::atomic<uint64_t> &c, uint64_t v) {
  if (v > c.load(std::memory_order_relaxed))
    c.store(v, std::memory_order_relaxed);
}

// The connection's number in the process (1, 2, ...), given on first use.
uint64_t connection_number(Telemetry &t);

// ---- hooks of the exchange thread and the loop
// A state frame was decoded into the state record. Under the context lock.
void telemetry_state_frame(KaloContext *ctx);
// The end of one cycle of the exchange thread: `answered` when a command frame
// went out. Hands the exchange to a running recording. Under the context lock.
void telemetry_cycle_end(KaloContext *ctx, bool answered);
// One call of the periodic function ended; `late` when it began more than
// 1.5 periods after the previous call (the loop decides, see take_tick).
void telemetry_periodic_call(KaloContext *ctx, uint64_t start_us, uint64_t duration_us,
                             bool overran, bool late);
// kaloGetForce computed the coupling wrench of the first control point (six
// floats). Under the context lock.
void telemetry_coupling_force(KaloContext *ctx, const float *wrench);
// Seconds since the last state frame (since open when none came).
double seconds_since_last_frame(KaloContext *ctx);
// Stops a running recording; for the release of a context whose threads ended.
void telemetry_release(KaloContext *ctx);

} // namespace kalo
