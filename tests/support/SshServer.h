#pragma once

// SshServer: a real OpenSSH sshd of a test's own (tests/support/test-sshd) on a free
// loopback port, with generated host and user keys in a temporary directory. Root's
// password on it is password(). stop() ends sshd and every session at once, as a
// host that goes down; start() brings it back on the same port with the same keys.
//
// Where sshd cannot run (not root, no openssh-server) available() is false and
// reason() says why: the tests skip. The destructor stops sshd; a test process that
// dies takes it along too.

#include <sys/types.h>

#include <string>

#include "support/TempDirectory.h"

namespace XRV::testing {

class SshServer {
 public:
  SshServer();
  ~SshServer();
  SshServer(const SshServer&) = delete;
  SshServer& operator=(const SshServer&) = delete;

  bool available() const { return available_; }
  const std::string& reason() const { return reason_; }

  // Starts sshd and waits until it listens; false (with reason()) when it did not.
  bool start();
  // Kills sshd and its sessions and waits until they are gone.
  void stop();
  bool running() const { return pid_ > 0; }

  int port() const { return port_; }
  const std::string& directory() const { return directory_.path(); }
  std::string privateKey() const { return directory_.file("user_ed25519"); }
  std::string publicKey() const { return directory_.file("user_ed25519.pub"); }
  static const char* password() { return "xrv-test-secret"; }
  // The known_hosts line of the server's host key: "[127.0.0.1]:PORT ssh-ed25519 ...".
  std::string knownHostsLine() const;
  // Gives the server a new host key (from its next start).
  void replaceHostKey();
  std::string log() const;

 private:
  TempDirectory directory_{"/tmp/xrv-sshd-"};
  bool available_ = false;
  std::string reason_;
  int port_ = 0;
  pid_t pid_ = -1;
};

// A port on 127.0.0.1 that nothing listens on right now.
int freeLoopbackPort();

}  // namespace XRV::testing
