// 20 s at 10 kHz (KALO_SOAK_SECONDS=60 for a minute): the frame count must
// stay within 1% of the ideal, so pacing errors cannot accumulate. Labelled
// "soak" as well as "integration"; skipped in sanitizer builds, whose
// slowdown is not what this measures.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "raw_client.h"
#include "simulator.h"

using namespace std::chrono_literals;

TEST(SimSoak, TenKilohertzWithoutDrift) {
#ifdef KALO_SANITIZER_BUILD
  GTEST_SKIP() << "timing soak is meaningless under a sanitizer";
#endif
  kalo::sim::Config cfg;
  cfg.port = 0;
  cfg.period = 100us;
  cfg.record_received = false;
  kalo::sim::Simulator sim(cfg);
  ASSERT_TRUE(sim.start());
  kalo_test::RawClient client(sim.port(), false);
  client.hello();
  ASSERT_TRUE(client.wait_count(0, 1s));
  const char *wanted = std::getenv("KALO_SOAK_SECONDS");
  const int length_s = wanted != nullptr && std::atoi(wanted) > 0 ? std::atoi(wanted) : 20;
  std::this_thread::sleep_for(std::chrono::seconds(length_s));
  const uint64_t received = client.total();
  const auto [first, last] = client.span_ns();
  const auto stats = sim.stats();
  sim.stop();
  const double seconds = static_cast<double>(last - first) * 1e-9;
  const double ideal = seconds * 10000.0 + 1;
  const double drift = (static_cast<double>(received) - ideal) / ideal;
  std::printf("[ soak     ] %llu frames in %.3f s (ideal %.0f, drift %+.4f%%), %llu sent, %llu "
              "late ticks\n",
              static_cast<unsigned long long>(received), seconds, ideal, 100 * drift,
              static_cast<unsigned long long>(stats.frames_sent),
              static_cast<unsigned long long>(stats.late_ticks));
  EXPECT_GT(seconds, length_s - 1.0);
  EXPECT_LT(std::abs(drift), 0.01);
}
