// The link under attack and under faults, against the simulator: hostile
// datagrams (from another local port, and from the controller's own port)
// corrupt nothing and leave the counts, the sample copies and the command
// frames within their room; kaloClose ends every wait; a closed handle is
// refused; and under loss, duplication, corruption, delay, silence and a
// controller restart the stream always resumes.
#include "core_support.h"

#include <cmath>
#include <vector>

namespace {

using namespace core_test;
using Bytes = std::vector<uint8_t>;

// The envelope around a payload: marker, length, payload, checksum.
Bytes envelope(const Bytes &payload, std::size_t declared) {
  Bytes d = {0xC3, 0x3C, static_cast<uint8_t>(declared & 0xFF),
             static_cast<uint8_t>(declared >> 8)};
  d.insert(d.end(), payload.begin(),
           payload.begin() + static_cast<long>(std::min(declared, payload.size())));
  unsigned sum = 0;
  for (const uint8_t b : d)
    sum += b;
  const unsigned check = (0x10000u - (sum & 0xFFFFu)) & 0xFFFFu;
  d.push_back(static_cast<uint8_t>(check & 0xFF));
  d.push_back(static_cast<uint8_t>(check >> 8));
  d.insert(d.end(), payload.begin() + static_cast<long>(std::min(declared, payload.size())),
           payload.end());
  return d;
}

// Sends a datagram to the library from a port of its own.
void send_from_elsewhere(uint16_t to, const Bytes &d) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(to);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a);
  ::close(fd);
}

// True once the library reports the pose the simulator was just moved to.
bool pose_follows(Link &link, float x, std::chrono::milliseconds limit = 1000ms) {
  link.sim.set_pose({x, 0, 0, 0, 0, 0, 1});
  return eventually(
      [&] {
        float p[7] = {};
        return kaloGetPosition(link.ctx, p) == 0 && std::fabs(p[0] - x) < 1e-4f;
      },
      limit);
}

int32_t points_held(KaloContext *ctx) {
  kalo::ContextLock hold(ctx);
  return std::max(ctx->link.control_point_count, ctx->link.command_record.control_point_count);
}

struct Hostile {
  const char *what;
  Bytes datagram;
};

TEST(LinkFaults, HostileDatagramsCorruptNothingFromAnySender) {
  const std::vector<Hostile> hostile = {
      {"item 30 = 3000 after sampling 10",
       {0xc3, 0x3c, 0x05, 0x00, 0x1e, 0x00, 0x00, 0x0b, 0xb8, 0x1b, 0xfe}},
      {"item 52 = 1000", {0xc3, 0x3c, 0x05, 0x00, 0x34, 0x00, 0x00, 0x03, 0xe8, 0xdd, 0xfd}},
      {"item 52 = 2, a count the frames do not follow", envelope({0x34, 0, 0, 0, 2}, 5)},
      {"short: declares one byte, carries five", envelope({0x16, 0, 1, 0, 0}, 1)},
  };
  Link link(sim_config());
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  KaloContext *ctx = link.ctx;
  ASSERT_EQ(kaloSetCommandType(ctx, 5), 0);
  ASSERT_EQ(kaloVmSetType(ctx, 1), 0);
  const float pose[7] = {0.1f, 0.2f, 0.3f, 0, 0, 0, 1};
  const float intensity = 0.5f;
  float x = 0.01f;
  for (const bool from_controller : {false, true}) {
    for (const Hostile &h : hostile) {
      SCOPED_TRACE(std::string(h.what) +
                   (from_controller ? ", from the controller's port" : ", from another port"));
      ASSERT_EQ(kaloVmStartTrajSampling(ctx, 10), 0);
      if (from_controller)
        link.sim.send_datagram(h.datagram);
      else
        send_from_elsewhere(link.local, h.datagram);
      // Whenever the count is read, it stays within the room of the records.
      const auto end = std::chrono::steady_clock::now() + 50ms;
      while (std::chrono::steady_clock::now() < end) {
        ASSERT_EQ(kaloGetRobotNumberOfControlPoints(ctx), 0);
        ASSERT_LE(points_held(ctx), kalo::kControlPointRoom);
      }
      // The samples asked for, and not one float more.
      std::vector<float> samples(70 + 7, -1.0f);
      EXPECT_EQ(kaloVmGetTrajSamples(ctx, samples.data()), 0);
      for (std::size_t k = 70; k < samples.size(); ++k)
        ASSERT_EQ(samples[k], -1.0f) << "written past the 10 samples, at " << k;
      // A per-point command still fits its frame and reaches the controller.
      link.sim.take_received();
      EXPECT_EQ(kaloSetTexture(ctx, pose, &intensity, 0), 0);
      EXPECT_TRUE(link.sim.wait_for_frame_with(Field::texture, 1000ms));
      EXPECT_EQ(ctx->link.link_counters.frames_dropped_for_size.load(), 0u);
      // And the stream goes on.
      x += 0.01f;
      EXPECT_TRUE(pose_follows(link, x));
    }
  }
  EXPECT_EQ(link.close(), 0);
}

