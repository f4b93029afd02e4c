#pragma once

// Builders of ResultMetrics of each representation, for table-driven tests.

#include <functional>

#include "definition/Metric.h"
#include "foundation/UTF8String.h"
#include "provider/ResultMetric.h"

using MakeValue = std::function<ResultMetric*(const Metric*)>;

inline MakeValue int32(int v) {
  return [v](const Metric* m) { return new ResultMetric(m, v); };
}
inline MakeValue int64(long long v) {
  return [v](const Metric* m) { return new ResultMetric(m, v); };
}
inline MakeValue uint64(unsigned long long v) {
  return [v](const Metric* m) { return new ResultMetric(m, v); };
}
inline MakeValue real(double v) {
  return [v](const Metric* m) { return new ResultMetric(m, v); };
}
inline MakeValue bytes(const char* v) {
  return [v](const Metric* m) { return new ResultMetric(m, v); };
}
// Null gives a null UTF8String*.
inline MakeValue utf8(const char* v) {
  return [v](const Metric* m) {
    return new ResultMetric(m, v == nullptr ? nullptr : new UTF8String(v));
  };
}
