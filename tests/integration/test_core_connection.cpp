// Opening and closing against the simulator: the URL spellings and ports that
// reach the controller, the refusal of bad URLs, and the failure when no
// controller answers.
#include "core_support.h"

#include "kalo/kalo_ext.h"

#include <arpa/inet.h>
#include <chrono>

namespace {

using namespace core_test;

TEST(CoreConnection, ThreeSpellingsOfOneHostOpenWithTheGivenPorts) {
  kalo::sim::Simulator sim(sim_config());
  ASSERT_TRUE(sim.start());
  const std::string remote = std::to_string(sim.port());
  for (const char *prefix : {"", "udpxdr://", "url:"}) {
    const uint16_t local = free_udp_port();
    const std::string url =
        prefix + std::string("localhost:") + std::to_string(local) + "#" + remote;
    const char *spelling = url.c_str();
    sim.take_received();
    KaloContext *ctx = kaloOpen(spelling);
    ASSERT_NE(ctx, nullptr) << spelling << ": error " << kaloGlobalError;
    const auto frames = sim.take_received();
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(ntohs(frames.front().from.sin_port), local) << spelling;
    EXPECT_EQ(kaloClose(ctx), 0);
    // The closing request reached the controller.
    EXPECT_TRUE(sim.wait_for_frame_with(Field::close_request, 1000ms).has_value()) << spelling;
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
  kalo::sim::Simulator sim(sim_config());
  ASSERT_TRUE(sim.start());
  KaloContext *ctx = kaloOpen((url_for(free_udp_port(), sim.port()) + "+extra").c_str());
  ASSERT_NE(ctx, nullptr) << kaloGlobalError;
  EXPECT_EQ(kaloClose(ctx), 0);
}

TEST(CoreConnection, NoControllerGivesCode2AfterTheFirstFrameWaitAndTheClose) {
  const int threads_before = thread_count();
  kaloGlobalError = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kaloOpen(url_for(free_udp_port(), free_udp_port()).c_str()), nullptr);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_COMMUNICATION);
  EXPECT_GE(seconds, 1.0); // it waited for a first frame
  EXPECT_EQ(std::string(kaloExtLastErrorDetail()).rfind("no state frame from 127.0.0.1:", 0), 0u)
      << kaloExtLastErrorDetail();
  std::printf("open without a controller failed after %.2f s\n", seconds);
  EXPECT_TRUE(eventually([&] { return thread_count() == threads_before; }, 1000ms));
}

} // namespace
