#pragma once

// CommandWithTimeout: runs one shell command ("/bin/sh -c COMMAND") locally, or on a
// remote host through an SshConnector, captures its whole standard output and
// standard error in memory, and lets the caller wait for it with a time-out.
//
// One run uses four threads: the caller's, which waits in runCommand; a worker that
// starts the process, joins the readers and reaps the child; and one reader per
// stream, so that neither pipe can fill up and block the child.
//
// Outcome of runCommand:
//   -1  no worker thread could be started, or the process's return code is unknown
//       (it ended by a signal, or its status was reaped elsewhere);
//    1  the time-out passed. The worker may still be running: the object must not be
//       destroyed; park it in a CommandWithTimeoutList, which reaps it once done.
//       With setKillProcess(true) the shell (not its own children) got SIGKILL.
//    0  the command finished: getRC() is its exit status (126: not executable, 127:
//       not found), getStdout() / getStderr() its output ("" when it printed
//       nothing). A NUL byte in the output is read as '?', so that it does not end
//       the text early.
//
// A time-out that comes before the process was started cancels the start: the
// command never runs late, unsupervised. After a time-out with setKillProcess(true)
// only this command's own process is reaped, never a child of another command.
// A command that writes more than outputSizeLimit to a stream is killed and its
// output dropped (-1, isOutputTooBig()).
//
// Status: 0 before the run, 1 while it runs, 7 once it is over (also after a kill).
// Failure statuses (3, 4, 5, 6) are set on the way and at once overwritten by 7 when
// the run completes: the outcome is carried by the return code, not by the status.
// A read error sets 3 from the reader; the worker still reaps the child and ends the
// run with 7 (the stream's data is then null).
//
// Locks, in this order: the command mutex, then the status mutex. The process-wide
// fdLock is held from the creation of the first pipe until the parent has closed its
// write ends, so that no other command's child inherits them.
//
// Thread-safety: one caller runs the command; the accessors of the results may be
// used once runCommand returned 0 (or once the list reaped the object).
//
// Ownership: the caller owns the object; after a time-out it hands it to a
// CommandWithTimeoutList, or to disposeWhenFinished, whose worker ends it once the run
// is over. The started child is held by a StartedProcess (ChildProcess.h) for the run.
//
// The members are defined by concern: CommandWithTimeout.cpp (the object, the worker,
// the environment, the list), CommandTimeout.cpp (runCommand's wait and time-out, the
// agent-wide stop), CommandOutput.cpp (the stream readers, the output limit, the line
// iterator), ChildProcess.cpp (the process itself).

#include <sys/types.h>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <memory>
#include <thread>

#include "foundation/List.h"
#include "foundation/Locks.h"
#include "sources/command/ChildProcess.h"

class HashMap;
class SshConnector;

namespace XRV {
class String;
}

enum _CWTStatus {
  CWT_NOT_STARTED = 0,
  CWT_RUNNING = 1,
  CWT_ERROR = 3,
  CWT_START_FAILED = 4,
  CWT_NOT_FOUND = 5,
  CWT_NOT_EXECUTABLE = 6,
  CWT_COMPLETED = 7,
};

enum _StreamType {
  STREAM_STDOUT = 0,
  STREAM_STDERR = 1,
  STREAM_THIRD = 2,
  STREAM_PROCESS_END = 3,
};

// Serialises the construction of SSH connectors.
extern PthreadMutex processLock;
// Milliseconds to wait before the one retry of a failed process start (1000).
extern int commandRetryDelay;
// When positive, captured standard error longer than this is cut to it; -1: never.
extern int stdErrSizeLimit;
// Bytes a command may write to one stream (64 MB): beyond it the command is killed,
// its output dropped and the run reported as too big (isOutputTooBig).
extern long long outputSizeLimit;

// Traces the two settings above, once they are set at agent start.
void traceCommandSettings();

