#include "provider/expression/IntervalData.h"

#include <algorithm>

#include "provider/expression/Arithmetic.h"

namespace XRV::expression {

void SampleSeries::add(int64_t now, const Value& value, int64_t keepSeconds) {
  samples_.push_back(Sample{now, value});
  while (samples_.size() > kMaxSamples ||
         (samples_.size() > 2 && samples_[1].time <= now - keepSeconds)) {
    samples_.pop_front();
  }
}

bool SampleSeries::compute(IntervalKind kind, int64_t now, int interval, Value* out) const {
  const size_t count = samples_.size();
  if (count == 0) {
    return false;
  }
  // [first, count) is the window; `base` the sample that deltas and rates start from.
  size_t first = count >= 2 ? count - 2 : 0;
  size_t base = first;
  if (interval > 0) {
    const int64_t start = now - interval;
    first = count;
    while (first > 0 && samples_[first - 1].time > start) {
      --first;
    }
    if (first == count) {
      // Nothing that new: the newest sample alone stands for the window (no change).
      first = count - 1;
      base = first;
    } else {
      base = first > 0 ? first - 1 : first;
    }
  }
  const Sample& newest = samples_[count - 1];
  const Sample& oldest = samples_[base];
  switch (kind) {
    case INTERVAL_DELTA:
    case INTERVAL_RATE: {
      Value delta = arithmetic(OP_SUBTRACT, newest.value, oldest.value);
      if (kind == INTERVAL_DELTA) {
        *out = delta;
      } else {
        int64_t elapsed = std::max<int64_t>(1, newest.time - oldest.time);
        *out = Value::real(delta.asDouble() / static_cast<double>(elapsed));
      }
      return true;
    }
    case INTERVAL_AVERAGE: {
      double sum = 0;
      for (size_t i = first; i < count; ++i) {
        sum += samples_[i].value.asDouble();
      }
      *out = Value::real(sum / static_cast<double>(count - first));
      return true;
    }
    case INTERVAL_MINIMUM:
    case INTERVAL_MAXIMUM: {
      Value best = samples_[first].value;
      for (size_t i = first + 1; i < count; ++i) {
        const Value& candidate = samples_[i].value;
        int order = compareNumbers(candidate, best);
        if ((kind == INTERVAL_MINIMUM && order < 0) || (kind == INTERVAL_MAXIMUM && order == 1)) {
          best = candidate;
        }
      }
      *out = best;
      return true;
    }
  }
  return false;
}

const SampleSeries* IntervalData::find(const void* expression, int slot,
                                       std::string_view row) const {
  auto found = rows_.find(row);
  if (found == rows_.end()) {
    return nullptr;
  }
  for (const Series& series : found->second) {
    if (series.expression == expression && series.slot == slot) {
      return &series.samples;
    }
  }
  return nullptr;
}

SampleSeries& IntervalData::obtain(const void* expression, int slot, std::string_view row) {
  auto found = rows_.find(row);
  if (found == rows_.end()) {
    found = rows_.emplace(std::string(row), std::vector<Series>()).first;
  }
  for (Series& series : found->second) {
    if (series.expression == expression && series.slot == slot) {
      return series.samples;
    }
  }
  found->second.push_back(Series{expression, slot, SampleSeries()});
  return found->second.back().samples;
}

void IntervalData::purge() {
  rows_.clear();
  lastSweep_ = 0;
}

void IntervalData::noteInterval(int seconds) {
  keepSeconds_ = std::clamp<int64_t>(std::max<int64_t>(keepSeconds_, seconds + 1),
                                     kMinimumKeepSeconds, kMaximumKeepSeconds);
}

void IntervalData::sweep(int64_t now) {
  if (now - lastSweep_ < 60) {
    return;
  }
  lastSweep_ = now;
  for (auto it = rows_.begin(); it != rows_.end();) {
    int64_t newest = 0;
    for (const Series& series : it->second) {
      newest = std::max(newest, series.samples.newestTime());
    }
    if (newest <= now - keepSeconds_) {
      it = rows_.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace XRV::expression
