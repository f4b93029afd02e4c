// The command object itself: construction, status, the worker thread that runs the
// process (locally, or through the SSH connector) and reaps it, the object's end once
// its owner has gone, the environment prefix, and the list of commands that outlived
// their time-out. The wait is in CommandTimeout.cpp, the readers in CommandOutput.cpp,
// the child process in ChildProcess.cpp.
//
// Contract: every run ends with signal(STREAM_PROCESS_END), status 7; rc carries the
// outcome. The worker is the last to touch an object handed to disposeWhenFinished,
// and ends it.

#include "sources/command/CommandWithTimeout.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <utility>

#include "foundation/HashMap.h"
#include "foundation/String.h"
#include "framework/FwClock.h"
#include "framework/Settings.h"
#include "framework/Trace.h"
#include "sources/command/SshConnector.h"

PthreadMutex processLock;
int commandRetryDelay = 1000;
int stdErrSizeLimit = -1;
long long outputSizeLimit = 64LL * 1024 * 1024;

namespace {

// The name part of "NAME=value": its length up to the first "=", or the whole text.
size_t nameLength(const char* assignment) {
  const char* equals = strchr(assignment, '=');
  return equals == nullptr ? strlen(assignment) : static_cast<size_t>(equals - assignment);
}

}  // namespace

void traceCommandSettings() {
  XRV_TRACE_FN();
  const XRV::SettingContext here = XRV_SETTING_HERE();
  XRV::traceSettingValue(XRV::Setting::CommandRetryDelay, commandRetryDelay, here);
  XRV::traceSettingValue(XRV::Setting::ScriptMaxOutputMb, outputSizeLimit, here);
  XRV::traceSettingValue(XRV::Setting::TruncateStderrData, stdErrSizeLimit, here);
}

// --- Construction ---

CommandWithTimeout::CommandWithTimeout(const char* cmd, int timeout) {
  init(nullptr, cmd, timeout, nullptr, false);
}

CommandWithTimeout::CommandWithTimeout(const char* cmd, int timeout, const char* env) {
  init(nullptr, cmd, timeout, env, false);
}

CommandWithTimeout::CommandWithTimeout(SshConnector* connector, const char* cmd, int timeout,
                                       bool owns) {
  init(connector, cmd, timeout, nullptr, owns);
}

CommandWithTimeout::CommandWithTimeout(SshConnector* connector, const char* cmd, int timeout,
                                       const char* env, bool owns) {
  init(connector, cmd, timeout, env, owns);
}

void CommandWithTimeout::init(SshConnector* connector, const char* cmd, int timeout,
                              const char* env, bool owns) {
  XRV_TRACE_FN();
  rc_ = -1;
  timeout_ = timeout;
  command_ = strdup(cmd == nullptr ? "" : cmd);
  stdoutData_ = nullptr;
  stderrData_ = nullptr;
  lineCursor_ = nullptr;
  connector_ = connector;
  ownsConnector_ = owns;
  pid_ = 0;
  envPrefix_ = env == nullptr ? nullptr : strdup(env);
  killProcess_ = false;
  timedOut_ = false;
  XRV_TRACE_DETAIL("Setting up  %s, cwtObject=%p ", command_, static_cast<void*>(this));
}

CommandWithTimeout::~CommandWithTimeout() {
  XRV_TRACE_FN();
  // The owner joins first. One that did not (it deleted a command that timed out) is
  // made to wait for the worker here, rather than leaving it on freed memory.
  if (workerThread_.joinable()) {
    workerThread_.join();
  }
  free(command_);
  free(stdoutData_);
  free(stderrData_);
  free(envPrefix_);
  if (ownsConnector_) {
    delete connector_;
  }
  if (commandMutexAbandoned_) {
    pthread_mutex_unlock(commandMutex_.native());
  }
}

void CommandWithTimeout::abandonCommandMutex() XRV_NO_THREAD_SAFETY_ANALYSIS {
  commandMutexAbandoned_ = true;
}

bool CommandWithTimeout::lockChecked(PthreadMutex& mutex) XRV_NO_THREAD_SAFETY_ANALYSIS {
  return pthread_mutex_lock(mutex.native()) == 0;
}

