// Lifetimes: repeated open/close leaves no thread and no heap block behind; a
// controller that goes silent under the watchdog and a link whose sends fail
// both turn every call into code 2, and kaloClose still releases everything;
// the periodic function's calls during a close are answered, and a function
// that does not come back (a host's shutdown stopped its thread) holds the
// close up only for the close's limits.
#include "core_support.h"

#include "alloc_counter.h"

#include <future>

#include <sys/socket.h>

namespace {

using namespace core_test;

TEST(CoreLifetime, OpenCloseCyclesLeaveNoThreadAndNoHeapBlockBehind) {
  auto cfg = sim_config();
  cfg.record_received = false; // the simulator's own memory must not move
  kalo::sim::Simulator sim(cfg);
  ASSERT_TRUE(sim.start());
  const std::string url = url_for(free_udp_port(), sim.port());
  const int threads = thread_count();

  auto cycle = [&] {
    KaloContext *ctx = kaloOpen(url.c_str());
    ASSERT_NE(ctx, nullptr) << kaloGlobalError;
    EXPECT_EQ(kaloClose(ctx), 0);
    EXPECT_TRUE(eventually([&] { return thread_count() == threads; }, 1000ms));
  };
  // The first cycle fills the C library's caches; from then on a cycle gives
  // back every block it took, so anything a context leaks shows each time.
  cycle();
  for (int i = 0; i < 3; ++i) {
    const long before = kalo_test::live_blocks();
    cycle();
    std::printf("cycle %d: %ld heap blocks left\n", i, kalo_test::live_blocks() - before);
#ifndef KALO_SANITIZER_BUILD
    EXPECT_LE(kalo_test::live_blocks(), before) << "cycle " << i;
#endif
  }
}

// Starts the watchdog as an application could, through the context's handle.
void start_watchdog(KaloContext *ctx) {
  kalo::ContextLock hold(ctx);
  ctx->link.watchdog_task = TR_creer_tache("WDOG", 1, 18000, _watchdogCtlThread, ctx);
  ASSERT_NE(ctx->link.watchdog_task, nullptr);
}

TEST(CoreLifetime, ASilentControllerUnderTheWatchdogTurnsCallsIntoCode2AndCloseStillReturns) {
  const int threads = thread_count();
  Link link(sim_config());
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  start_watchdog(link.ctx);
  std::this_thread::sleep_for(300ms);
  ASSERT_EQ(kaloGetRobotNumberOfControlPoints(link.ctx), 0); // frames flow: connected

  link.sim.go_silent(5000ms);
  const auto silent_at = std::chrono::steady_clock::now();
  ASSERT_TRUE(
      eventually([&] { return kaloGetRobotNumberOfControlPoints(link.ctx) == -1; }, 2000ms));
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - silent_at)
          .count();
  std::printf("calls failed %.0f ms after the controller went silent\n", ms);
  EXPECT_LE(ms, 300.0);
  EXPECT_EQ(kaloGetErrorCode(link.ctx), KALO_ERROR_COMMUNICATION);

  kaloGlobalError = 0;
  KaloContext *ctx = link.ctx;
  link.ctx = nullptr;
  EXPECT_EQ(kaloClose(ctx), -1); // released, but the link had failed
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_COMMUNICATION);
  link.sim.stop();
  EXPECT_TRUE(eventually([&] { return thread_count() == threads; }, 1000ms));
}

TEST(CoreLifetime, TheWatchdogLeavesAStreamingConnectionAloneAndEndsWithTheClose) {
  const int threads = thread_count();
  Link link(sim_config());
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  start_watchdog(link.ctx);
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(kaloGetRobotNumberOfControlPoints(link.ctx), 0);
  EXPECT_EQ(link.close(), 0);
  EXPECT_TRUE(eventually([&] { return thread_count() == threads; }, 1000ms));
}