class CommandWithTimeout {
 public:
  CommandWithTimeout(const char* cmd, int timeout);
  // `env`: shell text placed directly in front of the command (buildEnvString).
  CommandWithTimeout(const char* cmd, int timeout, const char* env);
  // Runs the command on the connector's host; `owns`: delete the connector with this.
  // getRC() is then the remote command's exit status, or -1 when the connector could
  // not run it. At an agent stop the connector's commands are aborted.
  CommandWithTimeout(SshConnector* connector, const char* cmd, int timeout, bool owns);
  // `env` is kept but not used on the remote path.
  CommandWithTimeout(SshConnector* connector, const char* cmd, int timeout, const char* env,
                     bool owns);
  // Frees the buffers. The owner joins first (join(), or the list); a worker still
  // unjoined is waited for here.
  virtual ~CommandWithTimeout();
  CommandWithTimeout(const CommandWithTimeout&) = delete;
  CommandWithTimeout& operator=(const CommandWithTimeout&) = delete;

  // Runs the command and waits at most the time-out (see the table above).
  int runCommand();

  int getRC() const { return rc_; }
  // NUL-terminated, owned by the object; null before a run (and after a read error).
  char* getStdout() const { return stdoutData_; }
  char* getStderr() const { return stderrData_; }
  char* getCmd() const { return command_; }
  // The next line of standard output into `buf` (at most `max` characters, NUL-
  // terminated when shorter); "" for an empty line; null at the end. A CR directly
  // after the previous line's end is skipped; a CR inside a line is kept. A line of
  // `max` characters or more is cut, and the character after the cut is lost.
  char* getNextLineFromStdout(char* buf, int max);

  _CWTStatus getStatus();
  void setStatus(_CWTStatus status);
  void setKillProcess(bool kill);
  bool getKillProcess() const { return killProcess_; }
  bool hasTimedOut() const { return timedOut_; }
  bool isOutputTooBig() const { return outputTooBig_; }
  pid_t getPid() const { return pid_; }

  // Joins the worker thread (no-op when it was never started or already joined).
  void join();
  // Whether join() would return at once: the worker has ended or never ran. A killed
  // command's worker may still wait for output that its children hold open.
  bool workerFinished() XRV_EXCLUDES(commandMutex_);
  // Joins `thread` (the worker or a reader) unless it is not running.
  void join(std::thread& thread);

  // Whether `vars` has the name of `assignment` (the text before its first "=",
  // or all of it) as a key.
  static bool containsVariable(HashMap* vars, const char* assignment);
  // NAME="value" export NAME; for every entry of `vars`, in the map's order. Values
  // are not escaped. Caller frees (free()). "" for an empty map, null for null.
  static char* buildEnvString(HashMap* vars);

  // For the worker and reader threads only.
  void threadMain();
  void readStream(_StreamType stream);

  // Hands an object that may still be running to its worker: the worker ends it when
  // the run is over, or this does at once when it already is. For owners that go
  // away before their commands (the list's destructor). Called by the owner, not
  // during runCommand.
  static void disposeWhenFinished(std::unique_ptr<CommandWithTimeout> command);

 private:
  void init(SshConnector* connector, const char* cmd, int timeout, const char* env, bool owns);
  // A stream was read (0, 1, 2) or the run is over (3: status 7, the waiter woken).
  void signal(_StreamType stream);
  void runLocal();
  void runRemote();
  // The commands stopAllCommands reaches; false when the agent stops already.
  static bool registerRunning(CommandWithTimeout* command);
  static void unregisterRunning(CommandWithTimeout* command);
  // Wakes runCommand, which then ends the run as after a time-out with killing on.
  void abort() XRV_EXCLUDES(commandMutex_);
  friend void stopAllCommands();
  // A reader's stream passed outputSizeLimit: kill the command, stop its output.
  void refuseOversizedOutput(_StreamType stream, int fd);
  // runCommand could not start a worker: the command mutex stays locked, since the
  // object is not run again; the destructor releases it.
  void abandonCommandMutex() XRV_RELEASE(commandMutex_);
  // pthread_mutex_lock with its result, so that a failed lock can be reported.
  static bool lockChecked(PthreadMutex& mutex) XRV_TRY_ACQUIRE(true, mutex);
  // Starts `body` on `thread`: 0, or the error number why no thread could be made.
  static int startThread(std::thread* thread, std::function<void()> body);

