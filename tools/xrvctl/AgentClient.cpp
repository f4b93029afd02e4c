#include "AgentClient.h"

#include <httplib.h>

#include <ostream>

AgentClient::AgentClient(const std::string& url)
    : url_(url), client_(std::make_unique<httplib::Client>(url)) {
  client_->set_connection_timeout(5, 0);
  client_->set_read_timeout(120, 0);  // a sample may run scripts
}

AgentClient::~AgentClient() = default;

AgentReply AgentClient::answer(bool ok, int status, std::string body, const char* why) {
  AgentReply reply;
  if (ok) {
    reply.status = status;
    reply.body = std::move(body);
  } else {
    reply.failure = why;
  }
  return reply;
}

AgentReply AgentClient::get(const std::string& path) {
  if (!client_->is_valid()) {
    return answer(false, 0, "", "not a usable URL");
  }
  httplib::Result result = client_->Get(path);
  return result ? answer(true, result->status, result->body, "")
                : answer(false, 0, "", httplib::to_string(result.error()).c_str());
}

std::optional<nlohmann::ordered_json> AgentClient::getList(const std::string& path,
                                                           const char* list, const char* command,
                                                           std::ostream& err) {
  const AgentReply reply = get(path);
  if (reply.status != 200) {
    err << "xrvctl " << command << ": " << describeFailure(reply, url_) << "\n";
    return std::nullopt;
  }
  nlohmann::ordered_json answer = nlohmann::ordered_json::parse(reply.body, nullptr, false);
  if (!answer.is_object() || !answer.contains(list) || !answer[list].is_array()) {
    err << "xrvctl " << command << ": the agent at " << url_ << " answered something else than "
        << list << "\n";
    return std::nullopt;
  }
  return answer;
}

AgentReply AgentClient::post(const std::string& path, const std::string& token) {
  if (!client_->is_valid()) {
    return answer(false, 0, "", "not a usable URL");
  }
  httplib::Headers headers;
  if (!token.empty()) {
    headers.emplace("Authorization", "Bearer " + token);
  }
  httplib::Result result = client_->Post(path, headers, "", "text/plain");
  return result ? answer(true, result->status, result->body, "")
                : answer(false, 0, "", httplib::to_string(result.error()).c_str());
}

AgentReply AgentClient::stream(const std::string& path, const std::string& lastEventId,
                               int readTimeoutSeconds,
                               const std::function<bool(const char*, size_t)>& receive) {
  if (!client_->is_valid()) {
    return answer(false, 0, "", "not a usable URL");
  }
  httplib::Headers headers{{"Accept", "text/event-stream"}};
  if (!lastEventId.empty()) {
    headers.emplace("Last-Event-ID", lastEventId);
  }
  int status = 0;
  std::string refusal;
  client_->set_read_timeout(readTimeoutSeconds, 0);
  httplib::Result result = client_->Get(
      path, headers,
      [&status](const httplib::Response& response) {
        status = response.status;
        return true;
      },
      [&](const char* data, size_t length) {
        if (status != 200) {
          refusal.append(data, length);
          return true;
        }
        return receive(data, length);
      });
  client_->set_read_timeout(120, 0);
  if (result) {
    return answer(true, result->status, status == 200 ? "" : refusal, "");
  }
  AgentReply reply = answer(false, 0, "", httplib::to_string(result.error()).c_str());
  reply.status = status;  // the stream was answered, then broke off
  return reply;
}

std::string describeFailure(const AgentReply& reply, const std::string& url) {
  if (reply.status == 0) {
    return "no answer from the agent at " + url + " (" + reply.failure + " error)";
  }
  const nlohmann::json body = nlohmann::json::parse(reply.body, nullptr, false);
  if (body.is_object() && body.contains("error") && body["error"].is_string()) {
    return body["error"].get<std::string>() + " (HTTP " + std::to_string(reply.status) + ")";
  }
  return "HTTP " + std::to_string(reply.status) + ": " + reply.body;
}

std::string percentEncode(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  for (unsigned char c : text) {
    if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' || c == ':') {
      encoded.push_back(static_cast<char>(c));
    } else {
      encoded.push_back('%');
      encoded.push_back(kHex[c >> 4]);
      encoded.push_back(kHex[c & 0xF]);
    }
  }
  return encoded;
}
