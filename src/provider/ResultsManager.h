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
// The parts it holds: ResultStore (the active and new rows, their locks and the
// name index), PureEventCache (the last events and the flood control),
// PreviousSample (the previous values for deltas and rates), DerivedAttributes (the
// derived attributes and the expression language's state), GroupFilter (the row
// filter) and RowPacker (the row shape, and the packing of rows for the framework).
//
// Locks, always taken in this order: the collection mutex (one collection at a
// time; a second caller returns at once), the store's active lock, its new lock;
// the pure-event cache has its own lock, the filter a leaf lock of its own, and all
// derived calculation of the process is serialised by one global lock.

#include <atomic>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "foundation/HashMap.h"
#include "foundation/Locks.h"
#include "foundation/String.h"
#include "provider/DerivedAttributes.h"
#include "provider/GroupFilter.h"
#include "provider/PerfObject.h"
#include "provider/PreviousSample.h"
#include "provider/PureEventCache.h"
#include "provider/ResultList.h"
#include "provider/ResultStore.h"
#include "provider/RowPacker.h"
#include "provider/UAClientClass.h"

class PrevResult;
class ResultInstance;
class ResultMetric;

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
  bool isCollecting() override;
  // Reads the flood control and filter settings; start() runs it once, a
  // configuration change again.
  virtual void reset();
  void start() override;

  // --- What the data source reports ---
  const char* getPerfObjectName() override = 0;
  int getPerfObjectStatus() override = 0;
  int getPerfErrorCode() override = 0;
  // The configuration properties the provider reads.
  virtual std::vector<std::string> getPropertyNames();
  UAClientClass* subnodeCopy(const char* subnodeKey, UAClientClassList* list) override;
  // Also files derived attributes in the derived list.
  void addMetricObject(Metric* metric) override;
  std::vector<UAClientClass*> getQueryReferences() override { return {}; }

  // --- Rows ---
  // Appends to the new list (the data source, from internalCollectData). The
  // provider owns the row from now on.
  void addResultInstance(ResultInstance* row) XRV_EXCLUDES(store_.newLock);
  // Appends to (or puts at the head of) the active list directly.
  void addResultInstanceDirectly(ResultInstance* row) XRV_EXCLUDES(store_.activeLock);
  void addHeadResultInstance(ResultInstance* row) XRV_EXCLUDES(store_.activeLock);
  // Unlinks and deletes an active row.
  void removeResultInstance(ResultInstance* row) XRV_EXCLUDES(store_.activeLock);
  void removeNewResultInstance(ResultInstance* row, bool deleteIt) XRV_EXCLUDES(store_.newLock);
  void clearResultSet() override XRV_EXCLUDES(store_.activeLock);
  void clearNewResultSet() XRV_EXCLUDES(store_.newLock);
  void clearPrevResultList();
  int getResultInstanceCount() XRV_EXCLUDES(store_.activeLock);
  void visitRows(const std::function<void(const ResultInstance& row)>& visit) override
      XRV_EXCLUDES(store_.activeLock);
  void acquireResultsLock() XRV_ACQUIRE(store_.activeLock);
  void releaseResultsLock() XRV_RELEASE(store_.activeLock);
  // Merges the new list into the active list.
  virtual void updateResults() XRV_EXCLUDES(store_.activeLock, store_.newLock);
  // The previous sample was requested for history: interval data are purged once.
  void setPreviousRequestHistorical(bool historical) override {
    previousRequestHistorical_ = historical;
  }
  bool isPreviousRequestHistorical() const { return previousRequestHistorical_; }

  // --- Deltas, rates and derived attributes ---
  void processRatesDeltas() XRV_EXCLUDES(store_.activeLock, store_.newLock);
  void computeRateDelta(PrevResult* previous, ResultMetric* current);
  // The same with the sample's time given: one sample reads the clock once.
  void computeRateDelta(PrevResult* previous, ResultMetric* current, time_t now);
  PrevResult* getPrevResult(ResultMetric* metric, PrevResultInstance* instance);
  // Derived values of the new rows, or of the active rows when the new list is empty.
  void calculateDerived(const char* requestId, StorageBehavior behavior);
  void internalCalculateDerived(const char* requestId, ResultInstance* row,
                                StorageBehavior behavior);
  static void initGlobalDerivedLock();
  // The derived attributes; the expression language keeps its state for this
  // provider there (from inside a DerivedEvaluator call).
  DerivedAttributes& derivedAttributes() { return derived_; }
  void setRequestInterval(const char* requestId, int seconds) override;
  // Nothing when the request had no interval.
  void removeRequestInterval(const char* requestId) override;
  // 0 when unknown.
  int getRequestInterval(const char* requestId);

  // --- Filter ---
  void checkFilter() XRV_EXCLUDES(store_.activeLock);
  bool resultPassesFilter(ResultInstance* row);

  // --- Packing rows for the framework ---
  void sendDataToAFW(GenericAgentBase* agent, const char* originNode) override
      XRV_EXCLUDES(store_.activeLock);
  // An event row arrived: derived values, filter, flood control and the cache
  // decide whether it is sent and kept. True when the provider kept the row; false
  // when the caller still owns it and must delete it.
  bool sendEventData(ResultInstance* row, StorageBehavior behavior);
  // Packs one event row and hands it to the group's table server: 0 when sent.
  virtual int sendEventDataToAFW(ResultInstance* row);

  // --- Pure-event cache and flood control ---
  // Under the cache lock: finds a duplicate, stores or replaces, and decides. True
  // when the row is to be sent; *stored tells whether the cache kept it.
  bool updatePureCache(ResultInstance* row, bool* stored) XRV_REQUIRES(pureCache_.lock);
  // Puts the row at the head of the cache and trims it; false when the cache holds
  // nothing (size 0).
  bool addToPureCache(ResultInstance* row) XRV_REQUIRES(pureCache_.lock);
  void clearPureCache() XRV_EXCLUDES(pureCache_.lock);
  int getPureCacheCount() XRV_EXCLUDES(pureCache_.lock);
  // Whether `b` is a duplicate of `a` for flood control: the same key values (hidden
  // ones skipped) and the same derived values. Data sources with keys of their own
  // override it.
  virtual bool instancesMatch(const ResultInstance* a, const ResultInstance* b);
  // Marks every cached event that is no summary yet as one and sends it.
  void sendSummaryEvents() XRV_EXCLUDES(pureCache_.lock);
  int getSummaryInterval() const { return pureCache_.summaryInterval(); }
  // The flood-control threshold in force (FLOOD_THRESHOLD, or N >= 1).
  int getFloodThreshold() XRV_EXCLUDES(pureCache_.lock);
  time_t getNextSummary() const { return nextSummary_.load(); }
  void setNextSummary(time_t when) { nextSummary_.store(when); }
  void removeSummaryQuery() override;
  static void addSummarizationClass(ResultsManager* provider);

  // --- Row shape (off unless the data source turns them on) ---
  void setHasTimestampColumn(bool on) { packer_.shape.timestampColumn = on; }
  void setReturnsInstanceName(bool on) { packer_.shape.instanceNameColumn = on; }
  bool doResultsReturnInstName() const { return packer_.shape.instanceNameColumn; }
  void setCheckMetricCounts(bool on) { packer_.shape.checkMetricCounts = on; }
  // Byte-string values are in UTF-8 already (else in the local code page).
  void setInputIsUTF8(bool utf8) { packer_.shape.inputIsUTF8 = utf8; }

  // --- Settings and counters ---
  bool isAggregating() const { return aggregate_; }
  bool isReplacingRowsByKey() const { return replaceRowsByKey_; }
  bool isCollectionDisabled() const { return collectionDisabled_; }
  int64_t getCacheHitCount() const { return cacheHits_.load(); }

  void printResultInstances() XRV_EXCLUDES(store_.activeLock);

 protected:
  // Sets the flood control: `thresholdText` "send_all", "send_none", "send_first" or a
  // number N >= 1 (every N-th duplicate), null for send_all; `interval` the summary
  // interval in seconds. A threshold without an interval turns flood control off.
  // reset() sets it from the group's metadata; a data source may set it anew after.
  void configureFloodControl(const char* thresholdText, int interval)
      XRV_EXCLUDES(pureCache_.lock);
  // From internalCollectData: this collection brought nothing new and the active rows
  // stay as they are (no rates, derived values or merge this time).
  void keepActiveResults() { keepActiveResults_ = true; }
  // Turns a byte-string value with a display hint into its displayed form; returns
  // `value` itself when there is nothing to do. Sources whose values carry hints
  // override it.
  virtual const char* applyDisplayHint(const char* hint, const char* value);

 private:
  friend class RowPacker;  // calls applyDisplayHint

  void constructorHelper();
  void readFloodControlSettings();
  void calculateDerivedOnActive(const char* requestId, StorageBehavior behavior)
      XRV_REQUIRES(store_.activeLock);

  // Collection.
  PthreadMutex collectingMutex_;
  bool keepActiveResults_ = false;  // collecting thread only
  std::atomic<int64_t> cacheHits_{0};

  // Rows: the active and new lists with their locks, and the name index.
  ResultStore store_;
  std::atomic<bool> previousRequestHistorical_{false};

  // Previous sample, for deltas and rates: touched only by the collecting thread.
  PreviousSample previous_;
  DerivedAttributes derived_;

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

  // The row shape, and the packing of rows for the framework.
  RowPacker packer_;

  // Pure-event cache and flood control, and the provider's place in the summary queue.
  PureEventCache pureCache_;
  std::atomic<time_t> nextSummary_{0};
  std::atomic<bool> summaryQueued_{false};

  // The row filter; a reset replaces it while events may be checked against it.
  GroupFilter filter_;
};
