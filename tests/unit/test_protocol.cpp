// Protocol sessions over the UDP transport on loopback: the envelope on the
// wire, checksum rejection, handle checks and the local port search.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <string>
#include <vector>

#include "kalo/kalo_ext.h"
#include "kalo/kalo_internal.h"

namespace {

// A plain UDP socket bound on loopback, standing in for the other side.
struct RawSocket {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  explicit RawSocket(int port, uint32_t address = INADDR_LOOPBACK) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(address);
    a.sin_port = htons(static_cast<uint16_t>(port));
    ok = bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    timeval tv{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  }
  ~RawSocket() { close(fd); }
  std::vector<unsigned char> receive() {
    std::vector<unsigned char> b(2000);
    const ssize_t n = recv(fd, b.data(), b.size(), 0);
    b.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return b;
  }
  void send_to(int port, const std::vector<unsigned char> &bytes) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a);
  }
  bool ok = false;
};

std::vector<unsigned char> with_envelope(std::vector<unsigned char> payload, bool good_sum = true,
                                         unsigned char m0 = 0xC3, unsigned char m1 = 0x3C) {
  std::vector<unsigned char> d(payload.size() + 4);
  d[0] = m0;
  d[1] = m1;
  d[2] = static_cast<unsigned char>(payload.size() & 0xFF);
  d[3] = static_cast<unsigned char>(payload.size() >> 8);
  for (std::size_t i = 0; i < payload.size(); ++i)
    d[i + 4] = payload[i];
  unsigned sum = 0;
  for (auto b : d)
    sum += b;
  uint16_t c = static_cast<uint16_t>(0u - sum);
  if (!good_sum)
    c ^= 1;
  d.push_back(static_cast<unsigned char>(c & 0xFF));
  d.push_back(static_cast<unsigned char>(c >> 8));
  return d;
}

// Ports of this test file: 47xxx keeps clear of the other tests' ports.
constexpr int kLocal = 47101;
constexpr int kPeer = 47102;

} // namespace

TEST(ProtocolEnvelope, TenByteFrameTravelsAsSixteenBytesThatSumToZero) {
  RawSocket peer(kPeer);
  ASSERT_TRUE(peer.ok);
  const int h = open_protocol_udp("127.0.0.1", kLocal, kPeer);
  ASSERT_GE(h, 0);
  const unsigned char frame[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 200};
  EXPECT_EQ(write_protocol(h, frame, 10), 10);
  const auto d = peer.receive();
  ASSERT_EQ(d.size(), 16u);
  EXPECT_EQ(d[0], 0xC3);
  EXPECT_EQ(d[1], 0x3C);
  EXPECT_EQ(d[2], 0x0A);
  EXPECT_EQ(d[3], 0x00);
  EXPECT_EQ(0, std::memcmp(&d[4], frame, 10));
  unsigned sum = 0;
  for (int i = 0; i < 14; ++i)
    sum += d[static_cast<std::size_t>(i)];
  sum += d[14] | (d[15] << 8);
  EXPECT_EQ(sum % 65536, 0u);
  EXPECT_EQ(close_protocol(h), 0);
}

TEST(ProtocolEnvelope, ReceiverChecksTheSumButNotTheMarkers) {
  RawSocket peer(kPeer);
  const int h = open_protocol_udp("localhost", kLocal, kPeer);
  ASSERT_GE(h, 0);
  unsigned char out[1440];

  peer.send_to(kLocal, with_envelope({22, 0, 0, 0, 1}, false));
  errno = 0;
  EXPECT_EQ(read_protocol(h, out, 1440), -1);
  EXPECT_EQ(errno, EPROTO);

  peer.send_to(kLocal, with_envelope({22, 0, 0, 0, 1}, true, 'x', 'y'));
  EXPECT_EQ(read_protocol(h, out, 1440), 5);
  EXPECT_EQ(out[0], 22);

  peer.send_to(kLocal, {0xC3, 0x3C, 0, 0, 0}); // 5 bytes: too short
  EXPECT_EQ(read_protocol(h, out, 1440), -1);

  // A length that claims more bytes than arrived is rejected, never summed.
  auto lying = with_envelope({1, 2, 3});
  lying[2] = 0xFF;
  lying[3] = 0xFF;
  peer.send_to(kLocal, lying);
  EXPECT_EQ(read_protocol(h, out, 1440), -1);

  // Bytes after the declared payload and its checksum are never handed on.
  auto padded = with_envelope({22, 0, 0, 0, 2});
  padded.insert(padded.end(), {14, 0x3F, 0x80, 0, 0, 0x3F, 0x80, 0, 0, 0});
  peer.send_to(kLocal, padded);
  EXPECT_EQ(read_protocol(h, out, 1440), 5);

  // Only capacity payload bytes are copied.
  peer.send_to(kLocal, with_envelope({1, 2, 3, 4, 5, 6, 7, 8}));
  unsigned char small[4] = {0, 0, 0, 0};
  EXPECT_EQ(read_protocol(h, small, 4), -1) << "an 8-byte frame does not fit a 4-byte read";
  EXPECT_EQ(close_protocol(h), 0);
}

