#include "framework/Configuration.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/TestConfiguration.h"
#include "support/TraceCapture.h"

namespace {

using XRV::testing::takeText;

class ConfigurationTest : public ::testing::Test {
 protected:
  void TearDown() override { unsetenv("XRV_TEST_FROM_ENV"); }
  bool load(const std::string& text, std::string* error = nullptr) {
    return file_.load(text, error);
  }
  const std::string& path() const { return file_.path(); }

 private:
  XRV::testing::ConfigurationFile file_;
};

TEST_F(ConfigurationTest, RuntimeValueThenEnvironmentThenFile) {
  ASSERT_TRUE(
      load("[agent]\n"
           "XRV_TEST_FROM_ENV = file\n"
           "XRV_TEST_FILE_ONLY = file\n"
           "[subnode LNX web01]\n"
           "XRV_TEST_FROM_ENV = subnode\n"
           "XRV_TEST_SUBNODE_ONLY = subnode\n"));
  setenv("XRV_TEST_FROM_ENV", "environment", 1);
  struct Case {
    const char* name;
    const char* type;
    const char* key;
    const char* expected;
  };
  const Case before[] = {
      {"XRV_TEST_FROM_ENV", nullptr, nullptr, "environment"},
      {"XRV_TEST_FILE_ONLY", nullptr, nullptr, "file"},
      {"XRV_TEST_SUBNODE_ONLY", nullptr, nullptr, "<null>"},
      {"XRV_TEST_NOWHERE", nullptr, nullptr, "<null>"},
      {"XRV_TEST_FROM_ENV", "LNX", "web01", "subnode"},
      {"XRV_TEST_SUBNODE_ONLY", "LNX", "web01", "subnode"},
      {"XRV_TEST_FILE_ONLY", "LNX", "web01", "file"},
      {"XRV_TEST_SUBNODE_ONLY", "LNX", "db01", "<null>"},
      {"XRV_TEST_FROM_ENV", "LNX", "db01", "environment"},
      {"XRV_TEST_FROM_ENV", "LNX", nullptr, "environment"},
  };
  for (const Case& c : before) {
    SCOPED_TRACE(std::string(c.name) + " " + (c.key ? c.key : "agent"));
    EXPECT_EQ(takeText(c.type == nullptr ? getConfigurationProperty(c.name)
                                         : getSubnodeConfigurationProperty(c.name, c.type, c.key)),
              c.expected);
  }

  setConfigurationProperty("XRV_TEST_FROM_ENV", "runtime");
  EXPECT_EQ(takeText(getConfigurationProperty("XRV_TEST_FROM_ENV")), "runtime");
  EXPECT_EQ(takeText(getSubnodeConfigurationProperty("XRV_TEST_FROM_ENV", "LNX", "web01")),
            "subnode");
  setConfigurationProperty("XRV_TEST_FROM_ENV", nullptr);
  EXPECT_EQ(takeText(getConfigurationProperty("XRV_TEST_FROM_ENV")), "environment");
}

TEST_F(ConfigurationTest, FwGetEnvFallsBackToTheDefault) {
  ASSERT_TRUE(load("[agent]\nCDP_DP_CACHE_TTL = 0\n"));
  EXPECT_EQ(takeText(fwGetEnv("CDP_DP_CACHE_TTL", "30")), "0");
  EXPECT_EQ(takeText(fwGetEnv("CDP_DP_NOT_SET_ANYWHERE", "30")), "30");
  EXPECT_EQ(takeText(fwGetEnv("CDP_DP_NOT_SET_ANYWHERE", nullptr)), "<null>");
  EXPECT_EQ(takeText(getConfigurationProperty(nullptr)), "<null>");
}

TEST_F(ConfigurationTest, SubnodeSectionsAreListedAndCopied) {
  ASSERT_TRUE(load("[subnode LNX web01]\nA = 1\nB = 2\n[subnode DB2 db01]\n[agent]\nC = 3\n"));
  std::vector<XRV::SubnodeSectionName> names = listSubnodeSections();
  ASSERT_EQ(names.size(), 2u);
  EXPECT_EQ(names[0].type, "LNX");
  EXPECT_EQ(names[0].key, "web01");
  EXPECT_EQ(names[1].type, "DB2");
  std::vector<std::pair<std::string, std::string>> values;
  ASSERT_TRUE(getSubnodeSection("LNX", "web01", &values));
  EXPECT_EQ(values, (std::vector<std::pair<std::string, std::string>>{{"A", "1"}, {"B", "2"}}));
  EXPECT_TRUE(getSubnodeSection("DB2", "db01", &values));
  EXPECT_TRUE(values.empty());
  EXPECT_FALSE(getSubnodeSection("LNX", "nope", &values));
}

TEST_F(ConfigurationTest, BrokenOrMissingFileIsRefusedAndKeepsEarlierValues) {
  ASSERT_TRUE(load("[agent]\nKEEP = me\n"));
  XRV::testing::TraceCapture capture("error");
  std::string error;
  EXPECT_FALSE(load("[agent]\nKEEP = other\nstray line\n", &error));
  EXPECT_EQ(error, path() + ":3: expected NAME = value: stray line");
  EXPECT_TRUE(capture.hasText(error)) << "the refusal is traced too";
  EXPECT_EQ(takeText(getConfigurationProperty("KEEP")), "me");

  setenv("XRV_CONFIG_FILE", "/nonexistent/agent.ini", 1);
  EXPECT_FALSE(loadAgentConfig(&error));
  EXPECT_NE(error.find("/nonexistent/agent.ini"), std::string::npos);

  unsetenv("XRV_CONFIG_FILE");
  EXPECT_TRUE(loadAgentConfig(&error)) << "no file configured is not an error";
}

}  // namespace
