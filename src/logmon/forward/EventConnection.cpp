#include "logmon/forward/EventConnection.h"

#include <arpa/inet.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "framework/Trace.h"
#include "logmon/forward/EventForwarderConfig.h"

namespace XRV::forward {

namespace {

using Clock = EventConnection::Clock;

int millisecondsLeft(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left <= 0 ? 0 : static_cast<int>(std::min<long long>(left, 1000 * 1000));
}

// A look-up on a thread of its own. The waiter gives up on stop or time-out and
// leaves the thread to finish in its own time; whoever of the two comes last frees
// the result.
struct Lookup {
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  bool abandoned = false;
  int status = 0;
  addrinfo* result = nullptr;
  addrinfo hints{};
  std::string host;
  std::string service;

  static void run(const std::shared_ptr<Lookup>& lookup) {
    addrinfo* result = nullptr;
    const int status = getaddrinfo(lookup->host.c_str(), lookup->service.c_str(), &lookup->hints,
                                   &result);
    std::lock_guard<std::mutex> lock(lookup->mutex);
    if (lookup->abandoned) {
      if (result != nullptr) {
        freeaddrinfo(result);
      }
      return;
    }
    lookup->status = status;
    lookup->result = result;
    lookup->done = true;
    lookup->finished.notify_all();
  }
};

}  // namespace

void writeTlsWithoutSigpipe(gnutls_session_t session) {
  gnutls_transport_set_vec_push_function(
      session, [](gnutls_transport_ptr_t transport, const giovec_t* parts, int count) {
        msghdr message{};
        message.msg_iov = reinterpret_cast<iovec*>(const_cast<giovec_t*>(parts));
        message.msg_iovlen = static_cast<size_t>(count);
        return sendmsg(static_cast<int>(reinterpret_cast<intptr_t>(transport)), &message,
                       MSG_NOSIGNAL);
      });
}

struct EventConnection::Address {
  sockaddr_storage storage{};
  socklen_t length = 0;
  std::string text;
};

struct EventConnection::Tls {
  gnutls_certificate_credentials_t credentials = nullptr;
  gnutls_session_t session = nullptr;
  ~Tls() {
    if (session != nullptr) {
      gnutls_deinit(session);
    }
    if (credentials != nullptr) {
      gnutls_certificate_free_credentials(credentials);
    }
  }
};

EventConnection::EventConnection(int wakeFd, const std::atomic<bool>& stopping)
    : wakeFd_(wakeFd), stopping_(stopping) {}

EventConnection::~EventConnection() { close(); }

void EventConnection::close() {
  delete tls_;
  tls_ = nullptr;
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

void EventConnection::drainWake() {
  uint64_t count = 0;
  while (::read(wakeFd_, &count, sizeof count) < 0 && errno == EINTR) {
  }
}

bool EventConnection::resolve(const EventForwarderConfig& config, Clock::time_point deadline,
                              std::vector<Address>* addresses, std::string* error) {
  XRV_TRACE_FN();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  const std::string service = std::to_string(config.port);
  addrinfo* result = nullptr;
  int status = getaddrinfo(config.host.c_str(), service.c_str(), &hints, &result);
  if (status == EAI_NONAME) {
    // A name, not an address: looked up in the background.
    auto lookup = std::make_shared<Lookup>();
    lookup->host = config.host;
    lookup->service = service;
    lookup->hints = hints;
    lookup->hints.ai_flags = AI_NUMERICSERV | AI_ADDRCONFIG;
    try {
      std::thread(&Lookup::run, lookup).detach();
    } catch (const std::system_error& failure) {
      *error = "cannot look up " + config.host + ": " + failure.what();
      return false;
    }
    std::unique_lock<std::mutex> lock(lookup->mutex);
    while (!lookup->done) {
      const int left = millisecondsLeft(deadline);
      if (stopping_.load() || left == 0) {
        lookup->abandoned = true;
        *error = stopping_.load() ? "" : "no answer looking up " + config.host;
        return false;
      }
      // The wake-up descriptor is not watched here: look at stopping_ every 50 ms.
      lookup->finished.wait_for(lock, std::chrono::milliseconds(std::min(left, 50)));
    }
    status = lookup->status;
    result = lookup->result;
  }
  if (status != 0) {
    *error = "cannot look up " + config.host + ": " + gai_strerror(status);
    return false;
  }
  for (const addrinfo* entry = result; entry != nullptr; entry = entry->ai_next) {
    Address address;
    std::memcpy(&address.storage, entry->ai_addr, entry->ai_addrlen);
    address.length = entry->ai_addrlen;
    char text[INET6_ADDRSTRLEN] = "?";
    const void* raw = entry->ai_family == AF_INET6
                          ? static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(entry->ai_addr)->sin6_addr)
                          : static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(entry->ai_addr)->sin_addr);
    inet_ntop(entry->ai_family, raw, text, sizeof text);
    address.text = text;
    addresses->push_back(std::move(address));
  }
  freeaddrinfo(result);
  return true;
}

