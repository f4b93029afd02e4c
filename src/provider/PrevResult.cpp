#include "provider/PrevResult.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "foundation/UTF8String.h"
#include "framework/Trace.h"

PrevResult::PrevResult(const ResultMetric& current, time_t now) : time_(now) {
  if (current.getMetric() != nullptr) {
    name_ = current.getMetricName();
  } else {
    name_ = current.getMetricName() == nullptr ? nullptr : strdup(current.getMetricName());
    ownsName_ = name_ != nullptr;
  }
  setValue(current);
}

PrevResult::~PrevResult() {
  if (ownsName_) {
    free(const_cast<char*>(name_));
  }
}

PrevResult::PrevResult(PrevResult&& other) noexcept
    : name_(other.name_),
      number_(other.number_),
      time_(other.time_),
      text_(std::move(other.text_)),
      kind_(other.kind_),
      ownsName_(std::exchange(other.ownsName_, false)) {}

PrevResult& PrevResult::operator=(PrevResult&& other) noexcept {
  if (this != &other) {
    if (ownsName_) {
      free(const_cast<char*>(name_));
    }
    name_ = other.name_;
    ownsName_ = std::exchange(other.ownsName_, false);
    number_ = other.number_;
    time_ = other.time_;
    text_ = std::move(other.text_);
    kind_ = other.kind_;
  }
  return *this;
}

void PrevResult::setValue(const ResultMetric& current) {
  kind_ = current.getKind();
  switch (kind_) {
    case RESULT_INT32:
    case RESULT_INT64:
      number_.i64 = current.getIntValue64();
      break;
    case RESULT_UINT64:
      number_.u64 = current.getUInt64();
      break;
    case RESULT_DOUBLE:
      number_.d = current.getDouble();
      break;
    case RESULT_STRING:
    case RESULT_UTF8: {
      number_.i64 = 0;
      const char* bytes = current.getTextBytes();
      if (text_ == nullptr) {
        text_.reset(new (std::nothrow) XRV::String());
      }
      if (text_ == nullptr || !text_->assign(bytes == nullptr ? "" : bytes)) {
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
  // Values of one Metric share its name: the pointer usually matches, and comparing
  // pointers first spares a text comparison with every value before the one sought.
  for (PrevResult& result : results_) {
    if (result.getMetricName() == metricName) {
      return &result;
    }
  }
  for (PrevResult& result : results_) {
    const char* name = result.getMetricName();
    if (name != nullptr && strcmp(name, metricName) == 0) {
      return &result;
    }
  }
  return nullptr;
}

PrevResult* PrevResultInstance::add(const ResultMetric& current, time_t now) {
  results_.emplace_back(current, now);
  return &results_.back();
}