int CommandWithTimeout::startThread(std::thread* thread, std::function<void()> body) {
  try {
    *thread = std::thread(std::move(body));
  } catch (const std::system_error& error) {
    return error.code().value();
  }
  return 0;
}

// --- Status ---

_CWTStatus CommandWithTimeout::getStatus() {
  XRV_TRACE_FN();
  if (!lockChecked(statusMutex_)) {
    XRV_TRACE_ERROR("Error, could not lock status Mutex");
    return CWT_ERROR;
  }
  _CWTStatus status = status_;
  statusMutex_.unlock();
  return status;
}

void CommandWithTimeout::setStatus(_CWTStatus status) {
  XRV_TRACE_FN();
  if (!lockChecked(statusMutex_)) {
    XRV_TRACE_ERROR("Error, could not lock status Mutex");
    return;
  }
  status_ = status;
  statusMutex_.unlock();
}

void CommandWithTimeout::setKillProcess(bool kill) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("setting killProcess flag to %s for command %s.", kill ? "true" : "false",
                   command_);
  killProcess_ = kill;
}

void CommandWithTimeout::signal(_StreamType stream) {
  XRV_TRACE_FN();
  if (!lockChecked(commandMutex_)) {
    XRV_TRACE_ERROR("Error, could not lock command Mutex");
    return;
  }
  if (stream == STREAM_PROCESS_END) {
    processEnded_ = true;
    doneCondition_.notify_one();
    // Whatever failure was set on the way, the run is over now.
    setStatus(CWT_COMPLETED);
  } else {
    streamRead_ = true;
  }
  if (streamRead_ && streamWaiter_) {
    streamsCondition_.notify_one();
  }
  commandMutex_.unlock();
}

// --- Threads ---

void CommandWithTimeout::join() {
  XRV_TRACE_FN();
  if (!workerThread_.joinable()) {
    return;
  }
  join(workerThread_);
}

void CommandWithTimeout::join(std::thread& thread) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("join waiting for thread for command %s", command_);
  if (thread.joinable()) {
    thread.join();
  }
}

void CommandWithTimeout::threadMain() {
  XRV_TRACE_FN();
  rc_ = -1;
  setStatus(CWT_RUNNING);
  free(stdoutData_);
  stdoutData_ = nullptr;
  free(stderrData_);
  stderrData_ = nullptr;
  lineCursor_ = nullptr;

  if (connector_ == nullptr) {
    runLocal();
  } else {
    runRemote();
  }
  XRV_TRACE_DETAIL("leaving runCommand for command <%s>  rc=%d, status=%d, stderr=", command_,
                   rc_.load(), getStatus());

  // The object itself, when its owner has handed it over (disposeWhenFinished).
  std::unique_ptr<CommandWithTimeout> orphan;
  if (lockChecked(commandMutex_)) {
    workerDone_ = true;
    orphan = std::move(orphan_);
    commandMutex_.unlock();
  } else {
    XRV_TRACE_ERROR("Error, could not lock command Mutex");
  }
  // An orphan ends here, with this function: nothing touches the object after this.
}

