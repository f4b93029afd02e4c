// The table servers against the in-memory framework: which providers a request
// reaches, how their data are collected, and which rows come back.

#include "runtime/GenericAgent.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "foundation/HashMap.h"
#include "framework/Configuration.h"
#include "provider/UAClientClassList.h"
#include "runtime/AgentGlobals.h"
#include "scheduling/ThreadPool.h"
#include "subnode/SubnodeManager.h"
#include "support/FrameworkDouble.h"

namespace {

using XRV::testing::FakeClock;
using XRV::testing::FrameworkDouble;
using XRV::testing::TestQueryClass;
using Rows = std::vector<std::vector<std::string>>;

constexpr char kColumns[] = R"(<attr name="Name" type="2" size="16"/>)"
                            R"(<attr name="Value" type="0" size="4"/>)";
constexpr char kMainNode[] = "Primary:testhost:XRV";

// A provider whose collections a test can hold up; each collection brings one row
// whose value counts the collections, and notes the thread it ran on and the request
// information it found.
class GateProvider : public TestQueryClass {
 public:
  explicit GateProvider(const char* group)
      : TestQueryClass(group, {{"Name", STRING_DATA, true}, {"Value", NUMERIC_DATA}}) {}

  void internalCollectData(const char* subnode) override {
    std::unique_lock<std::mutex> lock(mutex_);
    threads_.push_back(std::this_thread::get_id());
    lockOutstandingRequestHash();
    HashMapIterator it = getOutstandingRequests()->iterator();
    while (it.hasNext()) {
      it.next();
      requestInfo_[it.getKey()] = *static_cast<std::vector<FwFilter>*>(it.getData());
    }
    unlockOutstandingRequestHash();
    changed_.wait(lock, [this] { return open_; });
    rows = {{"row", std::to_string(++generation_)}};
    lock.unlock();
    TestQueryClass::internalCollectData(subnode);
  }

