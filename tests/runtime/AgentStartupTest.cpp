#include "runtime/AgentStartup.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "framework/Configuration.h"
#include "provider/UAClientClassList.h"
#include "runtime/ActionCallback.h"
#include "runtime/AgentGlobals.h"
#include "runtime/AgentMain.h"
#include "runtime/InstanceName.h"
#include "runtime/PerfObjectStatus.h"
#include "scheduling/RefreshThread.h"
#include "scheduling/ThreadPool.h"
#include "sources/command/CommandWithTimeout.h"
#include "subnode/SubnodeManager.h"
#include "support/FrameworkDouble.h"
#include "support/TestConfiguration.h"

namespace {

using XRV::testing::FrameworkDouble;
using XRV::testing::TestQueryClass;

// argv for the rules under test: owned strings, a NUL-terminated array of pointers.
class CommandLine {
 public:
  explicit CommandLine(std::vector<std::string> words) : words_(std::move(words)) {
    for (std::string& word : words_) {
      pointers_.push_back(word.data());
    }
    pointers_.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(words_.size()); }
  char** argv() { return pointers_.data(); }

 private:
  std::vector<std::string> words_;
  std::vector<char*> pointers_;
};

// An agent definition in a file named by AGENT_REF_FILE while it lives.
class DefinitionFile {
 public:
  explicit DefinitionFile(const std::string& text) {
    char path[] = "/tmp/xrv-startup-XXXXXX";
    int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    close(fd);
    path_ = path;
    std::ofstream(path_) << text;
    setConfigurationProperty("AGENT_REF_FILE", path_.c_str());
  }
  ~DefinitionFile() { unlink(path_.c_str()); }

 private:
  std::string path_;
};

const char kApplication[] =
    R"(<appl name="XRV" nodeType="XR" affinity="%XRV.XRV" version="01.00.00" )"
    R"(service="xrvagent" internalAgentVersion="1"/>)";

class AgentStartupTest : public ::testing::Test {
 protected:
  void TearDown() override {
    fwTerminate();
    resetDefinitionState();
    resetConfigurationForTesting();
    setPerfObjectStatusHook(nullptr);
    instanceName.clear();
    unsetenv("XRV_AGENT_MSN");
  }

  // A provider of `type` for a group with one numeric attribute, in queryClassList().
  TestQueryClass* addProvider(const char* group, int type = UA_SCRIPT,
                              const std::string& agAttributes = "") {
    if (findAttributeGroupMeta(group) == nullptr) {
      XRV::testing::defineGroup(group, R"(<attr name="V" type="0" size="4"/>)", agAttributes);
    }
    auto* provider = new TestQueryClass(group, {{"V"}}, type);
    queryClassList().addClientClass(provider);
    return provider;
  }

