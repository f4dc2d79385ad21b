#include "controller.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <iterator>

#include "kalo/kalo_internal.h"
#include "protocol/field_values.h"

namespace kalo::sim {
namespace {

// Sent once to every new client: the state that is not in every frame.
constexpr Field kSnapshot[] = {Field::center_sphere,
                               Field::axis_of_rotation,
                               Field::field_66,
                               Field::trackball_buttons,
                               Field::articular_position,
                               Field::articular_speed,
                               Field::additional_axis_position,
                               Field::additional_axis_speed,
                               Field::analogic_inputs,
                               Field::tor_inputs};
// In every state frame.
constexpr Field kEveryFrame[] = {Field::time_stamp,     Field::position, Field::speed,
                                 Field::failure,        Field::buttons,  Field::physical_position,
                                 Field::physical_speed, Field::alarm};
constexpr uint32_t kPowerBit = 1u << 16;
constexpr uint32_t kBoundBits = 0x3Fu;

// State frames are stamped with the low 32 bits of the wall clock in
// microseconds, as a controller with a synchronised clock does.
uint32_t wall_clock_us_low32() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000000u +
                               static_cast<uint64_t>(ts.tv_nsec) / 1000u);
}

bool same_peer(const sockaddr_in &a, const sockaddr_in &b) {
  return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

// Whether a request (item 20) names a field the controller sends on demand:
// the counts are in every frame, and hello, close and trajectory samples are
// no state to report.
bool answerable(int asked) {
  const auto f = static_cast<Field>(asked);
  return asked >= 1 && asked <= kFieldCount && f != Field::control_point_count &&
         f != Field::axis_count_wire && f != Field::hello && f != Field::close_request &&
         f != Field::traj_sample;
}

// The counts are the simulator's own (set_counts): a frame sized by a count
// the record cannot hold would be read past its members.
bool is_count(Field f) {
  return f == Field::control_point_count || f == Field::axis_count_wire;
}

} // namespace

Controller::Controller(const Config &cfg) : cfg_(cfg), model_(cfg.model) {}

void Controller::log(int level, const char *fmt, ...) const {
  if (cfg_.verbosity < level)
    return;
  char text[256];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  std::fprintf(stderr, "kalo-sim: %s\n", text);
}

void Controller::start() {
  st_.control_point_count = std::max(0, cfg_.control_points);
  st_.axis_count_wire = std::max(0, cfg_.axes);
  traj_.assign(kTrajSampleRoom, std::array<float, 7>{});
  forget_client(true);
  reset_records();
  model_.set_hand(cfg_.hand);
  once_.reserve(16);
  persistent_.reserve(16);
}

void Controller::restart() {
  if (client_)
    log(1, "restart: client forgotten");
  forget_client(true);
  reset_records();
}

// The controller's memory: what it reports and what its clients set.
void Controller::reset_records() {
  const int32_t ncp = st_.control_point_count, nax = st_.axis_count_wire;
  st_ = ExchangeRecord{};
  cmd_ = ExchangeRecord{};
  st_.control_point_count = cmd_.control_point_count = ncp;
  st_.axis_count_wire = cmd_.axis_count_wire = nax;
  st_.controller_version[0] = cfg_.version_major;
  st_.controller_version[1] = cfg_.version_minor;
  st_.device_id[0] = cfg_.device_type;
  st_.device_id[1] = cfg_.serial_number;
  st_.max_speed[0] = cfg_.max_linear_speed;
  st_.max_speed[1] = cfg_.max_angular_speed;
  std::copy(cfg_.stiffness.begin(), cfg_.stiffness.end(), st_.simulation_stiffness);
  std::copy(cfg_.damping.begin(), cfg_.damping.end(), st_.simulation_damping);
  st_.vm_base_frame[6] = 1;
  st_.center_sphere[6] = 1;
  st_.axis_of_rotation[2] = 1;
  st_.position[6] = 1;
  st_.physical_position[6] = 1;
  st_.traj_samples = reinterpret_cast<float(*)[7]>(traj_.data());
  power_ = cfg_.power_on;
}

