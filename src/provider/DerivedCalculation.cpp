// Derived attributes: values computed from the other values of a row, by the
// two-operand form of the definition (arg1 op arg2) or by a formula of the
// expression language. All derived calculation of the process is serialised by one
// lock.

#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "foundation/Locks.h"
#include "foundation/UTF8String.h"
#include "framework/Trace.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/ResultsManager.h"

namespace {

// The values of the row being calculated, then its derived values so far (reused
// from row to row; only under the derived calculation lock).
std::vector<const ResultMetric*>& derivedInputs() {
  static std::vector<const ResultMetric*> inputs;
  return inputs;
}

std::atomic<DerivedEvaluator> installedEvaluator{nullptr};

// The value named `name` among the row's values and the derived values so far.
const ResultMetric* findOperand(const ResultInstance* row, const char* name) {
  if (name == nullptr) {
    return nullptr;
  }
  if (const ResultMetric* value = row->findMetric(name)) {
    return value;
  }
  for (const ResultMetric* value = row->getFirstDerivedMetric(); value != nullptr;
       value = static_cast<const ResultMetric*>(value->getNextElement())) {
    if (value->getMetricName() != nullptr && strcmp(value->getMetricName(), name) == 0) {
      return value;
    }
  }
  return nullptr;
}

// What a derived attribute reports when it cannot be computed: 0, or "" for text.
ResultMetric* fallbackValue(const Metric* metric, int number) {
  if (metric->isStringType()) {
    return new ResultMetric(metric, "");
  }
  return new ResultMetric(metric, number);
}

bool isComparison(char op) { return strchr("<>=!&|", op) != nullptr && op != '\0'; }

// The value of a two-operand derived attribute (arg1 op arg2) in `row`; null when it
// cannot be computed.
ResultMetric* calculateSimpleDerived(const Metric* metric, const ResultInstance* row) {
  XRV_TRACE_FN();
  const ResultMetric* left = findOperand(row, metric->getArg1());
  if (left == nullptr) {
    XRV_TRACE_DETAIL("metric1 %s not found in result instance", metric->getArg1());
    return nullptr;
  }
  const ResultMetric* right = findOperand(row, metric->getArg2());
  if (right == nullptr) {
    XRV_TRACE_DETAIL("metric2 %s not found in result instance",
                     metric->getArg2() == nullptr ? "" : metric->getArg2());
    return nullptr;
  }
  const char op = metric->getOperation();

  if (!left->isNumeric() || !right->isNumeric()) {
    if (left->isNumeric() || right->isNumeric()) {
      XRV_TRACE_ERROR("Cannot combine text and a number in derived attribute %s",
                      metric->getMetricName());
      return nullptr;
    }
    if (left->isUTF8String() != right->isUTF8String()) {
      XRV_TRACE_ERROR("Cannot concatenate string and UTF8");
      return nullptr;
    }
    std::string joined = std::string(left->getTextBytes()) + right->getTextBytes();
    if (left->isUTF8String()) {
      return new ResultMetric(metric, new UTF8String(joined.c_str(), joined.size()));
    }
    return new ResultMetric(metric, joined.c_str());
  }

  if (isComparison(op)) {
    XRV_TRACE_ERROR("Boolean attributes are not supported");
    return nullptr;
  }
  if (op != '+' && op != '-' && op != '*' && op != '/' && op != '%') {
    XRV_TRACE_ERROR("Unknown operation %c", op == '\0' ? ' ' : op);
    return nullptr;
  }
  const bool divides = op == '/' || op == '%';

  if (left->isNumberDouble() || right->isNumberDouble()) {
    double a = left->getDoubleValue();
    double b = right->getDoubleValue();
    if (divides && b == 0.0) {
      XRV_TRACE_ERROR("Division by zero in derived attribute %s, reporting 0",
                      metric->getMetricName());
      return nullptr;
    }
    double result = op == '+'   ? a + b
                    : op == '-' ? a - b
                    : op == '*' ? a * b
                    : op == '/' ? a / b
                                : std::fmod(a, b);
    XRV_TRACE_DETAIL("Double derived result %g %c %g = %g", a, op, b, result);
    return new ResultMetric(metric, result);
  }

  long long a = left->getIntValue64();
  long long b = right->getIntValue64();
  if (divides && b == 0) {
    XRV_TRACE_ERROR("Division by zero in derived attribute %s, reporting 0",
                    metric->getMetricName());
    return nullptr;
  }
  long long result = 0;
  bool overflow = false;
  switch (op) {
    case '+':
      overflow = __builtin_add_overflow(a, b, &result);
      break;
    case '-':
      overflow = __builtin_sub_overflow(a, b, &result);
      break;
    case '*':
      overflow = __builtin_mul_overflow(a, b, &result);
      break;
    case '/':
      overflow = a == LLONG_MIN && b == -1;
      result = overflow ? LLONG_MAX : a / b;
      break;
    default:
      result = (a == LLONG_MIN && b == -1) ? 0 : a % b;
      break;
  }
  if (overflow) {
    XRV_TRACE_ERROR("Derived attribute %s overflows 64 bits, reporting 0", metric->getMetricName());
    return nullptr;
  }
  if (left->isNumber() && right->isNumber() && result >= INT_MIN && result <= INT_MAX) {
    XRV_TRACE_DETAIL("Int derived result %d %c %d = %d", static_cast<int>(a), op,
                     static_cast<int>(b), static_cast<int>(result));
    return new ResultMetric(metric, static_cast<int>(result));
  }
  XRV_TRACE_DETAIL("Int64 derived result %lld %c %lld = %lld", a, op, b, result);
  return new ResultMetric(metric, result);
}

}  // namespace

