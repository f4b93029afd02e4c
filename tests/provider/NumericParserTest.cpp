#include "provider/NumericParser.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <memory>
#include <string>

#include "support/TraceCapture.h"

namespace {

constexpr RAW_METRIC_TYPE N32 = NUMERIC_DATA;
constexpr RAW_METRIC_TYPE N64 = NUMERIC_64BIT_DATA;
enum Flags { NONE = 0, TRAILING = 1, CLAMPED = 2, INVALID = 4 };

TEST(NumericParser, ParsesByTheRules) {
  struct Case {
    const char* text;
    RAW_METRIC_TYPE type;
    RESULT_VALUE_KIND kind;
    long double value;  // holds every integer and double expected here exactly
    int flags;
  };
  const Case cases[] = {
      // Representation by type and size.
      {"42", N32, RESULT_INT32, 42, NONE},
      {"2147483647", N32, RESULT_INT32, INT_MAX, NONE},
      {"2147483648", N32, RESULT_INT64, 2147483648LL, NONE},
      {"-2147483648", N32, RESULT_INT32, INT_MIN, NONE},
      {"-2147483649", N32, RESULT_INT64, -2147483649LL, NONE},
      {"5000000000", DELTA_DATA, RESULT_INT64, 5000000000LL, NONE},
      {"42", N64, RESULT_INT64, 42, NONE},
      {"1", RATE_64BIT_DATA, RESULT_INT64, 1, NONE},
      {"9223372036854775807", N64, RESULT_INT64, LLONG_MAX, NONE},
      {"9223372036854775808", N64, RESULT_UINT64, 9223372036854775808ULL, NONE},
      {"18446744073709551615", N32, RESULT_UINT64, ULLONG_MAX, NONE},
      {"-9223372036854775808", N64, RESULT_INT64, LLONG_MIN, NONE},
      // Signs, blanks, bases.
      {"+17", N32, RESULT_INT32, 17, NONE},
      {" \t-17\r\n", N32, RESULT_INT32, -17, NONE},
      {"010", N32, RESULT_INT32, 10, NONE},
      {"0XfF", N32, RESULT_INT32, 255, NONE},
      {"-0x10", N32, RESULT_INT32, -16, NONE},
      {"0x80000000", N32, RESULT_INT64, 2147483648LL, NONE},
      {"0xFFFFFFFFFFFFFFFF", N64, RESULT_UINT64, ULLONG_MAX, NONE},
      {"0xg", N32, RESULT_INT32, 0, TRAILING},
      // Doubles whatever the type.
      {"2.5", N32, RESULT_DOUBLE, 2.5, NONE},
      {"-.5", N64, RESULT_DOUBLE, -0.5, NONE},
      {"5.", N32, RESULT_DOUBLE, 5.0, NONE},
      {"1.5E-2 ", N32, RESULT_DOUBLE, 0.015, NONE},
      {"1e3", N32, RESULT_DOUBLE, 1000.0, NONE},
      {"1e+", N32, RESULT_INT32, 1, TRAILING},
      {"1e999", N32, RESULT_DOUBLE, DBL_MAX, CLAMPED},
      // Trailing text and junk.
      {"45%", N32, RESULT_INT32, 45, TRAILING},
      {"12 kB", N64, RESULT_INT64, 12, TRAILING},
      {"1,234", N32, RESULT_INT32, 1, TRAILING},
      {"", N32, RESULT_INT32, 0, INVALID},
      {nullptr, N64, RESULT_INT64, 0, INVALID},
      {"   ", N32, RESULT_INT32, 0, INVALID},
      {"n/a", N32, RESULT_INT32, 0, INVALID},
      {"- 5", N32, RESULT_INT32, 0, INVALID},
      {".", N32, RESULT_INT32, 0, INVALID},
      {"inf", N32, RESULT_INT32, 0, INVALID},
      {"NaN", N64, RESULT_INT64, 0, INVALID},
      // Clamping at both ends.
      {"18446744073709551616", N64, RESULT_UINT64, ULLONG_MAX, CLAMPED},
      {"99999999999999999999999 x", N32, RESULT_UINT64, ULLONG_MAX, CLAMPED | TRAILING},
      {"0x1FFFFFFFFFFFFFFFF", N64, RESULT_UINT64, ULLONG_MAX, CLAMPED},
      {"-9223372036854775809", N64, RESULT_INT64, LLONG_MIN, CLAMPED},
      {"-99999999999999999999999", N32, RESULT_INT64, LLONG_MIN, CLAMPED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.text == nullptr ? "(null)" : c.text) + " as " +
                 rawMetricTypeName(c.type));
    NumericValue v = parseNumericText(c.text, c.type);
    EXPECT_EQ(v.kind, c.kind);
    long double value = c.kind == RESULT_UINT64   ? static_cast<long double>(v.u64)
                        : c.kind == RESULT_DOUBLE ? static_cast<long double>(v.d)
                                                  : static_cast<long double>(v.i64);
    EXPECT_EQ(value, c.kind == RESULT_DOUBLE ? static_cast<double>(c.value) : c.value);
    EXPECT_EQ(v.valid, (c.flags & INVALID) == 0);
    EXPECT_EQ(v.trailingText, (c.flags & TRAILING) != 0);
    EXPECT_EQ(v.clamped, (c.flags & CLAMPED) != 0);
  }
}

TEST(NumericParser, BuildsValuesOfTheMetricAndTraces) {
  Metric metric("bytesIn");
  metric.setRawMetricType(DELTA_DATA);
  XRV::testing::TraceCapture capture("detail");
  struct Case {
    const char* text;
    RESULT_VALUE_KIND kind;
    const char* trace;  // null: none expected
  };
  const Case cases[] = {
      {"12 kB", RESULT_INT32,
       "Ignoring the text after the number in value 12 kB of metric bytesIn"},
      {"5000000000", RESULT_INT64, nullptr},
      {"10000000000000000000", RESULT_UINT64, nullptr},
      {"-99999999999999999999", RESULT_INT64,
       "Value -99999999999999999999 of metric bytesIn is below the minimum, using "
       "-9223372036854775808"},
      {"99999999999999999999", RESULT_UINT64,
       "Value 99999999999999999999 of metric bytesIn exceeds the maximum, using "
       "18446744073709551615"},
      {"1e999", RESULT_DOUBLE,
       "Value 1e999 of metric bytesIn exceeds the range of a double, using 1.79769e+308"},
      {"n/a", RESULT_INT32, "Value n/a of metric bytesIn is not a number, using 0"},
      {" ", RESULT_INT32, "Value of metric bytesIn is empty, using 0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    capture.clear();
    std::unique_ptr<ResultMetric> value(parseNumericString(&metric, c.text));
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->getMetric(), &metric);
    EXPECT_EQ(value->getKind(), c.kind);
    if (c.trace != nullptr) {
      EXPECT_TRUE(capture.hasText(c.trace));
    }
  }
  EXPECT_EQ(parseNumericString(nullptr, "1"), nullptr);
}

}  // namespace
