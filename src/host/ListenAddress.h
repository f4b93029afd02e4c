#pragma once

// Where the HTTP server listens: "HOST:PORT" as the operator writes it in
// XRV_HTTP_LISTEN. HOST is an IPv4 address, a host name, or an IPv6 address in
// brackets ("[::1]:9310"); PORT is 0 to 65535, 0 meaning any free port. ":PORT" alone
// means 127.0.0.1: the agent only listens beyond the loopback address when told to.

#include <string>
#include <string_view>

namespace XRV::host {

inline constexpr const char* DEFAULT_LISTEN_ADDRESS = "127.0.0.1:9310";

struct ListenAddress {
  std::string host;  // without brackets
  int port = 0;

  // "HOST:PORT" again, brackets around an IPv6 address.
  std::string toString() const;
};

// False, with what is wrong in *error, for a malformed text.
bool parseListenAddress(std::string_view text, ListenAddress* address, std::string* error);

}  // namespace XRV::host
