// The log_monitor element, the engine library's name and where it is looked for, and
// what the log monitor reads and rewrites in an MDL text. No engine runs here.

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "LogMonitorTestSupport.h"
#include "logmon/LogMonitorMdl.h"

namespace {

using XRV::testing::logMonitorDefinition;
using XRV::testing::LogMonitorTest;

const char kAttrs[] =
    R"(<attr name="Severity" type="2" size="16"/><attr name="Message" type="2" size="64"/>)"
    R"(<attr name="Log_File" type="2" size="128"/>)";
const char kMetrics[] =
    R"(<metric name="Severity" type="STRING_DATA" visible="true"/><metric name="Message" type="STRING_DATA" visible="true"/>)"
    R"(<metric name="Log_File" type="STRING_DATA" visible="true"/>)";
const char kMdl[] =
    "//APPL XRV\n//NAME Errors E\n//SOURCE FILE '/tmp/app.log' TAIL\n//ATTRIBUTES ';'\n"
    "Severity Z 16\nMessage Z 64\n";

TEST_F(LogMonitorTest, DefinitionNeedsApplicationGroupAndMdl) {
  struct Case {
    const char* why;
    std::string monitorAttributes;
    std::string mdl;  // "-": no mdl_stream element
    bool made;
  };
  const Case cases[] = {
      {"complete", R"(app="XRV" ag="Errors" sourceMapAttr="Log_File")", kMdl, true},
      {"no app", R"(ag="Errors")", kMdl, false},
      {"no ag", R"(app="XRV")", kMdl, false},
      {"empty mdl_stream", R"(app="XRV" ag="Errors")", "", false},
      {"no mdl_stream", R"(app="XRV" ag="Errors")", "-", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    framework_.trace().clear();
    std::string document =
        logMonitorDefinition("Errors", "", kAttrs, c.monitorAttributes, kMetrics, c.mdl);
    if (c.mdl == "-") {
      document.replace(document.find("<mdl_stream>-</mdl_stream>"), 26, "");
    }
    LogMonitorQueryClass* provider = load(document);
    EXPECT_EQ(provider != nullptr, c.made);
    EXPECT_EQ(framework_.trace().hasText(
                  "Do not have all the needed information to create the Log Monitor Class."),
              !c.made);
    if (provider != nullptr) {
      EXPECT_EQ(provider->getObjectType(), UA_LOG_MONITOR);
      EXPECT_EQ(provider->getMetricCount(), 3);
      EXPECT_STREQ(provider->getSourceMapAttr(), "Log_File");
      EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_INACTIVE);
      EXPECT_EQ(provider->getPerfErrorCode(), NOT_INITIALIZED);
    }
    providers_.clear();
    resetDefinitionState();
  }
}

TEST_F(LogMonitorTest, DefinitionAttributesReachTheProvider) {
  setConfigurationProperty("ERRPT_FLAGS", "-a -s 0101");
  // Metrics before and after the MDL keep their order; use_qrf is true only for "true".
  const std::string document =
      logMonitorDefinition("Errors", "", kAttrs,
                           R"(app="XRV" ag="Errors" use_qrf="TRUE" sourceDescMapAttr="Message" )"
                           R"(errpt_command="errpt ${ERRPT_FLAGS}")",
                           R"(<metric name="Severity" type="STRING_DATA" visible="true"/>)", kMdl);
  const std::string withLaterMetrics =
      document.substr(0, document.find("</log_monitor>")) +
      R"(<metric name="Message" type="STRING_DATA" visible="true"/><metric name="Log_File" visible="true"/></log_monitor></agent>)";
  LogMonitorQueryClass* provider = load(withLaterMetrics);
  ASSERT_NE(provider, nullptr);
  ASSERT_EQ(provider->getMetricCount(), 3);
  EXPECT_STREQ(provider->getMetric(0)->getMetricName(), "Severity");
  EXPECT_STREQ(provider->getMetric(2)->getMetricName(), "Log_File");
  EXPECT_FALSE(provider->usesQrf());
  EXPECT_STREQ(provider->getSourceDescMapAttr(), "Message");
  EXPECT_STREQ(provider->getErrptCommand(), "errpt -a -s 0101");
  EXPECT_TRUE(provider->sendsRowsAsEvents());
  EXPECT_TRUE(framework_.trace().hasText(
      "Varex errpt command specified, expanded cmd = \"errpt -a -s 0101\", using binary log "
      "\"/var/adm/ras/errlog\""));
}

TEST_F(LogMonitorTest, ApplicationAndAgentSettingsSetTheFlags) {
  setConfigurationProperty("XRV_SEND_PQL_EVENTS", "No");
  setConfigurationProperty("CDP_LOGNAME_IS_BASENAME", "yes");
  setConfigurationProperty("OTH_SEND_PQL_EVENTS", "no");  // another application's
  LogMonitorQueryClass* provider = load(logMonitorDefinition(
      "Errors", "", kAttrs, R"(app="XRV" ag="Errors" use_qrf="true")", kMetrics, kMdl));
  ASSERT_NE(provider, nullptr);
  EXPECT_FALSE(provider->sendsRowsAsEvents());
  EXPECT_TRUE(provider->isLogNameBasename());
  EXPECT_TRUE(provider->usesQrf());
  EXPECT_TRUE(framework_.trace().hasText("Setting logNameIsBasename to true based on ENV setting"));
  // Format-file mode without XRV_CONF_FILE: nothing to monitor.
  provider->start();
  EXPECT_TRUE(framework_.trace().hasText(
      "use_qrf flag is set, but no QRF config data present, top level node disabled."));
  EXPECT_TRUE(framework_.trace().hasText("QRF monitor with no QRFconfig, not starting"));
  EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_INACTIVE);
  EXPECT_EQ(provider->getPerfErrorCode(), CONF_FILE_DOES_NOT_EXIST);
  EXPECT_FALSE(provider->isResetPending());
}

