// Log monitor groups over the real log engine and real files: events, samples,
// states, resets and subnode copies.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "LogMonitorTestSupport.h"
#include "foundation/ThreadPoolJob.h"
#include "logmon/LogMonitorCallbacks.h"
#include "support/TestConfiguration.h"

namespace {

using XRV::testing::logMonitorDefinition;
using XRV::testing::LogMonitorTest;
using XRV::testing::Rows;
using XRV::testing::waitUntil;

const char kAttrs[] =
    R"(<attr name="Severity" type="2" size="16"/><attr name="Message" type="2" size="64"/>)"
    R"(<attr name="Log_File" type="2" size="128"/><attr name="Log_Kind" type="2" size="32"/>)";
const char kMetrics[] =
    R"(<metric name="Severity" type="STRING_DATA" visible="true" key="true"/>)"
    R"(<metric name="Message" type="STRING_DATA" visible="true"/>)"
    R"(<metric name="Log_File" type="STRING_DATA" visible="true"/><metric name="Log_Kind" type="STRING_DATA" visible="true"/>)";
const char kMonitor[] =
    R"(app="XRV" ag="Errors" sourceMapAttr="Log_File" sourceDescMapAttr="Log_Kind")";

// An MDL text of table Errors (kind `kind`) over `sources` (one //SOURCE FILE line each).
std::string mdl(const char* kind, const std::vector<std::string>& sources) {
  std::string text = std::string("//APPL XRV\n//NAME Errors ") + kind + "\n";
  for (const std::string& source : sources) {
    text += "//SOURCE FILE " + source + "\n";
  }
  return text + "//ATTRIBUTES ';'\nSeverity Z 16\nMessage Z 64\n";
}

class LogMonitorEngineTest : public LogMonitorTest {
 protected:
  void SetUp() override {
    LogMonitorTest::SetUp();
    setConfigurationProperty("LOG_DIR", directory_.path().c_str());
  }

