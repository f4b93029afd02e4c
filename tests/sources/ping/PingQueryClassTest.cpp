// The ping data source read from definitions through the real element parser: its
// targets, list files, rows, statistics, error codes and subnodes, on loopback
// addresses (and in a network namespace of its own where echo must go unanswered).

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../../provider/ProviderTestSupport.h"
#include "NetworkNamespace.h"
#include "PingTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionCheck.h"
#include "framework/Configuration.h"
#include "provider/PerfObject.h"
#include "provider/UAClientClassList.h"
#include "sources/ping/PingQueryClass.h"
#include "sources/ping/PingResolver.h"
#include "support/TempDirectory.h"
#include "support/TestConfiguration.h"

namespace {

using XRV::testing::DecodingRequest;
using XRV::testing::NamespaceChild;
using XRV::testing::TempDirectory;
using XRV::testing::writeProcFile;

using Row = std::map<std::string, std::string>;

const char* kColumns =
    "<attr name=\"Host\" type=\"2\" size=\"64\"/><attr name=\"Address\" type=\"2\" size=\"48\"/>"
    "<attr name=\"State\" type=\"2\" size=\"12\"/><attr name=\"State_Code\" type=\"4\" size=\"4\"/>"
    "<attr name=\"Response_Time\" type=\"4\" size=\"4\"/><attr name=\"Attempts\" type=\"4\" size=\"4\"/>"
    "<attr name=\"Loss_Percent\" type=\"4\" size=\"4\"/><attr name=\"Min_Response_Time\" type=\"4\" size=\"4\"/>"
    "<attr name=\"Avg_Response_Time\" type=\"4\" size=\"4\"/><attr name=\"Max_Response_Time\" type=\"4\" size=\"4\"/>"
    "<attr name=\"Samples\" type=\"4\" size=\"4\"/><attr name=\"List_File\" type=\"2\" size=\"128\"/>";

// The group's columns; State_Code is the state as a number (its metric's metricName).
const char* kMetrics =
    "<metric name=\"Host\" type=\"STRING_DATA\" key=\"true\" visible=\"true\"/>"
    "<metric name=\"Address\" type=\"STRING_DATA\" visible=\"true\"/>"
    "<metric name=\"State\" type=\"STRING_DATA\" visible=\"true\"/>"
    "<metric name=\"State_Code\" metricName=\"State\" type=\"NUMERIC_DATA\" visible=\"true\"/>"
    "<metric name=\"Response_Time\" type=\"NUMERIC_DATA\" visible=\"true\"/><metric name=\"Attempts\" type=\"NUMERIC_DATA\" visible=\"true\"/>"
    "<metric name=\"Loss_Percent\" type=\"NUMERIC_DATA\" visible=\"true\"/><metric name=\"Min_Response_Time\" type=\"NUMERIC_DATA\" visible=\"true\"/>"
    "<metric name=\"Avg_Response_Time\" type=\"NUMERIC_DATA\" visible=\"true\"/><metric name=\"Max_Response_Time\" type=\"NUMERIC_DATA\" visible=\"true\"/>"
    "<metric name=\"Samples\" type=\"NUMERIC_DATA\" visible=\"true\"/>"
    "<metric name=\"List_File\" type=\"STRING_DATA\" visible=\"true\"/>";

// A ping provider of group "P" from the inside of its element, bound and started.
std::unique_ptr<PingQueryClass> loadPing(const std::string& pingAttributes,
                                         const std::string& inside,
                                         const std::string& agAttributes = "",
                                         bool withMetrics = true) {
  const std::string document = "<agent><metadata><ag name=\"P\" table=\"TP\" " + agAttributes +
                               ">" + kColumns + "</ag></metadata><ping app=\"XRV\" ag=\"P\" " +
                               pingAttributes + ">" + inside + (withMetrics ? kMetrics : "") +
                               "</ping></agent>";
  DefinitionCheck check;
  EXPECT_TRUE(check.check(document)) << (check.error() ? check.error()->message : "");
  auto* provider = static_cast<PingQueryClass*>(queryClassList().getFirst());
  if (provider == nullptr) {
    ADD_FAILURE() << "the definition made no provider";
    return nullptr;
  }
  queryClassList().removeClientClass(provider);
  provider->setAttributeGroupMeta(findAttributeGroupMeta("P"));
  provider->start();
  return std::unique_ptr<PingQueryClass>(provider);
}

// One collection; the rows by column name.
std::vector<Row> collect(PingQueryClass& provider) {
  provider.collectData(nullptr);
  DecodingRequest request(provider.getAttributeGroupMeta());
  provider.sendDataToAFW(&request, "Primary:box:XR");
  std::vector<Row> rows;
  const AttributeGroupMeta* meta = provider.getAttributeGroupMeta();
  for (const std::vector<std::string>& decoded : request.rows) {
    Row row;
    for (size_t i = 1; i < decoded.size(); ++i) {
      row[meta->attrInfo(static_cast<int>(i))->name] = decoded[i];
    }
    rows.push_back(row);
  }
  return rows;
}

bool writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  return static_cast<bool>(out);
}

