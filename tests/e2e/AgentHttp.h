#pragma once

// Reading the agent's HTTP API in end-to-end tests: one GET, and a GET repeated
// until its answer is what the test waits for.

#include <chrono>
#include <string>
#include <thread>
#include <utility>

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

}  // namespace XRV::e2e
