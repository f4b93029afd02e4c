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
// Format-file mode (use_qrf, LogMonitorQrf.cpp): every reset reads the group's conf
// and format files (<APP>_CONF_FILE, <APP>_FORMAT_FILE) into an OBVEmitter and a
// QRFConfig, whose MDL text replaces the definition's; a change of either file's
// modification time resets the group at its next collection. Each record is one
// OBVEvent text (LogMonitorQrfRows.cpp): its format gives the class, its slots fill
// Class, msg and the custom attributes they are mapped to, records of the class
// *DISCARD* are dropped, and with <APP>_SEND_OBV_EVENTS the text is also forwarded to
// the conf file's event server.
//
// Status: inactive with NOT_INITIALIZED until the first reset completes; then what
// the engine reports (FILE_OFFLINE while a file is missing) or what went wrong
// (FILE_NAME_MISSING, MISSING_LIBRARY, COMMON_DATA_PROVIDER_NOT_STARTED,
// CALLBACK_REGISTRATION_ERROR, MDL_LOAD_ERROR, ATTRIBUTE_COUNT_MISMATCH,
// ATTRIBUTE_NAME_MISMATCH; in format-file mode also CONF_FILE_DOES_NOT_EXIST,
// INVALID_CONF_FILE, CONF_FILE_ACCESS_DENIED, OBV_INITIALIZATION_FAILED,
// CANNOT_OPEN_FORMAT_FILE, FORMAT_FILE_SYNTAX_ERROR, DUPLICATE_CONF_FILE).
//
// Thread-safety: callbacks arrive on the engine's threads and find their object
// through the process-wide table map, which keeps the object alive during the call.
// `mutex_` guards the per-file samples; the init lock orders the reset-pending check
// against completeReset; cdpHandleLock serialises the work on the engine itself.
// What a format-file reset builds (QrfState) is replaced whole under `qrfLock_`; a
// record takes its own reference to it, so a reset never pulls it from under a record.

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
class OBVEmitter;
class QRFConfig;
struct XpwEntryPoints;

// The slots of one event text, by name: a plain value is a list of one item. The class
// of the record's format is filed under "__QRF_Class_Slot".
using QrfSlotMap = std::map<std::string, std::vector<std::string>>;

class LogMonitorQueryClass : public ResultsManager {
 public:
  // A record's last arrival at least this old closes its file's sample.
  static constexpr int64_t kSampleCompleteMillis = 2000;
  // Pause between two readiness questions while the engine starts a table.
  static constexpr int64_t kReadinessPollMillis = 3000;
  // The binary error log whose records come from the errpt command.
  static constexpr const char* kBinaryErrorLog = "/var/adm/ras/errlog";

  // `mdlTemplate` is the MDL text of the definition; `useQrf` selects format-file mode
  // (the template then comes from the conf and format files); `errptCommand` may be
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
  bool sendsObvEvents() const { return sendObvEvents_; }
  bool isLogNameBasename() const { return logNameIsBasename_.load(); }
  bool includesObvEventAttr() const { return includeObvEventAttr_.load(); }
  // The pipe through which the syslog daemon feeds the group; records from it carry
  // "SysLogD" as their source. Format-file mode takes it from its configuration at
  // every reset; this sets it for a group outside that mode (and drops what a
  // format-file reset built).
  void setSyslogPipeName(const char* pipe);
  // Format-file mode: the conf and format files of the last reset ("" before one).
  std::string getConfFile();
  std::string getFormatFile();
  // The attributes flood control compares, from DupDetectionKeyAttributes; empty: the
  // definition's key attributes.
  std::vector<std::string> getDupDetectionKeys();
  // The event forwarder's counters, when the group forwards OBV events.
  std::string getCollectionDetail() override;
  bool instancesMatch(const ResultInstance* a, const ResultInstance* b) override;