  _CWTStatus status_ XRV_GUARDED_BY(statusMutex_) = CWT_NOT_STARTED;
  std::atomic<int> rc_{-1};  // read by any thread, e.g. while a timed-out run goes on
  int timeout_ = 0;
  char* command_ = nullptr;
  char* stdoutData_ = nullptr;  // written by the readers, read once they are joined
  char* stderrData_ = nullptr;
  char* lineCursor_ = nullptr;
  bool ownsConnector_ = false;
  // The worker; joinable while it still needs a join: the owner's thread only.
  std::thread workerThread_;
  std::thread stdoutThread_;  // the worker's
  std::thread stderrThread_;
  // Both wait with the command mutex.
  std::condition_variable_any doneCondition_;
  std::condition_variable_any streamsCondition_;
  PthreadMutex commandMutex_ XRV_ACQUIRED_BEFORE(statusMutex_);
  PthreadMutex statusMutex_;
  std::atomic<pid_t> pid_{0};  // set by the worker, read by runCommand on a time-out
  char* envPrefix_ = nullptr;
  SshConnector* connector_ = nullptr;
  std::atomic<bool> killProcess_{false};  // read by the worker after a late time-out
  std::atomic<bool> timedOut_{false};  // set by runCommand, read by the worker
  // LaunchState: the start of the process, claimed by the worker or cancelled by a
  // time-out (see startProc).
  std::atomic<int> launch_{0};
  std::atomic<bool> outputTooBig_{false};  // set by a reader
  bool streamRead_ XRV_GUARDED_BY(commandMutex_) = false;
  bool processEnded_ XRV_GUARDED_BY(commandMutex_) = false;  // signal(STREAM_PROCESS_END)
  bool aborted_ XRV_GUARDED_BY(commandMutex_) = false;       // stopAllCommands
  bool streamWaiter_ XRV_GUARDED_BY(commandMutex_) = false;
  // The worker is past its last use of the object.
  bool workerDone_ XRV_GUARDED_BY(commandMutex_) = false;
  // The object itself once its owner handed it over (disposeWhenFinished): the worker
  // takes it when it is done, and the object ends with it.
  std::unique_ptr<CommandWithTimeout> orphan_ XRV_GUARDED_BY(commandMutex_);
  bool commandMutexAbandoned_ = false;  // the owner's thread only
  FILE* stdoutFile_ = nullptr;  // the worker's, read by the readers it starts
  FILE* stderrFile_ = nullptr;
};

// For an orderly stop of the agent: every command waiting in runCommand ends as if
// its time-out had come (1), with its process killed, and commands started from now
// on end the same way before their process is made. allowCommandsAgain undoes the
// latter (for tests).
void stopAllCommands();
void allowCommandsAgain();

// Appends `assignment` + " export " + its name + ";" to `out`.
void addVartoUNIXEnv(XRV::String* out, const char* assignment);

// Commands that timed out and may still run; the list owns them.
class CommandWithTimeoutList : public List {
 public:
  CommandWithTimeoutList() = default;
  // Deletes the finished commands and hands the others to disposeWhenFinished.
  ~CommandWithTimeoutList() override;

  void addCommand(CommandWithTimeout* command) { add(command); }
  CommandWithTimeout* getCommand(int index) const {
    return static_cast<CommandWithTimeout*>(get(index));
  }
  // Joins and deletes every command whose status is 3 or 7 and whose worker has
  // ended; never waits for a worker.
  void cleanupFinishedCommands();
};
