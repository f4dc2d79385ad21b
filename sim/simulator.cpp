#include "simulator.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <thread>
#include <time.h>
#include <unistd.h>

#include "kalo/kalo_internal.h"
#include "protocol/field_values.h"
#include "protocol/proto_session.h"

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
constexpr std::size_t kDatagramRoom = kSessionBufferSize;
constexpr std::size_t kDelaySlots = 4096;
constexpr std::size_t kTraceBufferLimit = 32u << 20;

int64_t now_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// State frames are stamped with the low 32 bits of the wall clock in
// microseconds, as a controller with a synchronised clock does.
uint32_t wall_clock_us_low32() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000000u +
                               static_cast<uint64_t>(ts.tv_nsec) / 1000u);
}

void sleep_until_ns(int64_t t) {
  timespec ts{};
  ts.tv_sec = t / 1000000000;
  ts.tv_nsec = t % 1000000000;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
  }
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

// Small, fast generator for the fault draws (xorshift64*).
class Random {
public:
  void seed(uint64_t s) { state_ = s ? s : 0x9E3779B97F4A7C15ull; }
  double uniform() {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return static_cast<double>((state_ * 0x2545F4914F6CDD1Dull) >> 11) * (1.0 / 9007199254740992.0);
  }
  bool chance(double p) { return p > 0 && uniform() < p; }

private:
  uint64_t state_ = 1;
};

// The trace file is written by a thread of its own: the frame loop only
// appends text to a buffer, so a slow disk never delays a frame.
class TraceWriter {
public:
  bool open(const std::string &path, std::string *error) {
    file_ = std::fopen(path.c_str(), "w");
    if (file_ == nullptr) {
      if (error)
        *error = "cannot open trace file " + path + ": " + std::strerror(errno);
      return false;
    }
    std::fputs("time_s,direction,note,fields\n", file_);
    front_.reserve(1 << 20);
    back_.reserve(1 << 20);
    stop_ = false;
    thread_ = std::thread([this] { run(); });
    return true;
  }
  bool is_open() const { return file_ != nullptr; }
  void append(const std::string &line) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (front_.size() + line.size() > kTraceBufferLimit) {
      lost_.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    front_ += line;
  }
  void close() {
    if (file_ == nullptr)
      return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    cv_.notify_all();
    thread_.join();
    std::fclose(file_);
    file_ = nullptr;
  }
  uint64_t lost() const { return lost_.load(std::memory_order_relaxed); }

private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      cv_.wait_for(lock, std::chrono::milliseconds(20), [this] { return stop_; });
      front_.swap(back_);
      const bool last = stop_;
      lock.unlock();
      if (!back_.empty())
        std::fwrite(back_.data(), 1, back_.size(), file_);
      back_.clear();
      if (last) {
        std::fflush(file_);
        return;
      }
      lock.lock();
    }
  }

  std::FILE *file_ = nullptr;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::string front_, back_;
  bool stop_ = false;
  std::thread thread_;
  std::atomic<uint64_t> lost_{0};
};

struct Override {
  Field field;
  std::vector<double> values;
};

// A datagram held back by the delay fault.
struct DelaySlot {
  int64_t due;
  std::size_t size;
  std::array<unsigned char, kDatagramRoom> bytes;
};

} // namespace

bool ReceivedFrame::has(Field f) const {
  return std::binary_search(ids.begin(), ids.end(), id(f));
}

bool parse_version(const std::string &text, int &major, int &minor) {
  const auto dot = text.find('.');
  const std::string a = text.substr(0, dot);
  std::string b = dot == std::string::npos ? "0" : text.substr(dot + 1);
  auto digits = [](const std::string &s) {
    return !s.empty() && s.size() <= 6 && s.find_first_not_of("0123456789") == std::string::npos;
  };
  if (!digits(a) || !digits(b) || b.size() > 2)
    return false;
  if (b.size() == 1)
    b += '0'; // "5.4" is 5 and 40 hundredths
  major = std::stoi(a);
  minor = std::stoi(b);
  return true;
}

struct Simulator::Impl {
  explicit Impl(Config c) : cfg(std::move(c)), model(cfg.model) {}

  Config cfg;
  int fd = -1;
  uint16_t bound_port = 0;
  std::thread thread;
  std::atomic<bool> stop_flag{false};
  std::atomic<bool> running{false};
  TraceWriter trace;
  int64_t t0 = 0; // start of the run, for trace times and the model's clock

