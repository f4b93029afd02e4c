#pragma once

// The samples behind the interval functions (average, minimum, maximum, delta,
// rate): for every row (by instance name) and every interval function of every
// formula, the values its argument had at the collections so far, with their times.
//
// A collection stores one sample per row and function; a request with an interval
// reads the samples of its own window, so requests of different intervals share the
// samples without disturbing each other. Samples are kept for the longest interval
// asked for so far (at least an hour, at most a day) and at most kMaxSamples per
// series; rows that stop coming are forgotten after that time.
//
// Owned by its provider; touched only under the derived calculation lock.

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "provider/ResultsManager.h"
#include "provider/expression/Value.h"

namespace XRV::expression {

enum IntervalKind : uint8_t {
  INTERVAL_AVERAGE,
  INTERVAL_MINIMUM,
  INTERVAL_MAXIMUM,
  INTERVAL_DELTA,
  INTERVAL_RATE,
};

class SampleSeries {
 public:
  static constexpr size_t kMaxSamples = 256;

  // Appends a sample (a number); drops samples older than `keepSeconds` before
  // `now`, always keeping the newest two.
  void add(int64_t now, const Value& value, int64_t keepSeconds);
  // The function over the window: the samples newer than now - interval plus the
  // last one before them, or, for an interval of 0, the last two samples. False
  // when there is no sample yet.
  bool compute(IntervalKind kind, int64_t now, int interval, Value* out) const;
  int64_t newestTime() const { return samples_.empty() ? 0 : samples_.back().time; }
  size_t size() const { return samples_.size(); }

 private:
  struct Sample {
    int64_t time;
    Value value;
  };
  std::deque<Sample> samples_;
};

class IntervalData : public DerivedState {
 public:
  static constexpr int64_t kMinimumKeepSeconds = 3600;
  static constexpr int64_t kMaximumKeepSeconds = 86400;

  // The series of function `slot` of `expression` for `row`; null when it has none.
  const SampleSeries* find(const void* expression, int slot, std::string_view row) const;
  // The same, created when missing.
  SampleSeries& obtain(const void* expression, int slot, std::string_view row);
  // Forgets every sample.
  void purge() override;
  // A request asked for `seconds`: keep samples that long from now on.
  void noteInterval(int seconds);
  int64_t keepSeconds() const { return keepSeconds_; }
  // Forgets the rows without a sample newer than now - keepSeconds(); at most once a
  // minute.
  void sweep(int64_t now);
  size_t rowCount() const { return rows_.size(); }

 private:
  struct Series {
    const void* expression;
    int slot;
    SampleSeries samples;
  };
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  std::unordered_map<std::string, std::vector<Series>, TextHash, std::equal_to<>> rows_;
  int64_t keepSeconds_ = kMinimumKeepSeconds;
  int64_t lastSweep_ = 0;
};

}  // namespace XRV::expression
