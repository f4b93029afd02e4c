#pragma once

// EventConnection: the forwarder's connection to the event server, TCP or TLS over
// TCP, without blocking: every wait is a poll() bounded by a deadline that also
// watches the forwarder's wake-up descriptor, so that stopping is never held up by
// the network.
//
// A host name is looked up on a thread of its own: a resolver that does not answer
// costs the connect time-out, and does not hold up a stop. With TLS the server's
// certificate must chain to the configured authorities (or the system's) and name
// the host connected to.
//
// Not thread-safe: the sender thread owns it.

#include <gnutls/gnutls.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

namespace XRV::forward {

struct EventForwarderConfig;

// Makes `session` (its transport a socket descriptor) write with MSG_NOSIGNAL.
// GnuTLS writes with writev() by default, which raises SIGPIPE when the peer has
// gone, and the agent ends on SIGPIPE.
void writeTlsWithoutSigpipe(gnutls_session_t session);

class EventConnection {
 public:
  using Clock = std::chrono::steady_clock;

  // What wait() saw.
  static constexpr int READABLE = 1;
  static constexpr int WRITABLE = 2;
  static constexpr int WOKEN = 4;  // the wake-up descriptor fired (and was drained)

  // `wakeFd`: an eventfd that others write to wake the sender; `stopping` is set
  // before a wake-up that means stop.
  EventConnection(int wakeFd, const std::atomic<bool>& stopping);
  ~EventConnection();
  EventConnection(const EventConnection&) = delete;
  EventConnection& operator=(const EventConnection&) = delete;

  // Looks the server up, connects and completes the TLS handshake by `deadline`.
  // False with the reason in *error (empty when stopping cut it short).
  bool open(const EventForwarderConfig& config, Clock::time_point deadline, std::string* error);
  void close();
  bool isOpen() const { return fd_ >= 0; }

  // Writes what the connection takes now: the bytes written (0: none now), or -1
  // with *error. After 0 the next call must pass the same bytes again (TLS needs it).
  ssize_t send(const char* data, size_t size, std::string* error);
  // Reads what has arrived: the bytes read (0: nothing now), or -1 with *error (also
  // when the server closed the connection).
  ssize_t receive(char* buffer, size_t size, std::string* error);
  // Waits up to `timeout` for input, for room to write (`wantWrite`) or for a
  // wake-up; returns what happened as READABLE | WRITABLE | WOKEN, 0 on time-out.
  int wait(bool wantWrite, std::chrono::milliseconds timeout);

 private:
  struct Tls;
  struct Address;
  bool resolve(const EventForwarderConfig& config, Clock::time_point deadline,
               std::vector<Address>* addresses, std::string* error);
  bool connectTo(const Address& address, Clock::time_point deadline, std::string* error);
  bool handshake(const EventForwarderConfig& config, Clock::time_point deadline,
                 std::string* error);
  // Waits for `events` on the socket until `deadline`: true when they came; false
  // with *error on time-out, empty *error when stopping.
  bool waitUntil(short events, Clock::time_point deadline, const char* what, std::string* error);
  void drainWake();

  int wakeFd_;
  const std::atomic<bool>& stopping_;
  int fd_ = -1;
  Tls* tls_ = nullptr;
};

}  // namespace XRV::forward
