// UDP transport of the protocol sessions: one IPv4 datagram socket per
// session, bound to a local port, sending to the controller's address.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kalo/kalo_internal.h"
#include "protocol/error_detail.h"
#include "protocol/proto_session.h"

namespace {

constexpr int kFirstLocalPort = 3131;
constexpr int kLastLocalPort = 3140;
constexpr int kDefaultControllerPort = 5000;

int bind_port(int fd, int port) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  local.sin_port = htons(static_cast<uint16_t>(port));
  return bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local);
}

// Resolves a host name or dotted address; false when it cannot be resolved or
// names the broadcast address.
bool resolve(const char *host, in_addr *out) {
  hostent entry{};
  hostent *result = nullptr;
  char work[2048];
  int h_err = 0;
  if (gethostbyname_r(host, &entry, work, sizeof work, &result, &h_err) == 0 && result != nullptr &&
      result->h_addr_list[0] != nullptr && result->h_length == static_cast<int>(sizeof(in_addr))) {
    std::memcpy(out, result->h_addr_list[0], sizeof(in_addr));
    return out->s_addr != INADDR_NONE;
  }
  const in_addr_t a = inet_addr(host);
  if (a == INADDR_NONE)
    return false;
  out->s_addr = a;
  return true;
}

} // namespace

int kalo::udp_receive_from(int descriptor, void *bytes, int capacity, sockaddr_in *from) {
  socklen_t from_len = sizeof *from;
  return static_cast<int>(recvfrom(descriptor, bytes, static_cast<std::size_t>(capacity), 0,
                                   reinterpret_cast<sockaddr *>(from), &from_len));
}

extern "C" {

// Each failure leaves its reason in the thread's error detail.
int open_protocol_udp(const char *host, int local_port, int remote_port) {
  if (host == nullptr)
    return -1;
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) {
    const int why = errno;
    kalo::set_error_detail(std::string("cannot create a UDP socket: ") + std::strerror(why));
    errno = why;
    return -1;
  }

  int bound = -1;
  if (local_port == 0) {
    for (int port = kFirstLocalPort; port <= kLastLocalPort; ++port) {
      bound = bind_port(fd, port);
      if (bound == 0 || errno != EADDRINUSE)
        break;
    }
  } else {
    bound = bind_port(fd, local_port);
  }
  if (bound != 0) {
    const int why = errno;
    if (local_port == 0 && why == EADDRINUSE)
      kalo::set_error_detail("no free local port in " + std::to_string(kFirstLocalPort) + "-" +
                             std::to_string(kLastLocalPort) +
                             ": each connection of this machine takes one; name another local "
                             "port in the URL (host:port)");
    else if (local_port == 0)
      kalo::set_error_detail(std::string("cannot bind a local port: ") + std::strerror(why));
    else
      kalo::set_error_detail("cannot bind local port " + std::to_string(local_port) + ": " +
                             std::strerror(why));
    close(fd);
    errno = why;
    return -1;
  }

  auto *peer = static_cast<sockaddr_in *>(std::calloc(1, sizeof(sockaddr_in)));
  if (peer == nullptr) {
    close(fd);
    return -1;
  }
  peer->sin_family = AF_INET;
  peer->sin_port =
      htons(static_cast<uint16_t>(remote_port != 0 ? remote_port : kDefaultControllerPort));
  if (!resolve(host, &peer->sin_addr)) {
    kalo::set_error_detail(std::string("unknown host \"") + host + "\"");
    // Nothing of a failed open stays behind.
    std::free(peer);
    close(fd);
    return -1;
  }
  const int handle = open_protocol(1, fd, read_udp, write_udp, close_udp, peer);
  if (handle < 0) {
    std::free(peer);
    close(fd);
  }
  return handle;
}

// Alone, the transport's read does not judge the sender: the protocol layer
// reads through udp_receive_from and checks it against the session's peer.
int read_udp(int descriptor, void *bytes, int capacity, struct sockaddr_in *peer) {
  (void)peer;
  sockaddr_in from{};
  return kalo::udp_receive_from(descriptor, bytes, capacity, &from);
}

int write_udp(int descriptor, const void *bytes, int count, struct sockaddr_in *peer) {
  const ssize_t sent = sendto(descriptor, bytes, static_cast<std::size_t>(count), 0,
                              reinterpret_cast<const sockaddr *>(peer), sizeof(sockaddr_in));
  if (sent == -1 || sent == 0 || sent == count)
    return static_cast<int>(sent);
  return -1;
}

int close_udp(int descriptor, struct sockaddr_in *peer, void *table) {
  (void)table;
  const int rc = close(descriptor);
  std::free(peer);
  return rc == 0 ? 0 : -1;
}

} // extern "C"
