// The log engine's matcher against `grep -cP` over the same generated access log.
//
// Writes N combined-log lines (default 1,000,000, about 114 MB) to a temporary file,
// then, pinned to one core: runs the matcher with three filters with captures over the
// file (reading it in 1 MB blocks, as the tailer will), runs `grep -cP` with the first
// filter's expression on the same file, and prints lines/s, MB/s and CPU seconds of
// each, the ratio, and the matcher's peak resident memory. Then the same matcher with
// the access-log filter last (every line misses two filters first), with the CPU time
// read never and on every line (to show what the statistics cost), and without JIT.
//
// Usage: logmatch_bench [LINES]
#include "AccessLog.h"
#include "match/Matcher.h"

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace {

// Returns the number of bytes written.
std::size_t generate(int fd, long lines) {
  return xrvlog::bench::generateAccessLog(lines, [fd](std::string_view block) {
    if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) {
      std::perror("write");
      std::exit(1);
    }
  });
}

double thread_cpu_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Run {
  double seconds = 0;
  double cpu_seconds = 0;
  long lines = 0;
  long matched = 0;
};

Run run_matcher(const std::string& path, const std::vector<xrvlog::PatternSpec>& filters,
                uint32_t sample_period, std::vector<xrvlog::PatternStats>* stats = nullptr,
                bool jit = true) {
  xrvlog::MatchLimits limits;
  limits.cpu_sample_period = sample_period;
  limits.use_jit = jit;
  xrvlog::Matcher matcher(xrvlog::PatternSet::compile(filters, limits));
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
  std::vector<char> block(1 << 20);
  std::size_t held = 0;  // a partial line carried to the next block
  Run run;
  std::size_t field_bytes = 0;
  const auto start = std::chrono::steady_clock::now();
  const double cpu_start = thread_cpu_seconds();
  for (;;) {
    ssize_t got = read(fd, block.data() + held, block.size() - held);
    if (got <= 0) break;
    const char* begin = block.data();
    const char* end = block.data() + held + got;
    while (const char* newline = static_cast<const char*>(std::memchr(begin, '\n', end - begin))) {
      const xrvlog::MatchResult& result = matcher.match(std::string_view(begin, newline - begin));
      ++run.lines;
      if (result.matched()) {
        ++run.matched;
        for (std::string_view field : result.fields) field_bytes += field.size();
      }
      begin = newline + 1;
    }
    held = end - begin;
    std::memmove(block.data(), begin, held);
  }
  run.cpu_seconds = thread_cpu_seconds() - cpu_start;
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  close(fd);
  if (field_bytes == 0 && run.matched > 0) std::fprintf(stderr, "no field captured\n");
  if (stats != nullptr) *stats = matcher.stats();
  return run;
}

Run run_grep(const std::string& path) {
  int out[2];
  if (pipe(out) != 0) std::exit(1);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::vector<std::string> env_text;
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "LC_", 3) != 0 && std::strncmp(*e, "LANG", 4) != 0)
      env_text.emplace_back(*e);
  }
  // The matcher treats lines as UTF-8; so does grep in a UTF-8 locale.
  env_text.emplace_back("LC_ALL=C.UTF-8");
  std::vector<char*> env;
  for (std::string& e : env_text) env.push_back(e.data());
  env.push_back(nullptr);
  std::string pattern = xrvlog::bench::kAccessPattern;
  char grep[] = "grep";
  char option[] = "-cP";
  char* argv[] = {grep, option, pattern.data(), const_cast<char*>(path.c_str()), nullptr};
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  if (posix_spawnp(&pid, "grep", &actions, nullptr, argv, env.data()) != 0) {
    std::perror("grep");
    std::exit(1);
  }
  close(out[1]);
  char count[64] = {};
  ssize_t got = read(out[0], count, sizeof count - 1);
  close(out[0]);
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  Run run;
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.cpu_seconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                    static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
  run.matched = got > 0 ? std::atol(count) : -1;
  posix_spawn_file_actions_destroy(&actions);
  return run;
}

void print(const char* name, const Run& run, long lines, std::size_t bytes) {
  std::printf(
      "%-34s %12.0f %10.1f %9.3f %9.3f %9ld\n", name, static_cast<double>(lines) / run.seconds,
      static_cast<double>(bytes) / run.seconds / 1e6, run.seconds, run.cpu_seconds, run.matched);
}

}  // namespace

int main(int argc, char** argv) {
  const long lines = argc > 1 ? std::atol(argv[1]) : 1'000'000;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(0, &one);
  const bool pinned = sched_setaffinity(0, sizeof one, &one) == 0;  // grep inherits it

  char path[] = "/tmp/logmatch_bench.XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) {
    std::perror("mkstemp");
    return 1;
  }
  const std::size_t bytes = generate(fd, lines);
  close(fd);

  using xrvlog::FieldSpec;
  using xrvlog::PatternKind;
  using xrvlog::PatternSpec;
  const PatternSpec access{
      PatternKind::Scan,
      xrvlog::bench::kAccessPattern,
      {{"host", "1"}, {"time", "2"}, {"request", "3"}, {"status", "4"}, {"size", "5"}},
      {}};
  const PatternSpec error{PatternKind::Scan,
                          xrvlog::bench::kErrorPattern,
                          {{"time", "time"}, {"level", "level"}, {"message", "message"}},
                          {}};
  const PatternSpec syslog{PatternKind::Scan,
                           xrvlog::bench::kSyslogPattern,
                           {{"time", "1"}, {"host", "2"}, {"program", "3"}, {"message", "4"}},
                           {}};
  const std::vector<PatternSpec> filters = {access, error, syslog};
  const std::vector<PatternSpec> access_last = {error, syslog, access};

  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  std::vector<xrvlog::PatternStats> stats;
  const Run ours = run_matcher(path, filters, 64, &stats);
  rusage after{};
  getrusage(RUSAGE_SELF, &after);
  const Run grep = run_grep(path);
  const Run last = run_matcher(path, access_last, 64);
  const Run no_cpu = run_matcher(path, filters, 0);
  const Run every_cpu = run_matcher(path, filters, 1);
  const Run interpreter = run_matcher(path, filters, 64, nullptr, false);
  unlink(path);

  std::printf("%ld lines, %.1f MB, %s, %s\n", lines, static_cast<double>(bytes) / 1e6,
              xrvlog::PatternSet::compile({access})->status().c_str(),
              pinned ? "pinned to CPU 0" : "not pinned");
  std::printf("%-34s %12s %10s %9s %9s %9s\n", "", "lines/s", "MB/s", "wall s", "CPU s", "matched");
  print("matcher, 3 filters (access first)", ours, ours.lines, bytes);
  print("grep -cP, access filter", grep, lines, bytes);
  std::printf("%-34s %12.2f\n", "ratio matcher / grep (lines/s)", grep.seconds / ours.seconds);
  std::printf("%-34s %12ld KB (%ld KB before the run)\n", "matcher peak RSS", after.ru_maxrss,
              before.ru_maxrss);
  print("matcher, access filter last", last, last.lines, bytes);
  print("matcher, CPU time never read", no_cpu, no_cpu.lines, bytes);
  print("matcher, CPU time every line", every_cpu, every_cpu.lines, bytes);
  print("matcher, interpreter (no JIT)", interpreter, interpreter.lines, bytes);
  std::printf("%-34s %12.3f s of the run's %.3f CPU s\n", "access filter CPU, 1 line in 64",
              static_cast<double>(stats[0].cpu_ns) * 1e-9, ours.cpu_seconds);
  return ours.matched == grep.matched ? 0 : 2;
}
