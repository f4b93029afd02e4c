#pragma once

// ResultInstance: one row of an attribute group: its values in attribute order, the
// values of its derived attributes, and its name, which is made of its key values
// ("web01|/var", keys joined by "|").
//
// A row owns its ResultMetrics. Rows are chained (ListElement) in one of a
// provider's lists at a time. Not thread-safe: the provider's locks guard its lists.

#include <cstddef>

#include "foundation/List.h"
#include "foundation/ObjectPool.h"
#include "foundation/String.h"

class ResultMetric;

class ResultInstance : public ListElement {
 public:
  // `name` may be null: key values then make the name. `expectedMetricCount` is
  // what the data source meant to add (rows with fewer values can be skipped).
  ResultInstance(const char* name, int expectedMetricCount);
  ~ResultInstance() override;
  ResultInstance(const ResultInstance&) = delete;
  ResultInstance& operator=(const ResultInstance&) = delete;

  static void* operator new(size_t size) { return XRV::ObjectPool<ResultInstance>::allocate(size); }
  static void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return XRV::ObjectPool<ResultInstance>::allocateOrNull(size);
  }
  static void operator delete(void* block, size_t size) {
    XRV::ObjectPool<ResultInstance>::release(block, size);
  }

  // The row's name, or null when it has none.
  const char* getInstanceName() const { return name_.empty() && !named_ ? nullptr : name_.c_str(); }

  // Appends `metric` (the row owns it); a key metric's value extends the name: the
  // first key as it is, every further one after a "|".
  void addMetric(ResultMetric* metric);
  int getMetricCount() const { return metricCount_; }
  int getExpectedMetricCount() const { return expectedMetricCount_; }
  // The first value; walk on with getNextElement(). Null when there is none.
  ResultMetric* getFirstMetric() const { return firstMetric_; }
  // Starts loading this row's values into the cache, for walks over many rows that
  // would otherwise wait on memory at every row. `lastUse`: the values are read once
  // more and then freed, and should not displace what stays in the cache.
  void prefetchValues(bool lastUse) const;
  // The value whose metric name is `metricName`, or null.
  ResultMetric* findMetric(const char* metricName) const;

  void addDerivedMetric(ResultMetric* metric);
  void clearDerivedMetrics();
  ResultMetric* getFirstDerivedMetric() const { return firstDerived_; }
  int getDerivedMetricCount() const { return derivedCount_; }

  // The row's timestamp (16 characters, CYYMMDDHHMMSSmmm); "" when it has none.
  const char* getTimestamp() const { return timestamp_; }
  bool hasTimestamp() const { return timestamp_[0] != '\0'; }
  void setTimestamp(const char* timestamp);

  int getOccurrenceCount() const { return occurrences_; }
  // Returns the new count.
  int incrementOccurences() { return ++occurrences_; }
  void setOccurrenceCount(int count) { occurrences_ = count; }
  bool isSummary() const { return summary_; }
  void setSummary(bool summary) { summary_ = summary; }
  bool passesFilter() const { return passesFilter_; }
  void setPassesFilter(bool passes) { passesFilter_ = passes; }

  // Name, values, derived values, timestamp and flags. Caller deletes.
  ResultInstance* getDeepCopy() const;

 private:
  // Appends `length` bytes of `text`, after a "|" once a key value is in the name.
  // False, with the name unchanged, when the buffer cannot grow.
  bool appendToName(const char* text, size_t length);

  // Ordered so that nothing is padding: a sample holds one of these per row.
  XRV::String name_;  // short names stay inside the row
  ResultMetric* firstMetric_ = nullptr;
  ResultMetric* lastMetric_ = nullptr;
  ResultMetric* firstDerived_ = nullptr;
  ResultMetric* lastDerived_ = nullptr;
  int keyCount_ = 0;
  int metricCount_ = 0;
  int expectedMetricCount_;
  int derivedCount_ = 0;
  int occurrences_ = 0;
  char timestamp_[17] = {};
  bool named_ = false;  // a name was given (possibly "")
  bool summary_ = false;
  bool passesFilter_ = true;
};
