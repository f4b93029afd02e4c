#include "sources/command/ShellQueryClass.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ScriptTestSupport.h"
#include "foundation/String.h"
#include "framework/Configuration.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "sources/command/CommandWithTimeout.h"
#include "sources/command/SshConnector.h"
#include "support/TestConfiguration.h"

namespace {

using XRV::testing::collectRows;
using XRV::testing::loadScriptProvider;
using XRV::testing::Rows;
using XRV::testing::scriptDefinition;

// Text attributes M0..M(n-1) of 32 bytes, and one metric for each with the given
// inner elements.
std::string textAttrs(size_t count) {
  std::string attrs;
  for (size_t i = 0; i < count; ++i) {
    attrs += "<attr name=\"M" + std::to_string(i) + "\" type=\"1\" size=\"32\"/>";
  }
  return attrs;
}
std::string textMetrics(const std::vector<std::string>& inner) {
  std::string metrics;
  for (size_t i = 0; i < inner.size(); ++i) {
    metrics += "<metric name=\"M" + std::to_string(i) +
               "\" type=\"STRING_DATA\" size=\"32\" visible=\"true\">" + inner[i] + "</metric>";
  }
  return metrics;
}

// The values of a parsed row as texts.
std::vector<std::string> valuesOf(const ResultInstance* row) {
  std::vector<std::string> values;
  XRV::String text;
  for (auto* value = row->getFirstMetric(); value != nullptr;
       value = static_cast<ResultMetric*>(value->getNextElement())) {
    value->toUTF8String(&text);
    values.emplace_back(text.c_str());
  }
  return values;
}

class ShellQueryClassTest : public ::testing::Test {
 protected:
  void TearDown() override { XRV::testing::resetScriptTestState(); }

  // A provider of text attributes running `command`.
  static std::unique_ptr<ShellQueryClass> textProvider(const std::string& command, size_t columns,
                                                       const std::string& extra = "") {
    return loadScriptProvider(scriptDefinition(
        textAttrs(columns), "separator=\",\" command=\"" + XRV::testing::xmlEscaped(command) + "\" " + extra,
        textMetrics(std::vector<std::string>(columns))));
  }

  // A scratch directory for commands that look at files.
  std::filesystem::path scratch() {
    if (scratch_.empty()) {
      char pattern[] = "/tmp/xrv-script-XXXXXX";
      scratch_ = mkdtemp(pattern);
    }
    return scratch_;
  }
  ~ShellQueryClassTest() override {
    if (!scratch_.empty()) {
      std::filesystem::remove_all(scratch_);
    }
  }

