#include "simulator.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "controller.h"
#include "fault_injector.h"
#include "protocol/proto_session.h"
#include "trace_writer.h"

namespace kalo::sim {
namespace {

int64_t now_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void sleep_until_ns(int64_t t) {
  timespec ts{};
  ts.tv_sec = t / 1000000000;
  ts.tv_nsec = t % 1000000000;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
  }
}

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

// The socket, the frame loop's thread and what the API threads share with it.
struct Simulator::Impl final : Wire {
  explicit Impl(Config c) : cfg(std::move(c)), controller(cfg) {}

  Config cfg;
  int fd = -1;
  int send_fd = -1; // after a restart on a new port: the socket state frames leave from
  std::atomic<bool> new_port_wanted{false};
  uint16_t bound_port = 0;
  std::thread thread;
  std::atomic<bool> stop_flag{false};
  std::atomic<bool> running{false};
  TraceWriter trace;
  int64_t t0 = 0;       // start of the run, for trace times
  FaultInjector faults; // pause, silence and restart are set from any thread

  // ---- shared with the API threads, under mutex ----
  mutable std::mutex mutex;
  std::condition_variable received_cv;
  Inputs in;
  std::optional<Faults> new_faults;
  std::vector<std::vector<uint8_t>> raw; // datagrams to send as they are
  DeviceState published;                 // the controller as of the loop's last pass
  std::deque<ReceivedFrame> received;
  ExchangeRecord last_cmd{};

  struct Counters {
    std::atomic<uint64_t> sent{0}, received{0}, malformed{0}, foreign{0}, late{0}, connections{0};
  } counters;

  // ---- owned by the frame loop ----
  Controller controller;
  std::vector<std::vector<uint8_t>> raw_out;           // taken from raw, sent after the next frame
  std::array<unsigned char, kFrameCapacity> payload{}; // a received frame, envelope removed
  std::array<unsigned char, kSessionBufferSize> datagram{};
  std::array<unsigned char, 2048> rx_buffer{};
  std::string line; // trace line being built

  bool open_socket(std::string *error);
  void open_send_socket();
  void run();
  void drain(int64_t now);
  void handle_datagram(const unsigned char *data, std::size_t size, const sockaddr_in &from,
                       int64_t now);
  void take_inputs_locked();
  void publish_locked(bool serving);
  void tick(int64_t now, int64_t lag_ns);
  void send_frame(std::size_t size, int64_t now);
  void transmit(const unsigned char *bytes, std::size_t size) override;
  double trace_time(int64_t now) const { return static_cast<double>(now - t0) * 1e-9; }
};

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

// A socket on a new ephemeral port of the bound address, for the state frames.
void Simulator::Impl::open_send_socket() {
  if (send_fd >= 0)
    ::close(send_fd);
  send_fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  inet_pton(AF_INET, cfg.bind_address.c_str(), &local.sin_addr);
  if (send_fd >= 0 && ::bind(send_fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) {
    ::close(send_fd);
    send_fd = -1; // the frames keep leaving from the controller port
  }
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
      format_rejected_line(line, trace_time(now), "malformed", size);
      trace.append(line);
    }
    return;
  }
  std::memcpy(payload.data(), data + 4, static_cast<std::size_t>(length));
  if (!controller.decode(payload.data(), static_cast<uint32_t>(length))) {
    counters.malformed.fetch_add(1, std::memory_order_relaxed);
    if (trace.is_open()) {
      format_rejected_line(line, trace_time(now), "undecodable", static_cast<std::size_t>(length));
      trace.append(line);
    }
    return;
  }
  counters.received.fetch_add(1, std::memory_order_relaxed);
  const ExchangeRecord &rx = controller.decoded();
  const bool hello = carries(rx, Field::hello);
  const bool accepted = hello || controller.serves(from);
  if (trace.is_open()) {
    format_frame_line(line, trace_time(now), "in", accepted ? "" : "foreign", rx);
    trace.append(line);
  }
  if (accepted) {
    controller.accept(from);
    if (hello)
      counters.connections.fetch_add(1, std::memory_order_relaxed);
  } else {
    counters.foreign.fetch_add(1, std::memory_order_relaxed);
  }

  std::lock_guard<std::mutex> lock(mutex);
  if (accepted)
    last_cmd = controller.command();
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

// ---- sending ----

void Simulator::Impl::take_inputs_locked() {
  controller.apply(in);
  if (new_faults) {
    faults.set(*new_faults);
    new_faults.reset();
  }
  if (faults.take_restart()) {
    // As a reboot: the client, what it set and what was in flight are gone;
    // only a new hello starts the stream again.
    controller.restart();
    faults.drop_held();
    raw_out.clear();
    raw.clear();
    if (new_port_wanted.exchange(false))
      open_send_socket();
  }
  for (auto &d : raw)
    raw_out.push_back(std::move(d));
  raw.clear();
}

void Simulator::Impl::publish_locked(bool serving) {
  published = controller.status();
  published.client = published.client && serving;
  published.streaming = published.client && !faults.paused();
}

void Simulator::Impl::tick(int64_t now, int64_t lag_ns) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    take_inputs_locked();
  }
  const bool sending = controller.client() && faults.may_send(now);
  const uint32_t size = controller.tick(sending, lag_ns);
  if (size > 0) {
    if (trace.is_open())
      format_frame_line(line, trace_time(now), "out", "", controller.state());
    send_frame(size, now);
  }
  if (sending) {
    for (const auto &d : raw_out)
      transmit(d.data(), d.size());
    raw_out.clear();
  }
  std::lock_guard<std::mutex> lock(mutex);
  publish_locked(true);
}

