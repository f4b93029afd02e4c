#pragma once

// xrvctl sample: reads an agent definition as the agent does, builds its data
// providers and table servers in this process, takes one demand sample of each
// attribute group asked for (all of them by default) through the same table servers
// the agent uses, prints the rows and exits.

#include <iosfwd>
#include <string>
#include <vector>

struct SampleOptions {
  std::string definition;           // path of the agent definition
  std::vector<std::string> groups;  // attribute group (or table) names; empty: all
  std::string format = "table";     // "table", "json" or "csv"
};

// Writes the rows to `out`, problems to `err`. Returns the exit status: 0 when every
// group asked for was sampled; 1 when the configuration or definition cannot be
// read, a group is unknown or has no data source.
int runSample(const SampleOptions& options, std::ostream& out, std::ostream& err);