TEST(CoreLifetime, AFailedSendDisconnectsAndTheApplicationsCloseReleasesEverything) {
  const int threads = thread_count();
  Link link(sim_config());
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  // From now on every send of the library fails (EPIPE); receiving goes on.
  shutdown(link.ctx->link.session, SHUT_WR);
  mark(link.ctx, Field::outputs, [](ExchangeRecord &r) { r.outputs = 1; });
  ASSERT_TRUE(eventually([&] { return link.ctx->link.connected.load() == 0; }, 1000ms));
  EXPECT_EQ(kaloGetRobotNumberOfControlPoints(link.ctx), -1);
  EXPECT_EQ(kaloGetErrorCode(link.ctx), KALO_ERROR_COMMUNICATION);

  kaloGlobalError = 0;
  KaloContext *ctx = link.ctx;
  link.ctx = nullptr;
  EXPECT_EQ(kaloClose(ctx), -1);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_COMMUNICATION);
  link.sim.stop();
  EXPECT_TRUE(eventually([&] { return thread_count() == threads; }, 1000ms));
}

// Asks the controller something on every call, as a loop that reads a
// parameter would; counts the calls that failed.
struct Asking {
  std::atomic<int> calls{0};
  std::atomic<int> failed{0};
  static void run(KaloContext *ctx, void *self) {
    auto *s = static_cast<Asking *>(self);
    int32_t major = 0, minor = 0;
    if (kaloGetControlerVersion(ctx, &major, &minor) != 0 || major != 6)
      s->failed++;
    s->calls++;
  }
};

TEST(CoreLifetime, ThePeriodicFunctionsCallsDuringTheCloseAreAnswered) {
  Link link(sim_config());
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  // The context is held by the application and by each running thread: the
  // last to let go releases it, never one of them under another.
  EXPECT_EQ(link.ctx->lifetime.holders.load(), 2u);
  Asking asking;
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(link.ctx, Asking::run, &period, &asking), 0);
  ASSERT_EQ(kaloStartLoop(link.ctx), 0);
  EXPECT_EQ(link.ctx->lifetime.holders.load(), 3u);
  ASSERT_TRUE(eventually([&] { return asking.calls.load() >= 5; }));
  EXPECT_EQ(link.close(), 0);
  EXPECT_EQ(asking.failed.load(), 0) << "of " << asking.calls.load() << " calls";
}

// A function that stays in its call until the test lets it out, then tries
// the arm once more.
struct Stuck {
  std::atomic<bool> inside{false};
  std::atomic<bool> let_out{false};
  std::atomic<int> after_result{1};
  std::atomic<int> after_code{0};
  static void run(KaloContext *ctx, void *self) {
    auto *s = static_cast<Stuck *>(self);
    if (s->inside.exchange(true))
      return;
    while (!s->let_out.load())
      std::this_thread::sleep_for(1ms);
    float pose[7];
    s->after_result = kaloGetPosition(ctx, pose);
    s->after_code = kaloGlobalError;
  }
};

TEST(CoreLifetime, AFunctionThatDoesNotComeBackHoldsTheCloseOnlyForItsLimits) {
  const int threads = thread_count();
  Link link(sim_config());
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  Stuck stuck;
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(link.ctx, Stuck::run, &period, &stuck), 0);
  ASSERT_EQ(kaloStartLoop(link.ctx), 0);
  ASSERT_TRUE(eventually([&] { return stuck.inside.load(); }));

  KaloContext *ctx = link.ctx;
  link.ctx = nullptr;
  auto closing = std::async(std::launch::async, [ctx] { return kaloClose(ctx); });
  // While that close waits for the stuck call (the loop thread's hold keeps
  // the record), a second close of the same handle is refused, -1 and code 3,
  // and leaves the first one to finish.
  ASSERT_TRUE(eventually([&] { return ctx->lifetime.close_claimed.load() != 0; }, 1000ms));
  EXPECT_EQ(kaloClose(ctx), -1);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_INVALID_CONTEXT);
  const bool returned = closing.wait_for(10s) == std::future_status::ready;
  EXPECT_TRUE(returned) << "kaloClose waits for a call that never ends";
  EXPECT_TRUE(link.sim.wait_for_frame_with(Field::close_request, 1000ms).has_value());
  // The close is over: the function's next call is refused as on a closed
  // handle, and its thread ends and takes the context with it.
  stuck.let_out = true;
  EXPECT_EQ(closing.get(), 0);
  ASSERT_TRUE(eventually([&] { return stuck.after_result.load() != 1; }, 1000ms));
  EXPECT_EQ(stuck.after_result.load(), -1);
  EXPECT_EQ(stuck.after_code.load(), KALO_ERROR_INVALID_CONTEXT);
  link.sim.stop();
  EXPECT_TRUE(eventually([&] { return thread_count() == threads; }, 1000ms));
}

} // namespace