  // The group "Errors" of `kind` over `sources`, started.
  LogMonitorQueryClass* startGroup(const char* agAttributes, const char* kind,
                                   const std::vector<std::string>& sources) {
    LogMonitorQueryClass* provider = load(logMonitorDefinition(
        "Errors", agAttributes, kAttrs, kMonitor, kMetrics, mdl(kind, sources)));
    if (provider != nullptr) {
      provider->start();
    }
    return provider;
  }
};

TEST_F(LogMonitorEngineTest, PureEventGroupSendsEveryMatchedLineAsAnEvent) {
  struct Case {
    const char* why;
    const char* agAttributes;
    const char* basename;  // CDP_LOGNAME_IS_BASENAME
    std::vector<std::string> lines;
    Rows expected;  // the file's column as "F": the file's path
    int cached;     // rows a request then gets from the pure-event cache
  };
  const Case cases[] = {
      {"every line",
       R"(pure="true")",
       nullptr,
       {"ERROR;disk full", "WARN;slow", "ERROR;again"},
       {{"ERROR", "disk full", "F", "app log"},
        {"WARN", "slow", "F", "app log"},
        {"ERROR", "again", "F", "app log"}},
       3},
      {"first of each severity",
       R"(pure="true" event_flood_threshold="send_first" event_summary_interval="600")",
       nullptr,
       {"ERROR;disk full", "ERROR;again", "WARN;slow"},
       {{"ERROR", "disk full", "F", "app log"}, {"WARN", "slow", "F", "app log"}},
       2},
      {"base name", R"(pure="true")", "Y", {"INFO;up"}, {{"INFO", "up", "app.log", "app log"}}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    if (c.basename != nullptr) {
      setConfigurationProperty("CDP_LOGNAME_IS_BASENAME", c.basename);
    }
    directory_.append("app.log", "before the start;not read\n");
    LogMonitorQueryClass* provider =
        startGroup(c.agAttributes, "E", {"'${LOG_DIR}/app.log' TAIL DESCRIPTION='app log'"});
    ASSERT_NE(provider, nullptr);
    const size_t before = events("Errors").size();
    EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_ACTIVE);
    EXPECT_EQ(provider->getPerfErrorCode(), OBJECT_ACTIVE);
    EXPECT_EQ(provider->getTableName(), "Errors");
    for (const std::string& line : c.lines) {
      directory_.append("app.log", line + "\n");
    }
    // The lines of a file arrive in order: once this one is there, all are.
    directory_.append("app.log", "DONE;end\n");
    ASSERT_TRUE(waitUntil([&] {
      const Rows sent = events("Errors", before);
      return !sent.empty() && sent.back()[0] == "DONE";
    }));
    Rows expected = c.expected;
    for (auto& row : expected) {
      row[2] = row[2] == "F" ? directory_.file("app.log") : row[2];
    }
    Rows sent = events("Errors", before);
    sent.pop_back();
    EXPECT_EQ(sent, expected);
    EXPECT_EQ(collect(*provider).size(), static_cast<size_t>(c.cached + 1));
    providers_.clear();
    resetDefinitionState();
    std::filesystem::remove(directory_.file("app.log"));
    tables_.clear();
    resetConfigurationForTesting();
    setConfigurationProperty("LOG_DIR", directory_.path().c_str());
  }
}

TEST_F(LogMonitorEngineTest, SampledGroupKeepsTheLastCompleteSamplePerFile) {
  directory_.append("a.log", "");
  directory_.append("b.log", "");
  LogMonitorQueryClass* provider =
      startGroup("", "S", {"'${LOG_DIR}/a.log' DESCRIPTION='a'", "'${LOG_DIR}/b.log'"});
  ASSERT_NE(provider, nullptr);
  // Written once the start is over: the clock stands still from here on.
  directory_.append("a.log", "A;1\nA;2\n");
  directory_.append("b.log", "B;1\n");
  const auto messages = [&] {
    std::vector<std::string> out;
    for (const auto& row : collect(*provider)) {
      out.push_back(row[0] + row[1]);
    }
    std::sort(out.begin(), out.end());
    return out;
  };
  using Texts = std::vector<std::string>;
  ASSERT_TRUE(waitUntil([&] { return messages() == Texts{"A1", "A2", "B1"}; }));

  // Within 2 s of the last record the same sample goes on filling.
  directory_.append("a.log", "A;3\n");
  ASSERT_TRUE(waitUntil([&] { return messages() == Texts{"A1", "A2", "A3", "B1"}; }));

  // Later records start a new sample of their file only.
  clock_.advance(LogMonitorQueryClass::kSampleCompleteMillis);
  directory_.append("a.log", "A;4\n");
  ASSERT_TRUE(waitUntil([&] { return messages() == Texts{"A4", "B1"}; }));
  EXPECT_TRUE(framework_.trace().hasText("source " + directory_.file("a.log") +
                                         " being updated in active data."));

  // A file that goes away takes its rows with it.
  std::filesystem::remove(directory_.file("b.log"));
  ASSERT_TRUE(waitUntil([&] { return messages() == Texts{"A4"}; }));
  EXPECT_EQ(provider->getPerfErrorCode(), FILE_OFFLINE);
  EXPECT_TRUE(framework_.trace().hasText("clearing Log result set for offline sampled log " +
                                         directory_.file("b.log")));
}

// Records without their end-of-sample record count once their last one is 2 s old.
TEST_F(LogMonitorEngineTest, SampleWithoutItsEndIsShownOnceTwoSecondsOld) {
  LogMonitorQueryClass* provider = load(logMonitorDefinition(
      "Errors", "", kAttrs, kMonitor, kMetrics, mdl("S", {"'${LOG_DIR}/a.log'"})));
  ASSERT_NE(provider, nullptr);
  const XPWP_NameValue record[] = {{"Severity", "E"}, {"Message", "m"}};
  provider->setInstanceData(record, 2, "/var/log/x.log", "");
  EXPECT_TRUE(collect(*provider).empty()) << "a sample still filling is not shown";
  clock_.advance(LogMonitorQueryClass::kSampleCompleteMillis - 1);
  EXPECT_TRUE(collect(*provider).empty());
  clock_.advance(1);
  EXPECT_EQ(collect(*provider), (Rows{{"E", "m", "/var/log/x.log", ""}}));
  // The end of a sample shows it at once.
  provider->setInstanceData(record, 2, "/var/log/y.log", "y");
  provider->setInstanceData(nullptr, 0, "/var/log/y.log", "y");
  EXPECT_EQ(collect(*provider).size(), 2u);
  EXPECT_TRUE(
      framework_.trace().hasText("deleting blank record /var/log/y.log--assume end of sample"));
}

TEST_F(LogMonitorEngineTest, StatesReportedByTheEngineSetStatusAndErrorCode) {
  directory_.append("app.log", "");
  LogMonitorQueryClass* provider = startGroup(R"(pure="true")", "E", {"'${LOG_DIR}/app.log'"});
  ASSERT_NE(provider, nullptr);
  const struct {
    const char* source;
    int status;
    int expectedStatus;
    int expectedCode;
  } cases[] = {
      {"/x.log", XPWP_SOURCE_OFFLINE, PERF_OBJECT_INACTIVE, FILE_OFFLINE},
      {"/x.log", XPWP_SOURCE_FOUND, PERF_OBJECT_ACTIVE, OBJECT_ACTIVE},
      {nullptr, XPWP_TABLE_FULLY_OFFLINE, PERF_OBJECT_INACTIVE, FILE_OFFLINE},
      {nullptr, XPWP_TABLE_ACTIVE, PERF_OBJECT_ACTIVE, OBJECT_ACTIVE},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    statusCallbackFunc(nullptr, "Errors", c.source, c.status);
    EXPECT_EQ(provider->getPerfObjectStatus(), c.expectedStatus);
    EXPECT_EQ(provider->getPerfErrorCode(), c.expectedCode);
  }
  EXPECT_TRUE(framework_.trace().hasText(
      "WARNING: table Errors is fully offline when not expecting reset"));
  EXPECT_FALSE(provider->isResetPending());
  statusCallbackFunc(nullptr, "Nobody", nullptr, XPWP_TABLE_ACTIVE);
  EXPECT_TRUE(framework_.trace().hasText(
      "Didn't find a LogMonitorQueryClass for attribute group <Nobody>. Ignoring status update."));
  const XPWP_NameValue pair = {"Severity", "E"};
  dataCallbackFunc(nullptr, "Nobody", "/x", "", &pair, 1);
  EXPECT_TRUE(framework_.trace().hasText(
      "Didn't find a LogMonitorQueryClass for attribute group <Nobody>. Ignoring data."));
}

TEST_F(LogMonitorEngineTest, MissingFileIsOfflineUntilItAppears) {
  LogMonitorQueryClass* provider =
      startGroup(R"(pure="true")", "E", {"'${LOG_DIR}/late.log' TAIL FileExistTimeToWait=1"});
  ASSERT_NE(provider, nullptr);
  // Active once loaded; the engine's next look for the file says it is still missing.
  ASSERT_TRUE(waitUntil([&] { return provider->getPerfErrorCode() == FILE_OFFLINE; }));
  EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_INACTIVE);
  directory_.append("late.log", "");
  ASSERT_TRUE(waitUntil([&] { return provider->getPerfErrorCode() == OBJECT_ACTIVE; }));
  EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_ACTIVE);
}