  // ---- shared with the API threads, under mutex ----
  mutable std::mutex mutex;
  std::condition_variable received_cv;
  struct Inputs {
    uint16_t buttons = 0, failure = 0;
    uint32_t alarm = 0, tor = 0;
    std::array<float, 7> analog{};
    std::array<int32_t, 6> trackball{};
    std::array<float, 3> adc{};
    std::array<float, kArticularRoom> joint_pos{}, joint_speed{};
    float add_pos = 0, add_speed = 0;
    Pose center_sphere{0, 0, 0, 0, 0, 0, 1};
    Vec3 axis_of_rotation{0, 0, 1};
    std::optional<Pose> teleport;
    std::optional<bool> power;
    std::optional<Hand> hand;
    std::optional<std::vector<Pose>> trajectory;
    int ncp = 1, nax = 6;
    bool counts_dirty = false;
    std::array<bool, kFieldCount + 1> dirty{};
    std::vector<Override> once, persistent;
    bool persistent_dirty = false;
    bool paused = false;
    int64_t silent_until = 0;
    std::optional<Faults> faults;
    bool restart = false;
    std::vector<std::vector<uint8_t>> raw; // datagrams to send as they are
  } in;
  DeviceState published;
  std::deque<ReceivedFrame> received;
  ExchangeRecord last_cmd{};

  struct Counters {
    std::atomic<uint64_t> sent{0}, received{0}, malformed{0}, foreign{0}, dropped{0}, duplicated{0},
        corrupted{0}, delayed{0}, late{0}, connections{0};
  } counters;

  // ---- owned by the frame loop ----
  ExchangeRecord st{};  // state record: what the controller reports
  ExchangeRecord cmd{}; // everything the client sent, latest values
  ExchangeRecord rx{};  // decoding scratch
  DeviceModel model;
  bool have_client = false, paused = false;
  sockaddr_in client{};
  int ncp = 1, nax = 6;
  std::array<bool, kFieldCount + 1> pending{};
  bool echo_upper_bound = false;
  int32_t traj_remaining = 0, traj_index = 0;
  std::vector<std::array<float, 7>> traj;
  std::vector<Pose> traj_path; // the samples to stream; empty: the current pose
  bool power = false;
  int mode_byte = 0;
  bool has_pos_target = false, has_speed_target = false;
  uint32_t user_alarm = 0;
  int64_t silent_until = 0;
  Faults faults;
  Random random;
  std::vector<Override> once_local, persistent_local;
  std::vector<std::vector<uint8_t>> raw_local;
  std::vector<DelaySlot> delay_queue; // ring buffer, allocated on first use
  std::size_t delay_head = 0, delay_count = 0;
  std::array<unsigned char, kFrameCapacity> payload{};
  std::array<unsigned char, kDatagramRoom> datagram{};
  std::array<unsigned char, 2048> rx_buffer{};
  std::string line; // trace line being built
  uint64_t ticks = 0;

  void log(int level, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
  bool open_socket(std::string *error);
  void init_records();
  void reset_records();
  void run();
  void drain(int64_t now);
  void handle_datagram(const unsigned char *data, std::size_t size, const sockaddr_in &from,
                       int64_t now);
  void react(const sockaddr_in &from, int64_t now);
  void forget_client(bool reset_power);
  void apply_inputs_locked();
  void tick(int64_t now);
  // How late this tick runs after its scheduled time: a controller stamps a
  // frame with its cycle's time, not with the moment its thread got the CPU.
  int64_t tick_lag_ns = 0;
  uint32_t encode_state_frame();
  void send_frame(std::size_t size, int64_t now);
  void transmit(const unsigned char *bytes, std::size_t size);
  void flush_delayed(int64_t now);
  void trace_frame(const ExchangeRecord &r, int64_t now, const char *dir, const char *note);
  void publish_locked();
};

void Simulator::Impl::log(int level, const char *fmt, ...) {
  if (cfg.verbosity < level)
    return;
  char text[256];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  std::fprintf(stderr, "kalo-sim: %s\n", text);
}

bool Simulator::Impl::open_socket(std::string *error) {
  auto fail = [&](const std::string &what) {
    if (error)
      *error = what + ": " + std::strerror(errno);
    if (fd >= 0)
      ::close(fd);
    fd = -1;
    return false;
  };
  fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0)
    return fail("socket");
  const int buffer = 1 << 20;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(cfg.port);
  if (inet_pton(AF_INET, cfg.bind_address.c_str(), &local.sin_addr) != 1) {
    errno = EINVAL;
    return fail("bad bind address " + cfg.bind_address);
  }
  if (::bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0)
    return fail("cannot bind " + cfg.bind_address + ":" + std::to_string(cfg.port));
  socklen_t len = sizeof local;
  getsockname(fd, reinterpret_cast<sockaddr *>(&local), &len);
  bound_port = ntohs(local.sin_port);
  return true;
}

void Simulator::Impl::init_records() {
  ncp = std::max(0, cfg.control_points);
  nax = std::max(0, cfg.axes);
  in.ncp = ncp;
  in.nax = nax;
  traj.assign(kTrajSampleRoom, std::array<float, 7>{});
  reset_records();
  faults = cfg.faults;
  random.seed(faults.seed);
  model.set_hand(cfg.hand);
  once_local.reserve(16);
  persistent_local.reserve(16);
  line.reserve(8192);
}