bool canPing() {
  Ping engine;
  return engine.openSocket(AF_INET);
}

class PingQueryClassTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!canPing()) {
      GTEST_SKIP() << "no ICMP socket can be opened here";
    }
  }
  void TearDown() override {
    resetDefinitionState();
    resetConfigurationForTesting();
  }
  TempDirectory directory_;
};

TEST_F(PingQueryClassTest, TargetsFromTheDefinitionAndAListFileAreOneRowEach) {
  const std::string list = directory_.file("lan.lst");
  ASSERT_TRUE(writeFile(list, "# the lab\n127.0.0.3   router in the lab\n\n  127.0.0.2 # twice\n"));
  auto provider = loadPing("timeout=\"2000\"", "<target host=\"127.0.0.1, 127.0.0.2\"/>"
                                               "<device_list file=\"" + list + "\"/>");
  ASSERT_NE(provider, nullptr);
  const std::vector<Row> rows = collect(*provider);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0].at("Host"), "127.0.0.1");
  EXPECT_EQ(rows[1].at("Host"), "127.0.0.2");
  EXPECT_EQ(rows[1].at("List_File"), "");  // the definition named it first
  EXPECT_EQ(rows[2].at("Host"), "127.0.0.3");
  EXPECT_EQ(rows[2].at("List_File"), list);
  for (const Row& row : rows) {
    EXPECT_EQ(row.at("Address"), row.at("Host"));
    EXPECT_EQ(row.at("State"), "answered");
    EXPECT_EQ(row.at("State_Code"), "0");
    EXPECT_EQ(row.at("Attempts"), "1");
    EXPECT_EQ(row.at("Loss_Percent"), "0");
    EXPECT_EQ(row.at("Samples"), "1");
    EXPECT_GE(std::stoi(row.at("Response_Time")), 0);
    EXPECT_EQ(row.at("Min_Response_Time"), row.at("Response_Time"));
    EXPECT_EQ(row.at("Max_Response_Time"), row.at("Response_Time"));
  }
  EXPECT_EQ(provider->getPerfErrorCode(), OBJECT_ACTIVE);
  EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_ACTIVE);
  EXPECT_EQ(provider->getObjectType(), UA_PING);
  EXPECT_NE(provider->getCollectionDetail().find("pinging IPv4 through a"), std::string::npos)
      << provider->getCollectionDetail();
}

TEST_F(PingQueryClassTest, AChangedListFileIsReadAgainAtTheNextCollection) {
  const std::string list = directory_.file("hosts.lst");
  ASSERT_TRUE(writeFile(list, "127.0.0.2\n"));
  auto provider = loadPing("", "<device_list file=\"" + list + "\"/>");
  ASSERT_NE(provider, nullptr);
  EXPECT_EQ(collect(*provider).size(), 1u);
  EXPECT_EQ(collect(*provider).size(), 1u);
  EXPECT_EQ(provider->listFileReads(), 1);  // unchanged: not read again
  ASSERT_TRUE(writeFile(list, "127.0.0.2\n127.0.0.4\n127.0.0.5\n"));
  const std::vector<Row> rows = collect(*provider);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[2].at("Host"), "127.0.0.5");
  EXPECT_EQ(rows[0].at("Samples"), "3");  // the history of a host stays with it
  EXPECT_EQ(rows[1].at("Samples"), "1");
  EXPECT_EQ(provider->listFileReads(), 2);
}

