#pragma once

// The local child of a command: "/bin/sh -c COMMAND" started with its standard output
// and standard error on two new pipes, read by the parent through two FILE streams.
//
// Contract:
// - startProc makes the pipes and the process under the process-wide fdLock, held
//   until the parent has closed its write ends, so that a child started meanwhile by
//   another command never inherits them (and never keeps this command's output
//   open). The child gets no descriptor of the agent's above standard error.
// - A pinfo is released exactly once: endProc closes the streams and reaps the
//   child (its exit status), discardProc kills it first (a start that is of no use).
//   StartedProcess holds one and does the latter when it goes out of scope unended,
//   so that no path leaves a zombie or an open pipe behind.
// - The start can be cancelled by a time-out that comes before it (LaunchState).

#include <sys/types.h>
#include <atomic>
#include <cstdio>
#include <utility>

#include "foundation/Locks.h"

// A started local child: the parent's ends of its two pipes and its pid. Made by
// startProc, released by endProc (or discardProc).
struct pinfo {
  FILE* stdoutFile;
  FILE* stderrFile;
  pid_t pid;
};

// Serialises pipe creation and process start across every command of the process.
extern PthreadMutex& fdLock;

// The start of a command's process as its waiter and its worker agree on it: the
// worker claims it (PENDING -> STARTED) under fdLock right before the process is
// made; a time-out that comes first cancels it (PENDING -> CANCELLED); a time-out
// after the claim marks it EXPIRED, and whoever of the two sees the pid second
// kills the process when killing is on.
enum LaunchState {
  LAUNCH_PENDING = 0,
  LAUNCH_STARTED = 1,
  LAUNCH_CANCELLED = 2,
  LAUNCH_EXPIRED = 3
};

// Starts "/bin/sh -c cmd" with its standard output and standard error on two new
// pipes; null when the pipes or the process could not be made (errno tells why;
// ECANCELED when `launch` was cancelled). A record whose stream could not be opened
// is returned with that stream null (errno tells why). `owner` appears in the traces
// only.
pinfo* startProc(const char* cmd, void* owner, std::atomic<int>* launch = nullptr);

// Kills the child of a start that is of no use (a stream could not be opened) and
// releases it. Null is ignored.
void discardProc(pinfo* info);

// Closes both streams, waits for the child and frees `info`: the exit status, or -1
// (errno EINVAL for null, ECHILD when it ended by a signal or was reaped elsewhere).
int endProc(pinfo* info);

// Owns one pinfo until it is ended (end()) or discarded (discard(), or destruction).
class StartedProcess {
 public:
  StartedProcess() = default;
  explicit StartedProcess(pinfo* info) : info_(info) {}
  ~StartedProcess() { discard(); }
  StartedProcess(StartedProcess&& other) noexcept : info_(std::exchange(other.info_, nullptr)) {}
  StartedProcess& operator=(StartedProcess&& other) noexcept {
    if (this != &other) {
      discard();
      info_ = std::exchange(other.info_, nullptr);
    }
    return *this;
  }
  StartedProcess(const StartedProcess&) = delete;
  StartedProcess& operator=(const StartedProcess&) = delete;

  explicit operator bool() const { return info_ != nullptr; }
  // A process whose two streams are open.
  bool readable() const {
    return info_ != nullptr && info_->stdoutFile != nullptr && info_->stderrFile != nullptr;
  }
  const pinfo* operator->() const { return info_; }

  // endProc: the exit status, or -1 (also when empty). Empty afterwards.
  int end() { return endProc(std::exchange(info_, nullptr)); }
  // discardProc: kills and reaps the child. Empty afterwards.
  void discard() { discardProc(std::exchange(info_, nullptr)); }

 private:
  pinfo* info_ = nullptr;
};