 private:
  std::filesystem::path scratch_;
};

// --- Cutting lines ---

TEST_F(ShellQueryClassTest, CutsLinesByEveryTokenisingMode) {
  struct Case {
    const char* name;
    std::string scriptAttributes;
    std::vector<std::string> metrics;  // inner elements of each metric
    const char* line;
    std::vector<std::string> expected;  // empty: the row is skipped
  };
  const std::string comma = "separator=\",\"";
  const std::string spaces = "separator=\" \" multipleSpaceSeparator=\"true\"";
  // clang-format off
  const Case cases[] = {
      {"separator", comma, {"", "", ""}, "a,b,c", {"a", "b", "c"}},
      {"two separators in a row give an empty value", comma, {"", "", ""}, "a,,c", {"a", "", "c"}},
      {"one trailing value may be missing", comma, {"", "", ""}, "a,b", {"a", "b", ""}},
      {"two missing values skip the row", comma, {"", "", "", ""}, "a,b", {}},
      {"runs of separators count as one", spaces, {"", ""}, "a   b", {"a", "b"}},
      {"leading separators are skipped too", spaces, {"", ""}, "   a b", {"a", "b"}},
      {"without the flag each separator counts", "separator=\" \"", {"", ""}, "a  b", {"a", ""}},
      {"fixed widths", comma, {"<delimSpecial maxChars=\"3\"/>", "<delimSpecial maxChars=\"2\"/>", ""},
       "abcdefg", {"abc", "de", "fg"}},
      {"maxChars below 1 means no fixed width",
       comma, {"<delimSpecial maxChars=\"0\"/>", ""}, "ab,c", {"ab", "c"}},
      {"begin and end delimiters",
       comma, {"<delimString begin=\"&quot;\" end=\"&quot;\"/>", ""}, "\"x,y\",z", {"x,y", "z"}},
      {"an end delimiter alone is the attribute's own separator",
       comma, {"<delimString end=\":;\"/>", ""}, "k;v,w", {"k", "v"}},
      {"TAB stands for a tab",
       comma, {"<delimString end=\"TAB\"/>", "<delimSpecial isLast=\"true\"/>"}, "a,b\tc d", {"a,b", "c d"}},
      {"delimString without end sets nothing",
       comma, {"<delimString begin=\"[\"/>", ""}, "[a,b", {"[a", "b"}},
      {"a separator of the attribute's own", comma, {"<delimSpecial value=\":\"/>", ""}, "k:v,w", {"k", "v"}},
      {"rest of the line", comma, {"", "<delimSpecial isLast=\"true\"/>"}, "a,b,c d", {"a", "b,c d"}},
      {"rest of the line may be empty", comma, {"", "<delimSpecial isLast=\"true\"/>"}, "a,", {"a", ""}},
      {"no separator: the first value is the whole line", "", {"", ""}, "a,b c", {"a,b c", ""}},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto provider = loadScriptProvider(scriptDefinition(
        textAttrs(c.metrics.size()), c.scriptAttributes + " command=\"true\"", textMetrics(c.metrics)));
    ASSERT_NE(provider, nullptr);
    std::unique_ptr<ResultInstance> row(provider->parseLine(c.line));
    if (c.expected.empty()) {
      EXPECT_EQ(row, nullptr);
    } else {
      ASSERT_NE(row, nullptr);
      EXPECT_EQ(valuesOf(row.get()), c.expected);
    }
    XRV::testing::resetScriptTestState();
  }
}

TEST_F(ShellQueryClassTest, BlankValuesSettingAllowsAnyNumberOfMissingValues) {
  setConfigurationProperty("CDP_DP_SCRIPT_ALLOW_BLANK_VALUES", "1");
  auto provider = textProvider("true", 4);
  std::unique_ptr<ResultInstance> row(provider->parseLine("a"));
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(valuesOf(row.get()), (std::vector<std::string>{"a", "", "", ""}));
}

TEST_F(ShellQueryClassTest, ConvertsValuesByAttributeType) {
  auto provider = loadScriptProvider(scriptDefinition(
      R"(<attr name="N" type="0" size="4"/><attr name="L" type="9" size="8"/><attr name="S" type="2" size="32"/><attr name="E" type="0" size="4"/>)",
      R"(separator=";" command="true" utf8_input="true")",
      R"(<metric name="N" type="NUMERIC_DATA" visible="true"/><metric name="L" type="NUMERIC_64BIT_DATA" visible="true"/><metric name="S" type="STRING_DATA" visible="true"/><metric name="E" type="NUMERIC_DATA" visible="true"/>)"));
  std::unique_ptr<ResultInstance> row(provider->parseLine(" 42 ;0x10;Grüße, Welt;"));
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(valuesOf(row.get()), (std::vector<std::string>{"42", "16", "Grüße, Welt", "0"}));
  const ResultMetric* text = static_cast<const ResultMetric*>(
      row->getFirstMetric()->getNextElement()->getNextElement());
  EXPECT_TRUE(text->isUTF8String());
}

TEST_F(ShellQueryClassTest, DerivedAttributesTakeNoToken) {
  auto provider = loadScriptProvider(scriptDefinition(
      R"(<attr name="A" type="0" size="4"/><attr name="Sum" type="0" size="4"/><attr name="B" type="0" size="4"/>)",
      R"(separator="," command="printf '2,3\n'")",
      R"(<metric name="A" type="NUMERIC_DATA" visible="true"/><metric name="Sum" type="NUMERIC_DATA" arg1="A" op="+" arg2="B" visible="true"/><metric name="B" type="NUMERIC_DATA" visible="true"/>)"));
  EXPECT_EQ(collectRows(*provider), (Rows{{"2", "5", "3"}}));
}

// --- Collections with real commands ---

TEST_F(ShellQueryClassTest, OutcomeOfTheCommandGivesRowsAndErrorCode) {
  struct Case {
    const char* name;
    const char* command;
    Rows rows;
    int errorCode;
    int returnCode;
  };
  const Case cases[] = {
      {"rows", "printf 'a,1\\nb,2\\n'", {{"a", "1"}, {"b", "2"}}, OBJECT_ACTIVE, 0},
      {"CR LF line ends", "printf 'a,1\\r\\nb,2\\r\\n'", {{"a", "1"}, {"b", "2"}}, OBJECT_ACTIVE, 0},
      {"blank lines are skipped", "printf '\\na,1\\n\\n'", {{"a", "1"}}, OBJECT_ACTIVE, 0},
      {"a NUL byte is read as '?'", "printf 'a\\0b,1\\nc,2\\n'", {{"a?b", "1"}, {"c", "2"}},
       OBJECT_ACTIVE, 0},
      {"no output", "true", {}, NO_INSTANCES_RETURNED, 0},
      {"non-zero exit keeps the rows", "printf 'a,1\\n'; exit 3", {{"a", "1"}},
       SCRIPT_NONZERO_RETURN, 3},
      {"command not found", "no-such-command-xrv", {}, SCRIPT_NOT_FOUND, 127},
      {"not executable", "/dev/null", {}, SCRIPT_LAUNCH_ERROR, 126},
      {"ended by a signal: its exit status is unknown", "echo a,1; kill -9 $$", {}, GENERIC_ERROR,
       0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto provider = loadScriptProvider(scriptDefinition(
        R"(<attr name="K" type="1" size="8"/><attr name="V" type="0" size="4"/>)",
        std::string("separator=\",\" command=\"") + XRV::testing::xmlEscaped(c.command) + "\"",
        R"(<metric name="K" type="STRING_DATA" key="true" visible="true"/><metric name="V" type="NUMERIC_DATA" visible="true"/>)"));
    EXPECT_EQ(collectRows(*provider), c.rows);
    EXPECT_EQ(provider->getPerfErrorCode(), c.errorCode);
    EXPECT_EQ(provider->getCollectionReturnCode(), c.returnCode);
    XRV::testing::resetScriptTestState();
  }
}

TEST_F(ShellQueryClassTest, ADisabledGroupRunsNothingAndSaysSo) {
  setConfigurationProperty("CDP_G_DISABLE_COLLECTION", "Y");
  auto provider = textProvider("echo a", 1);
  EXPECT_EQ(collectRows(*provider), Rows{});
  EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_INACTIVE);
  EXPECT_EQ(provider->getPerfErrorCode(), DISABLED);
}

TEST_F(ShellQueryClassTest, EmptyRowSettingMakesOneRowFromNoOutput) {
  setConfigurationProperty("CDP_DP_SCRIPT_CREATE_EMPTY_ROW_WHEN_NO_STDOUT_DATA_RETURNED", "1");
  setConfigurationProperty("CDP_DP_SCRIPT_ALLOW_BLANK_VALUES", "1");
  auto provider = loadScriptProvider(scriptDefinition(
      R"(<attr name="K" type="1" size="8"/><attr name="V" type="0" size="4"/>)",
      R"(separator="," command="echo failed &gt;&amp;2; exit 2")",
      R"(<metric name="K" type="STRING_DATA" visible="true"/><metric name="V" type="NUMERIC_DATA" visible="true"/>)"));
  EXPECT_EQ(collectRows(*provider), (Rows{{"", "0"}}));
  EXPECT_EQ(provider->getCollectionReturnCode(), 2);
  EXPECT_EQ(provider->getCollectionStdErr(), "failed\n");
  EXPECT_EQ(provider->getPerfErrorCode(), SCRIPT_NONZERO_RETURN);
}

TEST_F(ShellQueryClassTest, EmptyRowSettingAloneEndsInsteadOfLoopingOnTheEmptyLine) {
  setConfigurationProperty("CDP_DP_SCRIPT_CREATE_EMPTY_ROW_WHEN_NO_STDOUT_DATA_RETURNED", "1");
  auto provider = textProvider("true", 1);
  EXPECT_EQ(collectRows(*provider), Rows{});
  EXPECT_EQ(provider->getPerfErrorCode(), NO_INSTANCES_RETURNED);
  // A blank first line is skipped like any blank line: the rows after it stay.
  auto blankFirst = textProvider("printf '\\na\\nb\\n'", 1);
  EXPECT_EQ(collectRows(*blankFirst), (Rows{{"a"}, {"b"}}));
}

TEST_F(ShellQueryClassTest, OutputAboveTheLimitGivesNoRowsAndResponseTooBig) {
  const long long saved = outputSizeLimit;
  outputSizeLimit = 64 * 1024;
  auto provider = textProvider("printf 'a\\n'; yes | cat", 1);
  EXPECT_EQ(collectRows(*provider), Rows{});
  EXPECT_EQ(provider->getPerfErrorCode(), RESPONSE_TOO_BIG);
  outputSizeLimit = saved;
}

TEST_F(ShellQueryClassTest, LongLinesAreCutAtTheLineBuffer) {
  // A line longer than the buffer: its first part is one row, and what follows the
  // lost character is read as the next line.
  std::string command = "head -c " + std::to_string(ShellQueryClass::kLineBufferSize + 5) +
                        " /dev/zero | tr '\\0' x; echo";
  auto provider = textProvider(command, 1);
  Rows rows = collectRows(*provider);
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[0][0], std::string(32, 'x'));  // the column holds 32 bytes
  EXPECT_EQ(rows[1][0], "xxxx");
}

