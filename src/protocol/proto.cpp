// Protocol sessions: a process-wide table of transports, indexed by their
// descriptor, that wraps every frame in the envelope
//   0xC3 '<' | length (LE 16) | payload | checksum (LE 16)
// where the checksum makes the 16-bit sum of the whole datagram zero.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kalo/kalo_internal.h"
#include "protocol/exchange_record.h"
#include "protocol/proto_session.h"

namespace {

ProtoSession proto_sessions[kalo::kSessionCount];
int flag_init_proto_session = 0;

void prepare_table() {
  if (flag_init_proto_session != 0)
    return;
  for (auto &s : proto_sessions) {
    s = ProtoSession{};
    s.fd = -1;
  }
  flag_init_proto_session = 1;
}

// The slot of an open handle, or null with EBADF.
ProtoSession *session_of(int handle) {
  prepare_table();
  if (handle < 0 || handle >= kalo::kSessionCount || proto_sessions[handle].fd == -1) {
    errno = EBADF;
    return nullptr;
  }
  return &proto_sessions[handle];
}

} // namespace

bool kalo::session_peer(int handle, sockaddr_in *peer) {
  const ProtoSession *s = session_of(handle);
  if (s == nullptr || s->peer == nullptr)
    return false;
  *peer = *s->peer;
  return true;
}

namespace {

void free_buffers(ProtoSession &s) {
  std::free(s.tx_buffer);
  std::free(s.rx_buffer);
  s.tx_buffer = nullptr;
  s.rx_buffer = nullptr;
}

// A datagram is the controller's when it comes from the controller's address
// and, once the first frame has been accepted, from that frame's port.
bool from_controller_address(const ProtoSession &s, const sockaddr_in &from) {
  return from.sin_family == AF_INET && from.sin_addr.s_addr == s.peer->sin_addr.s_addr;
}
bool from_controller(const ProtoSession &s, const sockaddr_in &from) {
  return from_controller_address(s, from) &&
         (s.controller_port == 0 || from.sin_port == s.controller_port);
}

} // namespace

namespace kalo {

// Sessions of the UDP transport learn each datagram's sender and accept only
// the controller's; other transports deliver what they read. Only the bytes
// the envelope declares are handed on: a datagram longer than its length
// field says, or a short read, never exposes the tail of an earlier frame.
int receive_frame(int handle, void *bytes, int capacity, Arrival *arrival, bool relock) {
  Arrival ignored;
  Arrival &what = arrival != nullptr ? *arrival : ignored;
  what = Arrival::nothing;
  ProtoSession *s = session_of(handle);
  if (s == nullptr)
    return -1;
  if (bytes == nullptr || s->rx_buffer == nullptr || capacity < 0) {
    errno = EFAULT;
    return -1;
  }
  int room = capacity + static_cast<int>(kEnvelopeOverhead);
  if (room > static_cast<int>(kSessionBufferSize))
    room = static_cast<int>(kSessionBufferSize);
  const bool check_sender = s->read_fn == read_udp && s->peer != nullptr;
  sockaddr_in from{};
  const int received = check_sender ? udp_receive_from(s->fd, s->rx_buffer, room, &from)
                                    : s->read_fn(s->fd, s->rx_buffer, room, s->peer);
  if (received < 0)
    return -1;
  if (check_sender && !from_controller(*s, from) &&
      !(relock && from_controller_address(*s, from))) {
    what = Arrival::foreign;
    errno = EACCES;
    return -1;
  }
  what = Arrival::malformed;
  if (received <= 5)
    return -1;
  const int length = envelope_check(s->rx_buffer, static_cast<std::size_t>(received));
  if (length < 0) {
    errno = EPROTO;
    return -1;
  }
  // length <= received - 6 <= capacity: the whole payload fits.
  std::memcpy(bytes, s->rx_buffer + 4, static_cast<std::size_t>(length));
  what = Arrival::frame;
  if (check_sender && s->controller_port != from.sin_port) {
    if (s->controller_port != 0)
      what = Arrival::relocked;
    s->controller_port = from.sin_port;
  }
  return length;
}

} // namespace kalo

extern "C" {

int open_protocol(uint32_t type, int descriptor, kalo_read_fn read_fn, kalo_write_fn write_fn,
                  kalo_close_fn close_fn, struct sockaddr_in *peer) {
  prepare_table();
  if (descriptor < 0 || descriptor >= kalo::kSessionCount) {
    errno = EMFILE;
    return -1;
  }
  ProtoSession &s = proto_sessions[descriptor];
  free_buffers(s); // a slot reused without a close must not leak its buffers
  s.type = type;
  s.fd = descriptor;
  s.read_fn = read_fn;
  s.write_fn = write_fn;
  s.close_fn = close_fn;
  s.peer = peer;
  s.controller_port = 0;
  s.tx_buffer = static_cast<unsigned char *>(std::malloc(kalo::kSessionBufferSize));
  s.rx_buffer = static_cast<unsigned char *>(std::malloc(kalo::kSessionBufferSize));
  if (s.tx_buffer == nullptr || s.rx_buffer == nullptr) {
    free_buffers(s);
    s.type = 0;
    s.fd = -1;
    errno = ENOMEM;
    return -1;
  }
  return descriptor;
}

int write_protocol(int handle, const void *bytes, int count) {
  ProtoSession *s = session_of(handle);
  if (s == nullptr)
    return -1;
  if (bytes == nullptr || s->tx_buffer == nullptr) {
    errno = EFAULT;
    return -1;
  }
  if (count < 0 || static_cast<uint32_t>(count) > kalo::kFrameCapacity) {
    errno = EMSGSIZE;
    return -1;
  }
  const auto total =
      static_cast<int>(kalo::envelope_wrap(bytes, static_cast<std::size_t>(count), s->tx_buffer));
  if (s->write_fn(s->fd, s->tx_buffer, total, s->peer) != total) {
    errno = EPROTO;
    return -1;
  }
  return count;
}

int read_protocol(int handle, void *bytes, int capacity) {
  return kalo::receive_frame(handle, bytes, capacity, nullptr);
}

int close_protocol(int handle) {
  ProtoSession *s = session_of(handle);
  if (s == nullptr)
    return -1;
  // A slot keeps its descriptor after a close. Closing it again reports success
  // without closing the descriptor a second time: by then the number may belong
  // to another socket or file of the application.
  if (s->type == 0)
    return 0;
  if (s->close_fn != nullptr)
    s->close_fn(s->fd, s->peer, proto_sessions);
  s->peer = nullptr; // released by the transport's close
  free_buffers(*s);
  s->type = 0;
  return 0;
}

int select_protocol(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                    struct timeval *timeout) {
  return select(nfds, readfds, writefds, exceptfds, timeout);
}

void print_trame(void) {}

} // extern "C"
