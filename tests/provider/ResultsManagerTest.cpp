#include "provider/ResultsManager.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "ProviderTestSupport.h"
#include "framework/Configuration.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "support/Attributes.h"
#include "support/FrameworkDouble.h"

namespace {

using XRV::testing::attrs;
using XRV::testing::DecodingRequest;
using XRV::testing::TestMetric;
using XRV::testing::TestQueryClass;

using XRV::testing::Rows;

class ResultsManagerTest : public XRV::testing::ProviderTest {
 protected:
  ResultsManagerTest() : ProviderTest("Primary:box:XR") {}
};

TEST_F(ResultsManagerTest, DeltasRatesAndPreviousValuesAcrossSamples) {
  struct Step {
    int advanceSeconds;
    const char* value;
    const char* expected;
  };
  struct Case {
    const char* name;
    RAW_METRIC_TYPE type;
    bool counter;
    std::vector<Step> steps;
  };
  // clang-format off
  const Case cases[] = {
      {"delta, not a counter: negative deltas stay", DELTA_DATA, false,
       {{0, "10", "0"}, {10, "15", "5"}, {10, "12", "-3"}}},
      {"delta of a counter that wrapped is 0", DELTA_DATA, true,
       {{0, "10", "0"}, {10, "15", "5"}, {10, "12", "0"}, {10, "20", "8"}}},
      {"rate per second", RATE_DATA, true,
       {{0, "100", "0"}, {10, "600", "50"}, {10, "500", "0"}, {5, "510", "2"}}},
      {"two samples in the same second divide by 1", RATE_DATA, true, {{0, "100", "0"}, {0, "400", "300"}}},
      {"32-bit rate is clamped", RATE_DATA, true, {{0, "0", "0"}, {1, "3000000000", "2147483647"}}},
      {"64-bit rate is not", RATE_64BIT_DATA, true, {{0, "0", "0"}, {1, "3000000000", "3000000000"}}},
      {"percent change rounds half up", PERCENT_DELTA_DATA, false,
       {{0, "200", "0"}, {10, "301", "51"}, {10, "301", "0"}, {10, "150", "-49"}}},
      {"percent change from 0 is 0", PERCENT_DELTA_64BIT_DATA, false,
       {{0, "0", "0"}, {10, "5", "0"}, {10, "10", "100"}}},
      {"value changed", VALUE_CHANGED, false, {{0, "5", "0"}, {10, "5", "0"}, {10, "6", "1"}}},
      {"previous number", PREVIOUS_NUMERIC_DATA, false, {{0, "5", "5"}, {10, "7", "5"}, {10, "9", "7"}}},
      {"64-bit delta", DELTA_64BIT_DATA, false, {{0, "0", "0"}, {10, "10000000000", "10000000000"}}},
      {"32-bit delta is clamped", DELTA_DATA, false,
       {{0, "0", "0"}, {10, "5000000000", "2147483647"}, {10, "0", "-2147483648"}}},
      {"rate of doubles", RATE_DATA, false, {{0, "1.5", "0"}, {2, "5.5", "2"}}},
  };
  // clang-format on
  int index = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string group = "Rates" + std::to_string(index++);
    // The 64-bit types get a 64-bit column.
    const bool wide = c.type == RATE_64BIT_DATA || c.type == PERCENT_DELTA_64BIT_DATA ||
                      c.type == DELTA_64BIT_DATA;
    auto source =
        provider(group.c_str(), attrs(wide ? "Name:2:16 Value:9:8" : "Name:2:16 Value:0:4"),
                 {{"Name", STRING_DATA, true}, {"Value", c.type, false, c.counter}});
    for (size_t i = 0; i < c.steps.size(); ++i) {
      SCOPED_TRACE("sample " + std::to_string(i + 1));
      clock_.advance(c.steps[i].advanceSeconds * 1000);
      Rows rows = sample(*source, {{"row", c.steps[i].value}});
      ASSERT_EQ(rows.size(), 1u);
      EXPECT_EQ(rows[0][2], c.steps[i].expected);
    }
  }
}