// Jobs handed to the pool, run when the test says.
std::vector<IThreadPoolJob*>& queuedJobs() {
  static std::vector<IThreadPoolJob*> jobs;
  return jobs;
}

TEST_F(LogMonitorEngineTest, ResetFlushesWaitsForOfflineAndLoadsAgain) {
  for (const bool pool : {false, true}) {
    SCOPED_TRACE(pool ? "on the pool" : "on a thread of its own");
    directory_.append("app.log", "");
    LogMonitorQueryClass* provider =
        startGroup(R"(pure="true")", "E", {"'${LOG_DIR}/app.log' TAIL"});
    ASSERT_NE(provider, nullptr);
    ASSERT_TRUE(provider->isMdlLoaded());
    const size_t before = events("Errors").size();
    static std::mutex jobsLock;
    if (pool) {
      setThreadPoolJobSink([](IThreadPoolJob* job) {
        std::lock_guard<std::mutex> lock(jobsLock);
        queuedJobs().push_back(job);
        return true;
      });
    }
    framework_.trace().clear();
    provider->reset();
    EXPECT_TRUE(framework_.trace().hasText("reset() flushing xpwp table Errors"));
    if (pool) {
      ASSERT_TRUE(waitUntil([&] {
        std::lock_guard<std::mutex> lock(jobsLock);
        return queuedJobs().size() == 1;
      }));
      EXPECT_TRUE(provider->isResetPending());
      provider->collectData(nullptr);
      EXPECT_TRUE(framework_.trace().hasText(
          "collectData() called while a reset is still pending completion for Errors, doing "
          "nothing"));
      std::unique_ptr<IThreadPoolJob> job(queuedJobs().front());
      queuedJobs().clear();
      job->execute();
      setThreadPoolJobSink(nullptr);
    }
    ASSERT_TRUE(waitUntil([&] { return !provider->isResetPending() && provider->isMdlLoaded(); }));
    EXPECT_TRUE(framework_.trace().hasText(
        "table Errors is now fully offline, submitting reset completion to thread pool"));
    EXPECT_TRUE(framework_.trace().hasText("xpw initialization complete"));
    EXPECT_EQ(provider->getPerfErrorCode(), OBJECT_ACTIVE);
    directory_.append("app.log", "ERROR;after the reset\n");
    ASSERT_TRUE(waitUntil([&] { return events("Errors", before).size() == 1; }));
    EXPECT_EQ(events("Errors", before)[0][1], "after the reset");
    providers_.clear();
    tables_.clear();
    resetDefinitionState();
    framework_.trace().clear();
    std::filesystem::remove(directory_.file("app.log"));
    setConfigurationProperty("LOG_DIR", directory_.path().c_str());
  }
}

