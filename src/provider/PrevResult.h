#pragma once

// The previous sample of a row, for deltas, rates and the other values computed from
// the sample before.
//
// PrevResultInstance: one row of the previous sample, found by the row's name.
// PrevResult: inside it, the previous value of one rate/delta attribute and the time
// it was stored. The value is kept in place (no separate allocation for numbers, one
// reused buffer for texts): there is one per rate attribute of every row, renewed on
// every collection.

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "foundation/Prefetch.h"
#include "foundation/String.h"
#include "provider/ResultMetric.h"

class PrevResult {
 public:
  // Stores the value of `current` taken at `now` (seconds since the epoch).
  PrevResult(const ResultMetric& current, time_t now);
  ~PrevResult();
  PrevResult(PrevResult&& other) noexcept;
  PrevResult& operator=(PrevResult&& other) noexcept;
  PrevResult(const PrevResult&) = delete;
  PrevResult& operator=(const PrevResult&) = delete;

  // Replaces the stored value with that of `current`; the stored name stays.
  void setValue(const ResultMetric& current);
  RESULT_VALUE_KIND getKind() const { return kind_; }
  bool isText() const { return kind_ == RESULT_STRING || kind_ == RESULT_UTF8; }
  // The stored number (RESULT_INT32 and RESULT_INT64 as 64-bit), read as the kind says.
  long long getInt64() const { return number_.i64; }
  unsigned long long getUInt64() const { return number_.u64; }
  double getDouble() const { return number_.d; }
  // The stored text's bytes ("" for numbers).
  const char* getText() const { return isText() && text_ != nullptr ? text_->c_str() : ""; }
  time_t getTime() const { return time_; }
  void setTime(time_t time) { time_ = time; }
  const char* getMetricName() const { return name_; }

 private:
  // Kept small: a provider holds one of these per rate or delta attribute of every row.
  const char* name_;  // the Metric's name, or a copy of a name no Metric has
  union {
    long long i64;
    unsigned long long u64;
    double d;
  } number_ = {0};
  time_t time_;
  std::unique_ptr<XRV::String> text_;  // made for the first text value only
  RESULT_VALUE_KIND kind_ = RESULT_INT64;
  bool ownsName_ = false;  // name_ is a copy, freed with this value
};

class PrevResultInstance {
 public:
  explicit PrevResultInstance(const char* instanceName);
  PrevResultInstance(const PrevResultInstance&) = delete;
  PrevResultInstance& operator=(const PrevResultInstance&) = delete;

  const char* getName() const { return name_.c_str(); }
  // The previous value of the metric named `metricName`, or null. Valid until the
  // next add.
  PrevResult* find(const char* metricName);
  // Stores `current` taken at `now` as a new previous value and returns it.
  PrevResult* add(const ResultMetric& current, time_t now);
  int getCount() const { return static_cast<int>(results_.size()); }
  // Starts loading the previous values into the cache (see ResultInstance::prefetchValues).
  void prefetchValues() const {
    XRV::prefetchLines(results_.data(), results_.size() * sizeof(PrevResult));
  }
  // Makes room for `count` previous values (more may still be added).
  void reserve(size_t count) { results_.reserve(count); }

  // The collection that last saw this row (the provider's bookkeeping).
  unsigned getGeneration() const { return generation_; }
  void setGeneration(unsigned generation) { generation_ = generation; }

 private:
  std::string name_;  // short names stay inside the object
  std::vector<PrevResult> results_;
  unsigned generation_ = 0;
};