// kaloClose wakes every thread blocked in a library wait, which returns -1
// with code 2; the handle is refused from then on, a second close included,
// without its memory being read.
TEST(LinkFaults, CloseEndsEveryWaitAndAClosedHandleIsRefused) {
  Link link(sim_config());
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  KaloContext *ctx = link.ctx;
  ASSERT_EQ(kaloSetCommandType(ctx, 5), 0);
  ASSERT_EQ(kaloVmSetType(ctx, 1), 0);
  ASSERT_EQ(kaloVmActivate(ctx), 0);
  ASSERT_EQ(kaloVmStartTrajSampling(ctx, 10), 0);
  link.sim.pause(); // nothing will ever answer
  std::this_thread::sleep_for(20ms);
  std::vector<int32_t> results(4, 0);
  float samples[70];
  float stiffness[6];
  std::vector<std::thread> waiting;
  waiting.emplace_back([&] { results[0] = kaloWaitPressButton(ctx, 1); });
  waiting.emplace_back([&] { results[1] = kaloVmWaitUpperBound(ctx); });
  waiting.emplace_back([&] { results[2] = kaloVmGetTrajSamples(ctx, samples); });
  waiting.emplace_back([&] { results[3] = kaloGetSimulationStiffness(ctx, stiffness); });
  std::this_thread::sleep_for(300ms);
  kaloClose(ctx);
  link.ctx = nullptr;
  for (auto &t : waiting)
    t.join();
  for (std::size_t i = 0; i < results.size(); ++i)
    EXPECT_EQ(results[i], -1) << "wait " << i;
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_COMMUNICATION);

  kaloGlobalError = 0;
  EXPECT_EQ(kaloClose(ctx), -1);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_INVALID_CONTEXT);
  kaloGlobalError = 0;
  float p[7];
  EXPECT_EQ(kaloGetPosition(ctx, p), -1);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_INVALID_CONTEXT);
  EXPECT_EQ(kaloGetErrorCode(ctx), KALO_ERROR_INVALID_CONTEXT);
}

enum class Event { none, silence, restart };

struct FaultCase {
  const char *name;
  kalo::sim::Faults faults;
  Event event;
};

kalo::sim::Faults faults(double drop, double duplicate, double corrupt, double delay_ratio,
                         uint32_t delay_us, uint32_t seed = 7) {
  kalo::sim::Faults f;
  f.drop_ratio = drop;
  f.duplicate_ratio = duplicate;
  f.corrupt_ratio = corrupt;
  f.delay_ratio = delay_ratio;
  f.delay_us = delay_us;
  f.seed = seed;
  return f;
}

// Each fault from the very first frame (the handshake included): the open
// succeeds, every call reports a code the interface gives, and the pose
// follows the arm within 1 s (after the fault, for the silence and the restart).
TEST(LinkFaults, TheStreamSurvivesEveryFault) {
  const std::vector<FaultCase> cases = {
      {"drop 1%", faults(0.01, 0, 0, 0, 0), Event::none},
      {"drop 10%", faults(0.10, 0, 0, 0, 0), Event::none},
      {"drop 50%", faults(0.50, 0, 0, 0, 0), Event::none},
      {"duplicate 10%", faults(0, 0.10, 0, 0, 0), Event::none},
      {"corrupt 10%", faults(0, 0, 0.10, 0, 0), Event::none},
      {"delay 5 ms (half the frames, so they reorder)", faults(0, 0, 0, 0.5, 5000), Event::none},
      {"counts frame lost (drop 1%, seed 81)", faults(0.01, 0, 0, 0, 0, 81), Event::none},
      {"1.2 s of silence", faults(0, 0, 0, 0, 0), Event::silence},
      {"controller restart", faults(0, 0, 0, 0, 0), Event::restart},
  };
  for (const FaultCase &fc : cases) {
    SCOPED_TRACE(fc.name);
    auto cfg = sim_config();
    cfg.faults = fc.faults;
    Link link(cfg);
    ASSERT_TRUE(link.open()) << kaloGlobalError;
    KaloContext *ctx = link.ctx;
    EXPECT_TRUE(pose_follows(link, 0.02f));

    if (fc.event == Event::silence) {
      // Hellos go out again at 0.5 s and 1 s of silence; the stream resumes after.
      link.sim.go_silent(1200ms);
      EXPECT_TRUE(
          eventually([&] { return ctx->link.link_counters.hellos_resent.load() >= 2u; }, 3000ms));
      EXPECT_TRUE(pose_follows(link, 0.03f));
    } else if (fc.event == Event::restart) {
      link.sim.restart();
      EXPECT_TRUE(pose_follows(link, 0.03f));
      EXPECT_GE(ctx->link.link_counters.hellos_resent.load(), 1u);
      EXPECT_TRUE(link.sim.device().client);
    }

    float k[6];
    const int32_t asked = kaloGetSimulationStiffness(ctx, k);
    if (asked != 0) {
      EXPECT_EQ(asked, -1);
      EXPECT_EQ(kaloGetErrorCode(ctx), KALO_ERROR_TIMEOUT) << "a lost reply is a time-out";
    }
    EXPECT_EQ(kaloSetCommandType(ctx, KALO_COMMAND_TYPE_FORCE), 0);
    const float zero[6] = {};
    EXPECT_EQ(kaloSetForce(ctx, zero), 0);
    EXPECT_TRUE(pose_follows(link, 0.04f));
    EXPECT_EQ(link.close(), 0);
  }
}

} // namespace
