// The engine where the network is the test's own: a namespace in which echo requests
// go unanswered, a spoofed reply can be injected, and raw sockets can be taken away.
// Nothing leaves the machine: the namespace has only its loopback interface.

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "NetworkNamespace.h"
#include "PingTestSupport.h"
#include "sources/ping/IcmpPacket.h"
#include "sources/ping/Ping.h"
#include "sources/ping/PingTarget.h"
#include "support/Wait.h"

namespace {

using XRV::testing::NamespaceChild;
using XRV::testing::PingTargets;
using XRV::testing::secondsSince;
using XRV::testing::SteadyClock;
using XRV::testing::writeProcFile;

bool ignoreEchoRequests() {
  return writeProcFile("/proc/sys/net/ipv4/icmp_echo_ignore_all", "1");
}

// Sends an echo reply to 127.0.0.1 that claims to come from `from`.
bool injectReply(const char* from) {
  const int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
  if (fd < 0) {
    return false;
  }
  sockaddr_in source{};
  source.sin_family = AF_INET;
  inet_pton(AF_INET, from, &source.sin_addr);
  sockaddr_in destination{};
  destination.sin_family = AF_INET;
  inet_pton(AF_INET, "127.0.0.1", &destination.sin_addr);
  uint8_t packet[32] = {};
  const int length = XRV::icmp::buildRequestV4(packet, 0, 1, 0);
  packet[0] = XRV::icmp::kEchoReply;
  packet[2] = packet[3] = 0;
  const uint16_t sum = XRV::icmp::checksum(packet, length);
  memcpy(packet + 2, &sum, sizeof sum);
  const bool sent = bind(fd, reinterpret_cast<sockaddr*>(&source), sizeof source) == 0 &&
                    sendto(fd, packet, length, 0, reinterpret_cast<sockaddr*>(&destination),
                           sizeof destination) == length;
  close(fd);
  return sent;
}

bool dropRawSocketCapability() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) != 0) {
    return false;
  }
  const unsigned bit = 1U << (CAP_NET_RAW % 32);
  data[CAP_NET_RAW / 32].effective &= ~bit;
  data[CAP_NET_RAW / 32].permitted &= ~bit;
  return syscall(SYS_capset, &header, data) == 0;
}

TEST(PingNamespaceTest, AnUnansweredTargetStaysUnansweredAndTheRunEndsAtItsTimeOut) {
  XRV_IN_NETWORK_NAMESPACE([](const NamespaceChild& child) {
    child.check(ignoreEchoRequests(), "cannot switch echo replies off in the namespace");
    Ping engine;
    if (!engine.openSocket(AF_INET)) {
      child.fail("no ICMP socket in the namespace");
      return;
    }
    PingTargets targets;
    targets.add("127.0.0.2");
    const SteadyClock::time_point start = SteadyClock::now();
    child.check(engine.start(targets.list(), 600, 0, 0) == 1, "the run did not take place");
    const double seconds = secondsSince(start);
    child.check(targets.at(0).getState() == PingTarget::STATE_AWAITING_REPLY,
                "state " + std::to_string(targets.at(0).getState()) + ", not 3 (unanswered)");
    child.check(targets.at(0).getAttempts() == 1, "not one attempt");
    child.check(targets.at(0).getRoundTrip() == -1, "a round trip for an unanswered target");
    child.check(seconds >= 0.6 && seconds < 1.2,
                "the run took " + std::to_string(seconds) + " s for a 0.6 s time-out");
  });
}

