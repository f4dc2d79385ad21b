// Helpers of the connection-core integration tests: a simulator and a
// connection to it on loopback, and small waits. Ports are picked free at run
// time (the simulator binds port 0, the library a port found free just
// before), so that test files run in parallel, and the same tests run from
// other build directories on the machine, never collide.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <string>
#include <thread>

#include "device/call_frame.h"
#include "eventually.h"
#include "device/context.h"
#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"
#include "realtime/timed_wait.h"
#include "simulator.h"

namespace core_test {

using namespace std::chrono_literals;
using kalo::Field;

inline std::string url_for(uint16_t local, uint16_t remote, const char *host = "127.0.0.1") {
  return std::string("udpxdr://") + host + ":" + std::to_string(local) + "#" +
         std::to_string(remote);
}

// A UDP port that is free now (the kernel hands out ephemeral ports in turn,
// so it stays free for the moment the test needs it).
inline uint16_t free_udp_port() {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_ANY);
  socklen_t len = sizeof a;
  uint16_t port = 0;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  if (fd >= 0)
    close(fd);
  return port;
}

inline kalo::sim::Config sim_config(uint16_t port = 0) {
  kalo::sim::Config cfg;
  cfg.port = port;
  cfg.realtime = false;
  return cfg;
}

// A simulator and one library connection to it.
struct Link {
  kalo::sim::Simulator sim;
  KaloContext *ctx = nullptr;
  uint16_t local;

  explicit Link(const kalo::sim::Config &cfg, uint16_t local_port = 0)
      : sim(cfg), local(local_port != 0 ? local_port : free_udp_port()) {}
  ~Link() { close(); }

  // Starts the simulator and opens the library on it.
  bool open() {
    std::string error;
    if (!sim.start(&error)) {
      ADD_FAILURE() << "simulator: " << error;
      return false;
    }
    ctx = kaloOpen(url_for(local, sim.port()).c_str());
    return ctx != nullptr;
  }
  int close() {
    int result = 0;
    if (ctx != nullptr)
      result = kaloClose(ctx);
    ctx = nullptr;
    sim.stop();
    return result;
  }
};

using kalo_test::eventually;

// Waits for a post of one of the context's counting semaphores.
inline bool posted_within(TR_SEMAPHORE *s, std::chrono::milliseconds limit) {
  return kalo::wait_posted(s, static_cast<int>(limit.count()));
}

// Marks a command field as the calls do.
template <class Write> void mark(KaloContext *ctx, kalo::Field f, Write &&write) {
  kalo::ContextLock hold(ctx);
  write(ctx->link.command_record);
  kalo::post_field(ctx->link.command_record, f);
}

// Threads of this process.
inline int thread_count() {
  int n = 0;
  if (DIR *d = opendir("/proc/self/task")) {
    while (dirent *e = readdir(d))
      if (e->d_name[0] != '.')
        ++n;
    closedir(d);
  }
  return n;
}

} // namespace core_test
