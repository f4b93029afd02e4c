#pragma once

// xrvctl stop: asks a running agent to shut down in order (POST /api/v1/shutdown).

#include <iosfwd>
#include <string>

#include "AgentClient.h"

struct StopOptions {
  std::string url = DEFAULT_AGENT_URL;
  std::string token;  // the agent's XRV_ADMIN_TOKEN; empty: taken from the environment
};

// Returns 0 when the agent accepted (it shuts down after answering), 1 otherwise.
int runStop(const StopOptions& options, std::ostream& out, std::ostream& err);
