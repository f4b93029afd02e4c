// The ICMP echo engine against loopback addresses: whole runs, duplicates, bursts,
// the packet it sends, and synchronous pings.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "PingTestSupport.h"
#include "sources/ping/IcmpPacket.h"
#include "sources/ping/Ping.h"
#include "sources/ping/PingTarget.h"
#include "support/TraceCapture.h"
#include "support/Wait.h"

namespace {

using XRV::testing::PingTargets;
using XRV::testing::secondsSince;
using XRV::testing::SteadyClock;
using XRV::testing::TraceCapture;

TEST(PingEngineTest, AThousandLoopbackTargetsAreAllAnsweredLongBeforeTheTimeOut) {
  Ping engine;
  if (!engine.openSocket(AF_INET)) {
    GTEST_SKIP() << "no ICMP socket can be opened here";
  }
  PingTargets targets;
  for (int i = 0; i < 1000; ++i) {
    targets.add("127.1." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1));
  }
  const SteadyClock::time_point start = SteadyClock::now();
  ASSERT_EQ(engine.start(targets.list(), 5000, 0, 0), 1);
  const double seconds = secondsSince(start);
  EXPECT_EQ(targets.countInState(PingTarget::STATE_ANSWERED), 1000);
  EXPECT_EQ(engine.getLastRunSends(), 1000);
  // The run ends as soon as the last target answered, not at the 5 s time-out.
  EXPECT_LT(seconds, 2.5);
  for (int i = 0; i < 1000; ++i) {
    const PingTarget& target = targets.at(i);
    EXPECT_EQ(target.getAttempts(), 1);
    EXPECT_STREQ(target.getResolvedAddress(), target.getAddress());
    EXPECT_GE(target.getRoundTrip(), 0);
    // One time-out per attempt is counted in with the answer's time.
    EXPECT_EQ(target.getResponseTime(), target.getRoundTrip() + 5000);
  }
}

TEST(PingEngineTest, IPv6LoopbackIsAnswered) {
  if (!XRV::testing::hasIPv6Loopback()) {
    GTEST_SKIP() << "the loopback interface has no ::1";
  }
  Ping engine;
  if (!engine.openSocket(AF_INET6)) {
    GTEST_SKIP() << "no ICMPv6 socket can be opened here";
  }
  PingTargets targets;
  targets.add("::1");
  targets.add("0:0:0:0:0:0:0:1");  // the same address written out: pinged once
  targets.add("127.0.0.1");        // both families in one run
  ASSERT_EQ(engine.start(targets.list(), 3000, 0, 0), 1);
  EXPECT_EQ(targets.at(0).getState(), PingTarget::STATE_ANSWERED);
  EXPECT_STREQ(targets.at(0).getResolvedAddress(), "::1");
  EXPECT_EQ(targets.at(1).getState(), PingTarget::STATE_NOT_SENT);
  EXPECT_EQ(targets.at(2).getState(), PingTarget::STATE_ANSWERED);
  EXPECT_EQ(engine.getLastRunSends(), 2);
  EXPECT_EQ(engine.ping("::1", AF_INET6, 2000), 1);
}

TEST(PingEngineTest, ADuplicateAddressIsPingedOnce) {
  Ping engine;
  if (!engine.openSocket(AF_INET)) {
    GTEST_SKIP() << "no ICMP socket can be opened here";
  }
  TraceCapture trace("detail:Ping::*");
  PingTargets targets;
  targets.add("127.0.0.2");
  targets.add("127.0.0.3");
  targets.add("127.0.0.2");
  ASSERT_EQ(engine.start(targets.list(), 2000, 0, 0), 1);
  EXPECT_EQ(engine.getLastRunSends(), 2);
  EXPECT_EQ(targets.at(0).getState(), PingTarget::STATE_ANSWERED);
  EXPECT_EQ(targets.at(1).getState(), PingTarget::STATE_ANSWERED);
  EXPECT_EQ(targets.at(2).getState(), PingTarget::STATE_NOT_SENT);
  EXPECT_EQ(targets.at(2).getAttempts(), 0);
  EXPECT_EQ(targets.at(2).getResolvedAddress(), nullptr);
  EXPECT_TRUE(trace.hasText("Ignoring duplicate target: 127.0.0.2"));

  // A second run over the same list sends to nobody: everyone answered already.
  ASSERT_EQ(engine.start(targets.list(), 2000, 0, 0), 1);
  EXPECT_EQ(engine.getLastRunSends(), 0);
  EXPECT_EQ(targets.at(0).getAttempts(), 1);
}

