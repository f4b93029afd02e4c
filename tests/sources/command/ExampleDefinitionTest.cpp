// The example definition's script groups, collected on this machine: every command
// must run and give rows of the declared shape.

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <map>
#include <string>

#include "ScriptTestSupport.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionCheck.h"
#include "provider/UAClientClassList.h"
#include "sources/command/ShellQueryClass.h"
#include "support/FrameworkDouble.h"

namespace {

using XRV::testing::collectRows;
using XRV::testing::Rows;

class ExampleDefinitionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DefinitionCheck check;
    ASSERT_TRUE(check.checkFile(XRV_EXAMPLES_DIR "/definitions/linux-basics.xml"))
        << check.error()->message;
    for (UAClientClass* provider = queryClassList().getFirst(); provider != nullptr;
         provider = static_cast<UAClientClass*>(provider->getNextElement())) {
      provider->setAttributeGroupMeta(findAttributeGroupMeta(provider->getAttributeGroup()));
      provider->start();
      scripts_[provider->getAttributeGroup()] = static_cast<ShellQueryClass*>(provider);
    }
  }
  void TearDown() override { XRV::testing::resetScriptTestState(); }

  // The group's rows, each column by name.
  std::vector<std::map<std::string, std::string>> collect(const std::string& group) {
    ShellQueryClass* provider = scripts_.at(group);
    Rows rows = collectRows(*provider);
    const AttributeGroupMeta* meta = provider->getAttributeGroupMeta();
    std::vector<std::map<std::string, std::string>> named;
    for (const std::vector<std::string>& row : rows) {
      std::map<std::string, std::string> columns;
      for (size_t i = 0; i < row.size(); ++i) {
        columns[meta->attrInfo(static_cast<int>(i) + 1)->name] = row[i];
      }
      named.push_back(columns);
    }
    EXPECT_EQ(provider->getCollectionStdErr(), "") << group;
    EXPECT_EQ(provider->getCollectionReturnCode(), 0) << group;
    return named;
  }

  std::map<std::string, ShellQueryClass*> scripts_;
};

long long number(const std::string& text) { return std::stoll(text); }

TEST_F(ExampleDefinitionTest, DiskUsageHasTheRootFileSystem) {
  auto rows = collect("Disk_Usage");
  ASSERT_FALSE(rows.empty());
  bool root = false;
  for (auto& row : rows) {
    EXPECT_GE(number(row["Total_KB"]), number(row["Used_KB"])) << row["Mount_Point"];
    EXPECT_GE(number(row["Used_Percent"]), 0);
    EXPECT_LE(number(row["Used_Percent"]), 100);
    root = root || row["Mount_Point"] == "/";
  }
  EXPECT_TRUE(root);
  EXPECT_EQ(scripts_.at("Disk_Usage")->getPerfErrorCode(), OBJECT_ACTIVE);
}

TEST_F(ExampleDefinitionTest, LoadAverageIsOneRowForThisHost) {
  auto rows = collect("Load_Average");
  ASSERT_EQ(rows.size(), 1U);
  struct utsname names;
  ASSERT_EQ(uname(&names), 0);
  EXPECT_EQ(rows[0]["Host"], names.nodename);
  EXPECT_GE(number(rows[0]["Runnable_Tasks"]), 1);  // this test is running
  EXPECT_GE(number(rows[0]["One_Minute"]), 0);
  EXPECT_GT(number(rows[0]["Uptime_Seconds"]), 0);
}

TEST_F(ExampleDefinitionTest, MemoryUsedIsComputedFromTotalAndAvailable) {
  auto rows = collect("Memory");
  ASSERT_EQ(rows.size(), 1U);
  long long total = number(rows[0]["Total_KB"]);
  long long available = number(rows[0]["Available_KB"]);
  EXPECT_GT(total, 0);
  EXPECT_GT(available, 0);
  EXPECT_EQ(number(rows[0]["Used_KB"]), total - available);
}

TEST_F(ExampleDefinitionTest, LoggedInUsersRunsWithOrWithoutSessions) {
  auto rows = collect("Logged_In_Users");
  int code = scripts_.at("Logged_In_Users")->getPerfErrorCode();
  EXPECT_EQ(code, rows.empty() ? NO_INSTANCES_RETURNED : OBJECT_ACTIVE);
  for (auto& row : rows) {
    EXPECT_FALSE(row["User"].empty());
    EXPECT_FALSE(row["From"].empty());
    EXPECT_GE(number(row["Idle_Minutes"]), 0);
  }
}

TEST_F(ExampleDefinitionTest, NetworkInterfacesHaveCountersAndRates) {
  XRV::testing::FakeClock clock;
  auto first = collect("Network_Interfaces");
  ASSERT_FALSE(first.empty());
  bool loopback = false;
  for (auto& row : first) {
    loopback = loopback || row["Interface"] == "lo";
    EXPECT_EQ(row["Receive_Rate"], "0") << "no rate before a second sample";
    EXPECT_TRUE(row["Link_Up"] == "0" || row["Link_Up"] == "1") << row["Link_Up"];
  }
  EXPECT_TRUE(loopback);
  clock.advance(1100);
  auto second = collect("Network_Interfaces");
  for (auto& row : second) {
    EXPECT_GE(number(row["Receive_Rate"]), 0) << row["Interface"];
    EXPECT_GE(number(row["Bytes_Received"]), 0);
  }
}

}  // namespace