// The controller's memory: what it reports and what its clients set.
void Simulator::Impl::reset_records() {
  st = ExchangeRecord{};
  cmd = ExchangeRecord{};
  st.control_point_count = ncp;
  st.axis_count_wire = nax;
  st.controller_version[0] = cfg.version_major;
  st.controller_version[1] = cfg.version_minor;
  st.device_id[0] = cfg.device_type;
  st.device_id[1] = cfg.serial_number;
  st.max_speed[0] = cfg.max_linear_speed;
  st.max_speed[1] = cfg.max_angular_speed;
  std::copy(cfg.stiffness.begin(), cfg.stiffness.end(), st.simulation_stiffness);
  std::copy(cfg.damping.begin(), cfg.damping.end(), st.simulation_damping);
  st.vm_base_frame[6] = 1;
  st.center_sphere[6] = 1;
  st.axis_of_rotation[2] = 1;
  st.position[6] = 1;
  st.physical_position[6] = 1;
  st.traj_samples = reinterpret_cast<float(*)[7]>(traj.data());
  cmd.control_point_count = ncp;
  cmd.axis_count_wire = nax;
  power = cfg.power_on;
}

void Simulator::Impl::forget_client(bool reset_power) {
  have_client = false;
  pending.fill(false);
  echo_upper_bound = false;
  traj_remaining = 0;
  mode_byte = 0;
  st.command_type = 0;
  has_pos_target = has_speed_target = false;
  std::fill(std::begin(cmd.force), std::end(cmd.force), 0.f);
  std::fill(std::begin(cmd.added_force), std::end(cmd.added_force), 0.f);
  if (reset_power)
    power = cfg.power_on;
}

// ---- receiving ----

void Simulator::Impl::drain(int64_t now) {
  for (;;) {
    sockaddr_in from{};
    socklen_t len = sizeof from;
    const ssize_t n = ::recvfrom(fd, rx_buffer.data(), rx_buffer.size(), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr *>(&from), &len);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return;
    }
    handle_datagram(rx_buffer.data(), static_cast<std::size_t>(n), from, now);
  }
}

void Simulator::Impl::handle_datagram(const unsigned char *data, std::size_t size,
                                      const sockaddr_in &from, int64_t now) {
  const int length = envelope_check(data, size);
  // A datagram larger than our buffer arrives truncated and fails the check.
  if (length < 0 || static_cast<std::size_t>(length) > kFrameCapacity) {
    counters.malformed.fetch_add(1, std::memory_order_relaxed);
    if (trace.is_open()) {
      line.clear();
      char head[96];
      std::snprintf(head, sizeof head, "%.6f,in,malformed,bytes=%zu\n", (now - t0) * 1e-9, size);
      line += head;
      trace.append(line);
    }
    return;
  }
  // Decode into a copy of the command record so that a frame that fails
  // part-way leaves nothing behind. The counts are ours: the client codes its
  // per-point and per-axis items with the counts we reported.
  rx = cmd;
  clear_changes(rx);
  rx.control_point_count = ncp;
  rx.axis_count_wire = nax;
  rx.traj_samples = nullptr;
  std::memcpy(payload.data(), data + 4, static_cast<std::size_t>(length));
  if (encode_decode(kModeDecode, &rx, payload.data(), static_cast<uint32_t>(length)) ==
      kCodecFailure) {
    counters.malformed.fetch_add(1, std::memory_order_relaxed);
    if (trace.is_open()) {
      line.clear();
      char head[96];
      std::snprintf(head, sizeof head, "%.6f,in,undecodable,bytes=%d\n", (now - t0) * 1e-9, length);
      line += head;
      trace.append(line);
    }
    return;
  }
  counters.received.fetch_add(1, std::memory_order_relaxed);
  const bool hello = carries(rx, Field::hello);
  const bool from_client = have_client && same_peer(from, client);
  if (trace.is_open())
    trace_frame(rx, now, "in", hello || from_client ? "" : "foreign");
  if (hello || from_client) {
    cmd = rx;
    react(from, now);
  } else {
    counters.foreign.fetch_add(1, std::memory_order_relaxed);
  }

  std::lock_guard<std::mutex> lock(mutex);
  if (hello || from_client)
    last_cmd = cmd;
  if (!cfg.record_received)
    return;
  ReceivedFrame f;
  f.time = Clock::time_point(std::chrono::nanoseconds(now));
  f.from = from;
  f.payload.assign(payload.begin(), payload.begin() + length);
  for (int i = 1; i <= kFieldCount; ++i)
    if (rx.field_changed[i])
      f.ids.push_back(i);
  f.record = rx;
  received.push_back(std::move(f));
  while (received.size() > cfg.max_recorded && !received.empty())
    received.pop_front();
  received_cv.notify_all();
}

