// Deltas, rates, percent changes and previous values: what the attributes of the
// rate/delta types report, computed from the previous sample of the same row.

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/UTF8String.h"
#include "framework/FwClock.h"
#include "framework/Trace.h"
#include "provider/PrevResult.h"
#include "provider/PreviousSample.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/ResultsManager.h"

namespace {

bool is64BitType(RAW_METRIC_TYPE type) {
  return type == DELTA_64BIT_DATA || type == RATE_64BIT_DATA || type == PERCENT_DELTA_64BIT_DATA;
}

bool isPercentType(RAW_METRIC_TYPE type) {
  return type == PERCENT_DELTA_DATA || type == PERCENT_DELTA_64BIT_DATA;
}

bool isRateType(RAW_METRIC_TYPE type) { return type == RATE_DATA || type == RATE_64BIT_DATA; }

bool isDeltaType(RAW_METRIC_TYPE type) { return type == DELTA_DATA || type == DELTA_64BIT_DATA; }

// Bytes of a string value of either kind.
std::string textOf(const ResultMetric& value) {
  const char* bytes = value.getTextBytes();
  return bytes == nullptr ? std::string() : std::string(bytes);
}

// A numeric value, remembered before the previous sample is overwritten.
struct Number {
  RESULT_VALUE_KIND kind;
  long long i64;
  unsigned long long u64;
  double d;
};

Number numberOf(const ResultMetric& value) {
  Number number{value.getKind(), value.getIntValue64(), 0, value.getDoubleValue()};
  if (value.isNumberU64()) {
    number.u64 = value.getUInt64();
  }
  return number;
}

Number numberOf(const PrevResult& previous) {
  return Number{previous.getKind(), previous.getInt64(), previous.getUInt64(),
                previous.getDouble()};
}

long double asLongDouble(const Number& number) {
  switch (number.kind) {
    case RESULT_DOUBLE:
      return number.d;
    case RESULT_UINT64:
      return static_cast<long double>(number.u64);
    default:
      return static_cast<long double>(number.i64);
  }
}

void setNumber(ResultMetric* target, const Number& number) {
  switch (number.kind) {
    case RESULT_INT32:
      target->setMetricValue(static_cast<int>(number.i64));
      break;
    case RESULT_UINT64:
      target->setMetricValue(number.u64);
      break;
    case RESULT_DOUBLE:
      target->setMetricValue(number.d);
      break;
    default:
      target->setMetricValue(number.i64);
      break;
  }
}

}  // namespace

PrevResult* ResultsManager::getPrevResult(ResultMetric* metric, PrevResultInstance* instance) {
  PrevResult* previous = instance->find(metric->getMetricName());
  if (previous == nullptr) {
    XRV_TRACE_SITE();
    XRV_TRACE_DETAIL("Did not find an already initialized result for %s, creating one\n",
                     metric->getMetricName());
    previous = instance->add(*metric, fwTime());
  }
  return previous;
}

void ResultsManager::clearPrevResultList() {
  XRV_TRACE_FN();
  previous_.clear();
}

void ResultsManager::processRatesDeltas() {
  XRV_TRACE_FN();
  previous_.beginSample();
  const time_t now = fwTime();
  const int rated = countRateOrDeltaMetrics();
  std::vector<PrevResultInstance*> order;
  {
    PthreadMutexLock lock(store_.newLock);
    order.reserve(static_cast<size_t>(store_.newCount()));
    RowPrefetcher prefetcher(store_.firstNew(), RowPrefetcher::kReading);
    for (ResultInstance* row = store_.firstNew(); row != nullptr; row = ResultList::next(row)) {
      prefetcher.next();
      previous_.prefetch(order.size());
      const char* name = row->getInstanceName();
      if (name == nullptr) {
        XRV_TRACE_DETAIL("WARNING: Skipping ResultInstance with name == NULL");
        continue;
      }
      PrevResultInstance* instance = previous_.findOrAdd(name, order.size(), rated);
      previous_.markSeen(instance);
      order.push_back(instance);
      for (ResultMetric* value = row->getFirstMetric(); value != nullptr;
           value = static_cast<ResultMetric*>(value->getNextElement())) {
        if (isRateOrDeltaType(value->getRawMetricType())) {
          computeRateDelta(getPrevResult(value, instance), value, now);
        }
      }
    }
  }
  XRV_TRACE_DETAIL("This is the new prev value list");
  if (isAggregating() || isReplacingRowsByKey()) {
    // Rows that this sample did not replace stay; so do their previous values.
    XRV_TRACE_DETAIL("preserving previous results for unchanged instances");
    PthreadMutexLock lock(store_.activeLock);
    for (ResultInstance* row = store_.firstActive(); row != nullptr; row = ResultList::next(row)) {
      const char* name = row->getInstanceName();
      auto* instance = name == nullptr ? nullptr : previous_.find(name);
      if (instance != nullptr) {
        previous_.markSeen(instance);
      }
    }
  }
  previous_.endSample(std::move(order));
}

void ResultsManager::computeRateDelta(PrevResult* previous, ResultMetric* current) {
  computeRateDelta(previous, current, fwTime());
}

