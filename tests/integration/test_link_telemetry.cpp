// The link telemetry, the session recording and the safety events, against
// the in-process simulator.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "core_support.h"
#include "kalo/kalo_ext.h"

using namespace std::chrono_literals;
using core_test::Link;

namespace {

KaloExtLinkStatistics read_stats(KaloContext *ctx) {
  KaloExtLinkStatistics s{};
  s.size = sizeof s;
  EXPECT_EQ(kaloExtGetLinkStatistics(ctx, &s), 0);
  EXPECT_EQ(s.size, sizeof s);
  return s;
}

// Runs a connection for `length` under the given faults and returns its
// telemetry with the ratio of frames the simulator really dropped meanwhile.
struct LinkRun {
  KaloExtLinkStatistics stats;
  double dropped_ratio;
};
LinkRun run_link(const kalo::sim::Faults &faults, std::chrono::milliseconds length) {
  kalo::sim::Config cfg = core_test::sim_config();
  // The stamps are the simulator's send times: paced at real-time priority
  // where the machine allows it, a loaded machine does not turn them to bursts.
  cfg.realtime = true;
  cfg.faults = faults;
  Link link(cfg);
  EXPECT_TRUE(link.open());
  // Let the loss detector learn the period, then count from a clean start.
  std::this_thread::sleep_for(500ms);
  const kalo::sim::Stats before = link.sim.stats();
  EXPECT_EQ(kaloExtResetLinkStatistics(link.ctx), 0);
  std::this_thread::sleep_for(length);
  const KaloExtLinkStatistics s = read_stats(link.ctx);
  const kalo::sim::Stats after = link.sim.stats();
  const auto sent = static_cast<double>(after.frames_sent - before.frames_sent);
  return {s, static_cast<double>(after.dropped - before.dropped) / sent};
}

} // namespace

TEST(LinkTelemetry, MeasuresLossAndDelaysAndReadsZeroOnACleanLink) {
  kalo::sim::Faults faults;
  faults.drop_ratio = 0.1;
  faults.delay_ratio = 0.1;
  faults.delay_us = 3000;
  const LinkRun bad = run_link(faults, 4000ms);
  EXPECT_GT(bad.stats.state_frames_received, 3000u);
  EXPECT_NEAR(bad.stats.controller_period_us, 1000.0, 50.0);
  EXPECT_NEAR(bad.stats.loss_ratio, 0.10, 0.01);
  EXPECT_NEAR(bad.stats.loss_ratio, bad.dropped_ratio, 0.01);
  // Delayed frames arrive after newer ones: late, not lost.
  EXPECT_GT(bad.stats.frames_late, bad.stats.state_frames_received / 20);
  // Held-back and dropped frames leave gaps of 2 to 4 periods between arrivals.
  EXPECT_GE(bad.stats.interarrival_p99_us, 2500u);
  EXPECT_GE(bad.stats.interarrival_max_us, 2900u);
  EXPECT_NEAR(bad.stats.interarrival_p50_us, 1000.0, 200.0);

  const LinkRun clean = run_link({}, 1500ms);
  EXPECT_GT(clean.stats.state_frames_received, 1000u);
  EXPECT_EQ(clean.stats.frames_lost, 0u);
  EXPECT_EQ(clean.stats.frames_duplicated, 0u);
  EXPECT_EQ(clean.stats.loss_ratio, 0.0);
  EXPECT_NEAR(clean.stats.frame_rate_hz, 1000.0, 100.0);
  uint64_t histogram_total = 0;
  for (uint64_t n : clean.stats.interarrival_histogram)
    histogram_total += n;
  EXPECT_NEAR(static_cast<double>(histogram_total),
              static_cast<double>(clean.stats.state_frames_received), 2.0);
}

// Duplicates are told from losses: a repeated stamp is counted once.
TEST(LinkTelemetry, CountsDuplicatesWithoutLoss) {
  kalo::sim::Faults faults;
  faults.duplicate_ratio = 0.2;
  const LinkRun r = run_link(faults, 1000ms);
  EXPECT_NEAR(static_cast<double>(r.stats.frames_duplicated) /
                  static_cast<double>(r.stats.state_frames_received - r.stats.frames_duplicated),
              0.2, 0.05);
  EXPECT_EQ(r.stats.frames_lost, 0u);
}