void Controller::forget_client(bool reset_power) {
  client_.reset();
  pending_.fill(false);
  echo_upper_bound_ = false;
  traj_remaining_ = 0;
  st_.command_type = 0;
  has_pos_target_ = has_speed_target_ = false;
  std::fill(std::begin(cmd_.force), std::end(cmd_.force), 0.f);
  std::fill(std::begin(cmd_.added_force), std::end(cmd_.added_force), 0.f);
  if (reset_power)
    power_ = cfg_.power_on;
}

bool Controller::serves(const sockaddr_in &peer) const {
  return client_ && same_peer(peer, *client_);
}

// ---- receiving ----

bool Controller::decode(unsigned char *payload, uint32_t length) {
  // Decode into a copy of the command record so that a frame that fails
  // part-way leaves nothing behind. The counts are ours: the client codes its
  // per-point and per-axis items with the counts we reported.
  rx_ = cmd_;
  clear_changes(rx_);
  rx_.control_point_count = st_.control_point_count;
  rx_.axis_count_wire = st_.axis_count_wire;
  rx_.traj_samples = nullptr;
  return encode_decode(kModeDecode, &rx_, payload, length) != kCodecFailure;
}

void Controller::accept(const sockaddr_in &from) {
  cmd_ = rx_;
  auto changed = [this](Field f) { return carries(cmd_, f); };
  if (changed(Field::hello)) {
    // A hello from the client being served (it heard nothing for a while)
    // resumes the connection as it was; anyone else's starts a new one.
    if (!serves(from))
      forget_client(false);
    client_ = from;
    for (Field f : kSnapshot) // the device's state that is not in every frame
      pending_[id(f)] = true;
    char host[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &from.sin_addr, host, sizeof host);
    log(1, "client %s:%u connected", host, ntohs(from.sin_port));
  }
  if (changed(Field::command_type)) {
    st_.command_type = cmd_.command_type;
    has_pos_target_ = has_speed_target_ = false; // set-points of the old mode do not carry over
    log(2, "command type byte %d", static_cast<unsigned char>(cmd_.command_type));
  }
  if (changed(Field::power_on)) {
    power_ = cmd_.power_on != 0;
    log(2, "power %s", power_ ? "on" : "off");
  }
  if (changed(Field::position)) {
    has_pos_target_ = true;
    has_speed_target_ = false;
  }
  if (changed(Field::speed) && !changed(Field::position)) {
    has_speed_target_ = true;
    has_pos_target_ = false;
  }
  if (changed(Field::simulation_stiffness))
    std::copy(std::begin(cmd_.simulation_stiffness), std::end(cmd_.simulation_stiffness),
              st_.simulation_stiffness);
  if (changed(Field::simulation_damping))
    std::copy(std::begin(cmd_.simulation_damping), std::end(cmd_.simulation_damping),
              st_.simulation_damping);
  if (changed(Field::vm_base_frame))
    std::copy(std::begin(cmd_.vm_base_frame), std::end(cmd_.vm_base_frame), st_.vm_base_frame);
  if (changed(Field::vm_base_frame_to_current)) {
    const Pose &p = model_.pose();
    std::copy(p.begin(), p.end(), st_.vm_base_frame);
  }
  if (changed(Field::traj_sample_count)) {
    traj_remaining_ = std::max(0, cmd_.traj_sample_count);
    traj_index_ = 0;
    log(2, "sampling %d trajectory points", traj_remaining_);
  }
  if (changed(Field::vm_wait_upper_bound))
    echo_upper_bound_ = true;
  if (changed(Field::request)) {
    const int asked = cmd_.request;
    log(2, "request %d (%s)", asked, field_name(asked));
    if (answerable(asked))
      pending_[asked] = true;
  }
  if (changed(Field::close_request)) {
    log(1, "client closed the connection");
    forget_client(false);
  }
}

// ---- the test's inputs ----