void ResultsManager::computeRateDelta(PrevResult* previous, ResultMetric* current, time_t now) {
  XRV_TRACE_SITE();
  const RAW_METRIC_TYPE type = current->getRawMetricType();
  const char* name = current->getMetricName() == nullptr ? "" : current->getMetricName();

  if (current->isString() || current->isUTF8String()) {
    std::string before = previous->getText();
    std::string now_text = textOf(*current);
    previous->setValue(*current);
    previous->setTime(now);
    if (type == PREVIOUS_STRING_DATA) {
      if (current->isUTF8String()) {
        current->setMetricValue(new UTF8String(before.c_str()));
      } else {
        current->setMetricValue(before.c_str());
      }
    } else if (type == VALUE_CHANGED) {
      current->setMetricValue(before != now_text ? 1 : 0);
    } else {
      XRV_TRACE_ERROR("Expecting PREVIOUS_STRING_DATA or VALUE_CHANGED for %s\n", name);
    }
    return;
  }

  const Number old = numberOf(*previous);
  const Number fresh = numberOf(*current);
  const time_t storedAt = previous->getTime();
  previous->setValue(*current);
  previous->setTime(now);

  const bool doubles = fresh.kind == RESULT_DOUBLE || old.kind == RESULT_DOUBLE;
  long long delta = 0;
  double doubleDelta = 0.0;
  bool decreased = false;
  if (doubles) {
    double was = static_cast<double>(asLongDouble(old));
    double is = static_cast<double>(asLongDouble(fresh));
    doubleDelta = is - was;
    decreased = is < was;
  } else if (fresh.kind == RESULT_UINT64 || old.kind == RESULT_UINT64) {
    unsigned long long was =
        old.kind == RESULT_UINT64 ? old.u64 : static_cast<unsigned long long>(old.i64);
    unsigned long long is =
        fresh.kind == RESULT_UINT64 ? fresh.u64 : static_cast<unsigned long long>(fresh.i64);
    delta = static_cast<long long>(is - was);
    decreased = is < was;
  } else {
    delta = static_cast<long long>(static_cast<unsigned long long>(fresh.i64) -
                                   static_cast<unsigned long long>(old.i64));
    decreased = fresh.i64 < old.i64;
  }

  bool wrapped = false;
  if (decreased && current->isCounter()) {
    XRV_TRACE_DETAIL("Metric %s value wrapped.  current (%lld) <  prev (%lld)", name,
                     doubles ? static_cast<long long>(asLongDouble(fresh)) : fresh.i64,
                     doubles ? static_cast<long long>(asLongDouble(old)) : old.i64);
    wrapped = true;
    delta = 0;
    doubleDelta = 0.0;
  }

  if (!is64BitType(type)) {
    if (doubles) {
      if (doubleDelta > 2147483647.0) {
        XRV_TRACE_DETAIL("Metric %s delta of %lld exceeds max.", name,
                         static_cast<long long>(doubleDelta));
        doubleDelta = 2147483647.0;
      } else if (doubleDelta < -2147483648.0) {
        XRV_TRACE_DETAIL("Metric %s delta of %lld exceeds max min.", name,
                         static_cast<long long>(doubleDelta));
        doubleDelta = -2147483648.0;
      }
    } else if (delta > INT_MAX) {
      XRV_TRACE_DETAIL("Metric %s delta of %lld exceeds max.", name, delta);
      delta = INT_MAX;
    } else if (delta < INT_MIN) {
      XRV_TRACE_DETAIL("Metric %s delta of %lld exceeds max min.", name, delta);
      delta = INT_MIN;
    }
  }

  if (type == VALUE_CHANGED) {
    current->setMetricValue((doubles ? doubleDelta != 0.0 : delta != 0) ? 1 : 0);
  } else if (type == PREVIOUS_NUMERIC_DATA) {
    setNumber(current, old);
  } else if (isDeltaType(type)) {
    if (doubles) {
      current->setMetricValue(doubleDelta);
    } else if (type == DELTA_DATA) {
      current->setMetricValue(static_cast<int>(delta));
    } else {
      current->setMetricValue(delta);
    }
  } else if (isPercentType(type)) {
    long double was = asLongDouble(old);
    long long percent = 0;
    if (was != 0) {
      long double change = doubles ? static_cast<long double>(doubleDelta) : delta;
      long double value = change / was * 100.0L + 0.5L;
      if (value >= static_cast<long double>(LLONG_MAX)) {
        percent = LLONG_MAX;
      } else if (value <= static_cast<long double>(LLONG_MIN)) {
        percent = LLONG_MIN;
      } else {
        percent = static_cast<long long>(value);  // toward zero
      }
    }
    if (type == PERCENT_DELTA_DATA) {
      current->setMetricValue(static_cast<int>(percent < INT_MIN   ? INT_MIN
                                               : percent > INT_MAX ? INT_MAX
                                                                   : percent));
    } else {
      current->setMetricValue(percent);
    }
  } else if (isRateType(type)) {
    long long interval = static_cast<long long>(now - storedAt);
    if (interval <= 0) {
      interval = 1;
    }
    if (doubles) {
      current->setMetricValue(wrapped ? 0.0 : doubleDelta / static_cast<double>(interval));
      return;
    }
    long long rate = wrapped ? 0 : delta / interval;
    if (type == RATE_DATA) {
      if (rate > INT_MAX) {
        XRV_TRACE_DETAIL("Metric %s Rate of %lld exceeds max.", name, rate);
        rate = INT_MAX;
      } else if (rate < INT_MIN) {
        XRV_TRACE_DETAIL("Metric %s Rate of %lld exceeds max min.", name, rate);
        rate = INT_MIN;
      }
      current->setMetricValue(static_cast<int>(rate));
    } else {
      current->setMetricValue(rate);
    }
  }
}
