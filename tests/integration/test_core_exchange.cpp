// The exchange on the wire, seen from the simulated controller: the hello,
// command frames only in answer to state frames and only with changed fields,
// their order and time stamp, query round trips and the version handshake, and
// the exchange thread's reactions to particular state fields.
#include "core_support.h"

#include <map>
#include <vector>

namespace {

using namespace core_test;

// Payload sizes of the items these tests send or expect.
int item_size(int id) {
  static const std::map<int, int> sizes = {{1, 4}, {11, 4}, {20, 4}, {50, 4}, {78, 8}, {87, 4}};
  const auto it = sizes.find(id);
  return it == sizes.end() ? -1 : it->second;
}

// The identifiers of a frame in wire order; empty if it holds an unknown item.
std::vector<int> wire_order(const std::vector<uint8_t> &payload) {
  std::vector<int> ids;
  std::size_t at = 0;
  while (at < payload.size()) {
    const int id = payload[at];
    const int size = item_size(id);
    if (size < 0)
      return {};
    ids.push_back(id);
    at += 1 + static_cast<std::size_t>(size);
  }
  return ids;
}

bool asks(const kalo::sim::ReceivedFrame &f, Field wanted) {
  return f.has(Field::request) && f.record.request == kalo::id(wanted);
}

int32_t big_endian_int(const uint8_t *p) {
  return static_cast<int32_t>((uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) |
                              (uint32_t{p[2]} << 8) | p[3]);
}

class CoreExchange : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    auto cfg = sim_config();
    cfg.device_type = 7;
    cfg.serial_number = 1234;
    link_ = new Link(cfg);
    ASSERT_TRUE(link_->open()) << kaloGlobalError;
    // Our version, posted last by the open, goes out with the next frame.
    std::this_thread::sleep_for(50ms);
    opening_frames_ = new std::vector<kalo::sim::ReceivedFrame>(link_->sim.take_received());
  }
  static void TearDownTestSuite() {
    delete link_;
    delete opening_frames_;
    link_ = nullptr;
  }
  void SetUp() override {
    ASSERT_NE(link_, nullptr);
    ASSERT_NE(link_->ctx, nullptr);
    ctx = link_->ctx;
  }
  // Fails the test if the library sent anything the test did not ask for.
  void TearDown() override {
    std::this_thread::sleep_for(20ms);
    for (const auto &f : link_->sim.take_received())
      ADD_FAILURE() << "unexpected frame with " << f.ids.size() << " items, first "
                    << f.ids.front();
  }
  kalo::sim::Simulator &sim() { return link_->sim; }

  static Link *link_;
  static std::vector<kalo::sim::ReceivedFrame> *opening_frames_;
  KaloContext *ctx = nullptr;
};

Link *CoreExchange::link_ = nullptr;
std::vector<kalo::sim::ReceivedFrame> *CoreExchange::opening_frames_ = nullptr;

TEST_F(CoreExchange, HelloFirstThenTheHandshakeAsksVersionAndSpeedsAndSendsOurVersion) {
  ASSERT_FALSE(opening_frames_->empty());
  const auto &first = opening_frames_->front();
  EXPECT_EQ(first.ids, (std::vector<int>{kalo::id(Field::time_stamp), kalo::id(Field::hello)}));
  ASSERT_EQ(first.payload.size(), 6u);
  EXPECT_EQ(first.payload[0], kalo::id(Field::hello)); // descending order: the hello first
  bool asked_version = false, asked_speeds = false, sent_version = false;
  for (const auto &f : *opening_frames_) {
    if (asks(f, Field::controller_version))
      asked_version = true;
    if (asks(f, Field::max_speed))
      asked_speeds = true;
    if (f.has(Field::api_version)) {
      sent_version = true;
      EXPECT_EQ(f.record.api_version[0], 4);
      EXPECT_EQ(f.record.api_version[1], 4);
    }
  }
  EXPECT_TRUE(asked_version);
  EXPECT_TRUE(asked_speeds);
  EXPECT_TRUE(sent_version);
  EXPECT_FLOAT_EQ(ctx->link.controller_version, 6.0f);
  EXPECT_EQ(ctx->link.controller_version_major, 6);
  EXPECT_FLOAT_EQ(ctx->params.max_linear_speed, 1.0f); // the simulator's, not the default 2.0
  EXPECT_FLOAT_EQ(ctx->params.max_angular_speed, 3.14f);
}

