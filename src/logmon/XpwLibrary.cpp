#include "logmon/XpwLibrary.h"

#include <dlfcn.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "framework/Settings.h"
#include "framework/Trace.h"

#ifndef XRV_BUILT_ENGINE_LIBRARY
#error "the build defines XRV_BUILT_ENGINE_LIBRARY: the libxrvudp.so it makes"
#endif

namespace {

// The log engine this build makes, by its absolute path: the last resort.
constexpr const char kBuiltEngine[] = XRV_BUILT_ENGINE_LIBRARY;

// Set once, with cdpHandleLock held; read without it by the status groups.
std::atomic<const XpwEntryPoints*> loaded{nullptr};
XpwEntryPoints entryPoints;
std::string loadedPath;
XPWP_Handle engineHandle = nullptr;
bool positionsPassed = false;  // guarded by cdpHandleLock

// Looks `name` up in `library` into *function; traces an absence.
template <typename Function>
void lookUp(void* library, const char* name, Function* function) {
  XRV_TRACE_FN();
  *function = reinterpret_cast<Function>(dlsym(library, name));
  if (*function == nullptr) {
    XRV_TRACE_ERROR("Failed to find %s", name);
  }
}

void lookUpEntryPoints(void* library, XpwEntryPoints* e) {
  lookUp(library, "XPWP_LoadMetafile", &e->loadMetafile);
  lookUp(library, "XPWP_StartCommonProvider", &e->startCommonProvider);
  lookUp(library, "XPWP_StopCommonProvider", &e->stopCommonProvider);
  lookUp(library, "XPWP_RegisterStatusCallback", &e->registerStatusCallback);
  lookUp(library, "XPWP_RegisterDataCallback", &e->registerDataCallback);
  lookUp(library, "XPWP_GetMonitoredFileStatus", &e->getMonitoredFileStatus);
  lookUp(library, "XPWP_FreeMonitoredFileInfo", &e->freeMonitoredFileInfo);
  lookUp(library, "XPWP_GetLogFileRegExStatistics", &e->getLogFileRegExStatistics);
  lookUp(library, "XPWP_FreeLogFileRegexStatistics", &e->freeLogFileRegexStatistics);
  lookUp(library, "XPWP_FlushCommonProvider", &e->flushCommonProvider);
  lookUp(library, "XPWP_FlushCommonProviderTable", &e->flushCommonProviderTable);
  lookUp(library, "XPWP_AreAllFileThreadsStarted", &e->areAllFileThreadsStarted);
  lookUp(library, "XPWP_AreAllFileThreadsStartedTable", &e->areAllFileThreadsStartedTable);
  lookUp(library, "XPWP_WakeUpAllFileThreads", &e->wakeUpAllFileThreads);
  lookUp(library, "XPWP_WakeUpAllFileThreadsTable", &e->wakeUpAllFileThreadsTable);
}

std::string joined(const std::vector<std::string>& paths) {
  std::string text;
  for (const std::string& path : paths) {
    text += (text.empty() ? "" : ", ") + path;
  }
  return text;
}

}  // namespace

