#include "provider/PrevResult.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "foundation/UTF8String.h"
#include "framework/api/Trace.h"

PrevResult::PrevResult(const ResultMetric& current, time_t now) : time_(now) {
  if (current.getMetric() != nullptr) {
    name_ = current.getMetricName();
  } else {
    ownedName_ = current.getMetricName() == nullptr ? nullptr : strdup(current.getMetricName());
    name_ = ownedName_;
  }
  setValue(current);
}

PrevResult::~PrevResult() { free(ownedName_); }

PrevResult::PrevResult(PrevResult&& other) noexcept
    : name_(other.name_),
      ownedName_(std::exchange(other.ownedName_, nullptr)),
      kind_(other.kind_),
      i64_(other.i64_),
      u64_(other.u64_),
      d_(other.d_),
      text_(std::move(other.text_)),
      time_(other.time_) {}

PrevResult& PrevResult::operator=(PrevResult&& other) noexcept {
  if (this != &other) {
    free(ownedName_);
    name_ = other.name_;
    ownedName_ = std::exchange(other.ownedName_, nullptr);
    kind_ = other.kind_;
    i64_ = other.i64_;
    u64_ = other.u64_;
    d_ = other.d_;
    text_ = std::move(other.text_);
    time_ = other.time_;
  }
  return *this;
}

void PrevResult::setValue(const ResultMetric& current) {
  kind_ = current.getKind();
  switch (kind_) {
    case RESULT_INT32:
    case RESULT_INT64:
      i64_ = current.getIntValue64();
      break;
    case RESULT_UINT64:
      u64_ = current.getUInt64();
      break;
    case RESULT_DOUBLE:
      d_ = current.getDouble();
      break;
    case RESULT_STRING:
    case RESULT_UTF8: {
      const char* bytes = current.getTextBytes();
      if (!text_.assign(bytes == nullptr ? "" : bytes)) {
        XRV_TRACE_SITE();
        XRV_TRACE_ERROR("Unable to keep the previous value of metric %s",
                        name_ == nullptr ? "" : name_);
      }
      break;
    }
  }
}

PrevResultInstance::PrevResultInstance(const char* instanceName)
    : name_(instanceName == nullptr ? "" : instanceName) {}

PrevResult* PrevResultInstance::find(const char* metricName) {
  if (metricName == nullptr) {
    return nullptr;
  }
  for (PrevResult& result : results_) {
    const char* name = result.getMetricName();
    // Values of one Metric share its name: the pointer usually matches at once.
    if (name == metricName || (name != nullptr && strcmp(name, metricName) == 0)) {
      return &result;
    }
  }
  return nullptr;
}

PrevResult* PrevResultInstance::add(const ResultMetric& current, time_t now) {
  results_.emplace_back(current, now);
  return &results_.back();
}
