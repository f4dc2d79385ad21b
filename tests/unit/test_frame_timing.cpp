// The loss detector and the inter-arrival histogram, on made-up stamp
// sequences: what a lossy, reordering, bursty or restarted link looks like.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "link/frame_timing.h"

namespace {

struct Totals {
  uint32_t lost = 0, recovered = 0, duplicates = 0, late = 0;
  uint32_t net_lost() const { return lost - recovered; }
};

// Calibrates the tracker on 300 clean frames 1000 us apart from `start`,
// then feeds the offsets (in periods, fractional for jitter) after them.
Totals feed(const std::vector<double> &periods, uint32_t start = 5000) {
  kalo::StampTracker t;
  uint32_t base = start;
  for (int k = 0; k < 300; ++k, base += 1000)
    t.add(base);
  EXPECT_EQ(t.period_us(), 1000u);
  Totals s;
  for (double p : periods) {
    const auto o = t.add(base + static_cast<uint32_t>(static_cast<int64_t>(p * 1000.0)));
    s.lost += o.lost;
    s.recovered += o.recovered;
    s.duplicates += o.duplicate;
    s.late += o.late;
  }
  return s;
}

} // namespace

TEST(StampTracker, TellsLossFromReorderingDuplicatesBurstsAndSilences) {
  struct Case {
    const char *what;
    std::vector<double> periods;
    uint32_t net_lost, duplicates, late;
    uint32_t start = 5000;
  };
  const std::vector<Case> cases = {
      {"clean", {0, 1, 2, 3, 4}, 0, 0, 0},
      {"two lost", {0, 1, 4, 5}, 2, 0, 0},
      {"reordered: late, not lost", {0, 2, 3, 1, 4}, 0, 0, 1},
      {"held back 3 periods", {0, 2, 3, 4, 1, 5}, 0, 0, 1},
      {"duplicate", {0, 1, 1, 2}, 0, 1, 0},
      {"late duplicate", {0, 2, 1, 3, 1}, 0, 1, 1},
      {"sender late by 0.6 then on time", {0, 1.6, 2.01, 3}, 0, 0, 1},
      {"burst after a 5-period stall", {0, 5.0, 5.01, 5.02, 5.03, 5.04, 6}, 0, 0, 4},
      {"silence of 0.2 s is not loss", {0, 1, 201, 202}, 0, 0, 0},
      {"restarted controller", {0, 1, -5000, -4999, -4997}, 1, 0, 0},
      {"32-bit wrap", {0, 1, 3, 4}, 1, 0, 0, 0xFFFFFFFFu - 300000u},
  };
  for (const Case &c : cases) {
    const Totals t = feed(c.periods, c.start);
    EXPECT_EQ(t.net_lost(), c.net_lost) << c.what;
    EXPECT_EQ(t.duplicates, c.duplicates) << c.what;
    EXPECT_EQ(t.late, c.late) << c.what;
  }
}

TEST(StampTracker, LearnsThePeriodDespiteACatchUpBurstAtTheStart) {
  kalo::StampTracker t;
  uint32_t s = 1000;
  for (int k = 0; k < 60; ++k) // a controller catching up: frames 5 us apart
    t.add(s += 5);
  for (int k = 0; k < 250; ++k)
    t.add(s += (k % 10 == 0 ? 2000 : 1000)); // and then one frame in ten lost
  EXPECT_EQ(t.period_us(), 1000u);
}

TEST(InterArrivalHistogram, BinsAreContiguousAndQuantilesLandInTheirBin) {
  for (int b = 1; b < kalo::kHistogramBins; ++b) {
    const uint64_t lower = kalo::histogram_lower(b);
    ASSERT_GT(lower, kalo::histogram_lower(b - 1));
    ASSERT_EQ(kalo::histogram_bin(lower), b);
    ASSERT_EQ(kalo::histogram_bin(lower - 1), b - 1);
    // at most one eighth wider than its lower bound (above the linear bins)
    if (b >= 8 && b + 1 < kalo::kHistogramBins) {
      ASSERT_LE((kalo::histogram_lower(b + 1) - lower) * 8, lower);
    }
  }
  EXPECT_EQ(kalo::histogram_bin(uint64_t{1} << 40), kalo::kHistogramBins - 1);

  uint64_t counts[kalo::kHistogramBins] = {};
  counts[kalo::histogram_bin(1000)] = 980;
  counts[kalo::histogram_bin(3000)] = 20;
  EXPECT_NEAR(static_cast<double>(kalo::histogram_quantile(counts, 0.5, 3100)), 1000.0, 64.0);
  EXPECT_NEAR(static_cast<double>(kalo::histogram_quantile(counts, 0.99, 3100)), 3000.0, 256.0);
  const uint64_t none[kalo::kHistogramBins] = {};
  EXPECT_EQ(kalo::histogram_quantile(none, 0.99, 0), 0u);
}