// Marked fields wait for a state frame to answer, then go out together in
// descending order with the time stamp last; a field marked twice goes once.
TEST_F(CoreExchange, CommandFramesAnswerStateFramesInDescendingOrderAndMarksCollapse) {
  sim().pause();
  std::this_thread::sleep_for(20ms);
  sim().take_received();
  mark(ctx, Field::vo_attached, [](ExchangeRecord &r) { r.vo_attached = 0; });
  mark(ctx, Field::outputs, [](ExchangeRecord &r) { r.outputs = 1; });
  mark(ctx, Field::control_connection_disabled,
       [](ExchangeRecord &r) { r.control_connection_disabled = 0; });
  mark(ctx, Field::outputs, [](ExchangeRecord &r) { r.outputs = 2; }); // the later value wins
  const uint32_t marked_at = static_cast<uint32_t>(getTime(ctx));
  std::this_thread::sleep_for(150ms);
  EXPECT_EQ(sim().received_count(), 0u); // marked, but no state frame to answer
  sim().resume();
  const auto f = sim().wait_for_frame_with(Field::outputs, 1000ms);
  ASSERT_TRUE(f.has_value());
  EXPECT_EQ(wire_order(f->payload), (std::vector<int>{87, 50, 11, 1}));
  EXPECT_EQ(f->record.outputs, 2);
  ASSERT_EQ(f->payload.size(), 20u);
  const auto stamp = static_cast<uint32_t>(big_endian_int(&f->payload[16]));
  EXPECT_LT(stamp - marked_at, 1000000u); // microseconds of the library's clock, after the marks
}

TEST_F(CoreExchange, QueriesAreAnsweredByTheController) {
  int32_t major = -1, minor = -1;
  ASSERT_EQ(kaloGetControlerVersion(ctx, &major, &minor), 0);
  EXPECT_EQ(major, 6);
  EXPECT_EQ(minor, 0);
  const auto asked = sim().wait_for_frame_with(Field::request, 500ms);
  ASSERT_TRUE(asked.has_value());
  EXPECT_EQ(asked->record.request, kalo::id(Field::controller_version));

  int32_t type = -1, serial = -1;
  ASSERT_EQ(kaloGetDeviceID(ctx, &type, &serial), 0); // 6.0 passes the gate above 5.4
  EXPECT_EQ(type, 7);
  EXPECT_EQ(serial, 1234);
  const auto asked_id = sim().wait_for_frame_with(Field::request, 500ms);
  ASSERT_TRUE(asked_id.has_value());
  EXPECT_EQ(asked_id->record.request, kalo::id(Field::device_id));
}

TEST_F(CoreExchange, AQueryWithoutReplyTimesOutWithCode6AndTheNextOneWorks) {
  sim().pause();
  int32_t major = -1, minor = -1;
  EXPECT_EQ(kaloGetControlerVersion(ctx, &major, &minor), -1);
  EXPECT_EQ(kaloGetErrorCode(ctx), KALO_ERROR_TIMEOUT);
  sim().resume();
  EXPECT_EQ(kaloGetControlerVersion(ctx, &major, &minor), 0);
  EXPECT_EQ(major, 6);
  // The silence made the library send its hello again, the first request
  // with it; the answer to the second may still be on its way.
  std::this_thread::sleep_for(50ms);
  sim().take_received();
}

TEST_F(CoreExchange, DisablingTheControlConnectionIsSentAndConfirmedByARoundTrip) {
  for (const int32_t disabled : {1, 0}) {
    ASSERT_EQ(kaloDisableControlConnexion(ctx, disabled), 0);
    EXPECT_EQ(ctx->link.control_connection_disabled, static_cast<uint32_t>(disabled));
    std::this_thread::sleep_for(20ms);
    bool flag_sent = false, stiffness_asked = false;
    for (const auto &f : sim().take_received()) {
      if (f.has(Field::control_connection_disabled)) {
        flag_sent = true;
        EXPECT_EQ(f.record.control_connection_disabled, disabled);
      }
      stiffness_asked |= asks(f, Field::simulation_stiffness);
    }
    EXPECT_TRUE(flag_sent);
    EXPECT_TRUE(stiffness_asked);
  }
}

TEST_F(CoreExchange, CountsAreTakenFromTheController) {
  sim().set_counts(1, 7);
  ASSERT_TRUE(eventually([&] {
    kalo::ContextLock hold(ctx);
    return ctx->link.state_record.axis_count_wire == 7;
  }));
  ASSERT_EQ(kaloGetNumberOfAxes(ctx), 0);
  EXPECT_EQ(ctx->link.axis_count, 7);
  ASSERT_EQ(kaloGetRobotNumberOfControlPoints(ctx), 0);
  EXPECT_EQ(ctx->link.control_point_count, 1);
  sim().set_counts(1, 6);
  ASSERT_TRUE(eventually([&] {
    kalo::ContextLock hold(ctx);
    return ctx->link.state_record.axis_count_wire == 6;
  }));
  ASSERT_EQ(kaloGetNumberOfAxes(ctx), 0);
  EXPECT_EQ(ctx->link.axis_count, 6);
}

