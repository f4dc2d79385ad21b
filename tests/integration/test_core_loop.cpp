// The periodic loop driven by a real exchange: the tick rule at two frame
// rates, and closing while the periodic function runs or from inside it.
#include "core_support.h"

#include <atomic>
#include <cmath>
#include <memory>

#include "kalo/kalo_ext.h"

namespace {

using namespace core_test;

struct Calls {
  std::atomic<int> n{0};
  static void count(KaloContext *, void *self) { static_cast<Calls *>(self)->n++; }
};

// Runs a 1 ms loop for a while against frames every frame_period and returns
// the loop's calls per received state frame.
double calls_per_frame(std::chrono::microseconds frame_period) {
  auto cfg = sim_config();
  cfg.period = frame_period;
  cfg.realtime = true; // steady frames make the ratio meaningful
  Link link(cfg);
  if (!link.open()) {
    ADD_FAILURE() << "open failed: " << kaloGlobalError;
    return 0;
  }
  Calls calls;
  float period = 0.001f;
  EXPECT_EQ(kaloSetPeriodicFunction(link.ctx, Calls::count, &period, &calls), 0);
  EXPECT_FLOAT_EQ(period, 0.001f);
  EXPECT_EQ(kaloStartLoop(link.ctx), 0);
  std::this_thread::sleep_for(100ms);
  uint64_t frames0;
  {
    kalo::ContextLock hold(link.ctx);
    frames0 = link.ctx->link.frames_received;
  }
  const int calls0 = calls.n.load();
  std::this_thread::sleep_for(1000ms);
  uint64_t frames1;
  {
    kalo::ContextLock hold(link.ctx);
    frames1 = link.ctx->link.frames_received;
  }
  const int calls1 = calls.n.load();
  EXPECT_EQ(kaloStopLoop(link.ctx), 0);
  const double ratio =
      static_cast<double>(calls1 - calls0) / static_cast<double>(frames1 - frames0);
  std::printf("frames every %lld us: %llu frames, %d calls (%.3f per frame)\n",
              static_cast<long long>(frame_period.count()),
              static_cast<unsigned long long>(frames1 - frames0), calls1 - calls0, ratio);
  return ratio;
}

// The tick fires 200 us early: a 1 ms loop is called on every frame when
// frames come every 900 us, and on every second frame at 500 us. Scheduling
// jitter can bunch frames and drop a tick now and then, hence the margins.
TEST(CoreLoop, FramesEvery900usTickA1msLoopOnEveryFrame) {
  const double ratio = calls_per_frame(std::chrono::microseconds(900));
  EXPECT_GT(ratio, 0.6); // a rule without the early margin would give about 0.5
  EXPECT_LE(ratio, 1.0);
}

TEST(CoreLoop, FramesEvery500usTickA1msLoopOnEverySecondFrame) {
  const double ratio = calls_per_frame(std::chrono::microseconds(500));
  EXPECT_GT(ratio, 0.35);
  EXPECT_LT(ratio, 0.55);
}

// What each periodic call learnt from kaloExtGetLoopTiming.
struct TimingLog {
  std::atomic<int> n{0};
  KaloExtLoopTiming seen[400];
  static void run(KaloContext *ctx, void *self) {
    auto *log = static_cast<TimingLog *>(self);
    const int k = log->n.load();
    if (k >= 400)
      return;
    log->seen[k].size = sizeof(KaloExtLoopTiming);
    if (kaloExtGetLoopTiming(ctx, &log->seen[k]) != 0)
      log->seen[k].calls = 0;
    log->n = k + 1;
  }
};

// Frames lost and frames delayed (less than a period, so never reordered):
// each call is told the controller's time since the previous one, which adds
// up to the stamps', in whole periods (none for a call that follows a late one
// back to back), and every frame that arrives is counted once.
TEST(CoreLoop, EachCallLearnsTheControllersElapsedTimeThroughLossAndDelay) {
  auto cfg = sim_config();
  cfg.faults.drop_ratio = 0.1;
  cfg.faults.delay_ratio = 0.2;
  cfg.faults.delay_us = 400;
  Link link(cfg);
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  auto log = std::make_unique<TimingLog>();
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(link.ctx, TimingLog::run, &period, log.get()), 0);
  ASSERT_EQ(kaloStartLoop(link.ctx), 0);
  ASSERT_TRUE(eventually([&] { return log->n.load() == 400; }, 5000ms));
  ASSERT_EQ(kaloStopLoop(link.ctx), 0);

