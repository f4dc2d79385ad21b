// One process driving 1, 4 and 16 arms at once, each connection to its own
// simulated controller at 1 kHz and each with a periodic function running a
// coupling step (command type 4, an attached object, kaloGetForce, then
// kaloSetPosition and kaloSetSpeed), as a bimanual station or a test rig would.
//
// Two placements of the simulators, each its own benchmark family:
//   InProcessSim  kalo::sim::Simulator instances in this process: what the
//                 tests do, no process start-up, but their frame threads
//                 compete with the library's threads for this process's share
//                 of the machine and their CPU time is counted in it;
//   ChildSim      one kalo-sim process per connection: the library alone in
//                 this process, as in the field, so its CPU time is the
//                 library's own (the simulators' is reported apart).
// Comparing the two says how much of a figure is the simulators'.
//
// Figures per configuration (counters, microseconds unless named):
//   turn_p50, turn_p99  turnaround: from a state frame leaving the controller
//                       (its time stamp, the monotonic clock shared by every
//                       process of the machine) to the command frame carrying
//                       the periodic call's answer to it leaving the library.
//                       The library sends on the arrival of the next state
//                       frame, so one period (1000 us) is part of it. p50 is
//                       the median over connections of each connection's
//                       p50; turn_p99 the worst connection's p99.
//   reply_p99           from a state frame leaving the controller to the
//                       library's command frame in answer to it (the
//                       exchange thread's reaction, as bench_latency measures).
//   step_p99            from a state frame leaving the controller to the end
//                       of the periodic call that used it.
//   late_per_s          periodic calls more than 1.5 periods after the
//                       previous one, per connection and second.
//   cpu_ms_per_conn_s   this process's CPU time per connection-second, of
//                       which sys_ms_per_conn_s in the kernel;
//                       sim_cpu_ms_per_conn_s the child simulators'.
// The command frames are timed where they leave: this executable defines
// sendto, which the library's exchange threads call, and passes every
// datagram on to the C library's.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "device/call_frame.h"
#include "device/context.h"
#include "kalo/kalo.h"
#include "simulator.h"

namespace {

constexpr double kPeriodS = 0.001;
constexpr double kWarmUpS = 1.0;
constexpr double kWindowS = 5.0;
constexpr int kMaxConnections = 16;

uint32_t now_us32() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<uint32_t>(static_cast<uint64_t>(t.tv_sec) * 1000000u +
                               static_cast<uint64_t>(t.tv_nsec) / 1000u);
}

// This process's user and system CPU time in seconds.
struct Cpu {
  double user, system;
};
Cpu cpu_s_self() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return {static_cast<double>(u.ru_utime.tv_sec) + static_cast<double>(u.ru_utime.tv_usec) / 1e6,
          static_cast<double>(u.ru_stime.tv_sec) + static_cast<double>(u.ru_stime.tv_usec) / 1e6};
}

// CPU time of another process, from /proc (0 when it cannot be read).
double cpu_s_of(pid_t pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  const std::size_t close = text.rfind(')');
  if (close == std::string::npos)
    return 0;
  std::vector<std::string> fields;
  std::size_t at = close + 2;
  while (at < text.size() && fields.size() < 13) {
    const std::size_t end = text.find(' ', at);
    fields.push_back(text.substr(at, end - at));
    at = end == std::string::npos ? text.size() : end + 1;
  }
  if (fields.size() < 13)
    return 0;
  // Fields 14 and 15 of the line (user and system ticks) are 12 and 13 after the name.
  return (std::stod(fields[11]) + std::stod(fields[12])) /
         static_cast<double>(sysconf(_SC_CLK_TCK));
}