std::string xpwLibraryFileName(const char* applicationName) {
  std::string stem = applicationName == nullptr || *applicationName == '\0'
                         ? std::string("xrv")
                         : std::string(applicationName).substr(0, 3);
  for (char& c : stem) {
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return "lib" + stem + "udp.so";
}

std::vector<std::string> xpwLibraryCandidates(const char* applicationName) {
  XRV_TRACE_FN();
  const std::string file = xpwLibraryFileName(applicationName);
  std::vector<std::string> paths;
  const XRV::SettingRead directory = XRV::readSetting(XRV::Setting::AgentLibDir);
  if (directory.set) {
    std::string prefix = directory.text;
    if (!prefix.empty() && prefix.back() == '/') {
      prefix.pop_back();
    }
    paths.push_back(prefix + "/" + file);
  }
  paths.push_back(file);
  paths.emplace_back(kBuiltEngine);
  return paths;
}

const XpwEntryPoints* loadXpwLibrary(const char* applicationName) {
  XRV_TRACE_FN();
  if (const XpwEntryPoints* already = loaded.load()) {
    return already;
  }
  const std::string file = xpwLibraryFileName(applicationName);
  const std::vector<std::string> candidates = xpwLibraryCandidates(applicationName);
  std::vector<std::string> tried;
  void* library = nullptr;
  for (const std::string& path : candidates) {
    if (path == file) {
      XRV_TRACE_DETAIL("Attempting to use environment to find %s", file.c_str());
    } else if (&path == &candidates.back()) {
      XRV_TRACE_ERROR("Log engine %s not found as %s; loading the engine this build installs, %s",
                      file.c_str(), joined(tried).c_str(), path.c_str());
    }
    tried.push_back(path);
    library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library != nullptr) {
      loadedPath = path;
      break;
    }
    const char* reason = dlerror();
    XRV_TRACE_ERROR("Failed to load shared library %s : %s", path.c_str(),
                    reason == nullptr ? "" : reason);
  }
  if (library == nullptr) {
    XRV_TRACE_ERROR("ERROR: no log engine library could be loaded; tried %s",
                    joined(tried).c_str());
    return nullptr;
  }
  XRV_TRACE_DETAIL("Loaded log engine library %s", loadedPath.c_str());
  entryPoints = XpwEntryPoints{};
  lookUpEntryPoints(library, &entryPoints);
  loaded.store(&entryPoints);
  return &entryPoints;
}

const XpwEntryPoints* xpwEntryPoints() { return loaded.load(); }

std::string xpwLibraryPath() {
  PthreadMutexLock lock(cdpHandleLock());
  return loaded.load() == nullptr ? std::string() : loadedPath;
}

void passLogPositionsDirectory() {
  XRV_TRACE_FN();
  if (positionsPassed) {
    return;
  }
  positionsPassed = true;
  const XRV::SettingRead directory = XRV::readSetting(XRV::Setting::LogPositionsDir);
  if (!directory.set) {
    return;
  }
  if (const char* given = getenv(kEngineStateDirVariable); given != nullptr) {
    XRV_TRACE_DETAIL("%s=%s from the environment wins over %s=%s", kEngineStateDirVariable, given,
                     directory.name.c_str(), directory.text.c_str());
    return;
  }
  std::error_code error;
  std::filesystem::create_directories(directory.text, error);
  if (error) {
    XRV_TRACE_ERROR("Cannot make the log positions directory %s: %s", directory.text.c_str(),
                    error.message().c_str());
  }
  // The engine learns where to keep its positions only from its environment, when it
  // starts. The variable is set once per process, before the first engine is started
  // (in the agent, at start-up, before any other thread); the engine's threads never
  // see it change. Not overwriting keeps an operator's own XRVLOG_STATE_DIR.
  if (setenv(kEngineStateDirVariable, directory.text.c_str(), 0) != 0) {
    XRV_TRACE_ERROR("Cannot set %s: %s", kEngineStateDirVariable, strerror(errno));
    return;
  }
  XRV_TRACE_DETAIL("The log engine keeps its read positions in %s", directory.text.c_str());
}

PthreadMutex& cdpHandleLock() {
  static PthreadMutex* const lock = new PthreadMutex;  // engine threads may outlive exit()
  return *lock;
}

XPWP_Handle& cdpHandle() { return engineHandle; }

void forgetXpwLibraryForTesting() {
  XRV_TRACE_FN();
  PthreadMutexLock lock(cdpHandleLock());
  const XpwEntryPoints* e = loaded.load();
  if (e != nullptr && engineHandle != nullptr && e->stopCommonProvider != nullptr) {
    e->stopCommonProvider(engineHandle);
  }
  engineHandle = nullptr;
  positionsPassed = false;
  loaded.store(nullptr);
  loadedPath.clear();
}
