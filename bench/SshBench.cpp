// One collection of a 1,000-line remote script, three ways, against the same sshd:
//
//   ssh_bench kept  PORT KEY KNOWN_HOSTS RUNS
//       the agent's SSH connector (LibsshConnector) over its kept session: one
//       connection and login first (not counted), then RUNS runs of the script;
//   ssh_bench spawn RUNS -- SSH [ARGS...]
//       a program per collection, e.g. `ssh -o ControlPath=... host SCRIPT` through a
//       master connection, or a fresh `ssh host SCRIPT`; its standard output is read
//       whole, as the agent reads a local command's.
//
// Each prints one line of key=value pairs: runs, lines (of the last run's output),
// median_ms, p90_ms, min_ms, max_ms, and cpu_ms (this process's and its children's CPU
// time per run). It exits with 2 when a run failed or did not print 1,000 lines.

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "foundation/HashMap.h"
#include "sources/ssh/LibsshConnector.h"

extern char** environ;

namespace {

// The remote script: 1,000 lines of four values, as a script group would read them.
constexpr const char kScript[] =
    "i=0; while [ $i -lt 1000 ]; do echo \"row$i $i $((i * 7)) value-$i\"; i=$((i + 1)); done";
constexpr int kLines = 1000;

using Clock = std::chrono::steady_clock;

double cpuMillis() {
  rusage self{};
  rusage children{};
  getrusage(RUSAGE_SELF, &self);
  getrusage(RUSAGE_CHILDREN, &children);
  auto ms = [](const timeval& t) { return t.tv_sec * 1e3 + t.tv_usec / 1e3; };
  return ms(self.ru_utime) + ms(self.ru_stime) + ms(children.ru_utime) + ms(children.ru_stime);
}

int countLines(const std::string& text) {
  return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

int report(std::vector<double> times, int lines, double cpu, bool failed) {
  std::sort(times.begin(), times.end());
  const size_t n = times.size();
  printf("runs=%zu lines=%d median_ms=%.3f p90_ms=%.3f min_ms=%.3f max_ms=%.3f cpu_ms=%.3f\n", n,
         lines, n == 0 ? 0 : times[n / 2],
         n == 0 ? 0 : times[(n * 9) / 10 < n ? (n * 9) / 10 : n - 1], n == 0 ? 0 : times.front(),
         n == 0 ? 0 : times.back(), n == 0 ? 0 : cpu / n);
  return failed || lines != kLines ? 2 : 0;
}

int kept(const char* port, const char* key, const char* knownHosts, int runs) {
  installSshSupport();
  LibsshConnector connector("Bench");
  HashMap section;
  const char* settings[][2] = {{"SSH_HOSTNAME", "127.0.0.1"}, {"SSH_PORT", port},
                               {"SSH_USERID", "root"},        {"SSH_AUTH_TYPE", "PUBLICKEY"},
                               {"SSH_PRIV_KEYFILE", key},     {"CDP_SSH_KNOWN_HOSTS", knownHosts}};
  for (const auto& setting : settings) {
    section.put(setting[0], setting[1]);
  }
  connector.resetConfig("BENCH", &section);
  auto once = [&](std::string* out) {
    char* text = nullptr;
    char* err = nullptr;
    int status = -1;
    const int result = connector.runScript(kScript, &text, &err, 30, &status);
    *out = text == nullptr ? "" : text;
    free(text);
    free(err);
    return result == 0 && status == 0;
  };
  std::string out;
  if (!once(&out)) {  // connects and logs in: not counted
    fprintf(stderr, "ssh_bench: %s\n", connector.getErrorMessage().c_str());
    return 2;
  }
  std::vector<double> times;
  bool failed = false;
  const double cpuBefore = cpuMillis();
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    failed = !once(&out) || failed;
    times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  return report(times, countLines(out), cpuMillis() - cpuBefore, failed);
}

// Runs argv with its standard output read whole; false when it failed.
bool spawnOnce(char** argv, std::string* out) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) {
    return false;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
  posix_spawn_file_actions_addclose(&actions, pipeFds[1]);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", 0, 0);
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  out->clear();
  char buffer[16384];
  for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;) {
    out->append(buffer, static_cast<size_t>(n));
  }
  close(pipeFds[0]);
  int status = 0;
  if (spawned != 0 || waitpid(pid, &status, 0) != pid) {
    return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int spawn(int runs, char** argv) {
  std::vector<char*> command(
      argv, argv + [argv] {
        int n = 0;
        while (argv[n] != nullptr) {
          ++n;
        }
        return n;
      }());
  command.push_back(const_cast<char*>(kScript));
  command.push_back(nullptr);
  std::vector<double> times;
  std::string out;
  bool failed = false;
  const double cpuBefore = cpuMillis();
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    failed = !spawnOnce(command.data(), &out) || failed;
    times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  return report(times, countLines(out), cpuMillis() - cpuBefore, failed);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 6 && strcmp(argv[1], "kept") == 0) {
    return kept(argv[2], argv[3], argv[4], atoi(argv[5]));
  }
  if (argc >= 5 && strcmp(argv[1], "spawn") == 0 && strcmp(argv[3], "--") == 0) {
    return spawn(atoi(argv[2]), argv + 4);
  }
  fprintf(stderr,
          "usage: ssh_bench kept PORT KEY KNOWN_HOSTS RUNS\n"
          "       ssh_bench spawn RUNS -- SSH [ARGS...]\n");
  return 1;
}
