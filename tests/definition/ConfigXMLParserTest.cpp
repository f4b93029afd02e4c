#include "definition/ConfigXMLParser.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/Parser.h"
#include "foundation/HashMap.h"
#include "support/Files.h"
#include "support/TestConfiguration.h"
#include "support/TraceCapture.h"

namespace {

// Records what the dispatcher hands it.
class ProbeParser : public XMLConfigParser {
 public:
  void startElement(const char* name, HashMap* attributes) override {
    std::string event = std::string("start:") + name;
    if (const char* id = getString(attributes, "id")) {
      event += std::string("#") + id;
    }
    events.push_back(event);
  }
  void endElement(const char* name) override { events.push_back(std::string("end:") + name); }
  void characters(const char* text) override { events.push_back(std::string("text:") + text); }
  std::vector<std::string> events;
};

class ConfigXMLParserTest : public ::testing::Test {
 protected:
  void TearDown() override {
    resetDefinitionState();
    instanceName.clear();
    unsetenv("MVOLA_SUBSYSTEM_ID");
  }
  static void read(std::string document) {
    ConfigXMLParser dispatcher;
    Parser parser(&dispatcher);
    ASSERT_TRUE(parser.parse(document.data()));
  }
};

TEST_F(ConfigXMLParserTest, RegisteredElementsGetTheirWholeSubtree) {
  ProbeParser probe;
  registerXMLConfigParser("probe", &probe);
  read(R"(<root>text outside<probe id="1"><inner id="2">a &amp; b</inner>)"
       R"(<probe id="3">nested</probe><after id="4"/></probe>)"
       R"(<probe id="5"/><other><probe id="6"/></other></root>)");
  registerXMLConfigParser("probe", nullptr);
  // The nested probe's end tag ends the dispatch: "after" and the outer end tag are
  // no longer the probe's.
  EXPECT_EQ(probe.events,
            (std::vector<std::string>{"start:probe#1", "start:inner#2", "text:a & b", "end:inner",
                                      "start:probe#3", "text:nested", "end:probe", "start:probe#5",
                                      "end:probe", "start:probe#6", "end:probe"}));
}

TEST_F(ConfigXMLParserTest, ApplicationSettings) {
  struct Case {
    const char* name;
    const char* instance;
    const char* longCode;
    const char* shortCode;
    const char* service;
  };
  const Case cases[] = {
      {"XRV", "", "XRV", "RV", "xrvagent"},
      {"XRVAGENT", "inst1", "XRV", "RV", "xrvagent_inst1"},
      {"AB", "", "AB", "B", "xrvagent"},
      {"", "", "", "", "xrvagent"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    instanceName.assign(c.instance);
    unsetenv("MVOLA_SUBSYSTEM_ID");
    read(std::string("<agent><appl name=\"") + c.name +
         R"(" nodeType="XR" hostName="h" hostType="Linux" affinity="%XRV.XRV" agentVersion="1.2")"
         R"( version="06.30.00" service="xrvagent" internalAgentVersion="7"/></agent>)");
    const ApplicationSettings& settings = applicationSettings();
    EXPECT_EQ(settings.longProductCode, c.longCode);
    EXPECT_EQ(settings.shortProductCode, c.shortCode);
    EXPECT_EQ(settings.serviceName, c.service);
    EXPECT_EQ(settings.affinity, "%XRV.XRV");
    EXPECT_EQ(settings.internalAgentVersion, "7");
    const char* subsystem = getenv("MVOLA_SUBSYSTEM_ID");
    EXPECT_STREQ(subsystem == nullptr ? "" : subsystem, c.instance);
    AgentInformation info = agentInformation();
    EXPECT_STREQ(info.applicationName, c.name);
    EXPECT_STREQ(info.serviceName, c.service);
    EXPECT_STREQ(info.instanceName, c.instance);
    EXPECT_STREQ(info.version, "06.30.00");
  }
}

TEST_F(ConfigXMLParserTest, EnvironmentVariablesAndRepeatableSections) {
  XRV::testing::ConfigurationFile file;
  ASSERT_TRUE(file.load("[agent]\nXRV_TEST_FROM_CONFIG = from the file\n"));
  unsetenv("XRV_TEST_FROM_CONFIG");
  XRV::testing::TraceCapture capture("detail");
  read(
      R"(<agent><env_variable name="XRV_TEST_FROM_CONFIG"/><env_variable name="XRV_TEST_NOWHERE"/>)"
      R"(<repeatable_section name="DB"/><repeatable_section name="URL"/></agent>)");
  const char* value = getenv("XRV_TEST_FROM_CONFIG");
  ASSERT_NE(value, nullptr);
  EXPECT_STREQ(value, "from the file");
  unsetenv("XRV_TEST_FROM_CONFIG");
  EXPECT_EQ(getenv("XRV_TEST_NOWHERE"), nullptr);
  EXPECT_TRUE(capture.hasText("Could not find any value for the variable XRV_TEST_NOWHERE"));
  ASSERT_EQ(repeatableSections().getCount(), 2);
  EXPECT_STREQ(static_cast<const char*>(repeatableSections().get(1)), "URL");
}

TEST_F(ConfigXMLParserTest, InitFromFile) {
  XRV::testing::TraceCapture capture("error");
  EXPECT_FALSE(initFromFile("/nonexistent/definition.xml"));
  EXPECT_TRUE(capture.hasText("Error opening file /nonexistent/definition.xml"));

  const std::string file = XRV::testing::temporaryFile("xrv-definition");
  const char* path = file.c_str();
  std::ofstream(path) << R"(<agent><appl name="XRV"/><metadata><ag name="G" table="T">)"
                         R"(<attr name="a" type="1" size="8"/></ag></metadata></agent>)";
  EXPECT_TRUE(initFromFile(path));
  ASSERT_NE(findAttributeGroupMeta("G"), nullptr);
  EXPECT_EQ(findAttributeGroupMeta("G")->rowSize(), 40);

  std::ofstream(path) << "[agent]\nCDP_DP_CACHE_TTL = 60\n";
  EXPECT_FALSE(initFromFile(path)) << "no <agent> element: not an agent with no tables";
  EXPECT_TRUE(capture.containsText("holds no <agent> element"));
  unlink(path);
  EXPECT_FALSE(initFromFile("/tmp")) << "a directory";
  EXPECT_TRUE(capture.hasText("/tmp is a directory, not a file"));
}

TEST_F(ConfigXMLParserTest, RegistryHoldsEveryElementOfThisBuild) {
  // What the agent binary's libraries register; grows with every data source.
  const char* const expected[] = {"appl", "env_variable", "metadata", "repeatable_section",
                                  "script"};
  std::vector<std::string> names = registeredElementNames();
  for (const char* name : expected) {
    EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
    EXPECT_NE(findXMLConfigParser(name), nullptr) << name;
  }
}

using ConfigXMLParserDeathTest = ConfigXMLParserTest;

TEST_F(ConfigXMLParserDeathTest, BrokenDefinitionEndsTheAgent) {
  EXPECT_EXIT(
      {
        XRV::trace::configure("off");
        read("<agent><metadata></agent>");
      },
      ::testing::KilledBySignal(SIGTERM), "^Fatal Error \\(-1\\) Detected\\. Exiting\n$");
  EXPECT_EXIT(
      {
        XRV::trace::configure("off");
        setenv("XRV_CONFIG_FILE", "/nonexistent/agent.ini", 1);
        read("<agent><appl name=\"XRV\"/></agent>");
      },
      ::testing::KilledBySignal(SIGTERM), "Fatal Error \\(-1\\) Detected\\. Exiting\n$");
}

}  // namespace
