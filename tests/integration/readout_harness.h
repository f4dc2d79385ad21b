// One simulator and one library connection shared by the tests of a fixture
// (fewer connections to open), with the helpers that wait for the
// library to catch up with the simulator and check what it sent.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <thread>

#include "core_support.h"
#include "device/call_frame.h"
#include "eventually.h"
#include "device/context.h"
#include "kalo/kalo.h"
#include "simulator.h"

namespace readout_it {

using namespace std::chrono_literals;

using kalo::Field;
using kalo_test::eventually;

// The command type is the library's own memory of it; these calls only
// consult that memory, so the tests set it as kaloSetCommandType leaves it.
inline void assume_command_type(KaloContext *ctx, uint32_t type) {
  kalo::ContextLock hold(ctx);
  ctx->command.active_command_type = type;
  ctx->command.command_type_set = 1;
}

// Sends the context's diagnostics to a temporary file while alive.
class CapturedOutput {
public:
  explicit CapturedOutput(KaloContext *ctx) : ctx_(ctx), file_(std::tmpfile()) {
    kalo::ContextLock hold(ctx_);
    saved_ = ctx_->params.output_stream;
    ctx_->params.output_stream = file_;
  }
  ~CapturedOutput() {
    {
      kalo::ContextLock hold(ctx_);
      ctx_->params.output_stream = saved_;
    }
    std::fclose(file_);
  }
  CapturedOutput(const CapturedOutput &) = delete;
  CapturedOutput &operator=(const CapturedOutput &) = delete;
  std::string text() {
    std::fflush(file_);
    std::string all;
    std::rewind(file_);
    char buf[512];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, file_)) > 0)
      all.append(buf, n);
    return all;
  }

private:
  KaloContext *ctx_;
  FILE *file_;
  FILE *saved_ = nullptr;
};

// Fixture base: the simulator on a port the kernel picks and the library on a
// local port free at the time, so that fixtures of parallel test runs never
// collide.
class SimulatedDevice : public ::testing::Test {
protected:
  static inline kalo::sim::Simulator *sim = nullptr;
  static inline KaloContext *ctx = nullptr;

  static void SetUpTestSuite() {
    kalo::sim::Config cfg;
    cfg.port = 0;
    sim = new kalo::sim::Simulator(cfg);
    std::string why;
    ASSERT_TRUE(sim->start(&why)) << why;
    ctx = kaloOpen(core_test::url_for(core_test::free_udp_port(), sim->port()).c_str());
    ASSERT_NE(ctx, nullptr) << "kaloOpen: " << kaloGetErrorMessage(kaloGlobalError);
    // Opening ends by telling the controller our version; that frame belongs
    // to the opening, not to the first test.
    EXPECT_TRUE(sim->wait_for_frame_with(Field::api_version, 1000ms).has_value());
    sim->wait_for_frames_sent(sim->stats().frames_sent + 5, 1000ms);
    (void)sim->take_received();
  }
  static void TearDownTestSuite() {
    if (ctx != nullptr) {
      EXPECT_EQ(kaloClose(ctx), 0);
    }
    ctx = nullptr;
    delete sim;
    sim = nullptr;
  }

  void SetUp() override {
    ASSERT_NE(ctx, nullptr);
    (void)sim->take_received();
    (void)kaloGetErrorCode(ctx);
  }

  // A test leaves nothing unexpected on the wire: what it asked for was taken
  // by expect_sent; anything else reaching the simulator is a stray frame.
  void TearDown() override {
    if (ctx == nullptr)
      return;
    sim->wait_for_frames_sent(sim->stats().frames_sent + 5, 1000ms);
    for (const auto &f : sim->take_received()) {
      std::string ids;
      for (int id : f.ids)
        ids += std::to_string(id) + " ";
      ADD_FAILURE() << "unexpected frame carrying " << ids;
    }
  }

  // Waits until the library has sent every field of `wanted` (the time stamp
  // goes with every frame) and fails on any other. Returns the simulator's
  // accumulated command record.
  ExchangeRecord expect_sent(std::initializer_list<Field> wanted,
                             std::chrono::milliseconds timeout = 2000ms) {
    std::set<int> missing, allowed{kalo::id(Field::time_stamp)};
    for (Field f : wanted) {
      missing.insert(kalo::id(f));
      allowed.insert(kalo::id(f));
    }
    const auto take = [&] {
      for (const auto &f : sim->take_received())
        for (int id : f.ids) {
          EXPECT_TRUE(allowed.count(id)) << "unexpected field " << id << " sent";
          missing.erase(id);
        }
      return missing.empty();
    };
    const bool done = eventually(take, timeout);
    EXPECT_TRUE(done) << "field " << (missing.empty() ? 0 : *missing.begin()) << " never sent";
    // A burst of calls can leave frames of the same fields still on their
    // way (the exchange thread sends one per state frame): let them land.
    sim->wait_for_frames_sent(sim->stats().frames_sent + 5, 1000ms);
    take();
    return sim->last_command();
  }
};

} // namespace readout_it
