#pragma once

// LogMonitorQueryClass: the log monitor data source. One object serves one attribute
// group whose rows come from log files. It does not read the files itself: it hands
// the group's MDL text (docs/mdl.md) to the log engine, a library loaded at run time
// (XpwLibrary.h), and receives each matched record back through a data callback as
// name/value pairs, and each change of a file's state through a status callback.
//
// A pure-event group (metadata pure="true") sends every record at once as an event
// row, through the pure-event cache and flood control of ResultsManager. A sampled
// group (//NAME table S) keeps, per log file, the last complete sample: the records
// of one pass over the file, a sample being complete when the engine closes it with
// an empty record or when its last record is 2 seconds old.
//
// Life of an object: start() completes a reset (completeReset: expand and check the
// MDL, load the library and start the engine when it is the first, load the MDL,
// wait until the engine has looked at every file); a configuration change (reset())
// flushes the table in the engine, whose "fully offline" report then has a
// LogMonitorResetJob complete the reset on the worker pool. A subnode's copy
// (subnodeCopy) runs its own table in the engine, named after the template's with
// the subnode key appended.
//
// Status: inactive with NOT_INITIALIZED until the first reset completes; then what
// the engine reports (FILE_OFFLINE while a file is missing) or what went wrong
// (FILE_NAME_MISSING, MISSING_LIBRARY, COMMON_DATA_PROVIDER_NOT_STARTED,
// CALLBACK_REGISTRATION_ERROR, MDL_LOAD_ERROR, ATTRIBUTE_COUNT_MISMATCH,
// ATTRIBUTE_NAME_MISMATCH).
//
// Thread-safety: callbacks arrive on the engine's threads and find their object
// through the process-wide table map, which keeps the object alive during the call.
// `mutex_` guards the per-file samples; the init lock orders the reset-pending check
// against completeReset; cdpHandleLock serialises the work on the engine itself.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/Locks.h"
#include "logengine/engine/xpwp.h"
#include "provider/ResultList.h"
#include "provider/ResultsManager.h"

class LogMonitorResultInstance;
struct XpwEntryPoints;

class LogMonitorQueryClass : public ResultsManager {
 public:
  // A record's last arrival at least this old closes its file's sample.
  static constexpr int64_t kSampleCompleteMillis = 2000;
  // Pause between two readiness questions while the engine starts a table.
  static constexpr int64_t kReadinessPollMillis = 3000;
  // The binary error log whose records come from the errpt command.
  static constexpr const char* kBinaryErrorLog = "/var/adm/ras/errlog";

  // `mdlTemplate` is the MDL text of the definition; `useQrf` selects format-file mode
  // (not available in this build: such a group stays inactive); `errptCommand` may be
  // null.
  LogMonitorQueryClass(const char* applicationName, const char* attributeGroup,
                       const char* mdlTemplate, const char* sourceMapAttr,
                       const char* sourceDescMapAttr, bool useQrf, const char* errptCommand);
  // The copy for the subnode `subnodeKey`: same template and settings, its own table.
  LogMonitorQueryClass(const LogMonitorQueryClass* other, const char* subnodeKey);
  // Stops the callbacks reaching this object, then its table in the engine; the
  // last object to go stops the engine.
  ~LogMonitorQueryClass() override;

  // --- Life ---
  void start() override;
  // Completes the first reset, unless this is a subnode type's template (its copies
  // run the tables).
  void firstCollectDataInit();
  // A configuration change: flushes the table; the reset completes when the engine
  // reports it fully offline (or at once when nothing was loaded).
  void reset() override;
  // The body of start-up and of every reset (see the .cpp for the steps).
  void completeReset();
  // Parent subnode removed: no more rows, and the engine stops the table.
  void setZombie(bool zombie) override;
  UAClientClass* subnodeCopy(const char* subnodeKey, UAClientClassList* list) override;
  // Flushes the table, so that the engine saves its read positions.
  void shutdownExternalProcesses() override;

  // --- Collection ---
  void collectData(const char* subnode) override;
  void internalCollectData(const char* subnode) override;
  // True exactly for a pure-event group: its table is the pure-event cache.
  bool isExpired() override { return isPureEventBased(); }

  // --- From the engine (public for the callbacks and for tests) ---
  // One record of the file `source` (`count` pairs; 0 closes a sample).
  void setInstanceData(const XPWP_NameValue* pairs, int count, const char* source,
                       const char* description);
  // One change of state (0, 1, 3 for a file, 2 for the whole table).
  void statusChanged(const char* source, int status);

  // --- Status ---
  const char* getPerfObjectName() override { return getAttributeGroup(); }
  int getPerfObjectStatus() override { return status_.load(); }
  int getPerfErrorCode() override { return errorCode_.load(); }
  void setPerfObjectStatus(int status);
  void setPerfErrorCode(int code);
  void printResults() override;
  std::vector<std::string> getPropertyNames() override;

  // --- What tests and the status groups read ---
  const std::string& getTableName() const { return tableName_; }
  // The MDL text last handed to the engine (expanded, header rewritten).
  std::string getMdl();
  bool isResetPending() const { return resetPending_.load(); }
  bool isMdlLoaded() const { return mdlLoaded_.load(); }
  bool isDeactivated() const { return deactivated_.load(); }
  const char* getSourceMapAttr() const { return sourceMapAttr_.c_str(); }
  const char* getSourceDescMapAttr() const { return sourceDescMapAttr_.c_str(); }
  const char* getErrptCommand() const { return errptCommand_.c_str(); }
  bool usesQrf() const { return useQrf_; }
  bool sendsRowsAsEvents() const { return sendAsEvent_; }
  bool isLogNameBasename() const { return logNameIsBasename_; }
  // The pipe through which the syslog daemon feeds a format-file group; records from
  // it carry "SysLogD" as their source. Format-file mode sets it from its
  // configuration.
  void setSyslogPipeName(const char* pipe) { syslogPipe_ = pipe == nullptr ? "" : pipe; }