void Simulator::Impl::react(const sockaddr_in &from, int64_t now) {
  auto changed = [this](Field f) { return carries(cmd, f); };
  if (changed(Field::hello)) {
    // A hello from the client being served (it heard nothing for a while)
    // resumes the connection as it was; anyone else's starts a new one.
    if (!(have_client && same_peer(from, client)))
      forget_client(false);
    have_client = true;
    client = from;
    for (Field f : kSnapshot) // the device's state that is not in every frame
      pending[id(f)] = true;
    counters.connections.fetch_add(1, std::memory_order_relaxed);
    char host[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &from.sin_addr, host, sizeof host);
    log(1, "client %s:%u connected", host, ntohs(from.sin_port));
  }
  if (changed(Field::command_type)) {
    mode_byte = static_cast<unsigned char>(cmd.command_type);
    st.command_type = cmd.command_type;
    has_pos_target = has_speed_target = false; // set-points of the old mode do not carry over
    log(2, "command type byte %d", mode_byte);
  }
  if (changed(Field::power_on)) {
    power = cmd.power_on != 0;
    log(2, "power %s", power ? "on" : "off");
  }
  if (changed(Field::position)) {
    has_pos_target = true;
    has_speed_target = false;
  }
  if (changed(Field::speed) && !changed(Field::position)) {
    has_speed_target = true;
    has_pos_target = false;
  }
  if (changed(Field::simulation_stiffness))
    std::copy(std::begin(cmd.simulation_stiffness), std::end(cmd.simulation_stiffness),
              st.simulation_stiffness);
  if (changed(Field::simulation_damping))
    std::copy(std::begin(cmd.simulation_damping), std::end(cmd.simulation_damping),
              st.simulation_damping);
  if (changed(Field::vm_base_frame))
    std::copy(std::begin(cmd.vm_base_frame), std::end(cmd.vm_base_frame), st.vm_base_frame);
  if (changed(Field::vm_base_frame_to_current)) {
    const Pose &p = model.pose();
    std::copy(p.begin(), p.end(), st.vm_base_frame);
  }
  if (changed(Field::traj_sample_count)) {
    traj_remaining = std::max(0, cmd.traj_sample_count);
    traj_index = 0;
    log(2, "sampling %d trajectory points", traj_remaining);
  }
  if (changed(Field::vm_wait_upper_bound))
    echo_upper_bound = true;
  if (changed(Field::request)) {
    const int asked = cmd.request;
    log(2, "request %d (%s)", asked, field_name(asked));
    if (answerable(asked))
      pending[asked] = true;
  }
  if (changed(Field::close_request)) {
    log(1, "client closed the connection");
    forget_client(false);
  }
  (void)now;
}

// ---- sending ----

void Simulator::Impl::apply_inputs_locked() {
  auto mark = [&](Field f) {
    if (in.dirty[id(f)]) {
      pending[id(f)] = true;
      in.dirty[id(f)] = false;
      return true;
    }
    return false;
  };
  st.buttons = static_cast<int16_t>(in.buttons);
  st.failure = static_cast<int16_t>(in.failure);
  user_alarm = in.alarm;
  if (mark(Field::tor_inputs))
    st.tor_inputs = static_cast<int32_t>(in.tor);
  if (mark(Field::analogic_inputs))
    std::copy(in.analog.begin(), in.analog.end(), st.analogic_inputs);
  if (mark(Field::trackball_buttons))
    std::copy(in.trackball.begin(), in.trackball.end(), st.trackball_buttons);
  if (mark(Field::field_66))
    std::copy(in.adc.begin(), in.adc.end(), st.field_66);
  const bool joints = mark(Field::articular_position);
  if (mark(Field::articular_speed) || joints) {
    std::copy(in.joint_pos.begin(), in.joint_pos.end(), st.articular_position);
    std::copy(in.joint_speed.begin(), in.joint_speed.end(), st.articular_speed);
  }
  const bool extra_axis = mark(Field::additional_axis_position);
  if (mark(Field::additional_axis_speed) || extra_axis) {
    st.additional_axis_position = in.add_pos;
    st.additional_axis_speed = in.add_speed;
  }
  if (mark(Field::center_sphere))
    std::copy(in.center_sphere.begin(), in.center_sphere.end(), st.center_sphere);
  if (mark(Field::axis_of_rotation))
    std::copy(in.axis_of_rotation.begin(), in.axis_of_rotation.end(), st.axis_of_rotation);
  if (in.teleport) {
    model.teleport(*in.teleport);
    in.teleport.reset();
  }
  if (in.power) {
    power = *in.power;
    in.power.reset();
  }
  if (in.hand) {
    model.set_hand(*in.hand);
    in.hand.reset();
  }
  if (in.trajectory) {
    traj_path.swap(*in.trajectory);
    in.trajectory.reset();
  }
  if (in.counts_dirty) {
    ncp = in.ncp;
    nax = in.nax;
    cmd.control_point_count = ncp;
    cmd.axis_count_wire = nax;
    in.counts_dirty = false;
  }
  for (Override &o : in.once)
    once_local.push_back(std::move(o));
  in.once.clear();
  if (in.persistent_dirty) {
    persistent_local = in.persistent; // copies only when the set changed
    in.persistent_dirty = false;
  }
  paused = in.paused;
  silent_until = in.silent_until;
  if (in.faults) {
    faults = *in.faults;
    random.seed(faults.seed);
    in.faults.reset();
  }
  if (in.restart) {
    // As a reboot: the client, what it set and what was in flight are gone;
    // only a new hello starts the stream again.
    in.restart = false;
    if (have_client)
      log(1, "restart: client forgotten");
    forget_client(true);
    reset_records();
    delay_head = delay_count = 0;
    raw_local.clear();
    in.raw.clear();
  }
  for (auto &d : in.raw)
    raw_local.push_back(std::move(d));
  in.raw.clear();
}

