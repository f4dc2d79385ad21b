// The two measurements of the link that need more than a counter: which of
// the controller's frames never came (from its time stamps) and how the
// arrival times of state frames spread (a histogram of fixed, log-spaced
// bins). Both are plain single-threaded value types that never allocate, so
// the exchange thread can keep them on its path.
#pragma once

#include <algorithm>
#include <cstdint>

namespace kalo {

// ---- Inter-arrival histogram bins: 8 linear bins of 8 us below 64 us, then 8
// bins per doubling up to 2^24 us; the last bin takes everything above.
constexpr int kHistogramBins = 152;

inline int histogram_bin(uint64_t us) {
  if (us < 64)
    return static_cast<int>(us >> 3);
  const int octave = 63 - __builtin_clzll(us);
  const int bin = 8 + (octave - 6) * 8 + static_cast<int>((us >> (octave - 3)) & 7u);
  return bin < kHistogramBins ? bin : kHistogramBins - 1;
}

inline uint64_t histogram_lower(int bin) {
  if (bin < 8)
    return static_cast<uint64_t>(bin) * 8u;
  const int octave = 6 + (bin - 8) / 8;
  return static_cast<uint64_t>(8 + (bin - 8) % 8) << (octave - 3);
}

// The q-quantile (0..1) of the histogram's times, interpolated inside its bin
// and never above `max_us`; 0 for an empty histogram.
inline uint64_t histogram_quantile(const uint64_t *counts, double q, uint64_t max_us) {
  uint64_t total = 0;
  for (int b = 0; b < kHistogramBins; ++b)
    total += counts[b];
  if (total == 0)
    return 0;
  const double rank = q * static_cast<double>(total);
  double below = 0;
  for (int b = 0; b < kHistogramBins; ++b) {
    const double n = static_cast<double>(counts[b]);
    if (n > 0 && below + n >= rank) {
      const double lower = static_cast<double>(histogram_lower(b));
      const double upper = b + 1 < kHistogramBins ? static_cast<double>(histogram_lower(b + 1))
                                                  : static_cast<double>(max_us);
      const double fraction = rank > below ? (rank - below) / n : 0.0;
      const auto value = static_cast<uint64_t>(lower + (upper - lower) * fraction);
      return value < max_us ? value : max_us;
    }
    below += n;
  }
  return max_us;
}

// ---- Frame loss from the controller's time stamps.
//
// The controller stamps each state frame (microseconds, 32 bits) and sends
// one per period. After 256 frames the period is taken from the steps between
// them (see calibrate); from then on every stamp is placed in a slot of that
// period. A slot skipped by a newer frame is counted lost until a late frame
// fills it (a reordered frame is late, not lost); a stamp already seen is a
// duplicate. Placement follows the frames' own timing loosely, so that a
// controller that sends late and then catches up is not taken for a lossy
// link. A jump beyond `silence_slots` periods, forward or back, starts the
// placement afresh: that is a silence or a restarted controller.
class StampTracker {
public:
  struct Outcome {
    uint32_t lost = 0;      // slots newly skipped
    uint32_t recovered = 0; // skipped slots filled by a late frame
    bool duplicate = false;
    bool late = false;   // arrived after a newer frame
    bool placed = false; // a distinct frame was counted
  };

  explicit StampTracker(uint32_t silence_us = 100000) : silence_us_(silence_us) {}

  uint32_t period_us() const { return period_us_; }

  Outcome add(uint32_t raw) {
    Outcome out;
    if (seen_recently(raw)) {
      out.duplicate = true;
      return out;
    }
    remember(raw);
    const int64_t stamp = unwrap(raw);
    if (period_us_ == 0) {
      calibrate(stamp);
      return out;
    }
    const int64_t p = period_us_;
    const int64_t offset = stamp - ideal_;
    const int64_t limit = static_cast<int64_t>(silence_us_);
    if (offset > limit || offset < -limit) {
      restart_at(stamp);
      return out;
    }
    const int64_t slots = offset >= 0 ? (offset + p / 2) / p : -((-offset + p / 2) / p);
    out.placed = true;
    if (slots >= 1) {
      out.lost = static_cast<uint32_t>(slots - 1);
      seen_ = slots >= 64 ? 0 : seen_ << slots;
      seen_ |= 1;
      ideal_ += slots * p;
      ideal_ += (stamp - ideal_) / 16; // follow the controller's own pace
      return out;
    }
    // An older slot: the nearest unfilled one at or before it.
    out.late = slots < 0;
    for (int64_t d = -slots; d < 64; ++d) {
      const uint64_t bit = uint64_t{1} << d;
      if ((seen_ & bit) == 0) {
        seen_ |= bit;
        out.recovered = 1;
        out.late = true;
        return out;
      }
    }
    return out;
  }

private:
  static constexpr int kCalibrationSteps = 256;
  static constexpr int kRecent = 64;

  bool seen_recently(uint32_t raw) const {
    for (int k = 0; k < recent_count_; ++k)
      if (recent_[k] == raw)
        return true;
    return false;
  }
  void remember(uint32_t raw) {
    recent_[recent_next_] = raw;
    recent_next_ = (recent_next_ + 1) % kRecent;
    if (recent_count_ < kRecent)
      ++recent_count_;
  }
  int64_t unwrap(uint32_t raw) {
    if (!started_) {
      started_ = true;
      last_raw_ = raw;
      unwrapped_ = raw;
      return unwrapped_;
    }
    unwrapped_ += static_cast<int32_t>(raw - last_raw_);
    last_raw_ = raw;
    return unwrapped_;
  }
  void calibrate(int64_t stamp) {
    if (steps_ > 0 || highest_set_) {
      const int64_t step = stamp - highest_;
      if (step > 0 && step <= static_cast<int64_t>(silence_us_))
        steps_us_[steps_++] = static_cast<uint32_t>(step);
    }
    if (!highest_set_ || stamp > highest_)
      highest_ = stamp;
    highest_set_ = true;
    if (steps_ < kCalibrationSteps)
      return;
    // A controller that fell behind catches up with frames a few
    // microseconds apart, and lost frames leave steps of several periods: the
    // period is the median of the steps once those of a burst (below a third
    // of the upper quartile) are set aside.
    uint32_t *begin = steps_us_;
    uint32_t *end = steps_us_ + kCalibrationSteps;
    std::sort(begin, end);
    const uint32_t floor = begin[kCalibrationSteps * 3 / 4] / 3;
    const uint32_t *first = std::lower_bound(begin, end, floor);
    const uint32_t median = first[(end - first) / 2];
    period_us_ = median > 0 ? median : 1;
    restart_at(highest_);
  }
  void restart_at(int64_t stamp) {
    ideal_ = stamp;
    seen_ = ~uint64_t{0};
  }

  uint32_t silence_us_;
  uint32_t period_us_ = 0;
  bool started_ = false;
  uint32_t last_raw_ = 0;
  int64_t unwrapped_ = 0;
  // calibration
  uint32_t steps_us_[kCalibrationSteps] = {};
  int steps_ = 0;
  bool highest_set_ = false;
  int64_t highest_ = 0;
  // placement: bit d of seen_ is the slot d periods before ideal_
  int64_t ideal_ = 0;
  uint64_t seen_ = 0;
  // duplicates
  uint32_t recent_[kRecent] = {};
  int recent_count_ = 0;
  int recent_next_ = 0;
};

} // namespace kalo
