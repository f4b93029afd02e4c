// Event streams (GET /api/v1/events/stream) over real HTTP on the loopback: what a
// watching client receives, and what slow, stuck or too many clients cannot do to the
// others, to the thread adding events, or to the server's stop.

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "EventRows.h"
#include "host/AgentApi.h"
#include "host/EventStreams.h"
#include "host/HttpServer.h"
#include "support/RawConnection.h"
#include "support/Wait.h"

namespace XRV::host {
namespace {

using nlohmann::json;
using XRV::testing::RawConnection;
using XRV::testing::secondsSince;
using XRV::testing::waitUntil;
using Clock = std::chrono::steady_clock;

// One message of a stream; a comment line alone is a message too.
struct Message {
  std::string id;
  std::string event;
  std::string data;
  std::string comment;
  std::string retry;
};

// A client of an event stream over a raw connection: sends the request, decodes the
// chunked answer and splits it into messages, reading only when asked to.
class StreamClient {
 public:
  StreamClient(int port, const std::string& target, const std::string& headers = "",
               int receiveBuffer = 0)
      : connection_(port, "127.0.0.1", receiveBuffer) {
    connection_.send("GET " + target + " HTTP/1.1\r\nHost: test\r\n" + headers + "\r\n");
  }

  std::string statusLine(double seconds = 5) {
    receiveUntil(seconds, [this] { return headDone_; });
    return head_.substr(0, head_.find("\r\n"));
  }
  const std::string& head() const { return head_; }
  const std::string& body() const { return body_; }

  // The next message; none when nothing came within `seconds` or the stream ended.
  std::optional<Message> next(double seconds = 5) {
    receiveUntil(seconds, [this] { return !messages_.empty(); });
    if (messages_.empty()) {
      return std::nullopt;
    }
    Message message = messages_.front();
    messages_.pop_front();
    return message;
  }
  // The next message that is an event or a notice of missed ones.
  std::optional<Message> nextEvent(double seconds = 5) {
    const Clock::time_point start = Clock::now();
    for (;;) {
      std::optional<Message> message = next(seconds - secondsSince(start));
      if (!message || !message->event.empty()) {
        return message;
      }
    }
  }
  // Whether the answer ended (its last chunk, or the connection closed) in `seconds`.
  bool ends(double seconds) {
    receiveUntil(seconds, [] { return false; });
    return ended_ || closed_;
  }

 private:
  template <typename Done>
  void receiveUntil(double seconds, Done done) {
    const Clock::time_point start = Clock::now();
    while (!done() && !ended_ && !closed_ && secondsSince(start) < seconds) {
      raw_ += connection_.read(std::min(0.05, seconds - secondsSince(start)), &closed_, "");
      parse();
    }
  }

  void parse() {
    if (!headDone_) {
      const size_t end = raw_.find("\r\n\r\n");
      if (end == std::string::npos) {
        return;
      }
      head_ = raw_.substr(0, end + 4);
      raw_.erase(0, end + 4);
      headDone_ = true;
      chunked_ = head_.find("Transfer-Encoding: chunked") != std::string::npos;
    }
    if (!chunked_) {
      body_ += raw_;
      raw_.clear();
    }
    for (size_t eol; chunked_ && (eol = raw_.find("\r\n")) != std::string::npos;) {
      const size_t size = std::stoul(raw_.substr(0, eol), nullptr, 16);
      if (raw_.size() < eol + 2 + size + 2) {
        break;
      }
      ended_ = size == 0;
      body_ += raw_.substr(eol + 2, size);
      raw_.erase(0, eol + 2 + size + 2);
    }
    for (size_t end; (end = body_.find("\n\n", taken_)) != std::string::npos; taken_ = end + 2) {
      Message message;
      std::string block = body_.substr(taken_, end - taken_) + "\n";
      for (size_t from = 0, eol; (eol = block.find('\n', from)) != std::string::npos;
           from = eol + 1) {
        const std::string line = block.substr(from, eol - from);
        const size_t colon = line.find(':');
        const std::string field = line.substr(0, colon);
        std::string value = colon == std::string::npos ? "" : line.substr(colon + 1);
        if (!value.empty() && value[0] == ' ') {
          value.erase(0, 1);
        }
        (field.empty()      ? message.comment
         : field == "id"    ? message.id
         : field == "event" ? message.event
         : field == "data"  ? message.data
                            : message.retry) = value;
      }
      messages_.push_back(message);
    }
  }

