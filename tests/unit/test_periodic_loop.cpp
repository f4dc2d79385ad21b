// The periodic loop on a context built by hand (no controller): the period's
// rounding to the controller's unit, the call frame's codes, start and stop
// (including from the periodic function itself), ticks, and overruns. The
// timing rules the exchange thread applies are checked on synthetic times.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "device/context.h"
#include "eventually.h"
#include "link/loop_rules.h"
#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"
#include "kalo/kalo_realtime.h"

namespace {

using namespace std::chrono_literals;

// Just what the loop calls need: magic, connection flag, lock and semaphores.
struct BareContext {
  KaloContext *ctx = new KaloContext();
  BareContext() {
    ctx->magic = kalo::kContextMagic;
    ctx->link.connected = 1;
    ctx->lifetime.holders = 1; // the test's, as kaloOpen gives the application's
    ctx->lock = TR_creer_semaphore_mutex();
    ctx->loop.loop_sem = TR_creer_semaphore_synchro();
    ctx->loop.loop_exited = TR_creer_semaphore_synchro();
    ctx->params.time_step = 0.1f;
    ctx->link.controller_version = 5.6f;
    ctx->params.output_stream = stdout;
  }
  ~BareContext() {
    if (ctx->loop.loop_task != nullptr || ctx->loop.loop_task_finishing != nullptr)
      kaloStopLoop(ctx);
    TR_detruire_semaphore(ctx->lock);
    TR_detruire_semaphore(ctx->loop.loop_sem);
    TR_detruire_semaphore(ctx->loop.loop_exited);
    delete ctx;
  }
  void tick() { TR_poster_semaphore(ctx->loop.loop_sem); }
};

using kalo_test::eventually;

struct Counter {
  std::atomic<int> calls{0};
  static void count(KaloContext *, void *self) { static_cast<Counter *>(self)->calls++; }
};

TEST(LoopPeriod, RoundsToWholeMillisecondsForNewControllersAndHalfRoundsDown) {
  BareContext b;
  Counter c;
  float period = 0.0015f;
  ASSERT_EQ(kaloSetPeriodicFunction(b.ctx, Counter::count, &period, &c), 0);
  EXPECT_EQ(b.ctx->loop.loop_period_ticks, 1);
  EXPECT_FLOAT_EQ(period, 0.001f);
  EXPECT_FLOAT_EQ(b.ctx->loop.loop_period_us.load(), 1000.0f);
  EXPECT_EQ(b.ctx->loop.periodic_user_data, &c);

  period = 0.0016f;
  ASSERT_EQ(kaloSetPeriodicFunction(b.ctx, Counter::count, &period, &c), 0);
  EXPECT_EQ(b.ctx->loop.loop_period_ticks, 2);
  EXPECT_FLOAT_EQ(period, 0.002f);

  period = 0.0f; // no lower bound: a loop ticked on every frame
  ASSERT_EQ(kaloSetPeriodicFunction(b.ctx, Counter::count, &period, &c), 0);
  EXPECT_EQ(b.ctx->loop.loop_period_ticks, 0);
  EXPECT_EQ(period, 0.0f);
}

TEST(LoopPeriod, ControllersUpToVersion5CountIn1024thsOfASecond) {
  BareContext b;
  b.ctx->link.controller_version = 5.0f; // not above 5.0
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(b.ctx, Counter::count, &period, nullptr), 0);
  EXPECT_EQ(b.ctx->loop.loop_period_ticks, 1);
  EXPECT_FLOAT_EQ(b.ctx->loop.loop_period_us.load(), 976.5625f);
  EXPECT_FLOAT_EQ(period, 0.0009765625f);
}

TEST(LoopPeriod, AnUnusablePeriodIsRefusedWithCode9) {
  BareContext b;
  float period = std::nanf("");
  EXPECT_EQ(kaloSetPeriodicFunction(b.ctx, Counter::count, &period, nullptr), -1);
  EXPECT_EQ(kaloGetErrorCode(b.ctx), KALO_ERROR_INCORRECT_VALUE);
  EXPECT_EQ(kaloSetPeriodicFunction(b.ctx, Counter::count, nullptr, nullptr), -1);
  EXPECT_EQ(kaloGetErrorCode(b.ctx), KALO_ERROR_INCORRECT_VALUE);
  EXPECT_EQ(b.ctx->loop.periodic_function, nullptr);
}