void Simulator::Impl::send_frame(std::size_t size, int64_t now) {
  const std::size_t n = envelope_wrap(controller.frame(), size, datagram.data());
  counters.sent.fetch_add(1, std::memory_order_relaxed);
  const char *note = faults.send(datagram.data(), n, now, *this);
  if (trace.is_open()) {
    if (*note)
      set_line_note(line, note);
    trace.append(line);
  }
}

void Simulator::Impl::transmit(const unsigned char *bytes, std::size_t size) {
  const auto &client = controller.client();
  if (!client)
    return;
  ::sendto(send_fd >= 0 ? send_fd : fd, bytes, size, 0,
           reinterpret_cast<const sockaddr *>(&*client), sizeof *client);
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
    const bool streaming = controller.client() && !faults.paused();
    if (!streaming) {
      // Nothing to pace: wait for traffic, but keep taking the API's
      // inputs so that pause/resume and restart take effect.
      pollfd pfd{fd, POLLIN, 0};
      ::poll(&pfd, 1, 2);
      const int64_t now = now_ns();
      drain(now);
      faults.flush(now, *this);
      {
        std::lock_guard<std::mutex> lock(mutex);
        take_inputs_locked();
        publish_locked(true);
      }
      was_streaming = false;
      continue;
    }
    if (!was_streaming) {
      next = now_ns(); // a new client (or resume): the first frame goes at once
      was_streaming = true;
    }
    int64_t wake = next;
    if (faults.holding())
      wake = std::min(wake, faults.next_due());
    sleep_until_ns(wake);
    const int64_t now = now_ns();
    drain(now);
    faults.flush(now, *this);
    if (now < next)
      continue;
    tick(now, now - next);
    next += period;
    if (now - next > resync) {
      next = now + period;
      counters.late.fetch_add(1, std::memory_order_relaxed);
    }
  }
  std::lock_guard<std::mutex> lock(mutex);
  publish_locked(false);
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
  s.controller.start();
  s.faults.set(s.cfg.faults);
  s.faults.drop_held();
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
  if (s.send_fd >= 0)
    ::close(s.send_fd);
  s.send_fd = -1;
  s.running = false;
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
  const auto &f = impl_->faults;
  Stats s;
  s.frames_sent = c.sent.load();
  s.frames_received = c.received.load();
  s.malformed = c.malformed.load();
  s.foreign = c.foreign.load();
  s.dropped = f.dropped.load();
  s.duplicated = f.duplicated.load();
  s.corrupted = f.corrupted.load();
  s.delayed = f.delayed.load();
  s.late_ticks = c.late.load();
  s.trace_lost = impl_->trace.lost();
  s.connections = c.connections.load();
  return s;
}

std::string Simulator::trace_error() const {
  return impl_->trace.error();
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
  const std::array<int, 2> counts{std::max(0, control_points), std::max(0, axes)};
  KALO_SIM_SET(in.counts = counts);
}

void Simulator::put_field(Field f, std::span<const double> values, bool persistent) {
  if (id(f) < 1 || id(f) > kFieldCount)
    return;
  FieldEdit e{persistent ? FieldEdit::Kind::Persistent : FieldEdit::Kind::Once, f,
              std::vector<double>(values.begin(), values.end())};
  KALO_SIM_SET(in.edits.push_back(std::move(e)));
}
void Simulator::clear_fields() {
  FieldEdit e{FieldEdit::Kind::ClearAll, Field{}, {}};
  KALO_SIM_SET(in.edits.push_back(std::move(e)));
}
void Simulator::clear_field(Field f) {
  FieldEdit e{FieldEdit::Kind::Clear, f, {}};
  KALO_SIM_SET(in.edits.push_back(std::move(e)));
}

void Simulator::pause() {
  impl_->faults.pause(true);
}
void Simulator::resume() {
  impl_->faults.pause(false);
}
void Simulator::set_faults(const Faults &f) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->new_faults = f;
}
void Simulator::go_silent(std::chrono::milliseconds duration) {
  impl_->faults.silence_until(
      now_ns() + std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
}
void Simulator::restart() {
  impl_->faults.request_restart();
}
void Simulator::restart_on_new_port() {
  impl_->new_port_wanted = true;
  impl_->faults.request_restart();
}
void Simulator::send_datagram(std::span<const uint8_t> bytes) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->raw.emplace_back(bytes.begin(), bytes.end());
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
