#pragma once

// RawConnection: a TCP connection to a loopback port for tests of clients that
// misbehave (slow, idle, oversized): it writes exactly what the test tells it to and
// reports what comes back. `from` picks the source address: every 127.x.y.z is the
// loopback, so one test can look like many clients.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

namespace XRV::testing {

// A TCP connection from `from` (any 127.x.y.z is the loopback) that writes what a
// test tells it to and reports what comes back.
class RawConnection {
 public:
  using Clock = std::chrono::steady_clock;

  // `receiveBuffer` above 0: the socket's receive buffer, set before connecting, so
  // that a client that does not read holds up its sender soon.
  RawConnection(int port, const std::string& from = "127.0.0.1", int receiveBuffer = 0) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBuffer > 0) {
      setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    inet_pton(AF_INET, from.c_str(), &local.sin_addr);
    bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local);
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(static_cast<uint16_t>(port));
    remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&remote), sizeof remote) == 0;
  }
  ~RawConnection() { close(fd_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool connected() const { return connected_; }
  bool send(const std::string& bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  // What arrives until the peer closes, `seconds` pass or (when given) `until`
  // has arrived; *closed says whether the peer closed.
  std::string read(double seconds, bool* closed = nullptr, const char* until = nullptr) {
    std::string got;
    const Clock::time_point end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
      pollfd wait{fd_, POLLIN, 0};
      if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) <= 0) {
        break;
      }
      char buffer[4096];
      const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) {
        if (closed != nullptr) {
          *closed = true;
        }
        return got;
      }
      got.append(buffer, static_cast<size_t>(n));
      if (until != nullptr && got.find(until) != std::string::npos) {
        break;
      }
    }
    if (closed != nullptr) {
      *closed = false;
    }
    return got;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
};


}  // namespace XRV::testing
