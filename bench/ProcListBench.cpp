// A full snapshot of the process table by ProcList, and its peers run the same way,
// for bench/process-compare:
//
//   proclist_bench snapshot ROUNDS
//   proclist_bench command ROUNDS -- PROGRAM [ARGS...]
//   proclist_bench collectd CYCLES -- PROGRAM [ARGS...]
//
// snapshot: a ProcList of every process with every file (stat, statm, status, io and
// cmdline), taken once to warm up (its buffers grow to the process count) and then
// ROUNDS times: the wall-clock and the CPU time (of the whole process: the walker
// threads included) of each refresh, and the allocations of each, counted at malloc.
//
// command: PROGRAM (ps) run ROUNDS times with its standard output on a pipe that
// this program reads: wall-clock time from fork to its end, its CPU time (user +
// system, from wait4), and its output lines less a header as the process count.
//
// collectd: PROGRAM (collectd in the foreground, its csv plugin writing to standard
// output, line-buffered) with its processes plugin reading every process. Each read
// cycle ends with a "processes-.../ps_count" line; after the first cycle the program
// takes collectd's CPU time (its threads' time on a processor) at the end of each of
// CYCLES more. It is sent SIGTERM afterwards.
//
// Each prints one line of key=value pairs: the side, processes, and the median,
// lowest and highest wall-clock and CPU milliseconds (collectd: CPU only), and for
// the snapshot the allocations per refresh and per process.

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sources/process/ProcList.h"
#include "support/CountingMalloc.h"

namespace {

using Clock = std::chrono::steady_clock;
using XRV::testing::mallocCalls;

[[noreturn]] void fail(const std::string& message) {
  fprintf(stderr, "proclist_bench: %s\n", message.c_str());
  exit(2);
}

double millisSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double cpuMillis(const rusage& usage) {
  return (static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)) * 1e3 +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

double processCpuMillis() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return cpuMillis(usage);
}

struct Spread {
  double median = 0;
  double low = 0;
  double high = 0;
};

Spread spread(std::vector<double> values) {
  if (values.empty()) {
    return {};
  }
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  const double median = n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
  return Spread{median, values.front(), values.back()};
}

void print(const char* side, long processes, const std::vector<double>& wall,
           const std::vector<double>& cpu, const std::string& extra) {
  const Spread w = spread(wall);
  const Spread c = spread(cpu);
  printf("%s processes=%ld wall_ms=%.3f wall_low=%.3f wall_high=%.3f cpu_ms=%.3f cpu_low=%.3f "
         "cpu_high=%.3f%s\n",
         side, processes, w.median, w.low, w.high, c.median, c.low, c.high, extra.c_str());
  fflush(stdout);
}

int runSnapshot(int rounds) {
  ProcList list(ProcList::FULL_STATUS_INFO);
  if (!list.isValid()) {
    fail("cannot read /proc");
  }
  list.refresh();  // the buffers have grown to the process count now
  std::vector<double> wall;
  std::vector<double> cpu;
  std::vector<double> allocations;
  long processes = 0;
  for (int round = 0; round < rounds; ++round) {
    const long before = mallocCalls.load();
    const double cpuBefore = processCpuMillis();
    const Clock::time_point start = Clock::now();
    list.refresh();
    wall.push_back(millisSince(start));
    cpu.push_back(processCpuMillis() - cpuBefore);
    allocations.push_back(static_cast<double>(mallocCalls.load() - before));
    processes = list.getCount();
  }
  const double perRefresh = spread(allocations).median;
  char extra[128];
  snprintf(extra, sizeof extra, " allocs=%.0f allocs_per_process=%.4f", perRefresh,
           processes > 0 ? perRefresh / static_cast<double>(processes) : 0.0);
  print("ours", processes, wall, cpu, extra);
  return 0;
}

// Runs `command` once with its standard output on a pipe: the wall-clock and CPU
// milliseconds, and the lines it printed.
void runOnce(char** command, double* wall, double* cpu, long* lines) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    fail("pipe failed");
  }
  const Clock::time_point start = Clock::now();
  const pid_t child = fork();
  if (child < 0) {
    fail("fork failed");
  }
  if (child == 0) {
    dup2(pipeFds[1], 1);
    execvp(command[0], command);
    _exit(127);
  }
  close(pipeFds[1]);
  char buffer[65536];
  ssize_t got = 0;
  *lines = 0;
  while ((got = read(pipeFds[0], buffer, sizeof buffer)) > 0) {
    *lines += std::count(buffer, buffer + got, '\n');
  }
  close(pipeFds[0]);
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  *wall = millisSince(start);
  *cpu = cpuMillis(usage);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fail(std::string(command[0]) + " failed");
  }
}

