#pragma once

// How xrvctl talks to a running agent: its HTTP API at a base URL such as
// http://127.0.0.1:9310 (the agent's default).

#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace httplib {
class Client;
}

inline constexpr const char* DEFAULT_AGENT_URL = "http://127.0.0.1:9310";

struct AgentReply {
  int status = 0;  // HTTP status; 0 when there was no answer
  std::string body;
  std::string failure;  // why there was no answer
};

class AgentClient {
 public:
  explicit AgentClient(const std::string& url);
  ~AgentClient();

  AgentReply get(const std::string& path);
  // A POST without a body; `token` empty: no Authorization header.
  AgentReply post(const std::string& path, const std::string& token);
  // GET `path` as a stream: with status 200, `receive` gets the body piece by piece
  // as it arrives (false: hang up); another status leaves the body in the reply.
  // `lastEventId` non-empty: sent as Last-Event-ID. The reply's failure says why a
  // stream ended other than by the agent (nothing arrived for `readTimeoutSeconds`,
  // the connection broke).
  AgentReply stream(const std::string& path, const std::string& lastEventId, int readTimeoutSeconds,
                    const std::function<bool(const char*, size_t)>& receive);

  // GET `path` answered by a JSON object with the array `list`; otherwise nothing,
  // and why on `err` as "xrvctl COMMAND: ...".
  std::optional<nlohmann::ordered_json> getList(const std::string& path, const char* list,
                                                const char* command, std::ostream& err);

  const std::string& url() const { return url_; }

 private:
  AgentReply answer(bool ok, int status, std::string body, const char* why);

  std::string url_;
  std::unique_ptr<httplib::Client> client_;
};

// What went wrong, for a person: the transport failure, the "error" of a JSON error
// answer, or the status and body.
std::string describeFailure(const AgentReply& reply, const std::string& url);

// `text` percent-encoded for a URL path segment or query value.
std::string percentEncode(const std::string& text);
