#pragma once

// parseNumericString: how data sources turn text into numbers.
//
// The rules, so that a row is never lost to a badly printed number:
// - Blanks (spaces, tabs, CR, LF) around the number are ignored; a leading "+" or
//   "-" is taken; "0x" or "0X" introduces hexadecimal digits.
// - A number with a decimal point or an exponent ("2.5", "1e3") is a double, whatever
//   the attribute's type.
// - An integer gets the 32-bit representation for the 32-bit types (NUMERIC_DATA,
//   DELTA_DATA, RATE_DATA, PERCENT_DELTA_DATA, VALUE_CHANGED, PREVIOUS_NUMERIC_DATA)
//   when it fits in 32 bits, else the 64-bit one, so that no counter is cut before
//   its deltas and rates are computed (the row writers clamp 32-bit columns later).
//   The 64-bit types get the 64-bit representation, and unsigned 64-bit for values
//   above 9223372036854775807. Values beyond the unsigned 64-bit range, or below the
//   signed one, are clamped, with a trace.
// - Text after the number ("45%", "12 kB") is ignored, with a detail trace.
// - Text with no number at the start ("", "n/a", "-") gives 0, with a trace.

#include "provider/ResultMetric.h"

class Metric;

struct NumericValue {
  RESULT_VALUE_KIND kind;  // RESULT_INT32, RESULT_INT64, RESULT_UINT64 or RESULT_DOUBLE
  long long i64;           // for RESULT_INT32 and RESULT_INT64
  unsigned long long u64;  // for RESULT_UINT64
  double d;                // for RESULT_DOUBLE
  bool valid;              // a number was found at the start
  bool trailingText;       // something other than blanks followed it
  bool clamped;            // it did not fit and was clamped
};

// The value of `text` under the rules above, for an attribute of type `type`.
NumericValue parseNumericText(const char* text, RAW_METRIC_TYPE type);

// A new ResultMetric of `metric` holding the value of `text`. Caller owns it.
ResultMetric* parseNumericString(const Metric* metric, const char* text);