  FrameworkDouble framework_{"detail"};
};

TEST_F(AgentStartupTest, InstanceNameRules) {
  struct Case {
    const char* why;
    const char* environment;  // XRV_INSTANCE_NAME, "": unset
    const char* host;         // MVOLA_HOSTNAME, "": unset
    const char* commandLine;  // words separated by blanks
    bool found;
    const char* expected;
  };
  const Case cases[] = {
      {"the environment wins over the argument", "fromenv", "", "xrv-agent a_b_c", true, "fromenv"},
      {"NAME TEST", "", "", "xrv-agent inst9 TEST", true, "inst9"},
      {"host prefix and separator skipped", "", "myhost", "xrv-agent myhost_inst1", true, "inst1"},
      {"the host rule keeps later underscores", "", "myhost", "xrv-agent myhost-db_2", true,
       "db_2"},
      {"host name alone is too short and has no _", "", "myhost", "xrv-agent myhost", false, ""},
      {"host name and separator, nothing after", "", "myhost", "xrv-agent myhost-", false, ""},
      {"another host: after the last _", "", "otherhost", "xrv-agent myhost_inst1", true, "inst1"},
      {"no host: after the last _", "", "", "xrv-agent a_b_c", true, "c"},
      {"no separator", "", "", "xrv-agent abc", false, ""},
      {"program name, case kept", "", "", "/opt/bin/Agent_Foo.bin", true, "Foo"},
      {"program name without extension", "", "", "xxAGENT_Bar", true, "Bar"},
      {"only the last path component counts", "", "", "/opt/agent_x/bin/xrv-agent", true, ""},
      {"two arguments without TEST", "", "", "xrv-agent a_b OTHER", true, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    resetConfigurationForTesting();
    if (*c.environment != '\0') {
      setConfigurationProperty("XRV_INSTANCE_NAME", c.environment);
    }
    if (*c.host != '\0') {
      setConfigurationProperty("MVOLA_HOSTNAME", c.host);
    }
    std::vector<std::string> words;
    std::istringstream split(c.commandLine);
    for (std::string word; split >> word;) {
      words.push_back(word);
    }
    CommandLine line(words);
    XRV::String name("stale");
    EXPECT_EQ(findInstanceName(line.argc(), line.argv(), &name), c.found);
    EXPECT_STREQ(name.c_str(), c.expected);
  }
}

TEST_F(AgentStartupTest, PreInitReadsTheDefinitionAndCreatesTheStatusProviders) {
  DefinitionFile definition(std::string("<agent>") + kApplication + R"(
    <metadata>
      <ag name="XRV_Performance_Object_Status" table="XRVPOS2">
        <attr name="Query_Name" type="2" size="64"/>
      </ag>
      <ag name="Echo" table="XRVECHO"><attr name="Word" type="2" size="16"/></ag>
      <ag name="Performance_Object_Status" table="XRVPOBJ">
        <attr name="Query_Name" type="2" size="64"/>
        <attr name="Object_Status" type="0" size="4"/>
        <attr name="Error_Code_Name" type="1" size="48"/>
      </ag>
      <ag name="Thread_Pool_Status" table="XRVTHPLST">
        <attr name="Thread_Pool_Size" type="0" size="4"/>
      </ag>
    </metadata>
    <script app="XRV" ag="Echo" command="echo hello">
      <metric name="Word" type="STRING_DATA" size="16"/>
    </script>
  </agent>)");
  CommandLine line({"xrv-agent", "myhost_inst7"});
  const AgentInformation* record = fwPreInit(line.argc(), line.argv());
  ASSERT_NE(record, nullptr);
  EXPECT_STREQ(record->applicationName, "XRV");
  EXPECT_STREQ(record->instanceName, "inst7");
  EXPECT_STREQ(record->serviceName, "xrvagent_inst7");
  EXPECT_EQ(framework_.settings().programName, "windows_dp");

  // The "_Performance_Object_Status" group got its provider while it was read, bound
  // both ways; the exact name gets one after reading, bound later by the loader.
  std::vector<std::string> groups;
  for (UAClientClass* p = queryClassList().getFirst(); p != nullptr;
       p = static_cast<UAClientClass*>(p->getNextElement())) {
    groups.emplace_back(p->getAttributeGroup());
  }
  EXPECT_EQ(groups, (std::vector<std::string>{"XRV_Performance_Object_Status", "Echo",
                                              "Performance_Object_Status"}));
  UAClientClass* early = queryClassList().getClientClass("XRV_Performance_Object_Status");
  EXPECT_NE(dynamic_cast<PerfObjectStatus*>(early), nullptr);
  EXPECT_EQ(findAttributeGroupMeta("XRV_Performance_Object_Status")->query(), early);
  EXPECT_STREQ(early->getApplicationName(), "ZQM");
  UAClientClass* exact = queryClassList().getClientClass("Performance_Object_Status");
  EXPECT_NE(dynamic_cast<PerfObjectStatus*>(exact), nullptr);
  EXPECT_EQ(findAttributeGroupMeta("Performance_Object_Status")->query(), nullptr);

  fwInit();
  ASSERT_EQ(framework_.agentLoader(), load_agents);
  EXPECT_EQ(load_agents(), 0);
  EXPECT_EQ(framework_.tableManagers().size(), 4u) << "one table server per group";
  EXPECT_EQ(findAttributeGroupMeta("Performance_Object_Status")->query(), exact);
  ASSERT_NE(queryClassList().getClientClass("Thread_Pool_Status"), nullptr);

  // A sample of the status group: one row per provider, the status as a number and
  // the error code by name.
  RequestDetail detail("XRV", "XRVPOBJ");
  ContextInfo context;
  std::vector<std::vector<std::string>> rows;
  for (const std::string& row : framework_.sample("XRVPOBJ", detail, context)) {
    rows.push_back(
        XRV::testing::decodeRow(findAttributeGroupMeta("Performance_Object_Status"), row.data()));
  }
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[0],
            (std::vector<std::string>{"Primary:testhost:XRV", "XRV_Performance_Object_Status", "0",
                                      "OBJECT_ACTIVE"}));
  EXPECT_EQ(rows[1][1], "Echo");
  EXPECT_EQ(rows[3][1], "Thread_Pool_Status");
}

TEST_F(AgentStartupTest, AnUnreadableDefinitionIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const char* definitions[] = {nullptr, "<agent><metadata><ag name=\"A\" table=\"T\"></metadata>"};
  for (const char* text : definitions) {
    SCOPED_TRACE(text == nullptr ? "no AGENT_REF_FILE" : text);
    std::unique_ptr<DefinitionFile> file;
    if (text != nullptr) {
      file = std::make_unique<DefinitionFile>(text);
    }
    CommandLine line({"xrv-agent"});
    // Before the signal handlers exist the fatal exit's SIGTERM ends the process.
    EXPECT_EXIT(fwPreInit(line.argc(), line.argv()), ::testing::KilledBySignal(SIGTERM),
                "Fatal Error \\(-1\\) Detected\\. Exiting");
  }
}

TEST_F(AgentStartupTest, AffinityRules) {
  struct Case {
    const char* affinity;
    const char* internalVersion;
    const char* expectedAffinity;
    int expectedVersion;  // -1: fwSetAffinityVersion not called
  };
  const Case cases[] = {
      {"%XRV.XRV", "12", "AFF_V12", -1},   {"&XRV.XRV", "1", "AFF_V1", -1},
      {"%XRV.XRV", "13", "%XRV.XRV", 13},  {"%XRV.XRV", "0", "%XRV.XRV", 0},
      {"%XRV.XRV", "junk", "%XRV.XRV", 0}, {"XRVSTATIC", "07", "07", -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.affinity) + " version " + c.internalVersion);
    FrameworkDouble framework("detail");
    ApplicationSettings& settings = applicationSettings();
    settings.nodeType.assign("XR");
    settings.affinity.assign(c.affinity);
    settings.internalAgentVersion.assign(c.internalVersion);
    fwInit();
    EXPECT_EQ(framework.settings().affinity, c.expectedAffinity);
    EXPECT_EQ(framework.settings().nodeType, "XR");
    EXPECT_EQ(framework.settings().productVersion, "XR");
    bool numeric = framework.trace().containsText(
        "Using Dynamic Affinity version mechanism for > 12 - version used: ");
    EXPECT_EQ(numeric, c.expectedVersion >= 0);
    if (c.expectedVersion >= 0) {
      EXPECT_EQ(framework.settings().affinityVersion, c.expectedVersion);
    }
  }
}