  void close() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = false;
  }
  void open() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      open_ = true;
    }
    changed_.notify_all();
  }
  std::vector<std::thread::id> threads() {
    std::lock_guard<std::mutex> lock(mutex_);
    return threads_;
  }
  std::map<std::string, std::vector<FwFilter>> requestInfo() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requestInfo_;
  }
  // Waits until no job holds the provider.
  void waitOffQueue() {
    for (int i = 0; i < 500 && isOnQueue(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = true;
  int generation_ = 0;
  std::vector<std::thread::id> threads_;
  std::map<std::string, std::vector<FwFilter>> requestInfo_;
};

class GenericAgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    applicationSettings().applicationName = "XRV";
    subnodes_ = std::make_unique<SubnodeManager>(SubnodeManagerSettings{}, &list_);
    setSubnodeManagerForTesting(subnodes_.get());
  }

  void TearDown() override {
    for (GateProvider* gate : gates_) {
      gate->open();
    }
    if (pool_ != nullptr) {
      pool_->shutdown();
    }
    threadPool = nullptr;
    impatientCollectorTimeout = 0;
    pool_.reset();
    managers_.clear();
    setSubnodeManagerForTesting(nullptr);
    subnodes_.reset();
    list_.deleteAll();
    resetDefinitionState();
    resetConfigurationForTesting();
  }

  // A group served by `provider` through its own table server ("T" + group).
  AttributeGroupMeta* serve(TestQueryClass* provider, const std::string& agAttributes = "",
                            const std::string& extra = "") {
    const char* group = provider->getAttributeGroup();
    AttributeGroupMeta* meta = XRV::testing::defineGroup(group, kColumns + extra, agAttributes);
    provider->setAttributeGroupMeta(meta);
    meta->setQuery(provider);
    list_.addClientClass(provider);
    managers_.emplace_back(newGenericAgent("XRV", meta->tableName(), meta));
    meta->setTableManager(managers_.back().get());
    provider->start();
    return meta;
  }

  GateProvider* gate(const char* group, const std::string& agAttributes = "",
                     const std::string& extra = "") {
    auto* provider = new GateProvider(group);
    serve(provider, agAttributes, extra);
    gates_.push_back(provider);
    return provider;
  }

  // A subnode group of type LNX with copies for `keys`, each registered as
  // "XR:key:LNX" and reporting its key as the row's name.
  void subnodeGroup(const char* group, const std::vector<std::string>& keys) {
    auto* base = new TestQueryClass(group, {{"Name", STRING_DATA, true}, {"Value", NUMERIC_DATA}});
    base->rows = {{"base", "0"}};
    serve(base, "subnode_type=\"LNX\"");
    for (const std::string& key : keys) {
      auto* copy = static_cast<TestQueryClass*>(base->subnodeCopy(key.c_str(), &list_));
      copy->rows = {{key, std::to_string(key.size())}};
      copy->start();
      ASSERT_TRUE(subnodes_->addSubnode(("XR:" + key + ":LNX").c_str(), key.c_str(), "LNX", "%XR",
                                        "01", nullptr));
    }
  }

  void startPool(int timeoutSeconds) {
    pool_ = std::make_unique<ThreadPool>(1);
    threadPool = pool_.get();
    impatientCollectorTimeout = timeoutSeconds;
  }

  // One request on `table`, its rows decoded.
  Rows sample(const char* table, RequestDetail& detail, ContextInfo& context, int samples = 1) {
    Rows rows;
    const AttributeGroupMeta* meta = nullptr;
    for (const auto& manager : managers_) {
      if (std::string(manager->GetTableName()) == table) {
        meta = static_cast<GenericAgentManager*>(manager.get())->getAttributeGroupMeta();
      }
    }
    // The rows sent since (FrameworkDouble::sample tells requests apart by address,
    // which a later request may reuse).
    const size_t before = framework_.rows().size();
    framework_.sample(table, detail, context, samples);
    std::vector<FrameworkDouble::Row> sent = framework_.rows();
    for (size_t i = before; i < sent.size(); ++i) {
      rows.push_back(XRV::testing::decodeRow(meta, sent[i].bytes.data()));
    }
    return rows;
  }

  Rows demand(const char* table, const char* node = nullptr) {
    RequestDetail detail("XRV", table);
    ContextInfo context(node);
    return sample(table, detail, context);
  }

  FrameworkDouble framework_{"detail:GenericAgent.cpp"};
  UAClientClassList list_;
  std::unique_ptr<SubnodeManager> subnodes_;
  std::unique_ptr<ThreadPool> pool_;
  std::vector<std::unique_ptr<TableManager>> managers_;
  std::vector<GateProvider*> gates_;
};

TEST_F(GenericAgentTest, MainNodeDemandSendsTheGroupsRowsUnderTheOriginNode) {
  gate("Load");
  Rows rows = demand("TLoad");
  EXPECT_EQ(rows, (Rows{{kMainNode, "row", "1"}}));

  // The main node named explicitly is still the main node.
  EXPECT_EQ(demand("TLoad", kMainNode), rows) << "the data are current: no new collection";
}

TEST_F(GenericAgentTest, SubnodeRequestsReachTheSubnodesCopy) {
  subnodeGroup("Disk", {"web01", "web02"});
  EXPECT_EQ(demand("TDisk", "XR:web02:LNX"), (Rows{{"XR:web02:LNX", "web02", "5"}}));
  EXPECT_TRUE(demand("TDisk", "XR:nosuch:LNX").empty());

  // The main node of a subnode group is served by the group's own provider.
  EXPECT_EQ(demand("TDisk"), (Rows{{kMainNode, "base", "0"}}));
}