void Controller::apply(Inputs &in) {
  auto mark = [&](Field f) {
    if (in.dirty[id(f)]) {
      pending_[id(f)] = true;
      in.dirty[id(f)] = false;
      return true;
    }
    return false;
  };
  st_.buttons = static_cast<int16_t>(in.buttons);
  st_.failure = static_cast<int16_t>(in.failure);
  user_alarm_ = in.alarm;
  if (mark(Field::tor_inputs))
    st_.tor_inputs = static_cast<int32_t>(in.tor);
  if (mark(Field::analogic_inputs))
    std::copy(in.analog.begin(), in.analog.end(), st_.analogic_inputs);
  if (mark(Field::trackball_buttons))
    std::copy(in.trackball.begin(), in.trackball.end(), st_.trackball_buttons);
  if (mark(Field::field_66))
    std::copy(in.adc.begin(), in.adc.end(), st_.field_66);
  const bool joints = mark(Field::articular_position);
  if (mark(Field::articular_speed) || joints) {
    std::copy(in.joint_pos.begin(), in.joint_pos.end(), st_.articular_position);
    std::copy(in.joint_speed.begin(), in.joint_speed.end(), st_.articular_speed);
  }
  const bool extra_axis = mark(Field::additional_axis_position);
  if (mark(Field::additional_axis_speed) || extra_axis) {
    st_.additional_axis_position = in.add_pos;
    st_.additional_axis_speed = in.add_speed;
  }
  if (mark(Field::center_sphere))
    std::copy(in.center_sphere.begin(), in.center_sphere.end(), st_.center_sphere);
  if (mark(Field::axis_of_rotation))
    std::copy(in.axis_of_rotation.begin(), in.axis_of_rotation.end(), st_.axis_of_rotation);
  if (in.teleport) {
    model_.teleport(*in.teleport);
    in.teleport.reset();
  }
  if (in.power) {
    power_ = *in.power;
    in.power.reset();
  }
  if (in.hand) {
    model_.set_hand(*in.hand);
    in.hand.reset();
  }
  if (in.trajectory) {
    traj_path_.swap(*in.trajectory);
    in.trajectory.reset();
  }
  if (in.counts) {
    st_.control_point_count = cmd_.control_point_count = (*in.counts)[0];
    st_.axis_count_wire = cmd_.axis_count_wire = (*in.counts)[1];
    in.counts.reset();
  }
  apply_edits(in.edits);
}

void Controller::apply_edits(std::vector<FieldEdit> &edits) {
  for (FieldEdit &e : edits) {
    const Field f = e.field;
    auto same = [f](const FieldEdit &x) { return x.field == f; };
    switch (e.kind) {
    case FieldEdit::Kind::Once:
      once_.push_back(std::move(e));
      break;
    case FieldEdit::Kind::Persistent:
      std::erase_if(persistent_, same);
      persistent_.push_back(std::move(e));
      break;
    case FieldEdit::Kind::Clear:
      std::erase_if(persistent_, same);
      break;
    case FieldEdit::Kind::ClearAll:
      persistent_.clear();
      break;
    }
  }
  edits.clear();
}

// ---- the period ----

