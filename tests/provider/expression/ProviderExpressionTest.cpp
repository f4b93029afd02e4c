// Formulas and filters inside a data provider: computed on every collection and for
// events, recalculated for requests with an interval, and the traces the operator
// sees when a formula or filter goes wrong.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "../ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/XMLConfigParser.h"
#include "foundation/HashMap.h"
#include "framework/Configuration.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "support/Attributes.h"
#include "support/FrameworkDouble.h"
#include "support/TraceCapture.h"

namespace {

using XRV::testing::attrs;
using XRV::testing::TestMetric;
using XRV::testing::TestQueryClass;
using XRV::testing::TraceCapture;

using XRV::testing::Rows;

struct Formula {
  const char* name;
  const char* formula;
  RAW_METRIC_TYPE type = NUMERIC_DATA;
  bool intervalBased = false;
};

// A metric read from definition attributes, as a data source's parser reads it.
Metric* definedMetric(const Formula& formula) {
  HashMap attributes;
  attributes.put("name", formula.name);
  attributes.put("type", rawMetricTypeName(formula.type));
  attributes.put("formula", formula.formula);
  attributes.put("visible", "true");
  if (formula.intervalBased) {
    attributes.put("intervalBased", "true");
  }
  auto* metric = new Metric();
  XMLConfigParser::initializeMetric(metric, &attributes);
  return metric;
}

class ProviderExpressionTest : public XRV::testing::ProviderTest {
 protected:
  ProviderExpressionTest() : ProviderTest("n") {}

