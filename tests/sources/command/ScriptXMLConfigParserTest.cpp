#include <gtest/gtest.h>

#include <string>

#include "ScriptTestSupport.h"
#include "definition/DefinitionCheck.h"
#include "definition/Metric.h"
#include "provider/UAClientClassList.h"
#include "sources/command/ShellQueryClass.h"

namespace {

class ScriptXMLConfigParserTest : public ::testing::Test {
 protected:
  void TearDown() override { XRV::testing::resetScriptTestState(); }

  // Reads `document`; the providers it made stay in the agent's list.
  static DefinitionCheck read(const std::string& document) {
    DefinitionCheck check;
    EXPECT_TRUE(check.check(document)) << (check.error() ? check.error()->message : "");
    return check;
  }
  static ShellQueryClass* provider(int index) {
    UAClientClass* provider = queryClassList().getFirst();
    for (int i = 0; i < index && provider != nullptr; ++i) {
      provider = static_cast<UAClientClass*>(provider->getNextElement());
    }
    return static_cast<ShellQueryClass*>(provider);
  }
};

TEST_F(ScriptXMLConfigParserTest, ScriptElementMakesOneProviderWithItsSettingsAndMetrics) {
  read(R"(<agent>
<script app="XRV" ag="Disks" name="disk usage" command="df -P" separator=" " utf8_input="true" multipleSpaceSeparator="true">
<metric name="Mount" type="STRING_DATA" size="64" key="true" visible="true"/>
<metric name="Quoted" type="STRING_DATA" size="32"><delimString begin="[" end="]"/></metric>
<metric name="Cut" type="STRING_DATA" size="8"><delimSpecial value=":" maxChars="4"/></metric>
<metric name="Rest" type="STRING_DATA" size="128" visible="true"><delimSpecial isLast="true"/></metric>
</script>
<script app="XRV" ag="Load" command="cat /proc/loadavg" separator=","/>
</agent>)");
  ASSERT_EQ(queryClassList().getCount(), 2);
  ShellQueryClass* disks = provider(0);
  EXPECT_STREQ(disks->getAttributeGroup(), "Disks");
  EXPECT_STREQ(disks->getApplicationName(), "XRV");
  EXPECT_STREQ(disks->getPerfObjectName(), "disk usage");
  EXPECT_STREQ(disks->getCommand(), "df -P");
  EXPECT_TRUE(disks->getIsUTF8Input());
  // The separators and the ssh flag show in how ShellQueryClassTest's providers work.
  ASSERT_EQ(disks->getMetricCount(), 4);

  const Metric* mount = disks->getMetric(0);
  EXPECT_STREQ(mount->getMetricName(), "Mount");
  EXPECT_TRUE(mount->getIsKey());
  EXPECT_FALSE(mount->getIsHidden());
  EXPECT_TRUE(disks->getMetric(1)->getIsHidden());
  // How the delimiter elements cut a line is ShellQueryClassTest's.

  ShellQueryClass* load = provider(1);
  EXPECT_STREQ(load->getAttributeGroup(), "Load");
  EXPECT_STREQ(load->getPerfObjectName(), "Load");  // no name: the group's
  EXPECT_EQ(load->getMetricCount(), 0);
}

TEST_F(ScriptXMLConfigParserTest, IncompleteScriptElementsAreIgnoredWithAWarning) {
  struct Case {
    const char* element;
    const char* warning;
  };
  const Case cases[] = {
      {R"(<script command="true"><metric name="a"/></script>)",
       "A script element without an ag attribute is ignored"},
      {R"(<script ag="G"><metric name="a"/></script>)",
       "The script element of attribute group G has no command and is ignored"},
      {R"(<script ag="G" command=""/>)",
       "The script element of attribute group G has no command and is ignored"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.element);
    DefinitionCheck check = read(std::string("<agent>") + c.element + "</agent>");
    EXPECT_EQ(queryClassList().getCount(), 0);
    ASSERT_EQ(check.warnings().size(), 1U);
    EXPECT_EQ(check.warnings()[0].message, c.warning);
  }
}

TEST_F(ScriptXMLConfigParserTest, ForgettingTheDefinitionDropsItsProviders) {
  read(R"(<agent><script ag="A" command="true"/><script ag="B" command="true"/></agent>)");
  EXPECT_EQ(queryClassList().getCount(), 2);
  resetDefinitionState();
  EXPECT_EQ(queryClassList().getCount(), 0);
}

TEST_F(ScriptXMLConfigParserTest, ScriptCutOffByABrokenDefinitionIsNotKept) {
  DefinitionCheck check;
  EXPECT_FALSE(check.check(R"(<agent><script ag="A" command="true"><metric name="x"></agent>)"));
  EXPECT_EQ(queryClassList().getCount(), 0);
  // The next definition starts clean.
  read(R"(<agent><script ag="B" command="true"><metric name="y"/></script></agent>)");
  ASSERT_EQ(queryClassList().getCount(), 1);
  EXPECT_EQ(provider(0)->getMetricCount(), 1);
}

}  // namespace