uint32_t Controller::tick(bool sending, int64_t lag_ns) {
  const float dt = static_cast<float>(std::chrono::duration<double>(cfg_.period).count());
  ModelInputs mi;
  mi.mode_byte = static_cast<unsigned char>(st_.command_type);
  mi.power = power_;
  std::copy(std::begin(cmd_.force), std::end(cmd_.force), mi.force.begin());
  std::copy(std::begin(cmd_.added_force), std::end(cmd_.added_force), mi.added_force.begin());
  std::copy(std::begin(cmd_.position), std::end(cmd_.position), mi.target.begin());
  std::copy(std::begin(cmd_.speed), std::end(cmd_.speed), mi.target_speed.begin());
  mi.has_position_target = has_pos_target_;
  mi.has_speed_target = has_speed_target_;
  std::copy(std::begin(st_.simulation_stiffness), std::end(st_.simulation_stiffness),
            mi.stiffness.begin());
  std::copy(std::begin(st_.simulation_damping), std::end(st_.simulation_damping),
            mi.damping.begin());
  mi.max_linear_speed = cfg_.max_linear_speed;
  mi.max_angular_speed = cfg_.max_angular_speed;
  model_.step(static_cast<double>(ticks_) * dt, dt, mi);
  ++ticks_;

  const Pose &p = model_.pose();
  const Twist &v = model_.speed();
  std::copy(p.begin(), p.end(), st_.position);
  std::copy(v.begin(), v.end(), st_.speed);
  std::copy(p.begin(), p.end(), st_.physical_position);
  std::copy(v.begin(), v.end(), st_.physical_speed);
  uint32_t alarm = (user_alarm_ & ~(kPowerBit | kBoundBits)) | model_.bound_bits();
  if (power_)
    alarm |= kPowerBit;
  st_.alarm = static_cast<int32_t>(alarm);

  if (!sending || !client_)
    return 0;
  clear_changes(st_);
  st_.time_stamp =
      static_cast<int32_t>(wall_clock_us_low32() - static_cast<uint32_t>(lag_ns / 1000));
  for (Field f : kEveryFrame)
    st_.field_changed[id(f)] = 1;
  for (int i = 1; i <= kFieldCount; ++i)
    if (pending_[i]) {
      st_.field_changed[i] = 1;
      pending_[i] = false;
    }
  if (echo_upper_bound_) {
    post_field(st_, Field::vm_wait_upper_bound);
    echo_upper_bound_ = false;
  }
  if (traj_remaining_ > 0) {
    st_.list_index = traj_index_;
    const Pose &sample =
        traj_path_.empty() ? p
                           : traj_path_[static_cast<std::size_t>(traj_index_) % traj_path_.size()];
    if (traj_index_ < kTrajSampleRoom)
      std::copy(sample.begin(), sample.end(), traj_[static_cast<std::size_t>(traj_index_)].begin());
    post_field(st_, Field::traj_sample);
    ++traj_index_;
    --traj_remaining_;
  }
  put_test_fields();
  const int32_t index = st_.list_index;
  const uint32_t size = encode_state_frame();
  st_.list_index = index; // as sent, for the trace
  if (size == kCodecFailure) {
    log(0, "state frame does not fit in %u bytes: fields put by the test are dropped",
        kFrameCapacity);
    return 0;
  }
  return size;
}

// The fields a test put in, after the model's: they override them.
void Controller::put_test_fields() {
  for (auto *list : {&persistent_, &once_})
    for (const FieldEdit &o : *list) {
      if (is_count(o.field))
        continue;
      put_values(st_, o.field, o.values);
      if (o.field == Field::traj_sample && st_.list_index >= 0 && st_.list_index < kTrajSampleRoom)
        std::copy(o.values.begin() + std::min<std::ptrdiff_t>(1, std::ssize(o.values)),
                  o.values.begin() + std::min<std::ptrdiff_t>(8, std::ssize(o.values)),
                  traj_[static_cast<std::size_t>(st_.list_index)].begin());
      post_field(st_, o.field);
    }
  once_.clear();
}

// The counts (items 52 and 69) head every state frame, so that the items
// they size are always read with the counts of the same frame and no single
// lost frame can desynchronise a client. The rest follows in the usual
// descending order.
uint32_t Controller::encode_state_frame() {
  std::array<uint32_t, kFieldCount + 1> body{};
  std::copy(std::begin(st_.field_changed), std::end(st_.field_changed), body.begin());
  clear_changes(st_);
  post_field(st_, Field::control_point_count);
  post_field(st_, Field::axis_count_wire);
  const uint32_t head = encode_decode(kModeEncode, &st_, frame_.data(), kFrameCapacity);
  std::copy(body.begin(), body.end(), std::begin(st_.field_changed));
  st_.field_changed[id(Field::control_point_count)] =
      st_.field_changed[id(Field::axis_count_wire)] = 0;
  const uint32_t rest =
      head == kCodecFailure
          ? kCodecFailure
          : encode_decode(kModeEncode, &st_, frame_.data() + head, kFrameCapacity - head);
  post_field(st_, Field::control_point_count); // for the trace
  post_field(st_, Field::axis_count_wire);
  if (rest == kCodecFailure || head + rest > kFrameCapacity)
    return kCodecFailure;
  return head + rest;
}

DeviceState Controller::status() const {
  DeviceState d;
  d.client = client_.has_value();
  d.mode_byte = static_cast<unsigned char>(st_.command_type);
  d.power = power_;
  d.pose = model_.pose();
  d.speed = model_.speed();
  d.contact = model_.contact_force();
  d.alarm = static_cast<uint32_t>(st_.alarm);
  return d;
}

} // namespace kalo::sim