TEST(PingEngineTest, ABurstPausesAfterEveryBurstSizethSend) {
  Ping engine;
  if (!engine.openSocket(AF_INET)) {
    GTEST_SKIP() << "no ICMP socket can be opened here";
  }
  PingTargets targets;
  for (int i = 0; i < 10; ++i) {
    targets.add("127.0.1." + std::to_string(i + 1));
  }
  ASSERT_EQ(engine.start(targets.list(), 2000, 3, 40), 1);
  EXPECT_EQ(targets.countInState(PingTarget::STATE_ANSWERED), 10);
  // After the 3rd, 6th and 9th send.
  EXPECT_EQ(engine.getLastRunPauses(), 3);
  const auto gap = [&](int i) { return targets.at(i).sendTime - targets.at(i - 1).sendTime; };
  for (int i = 1; i < 10; ++i) {
    if (i % 3 == 0) {
      EXPECT_GE(gap(i), 40) << "before send " << i + 1;
    } else {
      EXPECT_LT(gap(i), 40) << "before send " << i + 1;
    }
  }
}

TEST(PingEngineTest, WithoutABurstDelayThereAreNoPauses) {
  Ping engine;
  if (!engine.openSocket(AF_INET)) {
    GTEST_SKIP() << "no ICMP socket can be opened here";
  }
  PingTargets targets;
  for (int i = 0; i < 7; ++i) {
    targets.add("127.0.2." + std::to_string(i + 1));
  }
  ASSERT_EQ(engine.start(targets.list(), 2000, 3, 0), 1);
  EXPECT_EQ(engine.getLastRunPauses(), 0);
  EXPECT_EQ(targets.countInState(PingTarget::STATE_ANSWERED), 7);
}

TEST(PingEngineTest, RunsThatCannotStartSaySo) {
  Ping engine;
  TraceCapture trace("detail:Ping::*");
  PingTargets none;
  EXPECT_EQ(engine.start(none.list(), 100, 0, 0), 0);
  EXPECT_TRUE(trace.hasText("***** List of devices to ping is empty"));
  PingTargets one;
  one.add("127.0.0.1");
  engine.setStopping(true);
  EXPECT_EQ(engine.start(one.list(), 100, 0, 0), 0);
  EXPECT_TRUE(trace.hasText("Cannot start pings when state is set to stopping"));
  EXPECT_EQ(one.at(0).getAttempts(), 0);
}

TEST(PingEngineTest, ATargetThatDoesNotParseIsNotSent) {
  Ping engine;
  if (!engine.openSocket(AF_INET)) {
    GTEST_SKIP() << "no ICMP socket can be opened here";
  }
  TraceCapture trace("detail:Ping::*");
  PingTargets targets;
  targets.add("no such host.invalid");
  targets.add("127.0.0.4");
  ASSERT_EQ(engine.start(targets.list(), 2000, 0, 0), 1);
  EXPECT_EQ(targets.at(0).getState(), PingTarget::STATE_NOT_SENT);
  EXPECT_EQ(targets.at(1).getState(), PingTarget::STATE_ANSWERED);
  EXPECT_TRUE(
      trace.hasText("*** Failed to initialize socket address for no such host.invalid"));
}

// --- Synchronous pings ---

TEST(PingEngineTest, ASynchronousPingOfTheLocalHostIsAnswered) {
  Ping engine;
  if (!engine.openSocket(AF_INET)) {
    GTEST_SKIP() << "no ICMP socket can be opened here";
  }
  TraceCapture trace("detail:Ping::*");
  EXPECT_EQ(engine.ping("127.0.0.1", AF_INET, 2000), 1);
  EXPECT_TRUE(trace.hasText("Address <127.0.0.1> family 2"));
  EXPECT_TRUE(trace.hasText("Acquired icmpPingLock"));
  EXPECT_TRUE(trace.hasText("Released icmpPingLock"));
  EXPECT_TRUE(trace.containsText("Host 127.0.0.1 response time is "));
}

TEST(PingEngineTest, SynchronousPingsThatCannotBeMade) {
  struct Case {
    const char* library;
    const char* target;
    bool stopping;
    const char* trace;
  };
  const Case cases[] = {
      {nullptr, "", false, "*** No target ping address supplied"},
      {nullptr, nullptr, false, "*** No target ping address supplied"},
      {nullptr, "127.0.0.1", true, "Cannot issue a ping when we are in the stopping state"},
      {"", "127.0.0.1", false, "*** UA library failed to register"},
      {nullptr, "bad name.invalid", false,
       "*** Failed to initialize socket address for bad name.invalid"},
  };
  for (const Case& c : cases) {
    Ping engine(c.library);
    engine.setStopping(c.stopping);
    TraceCapture trace("detail:Ping::*");
    EXPECT_EQ(engine.ping(c.target, AF_UNSPEC, 500), 0) << c.trace;
    EXPECT_TRUE(trace.hasText(c.trace)) << c.trace;
  }
}

// --- Checking replies ---

