#pragma once

// BasicAuth: the users allowed to read the agent's HTTP API, from a file of
// "name: bcrypt-hash" lines (blank lines and lines starting with # are ignored), as
// operators write them for exporters:
//
//   # htpasswd -nbBC 10 alice secret | tr : ' '
//   alice: $2y$10$...
//
// Checking a password costs a bcrypt computation (tens of milliseconds by design);
// a name and password found good are remembered (as a SHA-256 digest, never the
// password itself), so that a client sending the same credentials with every request
// pays for it once.
//
// Thread-safe: check() may be called from any thread.

#include <map>
#include <mutex>
#include <set>
#include <string>

namespace XRV::host {

class BasicAuth {
 public:
  // False with the reason in *error (unreadable file, a line without a bcrypt hash,
  // no user at all).
  bool load(const std::string& path, std::string* error);
  bool enabled() const { return !users_.empty(); }
  bool check(const std::string& user, const std::string& password);

 private:
  std::map<std::string, std::string> users_;  // name to hash; set once by load()
  std::mutex mutex_;
  std::set<std::string> verified_;  // digests of name and password found good
};

}  // namespace XRV::host