TEST(LoopCalls, FollowTheCallFrame) {
  kaloGlobalError = 0;
  float period = 0.001f;
  EXPECT_EQ(kaloSetPeriodicFunction(nullptr, Counter::count, &period, nullptr), -1);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_INVALID_CONTEXT);
  kaloGlobalError = 0;
  EXPECT_EQ(kaloStartLoop(nullptr), -1);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_INVALID_CONTEXT);

  BareContext b;
  b.ctx->magic = 0x4B414C4E;
  kaloGlobalError = 0;
  EXPECT_EQ(kaloStopLoop(b.ctx), -1);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_INVALID_CONTEXT);
  b.ctx->magic = kalo::kContextMagic;

  b.ctx->link.connected = 0;
  EXPECT_EQ(kaloStartLoop(b.ctx), -1);
  EXPECT_EQ(kaloGetErrorCode(b.ctx), KALO_ERROR_COMMUNICATION);
  b.ctx->link.connected = 1;

  EXPECT_EQ(kaloStartLoop(b.ctx), -1); // no function yet
  EXPECT_EQ(kaloGetErrorCode(b.ctx), KALO_ERROR_NO_PERIODIC_FUNCTION);
  EXPECT_EQ(b.ctx->loop.loop_task, nullptr);
}

TEST(LoopCalls, EachTickCallsTheFunctionOnceAndASecondStartGives22) {
  BareContext b;
  Counter c;
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(b.ctx, Counter::count, &period, &c), 0);
  ASSERT_EQ(kaloStartLoop(b.ctx), 0);
  EXPECT_EQ(kaloStartLoop(b.ctx), -1);
  EXPECT_EQ(kaloGetErrorCode(b.ctx), KALO_ERROR_LOOP_ALREADY_STARTED);
  EXPECT_EQ(b.ctx->loop.loop_running.load(), 1u);

  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(c.calls.load(), 0); // nothing without ticks
  for (int i = 0; i < 5; ++i)
    b.tick();
  EXPECT_TRUE(eventually([&] { return c.calls.load() == 5; }));

  ASSERT_EQ(kaloStopLoop(b.ctx), 0);
  EXPECT_EQ(b.ctx->loop.loop_task, nullptr);
  EXPECT_EQ(b.ctx->loop.loop_running.load(), 0u);
  b.tick();
  b.tick();
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(c.calls.load(), 5);

  // A stopped loop starts again on a new thread; stale ticks do not fire it.
  ASSERT_EQ(kaloStartLoop(b.ctx), 0);
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(c.calls.load(), 5);
  b.tick();
  EXPECT_TRUE(eventually([&] { return c.calls.load() == 6; }));
}

struct TimingReader {
  std::atomic<int> calls{0};
  KaloExtLoopTiming last{};
  static void run(KaloContext *ctx, void *self) {
    auto *r = static_cast<TimingReader *>(self);
    r->last.size = sizeof r->last;
    kaloExtGetLoopTiming(ctx, &r->last);
    r->calls++;
  }
};

TEST(LoopTiming, CountsCallsAndChecksItsArguments) {
  BareContext b;
  TimingReader r;
  float period = 0.001f;
  KaloExtLoopTiming t{};
  t.size = sizeof t;
  ASSERT_EQ(kaloExtGetLoopTiming(b.ctx, &t), 0); // before any call: zeros
  EXPECT_EQ(t.calls, 0u);
  ASSERT_EQ(kaloSetPeriodicFunction(b.ctx, TimingReader::run, &period, &r), 0);
  ASSERT_EQ(kaloStartLoop(b.ctx), 0);
  b.tick(); // a wake-up without a frame behind it: no time passed
  ASSERT_TRUE(eventually([&] { return r.calls.load() == 1; }));
  EXPECT_EQ(r.last.size, sizeof r.last);
  EXPECT_EQ(r.last.calls, 1u);
  EXPECT_EQ(r.last.frames, 0u);
  EXPECT_EQ(r.last.controller_elapsed, 0.0);
  std::this_thread::sleep_for(5ms); // more than 1.5 periods
  b.tick();
  ASSERT_TRUE(eventually([&] { return r.calls.load() == 2; }));
  EXPECT_EQ(r.last.late, 1u);
  EXPECT_EQ(r.last.late_calls, 1u);
  ASSERT_EQ(kaloStopLoop(b.ctx), 0);

  // A short record is filled up to its size; a bad one is refused.
  KaloExtLoopTiming small{};
  small.size = 8;
  small.calls = 77;
  ASSERT_EQ(kaloExtGetLoopTiming(b.ctx, &small), 0);
  EXPECT_EQ(small.size, 8u);
  EXPECT_EQ(small.calls, 77u);
  small.size = 7;
  EXPECT_EQ(kaloExtGetLoopTiming(b.ctx, &small), -1);
  EXPECT_EQ(kaloGetErrorCode(b.ctx), KALO_ERROR_INCORRECT_VALUE);
  EXPECT_EQ(kaloExtGetLoopTiming(b.ctx, nullptr), -1);
  kaloGlobalError = 0;
  EXPECT_EQ(kaloExtGetLoopTiming(nullptr, &t), -1);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_INVALID_CONTEXT);

  for (double bad : {-0.01, 1.01, std::nan("")}) {
    b.ctx->error_code = 0;
    EXPECT_EQ(kaloExtSetLoopLateThreshold(b.ctx, bad), -1) << bad;
    EXPECT_EQ(kaloGetErrorCode(b.ctx), KALO_ERROR_INCORRECT_VALUE);
  }
  EXPECT_EQ(b.ctx->loop.late_share_threshold.load(), 0.02); // the default, untouched
  EXPECT_EQ(kaloExtSetLoopLateThreshold(b.ctx, 0.05), 0);
  EXPECT_EQ(b.ctx->loop.late_share_threshold.load(), 0.05);
}