TEST_F(ResultsManagerTest, TextValuesChangedAndPrevious) {
  auto source = provider(
      "Texts", attrs("Name:2:8 Changed:0:4 Before:2:8"),
      {{"Name", STRING_DATA, true}, {"Changed", VALUE_CHANGED}, {"Before", PREVIOUS_STRING_DATA}});
  // Each text attribute keeps its own previous value.
  EXPECT_EQ(sample(*source, {{"r", "a", "x"}}), (Rows{{"Primary:box:XR", "r", "0", "x"}}));
  EXPECT_EQ(sample(*source, {{"r", "a", "y"}}), (Rows{{"Primary:box:XR", "r", "0", "x"}}));
  EXPECT_EQ(sample(*source, {{"r", "b", "z"}}), (Rows{{"Primary:box:XR", "r", "1", "y"}}));
}

TEST_F(ResultsManagerTest, RowsThatStopComingLoseTheirPreviousValues) {
  auto source =
      provider("Gone", attrs("Name:2:8 D:0:4"), {{"Name", STRING_DATA, true}, {"D", DELTA_DATA}});
  sample(*source, {{"a", "10"}, {"b", "10"}});
  sample(*source, {{"a", "11"}});
  // "b" was not in the last sample: it starts again from 0.
  EXPECT_EQ(sample(*source, {{"a", "13"}, {"b", "50"}}),
            (Rows{{"Primary:box:XR", "a", "2"}, {"Primary:box:XR", "b", "0"}}));
}

TEST_F(ResultsManagerTest, WithoutAggregationEachSampleReplacesTheRows) {
  auto source = provider("Plain", attrs("Name:2:8 V:0:4"), {{"Name", STRING_DATA, true}, {"V"}});
  sample(*source, {{"a", "1"}, {"b", "2"}});
  EXPECT_EQ(sample(*source, {{"c", "3"}}), (Rows{{"Primary:box:XR", "c", "3"}}));
  EXPECT_EQ(source->getResultInstanceCount(), 1);
}

TEST_F(ResultsManagerTest, ReplacingByKeyKeepsThePlaceOfARow) {
  setConfigurationProperty("CDP_KEYED_REPLACE_ROWS_BY_KEY", "Y");
  auto source = provider("Keyed", attrs("Name:2:8 V:0:4"), {{"Name", STRING_DATA, true}, {"V"}});
  EXPECT_TRUE(source->isReplacingRowsByKey());
  sample(*source, {{"a", "1"}, {"b", "2"}, {"c", "3"}});
  EXPECT_EQ(sample(*source, {{"b", "20"}, {"d", "4"}, {"b", "21"}}),
            (Rows{{"Primary:box:XR", "a", "1"},
                  {"Primary:box:XR", "b", "21"},
                  {"Primary:box:XR", "c", "3"},
                  {"Primary:box:XR", "d", "4"}}));
}

TEST_F(ResultsManagerTest, PurgingUsesTheCrosswiseMinuteStamps) {
  struct Case {
    const char* name;
    bool truncate;
    int keptAt;  // seconds after the first sample when "a" is still there
    int goneAt;  // ... and when it has gone
  };
  // Rows are stamped when they arrive; a purge interval of 60 s. Without truncation
  // the oldest valid stamp drops its seconds, so a row lives until the minute after
  // its interval ends; with truncation the row's own stamp drops its seconds, so it
  // may go up to a minute early.
  const Case cases[] = {
      {"without truncation", false, 99, 100},
      {"with truncation", true, 40, 41},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.name);
    // Every case starts at hh:mm:20.
    clock_.advance(1700000000000 + static_cast<int64_t>(i) * 240000 - fwTimeMillis());
    std::string group = "PURGE" + std::to_string(i);
    setConfigurationProperty(("CDP_" + group + "_REPLACE_ROWS_BY_KEY").c_str(), "y");
    setConfigurationProperty(("CDP_" + group + "_PURGE_INTERVAL").c_str(), "60");
    setConfigurationProperty(("CDP_" + group + "_TRUNCATE_TIMESTAMP").c_str(),
                             c.truncate ? "Y" : "N");
    auto source =
        provider(group.c_str(), attrs("Name:2:8 V:0:4"), {{"Name", STRING_DATA, true}, {"V"}});
    sample(*source, {{"a", "1"}});
    clock_.advance(c.keptAt * 1000);
    EXPECT_EQ(sample(*source, {{"b", "2"}}).size(), 2u) << "a is kept";
    clock_.advance((c.goneAt - c.keptAt) * 1000);
    EXPECT_EQ(sample(*source, {{"b", "3"}}), (Rows{{"Primary:box:XR", "b", "3"}}));
  }
}

