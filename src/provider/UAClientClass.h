#pragma once

// UAClientClass: the base of every data provider. One provider serves one attribute
// group (and, for subnode groups, one copy serves each subnode). It holds the
// group's identity, its metrics, its timing settings, its bookkeeping for scheduling
// and requests, and the rules by which one value is written into a framework row.
//
// The collection operations are ResultsManager's (every concrete data source derives
// from it); they are declared here so that the scheduler and the framework adapter
// can drive any provider.
//
// Thread-safety: time stamps and the expiry test are guarded by the collection
// mutex; the outstanding-request hash by its own lock; the scheduling flags are
// atomic. Identity, metrics and settings are set up before collection starts and
// only read afterwards.

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "definition/Metric.h"
#include "foundation/HashMap.h"
#include "foundation/List.h"
#include "foundation/Locks.h"
#include "framework/FwRequest.h"

class AttributeGroupMeta;
class AttributeMeta;
class GenericAgentBase;
class ResultInstance;
class UAClientClassList;
class UTF8String;

// The kinds of provider, as the data sources pass them to the constructor.
enum UA_CLIENT_CLASS_TYPE {
  UA_SNMP_QUERY = 4,
  UA_SCRIPT = 5,
  UA_JOIN = 6,
  UA_CIM_QUERY = 7,
  UA_CUSTOM_SOCKET = 8,
  UA_ROLLUP = 9,
  UA_LOG_MONITOR = 11,
  UA_CONFIG_DISCOVERY = 13,
  UA_EVENT_LOG = 14,  // counted as purely event-driven; no data source of this platform
  UA_FILTER = 15,
  UA_SNMP_TRAP = 16,
  UA_PING = 17,
  UA_PROCESS = 18,  // the process table: process and process_list
  UA_SSH_SCRIPT = 20,
  UA_AVAILABILITY_LIST = 22,
  UA_STATUS = 23,  // the built-in status groups
};

// Counts and times of a provider's collections, shown by the status groups.
struct PerfStats {
  int64_t collections = 0;          // collections that ran
  int64_t cacheHits = 0;            // requests answered from still-current data
  int64_t lastStartMillis = 0;      // wall-clock start of the last collection
  int64_t lastDurationMillis = -1;  // -1 before the first collection ended
  int64_t maxDurationMillis = 0;
  double averageDurationMillis = -1.0;
};

class UAClientClass : public ListElement {
 public:
  // Copies the names and reads the group's settings (see the .cpp for the table).
  UAClientClass(const char* applicationName, const char* attributeGroup, int objectType);
  // A copy for the subnode `subnodeKey`: identity, type, intervals, flags and metric
  // definitions (shared with `source`, which keeps owning them), empty time stamps
  // and statistics.
  UAClientClass(const UAClientClass* source, const char* subnodeKey);
  ~UAClientClass() override;
  UAClientClass(const UAClientClass&) = delete;
  UAClientClass& operator=(const UAClientClass&) = delete;

  // --- Identity ---
  const char* getApplicationName() const { return applicationName_; }
  const char* getAttributeGroup() const { return attributeGroup_; }
  int getObjectType() const { return objectType_; }
  // The subnode this copy serves; null for a provider that is no subnode copy.
  virtual const char* getSubnodeKey() const { return subnodeKey_; }
  AttributeGroupMeta* getAttributeGroupMeta() const { return meta_; }
  void setAttributeGroupMeta(AttributeGroupMeta* meta) { meta_ = meta; }

  // --- Collection (ResultsManager) ---
  virtual void collectDataIfNeeded(const char* subnode) = 0;
  virtual void collectData(const char* subnode) = 0;
  virtual void clearResultSet() = 0;
  virtual void printResults() = 0;
  // Prepares the provider for its first collection.
  virtual void start();
  // A copy of this provider for the subnode `subnodeKey`, added to `list` when one
  // is given; null when the provider cannot serve subnodes.
  virtual UAClientClass* subnodeCopy(const char* subnodeKey, UAClientClassList* list) = 0;
  // Packs every current row into `agent` (originNode fills the first column).
  virtual void sendDataToAFW(GenericAgentBase* agent, const char* originNode) = 0;
  // Providers this one reads from (joins, rollups): they must outlive it.
  virtual std::vector<UAClientClass*> getQueryReferences() = 0;
  // Stops the child processes and connections this provider started.
  virtual void shutdownExternalProcesses();
  // True while a collection runs.
  virtual bool isCollecting() { return false; }
  // Calls `visit` for each current row, in order, while the rows cannot change; the
  // row is valid only during the call, and `visit` must not call back into this
  // provider. A provider without rows visits nothing.
  virtual void visitRows(const std::function<void(const ResultInstance& row)>& visit);

