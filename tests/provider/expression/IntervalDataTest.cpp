// The samples behind the interval functions: windows, retention and forgetting rows.

#include "provider/expression/IntervalData.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using XRV::expression::IntervalData;
using XRV::expression::SampleSeries;
using XRV::expression::Value;

std::string computed(const SampleSeries& series, XRV::expression::IntervalKind kind, int64_t now,
                     int interval) {
  Value value;
  if (!series.compute(kind, now, interval, &value)) {
    return "none";
  }
  char buffer[32];
  XRV::expression::formatScalar(value, buffer, sizeof buffer);
  return buffer;
}

TEST(IntervalData, WindowsOverTheSamples) {
  SampleSeries series;
  EXPECT_EQ(computed(series, XRV::expression::INTERVAL_DELTA, 0, 0), "none");
  // Samples 10 s apart: 100, 110, 130, 160 at 0, 10, 20, 30.
  const int values[] = {100, 110, 130, 160};
  for (int i = 0; i < 4; ++i) {
    series.add(i * 10, Value::integer(values[i]), 3600);
  }
  struct Case {
    XRV::expression::IntervalKind kind;
    int64_t now;
    int interval;
    const char* expected;
  };
  // The last two samples and windows that hold some are
  // ProviderExpressionTest.IntervalFunctions*'s, through a provider.
  const Case cases[] = {
      {XRV::expression::INTERVAL_DELTA, 30, 15, "50"},  // from 110 (at 10 s) to 160
      {XRV::expression::INTERVAL_DELTA, 30, 1000, "60"},  // from the oldest sample
      {XRV::expression::INTERVAL_DELTA, 100, 5, "0"},     // nothing that new: the newest only
      {XRV::expression::INTERVAL_AVERAGE, 100, 5, "160"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.kind) + " interval " + std::to_string(c.interval));
    EXPECT_EQ(computed(series, c.kind, c.now, c.interval), c.expected);
  }
}

TEST(IntervalData, SamplesAreKeptForAWhileAndUpToALimit) {
  SampleSeries series;
  for (int i = 0; i < 1000; ++i) {
    series.add(i, Value::integer(i), 100000);
  }
  EXPECT_EQ(series.size(), SampleSeries::kMaxSamples);
  SampleSeries aging;
  for (int i = 0; i < 10; ++i) {
    aging.add(i * 100, Value::integer(i), 250);
  }
  // One sample at or before 900 - 250 stays as the base of the window.
  EXPECT_EQ(aging.size(), 4u);
  EXPECT_EQ(computed(aging, XRV::expression::INTERVAL_DELTA, 900, 250), "3");
}

TEST(IntervalData, RowsThatStopComingAreForgotten) {
  IntervalData data;
  data.noteInterval(10);  // below the minimum of an hour
  EXPECT_EQ(data.keepSeconds(), IntervalData::kMinimumKeepSeconds);
  data.noteInterval(7200);
  EXPECT_EQ(data.keepSeconds(), 7201);
  data.noteInterval(1000000);
  EXPECT_EQ(data.keepSeconds(), IntervalData::kMaximumKeepSeconds);

  const int formula = 0;
  data.obtain(&formula, 0, "old").add(0, Value::integer(1), data.keepSeconds());
  data.obtain(&formula, 0, "new").add(86000, Value::integer(1), data.keepSeconds());
  data.obtain(&formula, 1, "new").add(86000, Value::integer(2), data.keepSeconds());
  EXPECT_EQ(data.rowCount(), 2u);
  data.sweep(86400 + 10);
  EXPECT_EQ(data.find(&formula, 0, "old"), nullptr);
  ASSERT_NE(data.find(&formula, 1, "new"), nullptr);
  EXPECT_EQ(data.find(&formula, 2, "new"), nullptr);
  data.purge();
  EXPECT_EQ(data.rowCount(), 0u);
}

}  // namespace