TEST_F(PingQueryClassTest, ErrorCodesOfTheListsAndWhatIsStillPinged) {
  const std::string empty = directory_.file("empty.lst");
  ASSERT_TRUE(writeFile(empty, "# nobody yet\n"));
  struct Case {
    std::string inside;
    int error;
    int status;
    size_t rows;
    std::string detail;
  };
  const Case cases[] = {
      {"<target host=\"127.0.0.1\"/><device_list file=\"" + directory_.file("gone.lst") + "\"/>",
       PING_FILE_DOES_NOT_EXIST, PERF_OBJECT_ACTIVE, 1, "does not exist or cannot be read"},
      {"<device_list file=\"" + directory_.file("*.none") + "\"/>", NO_PING_DEVICE_FILES,
       PERF_OBJECT_INACTIVE, 0, "no device-list file matches"},
      {"<target host=\"127.0.0.1\"/><device_list file=\"${XRV_TEST_UNSET_LIST}\"/>",
       PING_DEVICE_LIST_FILE_MISSING, PERF_OBJECT_ACTIVE, 1, "names no file"},
      {"", NO_PING_DEVICE_FILES, PERF_OBJECT_INACTIVE, 0, "names no targets"},
      {"<device_list file=\"" + empty + "\"/>", NO_INSTANCES_RETURNED, PERF_OBJECT_ACTIVE, 0, ""},
  };
  for (const Case& c : cases) {
    auto provider = loadPing("timeout=\"1000\"", c.inside);
    ASSERT_NE(provider, nullptr);
    EXPECT_EQ(collect(*provider).size(), c.rows) << c.inside;
    EXPECT_STREQ(perfObjectErrorCodeName(provider->getPerfErrorCode()),
                 perfObjectErrorCodeName(c.error))
        << c.inside;
    EXPECT_EQ(provider->getPerfObjectStatus(), c.status) << c.inside;
    EXPECT_NE(provider->getCollectionDetail().find(c.detail), std::string::npos)
        << provider->getCollectionDetail();
    resetDefinitionState();
  }
}

TEST_F(PingQueryClassTest, APatternReadsEveryMatchingFile) {
  ASSERT_TRUE(writeFile(directory_.file("a.lst"), "127.0.0.6\n"));
  ASSERT_TRUE(writeFile(directory_.file("b.lst"), "127.0.0.7\n127.0.0.6\n"));
  ASSERT_TRUE(writeFile(directory_.file("c.txt"), "127.0.0.8\n"));
  auto provider = loadPing("", "<device_list file=\"" + directory_.file("*.lst") + "\"/>");
  ASSERT_NE(provider, nullptr);
  const std::vector<Row> rows = collect(*provider);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].at("List_File"), directory_.file("a.lst"));
  EXPECT_EQ(rows[1].at("Host"), "127.0.0.7");
}

TEST_F(PingQueryClassTest, WithoutMetricsTheGroupsAttributesAreFilledByName) {
  auto provider = loadPing("", "<target host=\"127.0.0.1\"/>", "", false);
  ASSERT_NE(provider, nullptr);
  ASSERT_EQ(provider->getMetricCount(), 12);
  EXPECT_TRUE(provider->getMetric(0)->getIsKey());
  const std::vector<Row> rows = collect(*provider);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].at("State"), "answered");
  EXPECT_EQ(rows[0].at("State_Code"), "0");  // a name the source does not know: 0
  EXPECT_EQ(rows[0].at("Samples"), "1");
}

