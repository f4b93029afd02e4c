#pragma once

// RowValues: the values an expression can refer to, as one array: a row's values in
// attribute order followed by the derived values computed so far.
//
// A reference names an attribute. It resolves to the value whose metric name (the
// definition's "metricName") is the name, else to the one whose display name
// ("name") is. Each reference remembers where it was found last time (rows of one
// attribute group have the same shape), so that looking it up again costs one
// comparison of Metric pointers.

#include <atomic>
#include <string>

#include "provider/ResultMetric.h"

namespace XRV::expression {

struct Reference {
  explicit Reference(std::string attribute) : name(std::move(attribute)) {}
  std::string name;
  // Where it was found last: a position and the Metric of the value there. Read and
  // written without order; a stale or mixed pair only costs a search, since a hit
  // needs the value at the position to come from that Metric.
  mutable std::atomic<int> hintPosition{-1};
  mutable std::atomic<const Metric*> hintMetric{nullptr};
};

class RowValues {
 public:
  RowValues(const ResultMetric* const* values, int count) : values_(values), count_(count) {}
  // The value `reference` names; null when the row has none.
  const ResultMetric* find(const Reference& reference) const {
    int position = reference.hintPosition.load(std::memory_order_relaxed);
    const Metric* metric = reference.hintMetric.load(std::memory_order_relaxed);
    if (position >= 0 && position < count_ && metric != nullptr &&
        values_[position]->getMetric() == metric) {
      return values_[position];
    }
    return search(reference);
  }
  int count() const { return count_; }

 private:
  const ResultMetric* search(const Reference& reference) const;

  const ResultMetric* const* values_;
  int count_;
};

}  // namespace XRV::expression