void Simulator::Impl::publish_locked() {
  published.client = have_client;
  published.streaming = have_client && !paused;
  published.mode_byte = mode_byte;
  published.power = power;
  published.pose = model.pose();
  published.speed = model.speed();
  published.alarm = static_cast<uint32_t>(st.alarm);
}

void Simulator::Impl::tick(int64_t now) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    apply_inputs_locked();
  }
  const float dt = static_cast<float>(std::chrono::duration<double>(cfg.period).count());
  ModelInputs mi;
  mi.mode_byte = mode_byte;
  mi.power = power;
  std::copy(std::begin(cmd.force), std::end(cmd.force), mi.force.begin());
  std::copy(std::begin(cmd.added_force), std::end(cmd.added_force), mi.added_force.begin());
  std::copy(std::begin(cmd.position), std::end(cmd.position), mi.target.begin());
  std::copy(std::begin(cmd.speed), std::end(cmd.speed), mi.target_speed.begin());
  mi.has_position_target = has_pos_target;
  mi.has_speed_target = has_speed_target;
  std::copy(std::begin(st.simulation_stiffness), std::end(st.simulation_stiffness),
            mi.stiffness.begin());
  std::copy(std::begin(st.simulation_damping), std::end(st.simulation_damping), mi.damping.begin());
  mi.max_linear_speed = cfg.max_linear_speed;
  mi.max_angular_speed = cfg.max_angular_speed;
  model.step(static_cast<double>(ticks) * dt, dt, mi);
  ++ticks;

  const Pose &p = model.pose();
  const Twist &v = model.speed();
  std::copy(p.begin(), p.end(), st.position);
  std::copy(v.begin(), v.end(), st.speed);
  std::copy(p.begin(), p.end(), st.physical_position);
  std::copy(v.begin(), v.end(), st.physical_speed);
  uint32_t alarm = (user_alarm & ~(kPowerBit | 0x3Fu)) | model.bound_bits();
  if (power)
    alarm |= kPowerBit;
  st.alarm = static_cast<int32_t>(alarm);

  const bool sending = have_client && !paused && now >= silent_until;
  if (sending) {
    clear_changes(st);
    st.time_stamp =
        static_cast<int32_t>(wall_clock_us_low32() - static_cast<uint32_t>(tick_lag_ns / 1000));
    for (Field f : kEveryFrame)
      st.field_changed[id(f)] = 1;
    for (int i = 1; i <= kFieldCount; ++i)
      if (pending[i]) {
        st.field_changed[i] = 1;
        pending[i] = false;
      }
    if (echo_upper_bound) {
      post_field(st, Field::vm_wait_upper_bound);
      echo_upper_bound = false;
    }
    if (traj_remaining > 0) {
      st.list_index = traj_index;
      const Pose &sample = traj_path.empty()
                               ? p
                               : traj_path[static_cast<std::size_t>(traj_index) % traj_path.size()];
      if (traj_index < kTrajSampleRoom)
        std::copy(sample.begin(), sample.end(), traj[static_cast<std::size_t>(traj_index)].begin());
      post_field(st, Field::traj_sample);
      ++traj_index;
      --traj_remaining;
    }
    for (auto *list : {&persistent_local, &once_local})
      for (const Override &o : *list) {
        // The counts are the simulator's own (set_counts): a frame sized by a
        // count the record cannot hold would be read past its members.
        if (o.field == Field::control_point_count || o.field == Field::axis_count_wire)
          continue;
        put_values(st, o.field, o.values);
        if (o.field == Field::traj_sample && st.list_index >= 0 && st.list_index < kTrajSampleRoom)
          std::copy(o.values.begin() + std::min<std::size_t>(1, o.values.size()),
                    o.values.begin() + std::min<std::size_t>(8, o.values.size()),
                    traj[static_cast<std::size_t>(st.list_index)].begin());
        post_field(st, o.field);
      }
    once_local.clear();
    const int32_t index = st.list_index;
    const uint32_t size = encode_state_frame();
    if (size == kCodecFailure) {
      log(0, "state frame does not fit in %u bytes: fields put by the test are dropped",
          kFrameCapacity);
    } else {
      if (trace.is_open()) {
        st.list_index = index;
        trace_frame(st, now, "out", nullptr);
      }
      send_frame(size, now);
    }
    for (const auto &d : raw_local)
      transmit(d.data(), d.size());
    raw_local.clear();
  }
  std::lock_guard<std::mutex> lock(mutex);
  publish_locked();
}