PthreadMutex& derivedCalculationLock() {
  static PthreadMutex lock;
  return lock;
}

void registerDerivedEvaluator(DerivedEvaluator evaluator) {
  installedEvaluator.store(evaluator, std::memory_order_release);
}

void ResultsManager::initGlobalDerivedLock() { derivedCalculationLock(); }

bool DerivedAttributes::hasIntervalBased() const {
  for (const Metric* metric : metrics_) {
    if (metric->isIntervalBased()) {
      return true;
    }
  }
  return false;
}

void ResultsManager::calculateDerived(const char* requestId, StorageBehavior behavior) {
  XRV_TRACE_FN();
  if (derived_.empty()) {
    return;
  }
  {
    PthreadMutexLock lock(store_.newLock);
    if (!store_.newEmpty()) {
      XRV_TRACE_DETAIL("Using the new list");
      for (ResultInstance* row = store_.firstNew(); row != nullptr; row = ResultList::next(row)) {
        internalCalculateDerived(requestId, row, behavior);
      }
      return;
    }
  }
  PthreadMutexLock lock(store_.activeLock);
  calculateDerivedOnActive(requestId, behavior);
}

void ResultsManager::calculateDerivedOnActive(const char* requestId, StorageBehavior behavior) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Using the active list");
  for (ResultInstance* row = store_.firstActive(); row != nullptr; row = ResultList::next(row)) {
    internalCalculateDerived(requestId, row, behavior);
  }
}

void ResultsManager::internalCalculateDerived(const char* requestId, ResultInstance* row,
                                              StorageBehavior behavior) {
  XRV_TRACE_FN();
  if (derived_.empty() || row == nullptr) {
    return;
  }
  PthreadMutexLock lock(derivedCalculationLock());
  row->clearDerivedMetrics();
  DerivedEvaluator evaluator = installedEvaluator.load(std::memory_order_acquire);
  std::vector<const ResultMetric*>& inputs = derivedInputs();
  inputs.clear();
  for (const ResultMetric* value = row->getFirstMetric(); value != nullptr;
       value = static_cast<const ResultMetric*>(value->getNextElement())) {
    inputs.push_back(value);
  }
  for (const Metric* metric : derived_.metrics()) {
    XRV_TRACE_DETAIL("Calculating derived attribute %s",
                     metric->getMetricName() == nullptr ? "" : metric->getMetricName());
    ResultMetric* value = nullptr;
    if (metric->getArg1() != nullptr) {
      value = calculateSimpleDerived(metric, row);
      if (value == nullptr) {
        value = fallbackValue(metric, 0);
      }
    } else {
      const char* formula = metric->getExpressionFormula();
      XRV_TRACE_DETAIL("Calculating expression formula: %s", formula == nullptr ? "" : formula);
      if (evaluator != nullptr && metric->getExpression() != nullptr) {
        value = evaluator(this, metric, row,
                          DerivedInputs{inputs.data(), static_cast<int>(inputs.size())}, requestId,
                          behavior);
      } else {
        XRV_TRACE_DETAIL("Expressions are not available in this build, %s reports -1",
                         metric->getMetricName() == nullptr ? "" : metric->getMetricName());
      }
      if (value == nullptr) {
        value = fallbackValue(metric, -1);
      }
    }
    row->addDerivedMetric(value);
    inputs.push_back(value);
  }
}

void DerivedAttributes::purgeState() {
  XRV_TRACE_FN();
  PthreadMutexLock lock(derivedCalculationLock());
  if (state_ != nullptr) {
    state_->purge();
  }
}