TEST(LogMonitorLibrary, FileNameFollowsTheApplication) {
  const struct {
    const char* application;
    const char* file;
  } cases[] = {{"XRV", "libxrvudp.so"}, {"Shop_Agent", "libshoudp.so"}, {"AB", "libabudp.so"},
               {"", "libxrvudp.so"},    {nullptr, "libxrvudp.so"},      {"K9z", "libk9zudp.so"}};
  for (const auto& c : cases) {
    EXPECT_EQ(xpwLibraryFileName(c.application), c.file)
        << (c.application ? c.application : "null");
  }
}

TEST_F(LogMonitorTest, LibraryIsLookedForInTheLibDirThenTheSearchPathThenThisBuild) {
  const std::vector<std::string> plain = xpwLibraryCandidates("Shop");
  ASSERT_EQ(plain.size(), 2u);
  EXPECT_EQ(plain[0], "libshoudp.so");
  EXPECT_EQ(plain[1].front(), '/') << "the engine this build installs, by its absolute path";
  EXPECT_EQ(plain[1].substr(plain[1].size() - 13), "/libxrvudp.so");

  // An application whose library is nowhere (and so not mapped by an earlier test).
  setConfigurationProperty("AGENT_LIB_DIR", (directory_.path() + "/").c_str());
  const std::vector<std::string> paths = xpwLibraryCandidates("Zzz");
  ASSERT_EQ(paths.size(), 3u);
  EXPECT_EQ(paths[0], directory_.file("libzzzudp.so")) << "one trailing / dropped";
  EXPECT_EQ(paths[1], "libzzzudp.so");
  EXPECT_EQ(paths[2], plain[1]);

  // Neither the directory nor the search path has it: this build's engine, with a
  // line that names what was tried.
  const XpwEntryPoints* entry = nullptr;
  {
    PthreadMutexLock lock(cdpHandleLock());
    entry = loadXpwLibrary("Zzz");
  }
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(xpwLibraryPath(), paths[2]);
  EXPECT_NE(entry->loadMetafile, nullptr);
  EXPECT_NE(entry->flushCommonProviderTable, nullptr);
  EXPECT_TRUE(framework_.trace().containsText("Failed to load shared library " + paths[0] + " : "));
  EXPECT_TRUE(framework_.trace().hasText("Attempting to use environment to find libzzzudp.so"));
  EXPECT_TRUE(framework_.trace().hasText(
      "Log engine libzzzudp.so not found as " + paths[0] +
      ", libzzzudp.so; loading the engine this build installs, " + paths[2]));
  EXPECT_FALSE(framework_.trace().containsText("Failed to find"));
}

