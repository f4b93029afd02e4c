#include "TestEventServer.h"

#include <arpa/inet.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <fstream>

#include "logmon/forward/EventConnection.h"
#include "logmon/forward/EventRecord.h"
#include "support/Wait.h"

namespace XRV::testing {

bool makeSelfSignedCertificate(const std::string& dnsName, const std::string& ip,
                               std::string* certificatePem, std::string* keyPem) {
  gnutls_x509_privkey_t key = nullptr;
  gnutls_x509_crt_t certificate = nullptr;
  bool ok = gnutls_x509_privkey_init(&key) >= 0 && gnutls_x509_crt_init(&certificate) >= 0 &&
            gnutls_x509_privkey_generate(key, GNUTLS_PK_ECDSA,
                                         GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0) >= 0;
  const unsigned char serial[4] = {0x10, 0x20, 0x30, 0x40};
  const time_t now = time(nullptr);
  ok = ok && gnutls_x509_crt_set_version(certificate, 3) >= 0 &&
       gnutls_x509_crt_set_serial(certificate, serial, sizeof serial) >= 0 &&
       gnutls_x509_crt_set_activation_time(certificate, now - 3600) >= 0 &&
       gnutls_x509_crt_set_expiration_time(certificate, now + 86400) >= 0 &&
       gnutls_x509_crt_set_dn_by_oid(certificate, GNUTLS_OID_X520_COMMON_NAME, 0, dnsName.data(),
                                     static_cast<unsigned>(dnsName.size())) >= 0 &&
       gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_DNSNAME, dnsName.data(),
                                            static_cast<unsigned>(dnsName.size()),
                                            GNUTLS_FSAN_APPEND) >= 0 &&
       gnutls_x509_crt_set_basic_constraints(certificate, 1, -1) >= 0 &&
       gnutls_x509_crt_set_key_usage(certificate,
                                     GNUTLS_KEY_DIGITAL_SIGNATURE | GNUTLS_KEY_KEY_CERT_SIGN) >= 0 &&
       gnutls_x509_crt_set_key(certificate, key) >= 0;
  if (ok && !ip.empty()) {
    in_addr address{};
    ok = inet_pton(AF_INET, ip.c_str(), &address) == 1 &&
         gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_IPADDRESS, &address,
                                              sizeof address, GNUTLS_FSAN_APPEND) >= 0;
  }
  ok = ok && gnutls_x509_crt_sign2(certificate, certificate, key, GNUTLS_DIG_SHA256, 0) >= 0;
  gnutls_datum_t pem{};
  if (ok && gnutls_x509_crt_export2(certificate, GNUTLS_X509_FMT_PEM, &pem) >= 0) {
    certificatePem->assign(reinterpret_cast<const char*>(pem.data), pem.size);
    gnutls_free(pem.data);
  } else {
    ok = false;
  }
  if (ok && gnutls_x509_privkey_export2(key, GNUTLS_X509_FMT_PEM, &pem) >= 0) {
    keyPem->assign(reinterpret_cast<const char*>(pem.data), pem.size);
    gnutls_free(pem.data);
  } else {
    ok = false;
  }
  if (certificate != nullptr) {
    gnutls_x509_crt_deinit(certificate);
  }
  if (key != nullptr) {
    gnutls_x509_privkey_deinit(key);
  }
  return ok;
}

// One accepted connection's reading and writing, plain or TLS, blocking.
class TestEventServer::Peer {
 public:
  Peer(int fd, void* credentials) : fd_(fd) {
    if (credentials == nullptr) {
      return;
    }
    gnutls_init(&session_, GNUTLS_SERVER);
    gnutls_set_default_priority(session_);
    gnutls_credentials_set(session_, GNUTLS_CRD_CERTIFICATE, credentials);
    gnutls_transport_set_int(session_, fd);
    forward::writeTlsWithoutSigpipe(session_);
  }
  ~Peer() {
    if (session_ != nullptr) {
      gnutls_deinit(session_);
    }
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  bool handshake() {
    if (session_ == nullptr) {
      return true;
    }
    int status;
    do {
      status = gnutls_handshake(session_);
    } while (status == GNUTLS_E_AGAIN || status == GNUTLS_E_INTERRUPTED);
    return status == GNUTLS_E_SUCCESS;
  }
  // More input appended to *buffer; false at the end of the connection.
  bool read(std::string* buffer) {
    char chunk[65536];
    ssize_t got;
    do {
      got = session_ != nullptr ? gnutls_record_recv(session_, chunk, sizeof chunk)
                                : ::recv(fd_, chunk, sizeof chunk, 0);
    } while ((session_ != nullptr && (got == GNUTLS_E_AGAIN || got == GNUTLS_E_INTERRUPTED)) ||
             (session_ == nullptr && got < 0 && errno == EINTR));
    if (got <= 0) {
      return false;
    }
    buffer->append(chunk, static_cast<size_t>(got));
    return true;
  }
  bool write(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
      const ssize_t n = session_ != nullptr
                            ? gnutls_record_send(session_, text.data() + done, text.size() - done)
                            : ::send(fd_, text.data() + done, text.size() - done, MSG_NOSIGNAL);
      if (n <= 0) {
        if ((session_ != nullptr && (n == GNUTLS_E_AGAIN || n == GNUTLS_E_INTERRUPTED)) ||
            (session_ == nullptr && n < 0 && errno == EINTR)) {
          continue;
        }
        return false;
      }
      done += static_cast<size_t>(n);
    }
    return true;
  }

 private:
  int fd_;
  gnutls_session_t session_ = nullptr;
};

