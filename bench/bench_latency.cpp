// Exchange latency: the time from a state frame leaving the controller to the
// library's answering command frame arriving back, at 1 kHz and 10 kHz, beside
// a bare UDP echo between two sockets on the same loopback in the same run.
//
// The controller here is a minimal one written for the measurement: it serves
// the library's opening handshake, then for every frame has the application
// post one command field (kaloOutputsSetting), stamps the clock, sends a
// typical state frame and waits for the answer that carries the field's new
// value. Each configuration runs 5 times, interleaved at random with the
// others, and the summary gives the medians of p50 and p99 beside the bare
// echo's at the same rate (the machine may be shared: the median resists a
// disturbed repetition).
//
// Where the microseconds go is timed apart, in the same runs:
//   rts_*   the exchange thread's own turnaround, from the receive of a state
//           frame to the send of its answer;
//   call_*  the command path: the device call that posts the field;
//   wake_*  (mode 2, a 1 kHz periodic function running) the loop's wake-up,
//           from the arrival of the frame that ticked it to the call.
// Mode 1 runs the round trip with a session recording, and
// BM_TelemetryPerExchange times the telemetry hooks of one exchange alone.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "device/call_frame.h"
#include "device/context.h"
#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"
#include "kalo/kalo_internal.h"
#include "link/telemetry.h"
#include "protocol/exchange_record.h"
#include "protocol/proto_session.h"

namespace {

// Frames per run: 5 s at 1 kHz, 1 s at 10 kHz.
int frames_at(int64_t hz) {
  return hz >= 10000 ? 10000 : 5000;
}
constexpr kalo::Field kMarkedField = kalo::Field::outputs;

double now_us() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

void sleep_until_us(double deadline_us) {
  timespec t{};
  t.tv_sec = static_cast<time_t>(deadline_us / 1e6);
  t.tv_nsec = static_cast<long>((deadline_us - static_cast<double>(t.tv_sec) * 1e6) * 1e3);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) == EINTR) {
  }
}

// The port a socket is bound to.
uint16_t port_of(int fd) {
  sockaddr_in a{};
  socklen_t len = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
  return ntohs(a.sin_port);
}

// A loopback UDP socket on the given port (0: any free one).
int udp_socket(uint16_t port, long receive_timeout_us) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(port);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
    return -1;
  timeval tv{0, receive_timeout_us};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  return fd;
}

// A port free at this moment, for the library's side.
uint16_t free_port() {
  const int fd = udp_socket(0, 0);
  const uint16_t port = port_of(fd);
  close(fd);
  return port;
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(port);
  return a;
}

struct Percentiles {
  double p50, p99, max;
};

Percentiles percentiles(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  auto at = [&](double q) {
    return v[static_cast<std::size_t>(q * static_cast<double>(v.size() - 1))];
  };
  return {at(0.50), at(0.99), v.back()};
}

void report(benchmark::State &state, const std::vector<double> &latencies, int lost) {
  if (latencies.empty()) {
    state.SkipWithError("no answer");
    return;
  }
  const Percentiles p = percentiles(latencies);
  state.counters["p50_us"] = p.p50;
  state.counters["p99_us"] = p.p99;
  state.counters["max_us"] = p.max;
  state.counters["frames"] = static_cast<double>(latencies.size());
  state.counters["lost"] = lost;
}

// p50 and p99 of a part of the round trip, as counters named after it.
void report_part(benchmark::State &state, const char *name, const std::vector<double> &times) {
  if (times.empty())
    return;
  const Percentiles p = percentiles(times);
  state.counters[std::string(name) + "_p50_us"] = p.p50;
  state.counters[std::string(name) + "_p99_us"] = p.p99;
}

// The periodic function of mode 2: how long after the ticking frame's arrival
// each call begins.
struct WakeLog {
  std::vector<double> wake_us;
  std::atomic<size_t> n{0};
  static void run(KaloContext *ctx, void *self) {
    auto *log = static_cast<WakeLog *>(self);
    const uint64_t now = getTime(ctx);
    const uint64_t tick = ctx->loop.last_tick_time.load();
    const size_t k = log->n.load(std::memory_order_relaxed);
    if (k < log->wake_us.size() && now >= tick) {
      log->wake_us[k] = static_cast<double>(now - tick);
      log->n.store(k + 1, std::memory_order_release);
    }
  }
};