  // A provider of `metrics` followed by the derived attributes `formulas`.
  static std::unique_ptr<TestQueryClass> provider(const char* group, const std::string& attributes,
                                                  const std::vector<TestMetric>& metrics,
                                                  const std::vector<Formula>& formulas,
                                                  const std::string& agAttributes = "") {
    std::vector<Metric*> derived;
    for (const Formula& formula : formulas) {
      derived.push_back(definedMetric(formula));
    }
    return ProviderTest::provider(group, attributes, metrics, derived, agAttributes);
  }
};

TEST_F(ProviderExpressionTest, FormulasAreComputedInListOrderOnEveryCollection) {
  auto source =
      provider("CALC", attrs("Name:2:16 A:0:4 B:0:4 Ratio:0:4 Label:2:32 Later:0:4 Next:0:4"),
               {{"Name", STRING_DATA, true}, {"A"}, {"B"}},
               {{"Ratio", "(A * 100) / (B + 1)"},
                {"Label", "Name + ':' + tostring(Ratio)", STRING_DATA},  // an earlier derived value
                {"Later", "Next + 1"},  // a later one is not there yet
                {"Next", "1"}});
  TraceCapture capture("error");
  EXPECT_EQ(sample(*source, {{"web", "7", "2"}, {"db", "5", "0"}}),
            (Rows{{"n", "web", "7", "2", "233", "web:233", "-1", "1"},
                  {"n", "db", "5", "0", "500", "db:500", "-1", "1"}}));
  EXPECT_TRUE(capture.hasText(
      "Cannot calculate Later = Next + 1 for row web: attribute Next is not in the row"));
  capture.clear();
  EXPECT_EQ(sample(*source, {{"web", "1", "1"}}),
            (Rows{{"n", "web", "1", "1", "50", "web:50", "-1", "1"}}));
  EXPECT_FALSE(capture.containsText("Cannot calculate")) << "the second failure is detail only";
}

TEST_F(ProviderExpressionTest, FailedFormulasReportMinusOneOrEmptyText) {
  auto source = provider("FAIL", attrs("Name:2:16 Number:0:4 Text:2:16 Wide:9:8"),
                         {{"Name", STRING_DATA, true}},
                         {{"Number", "Name * 2"},
                          {"Text", "substr(Name, Missing)", STRING_DATA},
                          {"Wide", "tostring(2147483647 + 1)", NUMERIC_64BIT_DATA}});
  EXPECT_EQ(sample(*source, {{"x"}}), (Rows{{"n", "x", "-1", "", "2147483648"}}));
}

TEST_F(ProviderExpressionTest, AFormulaThatDoesNotParseIsTracedWithItsMarkerAndIsMinusOne) {
  TraceCapture capture("error");
  auto source = provider("BAD", attrs("K:2:4 Broken:0:4"), {{"K", STRING_DATA, true}},
                         {{"Broken", "K + * 3"}});
  EXPECT_TRUE(capture.hasText("Error parsing expression:\nK + * 3\n    ^"));
  EXPECT_TRUE(capture.hasText(
      "Due to the expression parsing error, the value of metric Broken will be set to -1."));
  EXPECT_STREQ(source->getMetric(1)->getExpressionFormula(), "-1");
  ASSERT_NE(source->getMetric(1)->getExpression(), nullptr) << "a constant -1 in its place";
  EXPECT_EQ(sample(*source, {{"k"}}), (Rows{{"n", "k", "-1"}}));
}

TEST_F(ProviderExpressionTest, FiltersMarkEveryRowAndExpandVariables) {
  setConfigurationProperty("CPU_LIMIT", "90");
  auto source = provider(
      "HOSTS", attrs("name:2:16 cpu:0:4 busy:0:4"), {{"name", STRING_DATA, true}, {"cpu"}},
      {{"busy", "cpu - 50"}},
      R"(filter_expression="cpu &gt; ${CPU_LIMIT} AND name LIKE &quot;web*&quot; AND busy &gt; 0")");
  EXPECT_EQ(sample(*source, {{"web1", "95"}, {"web2", "50"}, {"db1", "99"}, {"web3", "91"}}),
            (Rows{{"n", "web1", "95", "45"}, {"n", "web3", "91", "41"}}));
}

TEST_F(ProviderExpressionTest, FilterErrorsAreTracedAndTheRowIsDropped) {
  struct Case {
    const char* grammar;
    const char* filter;
    std::string trace;  // exact text
    Rows rows;
  };
  const char* const missing =
      "AG F, error from filterExpression->evaluate: attribute missing is not in the row";
  const std::string notBoolean =
      "Error:  filter should have returned a boolean (ExpressionType[1]) but instead returned ";
  const Rows both = {{"n", "a", "1"}, {"n", "b", "2"}};
  const Case cases[] = {
      {"filter", "missing = 1", missing, {}},
      {"filter", "name = 'a' OR missing = 1", missing, {{"n", "a", "1"}}},
      {"expression", "cpu + 1", notBoolean + "ExpressionType[2]", {}},
      {"expression", "name + 'x'", notBoolean + "ExpressionType[5]", {}},
      {"expression", "cpu > 1 && like(name, 'b*')", "", {{"n", "b", "2"}}},
      {"filter", "cpu >", "AG F, error parsing filters", both},
      {"expression", "delta(cpu) > 0", "AG F, error parsing filters", both},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.grammar) + ": " + c.filter);
    TraceCapture capture("error");
    std::string agAttributes = std::string("filter_expression_grammar=\"") + c.grammar +
                               "\" filter_expression=\"" + c.filter + "\"";
    for (auto [from, to] : {std::pair{"&", "&amp;"}, std::pair{">", "&gt;"}}) {
      for (size_t at = agAttributes.find(from); at != std::string::npos;
           at = agAttributes.find(from, at + strlen(to))) {
        agAttributes.replace(at, 1, to);
      }
    }
    auto source = provider("F", attrs("name:2:8 cpu:0:4"), {{"name", STRING_DATA, true}, {"cpu"}},
                           {}, agAttributes);
    EXPECT_EQ(sample(*source, {{"a", "1"}, {"b", "2"}}), c.rows);
    if (!c.trace.empty()) {
      EXPECT_TRUE(capture.hasText(c.trace));
    }
    resetDefinitionState();
  }
}

// Interval functions without an interval: each collection adds a sample, and the
// functions look at the last two.
TEST_F(ProviderExpressionTest, IntervalFunctionsAcrossSamples) {
  auto source = provider("IVL", attrs("K:2:4 V:0:4 Delta:9:8 Rate:0:4 Avg:0:4 Min:0:4 Max:0:4"),
                         {{"K", STRING_DATA, true}, {"V"}},
                         {{"Delta", "delta(V)", NUMERIC_64BIT_DATA},
                          {"Rate", "round(rate(V) * 10)"},
                          {"Avg", "round(average(V) * 10)"},
                          {"Min", "minimum(V)"},
                          {"Max", "maximum(V)"}});
  struct Step {
    int advance;
    const char* value;
    std::vector<std::string> expected;  // Delta, Rate x10, Avg x10, Min, Max
  };
  const Step steps[] = {
      {0, "100", {"0", "0", "1000", "100", "100"}},
      {10, "150", {"50", "50", "1250", "100", "150"}},
      {10, "120", {"-30", "-30", "1350", "120", "150"}},
      {0, "130", {"10", "100", "1250", "120", "130"}},  // same second: per 1 second
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.value);
    clock_.advance(step.advance * 1000);
    Rows rows = sample(*source, {{"k", step.value}});
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(std::vector<std::string>(rows[0].begin() + 3, rows[0].end()), step.expected);
  }
}

