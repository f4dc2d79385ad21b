// The periodic loop on a context built by hand (no controller): the period's
// rounding to the controller's unit, the call frame's codes, start and stop
// (including from the periodic function itself), ticks, and overruns. The
// timing rules the exchange thread applies are checked on synthetic times.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "device/context.h"
#include "eventually.h"
#include "link/loop_rules.h"
#include "kalo/kalo.h"
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

} // namespace