// Rows assembled from pairs: each attribute takes the source, the description or the
// next pair, whose name must be its own.
TEST_F(LogMonitorEngineTest, RowsFromPairs) {
  setConfigurationProperty("ERRPT", "/usr/bin/errpt");
  struct Case {
    const char* why;
    std::vector<XPWP_NameValue> pairs;
    const char* source;
    Rows expected;
    int errorCode;
    const char* trace;
  };
  const Case cases[] = {
      {"all there",
       {{"Severity", "E"}, {"Message", "m"}},
       "/var/log/a.log",
       {{"E", "m", "/var/log/a.log", "kind"}},
       NOT_INITIALIZED,
       nullptr},
      {"null values",
       {{"Severity", nullptr}, {"Message", nullptr}},
       "/a",
       {{"", "", "/a", "kind"}},
       NOT_INITIALIZED,
       nullptr},
      {"short record",
       {{"Severity", "E"}},
       "/a",
       {{"E", "", "/a", "kind"}},
       ATTRIBUTE_COUNT_MISMATCH,
       "UA ran out of values for agent metric!  Agent name=<Message>"},
      {"other names",
       {{"Sev", "E"}, {"Message", "m"}},
       "/a",
       {{"E", "m", "/a", "kind"}},
       ATTRIBUTE_NAME_MISMATCH,
       "agent metric name and UA metric name do no match!  Agent name=<Severity>, UA name=<Sev>"},
      {"errpt pipe",
       {{"Severity", "E"}, {"Message", "m"}},
       "/var/adm/ras/errlog",
       {{"E", "m", "/usr/bin/errpt -a", "kind"}},
       NOT_INITIALIZED,
       "Found event from Varex errpt pipe, replacing filename with \"/usr/bin/errpt -a\""},
      {"syslog pipe",
       {{"Severity", "E"}, {"Message", "m"}},
       "/var/run/syslog.pipe",
       {{"E", "m", "SysLogD", "kind"}},
       NOT_INITIALIZED,
       "Found event from syslog pipe, replacing filename with \"SysLogD\""},
      {"remote host noted",
       {{"Severity", "E"}, {"Message", "m"}, {"RemoteHost", "h1"}},
       "/a",
       {{"E", "m", "/a", "kind"}},
       ATTRIBUTE_COUNT_MISMATCH,
       "Found RemoteHost value h1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    LogMonitorQueryClass* provider = load(logMonitorDefinition(
        "Errors", R"(pure="true")", kAttrs,
        std::string(kMonitor) + R"( errpt_command="${ERRPT} -a")", kMetrics, mdl("E", {"'/a'"})));
    ASSERT_NE(provider, nullptr);
    provider->setSyslogPipeName("/var/run/syslog");
    const size_t before = events("Errors").size();
    provider->setInstanceData(c.pairs.data(), static_cast<int>(c.pairs.size()), c.source, "kind");
    EXPECT_EQ(events("Errors", before), c.expected);
    EXPECT_EQ(provider->getPerfErrorCode(), c.errorCode);
    if (c.trace != nullptr) {
      EXPECT_TRUE(framework_.trace().hasText(c.trace)) << c.trace;
    }
    providers_.clear();
    tables_.clear();
    resetDefinitionState();
    framework_.trace().clear();
  }
}