  int two_periods = 0;
  uint64_t frames = 0;
  for (int k = 1; k < 400; ++k) {
    const KaloExtLoopTiming &t = log->seen[k];
    ASSERT_EQ(t.size, sizeof t);
    EXPECT_EQ(t.calls, log->seen[k - 1].calls + 1);
    const auto stamps_us = static_cast<double>(t.stamp - log->seen[k - 1].stamp);
    EXPECT_NEAR(t.controller_elapsed, stamps_us * 1e-6, 1e-9) << "call " << k;
    const double periods = std::round(t.controller_elapsed / 0.001);
    // Whole periods, within what the simulator's stamping jitters (a
    // simulator held off for 50 ms or more starts a new schedule).
    if (t.controller_elapsed < 0.05) {
      EXPECT_NEAR(t.controller_elapsed, periods * 0.001, 250e-6) << "call " << k;
    }
    EXPECT_EQ(periods == 0.0, t.frames == 0) << "call " << k;
    EXPECT_EQ(t.arrival_elapsed > 0.0, t.frames > 0) << "call " << k;
    two_periods += periods == 2.0 && t.frames == 1 ? 1 : 0;
    frames += t.frames;
  }
  EXPECT_GT(two_periods, 10); // about 10 % lost
  // No frame counted twice: at most one a period of the stamps covered.
  const double covered = static_cast<double>(log->seen[399].stamp - log->seen[0].stamp) * 1e-3;
  EXPECT_LE(static_cast<double>(frames), covered + 1);
}

struct SlowCalls {
  std::atomic<int> n{0};
  std::atomic<bool> inside{false};
  static void run(KaloContext *ctx, void *self) {
    auto *s = static_cast<SlowCalls *>(self);
    s->inside = true;
    kaloGetRobotNumberOfControlPoints(ctx); // the function may use the API
    std::this_thread::sleep_for(30ms);
    s->n++;
  }
};

TEST(CoreLoop, CloseWaitsForTheRunningCallAndNoCallFollows) {
  Link link(sim_config());
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  SlowCalls calls;
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(link.ctx, SlowCalls::run, &period, &calls), 0);
  ASSERT_EQ(kaloStartLoop(link.ctx), 0);
  ASSERT_TRUE(eventually([&] { return calls.inside.load(); }));
  EXPECT_EQ(link.close(), 0);
  const int after_close = calls.n.load();
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(calls.n.load(), after_close);
}

struct SelfCloser {
  std::atomic<int> result{1};
  std::atomic<bool> done{false};
  static void run(KaloContext *ctx, void *self) {
    auto *s = static_cast<SelfCloser *>(self);
    if (s->done.load())
      return;
    s->result = kaloClose(ctx);
    s->done = true;
  }
};

TEST(CoreLoop, ThePeriodicFunctionMayCloseItsOwnConnection) {
  const int threads_before = thread_count();
  kalo::sim::Simulator sim(sim_config());
  ASSERT_TRUE(sim.start());
  KaloContext *ctx = kaloOpen(url_for(free_udp_port(), sim.port()).c_str());
  ASSERT_NE(ctx, nullptr) << kaloGlobalError;
  SelfCloser closer;
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(ctx, SelfCloser::run, &period, &closer), 0);
  ASSERT_EQ(kaloStartLoop(ctx), 0);
  ASSERT_TRUE(eventually([&] { return closer.done.load(); }, 5000ms));
  EXPECT_EQ(closer.result.load(), 0);
  EXPECT_TRUE(sim.wait_for_frame_with(Field::close_request, 1000ms).has_value());
  sim.stop();
  // Both the exchange thread and the loop thread are gone.
  EXPECT_TRUE(eventually([&] { return thread_count() == threads_before; }, 1000ms));
}

} // namespace
