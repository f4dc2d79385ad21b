// The connection URL parser: any text is either refused or parsed into a host
// without the separators ':' and '#', and the canonical spelling of what was
// parsed parses back to the same host and ports.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "link/url.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  kalo::ConnectionUrl url;
  if (!kalo::parse_connection_url(text.c_str(), &url))
    return 0;
  if (url.host.find_first_of(":#") != std::string::npos)
    std::abort();
  std::string canonical = "udpxdr://" + url.host;
  if (url.local_port != 0)
    canonical += ":" + std::to_string(url.local_port);
  if (url.remote_port != 0)
    canonical += "#" + std::to_string(url.remote_port);
  kalo::ConnectionUrl again;
  if (!kalo::parse_connection_url(canonical.c_str(), &again) || again.host != url.host ||
      again.local_port != url.local_port || again.remote_port != url.remote_port)
    std::abort();
  return 0;
}