struct Slow {
  std::atomic<bool> inside{false};
  std::atomic<bool> finished{false};
  std::atomic<int> calls{0};
  static void run(KaloContext *, void *self) {
    auto *s = static_cast<Slow *>(self);
    s->calls++;
    s->inside = true;
    std::this_thread::sleep_for(150ms);
    s->finished = true;
  }
};

TEST(LoopCalls, StopReturnsOnlyAfterTheCurrentCallEnded) {
  BareContext b;
  Slow s;
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(b.ctx, Slow::run, &period, &s), 0);
  ASSERT_EQ(kaloStartLoop(b.ctx), 0);
  b.tick();
  b.tick(); // queued: must not run once stopped
  ASSERT_TRUE(eventually([&] { return s.inside.load(); }));
  ASSERT_EQ(kaloStopLoop(b.ctx), 0);
  EXPECT_TRUE(s.finished.load());
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(s.calls.load(), 1);
  EXPECT_EQ(b.ctx->loop.loop_task_finishing, nullptr); // the handle was released
}

struct SelfStopper {
  std::atomic<int> calls{0};
  std::atomic<int> stop_result{1};
  static void run(KaloContext *ctx, void *self) {
    auto *s = static_cast<SelfStopper *>(self);
    if (++s->calls == 2)
      s->stop_result = kaloStopLoop(ctx);
  }
};

TEST(LoopCalls, TheFunctionMayStopItsOwnLoopAndTheLoopRestartsLater) {
  BareContext b;
  SelfStopper s;
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(b.ctx, SelfStopper::run, &period, &s), 0);
  ASSERT_EQ(kaloStartLoop(b.ctx), 0);
  b.tick();
  b.tick();
  b.tick();
  ASSERT_TRUE(eventually([&] { return s.stop_result.load() == 0; }));
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(s.calls.load(), 2);
  EXPECT_EQ(b.ctx->loop.loop_running.load(), 0u);

  // The next start waits for the stopped thread and frees its handle.
  ASSERT_EQ(kaloStartLoop(b.ctx), 0);
  EXPECT_EQ(b.ctx->loop.loop_task_finishing, nullptr);
  b.tick();
  EXPECT_TRUE(eventually([&] { return s.calls.load() == 3; }));
}

struct Sleeper {
  std::chrono::milliseconds length;
  std::atomic<int> calls{0};
  static void run(KaloContext *, void *self) {
    auto *s = static_cast<Sleeper *>(self);
    std::this_thread::sleep_for(s->length);
    s->calls++;
  }
};

std::string read_all(FILE *f) {
  std::fflush(f);
  std::rewind(f);
  std::string text;
  char buffer[256];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0)
    text.append(buffer, n);
  return text;
}