// Requests with intervals of their own read the same samples over their own
// windows; reading changes nothing.
TEST_F(ProviderExpressionTest, IntervalFunctionsForTwoConcurrentRequests) {
  auto source = provider("REQ", attrs("K:2:4 V:0:4 Delta:0:4 Avg:0:4 Max:0:4"),
                         {{"K", STRING_DATA, true}, {"V"}},
                         {{"Delta", "delta(V)", NUMERIC_DATA, true},
                          {"Avg", "round(average(V))", NUMERIC_DATA, true},
                          {"Max", "maximum(V)", NUMERIC_DATA, true}});
  source->setRefreshInterval(10);
  source->setRequestInterval("every-minute", 60);
  source->setRequestInterval("every-30s", 30);
  // A sample every 10 seconds: 0, 10, ..., 120 with value 2 * time, and a spike.
  for (int t = 0; t <= 120; t += 10) {
    source->rows = {{"k", t == 100 ? "1000" : std::to_string(2 * t)}};
    source->collectData(nullptr);
    if (t < 120) {
      clock_.advance(10000);
    }
  }
  // 60 s: the samples of 70..120 s (140 160 180 1000 220 240), deltas from 60 s (120).
  // 30 s: the samples of 100..120 s (1000 220 240), deltas from 90 s (180).
  Rows first = request(*source, "every-minute");
  Rows second = request(*source, "every-30s");
  Rows again = request(*source, "every-minute");
  EXPECT_EQ(first, (Rows{{"n", "k", "240", "120", "323", "1000"}}));
  EXPECT_EQ(second, (Rows{{"n", "k", "240", "60", "487", "1000"}}));
  EXPECT_EQ(again, first);
  // A collection computes over the last two samples; a request without an interval
  // (none of its own, no default) leaves those values as they are.
  clock_.advance(10000);
  source->rows = {{"k", "260"}};
  source->collectData(nullptr);
  EXPECT_EQ(request(*source, "no-interval"), (Rows{{"n", "k", "260", "20", "250", "260"}}));
  // 30 s now: the samples of 110..130 s, deltas from the spike at 100 s.
  EXPECT_EQ(request(*source, "every-30s"), (Rows{{"n", "k", "260", "-740", "240", "260"}}));
}

TEST_F(ProviderExpressionTest, EventsGetTheirFormulasToo) {
  XRV::testing::FrameworkDouble framework;
  auto source = provider(
      "EVT", attrs("Msg:2:16 Sev:0:4 Loud:0:4 Seen:0:4"), {{"Msg", STRING_DATA, true}, {"Sev"}},
      {{"Loud", "if(Sev >= 3 && contains(Msg, 'disk'), 1, 0)"}, {"Seen", "delta(Sev)"}},
      R"(pure="true" filter_expression="Loud = 1")");
  ResultInstance* quiet = source->makeRow({"cpu hot", "5"});
  EXPECT_FALSE(source->sendEventData(quiet, STORE_INTERVAL_DATA)) << "filtered out";
  delete quiet;
  ResultInstance* loud = source->makeRow({"disk full", "4"});
  source->sendEventData(loud, STORE_INTERVAL_DATA);
  ASSERT_EQ(loud->getDerivedMetricCount(), 2);
  EXPECT_EQ(loud->getFirstDerivedMetric()->getInt(), 1);
}

TEST_F(ProviderExpressionTest, AHistoricalRequestPurgesTheSamples) {
  setConfigurationProperty("CDP_HIST_AGGREGATE_RESULTS", "Y");
  auto source = provider("HIST", attrs("K:2:4 V:0:4 D:0:4"), {{"K", STRING_DATA, true}, {"V"}},
                         {{"D", "delta(V)"}});
  sample(*source, {{"k", "10"}});
  EXPECT_EQ(sample(*source, {{"k", "15"}}), (Rows{{"n", "k", "15", "5"}}));
  source->setPreviousRequestHistorical(true);
  source->rows = {{"k", "40"}};
  source->collectData(nullptr);  // its delta is computed before the merge purges
  EXPECT_EQ(sample(*source, {{"k", "45"}}), (Rows{{"n", "k", "45", "0"}}))
      << "the first sample after the purge";
}

}  // namespace
