// The two callbacks the log engine calls, and the process-wide map from engine table
// to log monitor object through which they find their object.
//
// A callback holds its object for the length of the call (CallbackPin); an object
// leaving the map waits until no callback is inside it. Nothing here takes the map
// lock while calling into an object, so an object may take its own locks in a
// callback without ordering them against the map.

#include <cstdlib>
#include <cstring>

#include "foundation/HashMap.h"
#include "framework/Trace.h"
#include "logmon/LogMonitorCallbacks.h"
#include "logmon/LogMonitorQueryClass.h"
#include "logmon/XpwLibrary.h"

namespace {

struct TableMap {
  PthreadMutex lock;  // also over the map's own locks: its remove is not locked
  ThreadSafeHashMap objects XRV_GUARDED_BY(lock);  // table (owned key) -> object
  int registered XRV_GUARDED_BY(lock) = 0;
};

TableMap& tableMap() {
  static TableMap* const map = new TableMap;  // engine threads may outlive exit()
  return *map;
}

// The object of `table`, held against destruction while the pin lives.
class CallbackPin {
 public:
  explicit CallbackPin(const char* table) {
    TableMap& map = tableMap();
    PthreadMutexLock lock(map.lock);
    object_ =
        table == nullptr ? nullptr : static_cast<LogMonitorQueryClass*>(map.objects.get(table));
    if (object_ != nullptr) {
      object_->enterCallback();
    }
  }
  ~CallbackPin() {
    if (object_ != nullptr) {
      object_->leaveCallback();
    }
  }
  CallbackPin(const CallbackPin&) = delete;
  CallbackPin& operator=(const CallbackPin&) = delete;

  LogMonitorQueryClass* get() const { return object_; }

 private:
  LogMonitorQueryClass* object_ = nullptr;
};

const char* orNull(const char* text) { return text == nullptr ? "<NULL>" : text; }

}  // namespace

// Called by the engine with each record: the context is its handle.
extern "C" void dataCallbackFunc(void* /*context*/, const char* table, const char* source,
                                 const char* description, const XPWP_NameValue* pairs, int count) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("dataCallbackFunc for table=<%s> source=<%s> description=<%s>", orNull(table),
                   orNull(source), orNull(description));
  if (XRV_TRACE_ENABLED(TRACE_DETAIL)) {
    for (int i = 0; i < count && pairs != nullptr; ++i) {
      XRV_TRACE_DETAIL("%s=%s", orNull(pairs[i].name), orNull(pairs[i].value));
    }
  }
  CallbackPin pin(table);
  if (pin.get() == nullptr) {
    XRV_TRACE_ERROR("Didn't find a LogMonitorQueryClass for attribute group <%s>. Ignoring data.",
                    orNull(table));
    return;
  }
  pin.get()->setInstanceData(pairs, count, source, description);
}

// Called by the engine with each change of a file's or the table's state.
extern "C" void statusCallbackFunc(void* /*context*/, const char* table, const char* source,
                                   int status) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("statusCallbackFunc for table=<%s> source=<%s> status=<%d>", orNull(table),
                   orNull(source), status);
  CallbackPin pin(table);
  if (pin.get() == nullptr) {
    // A group that stops (at shutdown, or a removed subnode's copy) unregisters before
    // the engine reports its table fully offline: that last report is expected.
    if (status == XPWP_TABLE_FULLY_OFFLINE) {
      XRV_TRACE_DETAIL(
          "Didn't find a LogMonitorQueryClass for attribute group <%s>. Ignoring status update.",
          orNull(table));
    } else {
      XRV_TRACE_ERROR(
          "Didn't find a LogMonitorQueryClass for attribute group <%s>. Ignoring status update.",
          orNull(table));
    }
    return;
  }
  pin.get()->statusChanged(source, status);
}

LogMonitorQueryClass* LogMonitorQueryClass::getQueryClass(const char* table) {
  XRV_TRACE_FN();
  if (table == nullptr) {
    return nullptr;
  }
  TableMap& map = tableMap();
  PthreadMutexLock lock(map.lock);
  return static_cast<LogMonitorQueryClass*>(map.objects.get(table));
}

bool LogMonitorQueryClass::describeTable(const char* table, std::string* group,
                                         std::string* subnodeKey) {
  XRV_TRACE_FN();
  if (table == nullptr) {
    return false;
  }
  TableMap& map = tableMap();
  PthreadMutexLock lock(map.lock);
  const auto* object = static_cast<const LogMonitorQueryClass*>(map.objects.get(table));
  if (object == nullptr) {
    return false;
  }
  group->assign(object->getAttributeGroup());
  subnodeKey->assign(object->getSubnodeKey() == nullptr ? "" : object->getSubnodeKey());
  return true;
}

void LogMonitorQueryClass::enterCallback() { callbacksInFlight_.fetch_add(1); }

void LogMonitorQueryClass::leaveCallback() {
  if (callbacksInFlight_.fetch_sub(1) == 1) {
    callbacksInFlight_.notify_all();  // no syscall unless someone waits
  }
}

