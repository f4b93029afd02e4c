#include "StopCommand.h"

#include <cstdlib>
#include <ostream>

#include "framework/Settings.h"

int runStop(const StopOptions& options, std::ostream& out, std::ostream& err) {
  std::string token = options.token;
  if (token.empty()) {
    token = XRV::settingText(XRV::Setting::AdminToken);
  }
  if (token.empty()) {
    err << "xrvctl stop: no token: give --token, or set XRV_ADMIN_TOKEN to the agent's\n";
    return 1;
  }
  AgentClient agent(options.url);
  const AgentReply reply = agent.post("/api/v1/shutdown", token);
  if (reply.status != 202) {
    err << "xrvctl stop: " << describeFailure(reply, agent.url()) << "\n";
    return 1;
  }
  out << "The agent at " << agent.url() << " is shutting down.\n";
  return 0;
}
