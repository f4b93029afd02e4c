// The engine's sockets, the synchronous ping and the reading and checking of
// replies. The asynchronous run is in PingAsync.cpp.

#include "sources/ping/Ping.h"

#include <fcntl.h>
#include <linux/icmp.h>
#include <netdb.h>
#include <netinet/icmp6.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "foundation/Utilities.h"
#include "framework/FwClock.h"
#include "framework/Trace.h"
#include "sources/ping/PingTarget.h"

namespace {

// Room for the replies of a large list while the receiver catches up; the datagram
// sockets of unprivileged processes get what net.core.rmem_max allows.
constexpr int kReceiveBufferBytes = 8 * 1024 * 1024;

// Descriptor 0 reads as "not open" in the engine: a socket that got it moves up.
int keepAboveZero(int fd) {
  if (fd != 0) {
    return fd;
  }
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
  close(fd);
  return moved;
}

void setNonBlocking(int fd) {
  int on = 1;
  ioctl(fd, FIONBIO, &on);
}

// Replies carry the time the kernel received them: read in batches, their response
// times stay exact.
void stampReplies(int fd) {
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
}

void enlargeReceiveBuffer(int fd) {
  int bytes = kReceiveBufferBytes;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
  }
}

// Raw sockets see every ICMP message of the host: only echo requests and replies and
// unreachable reports get through to the engine.
void filterRawV4(int fd) {
  icmp_filter filter{};
  filter.data = ~((1U << ICMP_ECHOREPLY) | (1U << ICMP_DEST_UNREACH) | (1U << ICMP_ECHO));
  setsockopt(fd, SOL_RAW, ICMP_FILTER, &filter, sizeof filter);
}

void filterRawV6(int fd) {
  icmp6_filter filter;
  ICMP6_FILTER_SETBLOCKALL(&filter);
  ICMP6_FILTER_SETPASS(ICMP6_ECHO_REPLY, &filter);
  ICMP6_FILTER_SETPASS(ICMP6_ECHO_REQUEST, &filter);
  ICMP6_FILTER_SETPASS(ICMP6_DST_UNREACH, &filter);
  setsockopt(fd, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof filter);
}

}  // namespace

Ping::Ping() : Ping(nullptr) {}

Ping::Ping(const char* libraryName) {
  XRV_TRACE_FN();
  Utilities::setOwnedText(&libraryName_, libraryName != nullptr ? libraryName : "xrv");
  wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

Ping::~Ping() {
  XRV_TRACE_FN();
  if (ipv4Socket_ != 0) {
    close(ipv4Socket_);
  }
  if (ipv6Socket_ != 0) {
    close(ipv6Socket_);
  }
  if (wakeFd_ >= 0) {
    close(wakeFd_);
  }
  if (lockInitialised_) {
    fwLockDestroy(&pingLock_);
  }
  releaseRunBuffers();
  free(libraryName_);
}

void Ping::setStopping(bool stopping) {
  stopping_.store(stopping);
  wake();
}

void Ping::wake() {
  if (wakeFd_ >= 0) {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t written = write(wakeFd_, &one, sizeof one);
  }
}

// --- Sockets ---

bool Ping::initV4() { return initFamily(AF_INET); }

bool Ping::initV6() { return initFamily(AF_INET6); }

bool Ping::initFamily(int family) {
  XRV_TRACE_FN();
  const bool v4 = family == AF_INET;
  const int protocol = v4 ? static_cast<int>(IPPROTO_ICMP) : static_cast<int>(IPPROTO_ICMPV6);
  const char* ip = v4 ? "IPv4" : "IPv6";
  const char* icmp = v4 ? "ICMPv4" : "ICMPv6";
  SocketMode& mode = v4 ? ipv4Mode_ : ipv6Mode_;
  int fd = socket(family, SOCK_RAW | SOCK_CLOEXEC, protocol);
  if (fd < 0) {
    (v4 ? ipv4RawError_ : ipv6RawError_) = errno;
    XRV_TRACE_ERROR("***** unable to open %s raw socket for ICMP processing. Errno %d\n", ip, errno);
    fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, protocol);
    if (fd < 0) {
      XRV_TRACE_ERROR("***** unable to open %s datagram socket for ICMP processing. Errno %d\n",
                      ip, errno);
      return false;
    }
    fd = keepAboveZero(fd);
    mode = SocketMode::DATAGRAM;
    XRV_TRACE_DETAIL(">>> Datagram socket %d opened for %s traffic (unprivileged ICMP)\n", fd,
                     icmp);
  } else {
    fd = keepAboveZero(fd);
    mode = SocketMode::RAW;
    if (v4) {
      filterRawV4(fd);
    } else {
      filterRawV6(fd);
    }
    XRV_TRACE_DETAIL(">>> Raw socket %d opened for %s traffic\n", fd, icmp);
  }
  setNonBlocking(fd);
  enlargeReceiveBuffer(fd);
  stampReplies(fd);
  (v4 ? ipv4Socket_ : ipv6Socket_) = fd;
  return true;
}

