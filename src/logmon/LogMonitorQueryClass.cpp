// The log monitor object's life: construction, start, resets and the engine.

#include "logmon/LogMonitorQueryClass.h"

#include <cstdlib>
#include <cstring>

#include "definition/AttributeGroupMeta.h"
#include "foundation/Utilities.h"
#include "framework/FwClock.h"
#include "framework/Settings.h"
#include "framework/Trace.h"
#include "logmon/LogMonitorCallbacks.h"
#include "logmon/LogMonitorMdl.h"
#include "logmon/LogMonitorResetJob.h"
#include "logmon/XpwLibrary.h"
#include "provider/UAClientClassList.h"

namespace {

std::string orEmpty(const char* text) { return text == nullptr ? std::string() : text; }

// `text` with configuration properties expanded (all names, the subnode's first).
std::string expanded(const std::string& text, const char* subnodeType, const char* subnodeKey) {
  char* result = Utilities::substituteEnvVars(
      text.c_str(), subnodeKey == nullptr ? nullptr : subnodeType, subnodeKey, true);
  std::string out = orEmpty(result);
  free(result);
  return out;
}

// What is wrong with the //SOURCE FILE line, or null when nothing is.
const char* sourceFileProblem(logmon::SourceFileCheck check) {
  switch (check) {
    case logmon::SourceFileCheck::Found:
      break;
    case logmon::SourceFileCheck::NoLine:
      return "//SOURCE FILE , after configuration property substitution, cannot be found";
    case logmon::SourceFileCheck::NoQuote:
      return "//SOURCE FILE , after configuration property substitution, cannot find opening "
             "quote";
    case logmon::SourceFileCheck::EmptyName:
      return "The log file name, after configuration property substitution, is empty";
  }
  return nullptr;
}

}  // namespace

// --- Construction ---

LogMonitorQueryClass::LogMonitorQueryClass(const char* applicationName, const char* attributeGroup,
                                           const char* mdlTemplate, const char* sourceMapAttr,
                                           const char* sourceDescMapAttr, bool useQrf,
                                           const char* errptCommand)
    : ResultsManager(applicationName, attributeGroup, UA_LOG_MONITOR),
      mdlTemplate_(orEmpty(mdlTemplate)),
      sourceMapAttr_(orEmpty(sourceMapAttr)),
      sourceDescMapAttr_(orEmpty(sourceDescMapAttr)),
      useQrf_(useQrf),
      rawErrptCommand_(orEmpty(errptCommand)) {
  XRV_TRACE_FN();
  resetTarget_->object = this;
  readFlags();
  expandErrptCommand();
}

LogMonitorQueryClass::LogMonitorQueryClass(const LogMonitorQueryClass* other,
                                           const char* subnodeKey)
    : ResultsManager(other, subnodeKey),
      mdlTemplate_(other->mdlTemplate_),
      sourceMapAttr_(other->sourceMapAttr_),
      sourceDescMapAttr_(other->sourceDescMapAttr_),
      useQrf_(other->useQrf_),
      rawErrptCommand_(other->rawErrptCommand_),
      sendAsEvent_(other->sendAsEvent_),
      sendObvEvents_(other->sendObvEvents_),
      leavePureCacheOnReset_(other->leavePureCacheOnReset_),
      envLogNameIsBasename_(other->envLogNameIsBasename_),
      logNameIsBasename_(other->envLogNameIsBasename_) {
  XRV_TRACE_FN();
  resetTarget_->object = this;
  expandErrptCommand();
}

LogMonitorQueryClass::~LogMonitorQueryClass() {
  XRV_TRACE_FN();
  {
    // Waits for a reset job that runs now; jobs still queued find nothing.
    std::lock_guard<std::mutex> lock(resetTarget_->lock);
    resetTarget_->object = nullptr;
  }
  unregisterCallbacks(true);
  {
    PthreadMutexLock init(initLock_);
    if (!deactivated_.load()) {
      flushTable(false);
    }
  }
  releaseConfClaim();
  setQrfState(nullptr);  // stops forwarding
  PthreadMutexLock cdp(cdpHandleLock());
  const XpwEntryPoints* entry = xpwEntryPoints();
  if (registeredLogMonitorCount() == 0 && cdpHandle() != nullptr && entry != nullptr &&
      entry->stopCommonProvider != nullptr) {
    XRV_TRACE_DETAIL("No log monitor group is left, stopping xpw");
    entry->stopCommonProvider(cdpHandle());
    cdpHandle() = nullptr;
  }
}