TEST_F(LogMonitorEngineTest, EngineRecordsWithOtherNamesAreReported) {
  directory_.append("app.log", "");
  LogMonitorQueryClass* provider = load(
      logMonitorDefinition("Errors", R"(pure="true")", kAttrs, kMonitor, kMetrics,
                           "//APPL XRV\n//NAME Errors E\n//SOURCE FILE '${LOG_DIR}/app.log' TAIL\n"
                           "//ATTRIBUTES ';'\nLevel Z 16\nMessage Z 64\n"));
  ASSERT_NE(provider, nullptr);
  provider->start();
  directory_.append("app.log", "E;text\n");
  ASSERT_TRUE(waitUntil([&] { return events("Errors").size() == 1; }));
  EXPECT_EQ(provider->getPerfErrorCode(), ATTRIBUTE_NAME_MISMATCH);
}

TEST_F(LogMonitorEngineTest, SubnodeCopyRunsItsOwnTableUntilItsSubnodeGoes) {
  XRV::testing::ConfigurationFile configuration;
  ASSERT_TRUE(configuration.load("[agent]\n[subnode LSN web01]\nLOG_DIR=" + directory_.path() +
                                 "/web01\n"));
  std::filesystem::create_directory(directory_.file("web01"));
  directory_.append("web01/app.log", "");
  LogMonitorQueryClass* provider =
      load(logMonitorDefinition("Errors", R"(pure="true" subnode_type="LSN")", kAttrs, kMonitor,
                                kMetrics, mdl("E", {"'${LOG_DIR}/app.log' TAIL"})));
  ASSERT_NE(provider, nullptr);
  provider->start();
  EXPECT_TRUE(framework_.trace().hasText(
      "not starting subnode type LSN template for attribute group Errors"));
  EXPECT_EQ(provider->getPerfErrorCode(), NOT_INITIALIZED);
  EXPECT_EQ(xpwEntryPoints(), nullptr);

  auto* copy = static_cast<LogMonitorQueryClass*>(provider->subnodeCopy("web01", nullptr));
  adopt(copy);
  copy->start();
  EXPECT_EQ(copy->getTableName(), "Errors_web01");
  EXPECT_EQ(copy->getMdl().substr(0, 45), "//APPL XRV_LSN_web01\n//NAME Errors_web01 E\n//");
  EXPECT_EQ(copy->getPerfErrorCode(), OBJECT_ACTIVE);
  EXPECT_EQ(LogMonitorQueryClass::getQueryClass("Errors_web01"), copy);

  directory_.append("web01/app.log", "E;from web01\n");
  ASSERT_TRUE(waitUntil([&] { return events("Errors").size() == 1; }));
  EXPECT_EQ(events("Errors")[0][2], directory_.file("web01/app.log"));

  copy->setZombie(true);
  EXPECT_TRUE(copy->isDeactivated());
  EXPECT_TRUE(framework_.trace().hasText(
      "Parent subnode has been removed, telling UA to stop log monitoring"));
  EXPECT_EQ(LogMonitorQueryClass::getQueryClass("Errors_web01"), nullptr);
  const XPWP_NameValue record[] = {{"Severity", "E"}, {"Message", "late"}};
  copy->setInstanceData(record, 2, "/x", "");
  EXPECT_TRUE(framework_.trace().hasText(
      "This object has been de-activated (parent subnode was removed), ignoring new row"));
  EXPECT_EQ(events("Errors").size(), 1u);
}

}  // namespace