bool EventConnection::waitUntil(short events, Clock::time_point deadline, const char* what,
                                std::string* error) {
  for (;;) {
    if (stopping_.load()) {
      error->clear();
      return false;
    }
    const int left = millisecondsLeft(deadline);
    if (left == 0) {
      *error = std::string("time-out ") + what;
      return false;
    }
    pollfd fds[2] = {{fd_, events, 0}, {wakeFd_, POLLIN, 0}};
    if (poll(fds, 2, left) < 0 && errno != EINTR) {
      *error = std::string("poll: ") + std::strerror(errno);
      return false;
    }
    if (fds[1].revents != 0) {
      drainWake();
    }
    if (fds[0].revents != 0) {
      return true;
    }
  }
}

bool EventConnection::connectTo(const Address& address, Clock::time_point deadline,
                                std::string* error) {
  XRV_TRACE_FN();
  fd_ = socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ < 0) {
    *error = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  const int on = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  setsockopt(fd_, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  if (connect(fd_, reinterpret_cast<const sockaddr*>(&address.storage), address.length) != 0) {
    if (errno != EINPROGRESS) {
      *error = "connect to " + address.text + ": " + std::strerror(errno);
      close();
      return false;
    }
    const std::string what = "connecting to " + address.text;
    if (!waitUntil(POLLOUT, deadline, what.c_str(), error)) {
      close();
      return false;
    }
    int failure = 0;
    socklen_t length = sizeof failure;
    getsockopt(fd_, SOL_SOCKET, SO_ERROR, &failure, &length);
    if (failure != 0) {
      *error = "connect to " + address.text + ": " + std::strerror(failure);
      close();
      return false;
    }
  }
  return true;
}

bool EventConnection::handshake(const EventForwarderConfig& config, Clock::time_point deadline,
                                std::string* error) {
  XRV_TRACE_FN();
  tls_ = new Tls;
  int status = gnutls_certificate_allocate_credentials(&tls_->credentials);
  if (status >= 0) {
    status = config.caFile.empty()
                 ? gnutls_certificate_set_x509_system_trust(tls_->credentials)
                 : gnutls_certificate_set_x509_trust_file(tls_->credentials, config.caFile.c_str(),
                                                          GNUTLS_X509_FMT_PEM);
    if (status == 0) {
      *error = config.caFile.empty() ? "no trusted certificate authorities on this system"
                                     : "no certificate in " + config.caFile;
      return false;
    }
    if (status < 0) {
      *error = (config.caFile.empty() ? std::string("cannot load the system's trusted authorities")
                                      : "cannot read " + config.caFile) +
               ": " + gnutls_strerror(status);
      return false;
    }
  }
  if (status >= 0) {
    status = gnutls_init(&tls_->session, GNUTLS_CLIENT | GNUTLS_NONBLOCK);
  }
  if (status >= 0) {
    status = gnutls_set_default_priority(tls_->session);
  }
  if (status >= 0) {
    status = gnutls_credentials_set(tls_->session, GNUTLS_CRD_CERTIFICATE, tls_->credentials);
  }
  if (status < 0) {
    *error = std::string("TLS set-up: ") + gnutls_strerror(status);
    return false;
  }
  in6_addr ignored;
  if (inet_pton(AF_INET, config.host.c_str(), &ignored) != 1 &&
      inet_pton(AF_INET6, config.host.c_str(), &ignored) != 1) {
    gnutls_server_name_set(tls_->session, GNUTLS_NAME_DNS, config.host.data(), config.host.size());
  }
  // The certificate is checked during the handshake, the host name with it.
  gnutls_session_set_verify_cert(tls_->session, config.host.c_str(), 0);
  gnutls_transport_set_int(tls_->session, fd_);
  writeTlsWithoutSigpipe(tls_->session);
  for (;;) {
    status = gnutls_handshake(tls_->session);
    if (status == GNUTLS_E_SUCCESS) {
      return true;
    }
    if (status == GNUTLS_E_CERTIFICATE_VERIFICATION_ERROR) {
      gnutls_datum_t text{};
      gnutls_certificate_verification_status_print(
          gnutls_session_get_verify_cert_status(tls_->session), GNUTLS_CRT_X509, &text, 0);
      *error = "the event server's certificate is not trusted: " +
               std::string(reinterpret_cast<const char*>(text.data), text.size);
      gnutls_free(text.data);
      return false;
    }
    if (status != GNUTLS_E_AGAIN && status != GNUTLS_E_INTERRUPTED) {
      *error = std::string("TLS handshake: ") + gnutls_strerror(status);
      return false;
    }
    const short events = gnutls_record_get_direction(tls_->session) == 1 ? POLLOUT : POLLIN;
    if (!waitUntil(events, deadline, "in the TLS handshake", error)) {
      return false;
    }
  }
}

bool EventConnection::open(const EventForwarderConfig& config, Clock::time_point deadline,
                           std::string* error) {
  XRV_TRACE_FN();
  close();
  std::vector<Address> addresses;
  if (!resolve(config, deadline, &addresses, error)) {
    return false;
  }
  std::string failures;
  for (const Address& address : addresses) {
    if (connectTo(address, deadline, error)) {
      if (!config.tls || handshake(config, deadline, error)) {
        XRV_TRACE_DETAIL("Connected to the event server %s:%d at %s%s", config.host.c_str(),
                         config.port, address.text.c_str(), config.tls ? " (TLS)" : "");
        return true;
      }
      close();
      return false;  // the server answered: another address would not do better
    }
    if (error->empty()) {
      return false;  // stopping
    }
    failures += (failures.empty() ? "" : "; ") + *error;
  }
  *error = failures.empty() ? "no address for " + config.host : failures;
  return false;
}

ssize_t EventConnection::send(const char* data, size_t size, std::string* error) {
  if (tls_ != nullptr) {
    const ssize_t sent = gnutls_record_send(tls_->session, data, size);
    if (sent >= 0) {
      return sent;
    }
    if (sent == GNUTLS_E_AGAIN || sent == GNUTLS_E_INTERRUPTED) {
      return 0;
    }
    *error = std::string("TLS write: ") + gnutls_strerror(static_cast<int>(sent));
    return -1;
  }
  const ssize_t sent = ::send(fd_, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent >= 0) {
    return sent;
  }
  if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
    return 0;
  }
  *error = std::string("write: ") + std::strerror(errno);
  return -1;
}

