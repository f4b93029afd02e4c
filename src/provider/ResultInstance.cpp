#include "provider/ResultInstance.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/Prefetch.h"
#include "framework/Trace.h"
#include "provider/ResultMetric.h"

namespace {

constexpr size_t kTimestampLength = 16;

void linkAtTail(ResultMetric*& first, ResultMetric*& last, ResultMetric* metric) {
  metric->setNextElement(nullptr);
  metric->setPrevElement(last);
  if (last == nullptr) {
    first = metric;
  } else {
    last->setNextElement(metric);
  }
  last = metric;
}

void deleteChain(ResultMetric* first) {
  ListElement* element = first;
  while (element != nullptr) {
    ListElement* next = element->getNextElement();
    delete element;
    element = next;
  }
}

ResultMetric* nextMetric(const ResultMetric* metric) {
  return static_cast<ResultMetric*>(metric->getNextElement());
}

// Copies of every value of the chain from `first`, linked after `copyLast`. Returns the
// number copied.
int copyChain(const ResultMetric* first, ResultMetric*& copyFirst, ResultMetric*& copyLast) {
  int count = 0;
  for (const ResultMetric* metric = first; metric != nullptr; metric = nextMetric(metric)) {
    ResultMetric* copy = metric->getDeepCopy();
    if (copy != nullptr) {
      linkAtTail(copyFirst, copyLast, copy);
      ++count;
    }
  }
  return count;
}

}  // namespace

ResultInstance::ResultInstance(const char* name, int expectedMetricCount)
    : expectedMetricCount_(expectedMetricCount) {
  XRV_TRACE_FN();
  if (name != nullptr) {
    named_ = true;
    appendToName(name, strlen(name));
  }
}

ResultInstance::~ResultInstance() {
  XRV_TRACE_FN();
  deleteChain(firstMetric_);
  deleteChain(firstDerived_);
}

bool ResultInstance::appendToName(const char* text, size_t length) {
  bool separator = keyCount_ > 0;
  if (!name_.reserve(name_.length() + (separator ? 1 : 0) + length)) {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("Unable to reallocate %s", name_.c_str());
    return false;
  }
  if (separator) {
    name_.append('|');
  }
  name_.append(text, length);
  return true;
}

void ResultInstance::prefetchValues(bool lastUse) const {
  if (firstMetric_ == nullptr) {
    return;
  }
  if (!lastUse) {
    // The values of a row are usually made one after the other and lie side by side:
    // loading the first and the last one starts the processor's own prefetching
    // along the rest. Loading every line was no faster, and cost more when the table
    // fits the cache.
    __builtin_prefetch(firstMetric_);
    __builtin_prefetch(lastMetric_);
    return;
  }
  // Read one last time (the row is being deleted): every line between the first and
  // the last value, marked not to stay in the cache, so that deleting a sample does
  // not push out the one that replaces it. Values that do not lie side by side get
  // their first and last line only.
  constexpr uintptr_t kMostBytes = 4096;
  auto first = reinterpret_cast<uintptr_t>(firstMetric_);
  auto last = reinterpret_cast<uintptr_t>(lastMetric_);
  uintptr_t low = first < last ? first : last;
  uintptr_t end = (first < last ? last : first) + sizeof(ResultMetric);
  if (end - low > kMostBytes) {
    __builtin_prefetch(firstMetric_, 0, 0);
    __builtin_prefetch(lastMetric_, 0, 0);
    return;
  }
  XRV::prefetchLines<0>(reinterpret_cast<const void*>(low), end - low);
}

void ResultInstance::addMetric(ResultMetric* metric) {
  if (metric == nullptr) [[unlikely]] {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("No metric to add to instance %s", name_.c_str());
    return;
  }
  linkAtTail(firstMetric_, lastMetric_, metric);
  ++metricCount_;
  if (!metric->isKey()) {
    return;
  }

  char number[32];  // the longest "%g", "%lld" or "%llu" output fits
  const char* text = number;
  int printed = 0;
  switch (metric->getKind()) {
    case RESULT_INT32:
      printed = snprintf(number, sizeof number, "%d", metric->getInt());
      break;
    case RESULT_INT64:
      printed = snprintf(number, sizeof number, "%lld", metric->getInt64());
      break;
    case RESULT_UINT64:
      printed = snprintf(number, sizeof number, "%llu", metric->getUInt64());
      break;
    case RESULT_DOUBLE:
      printed = snprintf(number, sizeof number, "%g", metric->getDouble());
      break;
    case RESULT_STRING:
    case RESULT_UTF8:
      text = metric->getTextBytes();
      break;
    default: {
      XRV_TRACE_SITE();
      XRV_TRACE_ERROR("Unknown metric type for metric %s",
                      metric->getMetricName() == nullptr ? "" : metric->getMetricName());
      return;
    }
  }
  size_t length = text == number ? static_cast<size_t>(printed) : strlen(text);
  if (appendToName(text, length)) {
    ++keyCount_;
  }
}

ResultMetric* ResultInstance::findMetric(const char* metricName) const {
  XRV_TRACE_FN();
  if (metricName == nullptr) {
    return nullptr;
  }
  for (ResultMetric* metric = firstMetric_; metric != nullptr; metric = nextMetric(metric)) {
    const char* name = metric->getMetricName();
    if (name != nullptr && strcmp(name, metricName) == 0) {
      return metric;
    }
  }
  return nullptr;
}

void ResultInstance::addDerivedMetric(ResultMetric* metric) {
  if (metric == nullptr) {
    return;
  }
  linkAtTail(firstDerived_, lastDerived_, metric);
  ++derivedCount_;
}

void ResultInstance::clearDerivedMetrics() {
  XRV_TRACE_FN();
  deleteChain(firstDerived_);
  firstDerived_ = nullptr;
  lastDerived_ = nullptr;
  derivedCount_ = 0;
}

void ResultInstance::setTimestamp(const char* timestamp) {
  size_t length = timestamp == nullptr ? 0 : strnlen(timestamp, kTimestampLength);
  if (length != 0) {
    memcpy(timestamp_, timestamp, length);
  }
  timestamp_[length] = '\0';
}

ResultInstance* ResultInstance::getDeepCopy() const {
  XRV_TRACE_FN();
  auto* copy = new ResultInstance(nullptr, expectedMetricCount_);
  copy->name_ = name_;
  copy->named_ = named_;
  copy->keyCount_ = keyCount_;
  copy->metricCount_ = copyChain(firstMetric_, copy->firstMetric_, copy->lastMetric_);
  copy->derivedCount_ = copyChain(firstDerived_, copy->firstDerived_, copy->lastDerived_);
  memcpy(copy->timestamp_, timestamp_, sizeof timestamp_);
  copy->occurrences_ = occurrences_;
  copy->summary_ = summary_;
  copy->passesFilter_ = passesFilter_;
  return copy;
}
