#include "provider/NumericParser.h"

#include <cerrno>
#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "framework/Trace.h"

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

bool is64BitType(RAW_METRIC_TYPE type) {
  return type == NUMERIC_64BIT_DATA || type == DELTA_64BIT_DATA || type == RATE_64BIT_DATA ||
         type == PERCENT_DELTA_64BIT_DATA;
}

// Doubles are read in the "C" locale whatever the process locale is: commands print
// "2.5" even where the operator's locale writes "2,5".
locale_t cLocale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  return locale;
}

// The end of the decimal number (digits, optional fraction, optional exponent) at
// `p`, or `p` itself when no digit is there. *isDouble tells whether a fraction or an
// exponent belongs to it.
const char* scanDecimal(const char* p, bool* isDouble) {
  const char* start = p;
  *isDouble = false;
  while (isDigit(*p)) {
    ++p;
  }
  bool digits = p != start;
  if (*p == '.') {
    const char* fraction = p + 1;
    while (isDigit(*fraction)) {
      ++fraction;
    }
    if (digits || fraction != p + 1) {
      digits = true;
      *isDouble = true;
      p = fraction;
    }
  }
  if (!digits) {
    return start;
  }
  if (*p == 'e' || *p == 'E') {
    const char* exponent = p + 1;
    if (*exponent == '+' || *exponent == '-') {
      ++exponent;
    }
    if (isDigit(*exponent)) {
      while (isDigit(*exponent)) {
        ++exponent;
      }
      *isDouble = true;
      p = exponent;
    }
  }
  return p;
}

// Accumulates digits of `base` into *magnitude. Returns false when the value exceeds
// the unsigned 64-bit range (*magnitude is then the maximum).
bool accumulate(unsigned long long* magnitude, unsigned digit, unsigned base) {
  if (*magnitude > (ULLONG_MAX - digit) / base) {
    *magnitude = ULLONG_MAX;
    return false;
  }
  *magnitude = *magnitude * base + digit;
  return true;
}

// Stores the integer -magnitude or +magnitude in its representation.
void storeInteger(NumericValue* value, bool negative, unsigned long long magnitude, bool overflow,
                  bool wide) {
  constexpr unsigned long long kInt32Max = INT32_MAX;
  constexpr unsigned long long kInt64Max = LLONG_MAX;
  if (negative) {
    if (overflow || magnitude > kInt64Max + 1) {
      value->kind = RESULT_INT64;
      value->i64 = LLONG_MIN;
      value->clamped = true;
      return;
    }
    // -magnitude computed without overflowing at LLONG_MIN.
    value->i64 = magnitude == 0 ? 0 : -static_cast<long long>(magnitude - 1) - 1;
    value->kind = !wide && magnitude <= kInt32Max + 1 ? RESULT_INT32 : RESULT_INT64;
    return;
  }
  if (overflow) {
    value->kind = RESULT_UINT64;
    value->u64 = ULLONG_MAX;
    value->clamped = true;
    return;
  }
  if (magnitude > kInt64Max) {
    value->kind = RESULT_UINT64;
    value->u64 = magnitude;
    return;
  }
  value->i64 = static_cast<long long>(magnitude);
  value->kind = !wide && magnitude <= kInt32Max ? RESULT_INT32 : RESULT_INT64;
}

const char* printable(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

NumericValue parseNumericText(const char* text, RAW_METRIC_TYPE type) {
  XRV_TRACE_FN();
  bool wide = is64BitType(type);
  NumericValue value{wide ? RESULT_INT64 : RESULT_INT32, 0, 0, 0.0, false, false, false};
  if (text == nullptr) {
    return value;
  }

  const char* p = text;
  while (isBlank(*p)) {
    ++p;
  }
  const char* numberStart = p;
  bool negative = false;
  if (*p == '+' || *p == '-') {
    negative = *p == '-';
    ++p;
  }

  const char* end = p;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && hexDigit(p[2]) >= 0) {
    unsigned long long magnitude = 0;
    bool overflow = false;
    for (end = p + 2; hexDigit(*end) >= 0; ++end) {
      if (!overflow) {
        overflow = !accumulate(&magnitude, static_cast<unsigned>(hexDigit(*end)), 16);
      }
    }
    storeInteger(&value, negative, magnitude, overflow, wide);
  } else {
    bool isDouble = false;
    end = scanDecimal(p, &isDouble);
    if (end == p) {
      return value;  // no number: 0
    }
    if (isDouble) {
      value.kind = RESULT_DOUBLE;
      errno = 0;
      locale_t c = cLocale();
      value.d = c == static_cast<locale_t>(nullptr) ? strtod(numberStart, nullptr)
                                                    : strtod_l(numberStart, nullptr, c);
      if (errno == ERANGE && std::isinf(value.d)) {
        value.d = value.d > 0 ? DBL_MAX : -DBL_MAX;
        value.clamped = true;
      }
    } else {
      unsigned long long magnitude = 0;
      bool overflow = false;
      for (const char* digit = p; digit < end; ++digit) {
        if (!overflow) {
          overflow = !accumulate(&magnitude, static_cast<unsigned>(*digit - '0'), 10);
        }
      }
      storeInteger(&value, negative, magnitude, overflow, wide);
    }
  }
  value.valid = true;

  while (isBlank(*end)) {
    ++end;
  }
  value.trailingText = *end != '\0';
  return value;
}

ResultMetric* parseNumericString(const Metric* metric, const char* text) {
  XRV_TRACE_FN();
  if (metric == nullptr) {
    XRV_TRACE_ERROR("No metric for value %s", printable(text));
    return nullptr;
  }
  const char* name = printable(metric->getMetricName());
  NumericValue value = parseNumericText(text, metric->getRawMetricType());

  if (!value.valid) {
    const char* p = text == nullptr ? "" : text;
    while (isBlank(*p)) {
      ++p;
    }
    if (*p == '\0') {
      // An empty value is what a short line gives; not worth an error.
      XRV_TRACE_DETAIL("Value of metric %s is empty, using 0", name);
    } else {
      XRV_TRACE_ERROR("Value %s of metric %s is not a number, using 0", text, name);
    }
  } else {
    if (value.trailingText) {
      XRV_TRACE_DETAIL("Ignoring the text after the number in value %s of metric %s", text, name);
    }
    if (value.clamped) {
      switch (value.kind) {
        case RESULT_UINT64:
          XRV_TRACE_ERROR("Value %s of metric %s exceeds the maximum, using %llu", text, name,
                          value.u64);
          break;
        case RESULT_INT64:
          XRV_TRACE_ERROR("Value %s of metric %s is below the minimum, using %lld", text, name,
                          value.i64);
          break;
        default:
          XRV_TRACE_ERROR("Value %s of metric %s exceeds the range of a double, using %g", text,
                          name, value.d);
          break;
      }
    }
  }

  switch (value.kind) {
    case RESULT_INT32:
      return new ResultMetric(metric, static_cast<int>(value.i64));
    case RESULT_UINT64:
      return new ResultMetric(metric, value.u64);
    case RESULT_DOUBLE:
      return new ResultMetric(metric, value.d);
    default:
      return new ResultMetric(metric, value.i64);
  }
}