void LogMonitorQueryClass::readFlags() {
  XRV_TRACE_FN();
  using XRV::Setting;
  const XRV::SettingContext here = XRV_SETTING_HERE();
  sendAsEvent_ = XRV::settingFlag(Setting::ApplicationSendPqlEvents,
                                  here.forApplication(getApplicationName()));
  sendObvEvents_ = XRV::settingFlag(Setting::ApplicationSendObvEvents,
                                    here.forApplication(getApplicationName()));
  leavePureCacheOnReset_ = XRV::settingFlag(Setting::LeavePureCacheOnReset, here);
  envLogNameIsBasename_ = XRV::settingFlag(Setting::LognameIsBasename, here);
  logNameIsBasename_.store(envLogNameIsBasename_);
}

// The template of a subnode type keeps the command as written: each copy expands it
// with its own subnode's configuration.
void LogMonitorQueryClass::expandErrptCommand() {
  XRV_TRACE_FN();
  if (rawErrptCommand_.empty()) {
    return;
  }
  if (isSubnodeTemplate()) {
    errptCommand_ = rawErrptCommand_;
    binaryLog_.clear();
    return;
  }
  errptCommand_ = expanded(rawErrptCommand_, subnodeType(), getSubnodeKey());
  binaryLog_ = kBinaryErrorLog;
  XRV_TRACE_DETAIL("Varex errpt command specified, expanded cmd = \"%s\", using binary log \"%s\"",
                   errptCommand_.c_str(), binaryLog_.c_str());
}

const char* LogMonitorQueryClass::subnodeType() const {
  const AttributeGroupMeta* meta = getAttributeGroupMeta();
  if (meta == nullptr) {
    meta = findAttributeGroupMeta(getAttributeGroup());
  }
  return meta == nullptr ? nullptr : meta->subnodeType();
}

bool LogMonitorQueryClass::isSubnodeTemplate() const {
  return subnodeType() != nullptr && getSubnodeKey() == nullptr;
}

UAClientClass* LogMonitorQueryClass::subnodeCopy(const char* subnodeKey, UAClientClassList* list) {
  XRV_TRACE_FN();
  auto* copy = new LogMonitorQueryClass(this, subnodeKey);
  if (list != nullptr) {
    list->addClientClass(copy);
  }
  return copy;
}

// --- Status ---

void LogMonitorQueryClass::setPerfObjectStatus(int status) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Object status being set to: %s", perfObjectStatusName(status));
  status_.store(status);
}

void LogMonitorQueryClass::setPerfErrorCode(int code) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Errror code being set to: %s", perfObjectErrorCodeName(code));
  errorCode_.store(code);
}

std::string LogMonitorQueryClass::getMdl() {
  PthreadMutexLock init(initLock_);
  return mdl_;
}

std::vector<std::string> LogMonitorQueryClass::getPropertyNames() {
  XRV_TRACE_FN();
  std::vector<std::string> names = ResultsManager::getPropertyNames();
  for (XRV::Setting id : {XRV::Setting::ApplicationSendPqlEvents}) {
    names.push_back(XRV::settingName(id, getApplicationName()));
  }
  if (useQrf_) {
    for (XRV::Setting id :
         {XRV::Setting::ApplicationConfFile, XRV::Setting::ApplicationFormatFile,
          XRV::Setting::ApplicationSendObvEvents, XRV::Setting::ApplicationProcessPriorityClass,
          XRV::Setting::ApplicationAutoInitSyslog}) {
      names.push_back(XRV::settingName(id, getApplicationName()));
    }
    names.push_back(XRV::settingName(XRV::Setting::ProcessMaxCpuPct));
  }
  for (XRV::Setting id : {XRV::Setting::LeavePureCacheOnReset, XRV::Setting::LognameIsBasename,
                          XRV::Setting::AgentLibDir, XRV::Setting::LogPositionsDir}) {
    names.push_back(XRV::settingName(id));
  }
  return names;
}

