#include "provider/ResultMetric.h"

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/String.h"
#include "foundation/UTF8String.h"
#include "framework/Trace.h"

namespace {

constexpr const char kNoValue[] = "No value";

// What a byte-string value points at when its copy could not be allocated. Never
// freed, never written.
char kEmptyText[1] = {'\0'};

// A malloc'd copy of `text`, or the shared empty text when memory is short.
char* copyText(const char* text, size_t length) {
  char* copy = static_cast<char*>(malloc(length + 1));
  if (copy == nullptr) {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("Unable to allocate %zu bytes for a value, using an empty text", length + 1);
    return kEmptyText;
  }
  memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

UTF8String* newUTF8(const char* text) {
  auto* value = new (std::nothrow) UTF8String(text);
  if (value == nullptr) {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("Unable to allocate a UTF-8 value");
  }
  return value;
}

// C casts of out-of-range doubles are undefined; clamp them to the target range and
// make NaN 0, truncating everything else toward zero.
template <typename Integer>
Integer truncateDouble(double value, Integer minimum, Integer maximum) {
  if (std::isnan(value)) {
    return 0;
  }
  if (value <= static_cast<double>(minimum)) {
    return minimum;
  }
  if (value >= static_cast<double>(maximum)) {
    return maximum;
  }
  return static_cast<Integer>(value);
}

}  // namespace

// Private constructors: identity only, the value is zero until the public
// constructor (or the caller) stores one.

ResultMetric::ResultMetric(const Metric* metric, RESULT_VALUE_KIND kind) : source_(metric, kind) {
  value_.u64 = 0;
  if (metric == nullptr) [[unlikely]] {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("Value built without a metric");
  }
}

ResultMetric::ResultMetric(const char* name, const char* displayName, RAW_METRIC_TYPE type,
                           RESULT_VALUE_KIND kind, bool key, bool counter)
    : source_(name, displayName, type, kind, key, counter) {
  value_.u64 = 0;
}

const char* ResultMetric::getMetricName() const { return source_.name(); }

const char* ResultMetric::getSurfMetricName() const { return source_.displayName(); }

ResultMetric::ResultMetric(const Metric* metric, int value) : ResultMetric(metric, RESULT_INT32) {
  value_.i32 = value;
}

ResultMetric::ResultMetric(const Metric* metric, long long value)
    : ResultMetric(metric, RESULT_INT64) {
  value_.i64 = value;
}

ResultMetric::ResultMetric(const Metric* metric, unsigned long long value)
    : ResultMetric(metric, RESULT_UINT64) {
  value_.u64 = value;
}

ResultMetric::ResultMetric(const Metric* metric, double value)
    : ResultMetric(metric, RESULT_DOUBLE) {
  value_.d = value;
}

ResultMetric::ResultMetric(const Metric* metric, const char* value)
    : ResultMetric(metric, RESULT_STRING) {
  const char* text = value == nullptr ? kNoValue : value;
  value_.text = copyText(text, strlen(text));
}

ResultMetric::ResultMetric(const Metric* metric, UTF8String* value)
    : ResultMetric(metric, RESULT_UTF8) {
  value_.utf8 = value == nullptr ? newUTF8(kNoValue) : value;
}

ResultMetric::ResultMetric(const char* name, const char* displayName, RAW_METRIC_TYPE type,
                           const char* value)
    : ResultMetric(name, displayName, type, RESULT_STRING) {
  const char* text = value == nullptr ? kNoValue : value;
  value_.text = copyText(text, strlen(text));
}

ResultMetric::ResultMetric(const char* name, const char* displayName, RAW_METRIC_TYPE type,
                           UTF8String* value)
    : ResultMetric(name, displayName, type, RESULT_UTF8) {
  value_.utf8 = value == nullptr ? newUTF8(kNoValue) : value;
}

ResultMetric::~ResultMetric() { releaseValue(); }

void ResultMetric::releaseValue() {
  if (source_.kind() == RESULT_STRING) {
    if (value_.text != kEmptyText) {
      free(value_.text);
    }
  } else if (source_.kind() == RESULT_UTF8) {
    delete value_.utf8;
  }
  source_.setKind(RESULT_INT32);
  value_.u64 = 0;
}

const char* ResultMetric::getTextBytes() const {
  if (source_.kind() == RESULT_STRING) {
    return value_.text;
  }
  if (source_.kind() == RESULT_UTF8) {
    return value_.utf8 == nullptr ? kEmptyText : value_.utf8->getBytes();
  }
  return nullptr;
}

template <typename Number, typename FromDouble>
Number ResultMetric::numberAs(FromDouble fromDouble) const {
  switch (source_.kind()) {
    case RESULT_INT32:
      return static_cast<Number>(value_.i32);
    case RESULT_INT64:
      return static_cast<Number>(value_.i64);
    case RESULT_UINT64:
      return static_cast<Number>(value_.u64);
    case RESULT_DOUBLE:
      return fromDouble(value_.d);
    default:
      return Number{};
  }
}

int ResultMetric::getIntValue() const {
  return numberAs<int>([](double d) { return truncateDouble<int>(d, INT_MIN, INT_MAX); });
}

long long ResultMetric::getIntValue64() const {
  return numberAs<long long>(
      [](double d) { return truncateDouble<long long>(d, LLONG_MIN, LLONG_MAX); });
}

double ResultMetric::getDoubleValue() const {
  return numberAs<double>([](double d) { return d; });
}

void ResultMetric::setMetricValue(int value) {
  releaseValue();
  source_.setKind(RESULT_INT32);
  value_.i32 = value;
}

void ResultMetric::setMetricValue(long long value) {
  releaseValue();
  source_.setKind(RESULT_INT64);
  value_.i64 = value;
}

void ResultMetric::setMetricValue(unsigned long long value) {
  releaseValue();
  source_.setKind(RESULT_UINT64);
  value_.u64 = value;
}

void ResultMetric::setMetricValue(double value) {
  releaseValue();
  source_.setKind(RESULT_DOUBLE);
  value_.d = value;
}

void ResultMetric::setMetricValue(const char* value) {
  XRV_TRACE_FN();
  const char* text = value == nullptr ? kNoValue : value;
  size_t length = strlen(text);
  if (source_.kind() == RESULT_STRING && value_.text != kEmptyText) {
    // Reuse the buffer: a shorter text fits (it may even lie inside the old one), a
    // longer one cannot lie inside it, so the buffer may move.
    size_t oldLength = strlen(value_.text);
    if (length <= oldLength) {
      memmove(value_.text, text, length + 1);
      return;
    }
    char* grown = static_cast<char*>(realloc(value_.text, length + 1));
    if (grown != nullptr) {
      memcpy(grown, text, length + 1);
      value_.text = grown;
      return;
    }
  }
  // Copy before releasing: `value` may be the bytes of the current UTF-8 value.
  char* copy = copyText(text, length);
  releaseValue();
  source_.setKind(RESULT_STRING);
  value_.text = copy;
}

void ResultMetric::setMetricValue(UTF8String* value) {
  XRV_TRACE_FN();
  if (source_.kind() == RESULT_UTF8 && value == value_.utf8 && value != nullptr) {
    return;
  }
  UTF8String* owned = value == nullptr ? newUTF8(kNoValue) : value;
  releaseValue();
  source_.setKind(RESULT_UTF8);
  value_.utf8 = owned;
}

void ResultMetric::setValueFrom(const ResultMetric& other) {
  XRV_TRACE_FN();
  if (&other == this) {
    return;
  }
  setMappedData(other.isMappedData());
  switch (other.source_.kind()) {
    case RESULT_STRING:
      setMetricValue(static_cast<const char*>(other.value_.text));
      return;
    case RESULT_UTF8: {
      const UTF8String* source = other.value_.utf8;
      if (source_.kind() == RESULT_UTF8 && value_.utf8 != nullptr && source != nullptr) {
        *value_.utf8 = *source;  // reuses the buffer when it is large enough
        return;
      }
      UTF8String* copy = source == nullptr ? nullptr : new (std::nothrow) UTF8String(*source);
      if (copy == nullptr && source != nullptr) {
        XRV_TRACE_ERROR("Unable to copy the value of metric %s",
                        getMetricName() == nullptr ? "" : getMetricName());
      }
      releaseValue();
      source_.setKind(RESULT_UTF8);
      value_.utf8 = copy;
      return;
    }
    default:
      releaseValue();
      source_.setKind(other.source_.kind());
      value_ = other.value_;
      return;
  }
}

ResultMetric* ResultMetric::finishCopy(ResultMetric* copy) const {
  XRV_TRACE_SITE();
  if (copy == nullptr) {
    XRV_TRACE_ERROR("Unable to copy the value of metric %s",
                    getMetricName() == nullptr ? "" : getMetricName());
    return nullptr;
  }
  copy->setValueFrom(*this);
  return copy;
}

ResultMetric* ResultMetric::getDeepCopy() const {
  XRV_TRACE_FN();
  if (source_.ownsNames()) {
    return getDeepCopy(getMetricName(), getSurfMetricName());
  }
  auto* copy = new (std::nothrow) ResultMetric(getMetric(), RESULT_INT32);
  return finishCopy(copy);
}

ResultMetric* ResultMetric::getDeepCopy(const char* name, const char* displayName) const {
  XRV_TRACE_FN();
  auto* copy = new (std::nothrow)
      ResultMetric(name, displayName, getRawMetricType(), RESULT_INT32, isKey(), isCounter());
  return finishCopy(copy);
}

void ResultMetric::toUTF8String(XRV::String* out) const {
  XRV_TRACE_FN();
  if (out == nullptr) {
    return;
  }
  out->clear();
  switch (source_.kind()) {
    case RESULT_INT32:
      out->appendFormat("%d", value_.i32);
      break;
    case RESULT_INT64:
      out->appendFormat("%lld", value_.i64);
      break;
    case RESULT_UINT64:
      out->appendFormat("%llu", value_.u64);
      break;
    case RESULT_DOUBLE:
      out->appendFormat("%15.15g", value_.d);
      break;
    case RESULT_STRING:
      out->assign(value_.text);
      break;
    case RESULT_UTF8:
      if (value_.utf8 != nullptr) {
        out->assign(value_.utf8->getBytes(), value_.utf8->length());
      }
      break;
  }
}

bool ResultMetric::areValuesEqual(const ResultMetric* other) const {
  XRV_TRACE_FN();
  if (other == nullptr) {
    return false;
  }
  if (source_.kind() == other->source_.kind()) {
    switch (source_.kind()) {
      case RESULT_INT32:
        return value_.i32 == other->value_.i32;
      case RESULT_INT64:
        return value_.i64 == other->value_.i64;
      case RESULT_UINT64:
        return value_.u64 == other->value_.u64;
      case RESULT_DOUBLE:
        return value_.d == other->value_.d;
      case RESULT_STRING:
        return strcmp(value_.text, other->value_.text) == 0;
      case RESULT_UTF8:
        if (value_.utf8 == nullptr || other->value_.utf8 == nullptr) {
          return value_.utf8 == other->value_.utf8;
        }
        return value_.utf8->equals(*other->value_.utf8);
    }
    return false;
  }
  // A byte string against a UTF-8 string: the bytes of one against the other.
  if ((source_.kind() == RESULT_STRING && other->source_.kind() == RESULT_UTF8) ||
      (source_.kind() == RESULT_UTF8 && other->source_.kind() == RESULT_STRING)) {
    return strcmp(getTextBytes(), other->getTextBytes()) == 0;
  }
  return false;
}