  // --- Format-file mode's event texts (public for tests) ---
  // The OBV event text of the engine's OBVEvent value `text`: "CLASS;" and the slots as
  // name='value'; pairs, then "END"; the tokens %XRV_FILENAME%, %XRV_REGEX% and
  // %XRV_REMHOST% filled in. *formatIndex is the format (-1 without one); *slots gets
  // every slot and the class.
  static std::string expandForQRF(const QRFConfig& config, const char* text, int* formatIndex,
                                  const char* fileName, const char* remoteHost, QrfSlotMap* slots);
  // The values of Class, msg and the custom attributes that the slots of format
  // `formatIndex` are mapped to, by attribute name.
  static void mapQRFCustomSlots(const QRFConfig& config, int formatIndex, const QrfSlotMap& slots,
                                std::map<std::string, std::string>* attributes);
  // The nice value of a ProcessPriorityClass letter (A-F, either case); false for
  // another.
  static bool priorityClassNice(char letter, int* nice);

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
  // --- Format-file mode (LogMonitorQrf.cpp) ---
  struct QrfState;
  // Reads the conf and format files and builds the MDL template from them; false (the
  // status says why) when the group cannot run.
  bool initQRF() XRV_REQUIRES(initLock_);
  // Where <APP>_CONF_FILE and <APP>_FORMAT_FILE point; false when the group must not
  // run (the status says why, or there is nothing to monitor).
  bool readQrfFileNames(std::string* conf, std::string* format) XRV_REQUIRES(initLock_);
  bool createObvEmitter(const std::string& conf, QrfState* state);
  void startObvForwarding(QrfState* state);
  void applyProcessPriority(const OBVEmitter& emitter);
  void readFloodControlKeys(const OBVEmitter& emitter);
  void initializeLogAgentDupDetection(const OBVEmitter& emitter);
  // True when the conf or the format file changed since the last reset read them.
  bool qrfFilesChanged() XRV_REQUIRES(initLock_);
  // Gives up this object's claim on its conf file (DUPLICATE_CONF_FILE).
  void releaseConfClaim();
  std::shared_ptr<const QrfState> qrfState() const XRV_EXCLUDES(qrfLock_);
  void setQrfState(std::shared_ptr<QrfState> state) XRV_EXCLUDES(qrfLock_);

  // --- Format-file mode's records (LogMonitorQrfRows.cpp) ---
  // The record's OBVEvent value made into the event text, its slots mapped onto
  // *values; false when the record is to be dropped (*DISCARD*).
  bool prepareQrfRecord(const QrfState& state, const XPWP_NameValue* pairs, int count,
                        const char* source, const char* remoteHost, std::string* eventText,
                        std::map<std::string, std::string>* values);
  void submitObvEvent(const QrfState& state, const std::string& eventText);
  void expandErrptCommand();
  bool registerCallbacks();
  // `wait`: until no callback is inside this object (never from a callback).
  void unregisterCallbacks(bool wait);
  bool isSubnodeTemplate() const;
  const char* subnodeType() const;

  // Row assembly. In format-file mode `qrfValues` holds the values of the special
  // attributes (Class, msg, CustomSlot*, CustomInteger*, OBVEvent, RemoteHost), and
  // the RemoteHost and OBVEvent pairs are not among `pairs`.
  int expectedPairCount() const;
  const char* sourceAttributeValue(const char* source, const std::string& syslogPipe) const;
  LogMonitorResultInstance* assembleRow(const XPWP_NameValue* pairs, int count, const char* source,
                                        const char* description, const std::string& syslogPipe,
                                        const std::map<std::string, std::string>* qrfValues);
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
  bool sendObvEvents_ = false;
  bool leavePureCacheOnReset_ = false;
  bool envLogNameIsBasename_ = false;  // CDP_LOGNAME_IS_BASENAME
  std::atomic<bool> logNameIsBasename_{false};  // or the conf key LognameIsBasename
  std::atomic<bool> includeObvEventAttr_{false};
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

  // Format-file mode: the files of the last reset and their modification times (ns
  // since the epoch; 0 while missing).
  std::string confFile_ XRV_GUARDED_BY(initLock_);
  std::string formatFile_ XRV_GUARDED_BY(initLock_);
  int64_t confModTime_ XRV_GUARDED_BY(initLock_) = 0;
  int64_t formatModTime_ XRV_GUARDED_BY(initLock_) = 0;
  bool checkQrfFiles_ XRV_GUARDED_BY(initLock_) = false;  // some reset read them
  std::string claimedConf_ XRV_GUARDED_BY(initLock_);     // the conf file this object holds
  mutable PthreadMutex qrfLock_;
  std::shared_ptr<QrfState> qrf_ XRV_GUARDED_BY(qrfLock_);
  std::atomic<bool> hasQrfState_{false};
  // The duplicate-detection keys: attribute name -> its index among the row's values.
  mutable PthreadMutex dupLock_;
  std::map<std::string, int> dupKeys_ XRV_GUARDED_BY(dupLock_);

  // Callbacks inside this object. The last one out wakes a waiter through the
  // atomic itself: nothing of the object is touched after the count drops.
  std::atomic<int> callbacksInFlight_{0};
};
