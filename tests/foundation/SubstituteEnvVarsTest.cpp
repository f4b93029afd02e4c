#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "foundation/Utilities.h"
#include "framework/Configuration.h"
#include "support/TestConfiguration.h"

namespace {

using Text = XRV::testing::OwnedText;

const char* const kConfiguration =
    "[agent]\n"
    "AGENT_BIN_DIR = /opt/agent\n"
    "AGENT_ETC_DIR = /opt/agent/etc\n"
    "AGENT_LIB_DIR = /opt/agent/lib\n"
    "SSH_HOSTNAME = host1.example.com\n"
    "HOST_NAME = agent-host\n"
    "NESTED = ${AGENT_BIN_DIR}/nested\n"
    "[subnode LNX web01]\n"
    "HOST_NAME = web01.example.com\n"
    "AGENT_BIN_DIR = /srv/web01\n";

// Names the configuration defines, which the environment must not override here.
const char* const kNames[] = {"AGENT_BIN_DIR", "AGENT_ETC_DIR", "AGENT_LIB_DIR", "PELMO_HOME",
                              "PELMOHOME",     "SSH_HOSTNAME",  "HOST_NAME",     "NESTED"};

class SubstituteEnvVarsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* variable : kNames) {
      unsetenv(variable);
    }
    std::string error;
    ASSERT_TRUE(file_.load(kConfiguration, &error)) << error;
  }

  static std::string substitute(const char* text, bool allowAll, const char* type = nullptr,
                                const char* key = nullptr) {
    return XRV::testing::takeText(Utilities::substituteEnvVars(text, type, key, allowAll));
  }

 private:
  XRV::testing::ConfigurationFile file_;
};

struct Case {
  const char* text;
  bool allowAll;
  const char* expected;
};

void runCases(const Case* cases, size_t count, const char* type = nullptr,
              const char* key = nullptr) {
  for (size_t i = 0; i < count; ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(testing::PrintToString(std::string(c.text)) +
                 (c.allowAll ? " allowAll" : " allowed names only"));
    Text result(Utilities::substituteEnvVars(c.text, type, key, c.allowAll));
    ASSERT_NE(result, nullptr);
    EXPECT_STREQ(result.get(), c.expected);
  }
}

TEST_F(SubstituteEnvVarsTest, AgentLookups) {
  const Case cases[] = {
      {"cd ${AGENT_BIN_DIR}/bin", false, "cd /opt/agent/bin"},
      {"${AGENT_BIN_DIR}:${AGENT_LIB_DIR}:${AGENT_ETC_DIR}", false,
       "/opt/agent:/opt/agent/lib:/opt/agent/etc"},
      // Names outside the allowed five, unknown names: the reference goes.
      {"ssh ${SSH_HOSTNAME} ls", false, "ssh  ls"},
      {"${SSH_HOSTNAME}", true, "host1.example.com"},
      {"${agent_bin_dir}", false, ""},
      {"${PELMO_HOME}/x", false, "/x"},
      {"[${XRV_TEST_NO_SUCH_NAME}]", true, "[]"},
      {"${}", true, ""},
      {"${AGENT_BIN_DIR}}", false, "/opt/agent}"},
      {"$${AGENT_BIN_DIR} $AGENT_BIN_DIR {AGENT_BIN_DIR}", false,
       "$/opt/agent $AGENT_BIN_DIR {AGENT_BIN_DIR}"},
      // Without a "}" on the same line a reference stays.
      {"a ${NAME", false, "a ${NAME"},
      {"a ${NAME", true, "a ${NAME"},
      {"${AGENT_BIN_DIR}/x ${AGENT_BIN_DIR", false, "/opt/agent/x ${AGENT_BIN_DIR"},
      {"a ${AGENT_BIN_DIR\n}${AGENT_ETC_DIR}", false, "a ${AGENT_BIN_DIR\n}/opt/agent/etc\n"},
      {"${A ${AGENT_BIN_DIR}", false, ""},  // the name runs to the first "}"
      // Every line ends with a line feed once the text has one; empty lines stay.
      {"x\ny", false, "x\ny\n"},
      {"xy", false, "xy"},
      {"", false, ""},
      {"x\n", false, "x\n"},
      {"\n\n${AGENT_BIN_DIR}\n\nz", false, "\n\n/opt/agent\n\nz\n"},
      {"line ${AGENT_BIN_DIR}\r\nnext", false, "line /opt/agent\r\nnext\n"},
  };
  runCases(cases, std::size(cases));
}

TEST_F(SubstituteEnvVarsTest, SubnodeLookups) {
  const Case web01[] = {
      {"${HOST_NAME}", true, "web01.example.com"},
      {"${HOST_NAME}", false, ""},
      {"${AGENT_BIN_DIR}/bin", false, "/srv/web01/bin"},
      {"${SSH_HOSTNAME}", true, "host1.example.com"},  // not in the section: the agent's
  };
  {
    SCOPED_TRACE("LNX web01");
    runCases(web01, std::size(web01), "LNX", "web01");
  }
  const Case agent[] = {
      {"${HOST_NAME}", true, "agent-host"},
      {"${AGENT_BIN_DIR}/bin", false, "/opt/agent/bin"},
  };
  const char* const partial[][2] = {{"LNX", nullptr}, {nullptr, "web01"}, {"LNX", "db01"}};
  for (const auto& subnode : partial) {
    SCOPED_TRACE(std::string(subnode[0] ? subnode[0] : "null") + " " +
                 (subnode[1] ? subnode[1] : "null"));
    runCases(agent, std::size(agent), subnode[0], subnode[1]);
  }
}

TEST_F(SubstituteEnvVarsTest, RuntimeValuesAndRepeatedExpansion) {
  setConfigurationProperty("AGENT_BIN_DIR", "/run/time");
  EXPECT_EQ(substitute("${AGENT_BIN_DIR}", false), "/run/time");

  // One pass expands one level; the configuration discovery runs it twice.
  std::string once = substitute("${NESTED}", true);
  EXPECT_EQ(once, "${AGENT_BIN_DIR}/nested");
  EXPECT_EQ(substitute(once.c_str(), true), "/run/time/nested");

  EXPECT_EQ(substitute(nullptr, true), "<null>");
}

}  // namespace