TEST(PingNamespaceTest, AReplyFromAnotherAddressIsIgnoredAndOneFromTheTargetCounts) {
  XRV_IN_NETWORK_NAMESPACE([](const NamespaceChild& child) {
    child.check(ignoreEchoRequests(), "cannot switch echo replies off in the namespace");
    Ping engine;
    if (!engine.openSocket(AF_INET) || engine.socketMode(AF_INET) != Ping::SocketMode::RAW) {
      return;  // injected replies reach only raw sockets
    }
    for (const char* from : {"127.0.0.3", "127.0.0.2"}) {
      const bool fromTarget = std::string(from) == "127.0.0.2";
      PingTargets targets;
      targets.add("127.0.0.2");
      std::thread injector([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        child.check(injectReply(from), std::string("cannot inject a reply from ") + from);
      });
      const SteadyClock::time_point start = SteadyClock::now();
      engine.start(targets.list(), 800, 0, 0);
      const double seconds = secondsSince(start);
      injector.join();
      const int expected =
          fromTarget ? PingTarget::STATE_ANSWERED : PingTarget::STATE_AWAITING_REPLY;
      child.check(targets.at(0).getState() == expected,
                  std::string("reply from ") + from + ": state " +
                      std::to_string(targets.at(0).getState()));
      child.check(fromTarget ? seconds < 0.7 : seconds >= 0.8,
                  std::string("reply from ") + from + ": the run took " +
                      std::to_string(seconds) + " s");
    }
  });
}

TEST(PingNamespaceTest, ATargetWithoutARouteIsASendThatFailed) {
  XRV_IN_NETWORK_NAMESPACE([](const NamespaceChild& child) {
    Ping engine;
    if (!engine.openSocket(AF_INET)) {
      child.fail("no ICMP socket in the namespace");
      return;
    }
    PingTargets targets;
    targets.add("10.77.0.1");  // the namespace has no route but the loopback one
    targets.add("127.0.0.5");
    const SteadyClock::time_point start = SteadyClock::now();
    engine.start(targets.list(), 2000, 0, 0);
    child.check(targets.at(0).getState() == PingTarget::STATE_SEND_FAILED,
                "unroutable target: state " + std::to_string(targets.at(0).getState()));
    child.check(targets.at(1).getState() == PingTarget::STATE_ANSWERED, "127.0.0.5 unanswered");
    // A failed send awaits nothing: the run ends with the last answer.
    child.check(secondsSince(start) < 1.0, "the run waited for a target it never reached");
  });
}

TEST(PingNamespaceTest, WithoutRawSocketsTheEngineUsesDatagramSocketsWhereAllowed) {
  XRV_IN_NETWORK_NAMESPACE([](const NamespaceChild& child) {
    if (!writeProcFile("/proc/sys/net/ipv4/ping_group_range", "0 2147483647")) {
      child.fail("cannot allow unprivileged ping in the namespace");
      return;
    }
    child.check(dropRawSocketCapability(), "cannot drop CAP_NET_RAW");
    Ping engine;
    child.check(engine.openSocket(AF_INET), "no datagram socket");
    child.check(engine.socketMode(AF_INET) == Ping::SocketMode::DATAGRAM, "not in datagram mode");
    child.check(engine.rawSocketError(AF_INET) == EPERM, "the raw socket did not fail with EPERM");
    PingTargets targets;
    for (int i = 1; i <= 50; ++i) {
      targets.add("127.0.3." + std::to_string(i));
    }
    if (XRV::testing::hasIPv6Loopback() && engine.openSocket(AF_INET6)) {
      targets.add("::1");
    }
    engine.start(targets.list(), 3000, 0, 0);
    child.check(targets.countInState(PingTarget::STATE_ANSWERED) == targets.list()->getCount(),
                std::to_string(targets.countInState(PingTarget::STATE_ANSWERED)) + " answered");
    child.check(engine.ping("127.0.0.1", AF_INET, 2000) == 1, "the synchronous ping failed");
  });
}

TEST(PingNamespaceTest, WithNeitherKindOfSocketNoSocketOpens) {
  XRV_IN_NETWORK_NAMESPACE([](const NamespaceChild& child) {
    child.check(writeProcFile("/proc/sys/net/ipv4/ping_group_range", "1 0"),
                "cannot forbid unprivileged ping in the namespace");
    child.check(dropRawSocketCapability(), "cannot drop CAP_NET_RAW");
    Ping engine;
    child.check(!engine.openSocket(AF_INET), "a socket opened");
    child.check(engine.socketMode(AF_INET) == Ping::SocketMode::NONE, "a mode without a socket");
    PingTargets targets;
    targets.add("127.0.0.1");
    engine.start(targets.list(), 300, 0, 0);
    child.check(targets.at(0).getState() == PingTarget::STATE_SEND_FAILED,
                "state " + std::to_string(targets.at(0).getState()) + " without a socket");
  });
}

}  // namespace
