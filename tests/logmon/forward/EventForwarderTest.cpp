// The forwarder against the test event server: order, outages, restarts, the spool
// limit, torn records, misbehaving servers and TLS.

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "TestEventServer.h"
#include "logmon/forward/EventForwarder.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace XRV::forward {
namespace {

using namespace std::chrono_literals;
using testing::ServerEvent;
using testing::TempDirectory;
using testing::TestEventServer;
using testing::waitUntil;

constexpr const char* STREAM = "host1:LogGroup:sub1";

EventForwarderConfig configFor(const TempDirectory& directory, int port) {
  EventForwarderConfig config;
  config.host = "127.0.0.1";
  config.port = port;
  config.spoolDirectory = directory.file("spool");
  config.stream = STREAM;
  config.connectTimeout = 2000ms;
  config.ioTimeout = 2000ms;
  config.backoffMin = 10ms;
  config.backoffMax = 100ms;
  config.syncInterval = 50ms;
  return config;
}

std::string eventText(int i) { return "event " + std::to_string(i) + "\nsecond line"; }

void submitRange(EventForwarder& forwarder, int from, int to) {
  for (int i = from; i <= to; ++i) {
    ASSERT_TRUE(forwarder.submit(eventText(i)));
  }
}

// The server holds exactly events from..to, numbered so, once each.
void expectHeld(const TestEventServer& server, int from, int to) {
  std::vector<ServerEvent> expected;
  for (int i = from; i <= to; ++i) {
    expected.push_back({static_cast<uint64_t>(i), eventText(i)});
  }
  EXPECT_EQ(server.events(STREAM), expected);
}

bool allAcknowledged(const EventForwarder& forwarder) {
  return waitUntil([&] { return forwarder.status().pendingEvents == 0; });
}

TEST(EventForwarder, EventsReachTheServerInOrderOverTcpAndTls) {
  struct Case {
    const char* name;
    bool tls;
    const char* host;
  };
  for (const Case& c : {Case{"tcp", false, "127.0.0.1"}, Case{"tls by name", true, "localhost"},
                        Case{"tls by address", true, "127.0.0.1"}}) {
    SCOPED_TRACE(c.name);
    TempDirectory directory;
    TestEventServer server(c.tls, directory.path());
    ASSERT_TRUE(server.start());
    EventForwarderConfig config = configFor(directory, server.port());
    config.host = c.host;
    config.tls = c.tls;
    config.caFile = server.certificateFile();
    EventForwarder forwarder(config);
    ASSERT_TRUE(forwarder.ready());
    submitRange(forwarder, 1, 200);
    ASSERT_TRUE(server.waitForEvents(STREAM, 200)) << forwarder.status().lastError;
    ASSERT_TRUE(allAcknowledged(forwarder));
    expectHeld(server, 1, 200);
    const EventForwarderStatus status = forwarder.status();
    EXPECT_EQ(status.submitted, 200u);
    EXPECT_EQ(status.sent, 200u);
    EXPECT_EQ(status.acknowledged, 200u);
    EXPECT_EQ(status.dropped, 0u);
    EXPECT_EQ(status.reconnects, 0u);
    EXPECT_TRUE(status.connected);
    EXPECT_EQ(server.duplicates(STREAM), 0u);
  }
}

TEST(EventForwarder, RefusesAServerWhoseCertificateIsNotTrustedForTheName) {
  struct Case {
    const char* name;
    const char* certificateIp;  // in the server's certificate besides "localhost"
    bool otherAuthority;        // the CA file holds another certificate
    const char* host;
  };
  for (const Case& c : {Case{"unknown authority", "127.0.0.1", true, "127.0.0.1"},
                        Case{"address not in the certificate", "", false, "127.0.0.1"}}) {
    SCOPED_TRACE(c.name);
    TempDirectory directory;
    TestEventServer server(true, directory.path(), c.certificateIp);
    ASSERT_TRUE(server.start());
    EventForwarderConfig config = configFor(directory, server.port());
    config.host = c.host;
    config.tls = true;
    config.caFile = server.certificateFile();
    if (c.otherAuthority) {
      std::string certificate;
      std::string key;
      ASSERT_TRUE(testing::makeSelfSignedCertificate("localhost", "127.0.0.1", &certificate, &key));
      config.caFile = directory.file("other-ca.pem");
      std::ofstream(config.caFile) << certificate;
    }
    EventForwarder forwarder(config);
    forwarder.submit("secret");
    ASSERT_TRUE(waitUntil([&] { return forwarder.status().reconnects >= 2; }));
    EXPECT_NE(forwarder.status().lastError.find("certificate is not trusted"), std::string::npos)
        << forwarder.status().lastError;
    EXPECT_TRUE(server.events(STREAM).empty());
  }
}

TEST(EventForwarder, EventsWrittenWhileTheServerIsDownArriveWhenItIsBack) {
  for (const bool keepStore : {true, false}) {
    SCOPED_TRACE(keepStore ? "server keeps its store" : "server forgets its store");
    TempDirectory directory;
    TestEventServer server;
    ASSERT_TRUE(server.start());
    EventForwarder forwarder(configFor(directory, server.port()));
    submitRange(forwarder, 1, 40);
    ASSERT_TRUE(allAcknowledged(forwarder));
    server.stop(keepStore);
    submitRange(forwarder, 41, 100);
    ASSERT_TRUE(waitUntil([&] { return forwarder.status().reconnects >= 2; }));
    EXPECT_FALSE(forwarder.status().connected);
    EXPECT_EQ(forwarder.status().pendingEvents, 60u);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(allAcknowledged(forwarder)) << forwarder.status().lastError;
    if (keepStore) {
      expectHeld(server, 1, 100);
      EXPECT_EQ(server.duplicates(STREAM), 0u);
    } else {
      // A server without memory gets every event not acknowledged before, and what
      // the spool still held of the acknowledged ones: the at-least-once window.
      const std::vector<ServerEvent> held = server.events(STREAM);
      ASSERT_FALSE(held.empty());
      const int first = static_cast<int>(held.front().seq);
      EXPECT_LE(first, 41);
      expectHeld(server, first, 100);
    }
    EXPECT_EQ(forwarder.status().dropped, 0u);
  }
}

TEST(EventForwarder, AnAgentRestartOnTheSameSpoolResumesWithoutLossOrDuplicates) {
  for (const bool serverUpBefore : {true, false}) {
    SCOPED_TRACE(serverUpBefore ? "server up in the first life" : "server down in the first life");
    TempDirectory directory;
    TestEventServer server;
    ASSERT_TRUE(server.start());
    const EventForwarderConfig config = configFor(directory, server.port());
    if (!serverUpBefore) {
      server.stop();
    }
    {
      EventForwarder first(config);
      submitRange(first, 1, 30);
      if (serverUpBefore) {
        ASSERT_TRUE(allAcknowledged(first));
        server.stop();  // what follows is spooled only
      }
      submitRange(first, 31, 50);
    }
    EventForwarder second(config);
    submitRange(second, 51, 80);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(allAcknowledged(second)) << second.status().lastError;
    expectHeld(server, 1, 80);
    EXPECT_EQ(server.duplicates(STREAM), 0u);
    EXPECT_EQ(second.status().acknowledged, serverUpBefore ? 50u : 80u);
  }
}

TEST(EventForwarder, AFullSpoolDropsItsOldestSegmentAndCountsIt) {
  TempDirectory directory;
  TestEventServer server;
  ASSERT_TRUE(server.start());
  const int port = server.port();
  server.stop();
  EventForwarderConfig config = configFor(directory, port);
  config.spoolMaxBytes = 8192;
  EventForwarder forwarder(config);
  submitRange(forwarder, 1, 500);
  const EventForwarderStatus before = forwarder.status();
  EXPECT_GT(before.dropped, 0u);
  EXPECT_LE(before.spoolBytes, 8192u);
  EXPECT_EQ(before.pendingEvents + before.dropped, 500u);
  ASSERT_TRUE(server.start());
  ASSERT_TRUE(allAcknowledged(forwarder));
  // The newest events arrive, in order, numbered as they were submitted.
  expectHeld(server, static_cast<int>(before.dropped) + 1, 500);
}

TEST(EventForwarder, ATornRecordAtTheEndOfTheSpoolIsIgnored) {
  TempDirectory directory;
  TestEventServer server;
  ASSERT_TRUE(server.start());
  const EventForwarderConfig config = configFor(directory, server.port());
  server.stop();
  {
    EventForwarder first(config);
    submitRange(first, 1, 10);
  }
  // A crash in the middle of writing event 11.
  const std::string segment = config.spoolDirectory + "/" + STREAM + "-1.seg";
  std::ofstream(segment, std::ios::app) << "11 40\nevent 11\nsec";
  EventForwarder second(config);
  submitRange(second, 11, 15);
  ASSERT_TRUE(server.start());
  ASSERT_TRUE(allAcknowledged(second));
  expectHeld(server, 1, 15);
}

TEST(EventForwarder, KeepsEventsUntilAcknowledgedAndResumesAfterLostAcknowledgements) {
  struct Case {
    const char* name;
    bool dropAcks;
    std::chrono::milliseconds ackDelay;
  };
  for (const Case& c : {Case{"acknowledgements lost", true, 0ms},
                        Case{"acknowledgements late", false, 400ms}}) {
    SCOPED_TRACE(c.name);
    TempDirectory directory;
    TestEventServer server;
    server.setMode(c.dropAcks ? TestEventServer::Mode::DROP_ACKS : TestEventServer::Mode::NORMAL);
    server.setAckDelay(c.ackDelay);
    ASSERT_TRUE(server.start());
    EventForwarderConfig config = configFor(directory, server.port());
    config.ioTimeout = c.dropAcks ? 200ms : 5000ms;
    EventForwarder forwarder(config);
    submitRange(forwarder, 1, 20);
    ASSERT_TRUE(server.waitForEvents(STREAM, 20));
    // Received is not acknowledged: the spool keeps them.
    EXPECT_EQ(forwarder.status().pendingEvents, 20u);
    EXPECT_EQ(forwarder.status().acknowledged, 0u);
    if (c.dropAcks) {
      // No acknowledgement: the forwarder gives the connection up and asks again.
      ASSERT_TRUE(waitUntil([&] { return server.connections() >= 2; }));
      server.setMode(TestEventServer::Mode::NORMAL);
    }
    ASSERT_TRUE(allAcknowledged(forwarder));
    expectHeld(server, 1, 20);
    EXPECT_EQ(server.duplicates(STREAM), 0u);
    EXPECT_EQ(forwarder.status().acknowledged, 20u);
    if (c.dropAcks) {
      EXPECT_NE(forwarder.status().lastError.find("no acknowledgement"), std::string::npos);
    } else {
      EXPECT_EQ(server.connections(), 1u);
    }
  }
}

TEST(EventForwarder, NumbersOnFromAServerThatHoldsMoreThanTheSpool) {
  TempDirectory directory;
  TestEventServer server;
  server.preload(STREAM, 1000);  // a spool lost after the server had 1000 events
  const EventForwarderConfig config = configFor(directory, 0);
  ASSERT_TRUE(server.start());
  EventForwarderConfig withPort = config;
  withPort.port = server.port();
  server.stop();
  EventForwarder forwarder(withPort);
  forwarder.submit("first");
  forwarder.submit("second");
  ASSERT_TRUE(server.start());
  ASSERT_TRUE(allAcknowledged(forwarder));
  forwarder.submit("third");
  ASSERT_TRUE(allAcknowledged(forwarder));
  EXPECT_EQ(server.events(STREAM),
            (std::vector<ServerEvent>{{1001, "first"}, {1002, "second"}, {1003, "third"}}));
}

TEST(EventForwarder, StopsPromptlyWhateverTheServerDoes) {
  for (const auto mode : {TestEventServer::Mode::HANG, TestEventServer::Mode::STALL}) {
    SCOPED_TRACE(mode == TestEventServer::Mode::HANG ? "never answers" : "stops reading");
    TempDirectory directory;
    TestEventServer server;
    server.setMode(mode);
    ASSERT_TRUE(server.start());
    EventForwarderConfig config = configFor(directory, server.port());
    config.connectTimeout = 60s;
    config.ioTimeout = 60s;
    auto forwarder = std::make_unique<EventForwarder>(config);
    // Enough to fill the socket buffers of a server that does not read.
    const std::string big(64 * 1024, 'b');
    for (int i = 0; i < 100; ++i) {
      forwarder->submit(big);
    }
    ASSERT_TRUE(waitUntil([&] { return server.connections() >= 1; }));
    if (mode == TestEventServer::Mode::STALL) {
      ASSERT_TRUE(waitUntil([&] { return forwarder->status().connected; }));
    }
    std::this_thread::sleep_for(100ms);  // let it get stuck
    const auto start = testing::SteadyClock::now();
    forwarder->stop();
    EXPECT_LT(testing::secondsSince(start), 1.5);
    EXPECT_EQ(forwarder->status().acknowledged, 0u);
    forwarder.reset();
    server.stop();
  }
}

TEST(EventForwarder, WithoutAUsableSpoolEveryEventIsDropped) {
  TempDirectory directory;
  std::ofstream(directory.file("file")) << "not a directory";
  EventForwarderConfig config = configFor(directory, 1);
  config.spoolDirectory = directory.file("file");
  EventForwarder forwarder(config);
  EXPECT_FALSE(forwarder.ready());
  EXPECT_FALSE(forwarder.submit("lost"));
  const EventForwarderStatus status = forwarder.status();
  EXPECT_EQ(status.dropped, 1u);
  EXPECT_NE(status.lastError.find("spool directory"), std::string::npos) << status.lastError;
}

}  // namespace
}  // namespace XRV::forward
