#include "provider/ResultsManager.h"

#include <cstdlib>
#include <cstring>

#include "definition/AttributeGroupMeta.h"
#include "foundation/Utilities.h"
#include "framework/FwClock.h"
#include "framework/Settings.h"
#include "framework/Trace.h"
#include "provider/FlowControlSummaryThread.h"
#include "provider/PrevResult.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"

namespace {

void freeKey(const char* key, const void* /*value*/, void* /*arg*/) {
  free(const_cast<char*>(key));
}

}  // namespace

ResultsManager::ResultsManager(const char* applicationName, const char* attributeGroup,
                               int objectType)
    : UAClientClass(applicationName, attributeGroup, objectType), requestIntervals_(16) {
  XRV_TRACE_FN();
  constructorHelper();
}

ResultsManager::ResultsManager(const ResultsManager* source, const char* subnodeKey)
    : UAClientClass(source, subnodeKey), requestIntervals_(16) {
  XRV_TRACE_FN();
  constructorHelper();
  derived_.copyMetrics(source->derived_);
  packer_.shape = source->packer_.shape;
}

ResultsManager::~ResultsManager() {
  XRV_TRACE_FN();
  removeSummaryQuery();
  clearResultSet();
  clearNewResultSet();
  clearPrevResultList();
  clearPureCache();
  requestIntervals_.foreach (freeKey, nullptr);
}

void ResultsManager::constructorHelper() {
  XRV_TRACE_FN();
  using XRV::Setting;
  const XRV::SettingContext here = XRV_SETTING_HERE().forGroup(getAttributeGroup());
  pureCache_.setSize(static_cast<int>(XRV::settingNumber(Setting::GroupPureEventCacheSize, here)));
  aggregate_ = XRV::settingFlag(Setting::GroupAggregateResults, here);
  replaceRowsByKey_ = XRV::settingFlag(Setting::GroupReplaceRowsByKey, here);
  store_.setIndexed(aggregate_ || replaceRowsByKey_);
  purgeInterval_ = static_cast<int>(XRV::settingNumber(Setting::GroupPurgeInterval, here));
  collectionDisabled_ = XRV::settingFlag(Setting::GroupDisableCollection, here);
  if (XRV::settingFlag(Setting::GroupOnlyForcedCollection, here)) {
    setOnlyForcedCollections(true);
  }
  replaceWithLatest_ = XRV::settingFlag(Setting::GroupReplaceWithLatest, here);
  pureCache_.setReplaceWithLatest(replaceWithLatest_);
  truncateTimestamp_ = XRV::settingFlag(Setting::GroupTruncateTimestamp, here);
}

void ResultsManager::start() {
  XRV_TRACE_FN();
  UAClientClass::start();
  reset();
}

void ResultsManager::reset() {
  XRV_TRACE_FN();
  readFloodControlSettings();
  filter_.load(getAttributeGroupMeta(), getAttributeGroup());
}

void ResultsManager::readFloodControlSettings() {
  XRV_TRACE_FN();
  AttributeGroupMeta* meta = getAttributeGroupMeta();
  const char* intervalText = meta == nullptr ? nullptr : meta->evtSummaryInterval();
  const char* thresholdText = meta == nullptr ? nullptr : meta->evtFloodThreshold();
  char* interval = intervalText == nullptr
                       ? nullptr
                       : Utilities::substituteEnvVars(intervalText, nullptr, nullptr, true);
  char* threshold = thresholdText == nullptr
                        ? nullptr
                        : Utilities::substituteEnvVars(thresholdText, nullptr, nullptr, true);
  configureFloodControl(threshold == nullptr && thresholdText != nullptr ? "" : threshold,
                        interval == nullptr ? 0 : atoi(interval));
  free(interval);
  free(threshold);
}

