#pragma once

// LogMonitorResultInstance: a row of a log monitor group, which remembers the log
// file (the source) its record came from, so that a sampled group can keep one
// sample per file.

#include <string>

#include "provider/ResultInstance.h"

class LogMonitorResultInstance : public ResultInstance {
 public:
  LogMonitorResultInstance(const char* source, int expectedMetricCount);

  // The path of the file the record came from, as the engine reported it.
  const char* getSource() const { return source_.c_str(); }

  // Name, values, derived values, timestamp, flags and the source. Caller deletes.
  LogMonitorResultInstance* copy() const;

 private:
  std::string source_;
};
