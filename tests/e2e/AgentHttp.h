#pragma once

// Reading the agent's HTTP API in end-to-end tests: one GET, a GET repeated until its
// answer is what the test waits for, and what the log monitor tests read: events, a
// group's status, and the orderly stop.

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "AgentProcess.h"

namespace XRV::e2e {

// GET `path`: the status and the parsed body (discarded when it is not JSON); status 0
// when the agent did not answer.
std::pair<int, nlohmann::json> get(const AgentProcess& agent, const std::string& path);

// Polls `path` until `ready` accepts its answer or the time is up; the last answer.
template <typename Ready>
nlohmann::json getWhen(const AgentProcess& agent, const std::string& path, Ready ready,
                       std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  nlohmann::json answer;
  do {
    answer = get(agent, path).second;
    if (ready(answer)) {
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  } while (std::chrono::steady_clock::now() < deadline);
  return answer;
}

// The managed system name of the agent's first node.
std::string originNode(const AgentProcess& agent);

// The `next` of the events of `group`: where the events not yet seen begin.
uint64_t nextEvent(const AgentProcess& agent, const std::string& group);

// The events of `group` from `since` on, once there are `count` of them (or the time
// is up): whatever the ring holds then.
nlohmann::json eventsOf(const AgentProcess& agent, const std::string& group, uint64_t since,
                        size_t count,
                        std::chrono::milliseconds timeout = std::chrono::seconds(10));

// The value of `attribute` in the row of every event of `events`.
template <typename T>
std::vector<T> column(const nlohmann::json& events, const std::string& attribute) {
  std::vector<T> values;
  for (const nlohmann::json& event : events) {
    values.push_back(event["row"][attribute].get<T>());
  }
  return values;
}

// The Performance_Object_Status row of `group` (of subnode `key`), once its error code
// is `code` (or the time is up); null when it has none.
nlohmann::json statusOnce(const AgentProcess& agent, const std::string& group,
                          const std::string& code, const std::string& key = "",
                          std::chrono::milliseconds timeout = std::chrono::seconds(15));

// Stops the agent the orderly way (POST /api/v1/shutdown with `token`, the agent's
// XRV_ADMIN_TOKEN) and waits until it ended with status 0; false, with the reason in
// *why, when it did not.
bool stopAgent(AgentProcess& agent, const std::string& token, std::string* why);

}  // namespace XRV::e2e
