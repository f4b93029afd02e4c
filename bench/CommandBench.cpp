// Starting a shell command: fork + exec against posix_spawn (which shares the
// parent's memory until the exec instead of copying its page tables), each with the
// file actions of the command runner (two pipes on standard output and standard
// error, the four pipe ends closed, "/bin/sh -c true"), from a process holding
// little memory and from one holding 200 MB, touched in 4 KB pages as a heap of
// small objects would be. Then startProc + endProc and a whole runCommand of "true".
//
// Wall time per run, from the start until the child is reaped; "call_us" is the time
// the calling thread spent in fork() or posix_spawn() alone.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "sources/command/CommandWithTimeout.h"

namespace {

using Clock = std::chrono::steady_clock;

// Resident memory of the process besides its ordinary working set.
void setBallast(size_t megabytes) {
  static char* ballast = nullptr;
  static size_t size = 0;
  const size_t wanted = megabytes << 20;
  if (wanted == size) {
    return;
  }
  if (ballast != nullptr) {
    munmap(ballast, size);
    ballast = nullptr;
  }
  size = wanted;
  if (size == 0) {
    return;
  }
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    abort();
  }
  ballast = static_cast<char*>(memory);
  madvise(ballast, size, MADV_NOHUGEPAGE);
  for (size_t offset = 0; offset < size; offset += 4096) {
    ballast[offset] = static_cast<char>(offset);
  }
}

struct Pipes {
  int out[2];
  int err[2];
};

Pipes openPipes() {
  Pipes pipes;
  if (pipe(pipes.out) != 0 || pipe(pipes.err) != 0) {
    abort();
  }
  return pipes;
}

// What the parent does after the start: close the write ends, read to the end, reap.
void finish(const Pipes& pipes, pid_t pid) {
  close(pipes.out[1]);
  close(pipes.err[1]);
  char buffer[256];
  while (read(pipes.out[0], buffer, sizeof buffer) > 0) {
  }
  while (read(pipes.err[0], buffer, sizeof buffer) > 0) {
  }
  close(pipes.out[0]);
  close(pipes.err[0]);
  int status;
  waitpid(pid, &status, 0);
}

pid_t forkShell(const Pipes& pipes) {
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(pipes.out[1], STDOUT_FILENO);
    dup2(pipes.err[1], STDERR_FILENO);
    close(pipes.out[0]);
    close(pipes.out[1]);
    close(pipes.err[0]);
    close(pipes.err[1]);
    execl("/bin/sh", "sh", "-c", "true", static_cast<char*>(nullptr));
    _exit(1);
  }
  return pid;
}

pid_t spawnShell(const Pipes& pipes) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipes.out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, pipes.err[1], STDERR_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipes.out[0]);
  posix_spawn_file_actions_addclose(&actions, pipes.out[1]);
  posix_spawn_file_actions_addclose(&actions, pipes.err[0]);
  posix_spawn_file_actions_addclose(&actions, pipes.err[1]);
  char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>("true"),
                  nullptr};
  pid_t pid = -1;
  posix_spawn(&pid, "/bin/sh", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

template <pid_t (*start)(const Pipes&)>
void BM_StartShell(benchmark::State& state) {
  setBallast(static_cast<size_t>(state.range(0)));
  double callSeconds = 0;
  for (auto _ : state) {
    const Pipes pipes = openPipes();
    const Clock::time_point before = Clock::now();
    const pid_t pid = start(pipes);
    callSeconds += std::chrono::duration<double>(Clock::now() - before).count();
    if (pid <= 0) {
      state.SkipWithError("the shell could not be started");
      break;
    }
    finish(pipes, pid);
  }
  state.counters["call_us"] =
      benchmark::Counter(callSeconds * 1e6 / static_cast<double>(state.iterations()));
}

void BM_ForkExec(benchmark::State& state) { BM_StartShell<forkShell>(state); }
void BM_PosixSpawn(benchmark::State& state) { BM_StartShell<spawnShell>(state); }

void BM_StartProcEndProc(benchmark::State& state) {
  setBallast(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    pinfo* info = startProc("true", nullptr);
    if (info == nullptr) {
      state.SkipWithError("startProc failed");
      break;
    }
    benchmark::DoNotOptimize(endProc(info));
  }
}

void BM_RunCommandTrue(benchmark::State& state) {
  setBallast(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    CommandWithTimeout command("true", 10);
    if (command.runCommand() != 0) {
      state.SkipWithError("runCommand failed");
      break;
    }
  }
}

}  // namespace

BENCHMARK(BM_ForkExec)->ArgName("ballast_MB")->Arg(0)->Arg(200)->UseRealTime()->Unit(
    benchmark::kMicrosecond);
BENCHMARK(BM_PosixSpawn)->ArgName("ballast_MB")->Arg(0)->Arg(200)->UseRealTime()->Unit(
    benchmark::kMicrosecond);
BENCHMARK(BM_StartProcEndProc)
    ->ArgName("ballast_MB")
    ->Arg(0)
    ->Arg(200)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RunCommandTrue)
    ->ArgName("ballast_MB")
    ->Arg(0)
    ->Arg(200)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
