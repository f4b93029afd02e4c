#include "AccessLog.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace xrvlog::bench {

const char* const kAccessPattern = R"re(^(\S+) \S+ \S+ \[([^\]]+)\] "([^"]*)" (\d{3}) (\d+|-))re";
const char* const kErrorPattern = R"(^\[(?<time>[^\]]+)\] \[(?<level>\w+)\] (?<message>.*)$)";
const char* const kSyslogPattern = R"(^(\w{3} +\d+ [\d:]+) (\S+) ([^:\[]+)(?:\[\d+\])?: (.*)$)";

namespace {

struct Rng {
  uint64_t state;
  uint64_t next() {
    state += 0x9e3779b97f4a7c15u;
    uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
  }
  unsigned below(unsigned n) { return static_cast<unsigned>(next() % n); }
};

}  // namespace

std::size_t generateAccessLog(long lines, const std::function<void(std::string_view block)>& sink) {
  static const char* const methods[] = {"GET", "GET", "GET", "GET", "POST", "HEAD"};
  static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  static const char* const dirs[] = {"static", "img", "api/v1", "docs", "blog"};
  static const char* const exts[] = {"html", "png", "css", "js", "json"};
  static const int statuses[] = {200, 200, 200, 200, 200, 304, 404, 301, 500};
  static const char* const agents[] = {"Mozilla/5.0 (X11)", "curl/7.88.1", "Mozilla/5.0",
                                       "Wget/1.21"};
  static const char* const referers[] = {"-", "-", "http://ex.com/", "http://ex.com/a"};
  Rng rng{42};
  std::string buffer;
  buffer.reserve(1 << 20);
  std::size_t total = 0;
  char line[512];
  for (long i = 0; i < lines; ++i) {
    const int status = statuses[rng.below(9)];
    const unsigned size = rng.below(60000);
    char size_text[16];
    if (status == 304) {
      std::strcpy(size_text, "-");
    } else {
      std::snprintf(size_text, sizeof size_text, "%u", size);
    }
    int n = std::snprintf(
        line, sizeof line,
        "%u.%u.%u.%u - - [%02u/%s/2026:%02u:%02u:%02u +0000] \"%s /%s/%u.%s HTTP/1.1\" %d %s "
        "\"%s\" \"%s\"\n",
        10 + rng.below(200), rng.below(256), rng.below(256), rng.below(256), 1 + rng.below(28),
        months[rng.below(12)], rng.below(24), rng.below(60), rng.below(60), methods[rng.below(6)],
        dirs[rng.below(5)], rng.below(100000), exts[rng.below(5)], status, size_text,
        referers[rng.below(4)], agents[rng.below(4)]);
    buffer.append(line, static_cast<std::size_t>(n));
    if (buffer.size() > (1 << 20) - 512 || i + 1 == lines) {
      sink(buffer);
      total += buffer.size();
      buffer.clear();
    }
  }
  return total;
}

}  // namespace xrvlog::bench
