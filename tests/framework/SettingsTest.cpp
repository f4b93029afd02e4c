#include "framework/Settings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "support/TestConfiguration.h"
#include "support/TraceCapture.h"

namespace {

using XRV::readSetting;
using XRV::Setting;
using XRV::SettingRead;
using XRV::testing::ConfigurationFile;
using XRV::testing::TraceCapture;

constexpr long long kMegabyte = 1024 * 1024;

// Sets environment variables for its lifetime.
class Environment {
 public:
  explicit Environment(std::vector<std::pair<const char*, const char*>> values)
      : values_(std::move(values)) {
    for (const auto& [name, value] : values_) {
      setenv(name, value, 1);
    }
  }
  ~Environment() {
    for (const auto& [name, value] : values_) {
      unsetenv(name);
    }
  }

 private:
  std::vector<std::pair<const char*, const char*>> values_;
};

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) {
    all += text + "|";
  }
  return all;
}

TEST(SettingsTest, ReadsApplyDefaultsLimitsFallbacksAndTraceTheirTexts) {
  struct Case {
    const char* description;
    Setting id;
    const char* group;
    std::vector<std::pair<const char*, const char*>> environment;
    bool set;
    long long number;
    std::string traced;  // texts, each followed by "|"
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"a number within its limits", Setting::ScriptTimeout, nullptr,
       {{"CDP_DP_SCRIPT_TIMEOUT", "11"}}, true, 11, "script timeout for actions set to 11|"},
      {"below its limit: replaced", Setting::ScriptTimeout, nullptr,
       {{"CDP_DP_SCRIPT_TIMEOUT", "7x"}}, true, 10, "script timeout set to minimum 10|"},
      {"unset: the default", Setting::ScriptTimeout, nullptr, {}, false, 30,
       "script timeout not set, setting to default 30|"},
      {"ignored: the invalid text, then the unset one", Setting::GroupRefreshInterval, "Disk_use",
       {{"CDP_DISK_USE_REFRESH_INTERVAL", "-4"}}, false, 0,
       "WARNING: CDP_DISK_USE_REFRESH_INTERVAL is negative (-4), ignoring it|"
       "CDP_DISK_USE_REFRESH_INTERVAL not set, attribute group Disk_use will use default "
       "refresh interval, if one is set|"},
      {"an empty group value falls back; a fallback without texts uses the group's",
       Setting::GroupCacheTtl, "G", {{"CDP_G_CACHE_TTL", ""}, {"CDP_DP_CACHE_TTL", "0"}}, true, 1,
       "Attribute group G configured cache ttl  0|"
       "UAClientClass timeout interval for group G is 1 seconds|"},
      {"a fallback with texts of its own; its empty value counts as set",
       Setting::GroupPureEventCacheSize, "G", {{"CDP_PURE_EVENT_CACHE_SIZE", ""}}, true, 0,
       "Setting the pure event cache size for attribute group G to global value 0|"},
      {"a group flag set to no", Setting::GroupKillOrphanScripts, "G",
       {{"CDP_G_KILL_ORPHAN_SCRIPTS", "no"}, {"CDP_DP_KILL_ORPHAN_SCRIPTS", "Y"}}, true, 0,
       "Attribute group G: kill orphan script processes set to no, killing off|"},
      {"a flag that is on unless it says no", Setting::RegisterActionCallback, nullptr,
       {{"CDP_DP_REGISTER_ACTION_CALLBACK", ""}}, true, 1,
       "Registering action callback. Agent code will run actions.|"},
      {"a choice other than the default", Setting::InitialConfigDiscoveryNodeState, nullptr,
       {{"CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE", "down"}}, true, 1,
       "CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE set to DOWN, new nodes will be not be "
       "registered until data is collected|"},
      {"an invalid choice", Setting::InitialConfigDiscoveryNodeState, nullptr,
       {{"CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE", "sideways"}}, false, 0,
       "CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE - invalid value sideways, new nodes will be "
       "registered|"},
      {"ignored: the invalid text gets the default", Setting::GarbageCollectionInterval, nullptr,
       {{"CDP_DP_GARBAGE_COLLECTION_INTERVAL", "0"}}, false, 600,
       "CDP_DP_GARBAGE_COLLECTION_INTERVAL - invalid value 0, using 600 seconds|"},
      {"a scaled 64-bit number", Setting::ScriptMaxOutputMb, nullptr,
       {{"CDP_DP_SCRIPT_MAX_OUTPUT_MB", "5000"}}, true, 5000 * kMegabyte,
       "Commands may write up to 5242880000 bytes to each of their output streams|"},
      {"a 32-bit number wraps as atoi does", Setting::ScriptTimeout, nullptr,
       {{"CDP_DP_SCRIPT_TIMEOUT", "4294967306"}}, true, 10,
       "script timeout set to minimum 10|"},
      {"unset text: (null)", Setting::AgentRefFile, nullptr, {}, false, 0,
       "AGENT_REF_FILE = (null)|"},
  };
  // clang-format on
  XRV_TRACE_FN();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.description);
    Environment environment(c.environment);
    TraceCapture trace("detail:*");
    const SettingRead read = readSetting(c.id, XRV_SETTING_HERE().forGroup(c.group));
    EXPECT_EQ(read.set, c.set);
    EXPECT_EQ(read.number, c.number);
    EXPECT_EQ(joined(trace.texts()), c.traced);
    // The lines belong to the reader's function, whose trace rules apply to them.
    for (const std::string& line : trace.lines()) {
      EXPECT_NE(line.find("SettingsTest"), std::string::npos) << line;
    }
  }
}

