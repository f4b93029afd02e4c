// One provider used from three threads at once, as the agent uses it: the scheduler
// collects, framework requests pack rows, events arrive and settings are re-read. Run under
// ThreadSanitizer (make check-tsan) this checks the locking; everywhere it checks
// that every request sees whole, consistent rows.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "framework/Configuration.h"
#include "provider/ResultInstance.h"
#include "support/FrameworkDouble.h"

namespace {

using XRV::testing::DecodingRequest;
using XRV::testing::TestMetric;
using XRV::testing::TestQueryClass;

class NoRequests : public TableManager {
 public:
  NoRequests() : TableManager("XRV", "TBusy") {}
  FwRequest* CreateRequest(RequestDetail*, ContextInfo*) override { return nullptr; }
};

TEST(ResultsManagerConcurrency, CollectPackAndEventsAtOnce) {
  XRV::testing::FrameworkDouble framework;
  setConfigurationProperty("CDP_BUSY_REPLACE_ROWS_BY_KEY", "Y");
  AttributeGroupMeta* meta = XRV::testing::defineGroup(
      "BUSY",
      R"(<attr name="Name" type="2" size="8"/><attr name="Count" type="9" size="8"/>)"
      R"(<attr name="Rate" type="0" size="4"/><attr name="Twice" type="9" size="8"/>)",
      R"(event_flood_threshold="2" event_summary_interval="1")");
  TestQueryClass source(
      "BUSY", {{"Name", STRING_DATA, true},
               {"Count", NUMERIC_64BIT_DATA},
               {"Rate", RATE_DATA, false, true},
               {"Twice", NUMERIC_64BIT_DATA, false, false, false, "Count", "+", "Count"}});
  NoRequests table;
  meta->setTableManager(&table);
  source.setAttributeGroupMeta(meta);
  source.start();
  source.rows = {{"a", "1", "1"}, {"b", "2", "2"}, {"c", "3", "3"}};

  constexpr int kRounds = 300;
  std::atomic<int> inconsistent{0};
  std::thread collector([&] {
    for (int i = 0; i < kRounds; ++i) {
      source.collectData(nullptr);
    }
  });
  std::thread requests([&] {
    for (int i = 0; i < kRounds; ++i) {
      DecodingRequest request(meta);
      source.sendDataToAFW(&request, "n");
      for (const std::vector<std::string>& row : request.rows) {
        // Twice is computed from Count in the same row: a torn row would differ.
        if (row.size() != 5 || std::stoll(row[4]) != 2 * std::stoll(row[2])) {
          ++inconsistent;
        }
      }
    }
  });
  std::thread events([&] {
    for (int i = 0; i < kRounds; ++i) {
      ResultInstance* row =
          source.makeRow({i % 2 == 0 ? "e" : "f", std::to_string(i), std::to_string(i)});
      if (!source.sendEventData(row, STORE_INTERVAL_DATA)) {
        delete row;
      }
    }
  });
  std::thread resets([&] {  // a configuration reload re-reads flood control
    for (int i = 0; i < kRounds / 10; ++i) {
      source.reset();
    }
  });
  collector.join();
  requests.join();
  events.join();
  resets.join();
  EXPECT_EQ(inconsistent.load(), 0);
  EXPECT_EQ(source.getResultInstanceCount(), 3);
  EXPECT_FALSE(framework.events().empty());
  source.removeSummaryQuery();
  meta->setTableManager(nullptr);
  resetDefinitionState();
  resetConfigurationForTesting();
}

}  // namespace