namespace {

void on_tick(KaloContext *ctx, void *) {
  float pose[7];
  kaloGetPosition(ctx, pose);
}

std::vector<std::vector<std::string>> read_csv(const std::string &path, std::string *header) {
  std::ifstream in(path);
  std::getline(in, *header);
  std::vector<std::vector<std::string>> rows;
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> cells;
    std::stringstream cells_in(line);
    std::string cell;
    while (std::getline(cells_in, cell, ','))
      cells.push_back(cell);
    if (!line.empty() && line.back() == ',')
      cells.emplace_back();
    rows.push_back(cells);
  }
  return rows;
}

} // namespace

TEST(SessionRecording, WritesOneRowPerExchangeAndStopsAtClose) {
  Link link(core_test::sim_config());
  ASSERT_TRUE(link.open());
  const std::string path = "recording_" + std::to_string(getpid()) + ".csv";
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(link.ctx, on_tick, &period, nullptr), 0);
  ASSERT_EQ(kaloStartLoop(link.ctx), 0);

  ASSERT_EQ(kaloExtStartRecording(link.ctx, path.c_str()), 0);
  EXPECT_EQ(kaloExtStartRecording(link.ctx, path.c_str()), -1); // one at a time
  EXPECT_EQ(kaloGetErrorCode(link.ctx), KALO_ERROR_INCORRECT_VALUE);
  std::this_thread::sleep_for(700ms);
  EXPECT_EQ(read_stats(link.ctx).recording, 1u);
  EXPECT_EQ(kaloExtStopRecording(link.ctx), 0); // nothing dropped
  EXPECT_EQ(kaloExtStopRecording(link.ctx), -1);
  const KaloExtLinkStatistics s = read_stats(link.ctx);
  EXPECT_EQ(s.recording, 0u);
  EXPECT_EQ(s.recording_rows_dropped, 0u);

  std::string header;
  const auto rows = read_csv(path, &header);
  EXPECT_EQ(header.rfind("time_s,frame,stamp_us,interarrival_us,x,y,z,", 0), 0u) << header;
  const std::size_t columns =
      static_cast<std::size_t>(std::count(header.begin(), header.end(), ',')) + 1;
  ASSERT_GT(rows.size(), 500u);
  EXPECT_EQ(rows.size(), s.recording_rows);
  // Every state frame of the session has its row, in order.
  for (std::size_t k = 0; k < rows.size(); ++k) {
    ASSERT_EQ(rows[k].size(), columns) << "row " << k;
    if (k > 0) {
      ASSERT_EQ(std::stoull(rows[k][1]), std::stoull(rows[k - 1][1]) + 1) << "row " << k;
    }
  }
  EXPECT_GT(std::stoull(rows.back()[columns - 2]), 100u); // periodic calls recorded
  std::remove(path.c_str());

  // A recording still running when the connection closes is completed.
  ASSERT_EQ(kaloExtStartRecording(link.ctx, path.c_str()), 0);
  std::this_thread::sleep_for(100ms);
  link.close();
  EXPECT_GT(read_csv(path, &header).size(), 50u);
  std::remove(path.c_str());

  EXPECT_EQ(kaloExtStartRecording(nullptr, "x.csv"), -1);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_INVALID_CONTEXT);
}

