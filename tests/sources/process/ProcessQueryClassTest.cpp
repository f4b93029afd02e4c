// The process data sources, read from definitions through their element parsers and
// collected from fake /proc trees on a fake clock.

#include "sources/process/ProcessQueryClass.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <set>
#include <memory>
#include <string>
#include <vector>

#include "../../provider/ProviderTestSupport.h"
#include "FakeProc.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionCheck.h"
#include "framework/Configuration.h"
#include "provider/ResultInstance.h"
#include "provider/UAClientClassList.h"
#include "support/FrameworkDouble.h"

namespace {

using XRV::testing::DecodingRequest;
using XRV::testing::FakeClock;
using XRV::testing::FakeProc;
using XRV::testing::FakeProcess;

using Row = std::map<std::string, std::string>;

const unsigned long kTicks = static_cast<unsigned long>(sysconf(_SC_CLK_TCK));

// Attributes named `names`, text for the names listed in `texts`, 64-bit numbers
// otherwise.
std::string attrs(const std::vector<std::string>& names) {
  static const std::vector<std::string> texts = {"Rule", "Name", "Command_Line", "State",
                                                 "User", "Start_Time", "Status",
                                                 "Status_Since"};
  std::string declared;
  for (const std::string& name : names) {
    const bool text = std::find(texts.begin(), texts.end(), name) != texts.end();
    declared += "<attr name=\"" + name + "\" type=\"" + (text ? "2" : "9") + "\" size=\"" +
                (text ? "128" : "8") + "\"/>";
  }
  return declared;
}

class ProcessQueryClassTest : public ::testing::Test {
 protected:
  void TearDown() override {
    provider_.reset();
    resetDefinitionState();
    resetConfigurationForTesting();
  }

  // Reads the definition: group "G" of `names` and the data-source element `element`
  // (its inside included); the provider reads the fake tree.
  DefinitionCheck load(const std::vector<std::string>& names, const std::string& element) {
    DefinitionCheck check;
    const std::string document = "<agent><metadata><ag name=\"G\" table=\"TG\">" + attrs(names) +
                                 "</ag></metadata>" + element + "</agent>";
    EXPECT_TRUE(check.check(document)) << (check.error() ? check.error()->message : "");
    auto* provider = static_cast<ProcessQueryClass*>(queryClassList().getFirst());
    if (provider == nullptr) {
      return check;
    }
    queryClassList().removeClientClass(provider);
    provider->setAttributeGroupMeta(findAttributeGroupMeta("G"));
    provider->setProcRoot(proc_.root().c_str());
    provider->start();
    provider_.reset(provider);
    return check;
  }

  // One collection, then the rows by column name.
  std::vector<Row> collect() {
    provider_->collectData(nullptr);
    DecodingRequest request(provider_->getAttributeGroupMeta());
    provider_->sendDataToAFW(&request, "Primary:box:XR");
    const AttributeGroupMeta* meta = provider_->getAttributeGroupMeta();
    std::vector<Row> rows;
    for (const std::vector<std::string>& columns : request.rows) {
      Row row;
      for (size_t i = 1; i < columns.size(); ++i) {
        row[meta->attrInfo(static_cast<int>(i))->name] = columns[i];
      }
      rows.push_back(row);
    }
    return rows;
  }

  static std::string stamp(int64_t seconds) {
    char text[17];
    UAClientClass::formatTimeStamp(static_cast<time_t>(seconds), text, sizeof text);
    return text;
  }

