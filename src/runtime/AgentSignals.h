#pragma once

// How the agent process reacts to signals, and its other ways out.
//
// SIGHUP, SIGINT, SIGPIPE and SIGTERM all go to CleanUp. The first SIGINT or SIGTERM
// ends the agent at once: an audit record, the framework shut down, SIGTERM to the
// agent's whole process group (every script and command it started), and _exit(0)
// without destructors or atexit functions. Every other caught signal, and any later
// SIGINT or SIGTERM, is traced and ignored; SIGHUP in particular does not reload the
// definition. The orderly road out is the framework's (fwTerminate).
//
// CleanUp runs in signal context. Besides the flag, sigaction, killpg and _exit it
// uses the trace facility and the framework host's audit and shutdown entries, which
// are not async-signal-safe in general. It calls the host directly rather than
// through fwShutdown and fwAuditRecord (whose own tracing would allocate the first
// time), and registerSignalHandlers prepares its trace call site and the time zone,
// so the handler allocates nothing. The trace facility formats on the stack and
// writes with one write(2); it still takes a lock when its rules changed since
// CleanUp last traced, and the C library's time-zone lock when the local time's
// second changed on the signalled thread. The host's audit and shutdown entries must
// themselves be safe to call from a signal handler. A signal that lands while its
// own thread holds one of those locks could hang the handler; the window is small
// and accepted.

#include <csignal>

// A broken agent definition ends the process through exit_with_notification, whose
// SIGTERM takes the CleanUp road once the handlers are installed.
#include "foundation/FatalExit.h"

// Set once by the first SIGINT or SIGTERM; never cleared.
extern volatile sig_atomic_t shutdownSignaled;

// Unblocks SIGINT and SIGTERM for the calling thread and installs CleanUp for SIGHUP,
// SIGINT, SIGPIPE and SIGTERM. Failures are traced; the next signal is tried. Before
// that it runs CleanUp(0), so that CleanUp's trace call site works out its name and
// rules now rather than in a signal handler, where that would allocate.
void registerSignalHandlers();

// The one handler of every caught signal (see above). CleanUp(0) does nothing.
void CleanUp(int signal);

// Registered with atexit: only traces that the process is leaving.
void stop_exit();

// How CleanUp leaves, for tests that must survive it: `signalGroup` replaces
// killpg(group, signal) and `leave` replaces _exit(status). Null restores the real
// one. Never used by the agent itself.
using SignalGroupFunction = int (*)(pid_t group, int signal);
using LeaveProcessFunction = void (*)(int status);
void setCleanUpExitsForTesting(SignalGroupFunction signalGroup, LeaveProcessFunction leave);
