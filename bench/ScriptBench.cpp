// Script collection against the cost of running the same command at all.
//
// For each workload the same command is run N times in two ways, interleaved in
// rounds so that both see the same machine:
//   floor: posix_spawn("/bin/sh -c 'CMD > /dev/null'") and waitpid, from this process;
//   agent: one collection of a script provider running CMD (spawn through the command
//          runner, both streams read through pipes, every line cut into a row of five
//          values, the rows merged into the provider's table).
// runner: the command runner alone (no rows).
// Prints one CSV line per workload: workload,runs,floor_ms,runner_ms,agent_ms,ratio.
//
// Usage: script_bench [RUNS]   (default 1000)

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "definition/Metric.h"
#include "framework/Trace.h"
#include "sources/command/CommandWithTimeout.h"
#include "sources/command/ShellQueryClass.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

double millisSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void runFloor(const std::string& command) {
  std::string text = command + " > /dev/null";
  const char* argv[] = {"sh", "-c", text.c_str(), nullptr};
  pid_t pid = 0;
  if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
    perror("posix_spawn");
    exit(1);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
  }
}

ShellQueryClass* makeProvider(const std::string& command) {
  auto* provider = new ShellQueryClass("XRV", "Bench", command.c_str(), " ", nullptr, true, false,
                                       false);
  const struct {
    const char* name;
    RAW_METRIC_TYPE type;
    bool key;
  } columns[] = {{"Host", STRING_DATA, true},
                 {"Index", NUMERIC_DATA, false},
                 {"Seven", NUMERIC_DATA, false},
                 {"Thirteen", NUMERIC_64BIT_DATA, false},
                 {"State", STRING_DATA, false}};
  for (const auto& column : columns) {
    auto* metric = new Metric(column.name);
    metric->setSurfName(column.name);
    metric->setRawMetricType(column.type);
    metric->setIsKey(column.key);
    provider->addMetricObject(metric);
  }
  provider->start();
  return provider;
}

struct Result {
  double floorMillis = 0;
  double runnerMillis = 0;
  double agentMillis = 0;
};

void runRunner(const std::string& command) {
  CommandWithTimeout runner(command.c_str(), 60);
  if (runner.runCommand() != 0) {
    fprintf(stderr, "%s failed\n", command.c_str());
    exit(1);
  }
}

Result measure(const std::string& command, int runs, int expectedRows) {
  ShellQueryClass* provider = makeProvider(command);
  provider->collectData(nullptr);  // warm up both paths once
  runFloor(command);
  if (provider->getResultInstanceCount() != expectedRows) {
    fprintf(stderr, "%s: %d rows, expected %d\n", command.c_str(),
            provider->getResultInstanceCount(), expectedRows);
    exit(1);
  }
  Result result;
  constexpr int kRounds = 10;
  for (int round = 0; round < kRounds; ++round) {
    int share = runs / kRounds;
    Clock::time_point start = Clock::now();
    for (int i = 0; i < share; ++i) {
      runFloor(command);
    }
    result.floorMillis += millisSince(start);
    start = Clock::now();
    for (int i = 0; i < share; ++i) {
      runRunner(command);
    }
    result.runnerMillis += millisSince(start);
    start = Clock::now();
    for (int i = 0; i < share; ++i) {
      provider->collectData(nullptr);
    }
    result.agentMillis += millisSince(start);
  }
  delete provider;
  result.floorMillis /= runs;
  result.runnerMillis /= runs;
  result.agentMillis /= runs;
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = argc > 1 ? atoi(argv[1]) : 1000;
  if (runs < 10) {
    runs = 10;
  }
  XRV::trace::configure("error");
  char directory[] = "/tmp/xrv-script-bench-XXXXXX";
  if (mkdtemp(directory) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  std::string script = std::string(directory) + "/lines.sh";
  std::ofstream(script) << "#!/bin/sh\n"
                           "i=0\n"
                           "while [ $i -lt 1000 ]; do\n"
                           "  echo \"host$i $i $((i * 7)) $((i * 13)) up\"\n"
                           "  i=$((i + 1))\n"
                           "done\n";
  chmod(script.c_str(), 0755);

  // The same rows from a file: the producer costs next to nothing, so this shows the
  // cutting of lines into rows.
  std::string rows = std::string(directory) + "/lines.txt";
  {
    std::ofstream out(rows);
    for (int i = 0; i < 1000; ++i) {
      out << "host" << i << ' ' << i << ' ' << i * 7 << ' ' << i * 13 << " up\n";
    }
  }

  printf("workload,runs,floor_ms,runner_ms,agent_ms,ratio\n");
  const struct {
    const char* name;
    std::string command;
    int rows;
  } workloads[] = {{"1000 lines x 5 fields", script, 1000},
                   {"same lines from cat", "cat " + rows, 1000},
                   {"empty command (true)", "true", 0}};
  for (const auto& workload : workloads) {
    const Result result = measure(workload.command, runs, workload.rows);
    printf("%s,%d,%.3f,%.3f,%.3f,%.2f\n", workload.name, runs, result.floorMillis,
           result.runnerMillis, result.agentMillis, result.agentMillis / result.floorMillis);
  }
  unlink(rows.c_str());
  unlink(script.c_str());
  rmdir(directory);
  return 0;
}