void CommandWithTimeout::runLocal() {
  XRV_TRACE_FN();
  XRV::String withEnvironment;
  const char* text = command_;
  if (envPrefix_ != nullptr) {
    if (!withEnvironment.append(envPrefix_) || !withEnvironment.append(command_)) {
      XRV_TRACE_ERROR("starting process failed for command %s, errno=%d", command_, ENOMEM);
      setStatus(CWT_START_FAILED);
      signal(STREAM_PROCESS_END);
      return;
    }
    text = withEnvironment.c_str();
  }

  StartedProcess process(startProc(text, this, &launch_));
  int error = errno;
  if (!process.readable()) {
    process.discard();
    int started = LAUNCH_STARTED;
    // The retry is a start of its own: a time-out during the delay cancels it.
    if (error != ECANCELED && launch_.compare_exchange_strong(started, LAUNCH_PENDING)) {
      XRV_TRACE_ERROR("initial popen failed for command %s, errno=%d retrying in %d", text, error,
                      commandRetryDelay);
      fwSleepMillis(commandRetryDelay);
      pinfo* retried = startProc(text, this, &launch_);
      error = errno;
      process = StartedProcess(retried);
    } else {
      error = ECANCELED;
    }
  }
  if (!process && error == ECANCELED) {
    XRV_TRACE_DETAIL("command %s timed out before it started, not starting it", command_);
    setStatus(CWT_START_FAILED);
    signal(STREAM_PROCESS_END);
    return;
  }
  if (!process) {
    if (envPrefix_ != nullptr) {
      XRV_TRACE_ERROR(
          "starting process failed for command called with environment, full command including "
          "environment %s, errno=%d",
          text, error);
    } else {
      XRV_TRACE_ERROR("starting process failed for command %s, errno=%d", text, error);
    }
    setStatus(CWT_START_FAILED);
    signal(STREAM_PROCESS_END);
    return;
  }
  if (!process.readable()) {
    if (envPrefix_ != nullptr) {
      XRV_TRACE_ERROR(
          "starting process -- socket creation failed for command called with environment, "
          "full command including environment %s, errno=%d",
          text, error);
    } else {
      XRV_TRACE_ERROR("starting process -- socket creation failed for command %s, errno=%d", text,
                      error);
    }
    process.discard();  // nobody would read it: killed and reaped before the run ends
    setStatus(CWT_START_FAILED);
    signal(STREAM_PROCESS_END);
    return;
  }

  pid_ = process->pid;
  if (launch_ == LAUNCH_EXPIRED && killProcess_) {
    // The time-out came while the process was being made, before its pid was known.
    kill(process->pid, SIGKILL);
  }
  stdoutFile_ = process->stdoutFile;
  stderrFile_ = process->stderrFile;
  // Both streams are read at once, so that a full pipe never blocks the child. A
  // stream whose reader cannot be started is read here once the other one is done.
  const int stdoutError = startThread(&stdoutThread_, [this] { readStream(STREAM_STDOUT); });
  const int stderrError = startThread(&stderrThread_, [this] { readStream(STREAM_STDERR); });
  const bool stdoutReader = stdoutError == 0;
  const bool stderrReader = stderrError == 0;
  if (!stdoutReader || !stderrReader) {
    const int threadError = stdoutReader ? stderrError : stdoutError;
    XRV_TRACE_ERROR("Thread creation failed with return code: %d, reason: %s", threadError,
                    strerror(threadError));
  }
  XRV_TRACE_DETAIL("Joining to complete stdout/err reads for %s, cwtObject=%p ", command_,
                   static_cast<void*>(this));
  if (stdoutReader) {
    join(stdoutThread_);
  } else {
    readStream(STREAM_STDOUT);
  }
  XRV_TRACE_DETAIL("Completed stdout join for %s, cwtObject=%p ", command_,
                   static_cast<void*>(this));
  if (stderrReader) {
    join(stderrThread_);
  } else {
    readStream(STREAM_STDERR);
  }
  XRV_TRACE_DETAIL("Completed stderr join for %s, cwtObject=%p ", command_,
                   static_cast<void*>(this));

  const int ret = process.end();
  stdoutFile_ = nullptr;
  stderrFile_ = nullptr;
  rc_ = outputTooBig_ ? -1 : ret;  // too much output: no result, whatever its end
  XRV_TRACE_DETAIL("process cleanup for command <%s> return code ret=%d, rc=%d", command_, ret,
                   ret);
  if (timedOut_) {
    XRV_TRACE_DETAIL("process terminated after timeout for command <%s> return code ret=%d, rc=%d",
                     command_, ret, ret);
  }
  if (ret == 0 || timedOut_) {
    setStatus(CWT_COMPLETED);
  } else if (ret == 126) {
    setStatus(CWT_NOT_EXECUTABLE);
  } else if (ret == 127) {
    setStatus(CWT_NOT_FOUND);
  } else {
    setStatus(CWT_START_FAILED);
  }
  lineCursor_ = nullptr;
  signal(STREAM_PROCESS_END);
}