TEST_F(ShellQueryClassTest, CommandIsExpandedOnceWithAllowedVariablesOnly) {
  XRV::testing::ConfigurationFile file;
  ASSERT_TRUE(file.load("[agent]\nAGENT_BIN_DIR = /opt/xrv/bin\nSECRET = hunter2\n"));
  auto provider = textProvider("echo ${AGENT_BIN_DIR}/x ${SECRET}", 1);
  EXPECT_STREQ(provider->getRawCommand(), "echo ${AGENT_BIN_DIR}/x ${SECRET}");
  EXPECT_STREQ(provider->getCommand(), "echo /opt/xrv/bin/x ");
  EXPECT_EQ(collectRows(*provider), (Rows{{"/opt/xrv/bin/x"}}));
}

// --- Settings ---

// The setting's default, minimum and invalid values are SettingsTest's.
TEST_F(ShellQueryClassTest, TimeoutComesFromTheScriptTimeoutSetting) {
  setConfigurationProperty("CDP_DP_SCRIPT_TIMEOUT", "120");
  ShellQueryClass provider("XRV", "G", "true", ",", nullptr, false, false, false);
  EXPECT_EQ(provider.getTimeout(), 120);
}

TEST_F(ShellQueryClassTest, KillOrphansSettingPerGroupComesBeforeTheAgentWide) {
  struct Case {
    const char* group;  // CDP_G_KILL_ORPHAN_SCRIPTS
    const char* agent;  // CDP_DP_KILL_ORPHAN_SCRIPTS
    bool expected;
  };
  const Case cases[] = {
      {nullptr, nullptr, false}, {nullptr, "Y", true},  {nullptr, "yes", true},
      {nullptr, "N", false},     {"y", nullptr, true},  {"no", "Y", false},
      {"Yes", "N", true},        {nullptr, "1", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.group == nullptr ? "-" : c.group) + " / " +
                 (c.agent == nullptr ? "-" : c.agent));
    setConfigurationProperty("CDP_G_KILL_ORPHAN_SCRIPTS", c.group);
    setConfigurationProperty("CDP_DP_KILL_ORPHAN_SCRIPTS", c.agent);
    ShellQueryClass provider("XRV", "g", "true", ",", nullptr, false, false, false);
    EXPECT_EQ(provider.getKillOrphans(), c.expected);
  }
}