  FakeClock clock_{1700000000000};
  FakeProc proc_{10000.4};
  std::unique_ptr<ProcessQueryClass> provider_;
};

TEST_F(ProcessQueryClassTest, RulesTakeProcessesByNameCommandLineAndUser) {
  proc_.add(FakeProcess{.pid = 10, .name = "nginx", .cmdline = std::string("nginx: master\0", 14)});
  proc_.add(FakeProcess{.pid = 11, .name = "nginx", .ppid = 10, .uid = 65534,
                        .cmdline = std::string("nginx: worker\0", 14)});
  proc_.add(FakeProcess{.pid = 20, .name = "python3", .uid = 65534,
                        .cmdline = std::string("python3\0/srv/shop/app.py\0--port\0" "8000\0", 37)});
  proc_.add(FakeProcess{.pid = 21, .name = "python3", .cmdline = "python3"});
  load({"Rule", "PID", "Name", "Command_Line", "User", "User_ID", "Process_Count"},
       "<process app=\"XRV\" ag=\"G\">"
       "<match rule=\"web\" name=\"nginx\"/>"
       "<match rule=\"shop\" cmdline=\"shop/app\\.py --port \\d+$\"/>"
       "<match rule=\"nobody\" user=\"nobody\"/>"
       "<match rule=\"uid\" user=\"65534\" name=\"nginx\"/>"
       "<match rule=\"none\" name=\"nginx\" user=\"root\" cmdline=\"worker\"/>"
       "</process>");
  ASSERT_NE(provider_, nullptr);
  EXPECT_EQ(provider_->getObjectType(), UA_PROCESS);
  std::multiset<std::pair<std::string, std::string>> taken;  // rule, pid
  for (Row& row : collect()) {
    taken.emplace(row["Rule"], row["PID"]);
    EXPECT_EQ(row["Process_Count"], "1");
    if (row["PID"] == "20") {
      EXPECT_EQ(row["Command_Line"], "python3 /srv/shop/app.py --port 8000");  // no trailing blank
      EXPECT_EQ(row["Name"], "python3");
      EXPECT_EQ(row["User"], "nobody");
      EXPECT_EQ(row["User_ID"], "65534");
    }
  }
  const std::multiset<std::pair<std::string, std::string>> expected = {
      {"web", "10"}, {"web", "11"}, {"shop", "20"}, {"nobody", "11"}, {"nobody", "20"},
      {"uid", "11"}};
  EXPECT_EQ(taken, expected);
  EXPECT_EQ(provider_->getPerfErrorCode(), OBJECT_ACTIVE);

  proc_.remove(10);
  proc_.remove(11);
  proc_.remove(20);
  EXPECT_TRUE(collect().empty());
  EXPECT_EQ(provider_->getPerfErrorCode(), NO_INSTANCES_RETURNED);
  EXPECT_EQ(provider_->getPerfObjectStatus(), PERF_OBJECT_ACTIVE);
}

TEST_F(ProcessQueryClassTest, ProcessorUseComesFromSuccessiveSnapshots) {
  // Started 1000 s after boot, 9000 s old at the first sample.
  FakeProcess busy{.pid = 30, .name = "busy", .userTime = 900 * kTicks,
                   .systemTime = 90 * kTicks, .startTime = 1000 * kTicks};
  proc_.add(busy);
  load({"PID", "CPU_Percent", "User_CPU_Percent", "System_CPU_Percent", "CPU_Seconds"},
       "<process ag=\"G\"><match name=\"busy\"/><match name=\"fresh\"/>"
       "<metric name=\"PID\" type=\"NUMERIC_64BIT_DATA\" key=\"true\" visible=\"true\"/>"
       "<metric name=\"CPU_Percent\" type=\"NUMERIC_64BIT_DATA\" scale=\"2\" visible=\"true\"/>"
       "<metric name=\"User_CPU_Percent\" type=\"NUMERIC_64BIT_DATA\" scale=\"2\" visible=\"true\"/>"
       "<metric name=\"System_CPU_Percent\" type=\"NUMERIC_64BIT_DATA\" scale=\"2\" visible=\"true\"/>"
       "<metric name=\"CPU_Seconds\" type=\"NUMERIC_64BIT_DATA\" visible=\"true\"/>"
       "</process>");
  auto rows = collect();
  ASSERT_EQ(rows.size(), 1U);
  // At first over the process's life: 990 s in 9000 s.
  EXPECT_EQ(rows[0]["CPU_Percent"], "1100");
  EXPECT_EQ(rows[0]["User_CPU_Percent"], "1000");
  EXPECT_EQ(rows[0]["System_CPU_Percent"], "100");
  EXPECT_EQ(rows[0]["CPU_Seconds"], "990");

  // 20 s later: 5 s of user and 1 s of system time since; a new process started 4 s
  // ago used 2 s.
  clock_.advance(20000);
  proc_.setUptime(10020.4);
  busy.userTime += 5 * kTicks;
  busy.systemTime += 1 * kTicks;
  proc_.add(busy);
  proc_.add(FakeProcess{.pid = 31, .name = "fresh", .userTime = 2 * kTicks,
                        .startTime = 10016 * kTicks});
  std::map<std::string, Row> byPid;
  for (Row& row : collect()) {
    byPid[row["PID"]] = row;
  }
  ASSERT_EQ(byPid.size(), 2U);
  EXPECT_EQ(byPid["30"]["CPU_Percent"], "3000");
  EXPECT_EQ(byPid["30"]["User_CPU_Percent"], "2500");
  EXPECT_EQ(byPid["30"]["System_CPU_Percent"], "500");
  EXPECT_EQ(byPid["31"]["CPU_Percent"], "5000");

  // Half a second later 0.4 s more: measured from the last sample. Another half second
  // and 0.1 s more: still from that sample (0.5 s in 1 s), not from the one between.
  auto busyPercent = [this] {
    for (Row& row : collect()) {
      if (row["PID"] == "30") {
        return row["User_CPU_Percent"];
      }
    }
    return std::string("none");
  };
  for (const auto& [ticks, percent] : {std::pair<unsigned long, const char*>{40, "8000"},
                                       std::pair<unsigned long, const char*>{10, "5000"}}) {
    clock_.advance(500);
    busy.userTime += ticks * kTicks / 100;
    proc_.add(busy);
    EXPECT_EQ(busyPercent(), percent);
  }

  // A pid taken again by a new process is no continuation of the old one.
  clock_.advance(10000);
  proc_.setUptime(10031.4);
  proc_.add(FakeProcess{.pid = 30, .name = "busy", .userTime = 1 * kTicks,
                        .startTime = 10026 * kTicks});
  for (Row& row : collect()) {
    if (row["PID"] == "30") {
      EXPECT_EQ(row["CPU_Percent"], "2000");  // 1 s of its 5
    }
  }
}

TEST_F(ProcessQueryClassTest, ProcessValuesCoverMemoryThreadsDescriptorsIoAndTime) {
  proc_.add(FakeProcess{.pid = 40, .name = "db", .state = 'D', .ppid = 2, .nice = 5,
                        .threads = 12, .startTime = 400 * kTicks, .residentPages = 256,
                        .virtualKb = 90000, .uid = 0,
                        .cmdline = std::string("db\0-x\0", 6), .readChars = 5000000000ULL,
                        .writtenChars = 7, .readBytes = 3000000000ULL, .writtenBytes = 9,
                        .descriptors = 17});
  load({"PID", "Parent_PID", "State", "User", "Resident_KB", "Virtual_KB", "Shared_KB",
        "Threads", "Open_Descriptors", "Read_Bytes", "Write_Bytes", "Read_Chars",
        "Write_Chars", "Nice", "Start_Time", "Age_Seconds", "Minor_Faults", "Major_Faults"},
       "<process ag=\"G\"><match name=\"db\"/></process>");
  auto rows = collect();
  ASSERT_EQ(rows.size(), 1U);
  Row& row = rows[0];
  EXPECT_EQ(row["Parent_PID"], "2");
  EXPECT_EQ(row["State"], "D");
  EXPECT_EQ(row["User"], "root");
  EXPECT_EQ(row["Resident_KB"], "1024");
  EXPECT_EQ(row["Virtual_KB"], "90000");
  EXPECT_EQ(row["Shared_KB"], std::to_string(50 * (sysconf(_SC_PAGESIZE) / 1024)));
  EXPECT_EQ(row["Threads"], "12");
  EXPECT_EQ(row["Open_Descriptors"], "17");
  EXPECT_EQ(row["Read_Bytes"], "3000000000");  // full width, not the 32-bit count
  EXPECT_EQ(row["Write_Bytes"], "9");
  EXPECT_EQ(row["Read_Chars"], "5000000000");
  EXPECT_EQ(row["Write_Chars"], "7");
  EXPECT_EQ(row["Nice"], "5");
  EXPECT_EQ(row["Minor_Faults"], "500");
  EXPECT_EQ(row["Major_Faults"], "3");
  // Boot was 10000 s before the clock's now; the process started 400 s after it.
  EXPECT_EQ(row["Start_Time"], stamp(1700000000 - 10000 + 400));
  EXPECT_EQ(row["Age_Seconds"], "9600");

  std::filesystem::remove_all(proc_.path("40/fd"));  // descriptors not countable
  EXPECT_EQ(collect()[0]["Open_Descriptors"], "-1");
}

TEST_F(ProcessQueryClassTest, RuleRowsSumTheirProcessesAndShowTheOldest) {
  proc_.add(FakeProcess{.pid = 50, .name = "nginx", .threads = 1, .startTime = 100 * kTicks,
                        .residentPages = 10, .cmdline = "nginx: master", .descriptors = 4});
  proc_.add(FakeProcess{.pid = 48, .name = "nginx", .ppid = 50, .threads = 2,
                        .startTime = 200 * kTicks, .residentPages = 30,
                        .cmdline = "nginx: worker", .descriptors = 6});
  load({"Rule", "Process_Count", "PID", "Command_Line", "Resident_KB", "Threads",
        "Open_Descriptors", "Start_Time", "Status"},
       "<process ag=\"G\" rows=\"rule\"><match rule=\"web\" name=\"nginx\"/>"
       "<match rule=\"db\" name=\"postgres\"/></process>");
  std::map<std::string, Row> byRule;
  for (Row& row : collect()) {
    byRule[row["Rule"]] = row;
  }
  ASSERT_EQ(byRule.size(), 2U);
  Row& web = byRule["web"];
  EXPECT_EQ(web["Process_Count"], "2");
  EXPECT_EQ(web["PID"], "50");  // the oldest, not the lowest pid
  EXPECT_EQ(web["Command_Line"], "nginx: master");
  EXPECT_EQ(web["Resident_KB"], "160");
  EXPECT_EQ(web["Threads"], "3");
  EXPECT_EQ(web["Open_Descriptors"], "10");
  EXPECT_EQ(web["Start_Time"], stamp(1700000000 - 10000 + 100));
  EXPECT_EQ(web["Status"], "UP");
  Row& db = byRule["db"];
  EXPECT_EQ(db["Process_Count"], "0");
  EXPECT_EQ(db["PID"], "0");
  EXPECT_EQ(db["Command_Line"], "");
  EXPECT_EQ(db["Start_Time"], "");
  EXPECT_EQ(db["Status"], "DOWN");
}

TEST_F(ProcessQueryClassTest, AvailabilityRowsSayWhetherRunningHowManyAndSinceWhen) {
  for (int pid : {60, 61, 62}) {
    proc_.add(FakeProcess{.pid = pid, .name = "worker",
                          .startTime = static_cast<unsigned long>(pid) * 10 * kTicks});
  }
  proc_.add(FakeProcess{.pid = 70, .name = "agent", .startTime = 9000 * kTicks});
  load({"Rule", "Status", "Process_Count", "Minimum_Instances", "Maximum_Instances",
        "Status_Since", "PID"},
       "<app_ping_list app=\"XRV\" ag=\"G\">"
       "<match rule=\"workers\" name=\"worker\" min=\"2\" max=\"4\"/>"
       "<match rule=\"agent\" name=\"agent\" max=\"1\"/>"
       "<match rule=\"cron\" name=\"cron\"/>"
       "</app_ping_list>");
  ASSERT_NE(provider_, nullptr);
  EXPECT_EQ(provider_->getObjectType(), UA_AVAILABILITY_LIST);
  const int64_t boot = 1700000000 - 10000;
  auto byRule = [this] {
    std::map<std::string, Row> rows;
    for (Row& row : collect()) {
      rows[row["Rule"]] = row;
    }
    return rows;
  };
  auto rows = byRule();
  ASSERT_EQ(rows.size(), 3U);
  EXPECT_EQ(rows["workers"]["Status"], "UP");
  EXPECT_EQ(rows["workers"]["Process_Count"], "3");
  EXPECT_EQ(rows["workers"]["Minimum_Instances"], "2");
  EXPECT_EQ(rows["workers"]["Maximum_Instances"], "4");
  EXPECT_EQ(rows["workers"]["Status_Since"], stamp(boot + 600));  // the oldest's start
  EXPECT_EQ(rows["agent"]["Status"], "UP");
  EXPECT_EQ(rows["agent"]["PID"], "70");
  EXPECT_EQ(rows["cron"]["Status"], "DOWN");
  EXPECT_EQ(rows["cron"]["Status_Since"], stamp(1700000000));  // first seen now
  EXPECT_EQ(provider_->getPerfErrorCode(), OBJECT_ACTIVE);

  // A minute later: two workers gone, a second agent, cron up.
  clock_.advance(60000);
  proc_.setUptime(10060.4);
  proc_.remove(60);
  proc_.remove(61);
  proc_.add(FakeProcess{.pid = 71, .name = "agent", .startTime = 10050 * kTicks});
  proc_.add(FakeProcess{.pid = 80, .name = "cron", .startTime = 10030 * kTicks});
  rows = byRule();
  EXPECT_EQ(rows["workers"]["Status"], "TOO_FEW");
  EXPECT_EQ(rows["workers"]["Status_Since"], stamp(1700000060));
  EXPECT_EQ(rows["agent"]["Status"], "TOO_MANY");
  EXPECT_EQ(rows["cron"]["Status"], "UP");
  EXPECT_EQ(rows["cron"]["Status_Since"], stamp(boot + 10030));

  // Unchanged a minute on: the times stay.
  clock_.advance(60000);
  proc_.setUptime(10120.4);
  rows = byRule();
  EXPECT_EQ(rows["workers"]["Status_Since"], stamp(1700000060));
  EXPECT_EQ(rows["cron"]["Status_Since"], stamp(boot + 10030));

  proc_.remove(62);
  rows = byRule();
  EXPECT_EQ(rows["workers"]["Status"], "DOWN");
  EXPECT_EQ(rows["workers"]["Status_Since"], stamp(1700000120));
}

TEST_F(ProcessQueryClassTest, AProcessListShowsEveryProcessOrTheTopOnes) {
  const unsigned long userTimes[] = {5, 50, 20, 80, 1};
  for (int i = 0; i < 5; ++i) {
    proc_.add(FakeProcess{.pid = 90 + i, .name = "p" + std::to_string(i),
                          .userTime = userTimes[i] * kTicks, .startTime = 9900 * kTicks});
  }
  proc_.add(FakeProcess{.pid = 2, .name = "kthreadd", .flags = 0x208040,
                        .userTime = 100 * kTicks, .startTime = 0, .kernelThread = true});
  load({"PID", "Name", "CPU_Percent"},
       "<process_list ag=\"G\" top=\"3\" sort=\"CPU_Percent\" kernel_threads=\"false\"/>");
  ASSERT_NE(provider_, nullptr);
  EXPECT_EQ(provider_->getObjectType(), UA_PROCESS);
  std::vector<std::string> pids;
  for (Row& row : collect()) {
    pids.push_back(row["PID"]);
  }
  EXPECT_EQ(pids, (std::vector<std::string>{"93", "91", "92"}));

  provider_->setTop(0, nullptr);
  provider_->setKernelThreads(true);
  EXPECT_EQ(collect().size(), 6U);
}

TEST_F(ProcessQueryClassTest, WithoutAReadableProcessTableTheGroupIsUnavailable) {
  load({"PID"}, "<process ag=\"G\"><match name=\"x\"/></process>");
  provider_->setProcRoot("/nonexistent/proc");
  EXPECT_TRUE(collect().empty());
  EXPECT_EQ(provider_->getPerfObjectStatus(), PERF_OBJECT_INACTIVE);
  EXPECT_EQ(provider_->getPerfErrorCode(), OBJECT_CURRENTLY_UNAVAILABLE);
}

TEST_F(ProcessQueryClassTest, DefinitionMistakesAreWarnedAbout) {
  struct Case {
    const char* element;
    const char* warning;  // a fragment of the one warning expected
  };
  // clang-format off
  const Case cases[] = {
      {"<process><match name=\"x\"/></process>", "without an ag attribute"},
      {"<process ag=\"G\"><match name=\"x\"/><match cmdline=\"(unclosed\"/></process>",
       "Match rule 2 of attribute group G is ignored: invalid regular expression"},
      {"<process ag=\"G\"><match rule=\"empty\"/><match name=\"x\"/></process>",
       "Match rule 1 of attribute group G is ignored: it has none of name, cmdline and user"},
      {"<app_ping_list ag=\"G\"/>", "has no match rule"},
      {"<process_list ag=\"G\"><match name=\"x\"/></process_list>", "is ignored: a process list"},
      {"<process_list ag=\"G\" sort=\"Colour\"/>", "sorts by Colour, which is no process value"},
      {"<process ag=\"G\" rows=\"each\"><match name=\"x\"/></process>", "rows=\"each\""},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.element);
    DefinitionCheck check = load({"PID"}, c.element);
    ASSERT_EQ(check.warnings().size(), 1U);
    EXPECT_NE(check.warnings()[0].message.find(c.warning), std::string::npos)
        << check.warnings()[0].message;
    TearDown();
  }
  DefinitionCheck unknown = load({"PID", "Colour"}, "<process ag=\"G\"><match name=\"x\"/></process>");
  ASSERT_EQ(unknown.warnings().size(), 1U);
  EXPECT_NE(unknown.warnings()[0].message.find("Attribute Colour of attribute group G is no process"),
            std::string::npos);
}

TEST_F(ProcessQueryClassTest, AttributesWithoutMetricsAreKeyedByRuleAndProcess) {
  proc_.add(FakeProcess{.pid = 5, .name = "a"});
  load({"Rule", "PID", "Name"}, "<process ag=\"G\"><match rule=\"r\" name=\"a\"/></process>");
  collect();
  std::vector<std::string> names;
  provider_->visitRows([&](const ResultInstance& row) { names.emplace_back(row.getInstanceName()); });
  EXPECT_EQ(names, (std::vector<std::string>{"r|5"}));
}

}  // namespace