  RawConnection connection_;
  std::string raw_;
  std::string head_;
  std::string body_;
  size_t taken_ = 0;  // of body_, split into messages
  bool headDone_ = false;
  bool chunked_ = false;
  bool ended_ = false;
  bool closed_ = false;
  std::deque<Message> messages_;
};

class EventStreamTest : public ::testing::Test {
 protected:
  void start(HttpLimits limits = {}, size_t ringSize = 1000) {
    limits.threads = 2;
    ring_ = std::make_unique<EventRing>(ringSize);
    for (const char* group : {"Alerts", "Logins"}) {
      catalog_.addGroup(testing::textGroup(group));
    }
    api_ = std::make_unique<AgentApi>(catalog_, nodes_, *ring_, audit_, "", [] {});
    server_ = std::make_unique<HttpServer>(*api_, limits);
    std::string error;
    ASSERT_TRUE(server_->bind(ListenAddress{"127.0.0.1", 0}, &error)) << error;
    server_->start();
    port_ = server_->port();
  }
  void TearDown() override {
    if (server_) {
      server_->stop();
    }
  }

  // Adds an event whose row carries `text` (padded to `size` bytes); its number.
  uint64_t add(const std::string& group, const std::string& text, size_t size = 0) {
    const CatalogGroup& entry = *catalog_.findGroup(group);
    const std::string row = testing::packTextRow(
        entry, "main:XR", text + std::string(size > text.size() ? size - text.size() : 0, '.'));
    return ring_->add(entry, 1746100800123, row.data(), row.size(), false);
  }

  json getJson(const std::string& path) {
    httplib::Client client("127.0.0.1", port_);
    httplib::Result result = client.Get(path);
    return result ? json::parse(result->body, nullptr, false) : json();
  }

  TableCatalog catalog_;
  NodeRegistry nodes_;
  AuditTrail audit_;
  std::unique_ptr<EventRing> ring_;
  std::unique_ptr<AgentApi> api_;
  std::unique_ptr<HttpServer> server_;
  int port_ = 0;
};

TEST_F(EventStreamTest, DeliversEventsInOrderWithTheirNumbersAsIds) {
  start();
  add("Alerts", "before");
  StreamClient all(port_, "/api/v1/events/stream");
  StreamClient logins(port_, "/api/v1/events/stream?group=Logins");
  ASSERT_EQ(all.statusLine(), "HTTP/1.1 200 OK");
  EXPECT_NE(all.head().find("Content-Type: text/event-stream"), std::string::npos) << all.head();
  EXPECT_NE(all.head().find("Cache-Control: no-cache"), std::string::npos) << all.head();
  EXPECT_EQ(all.next()->retry, "2000");
  add("Logins", "two\nlines \"quoted\"");
  add("Alerts", "third");
  add("Logins", "fourth");

  // Each event as GET /api/v1/events lists it, on one data line.
  const json listed = getJson("/api/v1/events");
  ASSERT_EQ(listed["events"].size(), 4u) << listed;
  for (uint64_t seq = 1; seq <= 4; ++seq) {
    SCOPED_TRACE(seq);
    std::optional<Message> message = all.nextEvent();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->id, std::to_string(seq));
    EXPECT_EQ(message->event, "event");
    EXPECT_EQ(json::parse(message->data, nullptr, false), listed["events"][seq - 1]);
  }
  for (const char* seq : {"2", "4"}) {
    std::optional<Message> message = logins.nextEvent();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->id, seq);
    EXPECT_EQ(json::parse(message->data)["group"], "Logins");
  }
  EXPECT_FALSE(all.nextEvent(0.3)) << "nothing more";
  EXPECT_FALSE(logins.nextEvent(0.1)) << "nothing more";
  // Promptly, whenever one comes.
  add("Alerts", "later");
  const Clock::time_point added = Clock::now();
  std::optional<Message> later = all.nextEvent();
  ASSERT_TRUE(later);
  EXPECT_EQ(later->id, "5");
  EXPECT_LT(secondsSince(added), 0.5);
}

