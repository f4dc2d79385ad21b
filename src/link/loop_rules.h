// The timing rules shared by the exchange thread and the periodic loop: when a
// received state frame ticks the loop, how a requested period is rounded to the
// controller's unit, and when a call of the periodic function overran.
#pragma once

#include <cmath>
#include <cstdint>

namespace kalo {

// Ticks fire a little early (200 us) so that a frame arriving on time, with the
// jitter of the network and of the scheduler, still ticks the loop.
constexpr double kTickEarlinessUs = 200.0;

// True when a state frame received at frame_time should tick a loop last
// ticked at tick_time (both microseconds of getTime).
inline bool loop_tick_due(uint64_t frame_time, uint64_t tick_time, float period_us) {
  const auto elapsed = static_cast<int64_t>(frame_time - tick_time);
  return static_cast<double>(elapsed) >= static_cast<double>(period_us) - kTickEarlinessUs;
}

// The tick rule in the controller's time. A frame ticks the loop when a
// period (less the earliness above) has elapsed since the frame that ticked it
// last, measured on the controller's time stamps (32 bits, wrapping) whenever
// they advance: a frame that the network or the scheduler delays then costs
// the next, punctual frame nothing. Arrival times stay the measure for a
// controller that sends no stamps (or always the same one). A stamp older than
// the newest seen is a reordered frame, whose time is already counted, unless
// it is older by more than kStampRestartUs: the controller restarted (or its
// clock was set back), and the stamps start afresh from it.
//
// The ticker also keeps a controller clock (microseconds, 64 bits) that moves
// by the stamps' advance, or by the arrival times where stamps say nothing, so
// that the loop can tell the application how much controller time separates
// two ticks. Single-threaded: the exchange thread owns it.
constexpr int64_t kStampRestartUs = 1000000;

struct TickFrame {
  uint64_t arrival_us; // getTime at the frame's arrival
  uint32_t stamp;      // the controller's time stamp (field 1)
  bool has_stamp;      // the frame carried field 1
};

class LoopTicker {
public:
  // While the loop is stopped every frame becomes the reference, so that the
  // first tick after a start waits a whole period.
  void rest(const TickFrame &f) {
    advance_clock(f);
    take_as_reference(f);
  }

  // True when f ticks a running loop of period_us; it then becomes the
  // reference, and elapsed_* tell how far it is from the previous one.
  bool due(const TickFrame &f, float period_us) {
    const Kind kind = advance_clock(f);
    bool tick;
    if (kind == Kind::advance && has_reference_stamp_) {
      const auto elapsed = static_cast<int32_t>(f.stamp - reference_stamp_);
      tick = static_cast<double>(elapsed) >= static_cast<double>(period_us) - kTickEarlinessUs;
    } else if (kind == Kind::older) {
      tick = false;
    } else if (kind == Kind::restart) {
      tick = true;
    } else {
      tick = loop_tick_due(f.arrival_us, reference_arrival_, period_us);
    }
    if (!tick) {
      if ((kind == Kind::advance || kind == Kind::first) && !has_reference_stamp_) {
        reference_stamp_ = f.stamp; // the first stamp while running: measure from it
        has_reference_stamp_ = true;
      }
      return false;
    }
    elapsed_clock_us_ = clock_us_ - reference_clock_;
    elapsed_arrival_us_ = f.arrival_us - reference_arrival_;
    take_as_reference(f);
    return true;
  }

  uint64_t clock_us() const { return clock_us_; }
  // Of the last tick, from the reference before it.
  uint64_t elapsed_clock_us() const { return elapsed_clock_us_; }
  uint64_t elapsed_arrival_us() const { return elapsed_arrival_us_; }

private:
  enum class Kind : uint8_t { none, first, advance, same, older, restart };

  // Classifies the frame's stamp and moves the controller clock.
  Kind advance_clock(const TickFrame &f) {
    Kind kind = Kind::none;
    if (f.has_stamp) {
      if (!has_newest_) {
        kind = Kind::first;
      } else {
        const auto d = static_cast<int32_t>(f.stamp - newest_stamp_);
        if (d > 0)
          kind = Kind::advance;
        else if (d == 0)
          kind = Kind::same;
        else
          kind = static_cast<int64_t>(d) < -kStampRestartUs ? Kind::restart : Kind::older;
      }
    }
    if (kind == Kind::advance) {
      clock_us_ += static_cast<uint32_t>(f.stamp - newest_stamp_);
    } else if (kind != Kind::older && has_last_arrival_ &&
               static_cast<int64_t>(f.arrival_us - last_arrival_) > 0) {
      clock_us_ += f.arrival_us - last_arrival_;
    }
    if (kind == Kind::first || kind == Kind::advance || kind == Kind::restart) {
      newest_stamp_ = f.stamp;
      has_newest_ = true;
    }
    if (kind == Kind::restart)
      has_reference_stamp_ = false;
    if (kind != Kind::older) {
      last_arrival_ = f.arrival_us;
      has_last_arrival_ = true;
    }
    return kind;
  }