TEST(PingEngineTest, RepliesAreCheckedBySourceAndType) {
  Ping engine;
  if (!engine.openSocket(AF_INET) || engine.socketMode(AF_INET) != Ping::SocketMode::RAW) {
    GTEST_SKIP() << "needs a raw ICMP socket";
  }
  // A raw socket's reply: 20 bytes of IP header, then the ICMP message.
  char packet[40] = {};
  struct Case {
    uint8_t type;
    const char* source;
    bool valid;
    const char* trace;
  };
  const Case cases[] = {
      {0, "127.0.0.9", true, nullptr},
      {8, "127.0.0.9", true, nullptr},  // the local host's own request
      {0, "127.0.0.8", false, "Unexpected ICMP reply from <127.0.0.8> awaiting reply from <127.0.0.9>"},
      {3, "127.0.0.9", false, "Node <127.0.0.9> icmpSendAddress <127.0.0.9> is unreachable, type subcode: 01"},
      {11, "127.0.0.9", false,
       ">>> Received invalid reply type 11 from 127.0.0.9 is not a valid ICMP reply, ignoring"},
  };
  for (const Case& c : cases) {
    TraceCapture trace("detail:Ping::*");
    packet[20] = static_cast<char>(c.type);
    packet[21] = 1;
    EXPECT_EQ(engine.validateV4Reply("127.0.0.9", packet, sizeof packet, c.source), c.valid)
        << int(c.type) << " " << c.source;
    if (c.trace != nullptr) {
      EXPECT_TRUE(trace.hasText(c.trace)) << c.trace;
    }
  }
  char v6[8] = {static_cast<char>(129)};
  EXPECT_TRUE(engine.validateV6Reply("::1", v6, sizeof v6, "::1"));
  v6[0] = 1;
  EXPECT_FALSE(engine.validateV6Reply("::1", v6, sizeof v6, "::1"));
  v6[0] = static_cast<char>(129);
  EXPECT_FALSE(engine.validateV6Reply("::1", v6, sizeof v6, "::2"));
}

// --- The request ---

TEST(IcmpPacketTest, TheIPv4RequestIsLaidOutAndSummedAsOperatorsSeeIt) {
  uint8_t packet[32];
  memset(packet, 0xEE, sizeof packet);
  const uint32_t stamp = 0x01020304;
  ASSERT_EQ(XRV::icmp::buildRequestV4(packet, 0x1234, 0xABCD, stamp), 18);
  EXPECT_EQ(packet[0], 8);
  EXPECT_EQ(packet[1], 0);
  EXPECT_EQ(packet[4], 0x12);
  EXPECT_EQ(packet[5], 0x34);
  EXPECT_EQ(packet[6], 0xAB);
  EXPECT_EQ(packet[7], 0xCD);
  uint32_t timestamp;
  memcpy(&timestamp, packet + 8, sizeof timestamp);
  EXPECT_EQ(timestamp, stamp);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(packet + 12), 6), std::string("Zelto\0", 6));
  EXPECT_EQ(packet[18], 0xEE);  // nothing written past the message
  // A correct checksum makes the sum over the message all ones.
  uint32_t sum = 0;
  for (int i = 0; i < 18; i += 2) {
    sum += static_cast<uint32_t>(packet[i] << 8 | packet[i + 1]);
  }
  while (sum >> 16) {
    sum = (sum & 0xFFFF) + (sum >> 16);
  }
  EXPECT_EQ(sum, 0xFFFFu);
}

TEST(IcmpPacketTest, TheChecksumLeavesAnOddLastByteOut) {
  // The example of the Internet checksum's definition: 00 01 f2 03 f4 f5 f6 f7.
  const uint8_t words[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7, 0x55};
  uint16_t expected = htons(static_cast<uint16_t>(~0xddf2 & 0xFFFF));
  EXPECT_EQ(XRV::icmp::checksum(words, 8), expected);
  EXPECT_EQ(XRV::icmp::checksum(words, 9), expected);
}

TEST(IcmpPacketTest, TheIPv6RequestLeavesTheChecksumToTheKernel) {
  uint8_t packet[32] = {};
  ASSERT_EQ(XRV::icmp::buildRequestV6(packet, 128, 7, 9, 0), 18);
  EXPECT_EQ(packet[0], 128);
  EXPECT_EQ(packet[2], 0);
  EXPECT_EQ(packet[3], 0);
  EXPECT_EQ(packet[5], 7);
  EXPECT_EQ(packet[7], 9);
}

TEST(IcmpPacketTest, SequenceNumbersCountUpAndIdentifiersAreAlmostAlwaysZero) {
  const uint16_t first = XRV::icmp::nextSequence();
  EXPECT_EQ(XRV::icmp::nextSequence(), static_cast<uint16_t>(first + 1));
  int nonZero = 0;
  for (int i = 0; i < 1000; ++i) {
    nonZero += XRV::icmp::nextIdentifier() != 0 ? 1 : 0;
  }
  EXPECT_LT(nonZero, 5);
}

}  // namespace