TEST_F(GenericAgentTest, HistoryRequestsOnASubnodeGroupCoverItsSubnodes) {
  subnodeGroup("Disk", {"web01", "web02", "db01"});
  struct Case {
    const char* name;
    FW_REQUEST_TYPE type;
    bool contextHistory;
    std::vector<const char*> listed;  // subnodes the framework names
    Rows expected;
  };
  const Rows all = {
      {"XR:web01:LNX", "web01", "5"}, {"XR:web02:LNX", "web02", "5"}, {"XR:db01:LNX", "db01", "4"}};
  const Case cases[] = {
      {"historical request type, no subnodes named: all", FW_HISTORICAL_SITUATION, false, {}, all},
      {"history context, no subnodes named: all", FW_DEMAND, true, {}, all},
      {"the subnodes the framework names, in its order",
       FW_HISTORICAL_SITUATION,
       true,
       {"XR:db01:LNX", "XR:gone:LNX", "XR:web01:LNX"},
       {{"XR:db01:LNX", "db01", "4"}, {"XR:web01:LNX", "web01", "5"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RequestDetail detail("XRV", "TDisk");
    detail.SetRequestType(c.type);
    ContextInfo context(nullptr, c.contextHistory);
    for (const char* msn : c.listed) {
      context.AddSubnode(msn);
    }
    EXPECT_EQ(sample("TDisk", detail, context), c.expected);
  }
  // No subnode stays marked in use after the requests.
  for (UAClientClass* copy : subnodes_->getAllSubnodeQueryClasses(nullptr)) {
    EXPECT_FALSE(copy->genericAgentInUse()) << copy->getSubnodeKey();
  }
}

TEST_F(GenericAgentTest, AHistoryRequestMarksItsProviderForThePurgeOfKeptRows) {
  GateProvider* load = gate("Load");
  RequestDetail detail("XRV", "TLoad");
  detail.SetRequestType(FW_HISTORICAL_SITUATION);
  ContextInfo context(nullptr);
  sample("TLoad", detail, context);
  EXPECT_TRUE(load->isPreviousRequestHistorical());
  demand("TLoad");
  EXPECT_FALSE(load->isPreviousRequestHistorical());
}

TEST_F(GenericAgentTest, ACacheOnlyRequestNeverCollects) {
  GateProvider* load = gate("Load");
  ContextInfo context(nullptr);
  RequestDetail beforeAny("XRV", "TLoad");
  beforeAny.SetCacheOnly(true);
  EXPECT_EQ(sample("TLoad", beforeAny, context), Rows{});
  EXPECT_TRUE(beforeAny.WouldWait()) << "nothing collected yet";
  EXPECT_TRUE(load->threads().empty()) << "a cache-only request collected";

  const Rows collected = demand("TLoad");
  ASSERT_EQ(load->threads().size(), 1u);
  RequestDetail current("XRV", "TLoad");
  current.SetCacheOnly(true);
  EXPECT_EQ(sample("TLoad", current, context), collected);
  EXPECT_FALSE(current.WouldWait());
  EXPECT_EQ(load->threads().size(), 1u);
  EXPECT_EQ(load->getCacheHitCount(), 1);

  load->setOnQueue(true);  // a collection is queued: its rows are about to change
  RequestDetail queued("XRV", "TLoad");
  queued.SetCacheOnly(true);
  EXPECT_EQ(sample("TLoad", queued, context), Rows{});
  EXPECT_TRUE(queued.WouldWait());
  load->setOnQueue(false);
}

// A cache-only sample leaves at the first provider that would need a collection: the
// subnode copies it had pinned (all of them, for a history request) are handed back.
TEST_F(GenericAgentTest, ACacheOnlySampleThatLeavesEarlyReleasesEverySubnodeCopy) {
  subnodeGroup("Disk", {"web01", "web02", "db01"});
  const std::vector<UAClientClass*> copies = subnodes_->getAllSubnodeQueryClasses(nullptr);
  ASSERT_EQ(copies.size(), 3u);
  for (const bool history : {false, true}) {
    SCOPED_TRACE(history ? "history request on every subnode" : "request on one subnode");
    RequestDetail detail("XRV", "TDisk");
    detail.SetCacheOnly(true);
    ContextInfo context(history ? nullptr : "XR:web02:LNX", history);
    EXPECT_EQ(sample("TDisk", detail, context), Rows{});
    EXPECT_TRUE(detail.WouldWait());
    for (UAClientClass* copy : copies) {
      EXPECT_FALSE(copy->genericAgentInUse()) << copy->getSubnodeKey();
    }
  }
}

TEST_F(GenericAgentTest, RequestInformationReachesTheProvidersWithThePARMAReplaced) {
  GateProvider* provider = gate("Lookup", "", R"(<receive_req name="XRV_HOST"/>)");
  struct Case {
    const char* name;
    std::vector<std::pair<const char*, const char*>> items;
    const char* parameter;
    FW_REQUEST_TYPE expectedType;
    std::vector<std::string> expectedInfo;  // "name=value" as filed
  };
  // clang-format off
  const Case cases[] = {
      {"every PARMA is replaced",
       {{"_REQ_TYPE", "NON_HISTORICAL_SITUATION"}, {"_FILTER", "host=PARMA;alias=PARMA"}},
       "web01", FW_NON_HISTORICAL_SITUATION, {"_FILTER=host=web01;alias=web01"}},
      {"no parameter leaves the text alone",
       {{"_FILTER", "host=PARMA"}}, nullptr, FW_DEMAND, {"_FILTER=host=PARMA"}},
      {"received items pass, others do not",
       {{"XRV_HOST", "db01"}, {"OTHER", "x"}, {"_REQ_TYPE", "HISTORICAL_SITUATION"}},
       "p", FW_HISTORICAL_SITUATION, {"XRV_HOST=db01"}},
      {"an unknown sample type keeps the request's own",
       {{"_REQ_TYPE", "SOMETIMES"}}, nullptr, FW_DEMAND, {}},
  };
  // clang-format on
  FakeClock clock;
  int requestNumber = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string id = "req" + std::to_string(++requestNumber);
    RequestDetail detail("XRV", "TLookup");
    detail.SetRequestId(id.c_str());
    detail.SetRowSink(&framework_);
    detail.SetParameter(c.parameter);
    detail.SetSampleInterval(60 * requestNumber);
    for (const auto& [name, value] : c.items) {
      detail.SetRequestInfo(name, value);
    }
    ContextInfo context;
    std::unique_ptr<FwRequest> request(
        framework_.findTableManager("TLookup")->CreateRequest(&detail, &context));
    auto* agent = static_cast<GenericAgent*>(request.get());
    agent->TakeSampleConstructor();
    EXPECT_EQ(agent->getSampleType(), c.expectedType);
    EXPECT_EQ(provider->getRequestInterval(id.c_str()), 60 * requestNumber);
    std::vector<std::string> filed;
    for (const FwFilter& item : agent->getRequestInformation()) {
      filed.push_back(item.name + "=" + item.value);
    }
    EXPECT_EQ(filed, c.expectedInfo);

    // The provider sees it and the interval while it collects under the request's id,
    // and no longer once the request ends.
    clock.advance(60000);
    agent->TakeSample();
    ASSERT_EQ(provider->requestInfo().count(id), 1u);
    EXPECT_EQ(provider->requestInfo()[id].size(), c.expectedInfo.size());
    agent->TakeSampleDestructor();
    EXPECT_EQ(provider->getRequestInterval(id.c_str()), 0);
    provider->lockOutstandingRequestHash();
    EXPECT_FALSE(provider->getOutstandingRequests()->contains(id.c_str()));
    provider->unlockOutstandingRequestHash();
  }
}

TEST_F(GenericAgentTest, CollectsOnThePoolOnlyWithTheImpatientTimeoutAndAnEligibleProvider) {
  GateProvider* eligible = gate("Pooled");
  GateProvider* needsRequest = gate("Direct", "", R"(<receive_req name="R"/>)");
  needsRequest->setThreadPoolEligible(false);  // as start-up makes such groups
  FakeClock clock;

  // Without the time-out: on the requesting thread.
  demand("TPooled");
  ASSERT_EQ(eligible->threads().size(), 1u);
  EXPECT_EQ(eligible->threads()[0], std::this_thread::get_id());

  // With it: on the pool; a group needing request information still here.
  startPool(5);
  clock.advance(60000);
  EXPECT_EQ(demand("TPooled"), (Rows{{kMainNode, "row", "2"}}));
  ASSERT_EQ(eligible->threads().size(), 2u);
  EXPECT_NE(eligible->threads()[1], std::this_thread::get_id());

  demand("TDirect");
  ASSERT_EQ(needsRequest->threads().size(), 1u);
  EXPECT_EQ(needsRequest->threads()[0], std::this_thread::get_id());

  // Current data are not collected again.
  demand("TPooled");
  EXPECT_EQ(eligible->threads().size(), 2u);

  // A time-out without a pool: reported, and collected here.
  eligible->waitOffQueue();
  pool_->shutdown();
  threadPool = nullptr;
  clock.advance(60000);
  EXPECT_EQ(demand("TPooled"), (Rows{{kMainNode, "row", "3"}}));
  EXPECT_EQ(eligible->threads().back(), std::this_thread::get_id());
}

TEST_F(GenericAgentTest, AnImpatientSampleAnswersWithTheOlderRowsWhenTheCollectionIsSlow) {
  GateProvider* provider = gate("Slow");
  FakeClock clock;
  startPool(1);
  EXPECT_EQ(demand("TSlow"), (Rows{{kMainNode, "row", "1"}}));

  provider->close();
  clock.advance(60000);
  auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(demand("TSlow"), (Rows{{kMainNode, "row", "1"}})) << "the older rows";
  auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_GE(waited, std::chrono::milliseconds(900));
  EXPECT_LT(waited, std::chrono::seconds(3));

  // Still collecting: the next sample does not queue it again, and gets the older rows.
  EXPECT_EQ(demand("TSlow"), (Rows{{kMainNode, "row", "1"}}));
  EXPECT_EQ(pool_->getTPStatistics().queueLength, 0);

  // Once it ends the new rows are there; a sample whose collection ends in time gets
  // fresh rows without waiting for the time-out.
  provider->open();
  provider->waitOffQueue();
  EXPECT_EQ(demand("TSlow"), (Rows{{kMainNode, "row", "2"}}));
  clock.advance(60000);
  started = std::chrono::steady_clock::now();
  EXPECT_EQ(demand("TSlow"), (Rows{{kMainNode, "row", "3"}}));
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(900));
}

TEST_F(GenericAgentTest, EventRowsReachTheFrameworkThroughTheTableServer) {
  auto* provider = new TestQueryClass("Alerts", {{"Name", STRING_DATA, true}, {"Value"}});
  serve(provider, "pure=\"true\"");
  ResultInstance* event = provider->makeRow({"disk full", "95"});
  EXPECT_EQ(provider->sendEventDataToAFW(event), 0);
  delete event;
  std::vector<FrameworkDouble::Event> events = framework_.events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].table, "TAlerts");
  const AttributeGroupMeta* meta = findAttributeGroupMeta("Alerts");
  EXPECT_EQ(XRV::testing::decodeRow(meta, events[0].bytes.data()),
            (std::vector<std::string>{kMainNode, "disk full", "95"}));
}

