// Protocol session slots and the datagram envelope, shared by the library's
// transport and by tools that speak the controller's side (the simulator).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>

#include "kalo/kalo_internal.h"
#include "protocol/exchange_record.h"

namespace kalo {

constexpr int kSessionCount = 64;
constexpr std::size_t kEnvelopeOverhead = 6;
// Room for the largest frame the backend builds, plus its envelope.
constexpr std::size_t kSessionBufferSize = kFrameCapacity + kEnvelopeOverhead;
constexpr unsigned char kEnvelopeMarker0 = 0xC3;
constexpr unsigned char kEnvelopeMarker1 = 0x3C;

// Inline so that the simulator and tools frame datagrams with the very same code.

inline uint16_t envelope_byte_sum(const unsigned char *p, std::size_t n) {
  unsigned sum = 0;
  for (std::size_t i = 0; i < n; ++i)
    sum += p[i];
  return static_cast<uint16_t>(sum);
}

// Writes the envelope around count payload bytes into out (count + 6 bytes);
// returns the datagram size.
inline std::size_t envelope_wrap(const void *payload, std::size_t count, unsigned char *out) {
  out[0] = kEnvelopeMarker0;
  out[1] = kEnvelopeMarker1;
  out[2] = static_cast<unsigned char>(count & 0xFF);
  out[3] = static_cast<unsigned char>((count >> 8) & 0xFF);
  std::memcpy(out + 4, payload, count);
  const auto checksum = static_cast<uint16_t>(0u - envelope_byte_sum(out, count + 4));
  out[count + 4] = static_cast<unsigned char>(checksum & 0xFF);
  out[count + 5] = static_cast<unsigned char>(checksum >> 8);
  return count + kEnvelopeOverhead;
}

// Checks a received datagram's envelope. Returns the payload length, or -1 for
// a datagram that is too short, claims more bytes than arrived, or whose
// checksum is wrong. The marker bytes are not checked.
inline int envelope_check(const unsigned char *datagram, std::size_t received) {
  if (received < kEnvelopeOverhead)
    return -1;
  const std::size_t length = datagram[2] | (static_cast<std::size_t>(datagram[3]) << 8);
  // A length that claims more than arrived cannot be checked: reject it rather
  // than sum bytes that are not part of this datagram.
  if (length + kEnvelopeOverhead > received)
    return -1;
  const auto checksum = static_cast<uint16_t>(datagram[length + 4] | (datagram[length + 5] << 8));
  if (static_cast<uint16_t>(envelope_byte_sum(datagram, length + 4) + checksum) != 0)
    return -1;
  return static_cast<int>(length);
}

// What one receive on a session brought.
enum class Arrival {
  frame,     // a frame from the controller: its payload was copied
  nothing,   // no datagram (time-out, or the socket reported an error)
  malformed, // too short, a length beyond the datagram, or a wrong checksum
  foreign,   // from a sender other than the controller: dropped unread
  relocked,  // a frame from the controller's address on a new port, taken (relock allowed)
};

// Receives one frame as read_protocol does (same result and errno) and says
// what came, so the exchange thread can count what it drops. With relock, a
// well-formed frame from the controller's address but another source port is
// taken, and that port is the controller's from then on: the caller allows it
// after a silence (a restarted controller may send from a new port), never
// while frames flow.
int receive_frame(int handle, void *bytes, int capacity, Arrival *arrival, bool relock = false);

// The controller's address of an open UDP session; false for another handle.
bool session_peer(int handle, sockaddr_in *peer);

// Receives one datagram on a UDP session's socket and reports its sender.
int udp_receive_from(int descriptor, void *bytes, int capacity, sockaddr_in *from);

} // namespace kalo

// One slot of the session table.
struct ProtoSession {
  uint32_t type; // 0 free, 1 UDP
  int32_t fd;    // -1 in a slot never used
  kalo_write_fn write_fn;
  kalo_read_fn read_fn;
  kalo_close_fn close_fn;
  unsigned char *tx_buffer;
  unsigned char *rx_buffer;
  struct sockaddr_in *peer;
  // UDP sessions: the source port of the first frame accepted from the
  // controller's address (network order), 0 until then. Later datagrams
  // from any other port are foreign.
  uint16_t controller_port;
};