// A file that cannot be written is an error, never a recording that looks
// complete: refused at the start when it takes nothing, and when the disk fills
// during the recording, the recording ends, the file holds whole rows only,
// every row not in it is counted as dropped, and an event and the stop say so.
TEST(SessionRecording, AWriteFailureEndsTheRecordingAndIsReported) {
  Link link(core_test::sim_config());
  ASSERT_TRUE(link.open());
  const struct {
    const char *path;
    const char *detail;
  } refused[] = {
      {"/dev/full", "cannot write recording file /dev/full: No space left on device"},
      {"/nonexistent-dir/r.csv",
       "cannot create recording file /nonexistent-dir/r.csv: No such file or directory"},
  };
  for (const auto &r : refused) {
    EXPECT_EQ(kaloExtStartRecording(link.ctx, r.path), -1);
    EXPECT_EQ(kaloGetErrorCode(link.ctx), KALO_ERROR_INCORRECT_VALUE);
    EXPECT_STREQ(kaloExtLastErrorDetail(), r.detail);
  }

  // A 40 kB limit on file sizes stands for a disk that fills.
  const std::string path = "recording_full_" + std::to_string(getpid()) + ".csv";
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  rlimit small = saved;
  small.rlim_cur = 40000;
  const auto previous = std::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  ASSERT_EQ(kaloExtStartRecording(link.ctx, path.c_str()), 0);
  EXPECT_TRUE(kalo_test::eventually([&] { return read_stats(link.ctx).recording == 0; }, 5000ms));
  const uint64_t dropped_at_failure = read_stats(link.ctx).recording_rows_dropped;
  EXPECT_TRUE(kalo_test::eventually(
      [&] { return read_stats(link.ctx).recording_rows_dropped > dropped_at_failure + 20; }));
  EXPECT_EQ(kaloExtStopRecording(link.ctx), -1);
  const uint64_t frames_after = read_stats(link.ctx).state_frames_received;
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previous);
  EXPECT_EQ(kaloGetErrorCode(link.ctx), KALO_ERROR_INCORRECT_VALUE);
  const std::string detail = kaloExtLastErrorDetail();
  EXPECT_EQ(detail.rfind("cannot write recording file " + path + ": File too large (", 0), 0u)
      << detail;

  const KaloExtLinkStatistics s = read_stats(link.ctx);
  std::string header;
  const auto rows = read_csv(path, &header);
  const std::size_t columns =
      static_cast<std::size_t>(std::count(header.begin(), header.end(), ',')) + 1;
  EXPECT_GT(rows.size(), 10u);
  EXPECT_EQ(rows.size(), s.recording_rows);
  for (const auto &row : rows)
    ASSERT_EQ(row.size(), columns);
  // Every frame of the recording, from the first row's on, is a row in the
  // file or a dropped one (a few frames may come between the stop and the
  // reading of the count).
  ASSERT_FALSE(rows.empty());
  const uint64_t frames = frames_after - std::stoull(rows.front()[1]) + 1;
  EXPECT_LE(s.recording_rows + s.recording_rows_dropped, frames);
  EXPECT_GE(s.recording_rows + s.recording_rows_dropped + 20, frames);
  std::remove(path.c_str());

  KaloExtEvent events[4];
  events[0].size = sizeof(KaloExtEvent);
  uint32_t count = 0;
  ASSERT_EQ(kaloExtGetEvents(link.ctx, events, 4, &count), 0);
  ASSERT_GE(count, 1u);
  EXPECT_EQ(events[count - 1].kind, static_cast<uint32_t>(KALO_EXT_EVENT_RECORDING_FAILED));
  EXPECT_EQ(events[count - 1].value, static_cast<double>(EFBIG));
  EXPECT_STREQ(kaloExtEventName(KALO_EXT_EVENT_RECORDING_FAILED), "recording failed");
}

TEST(SafetyEvents, ANonFiniteSetPointLeavesAnEventReadableAfterTheClose) {
  Link link(core_test::sim_config());
  ASSERT_TRUE(link.open());
  const uint64_t connection = read_stats(link.ctx).connection;
  KaloExtEvent events[8];
  events[0].size = sizeof(KaloExtEvent);
  uint32_t count = 99;
  ASSERT_EQ(kaloExtGetEvents(link.ctx, events, 8, &count), 0);
  EXPECT_EQ(count, 0u);

  ASSERT_EQ(kaloSetCommandType(link.ctx, 6), 0);
  const float pose[7] = {0, std::numeric_limits<float>::infinity(), 0, 0, 0, 0, 1};
  EXPECT_EQ(kaloSetPosition(link.ctx, pose), -1);
  link.ctx = nullptr; // closed by the call
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_INCORRECT_VALUE);

  ASSERT_EQ(kaloExtGetEvents(nullptr, events, 8, &count), 0);
  ASSERT_GE(count, 1u);
  const KaloExtEvent &e = events[count - 1];
  EXPECT_EQ(e.size, sizeof(KaloExtEvent));
  EXPECT_EQ(e.kind, static_cast<uint32_t>(KALO_EXT_EVENT_NON_FINITE_SET_POINT));
  EXPECT_EQ(e.connection, connection);
  EXPECT_TRUE(std::isinf(e.value));
  EXPECT_EQ(e.threshold, static_cast<double>(std::numeric_limits<float>::max()));
  EXPECT_STREQ(kaloExtEventName(e.kind), "non-finite set-point");
}