  void take_as_reference(const TickFrame &f) {
    reference_arrival_ = f.arrival_us;
    reference_clock_ = clock_us_;
    if (f.has_stamp && has_newest_ && f.stamp == newest_stamp_) {
      reference_stamp_ = f.stamp;
      has_reference_stamp_ = true;
    }
  }

  bool has_newest_ = false;
  uint32_t newest_stamp_ = 0;
  bool has_reference_stamp_ = false;
  uint32_t reference_stamp_ = 0;
  uint64_t reference_arrival_ = 0;
  uint64_t reference_clock_ = 0;
  bool has_last_arrival_ = false;
  uint64_t last_arrival_ = 0;
  uint64_t clock_us_ = 0;
  uint64_t elapsed_clock_us_ = 0;
  uint64_t elapsed_arrival_us_ = 0;
};

// The late-call watch: the share of late calls over a moving second, kept in
// ten buckets of 0.1 s, judged once the window spans a second, and reported at
// most once a second. Single-threaded: the loop thread owns it.
class LateWatch {
public:
  static constexpr uint64_t kBucketUs = 100000;
  static constexpr int kBuckets = 10;
  static constexpr uint64_t kSpacingUs = 1000000;

  // Forgets everything: the loop starts again.
  void reset() { *this = LateWatch{}; }

  // Counts a call that began at start_us. True when an event is due: the
  // share of late calls in the window (*share) exceeds the threshold and no
  // event came in the last second.
  bool add(uint64_t start_us, bool late, double threshold, double *share) {
    if (!started_ || start_us - bucket_start_us_ >= kBuckets * kBucketUs) {
      // The first call, or nothing in the last second: an empty window, which
      // still spans a second when the loop ran before.
      for (int b = 0; b < kBuckets; ++b)
        calls_[b] = late_[b] = 0;
      if (started_)
        filled_ = kBuckets;
      started_ = true;
      bucket_start_us_ = start_us;
      bucket_ = 0;
    }
    while (start_us - bucket_start_us_ >= kBucketUs) {
      bucket_ = (bucket_ + 1) % kBuckets;
      calls_[bucket_] = late_[bucket_] = 0;
      bucket_start_us_ += kBucketUs;
      if (filled_ < kBuckets)
        ++filled_;
    }
    calls_[bucket_]++;
    late_[bucket_] += late ? 1 : 0;
    if (filled_ < kBuckets - 1) // nine whole buckets and the current one
      return false;
    uint64_t calls = 0, lates = 0;
    for (int b = 0; b < kBuckets; ++b) {
      calls += calls_[b];
      lates += late_[b];
    }
    *share = static_cast<double>(lates) / static_cast<double>(calls);
    if (!(*share > threshold) || (reported_ && start_us - last_event_us_ < kSpacingUs))
      return false;
    reported_ = true;
    last_event_us_ = start_us;
    return true;
  }

private:
  bool started_ = false;
  bool reported_ = false;
  uint64_t bucket_start_us_ = 0;
  uint64_t last_event_us_ = 0;
  int bucket_ = 0;
  int filled_ = 0;
  uint32_t calls_[kBuckets] = {};
  uint32_t late_[kBuckets] = {};
};

// Controllers above version 5.0 count loop periods in milliseconds, older ones
// in 1/1024 s.
constexpr float kOldControllerUnitMs = 0.9765625f;
constexpr float kOldControllerUnitUs = 976.5625f;

struct LoopPeriod {
  int64_t ticks;   // whole units
  float period_us; // the period actually used, in microseconds
};

// Rounds a period in seconds to whole units; a fraction of exactly one half
// rounds down. False for a period that is not a finite number of units.
inline bool round_loop_period(float seconds, float controller_version, LoopPeriod *out) {
  const bool new_unit = static_cast<double>(controller_version) > 5.0;
  // Single precision throughout, as the controller computes it: 1.5 ms stays
  // exactly 1.5 units and rounds down.
  const float x = new_unit ? seconds * 1000.0f : seconds * 1000.0f / kOldControllerUnitMs;
  if (!(std::fabs(x) < 1e15f))
    return false;
  auto n = static_cast<int64_t>(x);
  if (x - static_cast<float>(n) > 0.5f)
    ++n;
  out->ticks = n;
  out->period_us =
      new_unit ? static_cast<float>(n) * 1000.0f : static_cast<float>(n) * kOldControllerUnitUs;
  return true;
}

// The allowed duration of one call: the application's time step, in whole
// microseconds.
inline uint64_t allowed_call_us(float time_step) {
  const double us = 1e6 * static_cast<double>(time_step);
  return us > 0.0 ? static_cast<uint64_t>(us) : 0;
}

// A call overran when it lasted a millisecond or more beyond the allowed time.
inline bool call_overran(uint64_t duration_us, uint64_t allowed_us) {
  return duration_us >= allowed_us + 1000;
}

// The overrun in whole milliseconds, as printed.
inline int overrun_ms(uint64_t duration_us, uint64_t allowed_us) {
  return static_cast<int>((duration_us - allowed_us) / 1000);
}

} // namespace kalo