ssize_t EventConnection::receive(char* buffer, size_t size, std::string* error) {
  if (tls_ != nullptr) {
    const ssize_t got = gnutls_record_recv(tls_->session, buffer, size);
    if (got > 0) {
      return got;
    }
    if (got == GNUTLS_E_AGAIN || got == GNUTLS_E_INTERRUPTED) {
      return 0;
    }
    *error = got == 0 ? std::string("the event server closed the connection")
                      : std::string("TLS read: ") + gnutls_strerror(static_cast<int>(got));
    return -1;
  }
  const ssize_t got = ::recv(fd_, buffer, size, MSG_DONTWAIT);
  if (got > 0) {
    return got;
  }
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
    return 0;
  }
  *error = got == 0 ? std::string("the event server closed the connection")
                    : std::string("read: ") + std::strerror(errno);
  return -1;
}

int EventConnection::wait(bool wantWrite, std::chrono::milliseconds timeout) {
  if (tls_ != nullptr && gnutls_record_check_pending(tls_->session) > 0) {
    return READABLE;  // decrypted input the socket no longer shows
  }
  pollfd fds[2] = {{fd_, static_cast<short>(POLLIN | (wantWrite ? POLLOUT : 0)), 0},
                   {wakeFd_, POLLIN, 0}};
  const int count = fd_ >= 0 ? 2 : 1;
  pollfd* first = fd_ >= 0 ? fds : fds + 1;
  if (poll(first, static_cast<nfds_t>(count),
           static_cast<int>(std::max<long long>(timeout.count(), 0))) <= 0) {
    return 0;
  }
  int seen = 0;
  if (fds[1].revents != 0) {
    drainWake();
    seen |= WOKEN;
  }
  if (fd_ >= 0) {
    // An error or hang-up shows as readable: the read that follows reports it.
    if ((fds[0].revents & (POLLIN | POLLERR | POLLHUP)) != 0) {
      seen |= READABLE;
    }
    if ((fds[0].revents & POLLOUT) != 0) {
      seen |= WRITABLE;
    }
  }
  return seen;
}

}  // namespace XRV::forward