void LogMonitorQueryClass::printResults() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Log monitor %s: table %s, status %s, error code %s", getAttributeGroup(),
                   tableName_.c_str(), perfObjectStatusName(status_.load()),
                   perfObjectErrorCodeName(errorCode_.load()));
  printResultInstances();
}

// --- Start and resets ---

void LogMonitorQueryClass::start() {
  XRV_TRACE_FN();
  ResultsManager::start();  // flood control and filter (reset() before started_)
  started_.store(true);
  firstCollectDataInit();
}

void LogMonitorQueryClass::firstCollectDataInit() {
  XRV_TRACE_FN();
  if (isSubnodeTemplate()) {
    XRV_TRACE_DETAIL("not starting subnode type %s template for attribute group %s", subnodeType(),
                     getAttributeGroup());
    return;
  }
  resetPending_.store(true);
  // On the pool the loader goes on while the engine looks at the files; without one
  // the first reset completes here.
  auto* job = new LogMonitorResetJob(this);
  if (!submitThreadPoolJob(job)) {
    delete job;
    completeReset();
  }
}

void LogMonitorQueryClass::reset() {
  XRV_TRACE_FN();
  ResultsManager::reset();
  if (!started_.load() || isSubnodeTemplate()) {
    return;
  }
  if (const XpwEntryPoints* entry = xpwEntryPoints()) {
    if (entry->flushCommonProviderTable == nullptr && entry->flushCommonProvider == nullptr) {
      XRV_TRACE_ERROR(
          "ERROR: received request to reset, but loaded xpw library does not support "
          "XPWP_FlushCommonProvider or XPWP_FlushCommonProviderTable.");
      XRV_TRACE_ERROR("Ignoring reset request, continuing as before.");
      return;
    }
    if (entry->flushCommonProviderTable == nullptr) {
      XRV_TRACE_ERROR(
          "WARNING: received request to reset, but loaded xpw library only supports "
          "XPWP_FlushCommonProvider, not XPWP_FlushCommonProviderTable.");
      XRV_TRACE_ERROR("This means all tables will be shut down together.");
    }
  }
  bool flushed = false;
  {
    PthreadMutexLock init(initLock_);
    resetPending_.store(true);
    flushed = flushTable(true);
  }
  if (!flushed) {
    XRV_TRACE_DETAIL("Didn't flush xpw, so completing reset now");
    completeReset();
  }
}

bool LogMonitorQueryClass::flushTable(bool forReset) {
  XRV_TRACE_FN();
  const XpwEntryPoints* entry = xpwEntryPoints();
  if (!mdlLoaded_.load() || entry == nullptr) {
    return false;
  }
  XPWP_Handle handle = nullptr;
  {
    PthreadMutexLock cdp(cdpHandleLock());
    handle = cdpHandle();
  }
  int rc = CDP_Failure;
  if (entry->flushCommonProviderTable != nullptr) {
    if (forReset) {
      XRV_TRACE_DETAIL("reset() flushing xpwp table %s", tableName_.c_str());
    } else {
      XRV_TRACE_DETAIL("Flushing xpwp table %s", tableName_.c_str());
    }
    rc = entry->flushCommonProviderTable(handle, tableName_.c_str());
  } else if (forReset && entry->flushCommonProvider != nullptr) {
    XRV_TRACE_DETAIL("reset() flushing all xpwp tables for table %s", tableName_.c_str());
    rc = entry->flushCommonProvider(handle);
  } else {
    XRV_TRACE_ERROR("WARNING: loaded xpw library cannot stop table %s alone; it runs on",
                    tableName_.c_str());
    return false;
  }
  mdlLoaded_.store(false);
  if (rc != CDP_Success) {
    XRV_TRACE_ERROR("WARNING: table %s not found in xpw; flush failed", tableName_.c_str());
    return false;
  }
  return true;
}