TEST_F(PingQueryClassTest, EachSubnodePingsTheListFileItsSectionNames) {
  const std::string east = directory_.file("east.lst");
  const std::string west = directory_.file("west.lst");
  ASSERT_TRUE(writeFile(east, "127.0.0.10\n127.0.0.11\n"));
  ASSERT_TRUE(writeFile(west, "127.0.0.12\n"));
  XRV::testing::ConfigurationFile file;
  ASSERT_TRUE(file.load("[subnode PNG east]\nPING_DEVICE_LIST_FILE = " + east +
                        "\n[subnode PNG west]\nPING_DEVICE_LIST_FILE = " + west +
                        "\n[subnode PNG north]\nOTHER = 1\n"));
  auto provider = loadPing("", "<device_list file=\"${PING_DEVICE_LIST_FILE}\"/>",
                           "subnode_type=\"PNG\"");
  ASSERT_NE(provider, nullptr);
  std::map<std::string, std::vector<std::string>> hosts;
  for (const char* key : {"east", "west", "north"}) {
    std::unique_ptr<PingQueryClass> copy(
        static_cast<PingQueryClass*>(provider->subnodeCopy(key, nullptr)));
    copy->start();
    for (const Row& row : collect(*copy)) {
      hosts[key].push_back(row.at("Host"));
    }
    if (std::string(key) == "north") {
      EXPECT_EQ(copy->getPerfErrorCode(), PING_DEVICE_LIST_FILE_MISSING);
    }
  }
  EXPECT_EQ(hosts["east"], (std::vector<std::string>{"127.0.0.10", "127.0.0.11"}));
  EXPECT_EQ(hosts["west"], (std::vector<std::string>{"127.0.0.12"}));
  EXPECT_TRUE(hosts["north"].empty());
}

TEST_F(PingQueryClassTest, OutOfRangeSettingsAreClamped) {
  auto provider = loadPing(
      "timeout=\"1\" attempts=\"99\" history=\"0\" burst_delay=\"-5\" resolve_timeout=\"999999\"",
      "<target host=\"127.0.0.1\"/>");
  ASSERT_NE(provider, nullptr);
  const PingQueryClass::Options& options = provider->getOptions();
  EXPECT_EQ(options.timeoutMillis, 10);
  EXPECT_EQ(options.attempts, 10);
  EXPECT_EQ(options.history, 1);
  EXPECT_EQ(options.burstDelayMillis, 0);
  EXPECT_EQ(options.resolveTimeoutMillis, 60000);
}

// Names, unreachable and unanswered targets where the network is the test's own.
TEST(PingQueryClassNamespaceTest, EveryStateAndTheStatisticsOverCollections) {
  XRV_IN_NETWORK_NAMESPACE([](const NamespaceChild& child) {
    auto provider = loadPing("timeout=\"400\" attempts=\"2\" history=\"3\" resolve_timeout=\"500\"",
                             "<target host=\"127.0.0.2 localhost no-such-host.invalid 10.77.0.1\"/>");
    if (provider == nullptr) {
      child.fail("no provider");
      return;
    }
    const auto state = [](const std::vector<Row>& rows, size_t i) {
      return i < rows.size() ? rows[i].at("State") : std::string("(missing)");
    };
    std::vector<Row> rows = collect(*provider);
    child.check(rows.size() == 4, std::to_string(rows.size()) + " rows, not 4");
    child.check(state(rows, 0) == "answered", "127.0.0.2: " + state(rows, 0));
    child.check(state(rows, 1) == "answered", "localhost: " + state(rows, 1));
    child.check(state(rows, 2) == "unresolved", "the unknown name: " + state(rows, 2));
    child.check(state(rows, 3) == "unreachable", "10.77.0.1: " + state(rows, 3));
    child.check(provider->getPerfErrorCode() == OBJECT_ACTIVE, "not OBJECT_ACTIVE");
    if (rows.size() == 4) {
      child.check(rows[2].at("Address").empty(), "an address for an unresolved name");
      child.check(rows[2].at("Loss_Percent") == "100", "no loss for an unresolved name");
      child.check(rows[1].at("Address") == "127.0.0.1" || rows[1].at("Address") == "::1",
                  "localhost is " + rows[1].at("Address"));
    }
    child.check(writeProcFile("/proc/sys/net/ipv4/icmp_echo_ignore_all", "1"),
                "cannot switch echo replies off");
    rows = collect(*provider);
    child.check(state(rows, 0) == "timed out", "127.0.0.2 after echo went off: " + state(rows, 0));
    if (!rows.empty()) {
      child.check(rows[0].at("Attempts") == "2", "attempts " + rows[0].at("Attempts"));
      child.check(rows[0].at("Response_Time") == "-1", "a response time without an answer");
      child.check(rows[0].at("Loss_Percent") == "50", "loss " + rows[0].at("Loss_Percent"));
      child.check(rows[0].at("Samples") == "2", "samples " + rows[0].at("Samples"));
      child.check(rows[0].at("Min_Response_Time") == rows[0].at("Max_Response_Time"),
                  "min and max of one answer differ");
    }
    collect(*provider);
    rows = collect(*provider);  // a history of 3: the answered collection is gone
    if (!rows.empty()) {
      child.check(rows[0].at("Loss_Percent") == "100", "loss " + rows[0].at("Loss_Percent"));
      child.check(rows[0].at("Samples") == "3", "samples " + rows[0].at("Samples"));
      child.check(rows[0].at("Avg_Response_Time") == "-1", "an average without answers");
    }
    resetDefinitionState();
  });
}

