#pragma once

// How xrvctl talks to a running agent: its HTTP API at a base URL such as
// http://127.0.0.1:9310 (the agent's default).

#include <memory>
#include <string>

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