// The counts (items 52 and 69) head every state frame, so that the items
// they size are always read with the counts of the same frame and no single
// lost frame can desynchronise a client. The rest follows in the usual
// descending order.
uint32_t Simulator::Impl::encode_state_frame() {
  std::array<uint32_t, kFieldCount + 1> body{};
  std::copy(std::begin(st.field_changed), std::end(st.field_changed), body.begin());
  clear_changes(st);
  st.control_point_count = ncp;
  st.axis_count_wire = nax;
  post_field(st, Field::control_point_count);
  post_field(st, Field::axis_count_wire);
  const uint32_t head = encode_decode(kModeEncode, &st, payload.data(), kFrameCapacity);
  std::copy(body.begin(), body.end(), std::begin(st.field_changed));
  st.field_changed[id(Field::control_point_count)] = st.field_changed[id(Field::axis_count_wire)] =
      0;
  const uint32_t rest =
      head == kCodecFailure
          ? kCodecFailure
          : encode_decode(kModeEncode, &st, payload.data() + head, kFrameCapacity - head);
  post_field(st, Field::control_point_count); // for the trace
  post_field(st, Field::axis_count_wire);
  if (rest == kCodecFailure || head + rest > kFrameCapacity)
    return kCodecFailure;
  return head + rest;
}

void Simulator::Impl::transmit(const unsigned char *bytes, std::size_t size) {
  if (!have_client)
    return;
  ::sendto(fd, bytes, size, 0, reinterpret_cast<const sockaddr *>(&client), sizeof client);
}

void Simulator::Impl::send_frame(std::size_t size, int64_t now) {
  const std::size_t n = envelope_wrap(payload.data(), size, datagram.data());
  counters.sent.fetch_add(1, std::memory_order_relaxed);
  const char *note = "";
  if (random.chance(faults.drop_ratio)) {
    counters.dropped.fetch_add(1, std::memory_order_relaxed);
    note = "dropped";
  } else {
    if (random.chance(faults.corrupt_ratio)) {
      datagram[n - 1] ^= 0x5A;
      counters.corrupted.fetch_add(1, std::memory_order_relaxed);
      note = "corrupt";
    }
    const bool twice = random.chance(faults.duplicate_ratio);
    if (twice)
      counters.duplicated.fetch_add(1, std::memory_order_relaxed);
    if (faults.delay_us > 0 && random.chance(faults.delay_ratio)) {
      if (delay_queue.empty())
        delay_queue.resize(kDelaySlots); // once, the first time the fault is used
      for (int copy = 0; copy < (twice ? 2 : 1); ++copy) {
        if (delay_count == kDelaySlots) { // full: the oldest goes now
          flush_delayed(INT64_MAX / 2);
        }
        DelaySlot &slot = delay_queue[(delay_head + delay_count) % kDelaySlots];
        slot.due = now + static_cast<int64_t>(faults.delay_us) * 1000;
        slot.size = n;
        std::memcpy(slot.bytes.data(), datagram.data(), n);
        ++delay_count;
      }
      counters.delayed.fetch_add(1, std::memory_order_relaxed);
      if (!*note)
        note = "delayed";
    } else {
      transmit(datagram.data(), n);
      if (twice)
        transmit(datagram.data(), n);
    }
    if (twice && !*note)
      note = "duplicate";
  }
  if (trace.is_open() && *note) {
    // the line is complete; rewrite its note column
    const auto first = line.find(',', line.find(',') + 1);
    if (first != std::string::npos)
      line.insert(first + 1, note);
  }
  if (trace.is_open())
    trace.append(line);
}

void Simulator::Impl::flush_delayed(int64_t now) {
  while (delay_count > 0) {
    DelaySlot &slot = delay_queue[delay_head];
    if (slot.due > now)
      return;
    transmit(slot.bytes.data(), slot.size);
    delay_head = (delay_head + 1) % kDelaySlots;
    --delay_count;
  }
}

void Simulator::Impl::trace_frame(const ExchangeRecord &r, int64_t now, const char *dir,
                                  const char *note) {
  line.clear();
  char head[64];
  std::snprintf(head, sizeof head, "%.6f,%s,,", (now - t0) * 1e-9, dir);
  line += head;
  if (note != nullptr && *note)
    line.insert(line.size() - 1, note);
  bool first = true;
  for (int i = 1; i <= kFieldCount; ++i) {
    if (!r.field_changed[i])
      continue;
    if (!first)
      line += ';';
    first = false;
    line += std::to_string(i); // short strings stay in place: no allocation
    const auto f = static_cast<Field>(i);
    if (has_values(f)) {
      line += '=';
      append_values(r, f, line);
    }
  }
  line += '\n';
  if (note != nullptr) // received frames are complete here; sent ones after the faults
    trace.append(line);
}

