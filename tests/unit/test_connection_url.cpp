// The connection URL grammar: which spellings open which ports, and which are
// refused before any socket is made.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <string>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "device/context.h"
#include "link/url.h"
#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"

namespace {

kalo::ConnectionUrl parse_ok(const char *text) {
  kalo::ConnectionUrl url;
  EXPECT_TRUE(kalo::parse_connection_url(text, &url)) << text;
  return url;
}

TEST(ConnectionUrl, ThreeSpellingsOfOneHostGiveTheSameConnection) {
  for (const char *text :
       {"localhost", "udpxdr://localhost", "url:localhost", "url:udpxdr://localhost"}) {
    const auto url = parse_ok(text);
    EXPECT_EQ(url.host, "localhost") << text;
    EXPECT_EQ(url.local_port, 0) << text;  // the transport searches 3131..3140
    EXPECT_EQ(url.remote_port, 0) << text; // the transport's default, 5000
  }
}

TEST(ConnectionUrl, PortsAfterColonAndHash) {
  auto url = parse_ok("udpxdr://host:4000#6000");
  EXPECT_EQ(url.host, "host");
  EXPECT_EQ(url.local_port, 4000);
  EXPECT_EQ(url.remote_port, 6000);

  url = parse_ok("127.0.0.1#6000");
  EXPECT_EQ(url.host, "127.0.0.1");
  EXPECT_EQ(url.local_port, 0);
  EXPECT_EQ(url.remote_port, 6000);

  url = parse_ok("udpxdr://host#6000+extra:stuff");
  EXPECT_EQ(url.host, "host");
  EXPECT_EQ(url.remote_port, 6000);

  // Empty ports pass and count as 0; 65535 is the last port.
  url = parse_ok("host:#");
  EXPECT_EQ(url.local_port, 0);
  EXPECT_EQ(url.remote_port, 0);
  url = parse_ok("host:65535#00065535");
  EXPECT_EQ(url.local_port, 65535);
  EXPECT_EQ(url.remote_port, 65535);
}

TEST(ConnectionUrl, APlusWithoutHashStaysInTheHost) {
  const auto url = parse_ok("host+x");
  EXPECT_EQ(url.host, "host+x");
}

TEST(ConnectionUrl, RefusedSpellings) {
  kalo::ConnectionUrl url;
  for (const char *text : {"tcp://host", "udp://host", "URL:udpxdr://host:1", "udpxdr://host:12a",
                           "udpxdr://host#60x0", "udpxdr://host:-1", "udpxdr://host: 1",
                           "host:65536", "host#99999", "host:99999999999999999999"})
    EXPECT_FALSE(kalo::parse_connection_url(text, &url)) << text;
  EXPECT_FALSE(kalo::parse_connection_url(nullptr, &url));
}

TEST(ConnectionUrl, OpenRefusesABadUrlWithCode10AtOnce) {
  kaloGlobalError = 0;
  EXPECT_EQ(kaloOpen("tcp://127.0.0.1"), nullptr);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_URL_SYNTAX);
  kaloGlobalError = 0;
  EXPECT_EQ(kaloOpen("udpxdr://127.0.0.1:12a"), nullptr);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_URL_SYNTAX);
  kaloGlobalError = 0;
  EXPECT_EQ(kaloOpen(nullptr), nullptr);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_URL_SYNTAX);
  kaloGlobalError = 0;
  EXPECT_EQ(kaloOpen("udpxdr://127.0.0.1:3131#99999"), nullptr); // not 34463
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_URL_SYNTAX);
}

TEST(ConnectionUrl, OpenReportsABusyLocalPortAsCode2) {
  const int busy = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_GE(busy, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  local.sin_port = htons(15991);
  ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr *>(&local), sizeof local), 0);
  kaloGlobalError = 0;
  EXPECT_EQ(kaloOpen("udpxdr://127.0.0.1:15991#15992"), nullptr);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_COMMUNICATION);
  close(busy);
}

// One code covers several failures; the error detail tells them apart, each
// without waiting for a controller.
TEST(ConnectionUrl, OpenSaysWhyItFailedInTheErrorDetail) {
  const int busy = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_GE(busy, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  local.sin_port = htons(15993);
  ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr *>(&local), sizeof local), 0);
  const struct {
    const char *url;
    int32_t code;
    const char *detail; // its beginning
  } cases[] = {
      {"tcp://127.0.0.1", KALO_ERROR_URL_SYNTAX,
       "bad URL syntax: the scheme of \"tcp://127.0.0.1\" is not udpxdr://"},
      {"127.0.0.1:12a", KALO_ERROR_URL_SYNTAX, "bad URL syntax: local port \"12a\" is not a"},
      {"127.0.0.1#70000", KALO_ERROR_URL_SYNTAX,
       "bad URL syntax: controller port 70000 is above 65535"},
      {nullptr, KALO_ERROR_URL_SYNTAX, "bad URL syntax: no URL"},
      {"", KALO_ERROR_COMMUNICATION, "bad URL syntax: no host in \"\""},
      {"udpxdr://", KALO_ERROR_COMMUNICATION, "bad URL syntax: no host in \"udpxdr://\""},
      {"no-such-host.invalid", KALO_ERROR_COMMUNICATION, "unknown host \"no-such-host.invalid\""},
      {"127.0.0.1:15993", KALO_ERROR_COMMUNICATION, "cannot bind local port 15993: Address"},
  };
  for (const auto &c : cases) {
    const char *shown = c.url != nullptr ? c.url : "(null)";
    kaloGlobalError = 0;
    EXPECT_EQ(kaloOpen(c.url), nullptr) << shown;
    EXPECT_EQ(kaloGlobalError, c.code) << shown;
    const std::string detail = kaloExtLastErrorDetail();
    EXPECT_EQ(detail.compare(0, std::strlen(c.detail), c.detail), 0) << shown << ": " << detail;
  }
  close(busy);
  // A call that fails with nothing more to say leaves no stale text.
  KaloContext fake{};
  EXPECT_EQ(kaloSetForce(&fake, nullptr), -1);
  EXPECT_STREQ(kaloExtLastErrorDetail(), "");
}

TEST(ConnectionUrl, CloseRefusesHandlesThatAreNotLiveContexts) {
  kaloGlobalError = 0;
  EXPECT_EQ(kaloClose(nullptr), -1);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_INVALID_CONTEXT);
  KaloContext fake{};
  fake.magic = kalo::kContextMagic + 1;
  kaloGlobalError = 0;
  EXPECT_EQ(kaloClose(&fake), -1);
  EXPECT_EQ(kaloGlobalError, KALO_ERROR_INVALID_CONTEXT);
}

TEST(ConnectionUrl, VersionOfThisLibrary) {
  int32_t major = 0, minor = 0;
  EXPECT_EQ(kaloAPIVersion(&major, &minor), 0);
  EXPECT_EQ(major, 4);
  EXPECT_EQ(minor, 4);
}

} // namespace
