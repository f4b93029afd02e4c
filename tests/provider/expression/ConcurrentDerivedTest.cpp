// Derived values and filters from several providers at once, as the worker pool
// runs them: each provider collects on a thread of its own while requests with
// intervals read its rows. Two of the providers are subnode copies of one, so they
// share their formulas. Under ThreadSanitizer (make check-tsan) this checks the
// derived lock and the formulas' shared state; everywhere it checks the values.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "../ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/XMLConfigParser.h"
#include "framework/Configuration.h"

namespace {

using XRV::testing::DecodingRequest;
using XRV::testing::TestQueryClass;

Metric* formulaMetric(const char* name, const char* formula, bool intervalBased,
                      RAW_METRIC_TYPE type = NUMERIC_DATA) {
  auto* metric = new Metric(name);
  metric->setSurfName(name);
  metric->setRawMetricType(type);
  metric->setDerived(true);
  metric->setIntervalBased(intervalBased);
  metric->setExpressionFormula(formula);
  metric->setExpression(XMLConfigParser::parseExpression(formula));
  return metric;
}

TEST(ConcurrentDerived, SeveralProvidersCalculateAtOnce) {
  AttributeGroupMeta* meta = XRV::testing::defineGroup(
      "CONC",
      R"(<attr name="Name" type="2" size="8"/><attr name="V" type="0" size="4"/>)"
      R"(<attr name="Scaled" type="0" size="4"/><attr name="Label" type="2" size="16"/>)"
      R"(<attr name="Delta" type="0" size="4"/>)",
      R"(filter_expression="Name LIKE &quot;r*&quot; AND Scaled &gt;= 0")");
  TestQueryClass first("CONC", {{"Name", STRING_DATA, true}, {"V"}});
  first.addMetricObject(formulaMetric("Scaled", "(V * 100) / (V + 1)", false));
  first.addMetricObject(
      formulaMetric("Label", "Name + '-' + tostring(Scaled)", false, STRING_DATA));
  first.addMetricObject(formulaMetric("Delta", "delta(V)", true));
  first.setAttributeGroupMeta(meta);
  first.setRefreshInterval(1);
  TestQueryClass second(&first, "sub1");
  TestQueryClass third(&first, "sub2");
  std::vector<TestQueryClass*> providers{&first, &second, &third};
  for (TestQueryClass* provider : providers) {
    provider->start();
    provider->setRequestInterval("situation", 5);
    provider->rows = {{"r1", "9"}, {"r2", "99"}, {"x3", "1"}};
  }

  constexpr int kRounds = 200;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (TestQueryClass* provider : providers) {
    threads.emplace_back([provider] {
      for (int i = 0; i < kRounds; ++i) {
        provider->rows[0][1] = std::to_string(9 + i % 3);
        provider->collectData(nullptr);
      }
    });
    threads.emplace_back([provider, meta, &wrong] {
      for (int i = 0; i < kRounds; ++i) {
        DecodingRequest request(meta);
        request.GetRequestDetail()->SetRequestId(i % 2 == 0 ? "situation" : "demand");
        provider->sendDataToAFW(&request, "n");
        for (const auto& row : request.rows) {
          bool consistent =
              row.size() == 6 && row[1][0] == 'r' &&
              row[3] == std::to_string(std::stoi(row[2]) * 100 / (std::stoi(row[2]) + 1)) &&
              row[4] == row[1] + "-" + row[3];
          wrong += consistent ? 0 : 1;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong.load(), 0);
  for (TestQueryClass* provider : providers) {
    DecodingRequest request(meta);
    provider->sendDataToAFW(&request, "n");
    EXPECT_EQ(request.rows.size(), 2u) << "the x3 row is filtered out";
  }
  resetDefinitionState();
  resetConfigurationForTesting();
}

}  // namespace
