#pragma once

// ResultsManager: the data provider that owns result rows; every concrete data
// source derives from it and supplies only internalCollectData (which fills the new
// list through addResultInstance) and its status.
//
// One collection: the data source fills the new list; deltas and rates are computed
// from the previous sample; derived attributes are computed; updateResults merges
// the new rows into the active list (replacing it, or replacing rows by key and
// purging old ones); the filter marks each row. The framework adapter packs the
// active rows on request (sendDataToAFW). Rows that arrive as events go through
// sendEventData: derived values, filter, flood control, the pure-event cache, and
// out to the framework at once.
//
// Locks, always taken in this order: the collection mutex (one collection at a
// time; a second caller returns at once), the results lock, the new-results lock;
// the pure-event cache has its own lock, and all derived calculation of the process
// is serialised by one global lock.

#include <atomic>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "foundation/HashMap.h"
#include "foundation/Locks.h"
#include "foundation/String.h"
#include "provider/PerfObject.h"
#include "provider/ResultList.h"
#include "provider/UAClientClass.h"

class AttributeMeta;
class PrevResult;
class PrevResultInstance;
class ResultInstance;
class ResultMetric;
class ResultsManager;

// Whether a derived calculation updates the interval data of its expressions
// (sampling) or only reads them (answering a request).
enum StorageBehavior {
  STORE_INTERVAL_DATA,
  READ_INTERVAL_DATA,
};

// Flood-control thresholds of event groups; N >= 1 sends every N-th duplicate.
enum FLOOD_THRESHOLD {
  EVENT_SEND_NONE = -1,
  EVENT_SEND_FIRST = -2,
  EVENT_SEND_ALL = -3,
};

// The values a derived attribute can use while it is computed: the row's values in
// attribute order, then the derived values computed before it.
struct DerivedInputs {
  const ResultMetric* const* values;
  int count;
};

// What the expression language keeps per provider between calculations (the
// samples of its interval functions). Owned by the provider; touched only under the
// derived calculation lock.
class DerivedState {
 public:
  virtual ~DerivedState() = default;
  // Forgets everything kept (after a historical request).
  virtual void purge() = 0;
};

// The expression language computes formula attributes through this hook: a new
// ResultMetric for `metric` in `row` (null when it cannot). Installed by the library
// that provides the language; without one a formula attribute reports -1. Called
// with the derived calculation lock held.
using DerivedEvaluator = ResultMetric* (*)(ResultsManager* provider, const Metric* metric,
                                           const ResultInstance* row,
                                           const DerivedInputs& inputs, const char* requestId,
                                           StorageBehavior behavior);
void registerDerivedEvaluator(DerivedEvaluator evaluator);

// What a filter made of one row.
struct FilterResult {
  bool passes = false;
  std::string error;     // set when the filter could not be evaluated on the row
  int expectedType = 0;  // when the filter gave no boolean: the boolean's type and
  int returnedType = 0;  // the type it gave (the expression language's numbers)
};

// A row filter, parsed from a group's filter expression. Thread-safe.
class RowFilter {
 public:
  virtual ~RowFilter() = default;
  virtual void evaluate(const ResultInstance& row, FilterResult* result) const = 0;
};
// Parses a filter text of one grammar ("filter" or "expression"); null with *error
// set when it does not parse.
using RowFilterParser = RowFilter* (*)(const char* text, std::string* error);
void registerRowFilterParser(const char* grammar, RowFilterParser parser);

class ResultsManager : public UAClientClass {
 public:
  ResultsManager(const char* applicationName, const char* attributeGroup, int objectType);
  // A copy for a subnode: metrics and settings, no rows.
  ResultsManager(const ResultsManager* source, const char* subnodeKey);
  ~ResultsManager() override;

  // --- The collection cycle ---
  // Collects when the data have expired, else counts a cache hit.
  void collectDataIfNeeded(const char* subnode) override;
  bool useCurrentCache() override;
  void collectData(const char* subnode) override;
  // The data source's part: fill the new list (addResultInstance).
  virtual void internalCollectData(const char* subnode) = 0;
  // True while a collection runs.
  bool isCollecting();
  // Reads the flood control and filter settings; start() runs it once, a
  // configuration change again.
  virtual void reset();
  void start() override;