// The controller's side of the link: frames in and out of one socket.
class MiniController {
public:
  explicit MiniController(uint16_t port) : fd_(udp_socket(port, 20000)) {
    state_ = std::make_unique<ExchangeRecord>();
    command_ = std::make_unique<ExchangeRecord>();
    std::memset(state_.get(), 0, sizeof(ExchangeRecord));
    std::memset(command_.get(), 0, sizeof(ExchangeRecord));
    state_->control_point_count = 1;
    state_->axis_count_wire = 6;
    command_->control_point_count = 1;
    command_->axis_count_wire = 6;
    state_->position[6] = 1.0f;
    state_->controller_version[0] = 6;
    state_->max_speed[0] = 1.0f;
    state_->max_speed[1] = 3.14f;
  }
  ~MiniController() {
    if (fd_ >= 0)
      close(fd_);
  }
  bool ok() const { return fd_ >= 0; }
  uint16_t port() const { return port_of(fd_); }

  // A typical state frame: time stamp, position, speed, failure, buttons,
  // alarm, plus whatever the library asked for.
  void send_state() {
    for (kalo::Field f : {kalo::Field::time_stamp, kalo::Field::position, kalo::Field::speed,
                          kalo::Field::failure, kalo::Field::buttons, kalo::Field::alarm})
      kalo::post_field(*state_, f);
    state_->time_stamp = static_cast<int32_t>(now_us());
    send_marked();
  }
  // Receives one command frame; false on time-out. Answers requests in the
  // next state frame.
  bool receive_command() {
    unsigned char datagram[kalo::kSessionBufferSize];
    sockaddr_in from{};
    socklen_t len = sizeof from;
    const ssize_t n =
        recvfrom(fd_, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr *>(&from), &len);
    if (n <= 0)
      return false;
    const int length = kalo::envelope_check(datagram, static_cast<std::size_t>(n));
    if (length < 0)
      return false;
    client_ = from;
    have_client_ = true;
    kalo::clear_changes(*command_);
    encode_decode(kalo::kModeDecode, command_.get(), datagram + 4, static_cast<uint32_t>(length));
    if (kalo::carries(*command_, kalo::Field::hello)) { // the counts go first, alone
      kalo::post_field(*state_, kalo::Field::control_point_count);
      kalo::post_field(*state_, kalo::Field::axis_count_wire);
    }
    if (kalo::carries(*command_, kalo::Field::request) && command_->request > 0 &&
        command_->request <= kalo::kFieldCount)
      state_->field_changed[command_->request] = 1;
    return true;
  }
  const ExchangeRecord &command() const { return *command_; }
  bool has_client() const { return have_client_; }

private:
  void send_marked() {
    if (!have_client_)
      return;
    unsigned char payload[kalo::kFrameCapacity];
    unsigned char datagram[kalo::kSessionBufferSize];
    const uint32_t size = encode_decode(kalo::kModeEncode, state_.get(), payload, sizeof payload);
    kalo::clear_changes(*state_);
    const std::size_t total = kalo::envelope_wrap(payload, size, datagram);
    sendto(fd_, datagram, total, 0, reinterpret_cast<const sockaddr *>(&client_), sizeof client_);
  }

  int fd_;
  std::unique_ptr<ExchangeRecord> state_;
  std::unique_ptr<ExchangeRecord> command_;
  sockaddr_in client_{};
  bool have_client_ = false;
};

// Modes of the round trip.
enum Mode { kPlain = 0, kRecording = 1, kLoop = 2 };