TEST_F(EventStreamTest, EventsNobodyWaitsForWakeNoOneAndAStreamThatBeginsToWaitIsWoken) {
  start();
  // No stream: the pump leaves the ring's signal set, so that further adds write
  // nothing and wake no one.
  for (int i = 0; i < 100; ++i) {
    add("Alerts", "unwatched");
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  pollfd signal{ring_->addedFd(), POLLIN, 0};
  EXPECT_EQ(poll(&signal, 1, 0), 1) << "the pump took the signal of events nobody waits for";

  // Each time a stream begins to wait while the pump does not watch the ring, the next
  // event reaches it at once, not at the pump's next look (a second by default).
  uint64_t seq = 100;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    {
      StreamClient client(port_, "/api/v1/events/stream?since=" + std::to_string(seq + 1));
      ASSERT_EQ(client.statusLine(), "HTTP/1.1 200 OK");
      EXPECT_FALSE(client.nextEvent(0.1));
      seq = add("Logins", "watched");
      const Clock::time_point added = Clock::now();
      std::optional<Message> message = client.nextEvent(2);
      ASSERT_TRUE(message);
      EXPECT_EQ(message->id, std::to_string(seq));
      EXPECT_LT(secondsSince(added), 0.25);
    }
    // The stream gone, the pump stops watching at its next look.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  }
}

TEST_F(EventStreamTest, StartsWhereTheClientSaysAndRefusesWhatItCannotServe) {
  start();
  for (int i = 1; i <= 6; ++i) {
    add(i % 2 == 0 ? "Logins" : "Alerts", "event" + std::to_string(i));
  }
  struct Case {
    const char* target;
    const char* headers;
    std::vector<std::string> ids;
  };
  const Case cases[] = {
      {"/api/v1/events/stream", "Last-Event-ID: 3\r\n", {"4", "5", "6"}},
      {"/api/v1/events/stream?since=1", "Last-Event-ID: 4\r\n", {"5", "6"}},  // the header wins
      {"/api/v1/events/stream?since=5", "", {"5", "6"}},
      {"/api/v1/events/stream?group=Logins&since=3", "", {"4", "6"}},
      {"/api/v1/events/stream", "Last-Event-ID: 0\r\n", {"1", "2", "3", "4", "5", "6"}},
      {"/api/v1/events/stream", "Last-Event-ID: 6\r\n", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.target) + " " + c.headers);
    StreamClient client(port_, c.target, c.headers);
    for (const std::string& id : c.ids) {
      std::optional<Message> message = client.nextEvent();
      ASSERT_TRUE(message);
      EXPECT_EQ(message->event, "event");
      EXPECT_EQ(message->id, id);
    }
    EXPECT_FALSE(client.nextEvent(0.2)) << "exactly these";
  }

  struct Refusal {
    const char* request;
    const char* status;
    const char* error;
  };
  for (const Refusal& r : {
           Refusal{"GET /api/v1/events/stream HTTP/1.1\r\nLast-Event-ID: x7\r\n\r\n", "400",
                   "Last-Event-ID must be"},
           Refusal{"GET /api/v1/events/stream?group=Nope HTTP/1.1\r\n\r\n", "404",
                   "unknown attribute group: Nope"},
           Refusal{"GET /api/v1/events/stream?limit=3 HTTP/1.1\r\n\r\n", "400",
                   "unknown query parameter: limit"},
           Refusal{"GET /api/v1/events/stream?since=-1 HTTP/1.1\r\n\r\n", "400", "since must be"},
           Refusal{"POST /api/v1/events/stream HTTP/1.1\r\nContent-Length: 0\r\n\r\n", "405",
                   "method not allowed"},
       }) {
    SCOPED_TRACE(r.request);
    RawConnection connection(port_);
    connection.send(r.request);
    bool closed = false;
    const std::string answer = connection.read(5, &closed);
    EXPECT_EQ(answer.substr(0, 12), std::string("HTTP/1.1 ") + r.status) << answer;
    EXPECT_NE(answer.find(r.error), std::string::npos) << answer;
    EXPECT_TRUE(closed);
  }
}