  // --- What the data source reports ---
  virtual const char* getPerfObjectName() = 0;
  virtual int getPerfObjectStatus() = 0;
  virtual int getPerfErrorCode() = 0;
  // The return code and standard error of the last command the data source ran (the
  // status groups show them); a copy, safe beside a collection.
  virtual int getCollectionReturnCode() { return 0; }
  virtual std::string getCollectionStdErr() { return ""; }
  // The configuration properties the provider reads.
  virtual std::vector<std::string> getPropertyNames();
  UAClientClass* subnodeCopy(const char* subnodeKey, UAClientClassList* list) override;
  // Also files derived attributes in the derived list.
  void addMetricObject(Metric* metric) override;
  std::vector<UAClientClass*> getQueryReferences() override { return {}; }

  // --- Rows ---
  // Appends to the new list (the data source, from internalCollectData). The
  // provider owns the row from now on.
  void addResultInstance(ResultInstance* row) XRV_EXCLUDES(newResultsLock_);
  // Appends to (or puts at the head of) the active list directly.
  void addResultInstanceDirectly(ResultInstance* row) XRV_EXCLUDES(resultsLock_);
  void addHeadResultInstance(ResultInstance* row) XRV_EXCLUDES(resultsLock_);
  // Unlinks and deletes an active row.
  void removeResultInstance(ResultInstance* row) XRV_EXCLUDES(resultsLock_);
  void removeNewResultInstance(ResultInstance* row, bool deleteIt) XRV_EXCLUDES(newResultsLock_);
  void clearResultSet() override XRV_EXCLUDES(resultsLock_);
  void clearNewResultSet() XRV_EXCLUDES(newResultsLock_);
  void clearPrevResultList();
  int getResultInstanceCount() XRV_EXCLUDES(resultsLock_);
  // The first active / new row; walk on with ResultList::next(). Hold the matching
  // lock while walking.
  ResultInstance* firstResultInstance() XRV_REQUIRES(resultsLock_) { return active_.head(); }
  ResultInstance* firstNewResultInstance() XRV_REQUIRES(newResultsLock_) {
    return newResults_.head();
  }
  void acquireResultsLock() XRV_ACQUIRE(resultsLock_);
  void releaseResultsLock() XRV_RELEASE(resultsLock_);
  void acquireNewResultsLock() XRV_ACQUIRE(newResultsLock_) { newResultsLock_.lock(); }
  void releaseNewResultsLock() XRV_RELEASE(newResultsLock_) { newResultsLock_.unlock(); }
  // Merges the new list into the active list.
  virtual void updateResults() XRV_EXCLUDES(resultsLock_, newResultsLock_);
  // The previous sample was requested for history: interval data are purged once.
  void setPreviousRequestHistorical(bool historical) { previousRequestHistorical_ = historical; }
  bool isPreviousRequestHistorical() const { return previousRequestHistorical_; }

  // --- Deltas, rates and derived attributes ---
  void processRatesDeltas() XRV_EXCLUDES(resultsLock_, newResultsLock_);
  void computeRateDelta(PrevResult* previous, ResultMetric* current);
  // The same with the sample's time given: one sample reads the clock once.
  void computeRateDelta(PrevResult* previous, ResultMetric* current, time_t now);
  PrevResultInstance* getPrevResultInstance(const char* name);
  PrevResult* getPrevResult(ResultMetric* metric, PrevResultInstance* instance);
  // Derived values of the new rows, or of the active rows when the new list is empty.
  void calculateDerived(const char* requestId, StorageBehavior behavior);
  void internalCalculateDerived(const char* requestId, ResultInstance* row,
                                StorageBehavior behavior);
  int getDerivedMetricCount() const { return static_cast<int>(derivedMetrics_.size()); }
  static void initGlobalDerivedLock();
  // The expression language's data for this provider; null until it sets some. Only
  // from inside a DerivedEvaluator call (the derived calculation lock held).
  DerivedState* getDerivedState() { return derivedState_.get(); }
  void setDerivedState(std::unique_ptr<DerivedState> state) { derivedState_ = std::move(state); }
  // The sampling interval of the request `requestId` (framework requests with an
  // interval file it here); 0 when unknown.
  void setRequestInterval(const char* requestId, int seconds);
  // The request has ended: forgets its interval (nothing when it had none).
  void removeRequestInterval(const char* requestId);
  int getRequestInterval(const char* requestId);

