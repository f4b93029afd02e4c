#include "sources/command/CommandWithTimeout.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <unordered_set>

#include "foundation/HashMap.h"
#include "foundation/String.h"
#include "framework/FwClock.h"
#include "framework/Settings.h"
#include "framework/Trace.h"
#include "sources/command/SshConnector.h"

PthreadMutex fdLock;
PthreadMutex processLock;
int commandRetryDelay = 1000;
int stdErrSizeLimit = -1;
long long outputSizeLimit = 64LL * 1024 * 1024;

namespace {

// First size of a stream's buffer; it doubles whenever a read fills it.
constexpr size_t kReadBufferSize = 16384;

// A read shorter than this was most likely a line or two of a script still writing.
constexpr size_t kSmallRead = 4096;

// A reader waiting in read() is woken by every write into the pipe, and the script
// pays for each wake-up: a shell loop echoing 1,000 lines costs a third more than
// the same loop writing to /dev/null. After a short read the reader steps aside for
// up to 0.2 ms, so the lines gather in the pipe (64 KB) and are taken in one read.
// Waiting for no event at all still ends at once when the last writer closes the
// pipe (hang-up), so the script's end is seen without delay.
void pauseBeforeNextRead(int fd) {
  struct pollfd watch = {fd, 0, 0};
  const struct timespec pause = {0, 200 * 1000};
  ppoll(&watch, 1, &pause, nullptr);
}

// pthread_mutex_lock with its result, so that a failed lock can be reported.
bool lockChecked(PthreadMutex& mutex) XRV_TRY_ACQUIRE(true, mutex) XRV_NO_THREAD_SAFETY_ANALYSIS {
  return pthread_mutex_lock(mutex.native()) == 0;
}

void* workerMain(void* command) {
  static_cast<CommandWithTimeout*>(command)->threadMain();
  return nullptr;
}

void* stdoutReaderMain(void* command) {
  static_cast<CommandWithTimeout*>(command)->readStream(STREAM_STDOUT);
  return nullptr;
}

void* stderrReaderMain(void* command) {
  static_cast<CommandWithTimeout*>(command)->readStream(STREAM_STDERR);
  return nullptr;
}

// Replaces each NUL byte of the `length` bytes at `data` by '?'; how many there were.
size_t replaceNulBytes(char* data, size_t length) {
  size_t count = 0;
  char* end = data + length;
  for (char* nul = static_cast<char*>(memchr(data, '\0', length)); nul != nullptr;
       nul = static_cast<char*>(memchr(nul, '\0', static_cast<size_t>(end - nul)))) {
    *nul++ = '?';
    ++count;
  }
  return count;
}

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
  pthread_cond_init(&doneCondition_, nullptr);
  pthread_cond_init(&streamsCondition_, nullptr);
  envPrefix_ = env == nullptr ? nullptr : strdup(env);
  killProcess_ = false;
  timedOut_ = false;
  XRV_TRACE_DETAIL("Setting up  %s, cwtObject=%p ", command_, static_cast<void*>(this));
}

CommandWithTimeout::~CommandWithTimeout() {
  XRV_TRACE_FN();
  free(command_);
  free(stdoutData_);
  free(stderrData_);
  free(envPrefix_);
  if (ownsConnector_) {
    delete connector_;
  }
  pthread_cond_destroy(&doneCondition_);
  pthread_cond_destroy(&streamsCondition_);
  if (commandMutexAbandoned_) {
    pthread_mutex_unlock(commandMutex_.native());
  }
}

void CommandWithTimeout::abandonCommandMutex() XRV_NO_THREAD_SAFETY_ANALYSIS {
  commandMutexAbandoned_ = true;
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
    pthread_cond_signal(&doneCondition_);
    // Whatever failure was set on the way, the run is over now.
    setStatus(CWT_COMPLETED);
  } else {
    streamRead_ = true;
  }
  if (streamRead_ && streamWaiter_) {
    pthread_cond_signal(&streamsCondition_);
  }
  commandMutex_.unlock();
}

// --- Threads ---

