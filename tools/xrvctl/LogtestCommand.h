#pragma once

// xrvctl logtest: runs one MDL definition over a log file, from its first line to its
// end, the way the log engine would, and prints every record it keeps with its
// attribute values, then how often each pattern matched. The MDL text is a file of
// its own, or the one format-file mode generates from a conf file and a format file;
// then each record also shows its event class and slots.

#include <iosfwd>
#include <string>
#include <vector>

struct LogtestOptions {
  // MDL_FILE LOG_FILE, or CONF_FILE [FORMAT_FILE] LOG_FILE (a first file ending in
  // .conf is a conf file; without FORMAT_FILE its name with .fmt for .conf).
  std::vector<std::string> files;
  bool json = false;  // one JSON object per record and one with the statistics
};

// Writes the records and statistics to `out`, problems to `err`. Returns the exit
// status: 0 when the log was read; 2 when the MDL is wrong ("FILE:line:column:
// message"), the conf or format file is, or a file cannot be read.
int runLogtest(const LogtestOptions& options, std::ostream& out, std::ostream& err);