TEST(LoopOverrun, ALongCallIsRecordedAndPrintedWhenDebugBit0IsSet) {
  BareContext b;
  FILE *out = std::tmpfile();
  ASSERT_NE(out, nullptr);
  b.ctx->params.output_stream = out;
  b.ctx->params.debug_flags = 1;
  Sleeper s{150ms};
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(b.ctx, Sleeper::run, &period, &s), 0);
  ASSERT_EQ(kaloStartLoop(b.ctx), 0);
  b.tick();
  ASSERT_TRUE(eventually([&] { return s.calls.load() == 1; }));
  ASSERT_EQ(kaloStopLoop(b.ctx), 0);
  EXPECT_EQ(b.ctx->loop.loop_overrun.load(), 1u);
  int ms = -1;
  const std::string text = read_all(out);
  ASSERT_EQ(std::sscanf(text.c_str(), "Overrun de %d ms\n", &ms), 1) << text;
  EXPECT_EQ(text, "Overrun de " + std::to_string(ms) + " ms\n");
  EXPECT_GE(ms, 50); // 150 ms against a 100 ms time step
  EXPECT_LT(ms, 90);
  EXPECT_GE(b.ctx->loop.loop_start_time.load(), 150000u); // the call's duration

  // Debug bit clear: recorded, not printed. A short call clears the record.
  b.ctx->params.debug_flags = 0;
  ASSERT_EQ(kaloStartLoop(b.ctx), 0);
  b.tick();
  ASSERT_TRUE(eventually([&] { return s.calls.load() == 2; }));
  EXPECT_TRUE(eventually([&] { return b.ctx->loop.loop_overrun.load() == 1u; }));
  s.length = 1ms;
  b.tick();
  ASSERT_TRUE(eventually([&] { return s.calls.load() == 3; }));
  EXPECT_TRUE(eventually([&] { return b.ctx->loop.loop_overrun.load() == 0u; }));
  ASSERT_EQ(kaloStopLoop(b.ctx), 0);
  EXPECT_EQ(read_all(out), text);
  std::fclose(out);
}

TEST(LoopRules, OverrunThresholdIsOneMillisecondBeyondTheTimeStep) {
  const uint64_t allowed = kalo::allowed_call_us(0.1f);
  EXPECT_EQ(allowed, 100000u);
  EXPECT_TRUE(kalo::call_overran(101000, allowed));
  EXPECT_FALSE(kalo::call_overran(100900, allowed));
  EXPECT_EQ(kalo::overrun_ms(150000, allowed), 50);
  EXPECT_EQ(kalo::overrun_ms(150999, allowed), 50);
}

// Runs the exchange thread's tick rule over frames arriving every
// frame_period_us and counts the ticks.
int ticks_over(int frames, uint64_t frame_period_us, float loop_period_us) {
  uint64_t last_tick = 0;
  int ticks = 0;
  for (int k = 1; k <= frames; ++k) {
    const uint64_t now = static_cast<uint64_t>(k) * frame_period_us;
    if (kalo::loop_tick_due(now, last_tick, loop_period_us)) {
      last_tick = now;
      ++ticks;
    }
  }
  return ticks;
}

TEST(LoopRules, TickRuleFiresTwoHundredMicrosecondsEarly) {
  EXPECT_EQ(ticks_over(100, 900, 1000.0f), 100); // every frame
  EXPECT_EQ(ticks_over(100, 500, 1000.0f), 50);  // every second frame
  EXPECT_EQ(ticks_over(100, 799, 1000.0f), 50);  // 799 us is below the 800 us threshold
  EXPECT_EQ(ticks_over(100, 1000, 0.0f), 100);   // a zero period ticks on every frame
  // A tick time later than the frame (clock read after the frame) is not a huge gap.
  EXPECT_FALSE(kalo::loop_tick_due(1000, 1010, 1000.0f));
}

// One frame for the ticker: arrival (us), stamp (us), whether it is stamped.
struct Frame {
  uint64_t arrival;
  uint32_t stamp;
  bool stamped;
};

// Runs frames through a running loop's ticker (the first frame only sets the
// reference, as a frame before the start does) and returns which ticked.
std::string ticks_of(const std::vector<Frame> &frames, float period_us = 1000.0f) {
  kalo::LoopTicker ticker;
  std::string out;
  for (size_t k = 0; k < frames.size(); ++k) {
    const kalo::TickFrame f{frames[k].arrival, frames[k].stamp, frames[k].stamped};
    if (k == 0)
      ticker.rest(f);
    else
      out += ticker.due(f, period_us) ? 'T' : '.';
  }
  return out;
}

// Frames every `step` us of the controller's clock starting at `stamp0`,
// arriving `delay[k]` us late.
std::vector<Frame> stamped(int n, uint32_t step, uint32_t stamp0, std::vector<uint64_t> delay = {},
                           bool with_stamps = true) {
  std::vector<Frame> frames;
  for (int k = 0; k < n; ++k) {
    const uint64_t late = static_cast<size_t>(k) < delay.size() ? delay[static_cast<size_t>(k)] : 0;
    frames.push_back({1000000 + static_cast<uint64_t>(k) * step + late,
                      stamp0 + static_cast<uint32_t>(k) * step, with_stamps});
  }
  return frames;
}

