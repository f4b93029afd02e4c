#include "runtime/AgentSignals.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "framework/Framework.h"
#include "framework/Trace.h"
#include "runtime/AgentAudit.h"

volatile sig_atomic_t shutdownSignaled = 0;

namespace {

std::atomic<SignalGroupFunction> signalGroupFunction{nullptr};
std::atomic<LeaveProcessFunction> leaveProcessFunction{nullptr};

// Installs CleanUp for `signal`: 0, or the errno value of the refusal.
int installCleanUp(int signal) {
  struct sigaction action = {};
  action.sa_handler = CleanUp;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  return sigaction(signal, &action, nullptr) == 0 ? 0 : errno;
}

// The framework's audit and shutdown entries, called on the host directly: the fw*
// functions trace their entry and exit, and a trace call site used for the first
// time allocates, which a signal handler must not.
void auditAndShutDownFramework() {
  FrameworkHost* host = fwGetHost();
  if (host == nullptr) {
    return;
  }
  if (host->auditAvailable()) {
    host->auditRecord(makeAgentAuditRecord("The agent is shutting down.", "Shutdown", "Stop",
                                           "XRV9001I", host->productName()));
  }
  host->shutdown(1);
}

}  // namespace

void registerSignalHandlers() {
  XRV_TRACE_FN();
  // What CleanUp's tracing needs, prepared here: its call site's name and rules, and
  // the time zone (read once, allocating) that trace lines are stamped in.
  CleanUp(0);
  tzset();
  sigset_t termination;
  sigemptyset(&termination);
  sigaddset(&termination, SIGINT);
  sigaddset(&termination, SIGTERM);
  // A thread's signal mask has no std::thread form: the POSIX call it is.
  int rc = pthread_sigmask(SIG_UNBLOCK, &termination, nullptr);
  if (rc != 0) {
    XRV_TRACE_ERROR("pthread_sigmask unblock failed, rc = %d\n", rc);
  } else {
    XRV_TRACE_DETAIL("pthread_sigmask unblock successful\n");
  }

  if (int error = installCleanUp(SIGHUP); error != 0) {
    XRV_TRACE_ERROR("Action for SIGHUP failed, errno = %d\n", error);
  } else {
    XRV_TRACE_DETAIL("Action for SIGHUP %d has been set\n", SIGHUP);
  }
  const struct {
    int signal;
    const char* name;
  } others[] = {{SIGINT, "SIGINT"}, {SIGPIPE, "SIGPIPE"}, {SIGTERM, "SIGTERM"}};
  for (const auto& other : others) {
    if (int error = installCleanUp(other.signal); error != 0) {
      XRV_TRACE_ERROR("sigaction for %s failed, errno = %d\n", other.name, error);
    } else {
      XRV_TRACE_DETAIL("sigaction for %s %d has been set\n", other.name, other.signal);
    }
  }
}

void CleanUp(int signal) {
  XRV_TRACE_FN();
  if (signal == 0) {
    return;  // only the trace call site prepared, see registerSignalHandlers
  }
  const int savedErrno = errno;
  if (signal != SIGCHLD) {
    XRV_TRACE_DETAIL("Signal %d captured\n", signal);
  }
  if ((signal == SIGTERM || signal == SIGINT) && shutdownSignaled == 0) {
    shutdownSignaled = 1;
    XRV_TRACE_ERROR("Termination signal received.  Exiting.");
    auditAndShutDownFramework();
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    if (sigaction(SIGTERM, &ignore, nullptr) != 0) {
      XRV_TRACE_ERROR("Couldn't block SIGTERM during shutdown");
    }
    // The agent leads its own process group: this reaches every script and command
    // it started, and no one else.
    SignalGroupFunction signalGroup = signalGroupFunction.load();
    (signalGroup != nullptr ? signalGroup : killpg)(getpgid(0), SIGTERM);
    LeaveProcessFunction leave = leaveProcessFunction.load();
    (leave != nullptr ? leave : _exit)(0);
    errno = savedErrno;  // only a test's `leave` comes back
    return;
  }
  XRV_TRACE_DETAIL("Ignoring received signal: %d\n", signal);
  errno = savedErrno;
}

void stop_exit() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("The agent process is exiting");
}

void setCleanUpExitsForTesting(SignalGroupFunction signalGroup, LeaveProcessFunction leave) {
  signalGroupFunction.store(signalGroup);
  leaveProcessFunction.store(leave);
}