TEST_F(ResultsManagerTest, PackingEveryRepresentation) {
  auto source = provider(
      "Pack",
      attrs("Name:2:12 Small:0:2 I32:0:4 I64:9:8 U64:9:8 Ratio:9:8 Whole:0:4 -Secret:1:8 Text:1:4"),
      {{"Name", STRING_DATA, true},
       {"Small"},
       {"I32"},
       {"I64", NUMERIC_64BIT_DATA},
       {"U64", NUMERIC_64BIT_DATA},
       {"Ratio", NUMERIC_64BIT_DATA, false, false, false, nullptr, nullptr, nullptr, 2},
       {"Whole"},
       {"Secret", STRING_DATA, false, false, true},
       {"Text", STRING_DATA}});
  source->setInputIsUTF8(true);
  Rows rows =
      sample(*source, {{"first", "300", "-7", "5000000000", "9223372036854775808", "0.125", "2.5",
                        "hidden", "abcdefgh"},
                       {"second", "70000", "2147483648", "-1", "1", "-0.125", "-1.5", "x", "é"}});
  ASSERT_EQ(rows.size(), 2u);
  // U64 above the signed maximum is clamped into the signed column; doubles are
  // scaled and rounded half away from zero; the text column is cut at its size.
  EXPECT_EQ(rows[0], (std::vector<std::string>{"Primary:box:XR", "first", "300", "-7", "5000000000",
                                               "9223372036854775807", "13", "3", "abcd"}));
  // 70000 keeps its low two bytes in a 2-byte column.
  EXPECT_EQ(rows[1], (std::vector<std::string>{"Primary:box:XR", "second", "4464", "2147483647",
                                               "-1", "1", "-13", "-2", "é"}));
}

TEST_F(ResultsManagerTest, AMissingValueMovesTheFollowingColumnsUp) {
  auto source = provider("Shift", attrs("Name:2:8 Sum:0:4 V:0:4"),
                         {{"Name", STRING_DATA, true},
                          {"Sum", NUMERIC_DATA, false, false, false, "V", "+", "V"},
                          {"V"}});
  // A collected row gets its derived value.
  EXPECT_EQ(sample(*source, {{"a", "4"}}), (Rows{{"Primary:box:XR", "a", "8", "4"}}));
  // A row added without derived values: V takes Sum's column and V's stays empty.
  source->clearResultSet();
  source->addResultInstanceDirectly(source->makeRow({"b", "5"}));
  DecodingRequest request(source->getAttributeGroupMeta());
  source->sendDataToAFW(&request, "n");
  EXPECT_EQ(request.rows, (Rows{{"n", "b", "5", "0"}}));
}

TEST_F(ResultsManagerTest, RowShapeFlagsAndSkippedRows) {
  auto source = provider("Shape", attrs("Stamp:1:16 Instance:2:16 Name:2:8 V:0:4"),
                         {{"Name", STRING_DATA, true}, {"V"}});
  source->setHasTimestampColumn(true);
  source->setReturnsInstanceName(true);
  source->setCheckMetricCounts(true);
  Rows rows = sample(*source, {{"a", "1"}, {"short"}});
  // The row with one value of two is skipped by the count check.
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0][1], "1231114221320000") << "the time of the last collection";
  EXPECT_EQ(rows[0][2], "a");
  EXPECT_EQ(rows[0][3], "a");
  EXPECT_EQ(rows[0][4], "1");
}