int runCommand(int rounds, char** command) {
  std::vector<double> wall;
  std::vector<double> cpu;
  long lines = 0;
  for (int round = 0; round < rounds; ++round) {
    double w = 0;
    double c = 0;
    runOnce(command, &w, &c, &lines);
    wall.push_back(w);
    cpu.push_back(c);
  }
  std::string side = command[0];
  side = side.substr(side.rfind('/') + 1);
  print(side.c_str(), lines > 0 ? lines - 1 : 0, wall, cpu, "");
  return 0;
}

// The CPU milliseconds of process `pid` so far: the sum over its threads of their
// time on a processor in /proc/PID/task/TID/schedstat (nanoseconds: the ticks of
// /proc/PID/stat are too coarse for one read cycle).
double otherCpuMillis(pid_t pid) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  DIR* directory = opendir(tasks.c_str());
  if (directory == nullptr) {
    return 0;
  }
  double nanoseconds = 0;
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] == '.') {
      continue;
    }
    FILE* in = fopen((tasks + "/" + entry->d_name + "/schedstat").c_str(), "r");
    if (in == nullptr) {
      continue;
    }
    unsigned long long onCpu = 0;
    if (fscanf(in, "%llu", &onCpu) == 1) {
      nanoseconds += static_cast<double>(onCpu);
    }
    fclose(in);
  }
  closedir(directory);
  return nanoseconds / 1e6;
}

// The process count of the next ps_count line within `seconds`, or -1.
long nextCycle(int fd, std::string* pending, int seconds) {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds);
  for (;;) {
    size_t newline;
    while ((newline = pending->find('\n')) != std::string::npos) {
      const std::string line = pending->substr(0, newline);
      pending->erase(0, newline + 1);
      const size_t at = line.find("/ps_count ");
      if (at != std::string::npos && line.find("processes-") != std::string::npos) {
        const size_t colon = line.find(':', at);
        return colon == std::string::npos ? 0 : atol(line.c_str() + colon + 1);
      }
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      return -1;
    }
    pollfd wait{fd, POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(left.count())) <= 0) {
      return -1;
    }
    char chunk[8192];
    const ssize_t got = read(fd, chunk, sizeof chunk);
    if (got <= 0) {
      return -1;
    }
    pending->append(chunk, static_cast<size_t>(got));
  }
}

int runCollectd(int cycles, char** command) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    fail("pipe failed");
  }
  const pid_t child = fork();
  if (child == 0) {
    dup2(pipeFds[1], 1);
    execvp(command[0], command);
    _exit(127);
  }
  close(pipeFds[1]);
  std::string pending;
  long processes = nextCycle(pipeFds[0], &pending, 60);
  if (processes < 0) {
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
    fail(std::string(command[0]) + " reported no process count");
  }
  std::vector<double> cpu;
  double before = otherCpuMillis(child);
  for (int cycle = 0; cycle < cycles; ++cycle) {
    processes = nextCycle(pipeFds[0], &pending, 60);
    if (processes < 0) {
      break;
    }
    const double now = otherCpuMillis(child);
    cpu.push_back(now - before);
    before = now;
  }
  kill(child, SIGTERM);
  waitpid(child, nullptr, 0);
  close(pipeFds[0]);
  if (static_cast<int>(cpu.size()) < cycles) {
    fail(std::string(command[0]) + " stopped reporting");
  }
  print("collectd", processes, {}, cpu, "");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && strcmp(argv[1], "snapshot") == 0) {
    return runSnapshot(std::max(1, atoi(argv[2])));
  }
  if (argc >= 5 && strcmp(argv[3], "--") == 0) {
    const int count = std::max(1, atoi(argv[2]));
    if (strcmp(argv[1], "command") == 0) {
      return runCommand(count, argv + 4);
    }
    if (strcmp(argv[1], "collectd") == 0) {
      return runCollectd(count, argv + 4);
    }
  }
  fprintf(stderr,
          "usage: proclist_bench snapshot ROUNDS\n"
          "       proclist_bench command ROUNDS -- PROGRAM [ARGS...]\n"
          "       proclist_bench collectd CYCLES -- PROGRAM [ARGS...]\n");
  return 2;
}
