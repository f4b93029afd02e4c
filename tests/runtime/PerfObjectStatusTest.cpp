#include "runtime/PerfObjectStatus.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "provider/UAClientClassList.h"
#include "subnode/SubnodeManager.h"
#include "support/Attributes.h"
#include "support/FrameworkDouble.h"

namespace {

using XRV::testing::attrs;
using XRV::testing::TestQueryClass;

// A data source that reports whatever status the test gives it.
class StatusSource : public TestQueryClass {
 public:
  StatusSource(const char* group, int status, int errorCode, const char* objectName = nullptr)
      : TestQueryClass(group, {{"V"}}),
        status_(status),
        errorCode_(errorCode),
        objectName_(objectName == nullptr ? group : objectName) {}
  const char* getPerfObjectName() override { return objectName_.c_str(); }
  int getPerfObjectStatus() override { return status_; }
  int getPerfErrorCode() override { return errorCode_.load(); }
  int getCollectionReturnCode() override { return errorCode_ == SCRIPT_NOT_FOUND ? 127 : 0; }
  std::string getCollectionStdErr() override {
    return errorCode_ == SCRIPT_NOT_FOUND ? "sh: 1: nosuch: not found" : "";
  }
  void setErrorCode(int code) { errorCode_.store(code); }

 private:
  int status_;
  std::atomic<int> errorCode_;
  std::string objectName_;
};

class PerfObjectStatusTest : public ::testing::Test {
 protected:
  void TearDown() override {
    while (UAClientClass* provider = providers_.getFirst()) {
      providers_.removeClientClass(provider);
      delete provider;
    }
    setPerfObjectStatusHook(nullptr);
    resetDefinitionState();
  }

  // The rows a collection of `status` packs, column by column.
  std::vector<std::vector<std::string>> collect(PerfObjectStatus& status,
                                                AttributeGroupMeta* meta) {
    status.collectData(nullptr);
    XRV::testing::DecodingRequest request(meta);
    status.sendDataToAFW(&request, "agent");
    return request.rows;
  }

