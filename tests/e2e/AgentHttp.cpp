#include "AgentHttp.h"

#include <httplib.h>
#include <sys/wait.h>

namespace XRV::e2e {

std::pair<int, nlohmann::json> get(const AgentProcess& agent, const std::string& path) {
  httplib::Client client("127.0.0.1", agent.port());
  client.set_read_timeout(30, 0);
  httplib::Result result = client.Get(path);
  if (!result) {
    return {0, nlohmann::json()};
  }
  return {result->status, nlohmann::json::parse(result->body, nullptr, false)};
}

std::string originNode(const AgentProcess& agent) {
  const nlohmann::json nodes = get(agent, "/api/v1/nodes").second;
  return nodes.is_array() && !nodes.empty() ? nodes[0].value("msn", "") : "";
}

uint64_t nextEvent(const AgentProcess& agent, const std::string& group) {
  const nlohmann::json answer = get(agent, "/api/v1/events?group=" + group).second;
  return answer.is_object() ? answer.value("next", uint64_t{0}) : 0;
}

nlohmann::json eventsOf(const AgentProcess& agent, const std::string& group, uint64_t since,
                        size_t count, std::chrono::milliseconds timeout) {
  const nlohmann::json answer = getWhen(
      agent, "/api/v1/events?group=" + group + "&since=" + std::to_string(since),
      [count](const nlohmann::json& a) { return a.is_object() && a["events"].size() >= count; },
      timeout);
  return answer.is_object() ? answer["events"] : nlohmann::json::array();
}

nlohmann::json statusOnce(const AgentProcess& agent, const std::string& group,
                          const std::string& code, const std::string& key,
                          std::chrono::milliseconds timeout) {
  auto find = [&](const nlohmann::json& answer) {
    for (const nlohmann::json& row : answer.is_object() ? answer["rows"] : nlohmann::json::array()) {
      if (row["Query_Name"] == group && row["Subnode_Key"] == key) {
        return row;
      }
    }
    return nlohmann::json();
  };
  const nlohmann::json answer = getWhen(
      agent, "/api/v1/tables/Performance_Object_Status",
      [&](const nlohmann::json& a) { return find(a).value("Error_Code_Name", "") == code; },
      timeout);
  return find(answer);
}

bool stopAgent(AgentProcess& agent, const std::string& token, std::string* why) {
  httplib::Client client("127.0.0.1", agent.port());
  const httplib::Result stop = client.Post(
      "/api/v1/shutdown", httplib::Headers{{"Authorization", "Bearer " + token}}, "", "text/plain");
  if (!stop || stop->status != 202) {
    *why = stop ? "shutdown answered " + std::to_string(stop->status) + ": " + stop->body
                : "no answer to the shutdown request";
    return false;
  }
  int status = 0;
  if (!agent.waitForExit(std::chrono::seconds(10), &status)) {
    *why = "the agent did not end";
    return false;
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    *why = "the agent ended with wait status " + std::to_string(status);
    return false;
  }
  return true;
}

}  // namespace XRV::e2e