// XRV_LOG_POSITIONS_DIR reaches the engine as XRVLOG_STATE_DIR, unless the environment
// names a directory already; the first call of the process decides.
TEST_F(LogMonitorTest, LogPositionsDirectoryIsHandedToTheEngineOnce) {
  const char* before = getenv(kEngineStateDirVariable);
  const std::string saved = before == nullptr ? "" : before;
  const std::string made = directory_.file("made/positions");
  const std::string other = directory_.file("other");
  struct Case {
    const char* why;
    const char* environment;  // XRVLOG_STATE_DIR before the call; null: unset
    std::optional<std::string> setting;
    std::optional<std::string> later;  // the setting at a second call
    const char* expected;              // XRVLOG_STATE_DIR afterwards; null: unset
    bool directoryMade;
  };
  const Case cases[] = {
      {"no setting", nullptr, std::nullopt, std::nullopt, nullptr, false},
      {"an empty setting is none", nullptr, "", std::nullopt, nullptr, false},
      {"the setting, its directory made", nullptr, made, std::nullopt, made.c_str(), true},
      {"the operator's environment wins", "/var/xrvlog", made, std::nullopt, "/var/xrvlog", false},
      {"a second call changes nothing", nullptr, made, other, made.c_str(), true},
      {"nor does a second call make it", nullptr, std::nullopt, made, nullptr, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    forgetXpwLibraryForTesting();
    resetConfigurationForTesting();
    std::filesystem::remove_all(directory_.file("made"));
    if (c.environment == nullptr) {
      unsetenv(kEngineStateDirVariable);
    } else {
      setenv(kEngineStateDirVariable, c.environment, 1);
    }
    if (c.setting) {
      setConfigurationProperty("XRV_LOG_POSITIONS_DIR", c.setting->c_str());
    }
    {
      PthreadMutexLock lock(cdpHandleLock());
      passLogPositionsDirectory();
      if (c.later) {
        setConfigurationProperty("XRV_LOG_POSITIONS_DIR", c.later->c_str());
        passLogPositionsDirectory();
      }
    }
    const char* after = getenv(kEngineStateDirVariable);
    if (c.expected == nullptr) {
      EXPECT_EQ(after, nullptr) << after;
    } else {
      EXPECT_STREQ(after, c.expected);
    }
    EXPECT_EQ(std::filesystem::is_directory(made), c.directoryMade);
    EXPECT_FALSE(std::filesystem::exists(other));
  }
  if (before == nullptr) {
    unsetenv(kEngineStateDirVariable);
  } else {
    setenv(kEngineStateDirVariable, saved.c_str(), 1);
  }
}

TEST(LogMonitorMdl, SubnodeHeaderRewriting) {
  struct Case {
    const char* why;
    const char* mdl;
    const char* type;
    const char* key;
    bool rewritten;
    const char* expected;
  };
  const Case cases[] = {
      {"plain", "//APPL XRV\n//NAME Errors E\n", "LSN", "web01", true,
       "//APPL XRV_LSN_web01\n//NAME Errors_web01 E\n"},
      {"blanks and options kept", "//APPL   XRV ProcessMax=50\n//NAME \tErrors S\n", "LSN", "k",
       true, "//APPL   XRV_LSN_k ProcessMax=50\n//NAME \tErrors_k S\n"},
      {"name ends at the first other character", "//APPL X.Y\n//NAME E-1*x.y E\n", "T", "k", true,
       "//APPL X_T_k.Y\n//NAME E-1*x_k.y E\n"},
      {"blank in the key", "//APPL XRV\n//NAME Errors E\n", "LSN", "my host", true,
       "//APPL XRV_LSN_my_host\n//NAME Errors_my_host E\n"},
      {"no //NAME", "//APPL XRV\n//SOURCE FILE 'x'\n", "LSN", "k", false, nullptr},
      {"no //APPL", "//NAME Errors E\n", "LSN", "k", false, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    std::string mdl = c.mdl;
    const std::string table =
        logmon::subnodeTableName(logmon::mdlHeaderName(mdl, "//NAME "), c.key);
    EXPECT_EQ(logmon::rewriteSubnodeHeader(&mdl, c.type, c.key, table), c.rewritten);
    EXPECT_EQ(mdl, c.rewritten ? c.expected : c.mdl);
  }
}

TEST(LogMonitorMdl, SourceFileLine) {
  struct Case {
    const char* mdl;
    logmon::SourceFileCheck result;
    const char* file;
  };
  using logmon::SourceFileCheck;
  const Case cases[] = {
      {"//SOURCE FILE '/var/log/a.log' TAIL", SourceFileCheck::Found, "/var/log/a.log"},
      {"//SOURCE FILE TAIL REGEX='/var/log/^a.*$'", SourceFileCheck::Found, "/var/log/^a.*$"},
      {"//SOURCE FILE '' TAIL", SourceFileCheck::EmptyName, ""},
      {"//SOURCE FILE REGEX=/var/log", SourceFileCheck::NoQuote, ""},
      {"//SOURCE '/var/log/a.log'", SourceFileCheck::NoLine, ""},
      {"//APPL A\n//SOURCE FILE\n'/x'", SourceFileCheck::NoLine, ""},  // needs the blank
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mdl);
    std::string file;
    EXPECT_EQ(logmon::checkSourceFile(c.mdl, &file), c.result);
    EXPECT_EQ(file, c.file);
  }
}

// A source-file line that is wrong after substitution stops the reset before the
// engine is asked for anything.
TEST_F(LogMonitorTest, MissingLogFileNameStopsTheReset) {
  setConfigurationProperty("EMPTY", "");
  const struct {
    const char* source;
    const char* trace;
  } cases[] = {
      {"//SOURCE  FILE '/tmp/x.log'",
       "//SOURCE FILE , after configuration property substitution, cannot be found"},
      {"//SOURCE FILE REGEX=none",
       "//SOURCE FILE , after configuration property substitution, cannot find opening quote"},
      {"//SOURCE FILE '${EMPTY}' TAIL",
       "The log file name, after configuration property substitution, is empty"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.source);
    framework_.trace().clear();
    // No quote follows the source line: the search for one would go on into the rest.
    const std::string mdl = std::string("//APPL XRV\n//NAME Errors E\n") + c.source +
                            "\n//ATTRIBUTES NEWLINE\nSeverity Z 16\nMessage Z 64\n";
    LogMonitorQueryClass* provider =
        load(logMonitorDefinition("Errors", "", kAttrs, R"(app="XRV" ag="Errors")", kMetrics, mdl));
    ASSERT_NE(provider, nullptr);
    provider->start();
    EXPECT_TRUE(framework_.trace().hasText(c.trace));
    EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_INACTIVE);
    EXPECT_EQ(provider->getPerfErrorCode(), FILE_NAME_MISSING);
    EXPECT_EQ(xpwEntryPoints(), nullptr) << "no library loaded for a broken group";
    EXPECT_FALSE(provider->isResetPending());
    providers_.clear();
    resetDefinitionState();
  }
}

}  // namespace
