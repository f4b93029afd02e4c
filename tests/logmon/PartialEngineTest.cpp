// Engine libraries that lack the optional entry points: the log monitor says what it
// cannot do and carries on.

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>

#include "LogMonitorTestSupport.h"
#include "runtime/LogFileStatus.h"

namespace {

using XRV::testing::logMonitorDefinition;
using XRV::testing::LogMonitorTest;
using XRV::testing::waitUntil;

// Group "Errors" of application `application` (whose first three letters name the
// library) over a file that is never read.
std::string definition(const char* application) {
  return logMonitorDefinition(
      "Errors", R"(pure="true")", R"(<attr name="Message" type="2" size="64"/>)",
      std::string("app=\"") + application + "\" ag=\"Errors\"",
      R"(<metric name="Message" type="STRING_DATA" visible="true"/>)",
      "//APPL X\n//NAME Errors E\n//SOURCE FILE '/nonexistent/x.log'\n//ATTRIBUTES NEWLINE\n"
      "Message Z 64\n");
}

class PartialEngineTest : public LogMonitorTest {
 protected:
  void SetUp() override {
    LogMonitorTest::SetUp();
    forgetXpwLibraryForTesting();
    setConfigurationProperty("AGENT_LIB_DIR", XRV_PARTIAL_ENGINE_DIR);
  }

  // How often the partial engine loaded a text.
  static int loads() {
    using Counter = int (*)();
    auto counter = reinterpret_cast<Counter>(
        dlsym(dlopen(xpwLibraryPath().c_str(), RTLD_NOW | RTLD_NOLOAD), "PartialEngineLoads"));
    return counter == nullptr ? -1 : counter();
  }
};

TEST_F(PartialEngineTest, StatusGroupsSayWhatTheLibraryLacks) {
  const std::string metadata =
      R"(<ag name="Log_File_Status" table="TLFS"><attr name="File_Name" type="2" size="64"/></ag>)"
      R"(<ag name="Log_File_RegEx_Statistics" table="TLFR"><attr name="Matches" type="7" size="8"/></ag>)";
  std::string document = definition("NFL");
  document.insert(document.find("</metadata>"), metadata);
  LogMonitorQueryClass* provider = load(document);
  ASSERT_NE(provider, nullptr);
  LogFileStatus files("ZQM", "Log_File_Status", findAttributeGroupMeta("Log_File_Status"));
  LogFileRegExStats patterns("ZQM", "Log_File_RegEx_Statistics",
                             findAttributeGroupMeta("Log_File_RegEx_Statistics"));

  // Before any library is loaded.
  files.collectData(nullptr);
  EXPECT_EQ(files.getResultInstanceCount(), 0);
  EXPECT_TRUE(framework_.trace().hasText(
      "Warning: attempt to collect Log File status without XPW library loaded.  This may just be "
      "because initialization is not yet complete."));

  provider->start();
  EXPECT_EQ(xpwLibraryPath(), std::string(XRV_PARTIAL_ENGINE_DIR) + "/libnfludp.so");
  for (const char* name : {"XPWP_GetMonitoredFileStatus", "XPWP_FreeMonitoredFileInfo",
                           "XPWP_FlushCommonProvider", "XPWP_FlushCommonProviderTable",
                           "XPWP_AreAllFileThreadsStartedTable", "XPWP_WakeUpAllFileThreads"}) {
    EXPECT_TRUE(framework_.trace().hasText(std::string("Failed to find ") + name)) << name;
  }
  EXPECT_FALSE(framework_.trace().hasText("Failed to find XPWP_LoadMetafile"));
  // No readiness question to ask: it carries on, and says so.
  EXPECT_TRUE(framework_.trace().containsText("sub-providers may start before xpw is ready"));
  EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_ACTIVE);
  const int loadedAtStart = loads();  // counted for the process: libraries stay mapped
  EXPECT_GE(loadedAtStart, 1);

  files.collectData(nullptr);
  patterns.collectData(nullptr);
  EXPECT_EQ(files.getResultInstanceCount(), 0);
  EXPECT_EQ(patterns.getResultInstanceCount(), 0);
  EXPECT_TRUE(framework_.trace().hasText(
      "Error: this version of xpw library does not contain GetMonitoredFileStatus(), can't get "
      "status"));
  EXPECT_TRUE(framework_.trace().hasText(
      "Error: this version of xpw library does not contain GetLogFileRegExStatistics(), can't "
      "get statistics"));

  // Nothing to flush with: the reset is refused and the group runs on.
  provider->reset();
  EXPECT_TRUE(framework_.trace().hasText(
      "ERROR: received request to reset, but loaded xpw library does not support "
      "XPWP_FlushCommonProvider or XPWP_FlushCommonProviderTable."));
  EXPECT_TRUE(framework_.trace().hasText("Ignoring reset request, continuing as before."));
  EXPECT_FALSE(provider->isResetPending());
  EXPECT_EQ(loads(), loadedAtStart);
}

TEST_F(PartialEngineTest, ResetWithOnlyTheFlushOfAllTables) {
  LogMonitorQueryClass* provider = load(definition("Afl-agent"));
  ASSERT_NE(provider, nullptr);
  provider->start();
  EXPECT_EQ(xpwLibraryPath(), std::string(XRV_PARTIAL_ENGINE_DIR) + "/libafludp.so");
  const int loadedAtStart = loads();
  ASSERT_GE(loadedAtStart, 1);
  provider->reset();
  EXPECT_TRUE(framework_.trace().hasText(
      "WARNING: received request to reset, but loaded xpw library only supports "
      "XPWP_FlushCommonProvider, not XPWP_FlushCommonProviderTable."));
  EXPECT_TRUE(framework_.trace().hasText("This means all tables will be shut down together."));
  ASSERT_TRUE(
      waitUntil([&] { return loads() == loadedAtStart + 1 && !provider->isResetPending(); }));
  EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_ACTIVE);
  EXPECT_EQ(provider->getPerfErrorCode(), OBJECT_ACTIVE);
}

}  // namespace
