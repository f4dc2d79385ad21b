// Opening and closing against the simulator: the URL spellings and ports that
// reach the controller, the refusal of bad URLs, and the failure when no
// controller answers.
#include "core_support.h"

#include <arpa/inet.h>
#include <chrono>

namespace {

using namespace core_test;

// Ports of this file: 23100-23119.

TEST(CoreConnection, ThreeSpellingsOfOneHostOpenWithTheGivenPorts) {
  const char *spellings[] = {"localhost:23101#23100", "udpxdr://localhost:23102#23100",
                             "url:localhost:23103#23100"};
  const uint16_t local_ports[] = {23101, 23102, 23103};
  kalo::sim::Simulator sim(sim_config(23100));
  ASSERT_TRUE(sim.start());
  for (int i = 0; i < 3; ++i) {
    sim.take_received();
    KaloContext *ctx = kaloOpen(spellings[i]);
    ASSERT_NE(ctx, nullptr) << spellings[i] << ": error " << kaloGlobalError;
    const auto frames = sim.take_received();
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(ntohs(frames.front().from.sin_port), local_ports[i]) << spellings[i];
    EXPECT_EQ(kaloClose(ctx), 0);
    // The closing request reached the controller.
    EXPECT_TRUE(sim.wait_for_frame_with(37, 1000ms).has_value()) << spellings[i];
  }
}

TEST(CoreConnection, DefaultPortsAre5000AndTheFirstFreeOfTheLocalRange) {
  kalo::sim::Simulator sim(sim_config(5000));
  if (!sim.start())
    GTEST_SKIP() << "port 5000 is in use on this machine";
  KaloContext *ctx = kaloOpen("localhost");
  ASSERT_NE(ctx, nullptr) << kaloGlobalError;
  const auto frames = sim.take_received();
  ASSERT_FALSE(frames.empty());
  const int port = ntohs(frames.front().from.sin_port);
  EXPECT_GE(port, 3131);
  EXPECT_LE(port, 3140);
  EXPECT_EQ(kaloClose(ctx), 0);
}

TEST(CoreConnection, APlusSuffixOfTheControllerPortIsIgnored) {
  kalo::sim::Simulator sim(sim_config(23104));
  ASSERT_TRUE(sim.start());
  KaloContext *ctx = kaloOpen("udpxdr://127.0.0.1:23105#23104+extra");
  ASSERT_NE(ctx, nullptr) << kaloGlobalError;
  EXPECT_EQ(kaloClose(ctx), 0);
}

TEST(CoreConnection, NoControllerGivesCode2AfterTheFirstFrameWaitAndTheClose) {
  const int threads_before = thread_count();
  kaloGlobalError = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kaloOpen(url_for(23106, 23107).c_str()), nullptr);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_COMMUNICATION);
  EXPECT_GE(seconds, 1.0); // it waited for a first frame
  std::printf("open without a controller failed after %.2f s\n", seconds);
  EXPECT_TRUE(eventually([&] { return thread_count() == threads_before; }, 1000ms));
}

} // namespace