TEST_F(CoreExchange, UpperBoundAndTrajectorySampleWakeTheirWaiters) {
  sim().put_field(Field::vm_wait_upper_bound, {});
  EXPECT_TRUE(posted_within(ctx->link.upper_bound_sem, 1000ms));
  sim().put_field(Field::traj_sample, {3, 0.1, 0.2, 0.3, 0, 0, 0, 1});
  EXPECT_TRUE(posted_within(ctx->link.traj_sample_sem, 1000ms));
  kalo::ContextLock hold(ctx);
  EXPECT_FLOAT_EQ(ctx->link.state_record.traj_samples[3][1], 0.2f);
  EXPECT_FLOAT_EQ(ctx->link.state_record.traj_samples[3][6], 1.0f);
}

TEST_F(CoreExchange, AButtonPressWakesTheArmedWaiterOnce) {
  sim().set_buttons(0);
  std::this_thread::sleep_for(20ms);
  {
    kalo::ContextLock hold(ctx);
    ctx->link.wait_button = 2;
    ctx->link.wait_armed = 1;
  }
  sim().set_button(2, true);
  EXPECT_TRUE(posted_within(ctx->link.button_sem, 1000ms));
  kalo::ContextLock hold(ctx);
  EXPECT_EQ(ctx->link.wait_armed, 0u);
}

TEST_F(CoreExchange, ThePointerFieldActivatesAndDeactivatesTheEmulation) {
  {
    kalo::ContextLock hold(ctx);
    ctx->mouse.words[0] = 5;
    ctx->mouse.words[1] = 5;
  }
  sim().put_field(Field::mouse_state, {1, 0.25, 0.5, 0, 0});
  ASSERT_TRUE(eventually([&] {
    kalo::ContextLock hold(ctx);
    return ctx->mouse.previous_state == 1;
  }));
  {
    kalo::ContextLock hold(ctx);
    EXPECT_EQ(ctx->mouse.words[0], -1); // activation forgot the tracking
    ctx->mouse.words[0] = 5;
  }
  sim().put_field(Field::mouse_state, {0, 0, 0, 0, 0});
  ASSERT_TRUE(eventually([&] {
    kalo::ContextLock hold(ctx);
    return ctx->mouse.previous_state == 0;
  }));
  kalo::ContextLock hold(ctx);
  EXPECT_EQ(ctx->mouse.words[0], -1);
}

TEST_F(CoreExchange, TheSpeedFactorFilterStepsOncePerStateFrame) {
  {
    kalo::ContextLock hold(ctx);
    ASSERT_EQ(ctx->servo.filter_disabled.load(), 0u);
    EXPECT_DOUBLE_EQ(ctx->servo.speed_factor_filtered->donnees[0], 1.0); // at rest at the target
    ctx->servo.speed_factor_target->donnees[0] = 2.0;
  }
  // A 0.5 Hz low-pass sampled at 1/1024 s: after 100 frames it has moved by
  // about 1 - exp(-2 pi 0.5 100 / 1024), some 26 % of the step.
  const uint64_t sent = sim().stats().frames_sent;
  ASSERT_TRUE(sim().wait_for_frames_sent(sent + 100, 2000ms));
  std::this_thread::sleep_for(5ms);
  kalo::ContextLock hold(ctx);
  const double moved = ctx->servo.speed_factor_filtered->donnees[0] - 1.0;
  EXPECT_GT(moved, 0.15);
  EXPECT_LT(moved, 0.6);
  ctx->servo.speed_factor_target->donnees[0] = 1.0;
}

TEST(CoreHandshake, AVersion2ControllerNeverReceivesOurVersion) {
  auto cfg = sim_config();
  cfg.version_major = 2;
  cfg.version_minor = 50;
  Link link(cfg);
  ASSERT_TRUE(link.open()) << kaloGlobalError;
  EXPECT_FLOAT_EQ(link.ctx->link.controller_version, 2.5f);
  int32_t type = 0, serial = 0;
  EXPECT_EQ(kaloGetDeviceID(link.ctx, &type, &serial), KALO_ERROR_INCOMPATIBLE_VERSION); // bare 20
  EXPECT_EQ(kaloGetErrorCode(link.ctx), 0); // nothing recorded by the open or the gate
  std::this_thread::sleep_for(50ms);
  for (const auto &f : link.sim.take_received()) {
    EXPECT_FALSE(f.has(Field::api_version));
    EXPECT_FALSE(asks(f, Field::device_id));
  }
}

} // namespace
