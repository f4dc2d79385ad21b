// The per-thread text of kaloExtLastErrorDetail.
#include "protocol/error_detail.h"

#include <cstdarg>
#include <arpa/inet.h>
#include <cstdio>

#include "protocol/proto_session.h"

namespace kalo {

void set_error_detail(const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::vsnprintf(t_error_detail, sizeof t_error_detail, format, args);
  va_end(args);
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