  UAClientClassList providers_;
  XRV::testing::FakeClock clock_;
};

TEST_F(PerfObjectStatusTest, OneRowPerProviderWithStatusAndErrorCode) {
  AttributeGroupMeta* named = XRV::testing::defineGroup(
      "Performance_Object_Status",
      attrs("Query_Name:2:32 Object_Name:2:32 Subnode_Key:2:16 Object_Status:1:24 Error_Code:1:32 "
            "Object_Type:0:4 Last_Return_Code:0:4 Last_Standard_Error:2:64 Not_Known:2:8"));
  AttributeGroupMeta* numbered = XRV::testing::defineGroup(
      "XRV_Numbers",
      attrs("Query_Name:2:32 Object_Status:0:4 Error_Code:0:4 Error_Code_Name:1:32 Not_Known:0:4"));
  providers_.addClientClass(new StatusSource("Disk", PERF_OBJECT_ACTIVE, OBJECT_ACTIVE));
  providers_.addClientClass(
      new StatusSource("Broken", PERF_OBJECT_ACTIVE, SCRIPT_NOT_FOUND, "nosuch --all"));
  providers_.addClientClass(new StatusSource("Off", PERF_OBJECT_INACTIVE, DISABLED));
  auto* web = new TestQueryClass("Web", {{"V"}});
  providers_.addClientClass(web);
  web->subnodeCopy("web01", &providers_);

  PerfObjectStatus byName("ZQM", "Performance_Object_Status", &providers_, named);
  byName.start();
  using Row = std::vector<std::string>;
  EXPECT_EQ(
      collect(byName, named),
      (std::vector<Row>{
          {"agent", "Disk", "Disk", "", "PERF_OBJECT_ACTIVE", "OBJECT_ACTIVE", "5", "0", "", ""},
          {"agent", "Broken", "nosuch --all", "", "PERF_OBJECT_ACTIVE", "SCRIPT_NOT_FOUND", "5",
           "127", "sh: 1: nosuch: not found", ""},
          {"agent", "Off", "Off", "", "PERF_OBJECT_INACTIVE", "DISABLED", "5", "0", "", ""},
          {"agent", "Web", "Web", "", "PERF_OBJECT_ACTIVE", "OBJECT_ACTIVE", "5", "0", "", ""},
          {"agent", "Web", "Web", "web01", "PERF_OBJECT_ACTIVE", "OBJECT_ACTIVE", "5", "0", "", ""},
      }));

  PerfObjectStatus byNumber("ZQM", "XRV_Numbers", &providers_, numbered);
  byNumber.start();
  std::vector<Row> rows = collect(byNumber, numbered);
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_EQ(rows[1], (Row{"agent", "Broken", "0", "52", "SCRIPT_NOT_FOUND", "0"}));
  EXPECT_EQ(rows[2], (Row{"agent", "Off", "1", "66", "DISABLED", "0"}));

  // A later collection reports the providers' current state.
  static_cast<StatusSource*>(providers_.getClientClass("Disk"))->setErrorCode(TIMEOUT);
  rows = collect(byNumber, numbered);
  EXPECT_EQ(rows[0], (Row{"agent", "Disk", "0", "46", "TIMEOUT", "0"}));
}

TEST_F(PerfObjectStatusTest, CollectionStatistics) {
  AttributeGroupMeta* meta = XRV::testing::defineGroup(
      "Performance_Object_Status",
      attrs("Query_Name:2:32 Number_of_Collections:0:4 Last_Collection_Start:1:16 "
            "Last_Collection_Duration:0:4 Average_Collection_Duration:0:4 Refresh_Interval:0:4 "
            "Cache_Hits:7:8"));
  auto* source = new StatusSource("Disk", PERF_OBJECT_ACTIVE, OBJECT_ACTIVE);
  source->setRefreshInterval(60);
  providers_.addClientClass(source);
  PerfObjectStatus status("ZQM", "Performance_Object_Status", &providers_, meta);
  status.start();
  using Row = std::vector<std::string>;
  // Before the first collection: nothing collected, averages -1 (× 100).
  EXPECT_EQ(collect(status, meta),
            (std::vector<Row>{{"agent", "Disk", "0", "", "-1", "-100", "60", "0"}}));

  source->start();
  source->collectData(nullptr);
  source->collectDataIfNeeded(nullptr);  // still current: a cache hit
  char stamp[17];
  UAClientClass::formatTimeStampMillis(fwTimeMillis(), stamp, sizeof stamp);
  EXPECT_EQ(collect(status, meta),
            (std::vector<Row>{{"agent", "Disk", "1", stamp, "0", "0", "60", "1"}}));
}

TEST_F(PerfObjectStatusTest, GroupsNamedAfterTheStatusGroupGetTheirProviderWhileRead) {
  installPerfObjectStatusHook();
  AttributeGroupMeta* meta =
      XRV::testing::defineGroup("XRV_Performance_Object_Status", attrs("Query_Name:2:32"));
  auto* created = dynamic_cast<PerfObjectStatus*>(
      queryClassList().getClientClass("XRV_Performance_Object_Status"));
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(meta->query(), created);
  EXPECT_EQ(created->getAttributeGroupMeta(), meta);
  EXPECT_STREQ(created->getApplicationName(), "ZQM");
  EXPECT_EQ(created->getObjectType(), UA_STATUS);

  // The exact name is start-up's to create, not the reader's.
  XRV::testing::defineGroup("Performance_Object_Status", attrs("Query_Name:2:32"));
  EXPECT_EQ(queryClassList().getClientClass("Performance_Object_Status"), nullptr);
}

// Subnodes come and go while the status group is collected: the walk holds the
// subnode manager's lock, as every change of the provider list does.
TEST_F(PerfObjectStatusTest, CollectsWhileSubnodesComeAndGo) {
  AttributeGroupMeta* meta = XRV::testing::defineGroup("Performance_Object_Status",
                                                       attrs("Query_Name:2:32 Subnode_Key:2:16"));
  auto* web = new TestQueryClass("Web", {{"V"}});
  providers_.addClientClass(web);
  PerfObjectStatus status("ZQM", "Performance_Object_Status", &providers_, meta);
  status.start();
  std::atomic<bool> done{false};
  std::thread churn([&] {
    SubnodeManager& subnodes = getSubnodeManager();
    for (int i = 0; !done.load(); ++i) {
      UAClientClass* copy = web->subnodeCopy(("web" + std::to_string(i)).c_str(), nullptr);
      subnodes.acquireLock();
      providers_.addClientClass(copy);
      subnodes.releaseLock();
      subnodes.acquireLock();
      providers_.removeClientClass(copy);
      subnodes.releaseLock();
      delete copy;
    }
  });
  for (int i = 0; i < 200; ++i) {
    std::vector<std::vector<std::string>> rows = collect(status, meta);
    ASSERT_GE(rows.size(), 1u);
    ASSERT_LE(rows.size(), 2u);
    EXPECT_EQ(rows[0][2], "");
  }
  done.store(true);
  churn.join();
}

}  // namespace
