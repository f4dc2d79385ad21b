// Loop timing: how many of the periodic function's calls come late, against
// the floor of the machine, in one run. Two in-process simulators stream
// state frames at 1 kHz at the same time:
//   (a) to a bare thread blocked in recvfrom, created like the library's
//       threads (TR_creer_tache: SCHED_FIFO where allowed): the share of
//       frames it sees more than 1.5 periods after the previous one is what
//       the machine and the loopback impose;
//   (b) to libkalo, whose 1 kHz periodic function's late calls (more than
//       1.5 periods after the previous call) the link statistics count.
// Both run for the given time (default 20 s) on an idle machine, then again
// with two busy processes competing for the cores, and (b)/(a) is printed
// for both. Plain main: the figures are counts over seconds, not a timed
// kernel.
//
//   bench_loop [SECONDS]
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ctime>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"
#include "kalo/kalo_realtime.h"
#include "protocol/exchange_record.h"
#include "protocol/proto_session.h"
#include "simulator.h"

namespace {

constexpr uint64_t kPeriodUs = 1000;
constexpr uint64_t kLateUs = kPeriodUs * 3 / 2;

uint64_t now_us() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<uint64_t>(t.tv_sec) * 1000000u + static_cast<uint64_t>(t.tv_nsec) / 1000u;
}

kalo::sim::Config stream_config() {
  kalo::sim::Config cfg;
  cfg.port = 0;
  cfg.period = std::chrono::microseconds(kPeriodUs);
  cfg.record_received = false;
  return cfg;
}

// (a): a bare receiver. It says hello to its simulator, then counts frames
// and late ones until told to stop.
struct BareReceiver {
  int fd = -1;
  uint16_t sim_port = 0;
  std::atomic<bool> stop{false};
  std::atomic<bool> done{false};
  std::atomic<bool> counting{false};
  std::atomic<uint64_t> frames{0};
  std::atomic<uint64_t> late{0};

  bool hello() const {
    auto cmd = std::make_unique<ExchangeRecord>();
    std::memset(cmd.get(), 0, sizeof(ExchangeRecord));
    kalo::post_field(*cmd, kalo::Field::time_stamp);
    kalo::post_field(*cmd, kalo::Field::hello);
    unsigned char payload[kalo::kFrameCapacity];
    unsigned char datagram[kalo::kSessionBufferSize];
    const uint32_t size = encode_decode(kalo::kModeEncode, cmd.get(), payload, sizeof payload);
    if (size == kalo::kCodecFailure)
      return false;
    const std::size_t total = kalo::envelope_wrap(payload, size, datagram);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(sim_port);
    return sendto(fd, datagram, total, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) ==
           static_cast<ssize_t>(total);
  }

  static void *run(void *self) {
    auto *r = static_cast<BareReceiver *>(self);
    unsigned char buffer[kalo::kSessionBufferSize];
    uint64_t previous = 0;
    while (!r->stop.load(std::memory_order_relaxed)) {
      if (recv(r->fd, buffer, sizeof buffer, 0) <= 0)
        continue;
      const uint64_t t = now_us();
      if (r->counting.load(std::memory_order_relaxed)) {
        r->frames.fetch_add(1, std::memory_order_relaxed);
        if (previous != 0 && t - previous > kLateUs)
          r->late.fetch_add(1, std::memory_order_relaxed);
      }
      previous = t;
    }
    r->done = true; // last access
    return nullptr;
  }

  // Stops the (detached) thread and frees its handle.
  void end(TR_TACHE *task) {
    stop = true;
    while (!done.load())
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    pthread_attr_destroy(&task->attr);
    std::free(task);
  }
};

// (b): the library's periodic function; the loop counts the late calls.
void idle_step(KaloContext *, void *) {}

struct Figures {
  uint64_t frames = 0, late_frames = 0, calls = 0, late_calls = 0;
};

// Spins until killed: a busy process competing for the cores.
pid_t start_busy() {
  const pid_t pid = fork();
  if (pid == 0) {
    volatile uint64_t x = 0;
    for (;;)
      x = x + 1;
  }
  return pid;
}