bool Ping::openFamily(int family) {
  if (family == AF_INET) {
    return ipv4Socket_ != 0 || initV4();
  }
  if (family == AF_INET6) {
    return ipv6Socket_ != 0 || initV6();
  }
  return false;
}

bool Ping::openSocket(int family) {
  XRV_TRACE_FN();
  initPingLock();
  fwLockGet(&pingLock_);
  const bool open = openFamily(family);
  fwLockRelease(&pingLock_);
  return open;
}

Ping::SocketMode Ping::socketMode(int family) const {
  return family == AF_INET ? ipv4Mode_ : family == AF_INET6 ? ipv6Mode_ : SocketMode::NONE;
}

int Ping::rawSocketError(int family) const {
  return family == AF_INET ? ipv4RawError_ : family == AF_INET6 ? ipv6RawError_ : 0;
}

void Ping::initPingLock() {
  std::call_once(lockOnce_, [this] {
    XRV_TRACE_FN();
    XRV_TRACE_DETAIL("Initializing icmpPingLock\n");
    fwLockInit(&pingLock_);
    lockInitialised_ = true;
  });
}

bool Ping::checkLibrary() { return libraryName_ != nullptr && *libraryName_ != '\0'; }

bool Ping::getTargetSocketAddress(const char* text, unsigned short family,
                                  sockaddr_storage* address, socklen_t* length) {
  XRV_TRACE_FN();
  if (text == nullptr || *text == '\0') {
    return false;
  }
  if (XRV::icmp::parseNumericAddress(text, address, length)) {
    return family == AF_UNSPEC || family == address->ss_family;
  }
  addrinfo hints{};
  hints.ai_family = family;
  hints.ai_socktype = SOCK_RAW;
  addrinfo* found = nullptr;
  if (getaddrinfo(text, nullptr, &hints, &found) != 0 || found == nullptr) {
    return false;
  }
  memset(address, 0, sizeof *address);
  memcpy(address, found->ai_addr, found->ai_addrlen);
  *length = found->ai_addrlen;
  freeaddrinfo(found);
  return true;
}

// --- The synchronous ping ---

int Ping::ping(const char* target, unsigned short family, int timeoutMillis) {
  XRV_TRACE_FN();
  if (target == nullptr || *target == '\0') {
    XRV_TRACE_ERROR("*** No target ping address supplied\n");
    return 0;
  }
  if (isStopping()) {
    XRV_TRACE_ERROR("Cannot issue a ping when we are in the stopping state");
    return 0;
  }
  if (!checkLibrary()) {
    XRV_TRACE_ERROR("*** UA library failed to register\n");
    return 0;
  }
  char text[256];
  snprintf(text, sizeof text, "%.255s", target);
  sockaddr_storage address;
  socklen_t length = 0;
  if (!getTargetSocketAddress(text, family, &address, &length)) {
    XRV_TRACE_ERROR("*** Failed to initialize socket address for %s\n", text);
    return 0;
  }
  XRV_TRACE_DETAIL("Address <%s> family %d\n", text, address.ss_family);
  char resolved[XRV::icmp::kAddressTextSize];
  if (!XRV::icmp::addressText(reinterpret_cast<sockaddr*>(&address), resolved, sizeof resolved)) {
    return 0;
  }
  initPingLock();
  fwLockGet(&pingLock_);
  XRV_TRACE_DETAIL("Acquired icmpPingLock\n");
  const int result = pingWith(address.ss_family, &address, length, resolved, timeoutMillis);
  fwLockRelease(&pingLock_);
  XRV_TRACE_DETAIL("Released icmpPingLock\n");
  return result;
}