  // --- Filter ---
  void checkFilter() XRV_EXCLUDES(resultsLock_);
  bool resultPassesFilter(ResultInstance* row);

  // --- Packing rows for the framework ---
  void sendDataToAFW(GenericAgentBase* agent, const char* originNode) override
      XRV_EXCLUDES(resultsLock_);
  // An event row arrived: derived values, filter, flood control and the cache
  // decide whether it is sent and kept. True when the provider kept the row; false
  // when the caller still owns it and must delete it.
  bool sendEventData(ResultInstance* row, StorageBehavior behavior);
  // Packs one event row and hands it to the group's table server: 0 when sent.
  virtual int sendEventDataToAFW(ResultInstance* row);

  // --- Pure-event cache and flood control ---
  // Under the cache lock: finds a duplicate, stores or replaces, and decides. True
  // when the row is to be sent; *stored tells whether the cache kept it.
  bool updatePureCache(ResultInstance* row, bool* stored) XRV_REQUIRES(pureCacheLock_);
  // Puts the row at the head of the cache and trims it; false when the cache holds
  // nothing (size 0).
  bool addToPureCache(ResultInstance* row) XRV_REQUIRES(pureCacheLock_);
  void clearPureCache() XRV_EXCLUDES(pureCacheLock_);
  int getPureCacheCount() XRV_EXCLUDES(pureCacheLock_);
  // Same key values (hidden ones skipped) and the same derived values.
  bool instancesMatch(const ResultInstance* a, const ResultInstance* b);
  // Marks every cached event that is no summary yet as one and sends it.
  void sendSummaryEvents() XRV_EXCLUDES(pureCacheLock_);
  int getSummaryInterval() const { return summaryInterval_.load(); }
  int getFloodThreshold() XRV_EXCLUDES(pureCacheLock_) {
    PthreadMutexLock lock(pureCacheLock_);
    return floodThreshold_;
  }
  time_t getNextSummary() const { return nextSummary_.load(); }
  void setNextSummary(time_t when) { nextSummary_.store(when); }
  void removeSummaryQuery();
  static void addSummarizationClass(ResultsManager* provider);

  // --- Row shape (off unless the data source turns them on) ---
  void setHasTimestampColumn(bool on) { timestampColumn_ = on; }
  void setReturnsInstanceName(bool on) { instanceNameColumn_ = on; }
  bool doResultsReturnInstName() const { return instanceNameColumn_; }
  void setCheckMetricCounts(bool on) { checkMetricCounts_ = on; }
  // Byte-string values are in UTF-8 already (else in the local code page).
  void setInputIsUTF8(bool utf8) { inputIsUTF8_ = utf8; }
  // The managed system name event rows carry; the agent's own when not set (subnode
  // copies get their subnode's).
  void setOriginNode(const char* msn) { originNode_.assign(msn == nullptr ? "" : msn); }
  // The managed system name set with setOriginNode; "" when none was.
  const char* getOriginNode() const { return originNode_.c_str(); }

  // --- Settings and counters ---
  bool isAggregating() const { return aggregate_; }
  bool isReplacingRowsByKey() const { return replaceRowsByKey_; }
  int getPurgeInterval() const { return purgeInterval_; }
  bool isCollectionDisabled() const { return collectionDisabled_; }
  bool isReplacingWithLatest() const { return replaceWithLatest_; }
  bool isTruncatingTimestamps() const { return truncateTimestamp_; }
  int getPureCacheSize() const { return pureCacheSize_; }
  int64_t getCacheHitCount() const { return cacheHits_.load(); }
  int64_t getCollectionCount() const { return collections_.load(); }

  void printResultInstances() XRV_EXCLUDES(resultsLock_);

 protected:
  // From internalCollectData: this collection brought nothing new and the active rows
  // stay as they are (no rates, derived values or merge this time).
  void keepActiveResults() { keepActiveResults_ = true; }
  // Turns a byte-string value with a display hint into its displayed form; returns
  // `value` itself when there is nothing to do. Sources whose values carry hints
  // override it.
  virtual const char* applyDisplayHint(const char* hint, const char* value);