TEST(PingResolverTest, NamesResolveInParallelWithinTheirBound) {
  XRV_IN_NETWORK_NAMESPACE([](const NamespaceChild& child) {
    const std::vector<std::string> resolved =
        XRV::ping::resolveNames({"localhost", "no-such-host.invalid", "127.0.0.9"}, 1000);
    child.check(resolved.size() == 3, "not one answer per name");
    if (resolved.size() == 3) {
      child.check(resolved[0] == "127.0.0.1" || resolved[0] == "::1", "localhost: " + resolved[0]);
      child.check(resolved[1].empty(), "an unknown name resolved to " + resolved[1]);
      child.check(resolved[2] == "127.0.0.9", "a numeric name: " + resolved[2]);
    }
  });
}

}  // namespace

namespace {

// The example definition pings what its list file names.
TEST(PingExampleTest, TheExampleDefinitionPingsItsListFile) {
  if (!canPing()) {
    GTEST_SKIP() << "no ICMP socket can be opened here";
  }
  XRV::testing::ConfigurationFile file;
  ASSERT_TRUE(file.load("[agent]\nPING_LIST_DIR = " XRV_EXAMPLES_DIR "/definitions/ping\n"));
  DefinitionCheck check;
  ASSERT_TRUE(check.checkFile(XRV_EXAMPLES_DIR "/definitions/ping.xml")) << check.error()->message;
  EXPECT_TRUE(check.warnings().empty()) << check.warnings().front().message;
  PingQueryClass* lan = nullptr;
  for (UAClientClass* provider = queryClassList().getFirst(); provider != nullptr;
       provider = static_cast<UAClientClass*>(provider->getNextElement())) {
    provider->setAttributeGroupMeta(findAttributeGroupMeta(provider->getAttributeGroup()));
    if (strcmp(provider->getAttributeGroup(), "Lan_Ping") == 0) {
      lan = static_cast<PingQueryClass*>(provider);
    }
  }
  ASSERT_NE(lan, nullptr);
  lan->start();
  std::vector<std::string> hosts;
  for (const Row& row : collect(*lan)) {
    hosts.push_back(row.at("Host"));
    if (row.at("Host") != "::1" || XRV::testing::hasIPv6Loopback()) {
      EXPECT_EQ(row.at("State"), "answered") << row.at("Host");
    }
  }
  EXPECT_EQ(hosts, (std::vector<std::string>{"127.0.0.1", "::1", "localhost", "127.0.0.53"}));
  resetDefinitionState();
}

}  // namespace
