#include "logmon/LogMonitorResultInstance.h"

#include "provider/ResultMetric.h"

LogMonitorResultInstance::LogMonitorResultInstance(const char* source, int expectedMetricCount)
    : ResultInstance("", expectedMetricCount), source_(source == nullptr ? "" : source) {}

LogMonitorResultInstance* LogMonitorResultInstance::copy() const {
  auto* row = new LogMonitorResultInstance(source_.c_str(), getExpectedMetricCount());
  for (const ResultMetric* value = getFirstMetric(); value != nullptr;
       value = static_cast<const ResultMetric*>(value->getNextElement())) {
    row->addMetric(value->getDeepCopy());
  }
  for (const ResultMetric* value = getFirstDerivedMetric(); value != nullptr;
       value = static_cast<const ResultMetric*>(value->getNextElement())) {
    row->addDerivedMetric(value->getDeepCopy());
  }
  row->setTimestamp(getTimestamp());
  row->setOccurrenceCount(getOccurrenceCount());
  row->setSummary(isSummary());
  row->setPassesFilter(passesFilter());
  return row;
}