int Ping::pingWith(int family, const sockaddr_storage* address, socklen_t length,
                   const char* text, int timeoutMillis) {
  XRV_TRACE_FN();
  openFamily(family);
  if (family == AF_INET && ipv4Socket_ != 0) {
    return pingV4(address, length, text, timeoutMillis, false);
  }
  if (family == AF_INET6 && ipv6Socket_ != 0) {
    return pingV6(address, length, text, timeoutMillis, false);
  }
  XRV_TRACE_ERROR("Socket not available to ping %s", text);
  return 0;
}

int Ping::pingV4(const sockaddr_storage* address, socklen_t length, const char* text,
                 int timeoutMillis, bool async) {
  return pingOne(AF_INET, address, length, text, timeoutMillis, async);
}

int Ping::pingV6(const sockaddr_storage* address, socklen_t length, const char* text,
                 int timeoutMillis, bool async) {
  return pingOne(AF_INET6, address, length, text, timeoutMillis, async);
}

int Ping::pingOne(int family, const sockaddr_storage* address, socklen_t length,
                  const char* text, int timeoutMillis, bool async) {
  XRV_TRACE_FN();
  const int size = XRV::icmp::kBufferSize;
  auto* buffer = static_cast<char*>(calloc(1, size));
  if (buffer == nullptr) {
    XRV_TRACE_ERROR("***** Unable to allocate %d bytes for ICMP buffer\n", size);
    return 0;
  }
  XRV_TRACE_DETAIL("Allocated ICMPbuffer @%p for length %d\n", static_cast<void*>(buffer), size);
  const bool ipv4 = family == AF_INET;
  const int socket = ipv4 ? ipv4Socket_.load() : ipv6Socket_.load();
  const uint16_t identifier =
      ipv4 ? XRV::icmp::nextIdentifier() : static_cast<uint16_t>(gettid());
  const int64_t start = fwMonotonicMillis();
  auto* packet = reinterpret_cast<uint8_t*>(buffer);
  const auto stamp = static_cast<uint32_t>(fwTimeMillis());
  const int packetLength =
      ipv4 ? XRV::icmp::buildRequestV4(packet, identifier, XRV::icmp::nextSequence(), stamp)
           : XRV::icmp::buildRequestV6(packet, XRV::icmp::kEchoRequestV6, identifier,
                                       XRV::icmp::nextSequence(), stamp);
  XRV_TRACE_DETAIL("Pinging %s with %d bytes of data on socket %d\n", text, packetLength, socket);
  int result = 0;
  if (sendto(socket, packet, packetLength, 0, reinterpret_cast<const sockaddr*>(address),
             length) < 0) {
    const int error = errno;
    XRV_TRACE_ERROR("***** ICMP sendto %s[%d] failed, addrlen %d\n", text, socket,
                    static_cast<int>(length));
    XRV_TRACE_ERROR("### sendto errno=%d strerror: %s\n", error, strerror(error));
  } else if (async) {
    result = 1;
  } else {
    result = awaitReply(ipv4, socket, buffer, text, start, timeoutMillis);
  }
  XRV_TRACE_DETAIL("Freeing ICMPbuffer @%p\n", static_cast<void*>(buffer));
  free(buffer);
  return result;
}

int Ping::awaitReply(bool ipv4, int socket, char* buffer, const char* text, int64_t start,
                     int timeoutMillis) {
  XRV_TRACE_FN();
  int remaining = timeoutMillis;
  for (;;) {
    sockaddr_storage from;
    char fromText[XRV::icmp::kAddressTextSize];
    const int received =
        receive(buffer, XRV::icmp::kBufferSize, &from, fromText, remaining, socket);
    if (received > 0) {
      const bool valid = ipv4 ? validateV4Reply(text, buffer, received, fromText)
                              : validateV6Reply(text, buffer, received, fromText);
      if (valid) {
        const int64_t responseTime = fwMonotonicMillis() - start;
        XRV_TRACE_DETAIL("Host %s response time is %d ms\n", text, static_cast<int>(responseTime));
        return 1;
      }
    }
    if (received <= 0) {
      return 0;
    }
    const int64_t elapsed = fwMonotonicMillis() - start;
    if (elapsed >= timeoutMillis) {
      return 0;
    }
    remaining = static_cast<int>(timeoutMillis - elapsed);
  }
}

// --- Receiving and checking replies ---

