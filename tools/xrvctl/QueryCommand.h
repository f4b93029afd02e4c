#pragma once

// xrvctl query: one table of a running agent, sampled through its HTTP API.

#include <iosfwd>
#include <string>

#include "AgentClient.h"

struct QueryOptions {
  std::string url = DEFAULT_AGENT_URL;
  std::string group;
  std::string node;  // empty: the agent's main node
  std::string format = "table";
};

// Prints the rows to `out` as xrvctl sample would; problems go to `err`. Returns 0,
// or 1 when the agent could not be reached or refused the request.
int runQuery(const QueryOptions& options, std::ostream& out, std::ostream& err);
