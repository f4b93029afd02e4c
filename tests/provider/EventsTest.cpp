// Event rows: flood control, duplicates, the pure-event cache and summaries.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "framework/Configuration.h"
#include "provider/FlowControlSummaryThread.h"
#include "provider/ResultInstance.h"
#include "support/FrameworkDouble.h"
#include "support/Wait.h"

namespace {

using XRV::testing::FrameworkDouble;
using XRV::testing::TestMetric;
using XRV::testing::TestQueryClass;

class EventTable : public TableManager {
 public:
  explicit EventTable(const char* table) : TableManager("XRV", table) {}
  FwRequest* CreateRequest(RequestDetail*, ContextInfo*) override { return nullptr; }
};

class EventsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    providers_.clear();
    tables_.clear();
    resetDefinitionState();
    resetConfigurationForTesting();
  }

  // An event group with a key "Name" and a value "V"; `ag` adds flood settings.
  TestQueryClass& eventGroup(const char* group, const std::string& ag) {
    AttributeGroupMeta* meta = XRV::testing::defineGroup(
        group, R"(<attr name="Name" type="2" size="8"/><attr name="V" type="0" size="4"/>)",
        "pure=\"true\" " + ag);
    auto source = std::make_unique<TestQueryClass>(
        group, std::vector<TestMetric>{{"Name", STRING_DATA, true}, {"V"}}, UA_LOG_MONITOR);
    source->setPureEventBased(true);
    source->setAttributeGroupMeta(meta);
    tables_.push_back(std::make_unique<EventTable>(meta->tableName()));
    meta->setTableManager(tables_.back().get());
    source->start();
    providers_.push_back(std::move(source));
    return *providers_.back();
  }

  // Pushes an event; deletes it when the provider did not keep it.
  static void push(TestQueryClass& source, const char* name, const char* value) {
    ResultInstance* row = source.makeRow({name, value});
    if (!source.sendEventData(row, STORE_INTERVAL_DATA)) {
      delete row;
    }
  }

  // The values of the events the framework received for `table`.
  std::vector<std::string> sentValues(const char* table) const {
    std::vector<std::string> values;
    for (const FrameworkDouble::Event& event : framework_.events()) {
      if (event.table == table) {
        values.push_back(
            XRV::testing::decodeRow(findAttributeGroupMeta(table + 1), event.bytes.data())[2]);
      }
    }
    return values;
  }

  FrameworkDouble framework_;
  std::vector<std::unique_ptr<EventTable>> tables_;
  std::vector<std::unique_ptr<TestQueryClass>> providers_;
};

TEST_F(EventsTest, FloodControlDecisions) {
  struct Case {
    const char* ag;
    std::vector<std::string> sent;  // of seven identical events numbered 1 to 7
    int cached;
  };
  const Case cases[] = {
      {"", {"1", "2", "3", "4", "5", "6", "7"}, 7},
      {R"(event_flood_threshold="send_all" event_summary_interval="600")",
       {"1", "2", "3", "4", "5", "6", "7"},
       1},
      {R"(event_flood_threshold="send_first" event_summary_interval="600")", {"1"}, 1},
      {R"(event_flood_threshold="send_none" event_summary_interval="600")", {}, 1},
      {R"(event_flood_threshold="3" event_summary_interval="600")", {"1", "4", "7"}, 1},
      {R"(event_flood_threshold="0" event_summary_interval="600")", {}, 1},  // invalid: none
      // A threshold without a summary interval could never reset: everything is sent.
      {R"(event_flood_threshold="send_first")", {"1", "2", "3", "4", "5", "6", "7"}, 7},
      {R"(event_flood_threshold="3")", {"1", "2", "3", "4", "5", "6", "7"}, 7},
  };
  int index = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ag);
    std::string group = "E" + std::to_string(index++);
    TestQueryClass& source = eventGroup(group.c_str(), c.ag);
    for (int i = 1; i <= 7; ++i) {
      push(source, "same", std::to_string(i).c_str());
    }
    EXPECT_EQ(sentValues(("T" + group).c_str()), c.sent);
    EXPECT_EQ(source.getPureCacheCount(), c.cached);
  }
}

TEST_F(EventsTest, OnlyKeysMakeDuplicates) {
  TestQueryClass& source =
      eventGroup("Keys", R"(event_flood_threshold="send_first" event_summary_interval="600")");
  push(source, "a", "1");
  push(source, "b", "2");
  push(source, "a", "3");  // same key, other value: a duplicate
  push(source, "c", "4");
  EXPECT_EQ(sentValues("TKeys"), (std::vector<std::string>{"1", "2", "4"}));
  EXPECT_EQ(source.getPureCacheCount(), 3);
}

