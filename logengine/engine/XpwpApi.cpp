// The C entry points of libxrvudp.so. One engine per process; its handle is valid
// from XPWP_StartCommonProvider until XPWP_StopCommonProvider.

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "engine/Diagnostics.h"
#include "engine/Engine.h"
#include "engine/xpwp.h"

namespace {

using xrvlog::Engine;

std::mutex& engineLock() {
  static auto* lock = new std::mutex;  // never destroyed: file threads may outlive exit()
  return *lock;
}

std::shared_ptr<Engine>& current() {
  static auto* engine = new std::shared_ptr<Engine>;
  return *engine;
}

// The engine the handle names, held for the length of one call, or null.
std::shared_ptr<Engine> acquire(XPWP_Handle handle) {
  std::lock_guard<std::mutex> hold(engineLock());
  const auto& engine = current();
  if (handle == nullptr || reinterpret_cast<Engine*>(handle) != engine.get()) {
    return nullptr;
  }
  return engine;
}

char* copy(const std::string& text) {
  char* out = static_cast<char*>(std::malloc(text.size() + 1));
  if (out != nullptr) {
    std::memcpy(out, text.c_str(), text.size() + 1);
  }
  return out;
}

// Runs an entry point's body: nothing may leave the library as a C++ exception (a
// thread that cannot start, memory that runs out), so any becomes CDP_Failure.
template <typename Body>
int guarded(const char* entry, Body body) {
  try {
    return body();
  } catch (const std::exception& e) {
    xrvlog::diagnose(std::string(entry) + " failed: " + e.what());
  } catch (...) {
    xrvlog::diagnose(std::string(entry) + " failed");
  }
  return CDP_Failure;
}

}  // namespace

