// The per-thread text of kaloExtLastErrorDetail.
#include "protocol/error_detail.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

#include "protocol/proto_session.h"

namespace kalo {

void set_error_detail(const std::string &text) {
  const std::size_t n =
      text.size() < sizeof t_error_detail ? text.size() : sizeof t_error_detail - 1;
  std::memcpy(t_error_detail, text.data(), n);
  t_error_detail[n] = '\0';
}

std::string no_state_frame_detail(int session, double seconds) {
  sockaddr_in peer{};
  char address[INET_ADDRSTRLEN] = "the controller";
  unsigned port = 0;
  if (session_peer(session, &peer)) {
    inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
    port = ntohs(peer.sin_port);
  }
  char text[160];
  std::snprintf(text, sizeof text, "no state frame from %s:%u within %g s", address, port, seconds);
  return text;
}

const char *error_detail() {
  return t_error_detail;
}

} // namespace kalo
