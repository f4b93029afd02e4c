#pragma once

// DerivedAttributes: a provider's derived attributes (values computed from the
// other values of a row) and what the expression language keeps for them between
// calculations.
//
// Contract:
// - It holds the derived metrics in definition order (filed once, while the
//   definition is read, and copied to subnode copies) and the expression language's
//   DerivedState. The metrics belong to the provider's metric list.
// - The state is touched only under the derived calculation lock, one for the
//   process (the clang build checks every caller); purgeState() takes it itself.
//   The metric list is read without a lock once the definition is read.
// - Called by the provider (collection, requests, events) and, for the state, by
//   the expression language from inside a DerivedEvaluator call.

#include <memory>
#include <vector>

#include "foundation/Locks.h"

class Metric;
class ResultInstance;
class ResultMetric;
class ResultsManager;

// Whether a derived calculation updates the interval data of its expressions
// (sampling) or only reads them (answering a request).
enum StorageBehavior {
  STORE_INTERVAL_DATA,
  READ_INTERVAL_DATA,
};

// The values a derived attribute can use while it is computed: the row's values in
// attribute order, then the derived values computed before it.
struct DerivedInputs {
  const ResultMetric* const* values;
  int count;
};

// The derived calculation lock: one for the process, held while any provider
// computes derived values, and whenever a provider's DerivedState is touched.
PthreadMutex& derivedCalculationLock();

// What the expression language keeps per provider between calculations (the
// samples of its interval functions). Owned by the provider; touched only under the
// derived calculation lock.
class DerivedState {
 public:
  virtual ~DerivedState() = default;
  // Forgets everything kept (after a historical request).
  virtual void purge() = 0;
};

// The expression language computes formula attributes through this hook: a new
// ResultMetric for `metric` in `row` (null when it cannot). Installed by the library
// that provides the language; without one a formula attribute reports -1. Called
// with the derived calculation lock held.
using DerivedEvaluator = ResultMetric* (*)(ResultsManager* provider, const Metric* metric,
                                           const ResultInstance* row, const DerivedInputs& inputs,
                                           const char* requestId, StorageBehavior behavior);
void registerDerivedEvaluator(DerivedEvaluator evaluator);

class DerivedAttributes {
 public:
  DerivedAttributes() = default;
  DerivedAttributes(const DerivedAttributes&) = delete;
  DerivedAttributes& operator=(const DerivedAttributes&) = delete;

  // Files a derived attribute after the ones filed before.
  void add(const Metric* metric) { metrics_.push_back(metric); }
  // The derived attributes of `source` (a subnode copy's; the state is not copied).
  void copyMetrics(const DerivedAttributes& source) { metrics_ = source.metrics_; }
  const std::vector<const Metric*>& metrics() const { return metrics_; }
  bool empty() const { return metrics_.empty(); }
  int count() const { return static_cast<int>(metrics_.size()); }
  // Whether some derived attribute uses the interval functions of the expression
  // language (recomputed for each request's interval).
  bool hasIntervalBased() const;

  // The expression language's data for this provider; null until it sets some.
  DerivedState* state() XRV_REQUIRES(derivedCalculationLock()) { return state_.get(); }
  void setState(std::unique_ptr<DerivedState> state) XRV_REQUIRES(derivedCalculationLock()) {
    state_ = std::move(state);
  }
  // Forgets the expression language's interval data (takes the derived lock).
  void purgeState();

 private:
  std::vector<const Metric*> metrics_;
  std::unique_ptr<DerivedState> state_ XRV_GUARDED_BY(derivedCalculationLock());
};
