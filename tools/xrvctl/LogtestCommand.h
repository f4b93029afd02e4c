#pragma once

// xrvctl logtest: runs one MDL definition over a log file, from its first line to its
// end, the way the log engine would, and prints every record it keeps with its
// attribute values, then how often each pattern matched.

#include <iosfwd>
#include <string>

struct LogtestOptions {
  std::string mdl;    // path of the MDL text
  std::string log;    // path of the log file
  bool json = false;  // one JSON object per record and one with the statistics
};

// Writes the records and statistics to `out`, problems to `err`. Returns the exit
// status: 0 when the log was read; 2 when the MDL is wrong ("FILE:line:column:
// message") or a file cannot be read.
int runLogtest(const LogtestOptions& options, std::ostream& out, std::ostream& err);
