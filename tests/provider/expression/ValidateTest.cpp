// xrvctl validate on a definition with a formula and a filter that do not parse: both
// are reported with the text and the marker line, and the definition stays usable.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "support/Files.h"

namespace {

using XRV::testing::readFile;
using XRV::testing::temporaryFile;

TEST(Validate, ReportsFormulasAndFiltersThatDoNotParse) {
  const std::string definition = temporaryFile("expressions.xml");
  std::ofstream(definition) << R"xml(<agent>
  <appl name="XRV" nodeType="XR"/>
  <metadata>
    <ag name="Hosts" table="XRVHOST" filter_expression="Load &gt; AND Name LIKE &quot;web*&quot;">
      <attr name="Name" type="2" size="16"/>
      <attr name="Load" type="0" size="4"/>
      <attr name="Twice" type="0" size="4"/>
    </ag>
    <ag name="Good" table="XRVGOOD" filter_expression_grammar="expression" filter_expression="Load &gt; 1 &amp;&amp; like(Name, 'db*')">
      <attr name="Name" type="2" size="16"/>
      <attr name="Load" type="0" size="4"/>
    </ag>
    <ag name="Odd" table="XRVODD" filter_expression_grammar="sql" filter_expression="x">
      <attr name="Load" type="0" size="4"/>
    </ag>
  </metadata>
  <script app="XRV" ag="Hosts" command="echo web 1">
    <metric name="Name" type="STRING_DATA" visible="true"/>
    <metric name="Load" type="NUMERIC_DATA" visible="true"/>
    <metric name="Twice" type="NUMERIC_DATA" formula="Load * * 2" visible="true"/>
  </script>
  <script app="XRV" ag="Good" command="echo db 1">
    <metric name="Name" type="STRING_DATA" visible="true"/>
    <metric name="Load" type="NUMERIC_DATA" visible="true"/>
  </script>
  <script app="XRV" ag="Odd" command="echo 1">
    <metric name="Load" type="NUMERIC_DATA" visible="true"/>
  </script>
</agent>
)xml";
  const std::string out = temporaryFile("validate.out");
  const std::string err = temporaryFile("validate.err");
  int status = std::system(
      (std::string(XRVCTL) + " validate " + definition + " >" + out + " 2>" + err).c_str());
  const std::string errors = readFile(err);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << errors;
  EXPECT_NE(
      errors.find(definition + ":20: warning: Error parsing expression:\nLoad * * 2\n       ^\n"),
      std::string::npos)
      << errors;
  EXPECT_NE(errors.find(definition +
                        ": warning: Attribute group Hosts: its filter does not parse (expected an "
                        "attribute or a value but found the keyword AND), so no row is filtered "
                        "out:\nLoad > AND Name LIKE \"web*\"\n         ^\n"),
            std::string::npos)
      << errors;
  EXPECT_NE(errors.find("Attribute group Odd names the unknown filter grammar sql"),
            std::string::npos)
      << errors;
  EXPECT_EQ(errors.find("Attribute group Good"), std::string::npos) << errors;
  EXPECT_NE(readFile(out).find("3 attribute groups, 3 warnings"), std::string::npos) << readFile(out);
  unlink(definition.c_str());
  unlink(out.c_str());
  unlink(err.c_str());
}

}  // namespace
