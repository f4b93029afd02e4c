#include "EventsCommand.h"

#include <algorithm>
#include <chrono>
#include <ostream>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "ServerSentEvents.h"

namespace {

using ordered_json = nlohmann::ordered_json;

// Events per page of GET /api/v1/events (the agent's default): a shorter page is the
// last.
constexpr size_t kPage = 1000;
// Three keep-alive intervals of the agent without a byte: the connection is gone.
constexpr int kStreamSilenceSeconds = 45;
constexpr int kMaxRetrySeconds = 10;

std::string dump(const ordered_json& value) {
  return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

// A row value for the table: texts as they are unless they would not read as one
// word, then quoted.
std::string cellText(const ordered_json& value) {
  if (!value.is_string()) {
    return dump(value);
  }
  const std::string text = value.get<std::string>();
  const bool plain = !text.empty() && text.find_first_of(" \t\r\n\"=") == std::string::npos;
  return plain ? text : dump(value);
}

// Prints events one line each: a table with a header for people (columns widen as
// wider values come), or the agent's JSON objects.
class EventPrinter {
 public:
  EventPrinter(std::ostream& out, bool json) : out_(out), json_(json) {}

  // Widens the table for `events` before any is printed.
  void fit(const std::vector<ordered_json>& events) {
    for (const ordered_json& event : events) {
      widen(event);
    }
  }

  void event(const ordered_json& event) {
    if (json_) {
      out_ << dump(event) << std::endl;
      return;
    }
    widen(event);
    header();
    std::string row;
    if (event.value("continuation", false)) {
      row = "+";
    }
    if (event.contains("row") && event["row"].is_object()) {
      for (const auto& [name, value] : event["row"].items()) {
        if (name != "ORIGINNODE") {
          row += (row.empty() ? "" : "  ") + name + "=" + cellText(value);
        }
      }
    }
    line({event.contains("seq") ? dump(event["seq"]) : "", event.value("time", ""),
          event.value("group", ""), event.value("node", ""), row});
  }

  void missed(uint64_t count) {
    if (json_) {
      out_ << dump(ordered_json{{"missed", count}}) << std::endl;
      return;
    }
    header();
    out_ << "... " << count << (count == 1 ? " event" : " events")
         << " missed: the agent no longer holds them" << std::endl;
  }

 private:
  void widen(const ordered_json& event) {
    const std::string cells[] = {event.contains("seq") ? dump(event["seq"]) : "",
                                 event.value("time", ""), event.value("group", ""),
                                 event.value("node", "")};
    for (size_t c = 0; c < 4; ++c) {
      width_[c] = std::max(width_[c], cells[c].size());
    }
  }
  void header() {
    if (!headerDone_) {
      headerDone_ = true;
      line({"SEQ", "TIME", "GROUP", "NODE", "ROW"});
    }
  }
  void line(const std::vector<std::string>& cells) {
    out_ << std::string(width_[0] - std::min(width_[0], cells[0].size()), ' ') << cells[0];
    for (size_t c = 1; c < 4; ++c) {
      out_ << "  " << cells[c]
           << std::string(width_[c] - std::min(width_[c], cells[c].size()), ' ');
    }
    out_ << "  " << cells[4] << std::endl;
  }

  std::ostream& out_;
  const bool json_;
  bool headerDone_ = false;
  size_t width_[4] = {3, 4, 5, 4};  // the header's
};

int printHeld(const EventsOptions& options, AgentClient& agent, EventPrinter& printer,
              std::ostream& err) {
  std::vector<ordered_json> events;
  std::vector<std::pair<size_t, uint64_t>> missed;  // before events[first], how many
  uint64_t since = 0;
  for (bool first = true;; first = false) {
    std::string path = "/api/v1/events?since=" + std::to_string(since);
    if (!options.group.empty()) {
      path += "&group=" + percentEncode(options.group);
    }
    const std::optional<ordered_json> found = agent.getList(path, "events", "events", err);
    if (!found) {
      return 1;
    }
    const ordered_json& page = *found;
    // The first page starts with the oldest held: what came before is no news.
    const uint64_t dropped = page.value("dropped", uint64_t{0});
    if (!first && dropped > 0) {
      missed.emplace_back(events.size(), dropped);
    }
    for (const ordered_json& event : page["events"]) {
      events.push_back(event);
    }
    const uint64_t next = page.value("next", since);
    if (page["events"].size() < kPage || next <= since) {
      break;
    }
    since = next;
  }
  printer.fit(events);
  size_t notice = 0;
  for (size_t i = 0; i < events.size(); ++i) {
    for (; notice < missed.size() && missed[notice].first == i; ++notice) {
      printer.missed(missed[notice].second);
    }
    printer.event(events[i]);
  }
  return 0;
}

int follow(const EventsOptions& options, AgentClient& agent, EventPrinter& printer,
           std::ostream& err) {
  const std::string path = "/api/v1/events/stream" +
                           (options.group.empty() ? "" : "?group=" + percentEncode(options.group));
  std::string lastId;
  bool everConnected = false;
  int retrySeconds = 1;
  SseParser parser;
  for (;;) {
    bool received = false;
    parser.reset();
    const AgentReply reply =
        agent.stream(path, lastId, kStreamSilenceSeconds, [&](const char* data, size_t length) {
          received = true;
          parser.feed(std::string_view(data, length), [&](const SseMessage& message) {
            if (message.hasId) {
              lastId = message.id;
            }
            const ordered_json body = ordered_json::parse(message.data, nullptr, false);
            if (message.event == "missed") {
              printer.missed(body.value("missed", uint64_t{0}));
            } else if (message.event == "event" && body.is_object()) {
              printer.event(body);
            }
          });
          return true;
        });
    const bool refused =
        reply.status >= 400 && reply.status < 500 && reply.status != 408 && reply.status != 429;
    if (refused || (!everConnected && reply.status == 0)) {
      err << "xrvctl events: " << describeFailure(reply, agent.url()) << "\n";
      return 1;
    }
    if (reply.status == 200) {
      everConnected = true;
    }
    if (received) {
      retrySeconds = 1;
    }
    std::string why = describeFailure(reply, agent.url());
    if (reply.status == 200) {
      why = reply.failure.empty()
                ? "the agent at " + agent.url() + " ended the stream"
                : "the stream from " + agent.url() + " broke off (" + reply.failure + " error)";
    }
    err << "xrvctl events: " << why << "; reconnecting in " << retrySeconds << " s" << std::endl;
    std::this_thread::sleep_for(std::chrono::seconds(retrySeconds));
    retrySeconds = std::min(retrySeconds * 2, kMaxRetrySeconds);
  }
}

}  // namespace

int runEvents(const EventsOptions& options, std::ostream& out, std::ostream& err) {
  AgentClient agent(options.url);
  EventPrinter printer(out, options.format == "json");
  if (!options.follow) {
    return printHeld(options, agent, printer, err);
  }
  return follow(options, agent, printer, err);
}