bool measure(double seconds, bool loaded, Figures *out) {
  kalo::sim::Simulator sim_a(stream_config());
  kalo::sim::Simulator sim_b(stream_config());
  std::string error;
  if (!sim_a.start(&error) || !sim_b.start(&error)) {
    std::fprintf(stderr, "bench_loop: simulator: %s\n", error.c_str());
    return false;
  }

  BareReceiver a;
  a.fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval timeout{0, 100000};
  if (a.fd < 0 || bind(a.fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0 ||
      setsockopt(a.fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) {
    std::perror("bench_loop: socket");
    return false;
  }
  a.sim_port = sim_a.port();
  TR_TACHE *receiver = TR_creer_tache("BARE", 1, 1 << 20, BareReceiver::run, &a);
  if (receiver == nullptr) {
    std::fprintf(stderr, "bench_loop: no bare receiver\n");
    return false;
  }
  if (!a.hello()) {
    std::fprintf(stderr, "bench_loop: cannot greet the simulator\n");
    a.end(receiver);
    close(a.fd);
    return false;
  }

  const std::string url = "udpxdr://127.0.0.1#" + std::to_string(sim_b.port());
  KaloContext *ctx = kaloOpen(url.c_str());
  float period = static_cast<float>(kPeriodUs) * 1e-6f;
  if (ctx == nullptr || kaloSetPeriodicFunction(ctx, idle_step, &period, nullptr) != 0 ||
      kaloStartLoop(ctx) != 0) {
    std::fprintf(stderr, "bench_loop: cannot run the loop on %s: %s\n", url.c_str(),
                 kaloGetErrorMessage(ctx != nullptr ? kaloGetErrorCode(ctx) : kaloGlobalError));
    a.end(receiver);
    close(a.fd);
    return false;
  }

  pid_t busy[2] = {0, 0};
  if (loaded)
    for (pid_t &p : busy)
      p = start_busy();
  // Both settle for half a second, then count over the same seconds.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  auto before = std::make_unique<KaloExtLinkStatistics>();
  before->size = sizeof *before;
  kaloExtGetLinkStatistics(ctx, before.get());
  a.counting = true;
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  a.counting = false;
  auto after = std::make_unique<KaloExtLinkStatistics>();
  after->size = sizeof *after;
  kaloExtGetLinkStatistics(ctx, after.get());
  for (pid_t p : busy)
    if (p > 0) {
      kill(p, SIGKILL);
      waitpid(p, nullptr, 0);
    }

  kaloStopLoop(ctx);
  kaloClose(ctx);
  a.end(receiver);
  close(a.fd);
  out->frames = a.frames.load();
  out->late_frames = a.late.load();
  out->calls = after->periodic_calls - before->periodic_calls;
  out->late_calls = after->late_calls - before->late_calls;
  return true;
}

void print(const char *what, const Figures &f) {
  const double share_a =
      f.frames > 0 ? 100.0 * static_cast<double>(f.late_frames) / static_cast<double>(f.frames)
                   : 0.0;
  const double share_b =
      f.calls > 0 ? 100.0 * static_cast<double>(f.late_calls) / static_cast<double>(f.calls) : 0.0;
  std::printf("%-7s (a) bare receiver %6llu frames %5llu late (%.2f %%)   (b) periodic function "
              "%6llu calls %5llu late (%.2f %%)   ",
              what, static_cast<unsigned long long>(f.frames),
              static_cast<unsigned long long>(f.late_frames), share_a,
              static_cast<unsigned long long>(f.calls),
              static_cast<unsigned long long>(f.late_calls), share_b);
  if (f.late_frames > 0)
    std::printf("(b)/(a) %.2f\n", share_b / share_a);
  else
    std::printf("(b)/(a) n/a (no late frame; (b) has %llu)\n",
                static_cast<unsigned long long>(f.late_calls));
  std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 20.0;
  if (!(seconds > 0)) {
    std::fprintf(stderr, "usage: bench_loop [SECONDS]\n");
    return 2;
  }
  std::printf("1 kHz stream for %.0f s: (a) a bare thread blocked in recvfrom, (b) libkalo's "
              "periodic function; late = more than 1.5 periods after the previous one\n",
              seconds);
  Figures idle, loaded;
  if (!measure(seconds, false, &idle))
    return 1;
  print("idle", idle);
  if (!measure(seconds, true, &loaded))
    return 1;
  print("loaded", loaded);
  return 0;
}