  // --- What the data source reports (ResultsManager asks its data source) ---
  // These defaults describe a provider without a data source: active, no error.
  virtual const char* getPerfObjectName() { return attributeGroup_; }
  virtual int getPerfObjectStatus() { return 0; }
  virtual int getPerfErrorCode() { return 0; }
  // The return code and standard error of the last command the data source ran (the
  // status groups show them); a copy, safe beside a collection.
  virtual int getCollectionReturnCode() { return 0; }
  virtual std::string getCollectionStdErr() { return ""; }
  // What the data source says about how it collects or why it cannot (the ping
  // source: which ICMP sockets it uses); "" when it has nothing to say.
  virtual std::string getCollectionDetail() { return ""; }

  // --- Where rows are reported ---
  // The managed system name event rows carry; the agent's own when not set (subnode
  // copies get their subnode's). Set before the provider serves requests.
  void setOriginNode(const char* msn) { originNode_.assign(msn == nullptr ? "" : msn); }
  // The managed system name set with setOriginNode; "" when none was.
  const char* getOriginNode() const { return originNode_.c_str(); }

  // --- Requests ---
  // Files the filter of a framework request under its id (a copy).
  virtual void setRequestInfo(const char* id, const std::vector<FwFilter>& filters);
  virtual void removeRequestInfo(const char* id);
  // id -> std::vector<FwFilter>*; walk it only between lock and unlock.
  HashMap* getOutstandingRequests() XRV_REQUIRES(requestLock_) { return &outstandingRequests_; }
  void lockOutstandingRequestHash() XRV_ACQUIRE(requestLock_) { requestLock_.getLock(); }
  void unlockOutstandingRequestHash() XRV_RELEASE(requestLock_) { requestLock_.releaseLock(); }
  // The sampling interval of the request `requestId` (framework requests with an
  // interval file it here, for the interval functions of formulas); forgotten when
  // the request ends. Providers without formulas ignore both.
  virtual void setRequestInterval(const char* /*requestId*/, int /*seconds*/) {}
  virtual void removeRequestInterval(const char* /*requestId*/) {}
  // The rows just sent answered a history request (true) or a current one: rows
  // kept only for history are purged at the next merge.
  virtual void setPreviousRequestHistorical(bool /*historical*/) {}
  // The provider leaves the agent (its subnode went): no more flood-control
  // summaries for it.
  virtual void removeSummaryQuery() {}

  // --- Metrics ---
  virtual void addMetricObject(Metric* metric);
  int getMetricCount() const { return metrics_.getCount(); }
  const List& getMetricList() const { return metrics_; }
  Metric* getMetric(int index) const { return static_cast<Metric*>(metrics_.get(index)); }
  // The metric whose metric name is `name` (exact), or null.
  Metric* getMetricObject(const char* name) const;
  bool doesMetricListContainRatesOrDeltas() const;
  int countRateOrDeltaMetrics() const;

  // --- Time ---
  virtual void updateLastTime();
  virtual void updateStartTime();
  // The last collection's time as CYYMMDDHHMMSSmmm into `buffer` (17 bytes).
  virtual void getTimeStamp(char* buffer);
  int64_t getLastTimeMillis();
  int64_t getStartTimeMillis();
  // True when the data are at least the timeout interval old (never with only
  // forced collections).
  virtual bool isExpired();
  // For a request that must not wait: true, counting a cache hit, when the cached
  // rows are current and no collection is queued; false when one is due.
  virtual bool useCurrentCache();
  int getTimeoutInterval() const { return timeoutInterval_; }
  void setTimeoutInterval(int seconds) { timeoutInterval_ = seconds < 1 ? 1 : seconds; }

