// A log engine library with only the entry points the log monitor cannot do
// without: start, stop, the two callbacks and loading a text. Built as libnfludp.so
// and, with PARTIAL_ENGINE_FLUSHES_ALL, as libafludp.so, which can also flush all
// tables at once. It reads nothing: a loaded table is reported active at once.

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "logengine/engine/xpwp.h"

namespace {

int engine;
std::mutex lock;
XPWP_StatusCallback statusCallback = nullptr;
std::string table;
std::atomic<int> loads{0};

XPWP_Handle handle() { return reinterpret_cast<XPWP_Handle>(&engine); }

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int PartialEngineLoads() { return loads.load(); }

__attribute__((visibility("default"))) int XPWP_StartCommonProvider(XPWP_Handle* out, int) {
  *out = handle();
  return CDP_Success;
}

__attribute__((visibility("default"))) int XPWP_StopCommonProvider(XPWP_Handle) {
  return CDP_Success;
}

__attribute__((visibility("default"))) int XPWP_RegisterStatusCallback(XPWP_Handle,
                                                                       XPWP_StatusCallback cb) {
  std::lock_guard<std::mutex> hold(lock);
  statusCallback = cb;
  return CDP_Success;
}

__attribute__((visibility("default"))) int XPWP_RegisterDataCallback(XPWP_Handle,
                                                                     XPWP_DataCallback) {
  return CDP_Success;
}

__attribute__((visibility("default"))) int XPWP_LoadMetafile(XPWP_Handle, const char* mdl, size_t) {
  const char* name = strstr(mdl, "//NAME ");
  if (name == nullptr) {
    return CDP_Metafile_Error;
  }
  name += 7;
  XPWP_StatusCallback cb = nullptr;
  {
    std::lock_guard<std::mutex> hold(lock);
    table.assign(name, strcspn(name, " \t\n"));
    cb = statusCallback;
  }
  ++loads;
  if (cb != nullptr) {
    cb(handle(), table.c_str(), nullptr, XPWP_TABLE_ACTIVE);
  }
  return CDP_Success;
}

#ifdef PARTIAL_ENGINE_FLUSHES_ALL
__attribute__((visibility("default"))) int XPWP_FlushCommonProvider(XPWP_Handle) {
  std::thread([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::string name;
    XPWP_StatusCallback cb = nullptr;
    {
      std::lock_guard<std::mutex> hold(lock);
      name = table;
      cb = statusCallback;
    }
    if (cb != nullptr) {
      cb(handle(), name.c_str(), nullptr, XPWP_TABLE_FULLY_OFFLINE);
    }
  }).detach();
  return CDP_Success;
}
#endif

}  // extern "C"