extern "C" {

int XPWP_StartCommonProvider(XPWP_Handle* handle, int mode) {
  return guarded("XPWP_StartCommonProvider", [&]() -> int {
    if (handle == nullptr || mode != XPWP_START_THREADED) {
      return CDP_Invalid_Argument;
    }
    std::lock_guard<std::mutex> hold(engineLock());
    auto& engine = current();
    if (engine) {
      *handle = reinterpret_cast<XPWP_Handle>(engine.get());
      return CDP_Already_Started;
    }
    const char* stateDir = std::getenv("XRVLOG_STATE_DIR");
    engine = std::make_shared<Engine>(stateDir != nullptr ? stateDir : "");
    *handle = reinterpret_cast<XPWP_Handle>(engine.get());
    return CDP_Success;
  });
}

int XPWP_StopCommonProvider(XPWP_Handle handle) {
  return guarded("XPWP_StopCommonProvider", [&]() -> int {
    std::shared_ptr<Engine> engine;
    {
      std::lock_guard<std::mutex> hold(engineLock());
      if (handle == nullptr || reinterpret_cast<Engine*>(handle) != current().get()) {
        return CDP_Invalid_Handle;
      }
      engine.swap(current());
    }
    engine->shutdown();
    return CDP_Success;
  });
}

int XPWP_RegisterStatusCallback(XPWP_Handle handle, XPWP_StatusCallback callback) {
  const auto engine = acquire(handle);
  if (!engine) {
    return CDP_Invalid_Handle;
  }
  engine->setStatusCallback(callback);
  return CDP_Success;
}

int XPWP_RegisterDataCallback(XPWP_Handle handle, XPWP_DataCallback callback) {
  const auto engine = acquire(handle);
  if (!engine) {
    return CDP_Invalid_Handle;
  }
  engine->setDataCallback(callback);
  return CDP_Success;
}

int XPWP_LoadMetafile(XPWP_Handle handle, const char* mdl, size_t length) {
  return guarded("XPWP_LoadMetafile", [&]() -> int {
    const auto engine = acquire(handle);
    if (!engine) {
      return CDP_Invalid_Handle;
    }
    if (mdl == nullptr) {
      return CDP_Invalid_Argument;
    }
    return engine->load(std::string_view(mdl, length));
  });
}

int XPWP_GetMonitoredFileStatus(XPWP_Handle handle, int* count, XPWP_MonitoredFileInfo_t** info) {
  return guarded("XPWP_GetMonitoredFileStatus", [&]() -> int {
    const auto engine = acquire(handle);
    if (!engine) {
      return CDP_Invalid_Handle;
    }
    if (count == nullptr || info == nullptr) {
      return CDP_Invalid_Argument;
    }
    const auto files = engine->files();
    *count = 0;
    *info = static_cast<XPWP_MonitoredFileInfo_t*>(
        std::calloc(files.empty() ? 1 : files.size(), sizeof(XPWP_MonitoredFileInfo_t)));
    if (*info == nullptr) {
      return CDP_Failure;
    }
    for (const auto& [table, file] : files) {
      XPWP_MonitoredFileInfo_t& out = (*info)[(*count)++];
      out.table = copy(table);
      out.file = copy(file.path);
      out.pattern = copy(file.pattern);
      out.state = file.state;
      out.size = file.size;
      out.position = file.position;
      out.lastModified = file.modified;
      out.lines = file.lines;
      out.records = file.records;
    }
    return CDP_Success;
  });
}

int XPWP_FreeMonitoredFileInfo(XPWP_MonitoredFileInfo_t* info, int count) {
  if (info == nullptr) {
    return CDP_Success;
  }
  for (int i = 0; i < count; ++i) {
    std::free(info[i].table);
    std::free(info[i].file);
    std::free(info[i].pattern);
  }
  std::free(info);
  return CDP_Success;
}

int XPWP_GetLogFileRegExStatistics(XPWP_Handle handle, int* count,
                                   XPWP_LogFileRegExStatistics_t** stats) {
  return guarded("XPWP_GetLogFileRegExStatistics", [&]() -> int {
    const auto engine = acquire(handle);
    if (!engine) {
      return CDP_Invalid_Handle;
    }
    if (count == nullptr || stats == nullptr) {
      return CDP_Invalid_Argument;
    }
    const auto patterns = engine->patterns();
    *count = 0;
    *stats = static_cast<XPWP_LogFileRegExStatistics_t*>(
        std::calloc(patterns.empty() ? 1 : patterns.size(), sizeof(XPWP_LogFileRegExStatistics_t)));
    if (*stats == nullptr) {
      return CDP_Failure;
    }
    for (const auto& [table, pattern] : patterns) {
      XPWP_LogFileRegExStatistics_t& out = (*stats)[(*count)++];
      out.table = copy(table);
      out.attribute = copy(pattern.attribute);
      out.pattern = copy(pattern.pattern);
      out.matches = pattern.stats.matches;
      out.misses = pattern.stats.misses;
      out.limitHits = pattern.stats.limit_hits;
      out.cpuSeconds = static_cast<double>(pattern.stats.cpu_ns) / 1e9;
    }
    return CDP_Success;
  });
}

int XPWP_FreeLogFileRegexStatistics(XPWP_LogFileRegExStatistics_t* stats, int count) {
  if (stats == nullptr) {
    return CDP_Success;
  }
  for (int i = 0; i < count; ++i) {
    std::free(stats[i].table);
    std::free(stats[i].attribute);
    std::free(stats[i].pattern);
  }
  std::free(stats);
  return CDP_Success;
}

int XPWP_FlushCommonProvider(XPWP_Handle handle) {
  return guarded("XPWP_FlushCommonProvider", [&]() -> int {
    const auto engine = acquire(handle);
    return engine ? engine->flush(nullptr) : CDP_Invalid_Handle;
  });
}

int XPWP_FlushCommonProviderTable(XPWP_Handle handle, const char* table) {
  return guarded("XPWP_FlushCommonProviderTable", [&]() -> int {
    const auto engine = acquire(handle);
    if (!engine) {
      return CDP_Invalid_Handle;
    }
    return table != nullptr ? engine->flush(table) : CDP_Invalid_Argument;
  });
}

int XPWP_AreAllFileThreadsStarted(XPWP_Handle handle) {
  const auto engine = acquire(handle);
  return engine ? engine->ready(nullptr) : CDP_Invalid_Handle;
}

int XPWP_AreAllFileThreadsStartedTable(XPWP_Handle handle, const char* table) {
  const auto engine = acquire(handle);
  if (!engine) {
    return CDP_Invalid_Handle;
  }
  return table != nullptr ? engine->ready(table) : CDP_Invalid_Argument;
}

int XPWP_WakeUpAllFileThreads(XPWP_Handle handle) {
  const auto engine = acquire(handle);
  return engine ? engine->wakeUp(nullptr) : CDP_Invalid_Handle;
}

int XPWP_WakeUpAllFileThreadsTable(XPWP_Handle handle, const char* table) {
  const auto engine = acquire(handle);
  if (!engine) {
    return CDP_Invalid_Handle;
  }
  return table != nullptr ? engine->wakeUp(table) : CDP_Invalid_Argument;
}

}  // extern "C"
