#pragma once

// xrvctl events: the event rows a running agent keeps (GET /api/v1/events), and with
// --follow those that come after, as they come (GET /api/v1/events/stream).

#include <iosfwd>
#include <string>

#include "AgentClient.h"

struct EventsOptions {
  std::string url = DEFAULT_AGENT_URL;
  std::string group;  // empty: every group
  bool follow = false;
  std::string format = "table";  // or "json": one object per line
};

// Prints the events to `out`, problems to `err`. Without --follow: 0, or 1 when the
// agent cannot be reached or refuses. With --follow it runs until it is interrupted,
// reconnecting where it left off when the connection is lost; 1 when the first
// connection fails or the agent refuses the stream.
int runEvents(const EventsOptions& options, std::ostream& out, std::ostream& err);
