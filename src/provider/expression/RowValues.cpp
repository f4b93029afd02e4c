#include "provider/expression/RowValues.h"

#include <cstring>

#include "provider/ResultMetric.h"

namespace XRV::expression {

namespace {

bool sameText(const char* a, const std::string& b) { return a != nullptr && b == a; }

}  // namespace

const ResultMetric* RowValues::search(const Reference& reference) const {
  int found = -1;
  for (int i = 0; i < count_ && found < 0; ++i) {
    if (sameText(values_[i]->getMetricName(), reference.name)) {
      found = i;
    }
  }
  for (int i = 0; i < count_ && found < 0; ++i) {
    if (sameText(values_[i]->getSurfMetricName(), reference.name)) {
      found = i;
    }
  }
  if (found < 0) {
    return nullptr;
  }
  // Only values built from a Metric can be recognised by it.
  if (const Metric* metric = values_[found]->getMetric()) {
    reference.hintMetric.store(metric, std::memory_order_relaxed);
    reference.hintPosition.store(found, std::memory_order_relaxed);
  }
  return values_[found];
}

}  // namespace XRV::expression