TEST_F(AgentStartupTest, ActionCallbackSwitch) {
  struct Case {
    const char* value;  // CDP_DP_REGISTER_ACTION_CALLBACK, null: unset
    bool registered;
  };
  const Case cases[] = {{nullptr, true}, {"yes", true}, {"0", true},  {"Y", true},
                        {"no", false},   {"No", false}, {"N", false}, {"nope", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value == nullptr ? "unset" : c.value);
    resetConfigurationForTesting();
    if (c.value != nullptr) {
      setConfigurationProperty("CDP_DP_REGISTER_ACTION_CALLBACK", c.value);
    }
    FrameworkDouble framework("detail");
    fwInit();
    EXPECT_EQ(framework.settings().commandNames,
              c.registered ? std::vector<std::string>{"*"} : std::vector<std::string>{});
    if (c.registered) {
      // Without an action library nothing runs, and the sender is told so.
      EXPECT_EQ(framework.invokeCommand("Restart", "Restart web01"), kActionNotRun);
    }
  }
}

TEST_F(AgentStartupTest, InitStoresTheOriginNode) {
  framework_.setOriginNode("Primary:box7:XRV");
  fwInit();
  XRV::testing::OwnedText property(getConfigurationProperty("XRV_AGENT_MSN"));
  ASSERT_NE(property, nullptr);
  EXPECT_STREQ(property.get(), "Primary:box7:XRV");
  EXPECT_STREQ(getenv("XRV_AGENT_MSN"), "Primary:box7:XRV");
}