TEST_F(EventStreamTest, AClientThatFellBehindTheRingIsToldHowManyItMissed) {
  start({}, 20);
  // A client that reads nothing for a while: its socket and the server's fill up
  // long before 10,000 events of 2 KB have been added, while the ring keeps 20.
  StreamClient slow(port_, "/api/v1/events/stream", "", 4096);
  ASSERT_EQ(slow.statusLine(), "HTTP/1.1 200 OK");
  constexpr uint64_t kEvents = 10000;
  for (uint64_t i = 0; i < kEvents; ++i) {
    add("Alerts", "event", 2048);
  }
  // Every event is either received or counted as missed, in order.
  uint64_t expected = 1;
  uint64_t missedNotices = 0;
  while (expected <= kEvents) {
    std::optional<Message> message = slow.nextEvent();
    ASSERT_TRUE(message) << "stream stopped before event " << expected;
    if (message->event == "missed") {
      const uint64_t missed = json::parse(message->data)["missed"];
      ASSERT_GT(missed, 0u);
      EXPECT_EQ(message->id, std::to_string(expected + missed - 1));
      expected += missed;
      ++missedNotices;
    } else {
      ASSERT_EQ(message->id, std::to_string(expected));
      ++expected;
    }
  }
  EXPECT_EQ(expected, kEvents + 1);
  EXPECT_GE(missedNotices, 1u);

  // Reconnecting far behind: told at once, then the 20 the ring holds.
  StreamClient back(port_, "/api/v1/events/stream", "Last-Event-ID: 1\r\n");
  std::optional<Message> notice = back.nextEvent();
  ASSERT_TRUE(notice);
  EXPECT_EQ(notice->event, "missed");
  EXPECT_EQ(notice->data, "{\"missed\":" + std::to_string(kEvents - 20 - 1) + "}");
  EXPECT_EQ(notice->id, std::to_string(kEvents - 20));
  for (uint64_t seq = kEvents - 19; seq <= kEvents; ++seq) {
    std::optional<Message> message = back.nextEvent();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->id, std::to_string(seq));
  }
}

TEST_F(EventStreamTest, AStuckClientHoldsUpNeitherOthersNorTheAgentAndIsDropped) {
  HttpLimits limits;
  limits.idleSeconds = 2;
  start(limits, 20000);
  StreamClient stuck(port_, "/api/v1/events/stream", "", 4096);
  ASSERT_EQ(stuck.statusLine(), "HTTP/1.1 200 OK");  // and never reads again
  // Waits for events of another group all along: idle, not stuck.
  StreamClient patient(port_, "/api/v1/events/stream?group=Logins");
  ASSERT_EQ(patient.statusLine(), "HTTP/1.1 200 OK");
  std::atomic<uint64_t> received{0};
  std::atomic<bool> inOrder{true};
  std::thread watcher([this, &received, &inOrder] {
    StreamClient client(port_, "/api/v1/events/stream");
    while (received < 10000) {
      std::optional<Message> message = client.nextEvent(10);
      if (!message || message->id != std::to_string(received + 1)) {
        inOrder = false;
        return;
      }
      ++received;
    }
  });
  ASSERT_TRUE(waitUntil([this] { return server_->eventStreams() >= 3; }));

  // 20 MB of events: the stuck client could take almost none of it.
  double slowestAdd = 0;
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < 10000; ++i) {
    const Clock::time_point before = Clock::now();
    add("Alerts", "event", 2048);
    slowestAdd = std::max(slowestAdd, secondsSince(before));
  }
  const double adding = secondsSince(start);
  EXPECT_LT(slowestAdd, 0.5) << "an add waited for a client";
  EXPECT_LT(adding, 2.0);
  // What the streams hold of their own stays within a batch each.
  EXPECT_LE(server_->eventStreamBytes(), 3 * 4 * EventStreams::kFillBytes);
  watcher.join();
  EXPECT_TRUE(inOrder) << "after " << received;
  EXPECT_EQ(received, 10000u);
  EXPECT_LE(server_->eventStreamBytes(), 3 * 4 * EventStreams::kFillBytes);

  // Nothing went out to the stuck client for the idle time-out: dropped. The
  // watcher hung up; the patient one stays.
  EXPECT_TRUE(waitUntil([this] { return server_->eventStreams() == 1; }, 6));
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  EXPECT_EQ(server_->eventStreams(), 1u) << "an idle stream outlives the idle time-out";
  add("Logins", "at last");
  std::optional<Message> message = patient.nextEvent(1);
  ASSERT_TRUE(message);
  EXPECT_EQ(message->id, "10001");
}

