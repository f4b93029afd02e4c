// How a command's local child is started, released and reaped (see ChildProcess.h).
//
// Contract: startProc holds fdLock from the first pipe until the parent has closed the
// write ends; the child gets exactly its two pipe ends as standard output and standard
// error, the agent's standard input, environment and process group, and nothing else.
// endProc and discardProc release the record (and its descriptors) on every path.

#include "sources/command/ChildProcess.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>

#include "framework/Trace.h"

// Never destroyed: a command's worker may still be starting its process while the
// agent exits after a stop.
PthreadMutex& fdLock = *new PthreadMutex;

namespace {

void closePipe(const int ends[2]) {
  close(ends[0]);
  close(ends[1]);
}

// Starts "/bin/sh -c cmd" with the write ends of the two pipes as its standard output
// and standard error, and none of the four pipe descriptors besides. The child shares
// the caller's memory until it executes the shell (no copy of the page tables, unlike
// fork), keeps standard input and the process group, gets the process's environment,
// and no descriptor above standard error. 0, or an error number; a shell that cannot
// be executed is reported here as well.
int spawnShell(const char* cmd, const int outPipe[2], const int errPipe[2], pid_t* pid) {
  XRV_TRACE_FN();
  posix_spawn_file_actions_t actions;
  int error = posix_spawn_file_actions_init(&actions);
  if (error != 0) {
    return error;
  }
  const int closed[] = {outPipe[0], outPipe[1], errPipe[0], errPipe[1]};
  error = posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  if (error == 0) {
    error = posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
  }
  for (int fd : closed) {
    if (error == 0) {
      error = posix_spawn_file_actions_addclose(&actions, fd);
    }
  }
  // Nothing else of the agent's reaches the script: not its HTTP clients' connections,
  // not the files of other data sources, whether or not they were opened close-on-exec.
  if (error == 0) {
    error = posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  }
  if (error == 0) {
    char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(cmd),
                    nullptr};
    error = posix_spawn(pid, "/bin/sh", &actions, nullptr, argv, environ);
  }
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

}  // namespace

pinfo* startProc(const char* cmd, void* owner, std::atomic<int>* launch) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("locking to set up file descriptors - running in thread for %s, cwtObject=%p ",
                   cmd, owner);
  // Held until the parent has closed its write ends: a child started meanwhile by
  // another command would inherit them and keep this command's output open.
  PthreadMutexLock lock(fdLock);
  int pending = LAUNCH_PENDING;
  if (launch != nullptr && !launch->compare_exchange_strong(pending, LAUNCH_STARTED)) {
    errno = ECANCELED;
    return nullptr;
  }
  int outPipe[2];
  int errPipe[2];
  if (pipe(outPipe) != 0) {
    const int error = errno;
    XRV_TRACE_ERROR("Error, could not allocate file descriptors");
    errno = error;
    return nullptr;
  }
  if (pipe(errPipe) != 0) {
    const int error = errno;
    closePipe(outPipe);
    XRV_TRACE_ERROR("Error, could not allocate second set of descriptors");
    errno = error;
    return nullptr;
  }
  auto* info = new (std::nothrow) pinfo{nullptr, nullptr, 0};
  if (info == nullptr) {
    closePipe(outPipe);
    closePipe(errPipe);
    XRV_TRACE_ERROR("Error, could not allocate memory for data structure");
    errno = ENOMEM;
    return nullptr;
  }
  const int error = spawnShell(cmd, outPipe, errPipe, &info->pid);
  if (error != 0) {
    closePipe(outPipe);
    closePipe(errPipe);
    delete info;
    XRV_TRACE_ERROR("Error, could fork");
    errno = error;
    return nullptr;
  }
  XRV_TRACE_DETAIL("Process started for command %s, pid %d", cmd, static_cast<int>(info->pid));

  int openError = 0;
  close(outPipe[1]);
  info->stdoutFile = fdopen(outPipe[0], "r");
  if (info->stdoutFile == nullptr) {
    openError = errno;
    close(outPipe[0]);
    XRV_TRACE_ERROR("Failed to re-open stdout from child");
  }
  close(errPipe[1]);
  info->stderrFile = fdopen(errPipe[0], "r");
  if (info->stderrFile == nullptr) {
    openError = errno;
    close(errPipe[0]);
    XRV_TRACE_ERROR("Failed to re-open stderr from child");
  }
  XRV_TRACE_DETAIL(
      "freed lock for set up file descriptors - running in thread for %s, cwtObject=%p ", cmd,
      owner);
  errno = openError;
  return info;
}

void discardProc(pinfo* info) {
  if (info == nullptr) {
    return;
  }
  if (info->pid > 1) {
    kill(info->pid, SIGKILL);  // it has no usable output: nobody reads what it writes
  }
  endProc(info);
}

int endProc(pinfo* info) {
  XRV_TRACE_FN();
  if (info == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (info->stdoutFile != nullptr) {
    fclose(info->stdoutFile);
  }
  if (info->stderrFile != nullptr) {
    fclose(info->stderrFile);
  }
  int status = 0;
  pid_t waited;
  do {
    waited = waitpid(info->pid, &status, 0);
  } while (waited == -1 && errno == EINTR);
  const int error = errno;
  delete info;
  if (waited == -1) {
    // Reaped by someone else: the status is gone.
    errno = error;
    return -1;
  }
  if (WIFEXITED(status)) {
    return WEXITSTATUS(status);
  }
  errno = ECHILD;
  return -1;
}