// --- Commands that outlive their time-out ---

TEST_F(ShellQueryClassTest, TimeoutKeepsThePreviousRowsAndReportsTimeout) {
  std::filesystem::path slow = scratch() / "slow";
  auto provider = textProvider("echo row; if [ -e " + slow.string() + " ]; then sleep 3; fi", 1);
  provider->setTimeout(1);
  EXPECT_EQ(collectRows(*provider), (Rows{{"row"}}));
  EXPECT_EQ(provider->getPerfErrorCode(), OBJECT_ACTIVE);

  std::ofstream(slow).put('x');
  auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(collectRows(*provider), (Rows{{"row"}}));
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(2500));
  EXPECT_EQ(provider->getPerfErrorCode(), TIMEOUT);
  EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_INACTIVE);
  EXPECT_EQ(provider->getOutstandingCommandCount(), 1);

  std::filesystem::remove(slow);
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // the parked one ends
  EXPECT_EQ(collectRows(*provider), (Rows{{"row"}}));
  EXPECT_EQ(provider->getOutstandingCommandCount(), 0);
  EXPECT_EQ(provider->getPerfErrorCode(), OBJECT_ACTIVE);
  EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_ACTIVE);
}

TEST_F(ShellQueryClassTest, TenOutstandingCommandsStopCollectionUntilOneEnds) {
  std::filesystem::path release = scratch() / "release";
  std::filesystem::path runs = scratch() / "runs";
  // Every run leaves a mark, then waits for the release file.
  auto provider = textProvider("echo x >> " + runs.string() + "; while [ ! -e " +
                                   release.string() + " ]; do sleep 0.05; done; echo done",
                               1);
  provider->setTimeout(1);
  for (int i = 0; i < ShellQueryClass::kMaxOutstandingCommands; ++i) {
    provider->collectData(nullptr);
  }
  EXPECT_EQ(provider->getOutstandingCommandCount(), ShellQueryClass::kMaxOutstandingCommands);
  auto countRuns = [&runs] {
    std::ifstream in(runs);
    return std::count(std::istreambuf_iterator<char>(in), {}, '\n');
  };
  EXPECT_EQ(countRuns(), 10);

  auto started = std::chrono::steady_clock::now();
  provider->collectData(nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(500));
  EXPECT_EQ(countRuns(), 10);  // nothing was started

  std::ofstream(release).put('x');
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(collectRows(*provider), (Rows{{"done"}}));
  EXPECT_EQ(countRuns(), 11);
  EXPECT_EQ(provider->getOutstandingCommandCount(), 0);
}