int Ping::waitReadable(pollfd* watched, int count, int timeoutMillis) {
  XRV_TRACE_FN();
  // poll, not select: the agent's descriptors may lie beyond what select can watch.
  const int ready = poll(watched, count, timeoutMillis < 0 ? 0 : timeoutMillis);
  if (ready == 0) {
    XRV_TRACE_DETAIL(">>>>> ICMP echo receiver timed out\n");
    return 0;
  }
  if (ready < 0) {
    XRV_TRACE_ERROR(">>>>> ICMP echo select error: errno=%d\n", errno);
    return -1;
  }
  return ready;
}

int Ping::receive(char* buffer, int size, sockaddr_storage* fromAddress, char* fromText,
                  int timeoutMillis, int socket) {
  XRV_TRACE_FN();
  pollfd watched{socket, POLLIN, 0};
  const int ready = waitReadable(&watched, 1, timeoutMillis);
  if (ready <= 0) {
    return ready;
  }
  socklen_t length = sizeof *fromAddress;
  const ssize_t received = recvfrom(socket, buffer, size, 0,
                                    reinterpret_cast<sockaddr*>(fromAddress), &length);
  if (received == 0) {
    XRV_TRACE_DETAIL("### recvfrom rc=0, the peer has performed an orderly shutdown.\n");
  }
  if (received < 0) {
    return -1;
  }
  if (!XRV::icmp::addressText(reinterpret_cast<sockaddr*>(fromAddress), fromText,
                              XRV::icmp::kAddressTextSize)) {
    fromText[0] = '\0';
  }
  return static_cast<int>(received);
}

bool Ping::validateV4Reply(const char* expectedText, const char* packet, int length,
                           const char* sourceText) {
  XRV_TRACE_FN();
  if (!fromExpectedSource(expectedText, sourceText)) {
    return false;
  }
  // A datagram socket hands over the ICMP message alone; a raw one with the IP header.
  const int offset = ipv4Mode_ == SocketMode::DATAGRAM ? 0 : XRV::icmp::kIpHeaderLength;
  return checkReplyType(packet, length, offset, XRV::icmp::kEchoReply, XRV::icmp::kEchoRequest,
                        XRV::icmp::kDestinationUnreachable, expectedText, sourceText);
}

bool Ping::validateV6Reply(const char* expectedText, const char* packet, int length,
                           const char* sourceText) {
  XRV_TRACE_FN();
  if (!fromExpectedSource(expectedText, sourceText)) {
    return false;
  }
  // ICMPv6 sockets of both kinds hand over the ICMP message without the IP header.
  return checkReplyType(packet, length, 0, XRV::icmp::kEchoReplyV6, XRV::icmp::kEchoRequestV6,
                        XRV::icmp::kDestinationUnreachableV6, expectedText, sourceText);
}

bool Ping::fromExpectedSource(const char* expectedText, const char* sourceText) {
  XRV_TRACE_FN();
  if (expectedText == nullptr || strcmp(sourceText, expectedText) != 0) {
    XRV_TRACE_DETAIL("Unexpected ICMP reply from <%s> awaiting reply from <%s>\n", sourceText,
                     expectedText == nullptr ? "" : expectedText);
    return false;
  }
  return true;
}

bool Ping::checkReplyType(const char* packet, int length, int offset, int reply, int request,
                          int unreachable, const char* expectedText, const char* sourceText) {
  XRV_TRACE_FN();
  if (length < offset + 8) {
    XRV_TRACE_DETAIL(">>> Received a short ICMP message (%d bytes) from %s, ignoring\n", length,
                     sourceText);
    return false;
  }
  const auto type = static_cast<uint8_t>(packet[offset]);
  const auto code = static_cast<uint8_t>(packet[offset + 1]);
  if (type == unreachable) {
    // The text is the one operators know, flag and precision together as they are.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
    XRV_TRACE_DETAIL("Node <%s> icmpSendAddress <%s> is unreachable, type subcode: %02.2X\n",
                     sourceText, expectedText, static_cast<unsigned>(code));
#pragma GCC diagnostic pop
    return false;
  }
  if (type == reply || type == request) {
    return true;
  }
  XRV_TRACE_DETAIL(">>> Received invalid reply type %d from %s is not a valid ICMP reply, ignoring\n",
                   type, sourceText);
  return false;
}