uint16_t free_udp_port() {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

struct Connection {
  std::unique_ptr<kalo::sim::Simulator> sim; // in-process simulator, or
  pid_t child = -1;                          // a kalo-sim process
  uint16_t sim_port = 0;
  KaloContext *ctx = nullptr;

  // The loop thread's: the object and the call accounting.
  float object[7] = {};
  float speed[6] = {};
  uint32_t last_call = 0;
  bool called = false;
  uint64_t calls = 0, late = 0, failures = 0;
  std::vector<double> step;
  // Handed from the loop thread to the exchange thread: the time stamp of the
  // state frame the last completed call answered, and a count of calls.
  std::atomic<uint32_t> answered_stamp{0};
  std::atomic<uint64_t> answered{0};
  // The exchange thread's (in sendto).
  uint64_t reported = 0;
  std::vector<double> turnaround, reply;
};

std::atomic<bool> g_recording{false};
Connection *g_connections[kMaxConnections] = {};
std::atomic<int> g_count{0};

// Called in the exchange thread of the connection, under its context lock.
void on_command_frame(Connection &c) {
  const uint32_t now = now_us32();
  c.reply.push_back(
      static_cast<double>(now - static_cast<uint32_t>(c.ctx->link.state_record.time_stamp)));
  const uint64_t n = c.answered.load(std::memory_order_acquire);
  if (n != c.reported) {
    c.reported = n;
    c.turnaround.push_back(
        static_cast<double>(now - c.answered_stamp.load(std::memory_order_relaxed)));
  }
}

// One coupling step: the coupling force on the object, the object moved by
// it (a light object in a damping medium), the object's pose and speed sent.
void coupling_step(KaloContext *ctx, void *data) {
  Connection &c = *static_cast<Connection *>(data);
  uint32_t stamp;
  {
    kalo::ContextLock hold(ctx);
    stamp = static_cast<uint32_t>(ctx->link.state_record.time_stamp);
  }
  const uint32_t start = now_us32();
  if (c.called && static_cast<double>(start - c.last_call) > 1.5 * kPeriodS * 1e6 &&
      g_recording.load(std::memory_order_relaxed))
    ++c.late;
  c.called = true;
  c.last_call = start;
  ++c.calls;
  float force[6];
  bool ok = kaloGetForce(ctx, force) == 0;
  for (int k = 0; k < 3 && ok; ++k) {
    const double f = static_cast<double>(force[k]) - 0.5 * static_cast<double>(c.speed[k]);
    c.speed[k] += static_cast<float>(f / 0.2 * kPeriodS);
    c.object[k] += c.speed[k] * static_cast<float>(kPeriodS);
  }
  ok = ok && kaloSetPosition(ctx, c.object) == 0 && kaloSetSpeed(ctx, c.speed) == 0;
  if (!ok)
    ++c.failures;
  c.answered_stamp.store(stamp, std::memory_order_relaxed);
  c.answered.fetch_add(1, std::memory_order_release);
  if (g_recording.load(std::memory_order_relaxed))
    c.step.push_back(static_cast<double>(now_us32() - stamp));
}

bool start_simulator(Connection &c, bool in_process) {
  if (in_process) {
    kalo::sim::Config cfg;
    cfg.port = 0;
    cfg.record_received = false;
    c.sim = std::make_unique<kalo::sim::Simulator>(cfg);
    if (!c.sim->start())
      return false;
    c.sim_port = c.sim->port();
    return true;
  }
  c.sim_port = free_udp_port();
  const std::string port = std::to_string(c.sim_port);
  c.child = fork();
  if (c.child == 0) {
    execl(KALO_SIM_PATH, "kalo-sim", "--port", port.c_str(), "-q", static_cast<char *>(nullptr));
    _exit(127);
  }
  // The library's hello must find the port bound: wait until binding it
  // ourselves fails because the child holds it.
  for (int tries = 0; c.child > 0 && tries < 500; ++tries) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(c.sim_port);
    const bool taken =
        bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 && errno == EADDRINUSE;
    close(fd);
    if (taken)
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

bool open_coupled(Connection &c) {
  const std::string url =
      "udpxdr://127.0.0.1:" + std::to_string(free_udp_port()) + "#" + std::to_string(c.sim_port);
  c.ctx = kaloOpen(url.c_str());
  if (c.ctx == nullptr)
    return false;
  const float i0 = 0.4f * 0.2f * 0.02f * 0.02f;
  const float inertia[9] = {i0, 0, 0, 0, i0, 0, 0, 0, i0};
  float force[6], period = static_cast<float>(kPeriodS);
  return kaloSetTimeStep(c.ctx, period) == 0 && kaloSetCommandType(c.ctx, 4) == 0 &&
         kaloGetPosition(c.ctx, c.object) == 0 && kaloAttachVO(c.ctx, inertia, 0.2f) == 0 &&
         kaloSetPosition(c.ctx, c.object) == 0 && kaloSetSpeed(c.ctx, c.speed) == 0 &&
         kaloGetForce(c.ctx, force) == 0 &&
         kaloSetPeriodicFunction(c.ctx, coupling_step, &period, &c) == 0;
}

void stop_simulator(Connection &c, double *child_cpu_s) {
  if (c.child > 0) {
    *child_cpu_s += cpu_s_of(c.child);
    kill(c.child, SIGTERM);
    waitpid(c.child, nullptr, 0);
  }
  if (c.sim)
    c.sim->stop();
}

double percentile(std::vector<double> v, double q) {
  if (v.empty())
    return 0;
  std::sort(v.begin(), v.end());
  return v[static_cast<std::size_t>(q * static_cast<double>(v.size() - 1))];
}

void run_scale(benchmark::State &state, bool in_process) {
  const int n = static_cast<int>(state.range(0));
  std::vector<std::unique_ptr<Connection>> connections;
  for (int i = 0; i < n; ++i) {
    connections.push_back(std::make_unique<Connection>());
    Connection &c = *connections.back();
    c.step.reserve(20000);
    c.turnaround.reserve(20000);
    c.reply.reserve(20000);
    if (!start_simulator(c, in_process)) {
      state.SkipWithError("a simulator could not be started");
      break;
    }
    if (!open_coupled(c)) {
      const std::string error =
          "connection " + std::to_string(i) + " could not be opened and coupled: " +
          kaloGetErrorMessage(c.ctx != nullptr ? kaloGetErrorCode(c.ctx) : kaloGlobalError);
      state.SkipWithError(error.c_str());
      break;
    }
    g_connections[i] = &c;
  }
  g_count = state.error_occurred() ? 0 : n;
  Cpu cpu{0, 0};
  double child_cpu_s = 0, seconds = 0;
  for (auto _ : state) {
    if (g_count == 0)
      break;
    for (auto &c : connections)
      kaloStartLoop(c->ctx);
    std::this_thread::sleep_for(std::chrono::duration<double>(kWarmUpS));
    double child_before = 0;
    for (auto &c : connections)
      if (c->child > 0)
        child_before += cpu_s_of(c->child);
    const Cpu cpu_before = cpu_s_self();
    const auto t0 = std::chrono::steady_clock::now();
    g_recording = true;
    std::this_thread::sleep_for(std::chrono::duration<double>(kWindowS));
    g_recording = false;
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const Cpu cpu_after = cpu_s_self();
    cpu = {cpu_after.user - cpu_before.user, cpu_after.system - cpu_before.system};
    for (auto &c : connections)
      if (c->child > 0)
        child_cpu_s += cpu_s_of(c->child);
    child_cpu_s -= child_before;
    for (auto &c : connections)
      kaloStopLoop(c->ctx);
  }
  g_count = 0;
  std::vector<double> p50s, p99s, reply99, step99;
  uint64_t late = 0, failures = 0;
  for (auto &c : connections) {
    if (c->ctx != nullptr) {
      kaloDetachVO(c->ctx);
      kaloClose(c->ctx);
    }
    double ignored = 0;
    stop_simulator(*c, &ignored);
    p50s.push_back(percentile(c->turnaround, 0.50));
    p99s.push_back(percentile(c->turnaround, 0.99));
    reply99.push_back(percentile(c->reply, 0.99));
    step99.push_back(percentile(c->step, 0.99));
    late += c->late;
    failures += c->failures;
  }
  std::fill(std::begin(g_connections), std::end(g_connections), nullptr);
  if (state.error_occurred() || seconds == 0)
    return;
  const double conn_s = static_cast<double>(n) * seconds;
  state.counters["turn_p50"] = percentile(p50s, 0.5);
  state.counters["turn_p99"] = *std::max_element(p99s.begin(), p99s.end());
  state.counters["reply_p99"] = *std::max_element(reply99.begin(), reply99.end());
  state.counters["step_p99"] = *std::max_element(step99.begin(), step99.end());
  state.counters["late_per_s"] = static_cast<double>(late) / conn_s;
  state.counters["failures"] = static_cast<double>(failures);
  state.counters["cpu_ms_per_conn_s"] = 1e3 * (cpu.user + cpu.system) / conn_s;
  state.counters["sys_ms_per_conn_s"] = 1e3 * cpu.system / conn_s;
  if (!in_process)
    state.counters["sim_cpu_ms_per_conn_s"] = 1e3 * child_cpu_s / conn_s;
}

void BM_Scale_InProcessSim(benchmark::State &state) {
  run_scale(state, true);
}
void BM_Scale_ChildSim(benchmark::State &state) {
  run_scale(state, false);
}
BENCHMARK(BM_Scale_InProcessSim)->Arg(1)->Arg(4)->Arg(16)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_Scale_ChildSim)->Arg(1)->Arg(4)->Arg(16)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

// Every datagram the process sends passes here; the command frames going to
// one of the simulators are timed.
extern "C" ssize_t sendto(int fd, const void *buffer, size_t size, int flags,
                          const struct sockaddr *to, socklen_t length) {
  using Send = ssize_t (*)(int, const void *, size_t, int, const struct sockaddr *, socklen_t);
  static const Send real = reinterpret_cast<Send>(dlsym(RTLD_NEXT, "sendto"));
  const ssize_t sent = real(fd, buffer, size, flags, to, length);
  if (g_recording.load(std::memory_order_acquire) && to != nullptr && to->sa_family == AF_INET) {
    const uint16_t port = ntohs(reinterpret_cast<const sockaddr_in *>(to)->sin_port);
    const int n = g_count.load(std::memory_order_acquire);
    for (int i = 0; i < n; ++i)
      if (g_connections[i] != nullptr && g_connections[i]->sim_port == port) {
        on_command_frame(*g_connections[i]);
        break;
      }
  }
  return sent;
}

BENCHMARK_MAIN();
