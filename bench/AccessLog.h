#pragma once

// The access log the log engine's benchmarks read: generated combined-log lines (a web
// server's access log, about 114 bytes a line) and the three filters they run on it.
// The same seed gives the same lines, so every side of a comparison reads the same text.

#include <cstddef>
#include <functional>
#include <string_view>

namespace xrvlog::bench {

// The filters, in Perl syntax, each with capture groups: an access-log line (host,
// time, request, status, size), an error-log line and a syslog line. Every generated
// line matches the first and neither of the others.
extern const char* const kAccessPattern;
extern const char* const kErrorPattern;
extern const char* const kSyslogPattern;

// Generates `lines` lines and hands them to `sink` in blocks of just under 1 MB, each
// ending at the end of a line. Returns the number of bytes generated.
std::size_t generateAccessLog(long lines, const std::function<void(std::string_view block)>& sink);

}  // namespace xrvlog::bench
