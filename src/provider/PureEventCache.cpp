// Event rows: the pure-event cache, duplicate detection and flood control, and the
// periodic summary events.

#include <cstring>
#include <vector>

#include "framework/api/Trace.h"
#include "provider/FlowControlSummaryThread.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/ResultsManager.h"

namespace {
const char* nameOf(const ResultInstance* row) {
  return row->getInstanceName() == nullptr ? "" : row->getInstanceName();
}
}  // namespace

bool ResultsManager::sendEventData(ResultInstance* row, StorageBehavior behavior) {
  XRV_TRACE_FN();
  internalCalculateDerived(nullptr, row, behavior);
  if (!resultPassesFilter(row)) {
    XRV_TRACE_DETAIL("Event for attribute group %s did not pass the filter.", getAttributeGroup());
    return false;
  }
  std::vector<char> packed;
  bool stored = false;
  bool send = false;
  {
    PthreadMutexLock lock(pureCacheLock_);
    send = updatePureCache(row, &stored) && packEvent(row, &packed);
  }
  // Handed to the framework outside the cache lock: the row itself may be gone by
  // now (trimmed or replaced), its packed copy is not.
  if (send) {
    deliverEvent(packed);
  }
  return stored;
}

bool ResultsManager::updatePureCache(ResultInstance* row, bool* stored) {
  XRV_TRACE_FN();
  const char* group = getAttributeGroup();
  ResultInstance* duplicate = nullptr;
  ResultInstance* kept = row;
  bool replaced = false;
  if (summaryInterval_.load() >= 1) {
    for (ResultInstance* cached = pureCache_.head(); cached != nullptr;
         cached = ResultList::next(cached)) {
      if (!cached->isSummary() && instancesMatch(cached, row)) {
        duplicate = cached;
        break;
      }
    }
    if (duplicate != nullptr) {
      XRV_TRACE_DETAIL("Found duplicate event for %s:%s", group, nameOf(row));
      if (replaceWithLatest_) {
        row->setOccurrenceCount(duplicate->getOccurrenceCount());
        pureCache_.replace(duplicate, row);
        delete duplicate;
        duplicate = row;
        replaced = true;
      }
      kept = duplicate;
      kept->incrementOccurences();
    } else {
      XRV_TRACE_DETAIL("Received new event %s:%s", group, nameOf(row));
    }
  }

  bool send = false;
  const int count = kept->getOccurrenceCount();
  if (floodThreshold_ == EVENT_SEND_ALL) {
    XRV_TRACE_DETAIL("EVENT_SEND_ALL, sending event %s:%s", group, nameOf(row));
    send = true;
  } else if (floodThreshold_ == EVENT_SEND_FIRST && duplicate == nullptr) {
    XRV_TRACE_DETAIL("EVENT_SEND_FIRST, sending event %s:%s", group, nameOf(row));
    send = true;
  } else if (floodThreshold_ >= 1 && count % floodThreshold_ == 0) {
    XRV_TRACE_DETAIL("evtFloodThreshold = %d, occurrenceCount = %d, sending event %s:%s",
                     floodThreshold_, count, group, nameOf(row));
    send = true;
  } else {
    XRV_TRACE_DETAIL("EVENT_SEND_NONE, not sending event %s:%s", group, nameOf(row));
  }

  if (!replaceWithLatest_ && floodThreshold_ == EVENT_SEND_ALL && summaryInterval_.load() == 0) {
    *stored = addToPureCache(row);
  } else if (duplicate != nullptr) {
    *stored = replaced;
  } else {
    *stored = addToPureCache(row);
  }
  return send;
}

bool ResultsManager::addToPureCache(ResultInstance* row) {
  if (pureCacheSize_ < 1) {
    return false;
  }
  pureCache_.prepend(row);
  while (pureCache_.count() > pureCacheSize_) {
    ResultInstance* victim = pureCache_.tail();
    if (summaryInterval_.load() > 0) {
      // Only events already summarised may go: the others still have to be counted in
      // a summary. Without such an event the cache stays over its size for now.
      while (victim != nullptr && !victim->isSummary()) {
        victim = ResultList::previous(victim);
      }
      if (victim == nullptr) {
        break;
      }
    }
    pureCache_.unlink(victim);
    delete victim;
  }
  return true;
}

void ResultsManager::clearPureCache() {
  XRV_TRACE_FN();
  PthreadMutexLock lock(pureCacheLock_);
  pureCache_.clear();
}

int ResultsManager::getPureCacheCount() {
  PthreadMutexLock lock(pureCacheLock_);
  return pureCache_.count();
}

bool ResultsManager::instancesMatch(const ResultInstance* a, const ResultInstance* b) {
  XRV_TRACE_FN();
  const ResultMetric* left = a->getFirstMetric();
  const ResultMetric* right = b->getFirstMetric();
  for (; left != nullptr && right != nullptr;
       left = static_cast<const ResultMetric*>(left->getNextElement()),
       right = static_cast<const ResultMetric*>(right->getNextElement())) {
    const Metric* metric = left->getMetric();
    if (metric != nullptr && metric->getIsHidden()) {
      continue;
    }
    if (!left->isKey()) {
      XRV_TRACE_DETAIL("Metric %s not a %s key, ignoring", left->getMetricName(),
                       getAttributeGroup());
      continue;
    }
    XRV_TRACE_DETAIL("Metric %s is a %s key, checking it", left->getMetricName(),
                     getAttributeGroup());
    if (!left->areValuesEqual(right)) {
      return false;
    }
  }
  if (left != nullptr || right != nullptr) {
    return false;  // rows of different shape
  }
  left = a->getFirstDerivedMetric();
  right = b->getFirstDerivedMetric();
  for (; left != nullptr && right != nullptr;
       left = static_cast<const ResultMetric*>(left->getNextElement()),
       right = static_cast<const ResultMetric*>(right->getNextElement())) {
    if (!left->areValuesEqual(right)) {
      return false;
    }
  }
  return left == nullptr && right == nullptr;
}

void ResultsManager::sendSummaryEvents() {
  XRV_TRACE_FN();
  std::vector<std::vector<char>> packed;
  {
    PthreadMutexLock lock(pureCacheLock_);
    for (ResultInstance* row = pureCache_.head(); row != nullptr; row = ResultList::next(row)) {
      if (row->isSummary()) {
        continue;
      }
      row->setSummary(true);
      row->clearDerivedMetrics();
      XRV_TRACE_DETAIL("Sending summary event for %s:%s", getAttributeGroup(), nameOf(row));
      std::vector<char> buffer;
      if (packEvent(row, &buffer)) {
        packed.push_back(std::move(buffer));
      }
    }
  }
  for (const std::vector<char>& buffer : packed) {
    deliverEvent(buffer);
  }
}

void ResultsManager::addSummarizationClass(ResultsManager* provider) {
  provider->summaryQueued_.store(true);
  FlowControlSummaryThread::instance().add(provider);
}

void ResultsManager::removeSummaryQuery() {
  XRV_TRACE_FN();
  if (summaryQueued_.exchange(false)) {
    FlowControlSummaryThread::instance().remove(this);
  }
}