void Simulator::Impl::run() {
  prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
  if (cfg.realtime) {
    sched_param sp{};
    sp.sched_priority = sched_get_priority_min(SCHED_FIFO) + 10;
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &sp); // best effort
  }
  const int64_t period = std::max<int64_t>(1000, cfg.period.count());
  // Beyond this the loop stops catching up and starts afresh (counted).
  const int64_t resync = std::max<int64_t>(100 * period, 50'000'000);
  int64_t next = now_ns();
  bool was_streaming = false;
  while (!stop_flag.load(std::memory_order_relaxed)) {
    const bool streaming = have_client && !paused;
    if (!streaming) {
      // Nothing to pace: wait for traffic, but keep applying the API's
      // inputs so that pause/resume and restart take effect.
      int timeout_ms = 2;
      pollfd pfd{fd, POLLIN, 0};
      ::poll(&pfd, 1, timeout_ms);
      const int64_t now = now_ns();
      drain(now);
      flush_delayed(now);
      {
        std::lock_guard<std::mutex> lock(mutex);
        apply_inputs_locked();
        publish_locked();
      }
      was_streaming = false;
      continue;
    }
    if (!was_streaming) {
      next = now_ns(); // a new client (or resume): the first frame goes at once
      was_streaming = true;
    }
    int64_t wake = next;
    if (delay_count > 0)
      wake = std::min(wake, delay_queue[delay_head].due);
    sleep_until_ns(wake);
    int64_t now = now_ns();
    drain(now);
    flush_delayed(now);
    if (now < next)
      continue;
    tick_lag_ns = now - next;
    tick(now);
    tick_lag_ns = 0;
    next += period;
    if (now - next > resync) {
      next = now + period;
      counters.late.fetch_add(1, std::memory_order_relaxed);
    }
  }
}

// ---- the API ----

Simulator::Simulator(Config config) : impl_(std::make_unique<Impl>(std::move(config))) {}

Simulator::~Simulator() {
  stop();
}

bool Simulator::start(std::string *error) {
  Impl &s = *impl_;
  if (s.running.load()) {
    if (error)
      *error = "already running";
    return false;
  }
  if (s.cfg.period.count() < 1000) {
    if (error)
      *error = "period below 1 microsecond";
    return false;
  }
  if (!s.open_socket(error))
    return false;
  if (!s.cfg.trace_file.empty() && !s.trace.open(s.cfg.trace_file, error)) {
    ::close(s.fd);
    s.fd = -1;
    return false;
  }
  s.init_records();
  s.t0 = now_ns();
  s.stop_flag = false;
  s.running = true;
  s.thread = std::thread([&s] { s.run(); });
  return true;
}

void Simulator::stop() {
  Impl &s = *impl_;
  if (!s.running.load())
    return;
  s.stop_flag = true;
  s.thread.join();
  s.trace.close();
  ::close(s.fd);
  s.fd = -1;
  s.have_client = false;
  s.running = false;
  std::lock_guard<std::mutex> lock(s.mutex);
  s.published.client = s.published.streaming = false;
}

bool Simulator::running() const {
  return impl_->running.load();
}
uint16_t Simulator::port() const {
  return impl_->bound_port;
}
const Config &Simulator::config() const {
  return impl_->cfg;
}

bool Simulator::wait_for_client(std::chrono::milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  do {
    if (device().client)
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  } while (Clock::now() < end);
  return device().client;
}

