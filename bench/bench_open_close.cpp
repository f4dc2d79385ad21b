// What a connection costs to open and to close against kalo-sim at 1 kHz on
// loopback: 20 cycles of kaloOpen then kaloClose, p50 and max of each, beside
// the floor of the same run: a bare client that sends the hello and waits for
// the first state frame (what an open cannot do faster), then sends the
// closing request with its answer to the next state frame (what a close
// cannot do faster). A third case times kaloOpen with nothing listening,
// which must give up after about 1 s with code 2.
//
//   build/bench/bench_open_close
#include <benchmark/benchmark.h>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"
#include "protocol/exchange_record.h"
#include "protocol/proto_session.h"
#include "simulator.h"

namespace {

constexpr int kCycles = 20;
using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

void report(benchmark::State &state, const char *what, std::vector<double> v) {
  if (v.empty())
    return;
  std::sort(v.begin(), v.end());
  state.counters[std::string(what) + "_p50_ms"] = v[v.size() / 2];
  state.counters[std::string(what) + "_max_ms"] = v.back();
}

std::unique_ptr<kalo::sim::Simulator> start_sim() {
  kalo::sim::Config cfg;
  cfg.port = 0;
  cfg.record_received = false;
  auto sim = std::make_unique<kalo::sim::Simulator>(cfg);
  if (!sim->start())
    return nullptr;
  return sim;
}

std::string url_of(const kalo::sim::Simulator &sim) {
  return "udpxdr://127.0.0.1#" + std::to_string(sim.port());
}

void BM_OpenClose(benchmark::State &state) {
  auto sim = start_sim();
  if (!sim) {
    state.SkipWithError("simulator did not start");
    return;
  }
  const std::string url = url_of(*sim);
  std::vector<double> open_ms, close_ms;
  for (auto _ : state) {
    for (int i = 0; i < kCycles; ++i) {
      auto t0 = Clock::now();
      KaloContext *ctx = kaloOpen(url.c_str());
      open_ms.push_back(ms_since(t0));
      if (ctx == nullptr) {
        state.SkipWithError("kaloOpen failed");
        return;
      }
      t0 = Clock::now();
      kaloClose(ctx);
      close_ms.push_back(ms_since(t0));
    }
  }
  report(state, "open", open_ms);
  report(state, "close", close_ms);
}

// The bare client: one frame of the given fields, enveloped.
std::vector<unsigned char> frame_with(kalo::Field f) {
  auto r = std::make_unique<ExchangeRecord>();
  r->control_point_count = 1;
  kalo::post_field(*r, f);
  unsigned char payload[kalo::kFrameCapacity];
  const uint32_t n = encode_decode(kalo::kModeEncode, r.get(), payload, sizeof payload);
  std::vector<unsigned char> d(n + kalo::kEnvelopeOverhead);
  kalo::envelope_wrap(payload, n, d.data());
  return d;
}

void BM_BareClientFloor(benchmark::State &state) {
  auto sim = start_sim();
  if (!sim) {
    state.SkipWithError("simulator did not start");
    return;
  }
  const auto hello = frame_with(kalo::Field::hello);
  const auto goodbye = frame_with(kalo::Field::close_request);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(sim->port());
  std::vector<double> open_ms, close_ms;
  unsigned char buffer[2048];
  for (auto _ : state) {
    for (int i = 0; i < kCycles; ++i) {
      const int fd = socket(AF_INET, SOCK_DGRAM, 0);
      timeval limit{1, 0};
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
      auto t0 = Clock::now();
      sendto(fd, hello.data(), hello.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
      const bool heard = recv(fd, buffer, sizeof buffer, 0) > 0;
      open_ms.push_back(ms_since(t0));
      t0 = Clock::now();
      const bool next = heard && recv(fd, buffer, sizeof buffer, 0) > 0;
      sendto(fd, goodbye.data(), goodbye.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
      close_ms.push_back(ms_since(t0));
      close(fd);
      if (!next) {
        state.SkipWithError("no state frame");
        return;
      }
    }
  }
  report(state, "open", open_ms);
  report(state, "close", close_ms);
}

void BM_OpenWithNothingListening(benchmark::State &state) {
  // A port that was free a moment ago: nothing answers there.
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
  getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
  close(fd);
  const std::string url = "udpxdr://127.0.0.1#" + std::to_string(ntohs(a.sin_port));
  std::vector<double> failed_ms;
  int32_t code = 0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    KaloContext *ctx = kaloOpen(url.c_str());
    failed_ms.push_back(ms_since(t0));
    code = kaloGlobalError;
    if (ctx != nullptr) {
      kaloClose(ctx);
      state.SkipWithError("kaloOpen succeeded with nothing listening");
      return;
    }
  }
  report(state, "failed_open", failed_ms);
  state.counters["code"] = code;
}

} // namespace

BENCHMARK(BM_OpenClose)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BareClientFloor)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_OpenWithNothingListening)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