TestEventServer::TestEventServer(bool tls, const std::string& directory,
                                 const std::string& certificateIp)
    : tls_(tls) {
  if (!tls_) {
    return;
  }
  if (!makeSelfSignedCertificate("localhost", certificateIp, &certificatePem_, &keyPem_)) {
    return;
  }
  certificateFile_ = directory + "/server-cert.pem";
  std::ofstream(certificateFile_) << certificatePem_;
  gnutls_certificate_credentials_t credentials = nullptr;
  gnutls_certificate_allocate_credentials(&credentials);
  const gnutls_datum_t cert{reinterpret_cast<unsigned char*>(certificatePem_.data()),
                            static_cast<unsigned>(certificatePem_.size())};
  const gnutls_datum_t key{reinterpret_cast<unsigned char*>(keyPem_.data()),
                           static_cast<unsigned>(keyPem_.size())};
  gnutls_certificate_set_x509_key_mem(credentials, &cert, &key, GNUTLS_X509_FMT_PEM);
  credentials_ = credentials;
}

TestEventServer::~TestEventServer() {
  stop();
  if (credentials_ != nullptr) {
    gnutls_certificate_free_credentials(static_cast<gnutls_certificate_credentials_t>(credentials_));
  }
}

bool TestEventServer::start() {
  stopping_ = false;
  listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port_));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listenFd_, 16) != 0) {
    close(listenFd_);
    listenFd_ = -1;
    return false;
  }
  socklen_t length = sizeof address;
  getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
  return true;
}

void TestEventServer::stop(bool keepStore) {
  if (listenFd_ >= 0) {
    stopping_ = true;
    shutdown(listenFd_, SHUT_RDWR);  // ends the acceptor's accept()
    acceptor_.join();
    close(listenFd_);
    listenFd_ = -1;
  }
  std::vector<std::thread> peers;
  std::vector<int> fds;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const int fd : peerFds_) {
      shutdown(fd, SHUT_RDWR);  // ends the peers' reads
    }
    peers.swap(peers_);
    fds.swap(peerFds_);
    stopped_.notify_all();
  }
  for (std::thread& peer : peers) {
    peer.join();
  }
  for (const int fd : fds) {
    close(fd);
  }
  if (!keepStore) {
    std::lock_guard<std::mutex> lock(mutex_);
    streams_.clear();
  }
}

void TestEventServer::acceptLoop() {
  for (;;) {
    const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) {
        continue;
      }
      return;
    }
    ++connections_;
    std::lock_guard<std::mutex> lock(mutex_);
    peerFds_.push_back(fd);
    peers_.emplace_back([this, fd] { serve(fd); });
  }
}

void TestEventServer::waitForStop() {
  std::unique_lock<std::mutex> lock(mutex_);
  stopped_.wait(lock, [this] { return stopping_.load(); });
}

void TestEventServer::serve(int fd) {
  if (mode_ == Mode::HANG) {
    waitForStop();
    return;
  }
  Peer peer(fd, credentials_);
  std::string in;
  if (!peer.handshake()) {
    return;
  }
  size_t end;
  while ((end = in.find('\n')) == std::string::npos) {
    if (!peer.read(&in)) {
      return;
    }
  }
  const std::string hello = in.substr(0, end);
  in.erase(0, end + 1);
  if (!hello.starts_with("XRVEVENTS 1 ")) {
    peer.write("ERROR unknown greeting\n");
    return;
  }
  const std::string stream = hello.substr(12);
  uint64_t highest;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    highest = streams_[stream].highest;
  }
  if (!peer.write("RESUME " + std::to_string(highest) + "\n")) {
    return;
  }
  if (mode_ == Mode::STALL) {
    waitForStop();
    return;
  }
  for (;;) {
    size_t at = 0;
    bool took = false;
    for (;;) {
      if (in.size() - at < 6) {
        break;
      }
      if (in.compare(at, 6, "EVENT ") != 0) {
        peer.write("ERROR not an EVENT frame\n");
        return;
      }
      uint64_t seq = 0;
      uint64_t length = 0;
      size_t total = 0;
      const forward::RecordParse parsed =
          forward::parseRecord(in.data() + at + 6, in.size() - at - 6, &seq, &length, &total);
      if (parsed == forward::RecordParse::NEED_MORE) {
        break;
      }
      if (parsed == forward::RecordParse::INVALID) {
        peer.write("ERROR broken frame\n");
        return;
      }
      std::lock_guard<std::mutex> lock(mutex_);
      Stream& held = streams_[stream];
      if (seq <= held.highest) {
        ++held.duplicates;
      } else {
        held.events.push_back({seq, in.substr(at + 6 + total - length - 1, length)});
        held.highest = seq;
      }
      highest = held.highest;
      at += 6 + total;
      took = true;
    }
    in.erase(0, at);
    if (took && mode_ == Mode::NORMAL) {
      std::this_thread::sleep_for(std::chrono::milliseconds(ackDelayMs_.load()));
      if (!peer.write("ACK " + std::to_string(highest) + "\n")) {
        return;
      }
    }
    if (mode_ == Mode::STALL) {
      waitForStop();
      return;
    }
    if (!peer.read(&in)) {
      return;
    }
  }
}

void TestEventServer::preload(const std::string& stream, uint64_t highest) {
  std::lock_guard<std::mutex> lock(mutex_);
  streams_[stream].highest = highest;
}

std::vector<ServerEvent> TestEventServer::events(const std::string& stream) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = streams_.find(stream);
  return found == streams_.end() ? std::vector<ServerEvent>{} : found->second.events;
}

uint64_t TestEventServer::duplicates(const std::string& stream) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = streams_.find(stream);
  return found == streams_.end() ? 0 : found->second.duplicates;
}

bool TestEventServer::waitForEvents(const std::string& stream, size_t count, double seconds) const {
  return waitUntil([&] { return events(stream).size() >= count; }, seconds);
}

}  // namespace XRV::testing
