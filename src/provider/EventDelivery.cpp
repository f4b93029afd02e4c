// Event rows: from arrival through the pure-event cache and flood control to the
// framework, and the periodic summary events.

#include <cstring>
#include <vector>

#include "framework/Trace.h"
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
  // Packed into a buffer the thread keeps: one row after another, no allocation.
  thread_local std::vector<char> packed;
  bool stored = false;
  bool send = false;
  {
    PthreadMutexLock lock(pureCache_.lock);
    send = updatePureCache(row, &stored) && packer_.packEvent(*this, row, &packed);
  }
  // Handed to the framework outside the cache lock: the row itself may be gone by
  // now (trimmed or replaced), its packed copy is not.
  if (send) {
    RowPacker::deliverEvent(*this, packed);
  }
  return stored;
}

bool ResultsManager::updatePureCache(ResultInstance* row, bool* stored) {
  XRV_TRACE_FN();
  return pureCache_.decide(
      row, [this](const ResultInstance* a, const ResultInstance* b) { return instancesMatch(a, b); },
      getAttributeGroup(), stored);
}

bool ResultsManager::addToPureCache(ResultInstance* row) { return pureCache_.add(row); }

void ResultsManager::clearPureCache() {
  XRV_TRACE_FN();
  PthreadMutexLock lock(pureCache_.lock);
  pureCache_.clear();
}

int ResultsManager::getPureCacheCount() {
  PthreadMutexLock lock(pureCache_.lock);
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
    PthreadMutexLock lock(pureCache_.lock);
    for (ResultInstance* row = pureCache_.first(); row != nullptr; row = ResultList::next(row)) {
      if (row->isSummary()) {
        continue;
      }
      row->setSummary(true);
      row->clearDerivedMetrics();
      XRV_TRACE_DETAIL("Sending summary event for %s:%s", getAttributeGroup(), nameOf(row));
      std::vector<char> buffer;
      if (packer_.packEvent(*this, row, &buffer)) {
        packed.push_back(std::move(buffer));
      }
    }
  }
  for (const std::vector<char>& buffer : packed) {
    RowPacker::deliverEvent(*this, buffer);
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