 private:
  void constructorHelper();
  void readFloodControlSettings();
  void readFilterSettings();
  // Packs `row` into `buffer` (the group's row size, zeroed). False when the row is
  // skipped (metric count, filter) or the group has no metadata.
  bool packRow(const ResultInstance* row, char* buffer, const char* originNode,
               const char* timestamp, bool eventRow);
  // An event row packed with its origin node and timestamp; false when skipped.
  bool packEvent(const ResultInstance* row, std::vector<char>* buffer);
  int deliverEvent(const std::vector<char>& buffer);
  void writeValue(char* buffer, const AttributeMeta* column, const Metric* metric,
                  const ResultMetric* value);
  ResultMetric* calculateSimpleDerived(const Metric* metric, const ResultInstance* row);
  void calculateDerivedOnActive(const char* requestId, StorageBehavior behavior)
      XRV_REQUIRES(resultsLock_);
  bool hasIntervalBasedDerived() const;
  // Forgets the expression language's interval data (takes the derived lock).
  void purgeDerivedState();
  // A new entry gets room for `rated` previous values.
  PrevResultInstance* findOrAddPrevResultInstance(const char* name, size_t position, int rated);
  // Starts loading the previous values of the rows a few places after `position`.
  void prefetchPrevious(size_t position) const;
  // Deletes the previous values of rows that were not seen in this collection.
  void dropStalePrevResults(int seen);
  // The name index of the active rows, kept only when rows are replaced by key.
  bool usesIndex() const;
  void indexRow(ResultInstance* row, bool overrideEarlier) XRV_REQUIRES(resultsLock_);
  void unindexRow(ResultInstance* row) XRV_REQUIRES(resultsLock_);
  void clearIndex() XRV_REQUIRES(resultsLock_);

  // Collection.
  PthreadMutex collectingMutex_;
  bool keepActiveResults_ = false;  // collecting thread only
  std::atomic<int64_t> cacheHits_{0};
  std::atomic<int64_t> collections_{0};

  // Rows.
  PthreadMutex resultsLock_ XRV_ACQUIRED_BEFORE(newResultsLock_);
  PthreadMutex newResultsLock_;
  ResultList active_ XRV_GUARDED_BY(resultsLock_);
  // Instance name (owned copy) -> the first active row of that name.
  HashMap activeByName_ XRV_GUARDED_BY(resultsLock_);
  ResultList newResults_ XRV_GUARDED_BY(newResultsLock_);
  std::atomic<bool> previousRequestHistorical_{false};

  // Previous sample: instance name (the entry's own) -> PrevResultInstance, and the
  // same entries in the order the last sample brought its rows (rows mostly come in
  // the same order, so most lookups are a walk along this list). Touched only by the
  // collecting thread.
  HashMap previous_;
  std::vector<PrevResultInstance*> previousOrder_;
  unsigned previousGeneration_ = 0;
  std::vector<const Metric*> derivedMetrics_;
  std::unique_ptr<DerivedState> derivedState_;  // under the derived calculation lock

  // Intervals of requests: id (owned) -> seconds.
  PthreadMutex requestIntervalsLock_;
  HashMap requestIntervals_ XRV_GUARDED_BY(requestIntervalsLock_);

  // Settings.
  bool aggregate_ = false;
  bool replaceRowsByKey_ = false;
  int purgeInterval_ = 0;
  bool collectionDisabled_ = false;
  bool replaceWithLatest_ = false;
  bool truncateTimestamp_ = false;
  int pureCacheSize_ = 100;
  bool timestampColumn_ = false;
  bool instanceNameColumn_ = false;
  bool checkMetricCounts_ = false;
  bool inputIsUTF8_ = false;
  XRV::String originNode_;

  // Pure-event cache and flood control.
  PthreadMutex pureCacheLock_;
  ResultList pureCache_ XRV_GUARDED_BY(pureCacheLock_);
  std::atomic<int> summaryInterval_{0};
  int floodThreshold_ XRV_GUARDED_BY(pureCacheLock_) = EVENT_SEND_ALL;
  std::atomic<time_t> nextSummary_{0};
  std::atomic<bool> summaryQueued_{false};

  // Filter. A reset replaces it while an event may be checked against it on another
  // thread: whoever evaluates holds a reference.
  std::shared_ptr<const RowFilter> currentFilter() const XRV_EXCLUDES(filterLock_);
  void filterNewResults() XRV_EXCLUDES(newResultsLock_);
  bool passesFilter(const RowFilter& filter, ResultInstance* row);
  mutable PthreadMutex filterLock_;
  std::shared_ptr<const RowFilter> filter_ XRV_GUARDED_BY(filterLock_);
};