void CommandWithTimeout::join() {
  XRV_TRACE_FN();
  if (!workerStarted_) {
    return;
  }
  workerStarted_ = false;
  join(workerThread_);
}

void CommandWithTimeout::join(pthread_t thread) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("join waiting for thread for command %s", command_);
  pthread_join(thread, nullptr);
}

int CommandWithTimeout::runCommand() {
  XRV_TRACE_FN();
  // The condition variable measures its deadline against the system's wall clock.
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += timeout_;

  if (!lockChecked(commandMutex_)) {
    XRV_TRACE_ERROR("Error, could not lock command Mutex");
    return -1;
  }
  workerDone_ = false;
  // Held from here until the wait, so that the worker's completion signal cannot come
  // before anyone waits for it.
  int error = pthread_create(&workerThread_, nullptr, workerMain, this);
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
    return -1;
  }
  workerStarted_ = true;
  // Known to stopAllCommands while it waits (registered with the command mutex held,
  // so that its wake-up cannot come before the wait).
  const bool stopping = !registerRunning(this);
  aborted_ = aborted_ || stopping;
  int ret = 0;
  while (!processEnded_ && !aborted_ && ret != ETIMEDOUT) {
    ret = pthread_cond_timedwait(&doneCondition_, commandMutex_.native(), &deadline);
  }
  const bool aborted = aborted_ && !processEnded_;
  commandMutex_.unlock();
  unregisterRunning(this);
  XRV_TRACE_DETAIL("pthread_cond_timedwait for command %s ret=%d, rc=%d", command_, ret,
                   rc_.load());

  if (aborted) {
    XRV_TRACE_DETAIL("The agent is stopping: ending command %s", command_);
    killProcess_ = true;  // an agent that stops leaves no command of its own running
    ret = ETIMEDOUT;
  }
  if (ret == ETIMEDOUT) {
    int launch = LAUNCH_PENDING;
    if (launch_.compare_exchange_strong(launch, LAUNCH_CANCELLED)) {
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

  bool dispose = false;
  if (lockChecked(commandMutex_)) {
    workerDone_ = true;
    dispose = disposeOnFinish_;
    commandMutex_.unlock();
  } else {
    XRV_TRACE_ERROR("Error, could not lock command Mutex");
  }
  // The owner has gone; nothing touches the object after this.
  if (dispose) {
    delete this;
  }
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

  pinfo* info = startProc(text, this, &launch_);
  int error = errno;
  if (info == nullptr || info->stdoutFile == nullptr || info->stderrFile == nullptr) {
    discardProc(info);
    int started = LAUNCH_STARTED;
    // The retry is a start of its own: a time-out during the delay cancels it.
    if (error != ECANCELED && launch_.compare_exchange_strong(started, LAUNCH_PENDING)) {
      XRV_TRACE_ERROR("initial popen failed for command %s, errno=%d retrying in %d", text, error,
                      commandRetryDelay);
      fwSleepMillis(commandRetryDelay);
      info = startProc(text, this, &launch_);
      error = errno;
    } else {
      info = nullptr;
      error = ECANCELED;
    }
  }
  if (info == nullptr && error == ECANCELED) {
    XRV_TRACE_DETAIL("command %s timed out before it started, not starting it", command_);
    setStatus(CWT_START_FAILED);
    signal(STREAM_PROCESS_END);
    return;
  }
  if (info == nullptr) {
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
  if (info->stdoutFile == nullptr || info->stderrFile == nullptr) {
    if (envPrefix_ != nullptr) {
      XRV_TRACE_ERROR(
          "starting process -- socket creation failed for command called with environment, "
          "full command including environment %s, errno=%d",
          text, error);
    } else {
      XRV_TRACE_ERROR("starting process -- socket creation failed for command %s, errno=%d", text,
                      error);
    }
    setStatus(CWT_START_FAILED);
    signal(STREAM_PROCESS_END);
    return;
  }

  pid_ = info->pid;
  if (launch_ == LAUNCH_EXPIRED && killProcess_) {
    // The time-out came while the process was being made, before its pid was known.
    kill(info->pid, SIGKILL);
  }
  stdoutFile_ = info->stdoutFile;
  stderrFile_ = info->stderrFile;
  // Both streams are read at once, so that a full pipe never blocks the child. A
  // stream whose reader cannot be started is read here once the other one is done.
  const int stdoutError = pthread_create(&stdoutThread_, nullptr, stdoutReaderMain, this);
  const int stderrError = pthread_create(&stderrThread_, nullptr, stderrReaderMain, this);
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

  const int ret = endProc(info);
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
  const int result = connector_->executeScript(command_, &out, &err, timeout_);
  if (result != 0) {
    free(out);
    free(err);
    setStatus(CWT_ERROR);
  } else {
    stdoutData_ = out;
    stderrData_ = err;
    setStatus(CWT_COMPLETED);
  }
  rc_ = result;
  signal(STREAM_PROCESS_END);
}

void CommandWithTimeout::readStream(_StreamType stream) {
  XRV_TRACE_FN();
  if (stream != STREAM_STDOUT && stream != STREAM_STDERR) {
    return;
  }
  FILE* file = stream == STREAM_STDOUT ? stdoutFile_ : stderrFile_;
  char*& data = stream == STREAM_STDOUT ? stdoutData_ : stderrData_;
  size_t capacity = kReadBufferSize;
  size_t used = 0;
  char* buffer = static_cast<char*>(malloc(capacity));
  if (buffer == nullptr) {
    XRV_TRACE_ERROR("Error allocating buffer to read output");
    data = nullptr;
    signal(stream);
    return;
  }
  buffer[0] = '\0';

  const int fd = fileno(file);
  size_t nulBytes = 0;
  for (;;) {
    const size_t request = capacity - used - 1;
    const ssize_t n = read(fd, buffer + used, request);
    if (n > 0) {
      nulBytes += replaceNulBytes(buffer + used, static_cast<size_t>(n));
      used += static_cast<size_t>(n);
      buffer[used] = '\0';
      if (outputSizeLimit > 0 && used > static_cast<size_t>(outputSizeLimit)) {
        refuseOversizedOutput(stream, fd);
        free(buffer);
        signal(stream);
        return;
      }
      if (static_cast<size_t>(n) == request) {
        capacity *= 2;
        char* grown = static_cast<char*>(realloc(buffer, capacity));
        if (grown == nullptr) {
          XRV_TRACE_ERROR("realloc failed");
          free(buffer);
          setStatus(CWT_ERROR);
          return;
        }
        buffer = grown;
      } else if (static_cast<size_t>(n) < kSmallRead) {
        pauseBeforeNextRead(fd);
      }
      continue;
    }
    if (n == 0) {
      XRV_TRACE_DETAIL("nothing to read from stream -  stream %d", static_cast<int>(stream));
      break;
    }
    const int error = errno;
    if (error == EINTR) {
      XRV_TRACE_DETAIL("Received EINTR signal during fread, trying again");
      continue;
    }
    XRV_TRACE_ERROR("Error on pipe read");
    XRV_TRACE_ERROR("errno = %d, \"%s\"", error, strerror(error));
    free(buffer);
    setStatus(CWT_ERROR);
    return;
  }

  buffer[used] = '\0';
  if (nulBytes > 0) {
    XRV_TRACE_ERROR("Output of command %s held %zu NUL bytes on %s, each read as '?'", command_,
                    nulBytes, stream == STREAM_STDOUT ? "stdout" : "stderr");
  }
  if (stream == STREAM_STDERR && stdErrSizeLimit > 0 && used > static_cast<size_t>(stdErrSizeLimit)) {
    XRV_TRACE_DETAIL("truncated stdErr length %d to %d", static_cast<int>(used), stdErrSizeLimit);
    buffer[stdErrSizeLimit] = '\0';
  }
  data = buffer;
  signal(stream);
}

// --- Stopping the agent ---

namespace {

// The commands waiting in runCommand, and whether the agent stops.
std::mutex runningMutex;
std::unordered_set<CommandWithTimeout*> runningCommands;
bool agentStopping = false;

}  // namespace

bool CommandWithTimeout::registerRunning(CommandWithTimeout* command) {
  std::lock_guard<std::mutex> lock(runningMutex);
  if (agentStopping) {
    return false;
  }
  runningCommands.insert(command);
  return true;
}

void CommandWithTimeout::unregisterRunning(CommandWithTimeout* command) {
  std::lock_guard<std::mutex> lock(runningMutex);
  runningCommands.erase(command);
}

void CommandWithTimeout::abort() {
  PthreadMutexLock lock(commandMutex_);
  aborted_ = true;
  pthread_cond_signal(&doneCondition_);
}

void stopAllCommands() {
  XRV_TRACE_FN();
  std::lock_guard<std::mutex> lock(runningMutex);
  agentStopping = true;
  XRV_TRACE_DETAIL("Ending %zu running commands", runningCommands.size());
  // A registered command's mutex is held only briefly (it is waiting, or about to).
  for (CommandWithTimeout* command : runningCommands) {
    command->abort();
  }
}

void allowCommandsAgain() {
  std::lock_guard<std::mutex> lock(runningMutex);
  agentStopping = false;
}

void CommandWithTimeout::refuseOversizedOutput(_StreamType stream, int fd) {
  XRV_TRACE_FN();
  XRV_TRACE_ERROR(
      "Command %s wrote more than %lld bytes to %s, killing it and dropping its output "
      "cwtObject=%p",
      command_, outputSizeLimit, stream == STREAM_STDOUT ? "stdout" : "stderr",
      static_cast<void*>(this));
  outputTooBig_ = true;
  const pid_t pid = pid_;
  if (pid > 1) {
    kill(pid, SIGKILL);
  }
  // The pipe's read end is replaced by /dev/null (the stream still closes it), so
  // that what the command left behind gets a broken pipe instead of writing on.
  const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (null >= 0) {
    dup2(null, fd);
    close(null);
  }
}

bool CommandWithTimeout::workerFinished() {
  if (!workerStarted_) {
    return true;
  }
  PthreadMutexLock lock(commandMutex_);
  return workerDone_;
}

void CommandWithTimeout::disposeWhenFinished(CommandWithTimeout* command) {
  XRV_TRACE_FN();
  if (command == nullptr) {
    return;
  }
  // Never run, joined already, or no worker could be started.
  if (!command->workerStarted_) {
    delete command;
    return;
  }
  bool finished = false;
  {
    PthreadMutexLock lock(command->commandMutex_);
    finished = command->workerDone_;
    if (!finished) {
      command->disposeOnFinish_ = true;
      command->workerStarted_ = false;
      pthread_detach(command->workerThread_);
    }
  }
  // Unless finished, the worker may have deleted the object already.
  if (finished) {
    command->join();
    delete command;
  }
}

// --- Output ---

char* CommandWithTimeout::getNextLineFromStdout(char* buf, int max) {
  XRV_TRACE_FN();
  if (stdoutData_ == nullptr) {
    return nullptr;
  }
  char* position = lineCursor_ == nullptr ? stdoutData_ : lineCursor_;
  bool emptyLine = false;
  if (*position == '\r') {
    ++position;
    emptyLine = true;
  }
  if (*position == '\n') {
    ++position;
    emptyLine = true;
  }
  int copied = 0;
  if (!emptyLine) {
    while (copied < max && *position != '\n' && *position != '\0') {
      buf[copied++] = *position++;
    }
  }
  if (copied < max) {
    buf[copied] = '\0';
  }
  // Past the line's LF; after a cut line, past the first character not copied.
  if (!emptyLine && *position != '\0') {
    ++position;
  }
  lineCursor_ = position;
  if (!emptyLine && copied == 0) {
    return nullptr;
  }
  return buf;
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

// --- Local processes ---

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
  XRV_TRACE_DETAIL("freed lock for set up file descriptors - running in thread for %s, cwtObject=%p ",
                   cmd, owner);
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

// --- CommandWithTimeoutList ---

CommandWithTimeoutList::~CommandWithTimeoutList() {
  XRV_TRACE_FN();
  for (int i = 0; i < getCount(); ++i) {
    CommandWithTimeout::disposeWhenFinished(getCommand(i));
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