TEST_F(AgentStartupTest, PoolSizing) {
  struct Case {
    const char* why;
    const char* poolSize;         // CDP_DP_THREAD_POOL_SIZE
    const char* refreshInterval;  // CDP_DP_REFRESH_INTERVAL
    int logMonitors;
    int expectedPool;  // 0: none
    int expectedEventInterval;
    bool expectRefreshThread;
  };
  const Case cases[] = {
      {"size set", "3", nullptr, 0, 3, 0, false},
      {"unset, two log monitors", nullptr, nullptr, 2, 2, 60, true},
      {"unset, two log monitors, default interval set", nullptr, "0", 2, 2, 0, true},
      {"unset, none", nullptr, nullptr, 0, 0, 0, false},
      {"size 0 set", "0", "30", 0, 0, 0, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    if (c.poolSize != nullptr) {
      setConfigurationProperty("CDP_DP_THREAD_POOL_SIZE", c.poolSize);
    }
    if (c.refreshInterval != nullptr) {
      setConfigurationProperty("CDP_DP_REFRESH_INTERVAL", c.refreshInterval);
    }
    setConfigurationProperty("CDP_DP_IMPATIENT_COLLECTOR_TIMEOUT", "5");
    std::vector<TestQueryClass*> monitors;
    for (int i = 0; i < c.logMonitors; ++i) {
      monitors.push_back(addProvider(i == 0 ? "Log_A" : "Log_B", UA_LOG_MONITOR));
    }
    addProvider("Script", UA_SCRIPT);

    load_agents();
    if (c.expectedPool == 0) {
      EXPECT_EQ(threadPool, nullptr);
      EXPECT_EQ(impatientCollectorTimeout, 0) << "no impatience without a pool";
    } else {
      ASSERT_NE(threadPool, nullptr);
      EXPECT_EQ(threadPool->getSize(), c.expectedPool);
      EXPECT_EQ(impatientCollectorTimeout, 5);
    }
    for (TestQueryClass* monitor : monitors) {
      EXPECT_EQ(monitor->getRefreshInterval(), c.expectedEventInterval);
    }
    EXPECT_EQ(refreshThread != nullptr, c.expectRefreshThread);
    fwTerminate();
    EXPECT_EQ(threadPool, nullptr);
    EXPECT_EQ(refreshThread, nullptr);
    resetDefinitionState();
    resetConfigurationForTesting();
  }
}

TEST_F(AgentStartupTest, CommandSettings) {
  struct Case {
    const char* truncate;    // CDP_DP_TRUNCATE_STDERR_DATA
    const char* retryDelay;  // CDP_DP_COMMAND_RETRY_DELAY
    int expectedLimit;
    int expectedDelay;
  };
  const Case cases[] = {{nullptr, nullptr, -1, 1000},
                        {"0", "250", -1, 250},
                        {"-5", nullptr, -1, 1000},
                        {"4096", "0", 4096, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.truncate == nullptr ? "unset" : c.truncate);
    resetConfigurationForTesting();
    if (c.truncate != nullptr) {
      setConfigurationProperty("CDP_DP_TRUNCATE_STDERR_DATA", c.truncate);
    }
    if (c.retryDelay != nullptr) {
      setConfigurationProperty("CDP_DP_COMMAND_RETRY_DELAY", c.retryDelay);
    }
    load_agents();
    EXPECT_EQ(stdErrSizeLimit, c.expectedLimit);
    EXPECT_EQ(commandRetryDelay, c.expectedDelay);
  }
  stdErrSizeLimit = -1;
  commandRetryDelay = 1000;
}

TEST_F(AgentStartupTest, LoaderBindsProvidersToTheirGroups) {
  TestQueryClass* first = addProvider("Disk");
  TestQueryClass* second = addProvider("Disk");
  TestQueryClass* asking = addProvider("Asking", UA_SCRIPT, "");
  findAttributeGroupMeta("Asking")->setRequestInfo("_FILTER");
  TestQueryClass* events = addProvider("Events", UA_LOG_MONITOR, R"(pure="true")");
  TestQueryClass* moreEvents = addProvider("Events", UA_LOG_MONITOR);
  auto* orphan = new TestQueryClass("Orphan", {{"V"}});
  queryClassList().addClientClass(orphan);

  EXPECT_EQ(load_agents(), 0);
  AttributeGroupMeta* disk = findAttributeGroupMeta("Disk");
  EXPECT_EQ(disk->query(), first) << "the first provider of a group wins";
  EXPECT_EQ(first->getAttributeGroupMeta(), disk);
  EXPECT_EQ(second->getAttributeGroupMeta(), nullptr);
  EXPECT_FALSE(asking->isThreadPoolEligible());
  EXPECT_TRUE(events->isPureEventBased() && moreEvents->isPureEventBased());
  EXPECT_FALSE(first->isPureEventBased());
  EXPECT_TRUE(first->isThreadPoolEligible());
  // One table server per group, none for the orphan.
  std::vector<std::string> tables;
  for (TableManager* manager : framework_.tableManagers()) {
    tables.emplace_back(manager->GetTableName());
  }
  std::sort(tables.begin(), tables.end());
  EXPECT_EQ(tables, (std::vector<std::string>{"TAsking", "TDisk", "TEvents"}));
  EXPECT_EQ(disk->getTableManager(), framework_.findTableManager("TDisk"));

  EXPECT_EQ(framework_.settings().affinityFeatures,
            (std::vector<std::string>{"AFF_FEAT_DM_PARITY", "AFF_FEAT_AGENT_MGMT",
                                      "AFF_FEAT_INTERNATIONALIZATION"}));
  ASSERT_EQ(framework_.auditRecords().size(), 1u);
  const FrameworkDouble::Audit audit = framework_.auditRecords()[0];
  EXPECT_EQ(audit.text, "The agent has successfully completed startup processing.");
  EXPECT_EQ(audit.category, "Start-up");
  EXPECT_EQ(audit.action, "Start");
  EXPECT_EQ(audit.messageId, "XRV9000I");
}

// The log engine's status groups exist only beside a log monitor group; the action
// status group is never served by this build.
TEST_F(AgentStartupTest, LogEngineStatusGroupsNeedALogMonitor) {
  for (const bool withLogMonitor : {false, true}) {
    SCOPED_TRACE(withLogMonitor ? "with a log monitor" : "without");
    for (const char* group :
         {"Log_File_Status", "Log_File_RegEx_Statistics", "Take_Action_Status"}) {
      XRV::testing::defineGroup(group, R"(<attr name="File_Name" type="2" size="32"/>)");
    }
    addProvider("Script", UA_SCRIPT);
    if (withLogMonitor) {
      addProvider("Log", UA_LOG_MONITOR);
    }
    load_agents();
    for (const char* group : {"Log_File_Status", "Log_File_RegEx_Statistics"}) {
      UAClientClass* provider = queryClassList().getClientClass(group);
      EXPECT_EQ(provider != nullptr, withLogMonitor) << group;
      if (provider != nullptr) {
        EXPECT_EQ(provider->getObjectType(), UA_STATUS);
        EXPECT_EQ(provider->getAttributeGroupMeta(), findAttributeGroupMeta(group));
      }
    }
    EXPECT_EQ(queryClassList().getClientClass("Take_Action_Status"), nullptr);
    EXPECT_TRUE(framework_.trace().hasText(
        "ERROR: attribute group Take_Action_Status is not served by this build of the agent"));
    fwTerminate();
    resetDefinitionState();
    framework_.trace().clear();
  }
}

// A framework that writes down, in order, what the agent does to it while it ends.
class RecordingFramework : public FrameworkDouble {
 public:
  RecordingFramework() : FrameworkDouble("error") {}
  void shutdown(int mode) override {
    log.push_back("shutdown " + std::to_string(mode));
    FrameworkDouble::shutdown(mode);
  }
  int auditRecord(const FwAuditRecord& record) override {
    log.push_back(std::string("audit ") + record.messageId);
    return FrameworkDouble::auditRecord(record);
  }
  void tableManagerDestroyed(TableManager* manager) override {
    log.push_back(std::string("table ") + manager->GetTableName() + " gone, providers left " +
                  std::to_string(queryClassList().getCount()));
    FrameworkDouble::tableManagerDestroyed(manager);
  }
  std::vector<std::string> log;
};

class LoggedProvider : public TestQueryClass {
 public:
  LoggedProvider(const char* group, std::vector<std::string>* log)
      : TestQueryClass(group, {{"V"}}), log_(log) {}
  ~LoggedProvider() override {
    log_->push_back(std::string("provider ") + getAttributeGroup() + " gone, refresh thread " +
                    (refreshThread == nullptr ? "stopped" : "running") + ", group " +
                    (findAttributeGroupMeta(getAttributeGroup()) ? "kept" : "gone"));
  }

 private:
  std::vector<std::string>* log_;
};

TEST_F(AgentStartupTest, TerminateTearsDownInOrder) {
  RecordingFramework framework;
  setConfigurationProperty("CDP_DP_REFRESH_INTERVAL", "60");
  setConfigurationProperty("CDP_DP_THREAD_POOL_SIZE", "2");
  for (const char* group : {"First", "Second"}) {
    XRV::testing::defineGroup(group, R"(<attr name="V" type="0" size="4"/>)");
    queryClassList().addClientClass(new LoggedProvider(group, &framework.log));
  }
  load_agents();
  ASSERT_NE(refreshThread, nullptr);
  ASSERT_NE(threadPool, nullptr);
  framework.log.clear();

  fwTerminate();
  EXPECT_EQ(framework.log, (std::vector<std::string>{
                               "audit XRV9001I",
                               "shutdown 1",
                               "provider First gone, refresh thread stopped, group kept",
                               "provider Second gone, refresh thread stopped, group kept",
                               "table TFirst gone, providers left 0",
                               "table TSecond gone, providers left 0",
                           }));
  EXPECT_EQ(queryClassList().getCount(), 0);
  EXPECT_EQ(metaMap().getCount(), 0);
  EXPECT_EQ(threadPool, nullptr);
  EXPECT_TRUE(framework.tableManagers().empty());
}

// Counts the calls that ask it to stop what it started.
class ExternalSource : public TestQueryClass {
 public:
  using TestQueryClass::TestQueryClass;
  void shutdownExternalProcesses() override { ++stops; }
  int stops = 0;
};

TEST_F(AgentStartupTest, ShutdownExternalProcessesReachesSubnodeCopies) {
  SubnodeManager manager(SubnodeManagerSettings{});
  SubnodeManager* previous = setSubnodeManagerForTesting(&manager);
  XRV::testing::defineGroup("Web", R"(<attr name="V" type="0" size="4"/>)",
                            R"(subnode_type="WEB")");
  XRV::testing::defineGroup("Plain", R"(<attr name="V" type="0" size="4"/>)");
  auto* webTemplate = new ExternalSource("Web", {{"V"}});
  webTemplate->setAttributeGroupMeta(findAttributeGroupMeta("Web"));
  auto* plain = new ExternalSource("Plain", {{"V"}});
  plain->setAttributeGroupMeta(findAttributeGroupMeta("Plain"));
  queryClassList().addClientClass(webTemplate);
  queryClassList().addClientClass(plain);
  ExternalSource copyA("Web", {{"V"}});
  ExternalSource copyB("Web", {{"V"}});
  manager.acquireLock();
  manager.addAGToQueriesEntry("Web", &copyA);
  manager.addAGToQueriesEntry("Web", &copyB);
  manager.releaseLock();

  shutdownExternalProcesses();
  EXPECT_EQ(webTemplate->stops, 0) << "the template stands for its copies";
  EXPECT_EQ(copyA.stops, 1);
  EXPECT_EQ(copyB.stops, 1);
  EXPECT_EQ(plain->stops, 1);

  manager.acquireLock();
  manager.removeAGToQueriesEntry("Web", &copyA);
  manager.removeAGToQueriesEntry("Web", &copyB);
  manager.releaseLock();
  setSubnodeManagerForTesting(previous);
}

TEST_F(AgentStartupTest, MainEndsWithAnErrorWithoutAnInstance) {
  CommandLine line({"xrv-agent", "nounderscore"});
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(agentMain(line.argc(), line.argv()), 1);
  std::string error = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(error.find("no instance name in the argument \"nounderscore\""), std::string::npos)
      << error;
  EXPECT_NE(error.find("XRV_INSTANCE_NAME"), std::string::npos) << error;
}

// The whole program in a child process: it becomes a process-group leader and moves
// to CDP_BINPATH, which the test process itself must not.
TEST_F(AgentStartupTest, MainRunsTheFrameworkAndReturnsZero) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  DefinitionFile definition(std::string("<agent>") + kApplication + R"(
    <metadata><ag name="Thread_Pool_Status" table="XRVTHPLST">
      <attr name="Thread_Pool_Size" type="0" size="4"/></ag></metadata></agent>)");
  setConfigurationProperty("CDP_BINPATH", "/tmp");
  auto runAgent = [this] {
    CommandLine line({"xrv-agent", "TEST", "TEST"});
    int status = agentMain(line.argc(), line.argv());
    char directory[256] = "";
    fprintf(stderr, "status %d, cwd %s, leader %d, loaded %d, tables %zu\n", status,
            getcwd(directory, sizeof directory), getpgid(0) == getpid(),
            queryClassList().getClientClass("Thread_Pool_Status") != nullptr,
            framework_.tableManagers().size());
    fflush(stderr);
    _exit(status);
  };
  EXPECT_EXIT(runAgent(), ::testing::ExitedWithCode(0),
              "status 0, cwd /tmp, leader 1, loaded 1, tables 1\n");
}

}  // namespace