TEST_F(EventStreamTest, AnIdleStreamGetsAKeepAliveComment) {
  HttpLimits limits;
  limits.streamKeepAlive = std::chrono::milliseconds(200);
  start(limits);
  StreamClient client(port_, "/api/v1/events/stream");
  ASSERT_EQ(client.next()->retry, "2000");
  Clock::time_point previous = Clock::now();
  for (int i = 0; i < 3; ++i) {
    std::optional<Message> message = client.next(2);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->comment, "keep-alive");
    const double gap = secondsSince(previous);
    EXPECT_GT(gap, 0.15);
    EXPECT_LT(gap, 0.6);
    previous = Clock::now();
  }
  // An event in between is output too: the next comment waits a whole interval.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  add("Alerts", "event");
  ASSERT_EQ(client.next()->id, "1");
  const Clock::time_point afterEvent = Clock::now();
  EXPECT_EQ(client.next(2)->comment, "keep-alive");
  EXPECT_GT(secondsSince(afterEvent), 0.15);
}

TEST_F(EventStreamTest, RefusesStreamsBeyondItsLimitUntilOneCloses) {
  HttpLimits limits;
  limits.maxEventStreams = 2;
  start(limits);
  auto first = std::make_unique<StreamClient>(port_, "/api/v1/events/stream");
  StreamClient second(port_, "/api/v1/events/stream?group=Alerts");
  ASSERT_EQ(first->statusLine(), "HTTP/1.1 200 OK");
  ASSERT_EQ(second.statusLine(), "HTTP/1.1 200 OK");
  StreamClient third(port_, "/api/v1/events/stream");
  EXPECT_EQ(third.statusLine(), "HTTP/1.1 503 Service Unavailable");
  EXPECT_TRUE(third.ends(2));
  EXPECT_NE(third.body().find("XRV_HTTP_MAX_EVENT_STREAMS"), std::string::npos) << third.body();
  EXPECT_EQ(getJson("/api/v1/events")["next"], 1) << "other requests are served";

  // A client that goes away while its stream waits frees its place soon.
  first.reset();
  const Clock::time_point closed = Clock::now();
  EXPECT_TRUE(waitUntil(
      [this] { return StreamClient(port_, "/api/v1/events/stream").statusLine() == "HTTP/1.1 200 OK"; },
      5));
  EXPECT_LT(secondsSince(closed), 3.0);
}

TEST_F(EventStreamTest, StopsPromptlyWithStreamsOpen) {
  start({}, 100);
  StreamClient idle(port_, "/api/v1/events/stream");
  StreamClient filtered(port_, "/api/v1/events/stream?group=Logins");
  StreamClient stuck(port_, "/api/v1/events/stream", "", 4096);
  for (StreamClient* client : {&idle, &filtered, &stuck}) {
    ASSERT_EQ(client->statusLine(), "HTTP/1.1 200 OK");
  }
  for (int i = 0; i < 5000; ++i) {
    add("Alerts", "event", 2048);
  }
  while (idle.nextEvent(0.5)) {
  }
  ASSERT_EQ(server_->eventStreams(), 3u);
  const Clock::time_point stopping = Clock::now();
  server_->stop();
  EXPECT_LT(secondsSince(stopping), 2.0);
  EXPECT_TRUE(idle.ends(1)) << "the stream ends";
  EXPECT_TRUE(filtered.ends(1));
  EXPECT_EQ(server_->eventStreams(), 0u);
  server_.reset();
}

}  // namespace
}  // namespace XRV::host