  // --- Scheduling ---
  int getRefreshInterval() const { return refreshInterval_.load(); }
  void setRefreshInterval(int seconds) { refreshInterval_.store(seconds); }
  time_t getNextRefresh() const { return nextRefresh_.load(); }
  void setNextRefresh(time_t when) { nextRefresh_.store(when); }
  int getDefaultRateDeltaInterval() const { return defaultRateDeltaInterval_; }
  int getTimeFudge() const { return rateDeltaTimeVariation_; }
  bool isThreadPoolEligible() const { return threadPoolEligible_.load(); }
  void setThreadPoolEligible(bool eligible) { threadPoolEligible_.store(eligible); }
  bool isPureEventBased() const { return pureEventBased_.load(); }
  void setPureEventBased(bool pure);
  bool isOnlyForcedCollections() const { return onlyForcedCollections_; }
  void setOnlyForcedCollections(bool only) { onlyForcedCollections_ = only; }
  bool isOnQueue() const { return onQueue_.load(); }
  void setOnQueue(bool onQueue) { onQueue_.store(onQueue); }
  // Sets the on-queue mark and says whether this caller set it: of the refresh thread
  // and a request racing to submit the same provider, exactly one wins.
  bool markOnQueue() {
    bool expected = false;
    return onQueue_.compare_exchange_strong(expected, true);
  }
  // Requests that hold this provider: true marks one more, false ends one (never
  // below none), so that two requests on one subnode do not clear each other's mark.
  bool genericAgentInUse() const { return genericAgentInUse_.load() > 0; }
  void setGenericAgentInUse(bool inUse);
  void countSkippedInterval() { ++skippedIntervals_; }
  int64_t getSkippedIntervals() const { return skippedIntervals_.load(); }
  bool isZombie() const { return zombie_.load(); }
  virtual void setZombie(bool zombie) { zombie_.store(zombie); }

  // --- Statistics ---
  // A copy, consistent with itself.
  PerfStats getPerfstats();

  // --- Writing values into a framework row ---
  // `row` is the group's row buffer; `attribute` says where the value goes. Nothing
  // is written for an attribute without a place (offset -1) or of the wrong kind.
  static void putInt64(char* row, const AttributeMeta* attribute, long long value);
  static void putUInt64(char* row, const AttributeMeta* attribute, unsigned long long value);
  static void putInt(char* row, const AttributeMeta* attribute, int value);
  // At most the column's size in bytes; `convert`: `text` is in the local code page
  // and is converted to UTF-8 first. The rest of the column stays as it was (zeros).
  static void putString(char* row, const AttributeMeta* attribute, const char* text, bool convert);
  // The UTF-8 bytes, the rest of the column padded with spaces.
  static void putUTF8String(char* row, const AttributeMeta* attribute, const UTF8String* text);
  // When the last character of the `length` bytes at `buffer` is cut off by the end,
  // replaces its bytes with `pad`.
  static void fixUtf8Trucation(int length, char* buffer, char pad);
  // Hands one packed row to the framework: 0 when sent, 1 when lost.
  static int sendRowToAFW(GenericAgentBase* agent, const char* row, int length);

  // CYYMMDDHHMMSSmmm of a time in seconds (milliseconds 000); "0000000000000001" for 0.
  static void formatTimeStamp(time_t seconds, char* buffer, size_t size);
  // The same for milliseconds since the epoch, local time.
  static void formatTimeStampMillis(int64_t millis, char* buffer, size_t size);

  // --- Status texts that data sources map to error codes ---
  // Files `enumText` -> `errorCode` in the process-wide table (definition time).
  static void addPerfObjEnum(const char* enumText, const char* errorCode);
  // The error code filed for `enumText`, or null.
  static const char* isAgentPerfObjEnum(const char* enumText);

 protected:
  // For the collection statistics.
  void recordCollection(int64_t startMillis, int64_t endMillis);
  void recordCacheHit();

 private:
  void readSettings();

  char* applicationName_;
  char* attributeGroup_;
  int objectType_;
  PthreadMutex collectionMutex_;
  std::atomic<bool> threadPoolEligible_{true};
  int64_t startMillis_ XRV_GUARDED_BY(collectionMutex_) = 0;
  int64_t lastMillis_ XRV_GUARDED_BY(collectionMutex_) = 0;
  int timeoutInterval_ = 30;
  std::atomic<bool> pureEventBased_{false};
  bool onlyForcedCollections_ = false;
  std::atomic<bool> zombie_{false};
  char* subnodeKey_ = nullptr;
  std::string originNode_;
  HashMap outstandingRequests_ XRV_GUARDED_BY(requestLock_);  // owned keys and filter lists
  LockObject requestLock_;
  std::atomic<bool> onQueue_{false};
  std::atomic<int> genericAgentInUse_{0};
  std::atomic<int64_t> skippedIntervals_{0};
  std::atomic<int> refreshInterval_{0};
  std::atomic<time_t> nextRefresh_{0};
  int rateDeltaTimeVariation_ = 2;
  int defaultRateDeltaInterval_ = 0;
  List metrics_;             // of Metric*, in definition order
  bool ownsMetrics_ = true;  // false for subnode copies
  AttributeGroupMeta* meta_ = nullptr;
  PthreadMutex statsMutex_;
  PerfStats stats_ XRV_GUARDED_BY(statsMutex_);
};
