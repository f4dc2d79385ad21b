// A stranger on the same host floods a live connection with well-formed state
// frames (a pose, buttons, drive failures, a version reply, oversized counts)
// from its own port: the application never reads any of it, the stream from
// the controller goes on, every such datagram is counted as foreign, and the
// link never re-locks to it. A controller that restarts and sends from a new
// source port is taken back after the hello-resend silence.
#include "core_support.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <vector>

#include "kalo/kalo_ext.h"
#include "protocol/proto_session.h"

namespace {

using namespace core_test;

std::vector<unsigned char> spoofed_state_frame() {
  auto r = std::make_unique<ExchangeRecord>();
  std::memset(r.get(), 0, sizeof(ExchangeRecord));
  r->control_point_count = 1;
  const float pose[7] = {100.0f, 100.0f, 100.0f, 0.0f, 0.0f, 0.0f, 1.0f};
  std::memcpy(r->position, pose, sizeof pose);
  r->buttons = 0x7FFF;
  r->failure = 0x5555;
  r->controller_version[0] = 99;
  r->controller_version[1] = 9;
  for (Field f : {Field::position, Field::failure, Field::buttons, Field::controller_version})
    kalo::post_field(*r, f);
  unsigned char payload[kalo::kFrameCapacity];
  const uint32_t n = encode_decode(kalo::kModeEncode, r.get(), payload, sizeof payload);
  std::vector<unsigned char> datagram(n + kalo::kEnvelopeOverhead);
  kalo::envelope_wrap(payload, n, datagram.data());
  return datagram;
}

} // namespace

TEST(LinkTrust, StateFramesFromAnotherPortNeverChangeAReading) {
  Link link(sim_config());
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  KaloContext *ctx = link.ctx;

  const int stranger = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(link.local);
  const std::vector<std::vector<unsigned char>> datagrams = {
      spoofed_state_frame(),
      {0xc3, 0x3c, 0x05, 0x00, 0x1e, 0x00, 0x00, 0x0b, 0xb8, 0x1b, 0xfe}, // item 30 = 3000
      {0xc3, 0x3c, 0x05, 0x00, 0x34, 0x00, 0x00, 0x03, 0xe8, 0xdd, 0xfd}, // item 52 = 1000
  };
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> sent{0};
  std::thread flood([&] {
    while (!stop.load()) {
      for (const auto &d : datagrams)
        if (sendto(stranger, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) >
            0)
          sent++;
      std::this_thread::sleep_for(200us);
    }
  });

  // The exchange thread counts frames under the context's lock.
  const auto frames_received = [ctx] {
    kalo::ContextLock hold(ctx);
    return ctx->link.frames_received;
  };
  const uint64_t frames_before = frames_received();
  int polls = 0;
  int spoofed = 0;
  const auto end = std::chrono::steady_clock::now() + 1s;
  while (std::chrono::steady_clock::now() < end) {
    {
      kalo::ContextLock hold(ctx);
      const ExchangeRecord &s = ctx->link.state_record;
      spoofed += s.position[0] == 100.0f || s.buttons == 0x7FFF || s.failure == 0x5555 ||
                 s.controller_version[0] == 99 || s.control_point_count != 1 ||
                 s.traj_sample_count == 3000;
    }
    uint32_t failure = 0;
    kaloGetFailure(ctx, &failure);
    spoofed += failure == 0x5555;
    ++polls;
    std::this_thread::sleep_for(100us);
  }
  stop = true;
  flood.join();
  close(stranger);

  EXPECT_EQ(spoofed, 0) << "of " << polls << " polls";
  EXPECT_GT(frames_received() - frames_before, 100u) << "the controller's stream went on";
  EXPECT_TRUE(eventually([&] {
    return ctx->link.link_counters.frames_foreign.load() >= sent.load();
  })) << ctx->link.link_counters.frames_foreign.load()
      << " of " << sent.load() << " counted";
  EXPECT_EQ(ctx->link.link_counters.items_rejected.load(), 0u);
  EXPECT_EQ(ctx->link.link_counters.relocks.load(), 0u);
  int32_t major = 0, minor = 0;
  EXPECT_EQ(kaloGetControlerVersion(ctx, &major, &minor), 0);
  EXPECT_NE(major, 99);
}

TEST(LinkTrust, AControllerRestartedOnANewSourcePortIsTakenBackAfterTheSilence) {
  Link link(sim_config());
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  KaloContext *ctx = link.ctx;
  const auto pose_x = [ctx] {
    float pose[7] = {};
    return kaloGetPosition(ctx, pose) == 0 ? pose[0] : -1.0f;
  };
  link.sim.set_pose({0.01f, 0, 0, 0, 0, 0, 1});
  ASSERT_TRUE(eventually([&] { return pose_x() == 0.01f; }));

  link.sim.restart_on_new_port();
  const auto restarted = std::chrono::steady_clock::now();
  link.sim.set_pose({0.02f, 0, 0, 0, 0, 0, 1});
#ifdef KALO_SANITIZER_BUILD
  const auto limit = 3000ms;
#else
  const auto limit = 1000ms;
#endif
  EXPECT_TRUE(eventually([&] { return pose_x() == 0.02f; }, limit));
  std::printf(
      "pose updated again %.0f ms after the restart\n",
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - restarted)
          .count());
  KaloExtLinkStatistics stats{};
  stats.size = sizeof stats;
  ASSERT_EQ(kaloExtGetLinkStatistics(ctx, &stats), 0);
  EXPECT_EQ(stats.link_relocks, 1u);
  KaloExtEvent events[16];
  events[0].size = sizeof(KaloExtEvent);
  uint32_t count = 0;
  ASSERT_EQ(kaloExtGetEvents(ctx, events, 16, &count), 0);
  int relocked = 0;
  for (uint32_t i = 0; i < count; ++i)
    relocked += events[i].kind == KALO_EXT_EVENT_LINK_RELOCKED ? 1 : 0;
  EXPECT_EQ(relocked, 1);
}
