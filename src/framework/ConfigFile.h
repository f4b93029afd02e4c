#pragma once

// The agent's configuration file: an INI text of [agent] and [subnode TYPE KEY]
// sections holding NAME = value lines.
//
//   # comment lines start with '#'
//   [agent]
//   CDP_DP_THREAD_POOL_SIZE = 4
//   [subnode LNX web01]
//   HOST_NAME = "web01.example.com"
//
// Blanks around names and values are dropped, and so is one pair of double quotes
// around a value. A repeated NAME in a section replaces the earlier value; a
// repeated section header continues the same section. Section keywords are matched
// without regard to case; names, TYPE and KEY are kept as written.
//
// Not thread-safe; the process-wide lookup (Configuration.h) locks around it.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace XRV {

struct ConfigSection {
  std::string type;                                         // empty for [agent]
  std::string key;                                          // empty for [agent]
  std::vector<std::pair<std::string, std::string>> values;  // in file order

  // The value of `name`, or null. Valid until the section changes.
  const std::string* find(std::string_view name) const;
  void set(std::string_view name, std::string_view value);
};

class ConfigFile {
 public:
  // Parses `text`; `fileName` names it in errors. A malformed line makes it return
  // false with "FILE:LINE: what is wrong" in *error and leaves this object empty:
  // the agent does not guess at a broken configuration.
  bool parse(std::string_view text, const std::string& fileName, std::string* error);

  const ConfigSection& agent() const { return agent_; }
  const ConfigSection* findSubnode(std::string_view type, std::string_view key) const;
  const std::vector<ConfigSection>& subnodes() const { return subnodes_; }

 private:
  // The section for TYPE KEY, created when missing. Invalidates earlier pointers to
  // subnode sections.
  ConfigSection* subnodeSection(std::string_view type, std::string_view key);

  ConfigSection agent_;
  std::vector<ConfigSection> subnodes_;  // in order of first appearance
};

}  // namespace XRV