TEST(SettingsTest, StrictNumbersOutsideTheirLimitsKeepTheDefaultWithAWarning) {
  Environment environment(
      {{"XRV_HTTP_THREADS", "65"}, {"XRV_HTTP_MAX_HEADERS", "12abc"}, {"XRV_EVENT_BUFFER", "500"}});
  std::string warning;
  const XRV::SettingContext context = XRV::SettingContext{}.warningsTo(&warning);
  EXPECT_EQ(XRV::settingNumber(Setting::HttpThreads, context), 8);
  EXPECT_EQ(XRV::settingNumber(Setting::HttpMaxHeaders, context), 100);
  EXPECT_EQ(XRV::settingNumber(Setting::EventBuffer, context), 500);
  EXPECT_EQ(warning,
            "XRV_HTTP_THREADS=65 is not a number from 1 to 64, using 8; "
            "XRV_HTTP_MAX_HEADERS=12abc is not a number from 1 to 10000, using 100");
}

TEST(SettingsTest, EnvironmentOnlySettingsIgnoreTheConfigurationFile) {
  ConfigurationFile file;
  ASSERT_TRUE(file.load("[agent]\nXRV_MAX_FILE_MB = 2\nCDP_DP_SCRIPT_MAX_OUTPUT_MB = 2\n"));
  EXPECT_EQ(XRV::settingNumber(Setting::MaxFileMb), 64 * kMegabyte);
  EXPECT_EQ(XRV::settingNumber(Setting::ScriptMaxOutputMb), 2 * kMegabyte);
  const Environment environment(
      std::vector<std::pair<const char*, const char*>>{{"XRV_MAX_FILE_MB", "3"}});
  EXPECT_EQ(XRV::settingNumber(Setting::MaxFileMb), 3 * kMegabyte);
}

TEST(SettingsTest, LaterTracesAndCallerDefaults) {
  XRV_TRACE_FN();
  TraceCapture trace("detail:*");
  const SettingRead quiet = readSetting(Setting::ThreadPoolSize);
  EXPECT_TRUE(trace.texts().empty());
  XRV::traceSetting(quiet, XRV_SETTING_HERE());
  XRV::traceSetting(readSetting(Setting::ThreadPoolSize,
                                XRV::SettingContext{}.withDefault(Setting::ThreadPoolSize, 3)),
                    XRV_SETTING_HERE());
  XRV::traceSettingValue(Setting::TruncateStderrData, -1, XRV_SETTING_HERE());
  XRV::traceSettingValue(Setting::TruncateStderrData, 40, XRV_SETTING_HERE());
  EXPECT_EQ(joined(trace.texts()),
            "CDP_DP_THREAD_POOL_SIZE not set, defaulting to 0-- no thread pool will be used|"
            "CDP_DP_THREAD_POOL_SIZE not set, creating a thread pool of size 3 for pure event "
            "data sources|"
            "CDP_DP_TRUNCATE_STDERR_DATA not set, agent will return full stdErr|"
            "CDP_DP_TRUNCATE_STDERR_DATA set, agent will truncate stdErr data  for shell "
            "commands to 40 bytes.|");
}

}  // namespace