TEST_F(ResultsManagerTest, ARowWithoutANameIsNeverSent) {
  auto keyless = provider("Keyless", attrs("V:0:4"), {{"V"}});
  EXPECT_EQ(sample(*keyless, {{"7"}}), (Rows{{"Primary:box:XR", "7"}})) << "named \"\"";
  std::unique_ptr<ResultInstance> named(keyless->makeRow({"8"}));
  auto* nameless = new ResultInstance(nullptr, 1);
  nameless->addMetric(named->getFirstMetric()->getDeepCopy());
  keyless->addResultInstanceDirectly(nameless);
  DecodingRequest request(keyless->getAttributeGroupMeta());
  keyless->sendDataToAFW(&request, "n");
  EXPECT_EQ(request.rows, (Rows{{"n", "7"}}));
}

TEST_F(ResultsManagerTest, ALostRowStopsTheRequest) {
  auto source = provider("Lost", attrs("Name:2:8"), {{"Name", STRING_DATA, true}});
  source->rows = {{"a"}, {"b"}, {"c"}};
  source->collectData(nullptr);
  XRV::testing::TraceCapture capture("error");
  DecodingRequest request(source->getAttributeGroupMeta());
  request.refuseAfter = 1;
  source->sendDataToAFW(&request, "n");
  EXPECT_EQ(request.rows.size(), 1u);
  EXPECT_TRUE(capture.hasText(
      "Send Row failed. Data rows lost - attribute group=Lost, subnodeKey=, row count=3, "
      "numRowsSent=1, rowSize=40, refreshInterval=0, intervalBased=false, derived count=0"));
}

TEST_F(ResultsManagerTest, TwoOperandDerivedValues) {
  struct Case {
    RAW_METRIC_TYPE type;
    const char* op;
    const char* a;
    const char* b;
    const char* expected;
  };
  const Case cases[] = {
      {NUMERIC_DATA, "+", "2", "3", "5"},
      {NUMERIC_DATA, "-", "2", "3", "-1"},
      {NUMERIC_DATA, "*", "70000", "70000", "4900000000"},  // 32-bit operands, 64-bit result
      {NUMERIC_DATA, "/", "7", "2", "3"},
      {NUMERIC_DATA, "/", "7", "0", "0"},  // reported as 0
      {NUMERIC_DATA, "%", "7", "4", "3"},
      {NUMERIC_DATA, "<", "1", "2", "0"},  // booleans are refused
      {NUMERIC_DATA, "?", "1", "2", "0"},  // unknown operation
      {NUMERIC_64BIT_DATA, "+", "5000000000", "1", "5000000001"},
      {NUMERIC_DATA, "*", "2.5", "2", "5"},
  };
  int index = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.a) + c.op + c.b);
    std::string group = "Derived" + std::to_string(index++);
    auto source = provider(group.c_str(), attrs("A:9:8 B:9:8 R:9:8"),
                           {{"A", c.type},
                            {"B", c.type},
                            {"R", NUMERIC_64BIT_DATA, false, false, false, "A", c.op, "B"}});
    Rows rows = sample(*source, {{c.a, c.b}});
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0][3], c.expected);
  }
}

TEST_F(ResultsManagerTest, TextConcatenationAndMissingOperands) {
  auto source = provider("Concat", attrs("A:2:8 B:2:8 AB:2:16 Lost:0:4"),
                         {{"A", STRING_DATA},
                          {"B", STRING_DATA},
                          {"AB", STRING_DATA, false, false, false, "A", "+", "B"},
                          {"Lost", NUMERIC_DATA, false, false, false, "A", "+", "Nope"}});
  XRV::testing::TraceCapture capture("detail");
  EXPECT_EQ(sample(*source, {{"web", "01"}}),
            (Rows{{"Primary:box:XR", "web", "01", "web01", "0"}}));
  EXPECT_TRUE(capture.hasText("metric2 Nope not found in result instance"));
}

}  // namespace