void BM_ExchangeRoundTrip(benchmark::State &state) {
  const double period_us = 1e6 / static_cast<double>(state.range(0));
  const int frames = frames_at(state.range(0));
  const auto mode = static_cast<Mode>(state.range(1));
  MiniController controller(0);
  if (!controller.ok()) {
    state.SkipWithError("controller port in use");
    return;
  }
  // Serve the opening handshake at 1 kHz while kaloOpen runs.
  std::atomic<bool> opened{false};
  std::thread serve([&] {
    while (!opened.load()) {
      while (controller.receive_command()) {
        if (opened.load())
          break;
      }
      controller.send_state();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  // The serving thread answers within its receive time-out; give it the frames.
  KaloContext *ctx = kaloOpen(("udpxdr://127.0.0.1:" + std::to_string(free_port()) + "#" +
                               std::to_string(controller.port()))
                                  .c_str());
  opened = true;
  serve.join();
  if (ctx == nullptr) {
    state.SkipWithError("kaloOpen failed");
    return;
  }
  while (controller.receive_command()) {
  } // drain what the handshake left
  const std::string recording = "/tmp/kalo-bench-recording-" + std::to_string(getpid()) + ".csv";
  if (mode == kRecording && kaloExtStartRecording(ctx, recording.c_str()) != 0) {
    kaloClose(ctx);
    state.SkipWithError("cannot record");
    return;
  }
  WakeLog wake;
  wake.wake_us.resize(static_cast<size_t>(frames));
  float loop_period = 0.001f;
  if (mode == kLoop && (kaloSetPeriodicFunction(ctx, WakeLog::run, &loop_period, &wake) != 0 ||
                        kaloStartLoop(ctx) != 0)) {
    kaloClose(ctx);
    state.SkipWithError("cannot start the loop");
    return;
  }

  std::vector<double> latencies, turnaround, call;
  latencies.reserve(static_cast<size_t>(frames));
  turnaround.reserve(static_cast<size_t>(frames));
  call.reserve(static_cast<size_t>(frames));
  int lost = 0;
  for (auto _ : state) {
    double deadline = now_us();
    for (int i = 1; i <= frames; ++i) {
      const double c0 = now_us();
      kaloOutputsSetting(ctx, static_cast<uint32_t>(i));
      call.push_back(now_us() - c0);
      const double t0 = now_us();
      controller.send_state();
      bool answered = false;
      while (!answered && controller.receive_command())
        answered = controller.command().field_changed[kalo::id(kMarkedField)] != 0 &&
                   controller.command().outputs == i;
      const double t1 = now_us();
      if (answered) {
        latencies.push_back(t1 - t0);
        turnaround.push_back(
            static_cast<double>(ctx->link.telemetry.turnaround_ns.load(std::memory_order_relaxed)) *
            1e-3);
      } else {
        ++lost;
      }
      deadline += period_us;
      sleep_until_us(deadline);
    }
  }
  if (mode == kRecording) {
    state.counters["rows_dropped"] = kaloExtStopRecording(ctx);
    std::remove(recording.c_str());
  }
  if (mode == kLoop)
    kaloStopLoop(ctx);
  kaloClose(ctx);
  report(state, latencies, lost);
  report_part(state, "rts", turnaround);
  report_part(state, "call", call);
  wake.wake_us.resize(wake.n.load(std::memory_order_acquire));
  report_part(state, "wake", wake.wake_us);
}
BENCHMARK(BM_ExchangeRoundTrip)
    ->ArgNames({"hz", "mode"})
    ->Args({1000, kPlain})
    ->Args({1000, kRecording})
    ->Args({1000, kLoop})
    ->Args({10000, kPlain})
    ->Args({10000, kRecording})
    ->Iterations(1)
    ->Repetitions(5)
    ->Unit(benchmark::kMillisecond);

// What the telemetry adds to one exchange: the hooks the exchange thread runs
// for a state frame and at the end of its cycle (counters, loss detector,
// histogram), on a context of its own with no link.
void BM_TelemetryPerExchange(benchmark::State &state) {
  auto *ctx = new KaloContext();
  kalo::post_field(ctx->link.state_record, kalo::Field::time_stamp);
  uint32_t stamp = 0;
  for (auto _ : state) {
    stamp += 1000;
    ctx->link.state_record.time_stamp = static_cast<int32_t>(stamp);
    kalo::telemetry_state_frame(ctx);
    kalo::telemetry_cycle_end(ctx, true);
  }
  benchmark::DoNotOptimize(ctx->link.telemetry.counts[kalo::kStateFrames].load());
  delete ctx;
}
BENCHMARK(BM_TelemetryPerExchange)->Unit(benchmark::kNanosecond);

// Baseline: the same frame sizes bounced by a thread blocked in recvfrom on a
// second socket, the physical floor of the loopback round trip.
void BM_BareUdpEcho(benchmark::State &state) {
  const double period_us = 1e6 / static_cast<double>(state.range(0));
  const int a = udp_socket(0, 20000);
  const int b = udp_socket(0, 100000);
  if (a < 0 || b < 0) {
    state.SkipWithError("echo ports in use");
    return;
  }
  std::atomic<bool> stop{false};
  std::thread echo([&] {
    unsigned char buffer[1446];
    const sockaddr_in to = loopback(port_of(a));
    while (!stop.load()) {
      if (recv(b, buffer, sizeof buffer, 0) > 0)
        sendto(b, buffer, 16, 0, reinterpret_cast<const sockaddr *>(&to),
               sizeof to); // a command frame's size
    }
  });
  const sockaddr_in to = loopback(port_of(b));
  unsigned char frame[80] = {}; // the state frame's datagram size
  unsigned char answer[1446];
  std::vector<double> latencies;
  latencies.reserve(10000);
  int lost = 0;
  const int frames = frames_at(state.range(0));
  for (auto _ : state) {
    double deadline = now_us();
    for (int i = 0; i < frames; ++i) {
      const double t0 = now_us();
      sendto(a, frame, sizeof frame, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
      const bool answered = recv(a, answer, sizeof answer, 0) > 0;
      const double t1 = now_us();
      if (answered)
        latencies.push_back(t1 - t0);
      else
        ++lost;
      deadline += period_us;
      sleep_until_us(deadline);
    }
  }
  stop = true;
  echo.join();
  close(a);
  close(b);
  report(state, latencies, lost);
}
BENCHMARK(BM_BareUdpEcho)
    ->ArgName("hz")
    ->Arg(1000)
    ->Arg(10000)
    ->Iterations(1)
    ->Repetitions(5)
    ->Unit(benchmark::kMillisecond);

// The console table, then the medians of the round trip's p50 and p99 beside
// the bare echo's at the same rate, and the parts timed apart.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run &run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Aggregate || run.aggregate_name != "median")
        continue;
      std::map<std::string, double> &c =
          medians_[run.run_name.function_name + "/" + run.run_name.args];
      for (const auto &[name, counter] : run.counters)
        c[name] = counter.value;
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nMedians of 5 runs (us); ratio = ours / bare echo at the same rate\n");
    std::printf("%-28s %8s %8s %7s %7s %8s %8s %8s %8s\n", "configuration", "p50", "p99", "p50 x",
                "p99 x", "rts p50", "call p50", "wake p50", "wake p99");
    const char *modes[] = {"", " recording", " loop"};
    for (int hz : {1000, 10000}) {
      const std::string echo = "BM_BareUdpEcho/hz:" + std::to_string(hz);
      if (medians_.count(echo) == 0)
        continue;
      std::map<std::string, double> &e = medians_[echo];
      std::printf("%-28s %8.1f %8.1f\n", ("bare echo " + std::to_string(hz) + " Hz").c_str(),
                  e["p50_us"], e["p99_us"]);
      for (int mode = 0; mode < 3; ++mode) {
        const std::string key =
            "BM_ExchangeRoundTrip/hz:" + std::to_string(hz) + "/mode:" + std::to_string(mode);
        if (medians_.count(key) == 0)
          continue;
        std::map<std::string, double> &m = medians_[key];
        std::printf(
            "%-28s %8.1f %8.1f %7.2f %7.2f %8.1f %8.2f %8s %8s\n",
            ("libkalo " + std::to_string(hz) + " Hz" + modes[mode]).c_str(), m["p50_us"],
            m["p99_us"], m["p50_us"] / e["p50_us"], m["p99_us"] / e["p99_us"], m["rts_p50_us"],
            m["call_p50_us"],
            m.count("wake_p50_us") ? std::to_string(m["wake_p50_us"]).substr(0, 6).c_str() : "-",
            m.count("wake_p99_us") ? std::to_string(m["wake_p99_us"]).substr(0, 6).c_str() : "-");
      }
    }
  }

private:
  std::map<std::string, std::map<std::string, double>> medians_;
};

} // namespace

// Repetitions are interleaved at random unless the command line says
// otherwise, so that a change of load falls on every configuration alike.
int main(int argc, char **argv) {
  std::vector<char *> args(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  bool given = false;
  for (int i = 1; i < argc; ++i)
    given = given || std::strncmp(argv[i], "--benchmark_enable_random_interleaving", 38) == 0;
  if (!given)
    args.insert(args.begin() + 1, interleave.data());
  int n = static_cast<int>(args.size());
  benchmark::Initialize(&n, args.data());
  if (benchmark::ReportUnrecognizedArguments(n, args.data()))
    return 1;
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
