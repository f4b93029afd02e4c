#include "host/ListenAddress.h"

#include <charconv>

namespace XRV::host {

std::string ListenAddress::toString() const {
  const bool ipv6 = host.find(':') != std::string::npos;
  return (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

bool parseListenAddress(std::string_view text, ListenAddress* address, std::string* error) {
  auto fail = [&](const char* why) {
    if (error != nullptr) {
      *error = "\"" + std::string(text) + "\": " + why + " (expected HOST:PORT)";
    }
    return false;
  };
  std::string_view host;
  std::string_view port;
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string_view::npos) {
      return fail("no ']' after the IPv6 address");
    }
    host = text.substr(1, close - 1);
    if (host.empty()) {
      return fail("empty IPv6 address");
    }
    if (close + 1 >= text.size() || text[close + 1] != ':') {
      return fail("no ':PORT' after the address");
    }
    port = text.substr(close + 2);
  } else {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
      return fail("no ':PORT'");
    }
    host = text.substr(0, colon);
    if (host.find(':') != std::string_view::npos) {
      return fail("an IPv6 address needs brackets");
    }
    port = text.substr(colon + 1);
  }
  if (host.find_first_of(" \t/") != std::string_view::npos) {
    return fail("blank or '/' in the host");
  }
  int number = -1;
  const auto [end, status] = std::from_chars(port.data(), port.data() + port.size(), number);
  if (port.empty() || status != std::errc() || end != port.data() + port.size() || number < 0 ||
      number > 65535) {
    return fail("the port must be a number from 0 to 65535");
  }
  address->host = host.empty() ? "127.0.0.1" : std::string(host);
  address->port = number;
  return true;
}

}  // namespace XRV::host