TEST(ProtocolSessions, TwoSessionsExchangeFramesBothWays) {
  const int a = open_protocol_udp("127.0.0.1", kLocal, kPeer);
  const int b = open_protocol_udp("127.0.0.1", kPeer, kLocal);
  ASSERT_GE(a, 0);
  ASSERT_GE(b, 0);
  std::vector<unsigned char> big(1440);
  for (std::size_t i = 0; i < big.size(); ++i)
    big[i] = static_cast<unsigned char>(i * 7);
  ASSERT_EQ(write_protocol(a, big.data(), 1440), 1440);
  std::vector<unsigned char> in(1440);
  ASSERT_EQ(read_protocol(b, in.data(), 1440), 1440);
  EXPECT_EQ(in, big);
  const unsigned char reply[3] = {44, 1, 2};
  ASSERT_EQ(write_protocol(b, reply, 3), 3);
  ASSERT_EQ(read_protocol(a, in.data(), 1440), 3);
  EXPECT_EQ(in[0], 44);
  errno = 0;
  EXPECT_EQ(write_protocol(a, big.data(), 1441), -1) << "frames above 1440 bytes do not fit";
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(close_protocol(a), 0);
  EXPECT_EQ(close_protocol(b), 0);
}

TEST(ProtocolSessions, OnlyTheControllersAddressAndFirstPortAreAccepted) {
  RawSocket controller(kPeer);
  RawSocket same_host(kPeer + 2);
  RawSocket other_host(kPeer, 0x7F000002); // 127.0.0.2
  ASSERT_TRUE(controller.ok && same_host.ok && other_host.ok);
  const int h = open_protocol_udp("127.0.0.1", kLocal, kPeer);
  ASSERT_GE(h, 0);
  unsigned char out[1440];
  const auto frame = with_envelope({22, 0, 0, 0, 1});
  struct Step {
    RawSocket *from;
    int result;
  };
  const Step steps[] = {
      {&other_host, -1}, // never the controller's address
      {&controller, 5},  // the first frame fixes the controller's port
      {&same_host, -1},  // the right address, another port
      {&other_host, -1}, {&controller, 5},
  };
  for (const auto &step : steps) {
    step.from->send_to(kLocal, frame);
    errno = 0;
    EXPECT_EQ(read_protocol(h, out, 1440), step.result);
    if (step.result < 0) {
      EXPECT_EQ(errno, EACCES);
    }
  }
  EXPECT_EQ(close_protocol(h), 0);
}

TEST(ProtocolSessions, BadHandlesAndDescriptorsAreRefused) {
  unsigned char buf[16] = {};
  for (int h : {64, -1, 1000}) {
    errno = 0;
    EXPECT_EQ(read_protocol(h, buf, 16), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(write_protocol(h, buf, 16), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(close_protocol(h), -1);
    EXPECT_EQ(errno, EBADF);
  }
  for (int d : {-1, 64, 4096}) {
    errno = 0;
    EXPECT_EQ(open_protocol(1, d, read_udp, write_udp, close_udp, nullptr), -1);
    EXPECT_EQ(errno, EMFILE);
  }
  const int h = open_protocol_udp("127.0.0.1", kLocal, kPeer);
  ASSERT_GE(h, 0);
  errno = 0;
  EXPECT_EQ(write_protocol(h, nullptr, 3), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(close_protocol(h), 0);
  EXPECT_EQ(close_protocol(h), 0) << "a second close reports success";
}

TEST(ProtocolSessions, UnresolvableHostsFailAndLeaveNothingOpen) {
  EXPECT_EQ(open_protocol_udp("no-such-host.invalid", kLocal, kPeer), -1);
  EXPECT_EQ(open_protocol_udp("255.255.255.255", kLocal, kPeer), -1);
  // The port of the failed attempts is free again.
  const int h = open_protocol_udp("127.0.0.1", kLocal, kPeer);
  EXPECT_GE(h, 0);
  close_protocol(h);
}

TEST(ProtocolSessions, LocalPortSearchStopsAfter3140) {
  std::vector<RawSocket *> held;
  bool all_bound = true;
  for (int p = 3131; p <= 3140; ++p) {
    held.push_back(new RawSocket(p));
    all_bound = all_bound && held.back()->ok;
  }
  if (all_bound) {
    EXPECT_EQ(open_protocol_udp("127.0.0.1", 0, kPeer), -1);
    EXPECT_EQ(std::string(kaloExtLastErrorDetail()).rfind("no free local port in 3131-3140", 0), 0u)
        << kaloExtLastErrorDetail();
  }
  delete held.back(); // free 3140 only: the search reaches it
  held.pop_back();
  const int h = open_protocol_udp("127.0.0.1", 0, kPeer);
  EXPECT_GE(h, 0);
  close_protocol(h);
  for (auto *s : held)
    delete s;
  if (!all_bound)
    GTEST_SKIP() << "ports 3131..3140 are used by another program";
}
