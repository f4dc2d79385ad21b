// The connection URL accepted by kaloOpen:
//   [url:][udpxdr://]host[:local-port][#controller-port[+anything]]
// The scheme is added when the text names none; any other scheme is refused.
// Ports are decimal digits only, at most 65535 (an empty port, or 0, counts as
// 0: the transport then picks its default).
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

namespace kalo {

struct ConnectionUrl {
  std::string host;
  uint16_t local_port = 0;
  uint16_t remote_port = 0;
};

namespace url_detail {

inline bool all_digits(const std::string &s) {
  return std::strspn(s.c_str(), "0123456789") == s.size();
}

// The port's number; false when it is not a port (beyond 65535).
inline bool port_value(const std::string &digits, uint16_t *port) {
  uint32_t value = 0;
  for (const char c : digits) {
    value = value * 10u + static_cast<uint32_t>(c - '0');
    if (value > 0xFFFFu)
      return false;
  }
  *port = static_cast<uint16_t>(value);
  return true;
}

// Checks one port of the URL; on a refusal says which port and why in *why.
inline bool port_ok(const std::string &text, const char *which, uint16_t *port, std::string *why) {
  if (!all_digits(text)) {
    *why = std::string(which) + " \"" + text + "\" is not a decimal number";
    return false;
  }
  if (!port_value(text, port)) {
    *why = std::string(which) + " " + text + " is above 65535";
    return false;
  }
  return true;
}

} // namespace url_detail

// Parses url into out; false on a syntax error (code 10 for kaloOpen), with
// the reason in *why when why is not null.
inline bool parse_connection_url(const char *url, ConnectionUrl *out, std::string *why = nullptr) {
  static constexpr char kScheme[] = "udpxdr://";
  static constexpr std::size_t kSchemeLength = sizeof kScheme - 1;
  std::string reason;
  std::string &because = why != nullptr ? *why : reason;
  if (url == nullptr) {
    because = "no URL (NULL)";
    return false;
  }
  std::string text(url);
  if (text.compare(0, 4, "url:") == 0)
    text.erase(0, 4);
  if (text.find("://") == std::string::npos) {
    text.insert(0, kScheme);
  } else if (text.compare(0, kSchemeLength, kScheme) != 0) {
    because = "the scheme of \"" + text + "\" is not udpxdr://";
    return false;
  }
  std::string rest = text.substr(kSchemeLength);

  std::string remote;
  const std::size_t hash = rest.find('#');
  if (hash != std::string::npos) {
    remote = rest.substr(hash + 1);
    rest.erase(hash);
    const std::size_t plus = remote.find('+');
    if (plus != std::string::npos)
      remote.erase(plus); // what follows a '+' is for the controller's side
  }
  std::string local;
  const std::size_t colon = rest.find(':');
  if (colon != std::string::npos) {
    local = rest.substr(colon + 1);
    rest.erase(colon);
  }
  out->host = rest;
  return url_detail::port_ok(local, "local port", &out->local_port, &because) &&
         url_detail::port_ok(remote, "controller port", &out->remote_port, &because);
}

} // namespace kalo