TEST_F(ShellQueryClassTest, KilledOrphansAreReapedOnTheNextCollection) {
  setConfigurationProperty("CDP_DP_KILL_ORPHAN_SCRIPTS", "Y");
  std::filesystem::path slow = scratch() / "slow";
  std::ofstream(slow).put('x');
  auto provider = textProvider("if [ -e " + slow.string() + " ]; then exec sleep 30; fi; echo ok", 1);
  provider->setTimeout(1);
  provider->collectData(nullptr);
  EXPECT_EQ(provider->getPerfErrorCode(), TIMEOUT);
  std::filesystem::remove(slow);
  EXPECT_EQ(collectRows(*provider), (Rows{{"ok"}}));
  // Reaped by a collection once its worker has seen the killed process end; no
  // collection waits for it.
  for (int i = 0; i < 100 && provider->getOutstandingCommandCount() > 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    collectRows(*provider);
  }
  EXPECT_EQ(provider->getOutstandingCommandCount(), 0);
}

// --- Remote scripts without SSH support ---

TEST_F(ShellQueryClassTest, ScriptOverSshWithoutSupportReportsMissingLibrary) {
  auto provider = textProvider("echo remote", 1, "ssh=\"true\"");
  ASSERT_NE(provider, nullptr);
  EXPECT_EQ(provider->getObjectType(), UA_SSH_SCRIPT);
  ASSERT_NE(provider->getConnector(), nullptr);
  EXPECT_TRUE(provider->getConnector()->isInErrorState());
  EXPECT_EQ(collectRows(*provider), Rows{});
  EXPECT_EQ(provider->getPerfErrorCode(), MISSING_LIBRARY);
  EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_INACTIVE);
  std::vector<std::string> names = provider->getPropertyNames();
  EXPECT_NE(std::find(names.begin(), names.end(), "SSH_HOSTNAME"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "CDP_DP_SCRIPT_USE_CONSOLE_CODEPAGE"),
            names.end());
}

