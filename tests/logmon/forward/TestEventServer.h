#pragma once

// TestEventServer: an event server for the forwarder's tests, on a loopback port. It
// speaks the forwarding protocol (docs/event-forwarding.md), keeps the events of
// each stream with their numbers, answers RESUME from what it holds and can be made
// to misbehave: hang before RESUME, stop reading after it, acknowledge late or
// never.
// It can be stopped and started again on the same port, with or without its store,
// and serve TLS with a self-signed certificate it makes.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace XRV::testing {

struct ServerEvent {
  uint64_t seq = 0;
  std::string text;
  bool operator==(const ServerEvent&) const = default;
};

// A self-signed certificate for `dnsName` and the address `ip` (when not empty), and
// its key, both PEM. False when GnuTLS failed.
bool makeSelfSignedCertificate(const std::string& dnsName, const std::string& ip,
                               std::string* certificatePem, std::string* keyPem);

class TestEventServer {
 public:
  enum class Mode {
    NORMAL,     // RESUME, then store and acknowledge every frame
    HANG,       // accept connections, never answer
    STALL,      // answer RESUME, then never read again
    DROP_ACKS,  // store frames, never acknowledge
  };

  // With `tls`, certificateFile() is the PEM file of the server's certificate,
  // written into `directory`; the certificate names "localhost" and `certificateIp`
  // (none when empty).
  explicit TestEventServer(bool tls = false, const std::string& directory = "",
                           const std::string& certificateIp = "127.0.0.1");
  ~TestEventServer();
  TestEventServer(const TestEventServer&) = delete;
  TestEventServer& operator=(const TestEventServer&) = delete;

  // Listens on 127.0.0.1: a free port the first time, the same one after a stop.
  bool start();
  // Closes the listener and every connection; `keepStore` false forgets every stream.
  void stop(bool keepStore = true);
  int port() const { return port_; }
  const std::string& certificateFile() const { return certificateFile_; }

  void setMode(Mode mode) { mode_ = mode; }
  // Each acknowledgement waits this long before it goes out.
  void setAckDelay(std::chrono::milliseconds delay) { ackDelayMs_ = delay.count(); }
  // The server holds `stream` up to `highest` (as if another sender had sent it).
  void preload(const std::string& stream, uint64_t highest);

  std::vector<ServerEvent> events(const std::string& stream) const;
  // Frames of `stream` numbered at or below what the server held already.
  uint64_t duplicates(const std::string& stream) const;
  uint64_t connections() const { return connections_; }
  // Waits until `stream` holds `count` events.
  bool waitForEvents(const std::string& stream, size_t count, double seconds = 10) const;

 private:
  struct Stream {
    std::vector<ServerEvent> events;
    uint64_t highest = 0;
    uint64_t duplicates = 0;
  };
  class Peer;

  void acceptLoop();
  void serve(int fd);
  void waitForStop();

  bool tls_;
  std::string certificatePem_;
  std::string keyPem_;
  std::string certificateFile_;
  void* credentials_ = nullptr;  // gnutls_certificate_credentials_t
  int port_ = 0;
  int listenFd_ = -1;
  std::atomic<Mode> mode_{Mode::NORMAL};
  std::atomic<int64_t> ackDelayMs_{0};
  std::atomic<bool> stopping_{false};
  std::atomic<uint64_t> connections_{0};
  std::thread acceptor_;

  mutable std::mutex mutex_;
  std::condition_variable stopped_;
  std::map<std::string, Stream> streams_;
  std::vector<int> peerFds_;
  std::vector<std::thread> peers_;
};

}  // namespace XRV::testing
