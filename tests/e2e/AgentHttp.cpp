#include "AgentHttp.h"

#include <httplib.h>

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

}  // namespace XRV::e2e