TEST(LoopTicker, TicksInTheControllersTimeAndKeepsTheDefinedCases) {
  const std::vector<uint64_t> jitter = {0, 0, 400, 0, 0, 350, 0, 0, 0};
  struct Case {
    const char *what;
    std::vector<Frame> frames;
    std::string ticks;
  } cases[] = {
      {"900 us frames tick every frame", stamped(7, 900, 5000), "TTTTTT"},
      {"500 us frames tick every second frame", stamped(9, 500, 5000), ".T.T.T.T"},
      {"the first tick waits a whole period", stamped(4, 300, 5000), "..T"},
      {"a delayed frame costs the next one nothing", stamped(9, 1000, 5000, jitter), "TTTTTTTT"},
      {"stamps that wrap around", stamped(6, 1000, 0xFFFFF000u), "TTTTT"},
      {"a lost frame: the next ticks", {{1000, 100, true}, {3000, 2100, true}}, "T"},
      // Without stamps the arrival times decide, as they always did: the
      // delayed frame makes the punctual one after it miss its tick.
      {"no stamps: arrival times", stamped(9, 1000, 5000, jitter, false), "TT.TT.TT"},
      {"no stamps: 500 us frames", stamped(5, 500, 0, {}, false), ".T.T"},
      {"a constant stamp is no stamp", {{0, 7, true}, {900, 7, true}, {1400, 7, true}}, "T."},
      {"a reordered frame does not tick",
       {{0, 5000, true}, {1000, 6000, true}, {1100, 5500, true}, {2000, 7000, true}},
       "T.T"},
      {"a controller restarting from a small stamp ticks at once",
       {{0, 90000000, true}, {1000, 90001000, true}, {1500, 10, true}, {2500, 1010, true}},
       "TTT"},
  };
  for (const Case &c : cases) {
    const std::string ticks = ticks_of(c.frames);
    EXPECT_EQ(ticks.substr(0, c.ticks.size()), c.ticks) << c.what;
  }
}

TEST(LoopTicker, TellsTheControllersElapsedTimeBetweenTicks) {
  kalo::LoopTicker t;
  t.rest({0, 1000, true});
  ASSERT_TRUE(t.due({1200, 2000, true}, 1000.0f)); // arrived 200 us late
  EXPECT_EQ(t.elapsed_clock_us(), 1000u);
  EXPECT_EQ(t.elapsed_arrival_us(), 1200u);
  ASSERT_TRUE(t.due({2000, 3000, true}, 1000.0f));
  EXPECT_EQ(t.elapsed_clock_us(), 1000u);
  EXPECT_EQ(t.elapsed_arrival_us(), 800u);
  EXPECT_FALSE(t.due({2600, 3500, true}, 1000.0f)); // 500 us frames from here
  ASSERT_TRUE(t.due({3000, 4000, true}, 1000.0f));
  EXPECT_EQ(t.elapsed_clock_us(), 1000u);
  ASSERT_TRUE(t.due({5000, 6000, true}, 1000.0f)); // a frame lost
  EXPECT_EQ(t.elapsed_clock_us(), 2000u);
  EXPECT_EQ(t.clock_us(), 5000u);
  // A controller that stops stamping: its time is the arrival time.
  ASSERT_TRUE(t.due({6100, 0, false}, 1000.0f));
  EXPECT_EQ(t.elapsed_clock_us(), 1100u);
}

TEST(LateWatch, RaisesAtMostOnceASecondWhenTheShareOfLateCallsExceedsTheThreshold) {
  kalo::LateWatch w;
  double share = -1;
  int events = 0;
  uint64_t first_event = 0;
  // 1 kHz, every 40th call late (2.5 %), for 3 s.
  for (uint64_t k = 0; k < 3000; ++k) {
    if (w.add(k * 1000, k % 40 == 39, 0.02, &share)) {
      if (events++ == 0)
        first_event = k * 1000;
      EXPECT_NEAR(share, 0.025, 0.002);
    }
  }
  EXPECT_GE(first_event, 900000u); // judged once the window spans a second
  EXPECT_LT(first_event, 1100000u);
  EXPECT_EQ(events, 3); // at 0.9 s, then one a second: 1.9 s, 2.9 s

  // Below the threshold: nothing. The window moves: old late calls leave it.
  kalo::LateWatch quiet;
  int raised = 0;
  for (uint64_t k = 0; k < 3000; ++k) {
    const bool late = k < 100 || k % 100 == 99; // a bad start, then 1 %
    raised += quiet.add(k * 1000, late, 0.02, &share) ? 1 : 0;
  }
  EXPECT_EQ(raised, 1); // the bad start, once the window is judged; then never again
  EXPECT_NEAR(share, 0.01, 0.002);
}

} // namespace
