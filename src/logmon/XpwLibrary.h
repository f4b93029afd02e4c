#pragma once

// The log engine library, loaded at run time, and the one engine it runs for the
// whole process.
//
// The library's file name follows from the application: "lib" + the first three
// characters of the application name in lower case ("xrv" when the name is empty) +
// "udp.so". It is opened as $AGENT_LIB_DIR/<file> first, then by file name alone
// through the system's search path; when both fail, the engine this build installs
// (libxrvudp.so, by its absolute path) is loaded, with a trace line naming every path
// tried. The library is loaded once: later log monitor groups share it and its engine.
//
// Entry points the library lacks are null (each absence is traced); callers test the
// one they need. The engine's handle (cdpHandle) is guarded by cdpHandleLock, which
// also serialises loading, engine start, callback registration and the readiness
// wait of the log monitor groups.

#include <string>
#include <vector>

#include "foundation/Locks.h"
#include "logengine/engine/xpwp.h"

// The library's entry points, each null when it lacks it.
struct XpwEntryPoints {
  int (*loadMetafile)(XPWP_Handle, const char*, size_t) = nullptr;
  int (*startCommonProvider)(XPWP_Handle*, int) = nullptr;
  int (*stopCommonProvider)(XPWP_Handle) = nullptr;
  int (*registerStatusCallback)(XPWP_Handle, XPWP_StatusCallback) = nullptr;
  int (*registerDataCallback)(XPWP_Handle, XPWP_DataCallback) = nullptr;
  int (*getMonitoredFileStatus)(XPWP_Handle, int*, XPWP_MonitoredFileInfo_t**) = nullptr;
  int (*freeMonitoredFileInfo)(XPWP_MonitoredFileInfo_t*, int) = nullptr;
  int (*getLogFileRegExStatistics)(XPWP_Handle, int*, XPWP_LogFileRegExStatistics_t**) = nullptr;
  int (*freeLogFileRegexStatistics)(XPWP_LogFileRegExStatistics_t*, int) = nullptr;
  int (*flushCommonProvider)(XPWP_Handle) = nullptr;
  int (*flushCommonProviderTable)(XPWP_Handle, const char*) = nullptr;
  int (*areAllFileThreadsStarted)(XPWP_Handle) = nullptr;
  int (*areAllFileThreadsStartedTable)(XPWP_Handle, const char*) = nullptr;
  int (*wakeUpAllFileThreads)(XPWP_Handle) = nullptr;
  int (*wakeUpAllFileThreadsTable)(XPWP_Handle, const char*) = nullptr;
};

// "lib" + the first three characters of `applicationName` in lower case (or "xrv"
// when it is null or empty) + "udp.so".
std::string xpwLibraryFileName(const char* applicationName);

// The paths tried for `applicationName`'s library, in order: $AGENT_LIB_DIR/<file>
// (when the setting is given; one trailing "/" dropped), the file name alone, and
// the engine this build installs.
std::vector<std::string> xpwLibraryCandidates(const char* applicationName);

// Loads the library (once per process: later calls return what the first one
// loaded) and looks its entry points up. Null when no candidate could be opened.
// Call with cdpHandleLock held.
const XpwEntryPoints* loadXpwLibrary(const char* applicationName);

// The entry points of the loaded library; null while none is loaded.
const XpwEntryPoints* xpwEntryPoints();
// The path the library was opened by; "" while none is loaded.
std::string xpwLibraryPath();

// The environment variable the engine reads, when it starts, for the directory of its
// read positions.
inline constexpr const char kEngineStateDirVariable[] = "XRVLOG_STATE_DIR";

// Hands the XRV_LOG_POSITIONS_DIR setting to the engine as XRVLOG_STATE_DIR (making the
// directory when missing), unless the environment sets XRVLOG_STATE_DIR already. Only
// the first call of the process acts: the agent makes it at start-up, before any other
// thread runs (setenv is not safe beside a concurrent getenv); the engine's start calls
// it again, with cdpHandleLock held, for programs that did not.
void passLogPositionsDirectory();

PthreadMutex& cdpHandleLock();
// The started engine, or null. Read and written with cdpHandleLock held.
XPWP_Handle& cdpHandle();

// Stops the engine when one runs and forgets the library, so that the next
// loadXpwLibrary looks again (tests load libraries of their own), and lets the next
// passLogPositionsDirectory act again. The library stays mapped.
void forgetXpwLibraryForTesting();
