#pragma once

// The built-in data sources of the log monitor's status groups, made by the agent
// loader when the definition declares the group and has a log monitor group:
//
//   LogFileStatus       "Log_File_Status": one row per file the log engine follows
//                       (or per pattern that matches no file yet): its state, size,
//                       read position, last modification, lines and records.
//   LogFileRegExStats   "Log_File_RegEx_Statistics": one row per pattern the engine
//                       matches: matches, misses, limit hits and CPU time.
//
// Values are matched to the group's attributes by name (docs/status-groups.md). The
// rows come from the engine at each collection; before the engine runs, or when its
// library lacks the function, the group has no rows (and the trace says why).

#include "runtime/BuiltInStatusProvider.h"

class AttributeGroupMeta;

// What both groups share: their metrics from the group's declaration.
class LogEngineStatusGroup : public BuiltInStatusProvider {
 public:
  LogEngineStatusGroup(const char* applicationName, const char* attributeGroup,
                       AttributeGroupMeta* meta);
  void printResults() override;
};

class LogFileStatus : public LogEngineStatusGroup {
 public:
  using LogEngineStatusGroup::LogEngineStatusGroup;
  void internalCollectData(const char* subnode) override;
};

class LogFileRegExStats : public LogEngineStatusGroup {
 public:
  using LogEngineStatusGroup::LogEngineStatusGroup;
  void internalCollectData(const char* subnode) override;
};