void CommandWithTimeout::runRemote() {
  XRV_TRACE_FN();
  char* out = nullptr;
  char* err = nullptr;
  int exitStatus = 0;
  const int result = connector_->runScript(command_, &out, &err, timeout_, &exitStatus);
  if (result != 0) {
    free(out);
    free(err);
    setStatus(CWT_ERROR);
    rc_ = result;
  } else {
    stdoutData_ = out;
    stderrData_ = err;
    lineCursor_ = nullptr;
    setStatus(CWT_COMPLETED);
    // The remote command's own exit status, as for a local one.
    rc_ = exitStatus;
  }
  signal(STREAM_PROCESS_END);
}

bool CommandWithTimeout::workerFinished() {
  if (!workerThread_.joinable()) {
    return true;
  }
  PthreadMutexLock lock(commandMutex_);
  return workerDone_;
}

void CommandWithTimeout::disposeWhenFinished(std::unique_ptr<CommandWithTimeout> command) {
  XRV_TRACE_FN();
  // Never run, joined already, or no worker could be started: it ends with `command`.
  if (command == nullptr || !command->workerThread_.joinable()) {
    return;
  }
  CommandWithTimeout* const running = command.get();
  bool handedOver = false;
  {
    PthreadMutexLock lock(running->commandMutex_);
    if (!running->workerDone_) {
      running->workerThread_.detach();
      running->orphan_ = std::move(command);
      handedOver = true;
    }
  }
  // Once handed over, the worker may have ended the object already.
  if (!handedOver) {
    running->join();
  }
}

// --- Environment ---

bool CommandWithTimeout::containsVariable(HashMap* vars, const char* assignment) {
  XRV_TRACE_FN();
  if (vars == nullptr || assignment == nullptr) {
    return false;
  }
  XRV::String name(assignment, nameLength(assignment));
  return vars->contains(name.c_str());
}

char* CommandWithTimeout::buildEnvString(HashMap* vars) {
  XRV_TRACE_FN();
  if (vars == nullptr) {
    return nullptr;
  }
  XRV::String prefix;
  XRV::String assignment;
  HashMapIterator entries = vars->iterator();
  while (entries.hasNext()) {
    entries.next();
    const char* value = static_cast<const char*>(entries.getData());
    assignment.clear();
    assignment.append(entries.getKey());
    assignment.append("=\"");
    assignment.append(value == nullptr ? "" : value);
    assignment.append("\"");
    addVartoUNIXEnv(&prefix, assignment.c_str());
  }
  return prefix.release();
}

void addVartoUNIXEnv(XRV::String* out, const char* assignment) {
  XRV_TRACE_FN();
  if (out == nullptr || assignment == nullptr) {
    return;
  }
  out->append(assignment);
  out->append(" export ");
  out->append(assignment, nameLength(assignment));
  out->append(";");
}

// --- CommandWithTimeoutList ---

CommandWithTimeoutList::~CommandWithTimeoutList() {
  XRV_TRACE_FN();
  for (int i = 0; i < getCount(); ++i) {
    CommandWithTimeout::disposeWhenFinished(std::unique_ptr<CommandWithTimeout>(getCommand(i)));
  }
  clear();
}

void CommandWithTimeoutList::cleanupFinishedCommands() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("%d outstanding objects", getCount());
  int index = 0;
  while (index < getCount()) {
    CommandWithTimeout* command = getCommand(index);
    const _CWTStatus status = command->getStatus();
    if ((status == CWT_ERROR || status == CWT_COMPLETED) && command->workerFinished()) {
      XRV_TRACE_DETAIL(
          "Cleaning up CommandWithTimeout object that completed after timeout, cmd = %s, "
          "index = %d",
          command->getCmd(), index);
      command->join();
      remove(index);
      delete command;
    } else {
      XRV_TRACE_DETAIL(
          "Checking CommandWithTimeout object that completed after timeout, cmd = %s, "
          "status=%d, index = %d",
          command->getCmd(), static_cast<int>(status), index);
      ++index;
    }
  }
}
