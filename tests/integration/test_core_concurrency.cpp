// Four application threads and the periodic loop share one connection for
// ten seconds: every thread writes its own command field with increasing
// values and asks the controller questions. The controller must see every
// field's values only grow and end on the last value written, and every
// question must be answered. Run under ThreadSanitizer in CI.
#include "core_support.h"

#include <array>
#include <atomic>
#include <vector>

namespace {

using namespace core_test;

constexpr int kThreads = 4;
// One integer command field per thread.
constexpr std::array<Field, kThreads> kFields = {Field::force_feedback_enabled,
                                                 Field::force_shift_button,
                                                 Field::gripper_command_type, Field::outputs};

int32_t &member_of(ExchangeRecord &r, Field field) {
  switch (field) {
  case Field::force_feedback_enabled:
    return r.force_feedback_enabled;
  case Field::force_shift_button:
    return r.force_shift_button;
  case Field::gripper_command_type:
    return r.gripper_command_type;
  default:
    return r.outputs;
  }
}

struct LoopWork {
  std::atomic<int> calls{0};
  std::atomic<int> failures{0};
  static void run(KaloContext *ctx, void *self) {
    auto *w = static_cast<LoopWork *>(self);
    if (kaloGetRobotNumberOfControlPoints(ctx) != 0 || kaloGetNumberOfAxes(ctx) != 0)
      w->failures++;
    mark(ctx, Field::control_connection_disabled,
         [](ExchangeRecord &r) { r.control_connection_disabled = 0; });
    w->calls++;
  }
};

TEST(CoreConcurrency, FourThreadsAndTheLoopForTenSeconds) {
  auto cfg = sim_config();
  cfg.max_recorded = 1000000;
  Link link(cfg);
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  KaloContext *ctx = link.ctx;
  link.sim.take_received();

  LoopWork loop;
  float period = 0.001f;
  ASSERT_EQ(kaloSetPeriodicFunction(ctx, LoopWork::run, &period, &loop), 0);
  ASSERT_EQ(kaloStartLoop(ctx), 0);

  std::atomic<bool> stop{false};
  std::array<int32_t, kThreads> last_written{};
  std::array<int, kThreads> failed_calls{};
  std::array<int, kThreads> questions{};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      int32_t value = 0;
      int n = 0;
      while (!stop.load()) {
        ++value;
        mark(ctx, kFields[t], [&](ExchangeRecord &r) { member_of(r, kFields[t]) = value; });
        if (kaloGetRobotNumberOfControlPoints(ctx) != 0)
          failed_calls[t]++;
        if (++n % 50 == 0) {
          int32_t major = 0, minor = 0;
          if (kaloGetControlerVersion(ctx, &major, &minor) != 0 || major != 6)
            failed_calls[t]++;
          questions[t]++;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200 + 100 * t));
      }
      last_written[t] = value;
    });
  }
  std::this_thread::sleep_for(4s);
  stop = true;
  for (auto &th : threads)
    th.join();
  ASSERT_EQ(kaloStopLoop(ctx), 0);
  std::this_thread::sleep_for(50ms); // the last marks go out with the next frames

  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(failed_calls[t], 0) << "thread " << t;
    EXPECT_GT(questions[t], 10) << "thread " << t;
  }
  EXPECT_EQ(loop.failures.load(), 0);
  EXPECT_GT(loop.calls.load(), 2000); // about 4,000 frames in 4 s
  EXPECT_EQ(kaloGetErrorCode(ctx), 0);

  // Every field's values only grow at the controller, and the last one arrived.
  std::array<int32_t, kThreads> seen{};
  std::array<int, kThreads> carried{};
  for (auto &f : link.sim.take_received()) {
    for (int t = 0; t < kThreads; ++t) {
      if (!f.has(kFields[t]))
        continue;
      const int32_t v = member_of(f.record, kFields[t]);
      EXPECT_GT(v, seen[t]) << "thread " << t << "'s field went back";
      seen[t] = v;
      carried[t]++;
    }
  }
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(seen[t], last_written[t]) << "thread " << t;
    EXPECT_GT(carried[t], 1000) << "thread " << t;
  }
}

} // namespace