void ResultsManager::configureFloodControl(const char* thresholdText, int interval) {
  XRV_TRACE_FN();
  int threshold = EVENT_SEND_ALL;
  if (thresholdText != nullptr) {
    if (strcmp(thresholdText, "send_all") == 0) {
      threshold = EVENT_SEND_ALL;
    } else if (strcmp(thresholdText, "send_none") == 0) {
      threshold = EVENT_SEND_NONE;
    } else if (strcmp(thresholdText, "send_first") == 0) {
      threshold = EVENT_SEND_FIRST;
    } else {
      threshold = atoi(thresholdText);
      if (threshold == 0 || threshold < EVENT_SEND_ALL) {
        XRV_TRACE_ERROR("WARNING: invalid flood control threshold '%s', treating as SEND_NONE",
                        thresholdText);
        threshold = EVENT_SEND_NONE;
      }
    }
  }
  if (threshold != EVENT_SEND_ALL && interval < 1) {
    XRV_TRACE_ERROR(
        "WARNING: flood control threshold set without summary interval.  Thresholds "
        "would never reset; disabling flood control");
    threshold = EVENT_SEND_ALL;
  }
  pureCache_.configure(threshold, interval);
  XRV_TRACE_DETAIL("%s:%s Flood control: summary interval = %d, threshold = %d",
                   getAttributeGroup(), getSubnodeKey() == nullptr ? "none" : getSubnodeKey(),
                   pureCache_.summaryInterval(), threshold);
  if (pureCache_.summaryInterval() > 0) {
    addSummarizationClass(this);
  } else {
    removeSummaryQuery();
  }
}

int ResultsManager::getFloodThreshold() {
  PthreadMutexLock lock(pureCache_.lock);
  return pureCache_.threshold();
}

std::vector<std::string> ResultsManager::getPropertyNames() {
  XRV_TRACE_FN();
  // The settings of every group, in table order; those of data sources are theirs to add.
  std::vector<std::string> names;
  for (const XRV::SettingSpec& entry : XRV::allSettings()) {
    if (entry.scope == XRV::SettingScope::Group && entry.section == XRV::kGroupSettingsSection) {
      names.push_back(XRV::settingName(entry.id, getAttributeGroup()));
    }
  }
  return names;
}

UAClientClass* ResultsManager::subnodeCopy(const char* /*subnodeKey*/,
                                           UAClientClassList* /*list*/) {
  XRV_TRACE_FN();
  XRV_TRACE_ERROR(
      "This is an unimplemented feature for your QueryClass, your agent WILL not work "
      "properly");
  return nullptr;
}

void ResultsManager::addMetricObject(Metric* metric) {
  XRV_TRACE_FN();
  UAClientClass::addMetricObject(metric);
  if (metric->isDerived()) {
    derived_.add(metric);
  }
}

// --- The collection cycle ---

void ResultsManager::collectDataIfNeeded(const char* subnode) {
  XRV_TRACE_FN();
  if (!isExpired()) {
    XRV_TRACE_DETAIL("Cached data for %s is still current, using that", getAttributeGroup());
    ++cacheHits_;
    recordCacheHit();
    return;
  }
  XRV_TRACE_DETAIL("Data for %s is expired", getAttributeGroup());
  if (subnode != nullptr) {
    XRV_TRACE_DETAIL("Calling collectData on %s for subnode %s\n", getAttributeGroup(), subnode);
  } else {
    XRV_TRACE_DETAIL("Calling collectData on %s\n", getAttributeGroup());
  }
  collectData(subnode);
}

bool ResultsManager::useCurrentCache() {
  if (!UAClientClass::useCurrentCache()) {
    return false;
  }
  ++cacheHits_;
  return true;
}

bool ResultsManager::isCollecting() {
  if (pthread_mutex_trylock(collectingMutex_.native()) != 0) {
    return true;
  }
  pthread_mutex_unlock(collectingMutex_.native());
  return false;
}

void ResultsManager::collectData(const char* subnode) {
  XRV_TRACE_FN();
  if (isPureEventBased()) {
    {
      PthreadMutexLock cacheLock(pureCache_.lock);
      PthreadMutexLock newLock(store_.newLock);
      for (ResultInstance* event = pureCache_.first(); event != nullptr;
           event = ResultList::next(event)) {
        ResultInstance* copy = event->getDeepCopy();
        if (pureCache_.summaryInterval() > 0 && !copy->isSummary()) {
          copy->clearDerivedMetrics();
          internalCalculateDerived(nullptr, copy, STORE_INTERVAL_DATA);
        }
        store_.appendNew(copy);
      }
    }
    updateResults();
    return;
  }
  if (pthread_mutex_trylock(collectingMutex_.native()) != 0) {
    XRV_TRACE_DETAIL("Data collection already in progress for %s, returning", getAttributeGroup());
    return;
  }
  updateStartTime();
  int64_t started = fwTimeMillis();
  if (collectionDisabled_) {
    XRV_TRACE_DETAIL("Data collection for %s is disabled, not collecting data.",
                     getAttributeGroup());
  } else {
    internalCollectData(subnode);
  }
  if (keepActiveResults_) {
    keepActiveResults_ = false;
    XRV_TRACE_DETAIL("No new data for %s, keeping the current rows", getAttributeGroup());
    clearNewResultSet();
    pthread_mutex_unlock(collectingMutex_.native());
    updateLastTime();
    recordCollection(started, fwTimeMillis());
    return;
  }
  if (!collectionDisabled_) {
    int type = getObjectType();
    if (type != UA_JOIN && type != UA_ROLLUP && type != UA_FILTER &&
        doesMetricListContainRatesOrDeltas()) {
      processRatesDeltas();
    }
    if (!derived_.empty()) {
      calculateDerived(nullptr, STORE_INTERVAL_DATA);
    }
  }
  pthread_mutex_unlock(collectingMutex_.native());
  updateLastTime();
  recordCollection(started, fwTimeMillis());
  // New rows are judged before they become visible: a sample taken between the merge
  // and checkFilter would otherwise get rows the filter drops.
  if (const std::shared_ptr<const RowFilter> filter = filter_.current()) {
    PthreadMutexLock lock(store_.newLock);
    GroupFilter::mark(*filter, store_.firstNew(), getAttributeGroup());
  }
  updateResults();
  checkFilter();
}