bool Simulator::wait_for_frames_sent(uint64_t n, std::chrono::milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  while (stats().frames_sent < n) {
    if (Clock::now() >= end)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

DeviceState Simulator::device() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->published;
}

Stats Simulator::stats() const {
  const auto &c = impl_->counters;
  Stats s;
  s.frames_sent = c.sent.load();
  s.frames_received = c.received.load();
  s.malformed = c.malformed.load();
  s.foreign = c.foreign.load();
  s.dropped = c.dropped.load();
  s.duplicated = c.duplicated.load();
  s.corrupted = c.corrupted.load();
  s.delayed = c.delayed.load();
  s.late_ticks = c.late.load();
  s.trace_lost = impl_->trace.lost();
  s.connections = c.connections.load();
  return s;
}

#define KALO_SIM_SET(body)                                                                         \
  do {                                                                                             \
    std::lock_guard<std::mutex> lock(impl_->mutex);                                                \
    auto &in = impl_->in;                                                                          \
    body;                                                                                          \
  } while (0)

void Simulator::set_buttons(uint16_t bits) {
  KALO_SIM_SET(in.buttons = bits);
}
void Simulator::set_button(int number, bool pressed) {
  if (number < 1 || number > 16)
    return;
  const auto bit = static_cast<uint16_t>(1u << (number - 1));
  KALO_SIM_SET(in.buttons =
                   static_cast<uint16_t>(pressed ? (in.buttons | bit) : (in.buttons & ~bit)));
}
void Simulator::set_failure(uint16_t bits) {
  KALO_SIM_SET(in.failure = bits);
}
void Simulator::set_alarm(uint32_t bits) {
  KALO_SIM_SET(in.alarm = bits);
}
void Simulator::set_tor_inputs(uint32_t bits) {
  KALO_SIM_SET(in.tor = bits; in.dirty[id(Field::tor_inputs)] = true);
}
void Simulator::set_analog_inputs(const std::array<float, 7> &v) {
  KALO_SIM_SET(in.analog = v; in.dirty[id(Field::analogic_inputs)] = true);
}
void Simulator::set_trackball(const std::array<int32_t, 6> &v) {
  KALO_SIM_SET(in.trackball = v; in.dirty[id(Field::trackball_buttons)] = true);
}
void Simulator::set_adc(const std::array<float, 3> &v) {
  KALO_SIM_SET(in.adc = v; in.dirty[id(Field::field_66)] = true);
}
void Simulator::set_joints(std::span<const float> positions, std::span<const float> speeds) {
  KALO_SIM_SET({
    in.joint_pos.fill(0);
    in.joint_speed.fill(0);
    std::copy_n(positions.begin(), std::min<std::size_t>(positions.size(), kArticularRoom),
                in.joint_pos.begin());
    std::copy_n(speeds.begin(), std::min<std::size_t>(speeds.size(), kArticularRoom),
                in.joint_speed.begin());
    in.dirty[id(Field::articular_position)] = in.dirty[id(Field::articular_speed)] = true;
  });
}
void Simulator::set_additional_axis(float position, float speed) {
  KALO_SIM_SET(in.add_pos = position; in.add_speed = speed;
               in.dirty[id(Field::additional_axis_position)] =
                   in.dirty[id(Field::additional_axis_speed)] = true);
}
void Simulator::set_trajectory(std::vector<Pose> path) {
  KALO_SIM_SET(in.trajectory = std::move(path));
}
void Simulator::set_center_sphere(const Pose &p) {
  KALO_SIM_SET(in.center_sphere = p; in.dirty[id(Field::center_sphere)] = true);
}
void Simulator::set_axis_of_rotation(const Vec3 &a) {
  KALO_SIM_SET(in.axis_of_rotation = a; in.dirty[id(Field::axis_of_rotation)] = true);
}
void Simulator::set_pose(const Pose &p) {
  KALO_SIM_SET(in.teleport = p);
}
void Simulator::set_power(bool on) {
  KALO_SIM_SET(in.power = on);
}
void Simulator::set_hand(const Hand &h) {
  KALO_SIM_SET(in.hand = h);
}
void Simulator::set_counts(int control_points, int axes) {
  KALO_SIM_SET(in.ncp = std::max(0, control_points); in.nax = std::max(0, axes);
               in.counts_dirty = true);
}

void Simulator::put_field(Field f, std::span<const double> values, bool persistent) {
  if (id(f) < 1 || id(f) > kFieldCount)
    return;
  Override o{f, std::vector<double>(values.begin(), values.end())};
  KALO_SIM_SET({
    if (persistent) {
      std::erase_if(in.persistent, [f](const Override &x) { return x.field == f; });
      in.persistent.push_back(std::move(o));
      in.persistent_dirty = true;
    } else {
      in.once.push_back(std::move(o));
    }
  });
}
void Simulator::clear_fields() {
  KALO_SIM_SET(in.persistent.clear(); in.persistent_dirty = true);
}
void Simulator::clear_field(Field f) {
  KALO_SIM_SET(std::erase_if(in.persistent, [f](const Override &x) { return x.field == f; });
               in.persistent_dirty = true);
}

void Simulator::pause() {
  KALO_SIM_SET(in.paused = true);
}
void Simulator::resume() {
  KALO_SIM_SET(in.paused = false);
}
void Simulator::set_faults(const Faults &f) {
  KALO_SIM_SET(in.faults = f);
}
void Simulator::go_silent(std::chrono::milliseconds duration) {
  const int64_t until =
      now_ns() + std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
  KALO_SIM_SET(in.silent_until = until);
}
void Simulator::restart() {
  KALO_SIM_SET(in.restart = true);
}
void Simulator::send_datagram(std::span<const uint8_t> bytes) {
  KALO_SIM_SET(in.raw.emplace_back(bytes.begin(), bytes.end()));
}

#undef KALO_SIM_SET

std::vector<ReceivedFrame> Simulator::take_received() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  std::vector<ReceivedFrame> out(std::make_move_iterator(impl_->received.begin()),
                                 std::make_move_iterator(impl_->received.end()));
  impl_->received.clear();
  return out;
}

std::size_t Simulator::received_count() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->received.size();
}

std::optional<ReceivedFrame> Simulator::wait_for_frame_with(Field f,
                                                            std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(impl_->mutex);
  auto &q = impl_->received;
  std::optional<ReceivedFrame> found;
  impl_->received_cv.wait_for(lock, timeout, [&] {
    const auto it =
        std::find_if(q.begin(), q.end(), [f](const ReceivedFrame &r) { return r.has(f); });
    if (it == q.end())
      return false;
    found = std::move(*it);
    q.erase(it);
    return true;
  });
  return found;
}

ExchangeRecord Simulator::last_command() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->last_cmd;
}

} // namespace kalo::sim
