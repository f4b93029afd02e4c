// xrvctl events against an agent stand-in that misbehaves on purpose: a stream that
// breaks off, one that reports missed events, pages that lose events in between; and
// the reading of an event stream on its own.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "ServerSentEvents.h"
#include "support/Files.h"
#include "support/SpawnedProcess.h"
#include "support/Wait.h"

namespace {

using nlohmann::json;
using XRV::testing::readFile;
using XRV::testing::SpawnedProcess;

TEST(ServerSentEvents, SplitsMessagesHoweverTheBytesArrive) {
  struct Case {
    const char* name;
    std::vector<std::string> pieces;
    std::vector<std::string> expected;  // "event|id|data" per message
  };
  const Case cases[] = {
      {"one message", {"id: 7\nevent: event\ndata: {\"a\":1}\n\n"}, {"event|7|{\"a\":1}"}},
      {"split anywhere", {"id", ": 7\nev", "ent: event\ndata: x", "\n", "\n"}, {"event|7|x"}},
      {"CRLF and CR line ends",
       {"id: 1\r\ndata: a\r\n\r\nid: 2\rdata: b\r\r"},
       {"message|1|a", "message|2|b"}},
      {"a CRLF split between pieces", {"data: a\r", "\n\r", "\n"}, {"message||a"}},
      {"comments and unknown fields are skipped",
       {": keep-alive\n\nretry: 2000\n\nfoo: bar\ndata: z\n\n"},
       {"message||z"}},
      {"data lines join", {"data: one\ndata:two\n\n"}, {"message||one\ntwo"}},
      {"no data: nothing", {"id: 3\nevent: event\n\n"}, {}},
      {"an unfinished message waits", {"data: half\n"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SseParser parser;
    std::vector<std::string> got;
    for (const std::string& piece : c.pieces) {
      parser.feed(piece, [&got](const SseMessage& message) {
        got.push_back(message.event + "|" + (message.hasId ? message.id : "") + "|" + message.data);
      });
    }
    EXPECT_EQ(got, c.expected);
  }
  SseParser parser;
  int delivered = 0;
  parser.feed("data: lost", [&delivered](const SseMessage&) { ++delivered; });
  parser.reset();
  parser.feed("\n\n", [&delivered](const SseMessage&) { ++delivered; });
  EXPECT_EQ(delivered, 0) << "a message cut by a lost connection is forgotten";
}

std::string eventJson(int seq, const std::string& group, const std::string& text,
                      bool continuation = false) {
  nlohmann::ordered_json event = {
      {"seq", seq}, {"group", group}, {"node", "web01:XR"}, {"time", "2025-05-01T12:00:00.123Z"}};
  if (continuation) {
    event["continuation"] = true;
  }
  event["row"] = {{"ORIGINNODE", "web01:XR"}, {"Message", text}, {"Count", seq}};
  return event.dump();
}

std::string sseEvent(int seq, const std::string& text, bool continuation = false) {
  return "id: " + std::to_string(seq) +
         "\nevent: event\ndata: " + eventJson(seq, "Log_Errors", text, continuation) + "\n\n";
}

// The agent's event endpoints as a test tells them to behave.
class AgentStandIn {
 public:
  AgentStandIn() {
    server_.Get("/api/v1/events/stream", [this](const httplib::Request& request,
                                                httplib::Response& response) {
      if (request.get_param_value("group") == "Gone") {
        response.status = 404;
        response.set_content(R"({"error":"unknown attribute group: Gone"})", "application/json");
        return;
      }
      int connection = 0;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        lastEventIds_.push_back(request.get_header_value("Last-Event-ID"));
        groups_.push_back(request.get_param_value("group"));
        connection = static_cast<int>(lastEventIds_.size());
      }
      response.set_chunked_content_provider(
          "text/event-stream", [this, connection](size_t, httplib::DataSink& sink) {
            if (connection == 1) {
              const std::string first =
                  "retry: 2000\n\n" + sseEvent(1, "disk full") + sseEvent(2, "two words");
              sink.write(first.data(), first.size());
              return false;  // the connection breaks off
            }
            const std::string second = "id: 4\nevent: missed\ndata: {\"missed\":2}\n\n" +
                                       sseEvent(5, "again", true) + ": keep-alive\n\n";
            sink.write(second.data(), second.size());
            while (!stopping_) {
              std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            sink.done();
            return true;
          });
    });
    server_.Get("/api/v1/events", [](const httplib::Request& request, httplib::Response& response) {
      // A first page of 1000, then 5 events lost while paging, then the last 2.
      const int since = std::stoi(request.get_param_value("since"));
      std::string events;
      int next = 1001;
      int dropped = 0;
      if (since <= 1) {
        for (int seq = 1; seq <= 1000; ++seq) {
          events += (seq == 1 ? "" : ",") + eventJson(seq, "Log_Errors", "e");
        }
      } else {
        events = eventJson(1006, "Log_Errors", "late one") + "," + eventJson(1007, "Logins", "x=y");
        next = 1008;
        dropped = 5;
      }
      response.set_content("{\"events\":[" + events + "],\"next\":" + std::to_string(next) +
                               ",\"dropped\":" + std::to_string(dropped) + "}",
                           "application/json");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    XRV::testing::waitUntil([this] { return server_.is_running(); });
  }
  ~AgentStandIn() {
    stopping_ = true;
    server_.stop();
    thread_.join();
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::vector<std::string> lastEventIds() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastEventIds_;
  }
  std::vector<std::string> groups() {
    std::lock_guard<std::mutex> lock(mutex_);
    return groups_;
  }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::vector<std::string> lastEventIds_;
  std::vector<std::string> groups_;
};

TEST(XrvctlEvents, FollowReconnectsWhereItLeftOff) {
  AgentStandIn agent;
  const std::string errors = testing::TempDir() + "xrvctl-follow.err";
  {
    SpawnedProcess follow({XRVCTL, "events", "--url", agent.url(), "--follow", "--group",
                           "Log_Errors", "--format", "json"},
                          errors);
    ASSERT_TRUE(follow.started());
    const std::vector<std::string>& lines = follow.waitForLines(4, 10);
    EXPECT_EQ(follow.exitStatus(0), -1) << "still following";
    ASSERT_EQ(lines.size(), 4u) << readFile(errors);
    EXPECT_EQ(json::parse(lines[0]), json::parse(eventJson(1, "Log_Errors", "disk full")));
    EXPECT_EQ(json::parse(lines[1])["seq"], 2);
    EXPECT_EQ(lines[2], R"({"missed":2})");
    EXPECT_EQ(json::parse(lines[3]), json::parse(eventJson(5, "Log_Errors", "again", true)));
  }
  EXPECT_EQ(agent.lastEventIds(), (std::vector<std::string>{"", "2"}));
  EXPECT_EQ(agent.groups(), (std::vector<std::string>{"Log_Errors", "Log_Errors"}));
  EXPECT_NE(readFile(errors).find("broke off"), std::string::npos) << readFile(errors);
  EXPECT_NE(readFile(errors).find("reconnecting in 1 s"), std::string::npos) << readFile(errors);
}

TEST(XrvctlEvents, PrintsEveryPageAndWhatWasLostBetweenThem) {
  AgentStandIn agent;
  SpawnedProcess table({XRVCTL, "events", "--url", agent.url()});
  const std::vector<std::string>& lines = table.waitForLines(1010, 10);
  ASSERT_EQ(lines.size(), 1004u);  // a header, 1000 events, a notice, 2 events
  EXPECT_EQ(lines[0], " SEQ  TIME                      GROUP       NODE      ROW");
  EXPECT_EQ(lines[1], "   1  2025-05-01T12:00:00.123Z  Log_Errors  web01:XR  Message=e  Count=1");
  EXPECT_EQ(lines[1001], "... 5 events missed: the agent no longer holds them");
  EXPECT_EQ(
      lines[1002],
      "1006  2025-05-01T12:00:00.123Z  Log_Errors  web01:XR  Message=\"late one\"  Count=1006");
  EXPECT_EQ(lines[1003],
            "1007  2025-05-01T12:00:00.123Z  Logins      web01:XR  Message=\"x=y\"  Count=1007");
}

TEST(XrvctlEvents, AStreamTheAgentRefusesEndsTheCommand) {
  AgentStandIn agent;
  const std::string errors = testing::TempDir() + "xrvctl-refused.err";
  {
    SpawnedProcess follow({XRVCTL, "events", "--url", agent.url(), "--follow", "--group", "Gone"},
                          errors);
    EXPECT_TRUE(follow.waitForLines(1, 5).empty());
    EXPECT_EQ(follow.exitStatus(5), 1);
  }
  {
    SpawnedProcess nobody({XRVCTL, "events", "--follow", "--url", "http://127.0.0.1:1"});
    EXPECT_EQ(nobody.exitStatus(5), 1) << "no agent to follow";
  }
  EXPECT_NE(readFile(errors).find("unknown attribute group: Gone (HTTP 404)"), std::string::npos)
      << readFile(errors);
  EXPECT_EQ(readFile(errors).find("reconnecting"), std::string::npos) << readFile(errors);
}

}  // namespace