// --- Rows ---

void ResultsManager::addResultInstance(ResultInstance* row) {
  if (row == nullptr) {
    return;
  }
  PthreadMutexLock lock(store_.newLock);
  store_.appendNew(row);
}

void ResultsManager::addResultInstanceDirectly(ResultInstance* row) {
  XRV_TRACE_FN();
  PthreadMutexLock lock(store_.activeLock);
  store_.appendActive(row);
}

void ResultsManager::addHeadResultInstance(ResultInstance* row) {
  XRV_TRACE_FN();
  PthreadMutexLock lock(store_.activeLock);
  store_.prependActive(row);
}

void ResultsManager::removeResultInstance(ResultInstance* row) {
  XRV_TRACE_FN();
  {
    PthreadMutexLock lock(store_.activeLock);
    store_.unlinkActive(row);
  }
  delete row;
}

void ResultsManager::removeNewResultInstance(ResultInstance* row, bool deleteIt) {
  XRV_TRACE_FN();
  {
    PthreadMutexLock lock(store_.newLock);
    store_.unlinkNew(row);
  }
  if (deleteIt) {
    delete row;
  }
}

void ResultsManager::clearResultSet() {
  XRV_TRACE_FN();
  PthreadMutexLock lock(store_.activeLock);
  store_.clearActive();
}

void ResultsManager::clearNewResultSet() {
  XRV_TRACE_FN();
  PthreadMutexLock lock(store_.newLock);
  store_.clearNew();
}

int ResultsManager::getResultInstanceCount() {
  PthreadMutexLock lock(store_.activeLock);
  return store_.activeCount();
}

void ResultsManager::visitRows(const std::function<void(const ResultInstance& row)>& visit) {
  PthreadMutexLock lock(store_.activeLock);
  for (const ResultInstance* row = store_.firstActive(); row != nullptr;
       row = ResultList::next(row)) {
    visit(*row);
  }
}

void ResultsManager::acquireResultsLock() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Acquiring the Results lock");
  store_.activeLock.lock();
}

void ResultsManager::releaseResultsLock() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Releasing the Results lock");
  store_.activeLock.unlock();
}

