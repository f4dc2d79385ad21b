// Fault injection and bad input, observed from a bare UDP client.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "raw_client.h"
#include "simulator.h"

using namespace std::chrono_literals;
using kalo::Field;
using kalo::sim::Config;
using kalo::sim::Faults;
using kalo::sim::Simulator;
using kalo_test::RawClient;
using kalo_test::RxFrame;

namespace {

struct Connected {
  explicit Connected(const Faults &faults = {}) : sim(config(faults)) {
    EXPECT_TRUE(sim.start());
    client = std::make_unique<RawClient>(sim.port());
    client->hello();
    EXPECT_TRUE(client->wait_count(2, 2s));
  }
  static Config config(const Faults &faults) {
    Config c;
    c.port = 0;
    c.faults = faults;
    return c;
  }
  // Frames received over a window of the given length, from now.
  std::vector<RxFrame> window(std::chrono::milliseconds length) {
    const std::size_t first = client->count();
    std::this_thread::sleep_for(length);
    return client->frames_since(first);
  }
  Simulator sim;
  std::unique_ptr<RawClient> client;
};

// Each ratio fault alone, measured on what the client receives: frames lost
// (against the sender's count), frames that fail the checksum, and repeated
// time stamps; the received good frames still decode.
TEST(SimFaults, DropsCorruptsAndDuplicatesTheAskedRatios) {
  for (double Faults::*ratio :
       {&Faults::drop_ratio, &Faults::corrupt_ratio, &Faults::duplicate_ratio}) {
    Faults f;
    f.*ratio = ratio == &Faults::drop_ratio ? 0.3 : ratio == &Faults::corrupt_ratio ? 0.2 : 0.5;
    Connected c(f);
    const uint64_t sent0 = c.sim.stats().frames_sent;
    const auto frames = c.window(1000ms);
    const auto sent = static_cast<double>(c.sim.stats().frames_sent - sent0);
    ASSERT_GT(sent, 900.0);
    double bad = 0, repeats = 0;
    for (std::size_t i = 0; i < frames.size(); ++i) {
      bad += !frames[i].envelope_ok;
      EXPECT_TRUE(!frames[i].envelope_ok || frames[i].decoded);
      repeats += i > 0 && frames[i].time_stamp == frames[i - 1].time_stamp;
    }
    const double lost = 1.0 - static_cast<double>(frames.size()) / sent;
    EXPECT_NEAR(f.drop_ratio > 0 ? lost : 0, f.drop_ratio, 0.05);
    EXPECT_NEAR(bad / static_cast<double>(frames.size()), f.corrupt_ratio, 0.06);
    EXPECT_NEAR(repeats / (static_cast<double>(frames.size()) - repeats), f.duplicate_ratio, 0.1);
  }
}

TEST(SimFaults, DelaysFramesByTheAskedTime) {
  Faults f;
  f.delay_us = 20000;
  f.delay_ratio = 1.0;
  Connected c(f);
  std::this_thread::sleep_for(50ms);
  auto frames = c.window(300ms);
  ASSERT_GT(frames.size(), 200u);
  // The time stamp is the sender's wall clock in microseconds.
  const int64_t offset = kalo_test::wall_minus_mono_us();
  std::vector<int64_t> lag;
  for (const auto &x : frames)
    lag.push_back(static_cast<int32_t>(static_cast<uint32_t>(x.t_ns / 1000 + offset) -
                                       static_cast<uint32_t>(x.time_stamp)));
  std::sort(lag.begin(), lag.end());
  const int64_t median = lag[lag.size() / 2];
  EXPECT_GE(median, 20000);
  EXPECT_LT(median, 25000);
  // Held-back frames still arrive at the period: none lost, none doubled (a
  // loaded machine may shift a few across the window's edges).
  EXPECT_NEAR(static_cast<double>(frames.size()), 300.0, 45.0);
}

TEST(SimFaults, GoesSilentForTheAskedTime) {
  Connected c;
  const std::size_t before = c.client->count() - 1; // the last frame before the silence
  c.sim.go_silent(200ms);
  std::this_thread::sleep_for(250ms);
  EXPECT_TRUE(c.client->wait_count(c.client->count() + 50, 1s))
      << "streaming resumes after the silence";
  const auto frames = c.client->frames_since(before);
  int64_t longest = 0;
  for (std::size_t i = 1; i < frames.size(); ++i)
    longest = std::max(longest, frames[i].t_ns - frames[i - 1].t_ns);
  // Gaps measured where they arrive: a frame made just before the silence can
  // leave or be read late on a loaded machine and shorten the gap a little.
  EXPECT_GE(longest, 150'000'000);
  EXPECT_LT(longest, 300'000'000);
}

TEST(SimFaults, PauseAndRestart) {
  Connected c;
  c.client->send({Field::command_type, Field::power_on}, [](ExchangeRecord &x) {
    x.command_type = 4;
    x.power_on = 1;
  });
  ASSERT_TRUE(c.sim.wait_for_frame_with(Field::command_type, 1s));
  c.sim.pause();
  std::size_t n = c.client->settle();
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(c.client->count(), n);
  c.sim.resume();
  EXPECT_TRUE(c.client->wait_count(n + 10, 1s));

  // A restart forgets the client and its settings, as a reboot would.
  c.sim.restart();
  n = c.client->settle();
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(c.client->count(), n);
  EXPECT_FALSE(c.sim.device().client);
  EXPECT_EQ(c.sim.device().mode_byte, 0);
  EXPECT_FALSE(c.sim.device().power);
  c.client->hello();
  ASSERT_TRUE(c.client->wait_count(n + 5, 1s));
  EXPECT_TRUE(c.client->frames_since(n).front().has(Field::control_point_count));
}

// Every kind of bad datagram is counted and dropped; streaming goes on and the
// simulator still answers the good ones.
TEST(SimFaults, MalformedDatagramsAreCountedAndDropped) {
  Connected c;
  const uint64_t malformed0 = c.sim.stats().malformed;
  int bad = 0;
  auto send_bad_payload = [&](std::vector<unsigned char> payload) {
    c.client->send_payload(payload.data(), payload.size());
    ++bad;
  };
  c.client->send_raw("", 0);
  ++bad;
  c.client->send_raw("\xC3<\x01", 3); // shorter than an envelope
  ++bad;
  {
    unsigned char d[16];
    const unsigned char p[] = {1, 0, 0, 0, 5};
    const std::size_t n = kalo::envelope_wrap(p, sizeof p, d);
    d[n - 2] ^= 1; // checksum
    c.client->send_raw(d, n);
    ++bad;
    d[2] = 200; // length beyond the datagram
    c.client->send_raw(d, n);
    ++bad;
  }
  send_bad_payload({0});                    // identifier 0
  send_bad_payload({93, 0, 0, 0, 0});       // identifier beyond the catalogue
  send_bad_payload({14, 0, 0, 0, 0, 0, 0}); // position cut short
  send_bad_payload({20, 0, 0});             // request cut short
  {
    std::vector<unsigned char> big(3000, 0x41); // larger than any frame
    c.client->send_raw(big.data(), big.size());
    ++bad;
  }
  {
    std::vector<unsigned char> junk(200);
    uint32_t x = 12345;
    for (auto &b : junk) {
      x = x * 1103515245u + 12345u;
      b = static_cast<unsigned char>(x >> 16);
    }
    c.client->send_raw(junk.data(), junk.size());
    ++bad;
  }
  // Still served: a request right after is answered.
  const std::size_t first = c.client->count();
  c.client->request(Field::controller_version);
  auto r = c.client->wait_for(Field::controller_version, first, 1s);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->controller_version[0], 6);
  EXPECT_EQ(c.sim.stats().malformed - malformed0, static_cast<uint64_t>(bad));
  EXPECT_TRUE(c.sim.device().client);
  // None of them was recorded as a received frame.
  for (const auto &f : c.sim.take_received())
    EXPECT_TRUE(f.has(Field::hello) || f.has(Field::request));
}

TEST(SimFaults, FramesFromSomeoneElseAreIgnored) {
  Connected c;
  RawClient intruder(c.sim.port());
  intruder.send({Field::command_type, Field::power_on}, [](ExchangeRecord &x) {
    x.command_type = 4;
    x.power_on = 1;
  });
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(c.sim.device().mode_byte, 0);
  EXPECT_FALSE(c.sim.device().power);
  EXPECT_EQ(c.sim.stats().foreign, 1u);
  EXPECT_EQ(intruder.count(), 0u);
  // ...until it says hello: the controller serves the latest client.
  intruder.hello();
  EXPECT_TRUE(intruder.wait_count(5, 1s));
  const std::size_t n = c.client->settle();
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(c.client->count(), n);
}

} // namespace