TEST_F(GenericAgentTest, BadRequestsAreRefusedWithoutRows) {
  EXPECT_EQ(newGenericAgent("XRV", "TNone", nullptr), nullptr);
  GateProvider* provider = gate("Quiet");

  // Sampling a request that was never set up sends nothing and collects nothing.
  RequestDetail detail("XRV", "TQuiet");
  detail.SetRowSink(&framework_);
  ContextInfo context;
  std::unique_ptr<FwRequest> request(
      framework_.findTableManager("TQuiet")->CreateRequest(&detail, &context));
  ASSERT_NE(request, nullptr);
  request->TakeSample();
  EXPECT_TRUE(framework_.rows().empty());
  EXPECT_TRUE(provider->threads().empty());

  // A group without a provider answers with no rows.
  AttributeGroupMeta* orphan = XRV::testing::defineGroup("Orphan", kColumns);
  managers_.emplace_back(newGenericAgent("XRV", orphan->tableName(), orphan));
  EXPECT_TRUE(demand("TOrphan").empty());

  // Columns come from the group.
  auto* agent = static_cast<GenericAgent*>(request.get());
  ColumnInfo column{};
  EXPECT_EQ(agent->NumColumns(), 3);
  ASSERT_TRUE(agent->GetColumnInfo(&column, 2));
  EXPECT_STREQ(column.name, "Value");
  EXPECT_FALSE(agent->GetColumnInfo(&column, 3));
}

}  // namespace
