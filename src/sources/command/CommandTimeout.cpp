// runCommand's side of a run: starting the worker, the wait with its time-out, and
// what a time-out does (cancel a start not yet made, or kill the process when killing
// is on); and the agent-wide stop that ends every waiting command at once.
//
// Contract: the command mutex is held from before the worker starts until the wait,
// so the worker's completion signal cannot come before anyone waits for it. After a
// time-out the worker may still run: the object then lives on (CommandWithTimeoutList,
// disposeWhenFinished). Only this command's own process is ever killed and reaped.

#include "sources/command/CommandWithTimeout.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <unordered_set>

#include "framework/Mutex.h"
#include "framework/Trace.h"
#include "sources/command/SshConnector.h"

int CommandWithTimeout::runCommand() {
  XRV_TRACE_FN();
  // A run again of an object whose earlier run timed out: that worker must be done
  // first (its thread handle is reused, and it still writes to the object).
  if (workerThread_.joinable()) {
    join();
  }
  // The deadline is measured against the system's wall clock.
  const auto deadline = std::chrono::system_clock::now() + std::chrono::seconds(timeout_);

  // Known to stopAllCommands until the wait is over. Registered before the command
  // mutex is taken: stopAllCommands takes command mutexes while it holds the registry,
  // never the other way round. A stop before the wait leaves aborted_ set, which the
  // wait looks at first.
  const bool stopping = !registerRunning(this);
  if (stopping) {
    launch_ = LAUNCH_CANCELLED;  // the worker will not start the process
  }
  if (!lockChecked(commandMutex_)) {
    XRV_TRACE_ERROR("Error, could not lock command Mutex");
    unregisterRunning(this);
    return -1;
  }
  workerDone_ = false;
  // Held from here until the wait, so that the worker's completion signal cannot come
  // before anyone waits for it.
  int error = startThread(&workerThread_, [this] { threadMain(); });
  if (error != 0) {
    if (error == EAGAIN) {
      XRV_TRACE_ERROR(
          "Thread creation failed due to insufficient resources. The system may be limiting "
          "the number of threads that can be created by this process.");
    } else {
      XRV_TRACE_ERROR("Thread creation failed with return code: %d, reason: %s", error,
                      strerror(error));
    }
    abandonCommandMutex();
    unregisterRunning(this);
    return -1;
  }
  aborted_ = aborted_ || stopping;
  int ret = 0;
  while (!processEnded_ && !aborted_ && ret != ETIMEDOUT) {
    if (doneCondition_.wait_until(commandMutex_, deadline) == std::cv_status::timeout) {
      ret = ETIMEDOUT;
    }
  }
  const bool aborted = aborted_ && !processEnded_;
  commandMutex_.unlock();
  unregisterRunning(this);
  XRV_TRACE_DETAIL("pthread_cond_timedwait for command %s ret=%d, rc=%d", command_, ret,
                   rc_.load());

  if (aborted) {
    XRV_TRACE_DETAIL("The agent is stopping: ending command %s", command_);
    killProcess_ = true;  // an agent that stops leaves no command of its own running
    if (connector_ != nullptr) {
      connector_->abortCommands();  // nor one on a remote host
    }
    ret = ETIMEDOUT;
  }
  if (ret == ETIMEDOUT) {
    int launch = LAUNCH_PENDING;
    if (launch_.compare_exchange_strong(launch, LAUNCH_CANCELLED) || launch == LAUNCH_CANCELLED) {
      XRV_TRACE_ERROR("Timeout before command %s was started, it will not be started cwtObject=%p",
                      command_, static_cast<void*>(this));
      return 1;
    }
    launch_ = LAUNCH_EXPIRED;  // before pid_ is read: see LaunchState
    const pid_t pid = pid_;
    XRV_TRACE_ERROR("Timeout waiting for command to complete -- %s with pid %d cwtObject=%p",
                    command_, pid, static_cast<void*>(this));
    if (killProcess_) {
      // Marked before the kill: the worker, woken by the closing pipes, reads it to
      // report the end as a time-out.
      timedOut_ = true;
      if (pid > 1) {
        XRV_TRACE_DETAIL("terminating process pid [%d] for command %s.", pid, command_);
        if (kill(pid, SIGKILL) != 0) {
          XRV_TRACE_ERROR("Failed to send SIGUSR1 signal to pid %d with errno %d", pid, errno);
        }
        // The worker reaps it. Reaping any other child here (waitpid(-1)) would take
        // the exit status of another command that is just ending.
      }
      signal(STREAM_PROCESS_END);
    }
    return 1;
  }

  join();
  XRV_TRACE_DETAIL("after join for command %s ret=%d, rc=%d", command_, ret, rc_.load());
  return rc_ != -1 ? 0 : -1;
}

// --- Stopping the agent ---

namespace {

// The commands waiting in runCommand, and whether the agent stops. Lock order:
// runningMutex before a command's mutex (stopAllCommands); a command registers and
// unregisters without holding its own.
XRV::Mutex runningMutex;
std::unordered_set<CommandWithTimeout*> runningCommands XRV_GUARDED_BY(runningMutex);
bool agentStopping XRV_GUARDED_BY(runningMutex) = false;

}  // namespace

bool CommandWithTimeout::registerRunning(CommandWithTimeout* command) {
  XRV::MutexLock lock(runningMutex);
  if (agentStopping) {
    return false;
  }
  runningCommands.insert(command);
  return true;
}

void CommandWithTimeout::unregisterRunning(CommandWithTimeout* command) {
  XRV::MutexLock lock(runningMutex);
  runningCommands.erase(command);
}

void CommandWithTimeout::abort() {
  PthreadMutexLock lock(commandMutex_);
  aborted_ = true;
  doneCondition_.notify_one();
}

void stopAllCommands() {
  XRV_TRACE_FN();
  XRV::MutexLock lock(runningMutex);
  agentStopping = true;
  XRV_TRACE_DETAIL("Ending %zu running commands", runningCommands.size());
  // A registered command's mutex is held only briefly (it is waiting, or about to).
  for (CommandWithTimeout* command : runningCommands) {
    command->abort();
  }
}

void allowCommandsAgain() {
  XRV::MutexLock lock(runningMutex);
  agentStopping = false;
}