// --- Remote scripts through an installed connector ---

// What the scripted connector does on its next run; its error code and message follow.
struct ScriptedRun {
  int result = 0;
  const char* out = "";
  int exitStatus = 0;
  int code = OBJECT_ACTIVE;
  const char* message = "";
};
ScriptedRun nextRun;
std::vector<std::string> uploadedFiles;

class ScriptedConnector : public SshConnector {
 public:
  int executeScript(const char* command, char** out, char** err, int timeout) override {
    int status = 0;
    return runScript(command, out, err, timeout, &status);
  }
  int runScript(const char*, char** out, char** err, int, int* exitStatus) override {
    code_ = nextRun.code;
    *out = nextRun.result == 0 ? strdup(nextRun.out) : nullptr;
    *err = nextRun.result == 0 ? strdup("remote stderr") : nullptr;
    *exitStatus = nextRun.exitStatus;
    return nextRun.result;
  }
  void resetConfig(const char*, HashMap*) override {}
  void addCommandFile(const char* name) override { uploadedFiles.emplace_back(name); }
  bool isInErrorState() const override { return code_ != OBJECT_ACTIVE; }
  int getErrorCode() const override { return code_; }
  std::string getErrorMessage() const override { return nextRun.message; }

 private:
  int code_ = OBJECT_ACTIVE;
};