TEST_F(EventsTest, ReplaceWithLatestKeepsTheNewestAndItsCount) {
  setConfigurationProperty("CDP_LATEST_REPLACE_WITH_LATEST", "Y");
  TestQueryClass& source =
      eventGroup("Latest", R"(event_flood_threshold="2" event_summary_interval="600")");
  push(source, "a", "1");
  push(source, "a", "2");
  push(source, "a", "3");
  // The second duplicate (count 2) is sent; the cache holds the latest event.
  EXPECT_EQ(sentValues("TLatest"), (std::vector<std::string>{"1", "3"}));
  ASSERT_EQ(source.getPureCacheCount(), 1);
  source.collectData(nullptr);
  XRV::testing::DecodingRequest request(source.getAttributeGroupMeta());
  source.sendDataToAFW(&request, "n");
  ASSERT_EQ(request.rows.size(), 1u);
  EXPECT_EQ(request.rows[0][2], "3");
}

TEST_F(EventsTest, TheCacheNeverDropsAnEventBeforeItsSummary) {
  setConfigurationProperty("CDP_PLAIN_PURE_EVENT_CACHE_SIZE", "3");
  setConfigurationProperty("CDP_SUMMED_PURE_EVENT_CACHE_SIZE", "3");
  TestQueryClass& plain = eventGroup("Plain", "");
  TestQueryClass& summed =
      eventGroup("Summed", R"(event_flood_threshold="send_all" event_summary_interval="600")");
  for (const char* name : {"a", "b", "c", "d", "e"}) {
    push(plain, name, "1");
    push(summed, name, "1");
  }
  EXPECT_EQ(plain.getPureCacheCount(), 3) << "the oldest events go";
  EXPECT_EQ(summed.getPureCacheCount(), 5) << "nothing summarised yet: nothing may go";

  summed.sendSummaryEvents();
  EXPECT_EQ(sentValues("TSummed").size(), 10u) << "five events and their five summaries";
  summed.sendSummaryEvents();
  EXPECT_EQ(sentValues("TSummed").size(), 10u) << "a summary is sent once";
  push(summed, "f", "1");
  EXPECT_EQ(summed.getPureCacheCount(), 3) << "summarised events may go now";
}

TEST_F(EventsTest, CollectingAnEventGroupServesItsCache) {
  TestQueryClass& source = eventGroup("Served", "");
  push(source, "a", "1");
  push(source, "b", "2");
  source.collectData(nullptr);
  XRV::testing::DecodingRequest request(source.getAttributeGroupMeta());
  source.sendDataToAFW(&request, "n");
  ASSERT_EQ(request.rows.size(), 2u);
  EXPECT_EQ(request.rows[0][1], "b") << "newest first";
  EXPECT_EQ(source.collections.load(), 0) << "event groups are not collected";
}

TEST(SummaryQueue, OrderedByTimeEqualTimesGoInFront) {
  resetConfigurationForTesting();
  AttributeGroupMeta* meta = XRV::testing::defineGroup(
      "Q", "", R"(pure="true" event_flood_threshold="send_all" event_summary_interval="10")");
  AttributeGroupMeta* fast = XRV::testing::defineGroup(
      "F", "", R"(pure="true" event_flood_threshold="send_all" event_summary_interval="5")");
  TestQueryClass p1("Q", {}), p2("F", {}), p3("Q", {});
  p1.setAttributeGroupMeta(meta);
  p2.setAttributeGroupMeta(fast);
  p3.setAttributeGroupMeta(meta);
  for (TestQueryClass* p : {&p1, &p2, &p3}) {
    p->reset();  // reads the interval (and queues it with the real thread)
    p->removeSummaryQuery();
  }
  SummaryQueue queue;
  queue.add(&p1, 1000);
  queue.add(&p2, 1000);
  queue.add(&p3, 1000);
  queue.add(&p1, 2000);  // already queued: nothing changes
  EXPECT_EQ(p1.getNextSummary(), 1010);
  EXPECT_EQ(queue.pop(), &p2);
  EXPECT_EQ(queue.pop(), &p3) << "same time as p1, queued later, goes in front";
  EXPECT_EQ(queue.pop(), &p1);
  EXPECT_EQ(queue.pop(), nullptr);
  queue.add(&p1, 0);
  EXPECT_TRUE(queue.remove(&p1));
  EXPECT_FALSE(queue.remove(&p1));
  resetDefinitionState();
}

TEST_F(EventsTest, TheSummaryThreadSendsSummariesOnTime) {
  TestQueryClass& source =
      eventGroup("Timed", R"(event_flood_threshold="send_none" event_summary_interval="1")");
  push(source, "a", "1");
  push(source, "a", "2");
  EXPECT_TRUE(sentValues("TTimed").empty());
  XRV::testing::waitUntil([&] { return !sentValues("TTimed").empty(); }, 5);
  EXPECT_EQ(sentValues("TTimed"), std::vector<std::string>{"1"}) << "one summary of the event";
  EXPECT_TRUE(FlowControlSummaryThread::instance().isQueued(&source)) << "queued again";
}

}  // namespace