void ResultsManager::updateResults() {
  XRV_TRACE_FN();
  // The rows that leave the table are deleted once the locks are released: a request
  // waits for the rows to change places, not for thousands of values to be freed.
  ResultList leaving;
  PthreadMutexLock resultsLock(store_.activeLock);
  PthreadMutexLock newLock(store_.newLock);
  if (!aggregate_ && !replaceRowsByKey_) {
    XRV_TRACE_DETAIL("Aggregate is off, replacing old results with new ones");
    store_.replaceActiveWithNew(&leaving);
    previousRequestHistorical_ = false;
    return;
  }
  XRV_TRACE_DETAIL("Aggregate/replace is on, updating result instance list.");
  if (aggregate_ && previousRequestHistorical_) {
    XRV_TRACE_DETAIL("Previous request was historical, purging dead results");
    derived_.purgeState();
  }
  bool purging = replaceRowsByKey_ && purgeInterval_ >= 1;
  char current[17] = "";
  char oldestValid[17] = "";
  if (purging) {
    // The current stamp drops its seconds when truncating; the oldest valid one keeps
    // them then, and drops them otherwise. The crosswise choice is deliberate: with
    // truncation a row stamped hh:mm:00 lives a little longer than the interval.
    time_t now = fwTime();
    time_t oldest = now - purgeInterval_;
    struct tm local;
    localtime_r(&now, &local);
    formatTimeStamp(truncateTimestamp_ ? now - local.tm_sec : now, current, sizeof current);
    localtime_r(&oldest, &local);
    formatTimeStamp(truncateTimestamp_ ? oldest : oldest - local.tm_sec, oldestValid,
                    sizeof oldestValid);
  }
  bool wasEmpty = store_.activeEmpty();
  while (ResultInstance* row = store_.firstNew()) {
    store_.unlinkNew(row);
    if (purging) {
      row->setTimestamp(current);
    }
    const char* name = row->getInstanceName();
    ResultInstance* match = store_.findActive(name);
    if (match != nullptr) {
      XRV_TRACE_DETAIL("old result instance matched the current name %s", name);
      store_.replaceActive(match, row);
      leaving.append(match);
    } else {
      if (wasEmpty) {
        XRV_TRACE_DETAIL(
            "new result instance didn't match any old ones - empty old list, adding %s",
            name == nullptr ? "" : name);
      } else {
        XRV_TRACE_DETAIL("new result instance  didn't match any old ones, adding %s",
                         name == nullptr ? "" : name);
      }
      store_.appendActive(row);
    }
  }
  if (purgeInterval_ > 0) {
    ResultInstance* row = store_.firstActive();
    while (row != nullptr) {
      ResultInstance* following = ResultList::next(row);
      if (strcmp(row->getTimestamp(), oldestValid) < 0) {
        XRV_TRACE_DETAIL("purging...... %s curr=%s, inst time=%s",
                         row->getInstanceName() == nullptr ? "" : row->getInstanceName(), current,
                         row->getTimestamp());
        store_.unlinkActive(row);
        leaving.append(row);
      }
      row = following;
    }
  }
  previousRequestHistorical_ = false;
}

// --- Filter ---

bool ResultsManager::resultPassesFilter(ResultInstance* row) {
  const std::shared_ptr<const RowFilter> filter = filter_.current();
  return filter == nullptr || GroupFilter::passes(*filter, row, getAttributeGroup());
}

void ResultsManager::checkFilter() {
  XRV_TRACE_FN();
  const std::shared_ptr<const RowFilter> filter = filter_.current();
  if (filter == nullptr) {
    return;
  }
  PthreadMutexLock lock(store_.activeLock);
  GroupFilter::mark(*filter, store_.firstActive(), getAttributeGroup());
}

// --- Request intervals ---

void ResultsManager::setRequestInterval(const char* requestId, int seconds) {
  XRV_TRACE_FN();
  if (requestId == nullptr) {
    return;
  }
  PthreadMutexLock lock(requestIntervalsLock_);
  if (requestIntervals_.contains(requestId)) {
    requestIntervals_.put(requestId, reinterpret_cast<void*>(static_cast<intptr_t>(seconds)));
  } else {
    requestIntervals_.put(strdup(requestId),
                          reinterpret_cast<void*>(static_cast<intptr_t>(seconds)));
  }
}

void ResultsManager::removeRequestInterval(const char* requestId) {
  XRV_TRACE_FN();
  if (requestId == nullptr) {
    return;
  }
  const char* storedKey = nullptr;
  PthreadMutexLock lock(requestIntervalsLock_);
  requestIntervals_.remove(requestId, &storedKey);
  free(const_cast<char*>(storedKey));
}

int ResultsManager::getRequestInterval(const char* requestId) {
  if (requestId == nullptr) {
    return 0;
  }
  PthreadMutexLock lock(requestIntervalsLock_);
  return static_cast<int>(reinterpret_cast<intptr_t>(requestIntervals_.get(requestId)));
}

void ResultsManager::printResultInstances() {
  XRV_TRACE_FN();
  if (!XRV_TRACE_ENABLED(TRACE_DETAIL)) {
    return;
  }
  PthreadMutexLock lock(store_.activeLock);
  XRV::String text;
  int index = 0;
  for (ResultInstance* row = store_.firstActive(); row != nullptr; row = ResultList::next(row)) {
    XRV_TRACE_DETAIL("Instance: #%d", index++);
    for (ResultMetric* value = row->getFirstMetric(); value != nullptr;
         value = static_cast<ResultMetric*>(value->getNextElement())) {
      value->toUTF8String(&text);
      XRV_TRACE_DETAIL("   %-30s = %s",
                       value->getMetricName() == nullptr ? "" : value->getMetricName(),
                       text.c_str());
    }
  }
}

const char* ResultsManager::applyDisplayHint(const char* hint, const char* value) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Processing display hint %s for value %s", hint, value);
  return value;
}