TEST_F(ShellQueryClassTest, RemoteOutcomesBecomeRowsAndErrorCodes) {
  registerSshConnectorFactory([](const char*) -> SshConnector* { return new ScriptedConnector; });
  struct Case {
    const char* name;
    ScriptedRun run;
    Rows rows;
    int code;
    int returnCode;
    const char* stderrText;
  };
  const Case cases[] = {
      {"exit 0 with rows", {0, "a,b\nc,d\n", 0}, {{"a", "b"}, {"c", "d"}}, OBJECT_ACTIVE, 0,
       "remote stderr"},
      // The command ran: the connector's code stands, the exit status is the return code.
      {"exit 0 without rows", {0, "", 0}, {}, OBJECT_ACTIVE, 0, "remote stderr"},
      {"rows and exit 3", {0, "a,b\n", 3}, {{"a", "b"}}, OBJECT_ACTIVE, 3, "remote stderr"},
      {"not found remotely", {0, "", 127}, {}, OBJECT_ACTIVE, 127, "remote stderr"},
      {"login refused",
       {-1, "", 0, AUTHENTICATION_FAILED, "u@h:22 refused the password"},
       {},
       AUTHENTICATION_FAILED,
       0,
       "u@h:22 refused the password"},
      {"host down",
       {-1, "", 0, REMOTE_HOST_UNAVAILABLE, "cannot connect to h port 22: Connection refused"},
       {},
       REMOTE_HOST_UNAVAILABLE,
       0,
       "cannot connect to h port 22: Connection refused"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    nextRun = c.run;
    auto provider = textProvider("uptime", 2, "ssh=\"true\"");
    ASSERT_NE(provider, nullptr);
    EXPECT_EQ(collectRows(*provider), c.rows);
    EXPECT_EQ(provider->getPerfErrorCode(), c.code);
    EXPECT_EQ(provider->getCollectionReturnCode(), c.returnCode);
    EXPECT_EQ(provider->getCollectionStdErr(), c.stderrText);
  }
  registerSshConnectorFactory(nullptr);
}

TEST_F(ShellQueryClassTest, SubnodeCopiesOfARemoteScriptUploadTheSameFiles) {
  registerSshConnectorFactory([](const char*) -> SshConnector* { return new ScriptedConnector; });
  uploadedFiles.clear();
  auto provider = loadScriptProvider(scriptDefinition(
      textAttrs(1), "separator=\",\" ssh=\"true\" command=\"sh probe.sh\"",
      "<File Name=\"probe.sh\"/><File Name=\"lib.sh\"/>" + textMetrics({""})));
  ASSERT_NE(provider, nullptr);
  std::unique_ptr<UAClientClass> copy(provider->subnodeCopy("east", nullptr));
  EXPECT_EQ(uploadedFiles, (std::vector<std::string>{"probe.sh", "lib.sh", "probe.sh", "lib.sh"}));
  registerSshConnectorFactory(nullptr);
}

// --- Subnodes ---

TEST_F(ShellQueryClassTest, SubnodeCopyExportsItsConfigurationToTheCommand) {
  XRV::testing::ConfigurationFile file;
  ASSERT_TRUE(file.load("[subnode DB east]\nDB_PORT = 5432\nDB_NAME = sales db\n"));
  auto provider = loadScriptProvider(
      "<agent><metadata><ag name=\"G\" table=\"TG\" subnode_type=\"DB\">" + textAttrs(2) +
      "</ag></metadata><script app=\"XRV\" ag=\"G\" separator=\",\" "
      "command=\"echo &quot;$DB_NAME,$DB_PORT&quot;\">" +
      textMetrics({"", ""}) + "</script></agent>");
  ASSERT_NE(provider, nullptr);
  ASSERT_STREQ(provider->getAttributeGroupMeta()->subnodeType(), "DB");
  EXPECT_EQ(provider->getEnvPrefix(), "");  // the template serves no subnode

  std::unique_ptr<ShellQueryClass> copy(
      static_cast<ShellQueryClass*>(provider->subnodeCopy("east", nullptr)));
  copy->start();
  std::string prefix = copy->getEnvPrefix();
  EXPECT_NE(prefix.find("DB_PORT=\"5432\" export DB_PORT;"), std::string::npos) << prefix;
  EXPECT_NE(prefix.find("DB_NAME=\"sales db\" export DB_NAME;"), std::string::npos) << prefix;
  EXPECT_EQ(collectRows(*copy), (Rows{{"sales db", "5432"}}));

  std::vector<std::string> names = copy->getPropertyNames();
  EXPECT_NE(std::find(names.begin(), names.end(), "DB_PORT"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "CDP_G_REFRESH_INTERVAL"), names.end());
}

TEST_F(ShellQueryClassTest, ConcurrentCollectionsOfSeveralScripts) {
  constexpr int kProviders = 8;
  constexpr int kCollections = 5;
  std::vector<std::unique_ptr<ShellQueryClass>> providers;
  for (int i = 0; i < kProviders; ++i) {
    // Each definition replaces group G; every provider keeps the group it was bound to.
    providers.push_back(textProvider("i=0; while [ $i -lt 50 ]; do echo row$i," +
                                         std::to_string(i) +
                                         "; i=$((i+1)); done; echo noise >&2",
                                     2));
  }
  std::vector<std::thread> threads;
  std::vector<int> good(kProviders, 0);
  for (int i = 0; i < kProviders; ++i) {
    threads.emplace_back([&, i] {
      for (int n = 0; n < kCollections; ++n) {
        Rows rows = collectRows(*providers[i]);
        bool ok = rows.size() == 50 && rows[49][0] == "row49" &&
                  rows[49][1] == std::to_string(i) &&
                  providers[i]->getCollectionStdErr() == "noise\n" &&
                  providers[i]->getPerfErrorCode() == OBJECT_ACTIVE;
        good[i] += ok ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(good, std::vector<int>(kProviders, kCollections));
}

}  // namespace