// The body of start-up and of every reset:
//  1. forget the rows (and, unless told otherwise, the pure-event cache);
//  2. format-file mode: build the template from its files (initQRF, which also sets up
//     the duplicate-detection keys);
//  3. expand configuration properties in the template;
//  4. a subnode's copy: rewrite the //APPL and //NAME header lines;
//  5. check the //SOURCE FILE line;
//  6. a sampled group: now is the last collection;
//  7. load the library and start the engine when this is the first group;
//  8. load the MDL text; 9. wait until the engine looked at every file;
// 10. report the outcome. Each failure sets the status and ends the reset.
void LogMonitorQueryClass::completeReset() {
  XRV_TRACE_FN();
  PthreadMutexLock init(initLock_);
  struct PendingDone {
    std::atomic<bool>& pending;
    ~PendingDone() { pending.store(false); }
  } pendingDone{resetPending_};

  clearResultSet();
  clearNewResultSet();
  clearSamples();
  if (!leavePureCacheOnReset_) {
    XRV_TRACE_DETAIL("Clearing pure event cache");
    clearPureCache();
  }
  if (deactivated_.load()) {
    return;
  }
  if (useQrf_ && !initQRF()) {
    XRV_TRACE_ERROR("QRF monitor with no QRFconfig, not starting");
    return;
  }

  const char* type = subnodeType();
  const char* key = getSubnodeKey();
  mdl_ = expanded(mdlTemplate_, type, key);
  std::string table = logmon::mdlHeaderName(mdl_, "//NAME ");
  if (key != nullptr) {
    table = logmon::subnodeTableName(table, key);
    if (!logmon::rewriteSubnodeHeader(&mdl_, type, key, table)) {
      XRV_TRACE_ERROR(
          "MDL of attribute group %s lacks //APPL or //NAME, not rewritten for subnode %s",
          getAttributeGroup(), key);
    }
  }
  tableName_ = table.empty() ? getAttributeGroup() : table;

  if (const char* problem = sourceFileProblem(logmon::checkSourceFile(mdl_, nullptr))) {
    XRV_TRACE_ERROR("%s", problem);
    setPerfObjectStatus(PERF_OBJECT_INACTIVE);
    setPerfErrorCode(FILE_NAME_MISSING);
    return;
  }
  if (!isPureEventBased()) {
    updateLastTime();
  }

  if (startEngineAndLoad()) {
    // A file found missing meanwhile is reported again by the engine at its next look
    // for it (FileExistTimeToWait), which makes the group FILE_OFFLINE again.
    PthreadMutexLock status(statusLock_);
    setPerfObjectStatus(PERF_OBJECT_ACTIVE);
    setPerfErrorCode(OBJECT_ACTIVE);
    XRV_TRACE_DETAIL("xpw initialization complete");
  } else {
    XRV_TRACE_ERROR("xpw initialization failed, not starting sub-providers.");
  }
}