  // The attribute group and subnode key of the object registered for the engine
  // table `table`; false when none is.
  static bool describeTable(const char* table, std::string* group, std::string* subnodeKey);

  void getInitLock() XRV_ACQUIRE(initLock_) { initLock_.lock(); }
  void releaseInitLock() XRV_RELEASE(initLock_) { initLock_.unlock(); }

  // The log monitor object registered for the engine table `table`, or null.
  // Callers in a callback hold a CallbackPin instead (LogMonitorCallbacks.cpp).
  static LogMonitorQueryClass* getQueryClass(const char* table);

  // The engine's status of every followed file, and statistics of every pattern:
  // false (nothing to free) when no library is loaded or it lacks the function.
  static bool getMonitoredFileStatus(int* count, XPWP_MonitoredFileInfo_t** info);
  static void freeMonitoredFileInfo(XPWP_MonitoredFileInfo_t* info, int count);
  static bool getLogFileRegExStats(int* count, XPWP_LogFileRegExStatistics_t** stats);
  static void freeLogFileRegexStatistics(XPWP_LogFileRegExStatistics_t* stats, int count);

  // What a LogMonitorResetJob holds: the object while it lives. completeReset runs
  // under its lock, and the destructor clears it, so a job queued for an object
  // that went meanwhile does nothing.
  struct ResetTarget {
    std::mutex lock;
    LogMonitorQueryClass* object = nullptr;
  };
  std::shared_ptr<ResetTarget> resetTarget() const { return resetTarget_; }

  // The callbacks' side of the table map: objects in a call cannot be destroyed.
  void enterCallback();
  void leaveCallback();

 private:
  // Per log file of a sampled group: the sample being filled and the last complete one.
  struct SourceSample {
    ResultList filling;    // LogMonitorResultInstance rows, oldest first
    ResultList published;  // what the table shows for this file
    int64_t lastRecordMillis = -1;
    bool received = false;  // the engine closed the sample since the last collection
    bool changed = false;   // `filling` differs from `published`
  };

  void readFlags();
  // The step of completeReset that talks to the engine; false when it failed (the
  // status says why).
  bool startEngineAndLoad() XRV_REQUIRES(initLock_);
  bool waitForEngine(const XpwEntryPoints* entry);
  // Completes a reset on a worker (or a thread of this object's when no pool runs).
  void submitResetCompletion();
  // Flushes this table when its MDL is loaded; true when the engine took the flush.
  bool flushTable(bool forReset) XRV_REQUIRES(initLock_);
  // Format-file mode: the hook that will build the MDL text from a .conf and a .fmt
  // file. This build has no format-file support: it says so and the group stays
  // inactive.
  bool initQRF();
  void expandErrptCommand();
  bool registerCallbacks();
  // `wait`: until no callback is inside this object (never from a callback).
  void unregisterCallbacks(bool wait);
  bool isSubnodeTemplate() const;
  const char* subnodeType() const;

  // Row assembly.
  int expectedPairCount() const;
  const char* sourceAttributeValue(const char* source) const;
  LogMonitorResultInstance* assembleRow(const XPWP_NameValue* pairs, int count, const char* source,
                                        const char* description);
  // 2 s since the last record of `sample`: the next record starts a new sample.
  bool isNewResultInstanceListComplete(const SourceSample& sample, int64_t now) const;
  void clearResultSetOfChangedSources() XRV_REQUIRES(mutex_);
  void clearSamples() XRV_EXCLUDES(mutex_);

  std::string mdlTemplate_;
  std::string mdl_ XRV_GUARDED_BY(initLock_);
  std::string tableName_;        // written under the init lock before registration
  std::string registeredTable_;  // the name this object is filed under in the map
  std::string sourceMapAttr_;
  std::string sourceDescMapAttr_;
  bool useQrf_;
  std::string rawErrptCommand_;
  std::string errptCommand_;
  std::string binaryLog_;

  bool sendAsEvent_ = true;
  bool leavePureCacheOnReset_ = false;
  bool logNameIsBasename_ = false;
  std::atomic<bool> started_{false};
  std::atomic<bool> mdlLoaded_{false};
  std::atomic<bool> resetPending_{false};
  std::atomic<bool> deactivated_{false};
  std::atomic<int> status_{PERF_OBJECT_INACTIVE};
  std::atomic<int> errorCode_{NOT_INITIALIZED};
  PthreadMutex initLock_;

  PthreadMutex mutex_;
  std::map<std::string, SourceSample> samples_ XRV_GUARDED_BY(mutex_);

  std::shared_ptr<ResetTarget> resetTarget_ = std::make_shared<ResetTarget>();
  // Makes the status and the error code change together, so that the end of a reset
  // and a file report on the engine's thread cannot interleave.
  PthreadMutex statusLock_;
  std::string syslogPipe_;  // format-file mode names it; "" otherwise

  // Callbacks inside this object. The last one out wakes a waiter through the
  // atomic itself: nothing of the object is touched after the count drops.
  std::atomic<int> callbacksInFlight_{0};
};