// Files this object under its table name (replacing its earlier name). False when
// another object has that table already.
bool LogMonitorQueryClass::registerCallbacks() {
  XRV_TRACE_FN();
  TableMap& map = tableMap();
  PthreadMutexLock lock(map.lock);
  auto* owner = static_cast<LogMonitorQueryClass*>(map.objects.get(tableName_.c_str()));
  if (owner == this) {
    return true;
  }
  if (owner != nullptr) {
    XRV_TRACE_ERROR("ERROR: table %s is monitored already for attribute group %s%s%s",
                    tableName_.c_str(), owner->getAttributeGroup(),
                    owner->getSubnodeKey() == nullptr ? "" : " subnode ",
                    owner->getSubnodeKey() == nullptr ? "" : owner->getSubnodeKey());
    return false;
  }
  if (!registeredTable_.empty()) {
    const char* storedKey = nullptr;
    map.objects.remove(registeredTable_.c_str(), &storedKey);
    free(const_cast<char*>(storedKey));
    --map.registered;
  }
  map.objects.put(strdup(tableName_.c_str()), this);
  ++map.registered;
  registeredTable_ = tableName_;
  return true;
}

// Takes this object out of the map and, with `wait`, waits until no callback is
// inside it (never from a callback).
void LogMonitorQueryClass::unregisterCallbacks(bool wait) {
  XRV_TRACE_FN();
  {
    TableMap& map = tableMap();
    PthreadMutexLock lock(map.lock);
    if (!registeredTable_.empty() && map.objects.get(registeredTable_.c_str()) == this) {
      const char* storedKey = nullptr;
      map.objects.remove(registeredTable_.c_str(), &storedKey);
      free(const_cast<char*>(storedKey));
      --map.registered;
    }
    registeredTable_.clear();
  }
  if (wait) {
    for (int inside = callbacksInFlight_.load(); inside != 0; inside = callbacksInFlight_.load()) {
      callbacksInFlight_.wait(inside);
    }
  }
}

int registeredLogMonitorCount() {
  TableMap& map = tableMap();
  PthreadMutexLock lock(map.lock);
  return map.registered;
}

// --- The engine's status and statistics, for the status groups ---

namespace {

template <typename Info>
using EngineGetter = int (*)(XPWP_Handle, int*, Info**);
template <typename Info>
using EngineFreer = int (*)(Info*, int);

// The array the engine's `getter` fills, when the engine runs and has the function;
// else false, with `notLoaded` or `lacking` traced.
template <typename Info>
bool getFromEngine(EngineGetter<Info> XpwEntryPoints::*getter, const char* name,
                   const char* notLoaded, const char* lacking, int* count, Info** info) {
  XRV_TRACE_FN();
  *count = 0;
  *info = nullptr;
  PthreadMutexLock lock(cdpHandleLock());
  const XpwEntryPoints* entry = xpwEntryPoints();
  if (entry == nullptr || cdpHandle() == nullptr) {
    XRV_TRACE_ERROR("%s", notLoaded);
    return false;
  }
  if (entry->*getter == nullptr) {
    XRV_TRACE_ERROR("%s", lacking);
    return false;
  }
  const int rc = (entry->*getter)(cdpHandle(), count, info);
  if (rc != CDP_Success) {
    XRV_TRACE_ERROR("%s returned %d", name, rc);
    *count = 0;
    *info = nullptr;
    return false;
  }
  return true;
}

// Frees what getFromEngine returned; without the engine's `freer` it is left
// allocated, with `leaking` traced.
template <typename Info>
void freeFromEngine(EngineFreer<Info> XpwEntryPoints::*freer, const char* leaking, Info* info,
                    int count) {
  XRV_TRACE_FN();
  const XpwEntryPoints* entry = xpwEntryPoints();
  if (info == nullptr || entry == nullptr) {
    return;
  }
  if (entry->*freer == nullptr) {
    XRV_TRACE_ERROR("%s", leaking);
    return;
  }
  (entry->*freer)(info, count);
}

}  // namespace

bool LogMonitorQueryClass::getMonitoredFileStatus(int* count, XPWP_MonitoredFileInfo_t** info) {
  return getFromEngine(
      &XpwEntryPoints::getMonitoredFileStatus, "XPWP_GetMonitoredFileStatus",
      "Warning: attempt to collect Log File status without XPW library loaded.  This may just be "
      "because initialization is not yet complete.",
      "Error: this version of xpw library does not contain GetMonitoredFileStatus(), can't get "
      "status",
      count, info);
}

void LogMonitorQueryClass::freeMonitoredFileInfo(XPWP_MonitoredFileInfo_t* info, int count) {
  freeFromEngine(&XpwEntryPoints::freeMonitoredFileInfo,
                 "WARNING: Allowing XPWP_MonitoredFileInfo_t to leak due to absence of "
                 "pXPWP_FreeMonitoredFileInfo() function in loaded xpw library",
                 info, count);
}

bool LogMonitorQueryClass::getLogFileRegExStats(int* count, XPWP_LogFileRegExStatistics_t** stats) {
  return getFromEngine(
      &XpwEntryPoints::getLogFileRegExStatistics, "XPWP_GetLogFileRegExStatistics",
      "Warning: attempt to collect Log File RegEx statistics without XPW library loaded.  This "
      "may just be because initialization is not yet complete.",
      "Error: this version of xpw library does not contain GetLogFileRegExStatistics(), can't "
      "get statistics",
      count, stats);
}

void LogMonitorQueryClass::freeLogFileRegexStatistics(XPWP_LogFileRegExStatistics_t* stats,
                                                      int count) {
  freeFromEngine(&XpwEntryPoints::freeLogFileRegexStatistics,
                 "WARNING: Allowing XPWP_LogFileRegExStatistics_t to leak due to absence of "
                 "pXPWP_FreeLogFileRegexStatistics() function in loaded xpw library",
                 stats, count);
}