bool LogMonitorQueryClass::startEngineAndLoad() {
  XRV_TRACE_FN();
  const XpwEntryPoints* entry = nullptr;
  XPWP_Handle handle = nullptr;
  {
    PthreadMutexLock cdp(cdpHandleLock());
    entry = loadXpwLibrary(getApplicationName());
    if (entry == nullptr) {
      setPerfObjectStatus(PERF_OBJECT_INACTIVE);
      setPerfErrorCode(MISSING_LIBRARY);
      return false;
    }
    if (!registerCallbacks()) {
      setPerfObjectStatus(PERF_OBJECT_INACTIVE);
      setPerfErrorCode(GENERIC_ERROR);
      return false;
    }
    if (cdpHandle() == nullptr) {
      passLogPositionsDirectory();
      XPWP_Handle started = nullptr;
      const int rc = entry->startCommonProvider == nullptr
                         ? CDP_Failure
                         : entry->startCommonProvider(&started, XPWP_START_THREADED);
      if ((rc != CDP_Success && rc != CDP_Already_Started) || started == nullptr) {
        XRV_TRACE_ERROR("Failed starting UA common data provider.");
        setPerfObjectStatus(PERF_OBJECT_INACTIVE);
        setPerfErrorCode(COMMON_DATA_PROVIDER_NOT_STARTED);
        return false;
      }
      if (entry->registerStatusCallback == nullptr ||
          entry->registerStatusCallback(started, statusCallbackFunc) != CDP_Success) {
        XRV_TRACE_ERROR("Failed to register status callback");
      }
      if (entry->registerDataCallback == nullptr ||
          entry->registerDataCallback(started, dataCallbackFunc) != CDP_Success) {
        XRV_TRACE_ERROR("Failed to register data callback");
        setPerfObjectStatus(PERF_OBJECT_INACTIVE);
        setPerfErrorCode(CALLBACK_REGISTRATION_ERROR);
        // An engine that cannot report records is no use: the next reset tries anew.
        if (entry->stopCommonProvider != nullptr) {
          entry->stopCommonProvider(started);
        }
        return false;
      }
      cdpHandle() = started;
      fwSleepMillis(1000);
    }
    handle = cdpHandle();
  }

  XRV_TRACE_DETAIL("Loading mdl of table %s:\n%s", tableName_.c_str(), mdl_.c_str());
  const int rc = entry->loadMetafile == nullptr
                     ? CDP_Failure
                     : entry->loadMetafile(handle, mdl_.c_str(), mdl_.size() + 1);
  if (rc != CDP_Success) {
    XRV_TRACE_ERROR("Failed to load mdl");
    setPerfObjectStatus(PERF_OBJECT_INACTIVE);
    setPerfErrorCode(MDL_LOAD_ERROR);
    return false;
  }
  mdlLoaded_.store(true);
  return waitForEngine(entry);
}

bool LogMonitorQueryClass::waitForEngine(const XpwEntryPoints* entry) {
  XRV_TRACE_FN();
  if (entry->areAllFileThreadsStartedTable == nullptr &&
      entry->areAllFileThreadsStarted == nullptr) {
    XRV_TRACE_ERROR(
        "WARNING: loaded xpw library cannot tell when its file threads have started; "
        "sub-providers may start before xpw is ready");
    return true;
  }
  for (int round = 1;; ++round) {
    int answer = CDP_Failure;
    {
      PthreadMutexLock cdp(cdpHandleLock());
      answer = entry->areAllFileThreadsStartedTable != nullptr
                   ? entry->areAllFileThreadsStartedTable(cdpHandle(), tableName_.c_str())
                   : entry->areAllFileThreadsStarted(cdpHandle());
    }
    if (answer == CDP_All_File_Threads_Started) {
      return true;
    }
    if (answer == CDP_Invalid_Handle) {
      XRV_TRACE_ERROR(
          "ERROR: XPWP_AreAllFileThreadsStarted returned CDP_Invalid_Handle (%d) giving up "
          "waiting",
          answer);
      setPerfObjectStatus(PERF_OBJECT_INACTIVE);
      setPerfErrorCode(COMMON_DATA_PROVIDER_NOT_STARTED);
      return false;
    }
    if (answer == CDP_Table_Not_Found || deactivated_.load()) {
      // Flushed meanwhile: the reset that did it loads the table again.
      XRV_TRACE_ERROR("Table %s left xpw while waiting for it, giving up waiting",
                      tableName_.c_str());
      return false;
    }
    fwSleepMillis(kReadinessPollMillis);
    if (round % 10 == 0) {
      XRV_TRACE_DETAIL("Table %s still waiting for xpw to initialize after %d seconds",
                       tableName_.c_str(), 3 * round);
    }
  }
}

void LogMonitorQueryClass::setZombie(bool zombie) {
  XRV_TRACE_FN();
  UAClientClass::setZombie(zombie);
  if (!zombie || deactivated_.exchange(true)) {
    return;
  }
  XRV_TRACE_DETAIL("Parent subnode has been removed, telling UA to stop log monitoring");
  unregisterCallbacks(false);
  PthreadMutexLock init(initLock_);
  flushTable(false);
}

void LogMonitorQueryClass::shutdownExternalProcesses() {
  XRV_TRACE_FN();
  PthreadMutexLock init(initLock_);
  flushTable(false);
}
