// The format-file language: what a text becomes, and where and why a wrong one is
// refused.

#include <gtest/gtest.h>

#include "logmon/format/QRFParser.h"

namespace {

QRFParseSettings settings() {
  QRFParseSettings parse;
  parse.defaultValue = [](const std::string& name, int, std::string* value) {
    *value = "<" + name + ">";
    return name != "unknown";
  };
  return parse;
}

QRFParseResult parse(const std::string& text) { return parseFormatText(text, settings()); }

std::vector<std::string> slotNames(const QRFFormatNode& node) {
  std::vector<std::string> names;
  for (const auto& slot : node.getSlots()) {
    names.push_back(slot->getName());
  }
  return names;
}

TEST(QRFParser, ErrorsNameTheLineTheTokenAndWhatWasExpected) {
  const std::string longWord(20000, 'w');
  struct Case {
    std::string text;
    int line;
    std::string token;
    std::string message;
  } cases[] = {
      {"\n# comment\npattern %s\n", 3, "pattern", "expected 'format' to begin a format"},
      {"format\n", 1, "end of line", "expected the format's class name after 'format'"},
      {"format A B\nend\n", 1, "B", "expected 'extends' or the end of the line after the class name"},
      {"format A extends B\nend\n", 1, "B", "B is not defined"},
      {"format A extends\nend\n", 1, "end of line",
       "expected the class of a format defined above after 'extends'"},
      {"format A\n  pattern %s\n", 3, "end of file",
       "expected 'end' to close format A begun at line 1"},
      {"\nformat A\nformat B\nend\n", 3, "format",
       "expected 'end' to close format A begun at line 2"},
      {"format A\nend now\n", 2, "now", "expected the end of the line after 'end'"},
      {"format A\n  x $1\nend\n", 2, "$1", "expected '=' after the slot name x"},
      {"format A\n  x =\nend\n", 2, "end of line",
       "expected a value: $N, \"text\", default, printf(...) or list(...)"},
      {"format A\n  x = y\nend\n", 2, "y",
       "expected a value: $N, \"text\", default, printf(...) or list(...)"},
      {"format A\n  x = $1 $2\nend\n", 2, "$2", "expected the end of the line after the value of slot x"},
      {"format A\n  x = $0\nend\n", 2, "$0", "variables are numbered from $1"},
      {"format A\n  x = $123456\nend\n", 2, "$123456", "variables are numbered from $1 to $9999"},
      {"format A\n  x = $\nend\n", 2, "$", "expected a number after '$'"},
      {"format A\n  9x = $1\nend\n", 2, "9x",
       "expected a slot name (a letter or _, then letters, digits and _)"},
      {"format A\n  hidden = $1\nend\n", 2, "=",
       "expected a slot name (a letter or _, then letters, digits and _)"},
      {"format A\n  __QRF_Class_Slot = $1\nend\n", 2, "__QRF_Class_Slot",
       "slot names beginning with __QRF are reserved"},
      {"format A\n  x = \"open\nend\n", 2, "\"open", "a text in double quotes must end on its line"},
      {"format A\n  x = %HOST%\nend\n", 2, "%HOST%",
       "expected a value: $N, \"text\", default, printf(...) or list(...)"},
      {"format A\n  x = %HOST\nend\n", 2, "%HOST", "expected a token such as %XRV_FILENAME%"},
      {"format A\n  x = printf \"%s\"\nend\n", 2, "\"%s\"", "expected '(' after printf"},
      {"format A\n  x = printf($1)\nend\n", 2, "$1",
       "expected the control string of printf, in double quotes"},
      {"format A\n  x = printf(\"%s\" a)\nend\n", 2, "a", "expected ',' or ')' in printf"},
      {"format A\n  x = printf(\"%s\", $1)\nend\n", 2, "$1", "expected the name of a slot in printf"},
      {"format A\n  x = list()\nend\n", 2, ")", "expected $N or \"text\" as an item of list"},
      {"format A\n  x = list($1 $2)\nend\n", 2, "$2", "expected ',' or ')' in list"},
      {"format A\n  pattern\nend\n", 2, "pattern", "expected the expression after 'pattern'"},
      {"format A\n  regex   \nend\n", 2, "regex", "expected the expression after 'regex'"},
      {"format A\n  pattern %s\n\n  regex .*\nend\n", 4, "regex",
       "a format has one pattern or regex, and this one has one since line 2"},
      {"format A\n  regex (?x)a # b\nend\n", 2, "(?x)a # b",
       "in a format's regex the flag x (extended mode) cannot be used"},
      {"format A\n  regex a(?i-x:b)\nend\n", 2, "a(?i-x:b)",
       "in a format's regex the flag x (extended mode) cannot be used"},
      {"format A\n  regex [a[bc]]\nend\n", 2, "[a[bc]]",
       "in a format's regex a [ inside a character class must be written \\["},
      {"format A\n  map\nend\n", 2, "end of line",
       "expected a slot, %XRV_FILENAME% or %XRV_REGEX% after 'map'"},
      {"format A\n  map x CustomSlot1\nend\n", 2, "CustomSlot1",
       "expected 'to' after the slot of a mapping"},
      {"format A\n  map x to\nend\n", 2, "end of line",
       "expected the name of a custom attribute after 'to'"},
      {"format A\n  x = $1\n  map y to CustomSlot1\nend\n", 3, "y",
       "Invalid PQL attribute mapping: 'y'"},
      {"format A\n  map %XRV_REMHOST% to CustomSlot1\nend\n", 2, "%XRV_REMHOST%",
       "Invalid PQL attribute mapping: '%XRV_REMHOST%'"},
      {"format A\n  (\nend\n", 2, "(", "expected a slot, 'pattern', 'regex', 'map' or 'end'"},
      {"format A\n  x = \"a\x01\"\nend\n", 2, "\\x01", "control characters are not allowed"},
      {"format A\n  pattern a\x7f\nend\n", 2, "\\x7f", "control characters are not allowed"},
      {"format " + longWord + "\nend\n", 1, longWord.substr(0, 100),
       "token too long " + longWord.substr(0, 100)},
      {"format A\n  pattern " + longWord + "\nend\n", 2, longWord.substr(0, 100),
       "token too long " + longWord.substr(0, 100)},
      {std::string("format A\n  x = \"a\0b\"\nend\n", 25), 2, "\\x00",
       "control characters are not allowed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 80));
    QRFParseResult result = parse(c.text);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.errorLine, c.line);
    EXPECT_EQ(result.errorToken, c.token);
    EXPECT_EQ(result.errorMessage, c.message);
    EXPECT_TRUE(result.formats.empty());
  }
  QRFParseResult regex = parse("format A\n  regex (a\nend\n");
  EXPECT_EQ(regex.errorLine, 2);
  EXPECT_EQ(regex.errorToken, "(a");
  EXPECT_EQ(regex.errorMessage.rfind("Invalid regular expression at position: ", 0), 0u)
      << regex.errorMessage;
}

TEST(QRFParser, ExpressionsAreCutIntoParts) {
  QRFParseResult result = parse(
      "FORMAT A\n  Pattern   [%s]  %t %12s+x%%y%n%q end  \r\nEND\nformat B\n  regex ^(a)(?:b)(?<c>d)\nend");
  ASSERT_TRUE(result.ok) << result.errorMessage;
  ASSERT_EQ(result.formats.size(), 2u);
  const QRFFormatNode& a = *result.formats[0];
  std::vector<std::string> parts;
  for (int i = 0; i < a.getNumExpressionParts(); ++i) {
    parts.push_back(a.getExpressionPart(i));
  }
  EXPECT_EQ(parts, (std::vector<std::string>{"[", "%s", "]", "  ", "%t", " ", "%12s+", "x", "%%",
                                             "y", "%n", "%q", " ", "end"}));
  EXPECT_EQ(a.getExpressionString(), "[%s]  %t %12s+x%%y%n%q end");
  EXPECT_EQ(a.getVariableCount(), 3);
  EXPECT_EQ(a.getExpressionLine(), 2);
  const QRFFormatNode& b = *result.formats[1];
  EXPECT_EQ(b.getRegex(), "^(a)(?:b)(?<c>d)");
  EXPECT_EQ(b.getVariableCount(), 2);
  EXPECT_EQ(b.getIndex(), 1);
  EXPECT_EQ(b.getLine(), 4);
}

TEST(QRFParser, SlotValuesAndMappings) {
  QRFParseResult result = parse(
      "format A   # the only one\n"
      "  pattern %s %s\n"
      "  v = $2\n"
      "  t = \"a \\\"b\\\" \\\\ \\n\"\n"
      "  h = default\n"
      "  unknown = default\n"
      "  p = printf(\"%s/%s\", v, t)\n"
      "  l = list($1, \"x\")\n"
      "  hidden secret = $1\n"
      "  f = %XRV_REMHOST%\n"
      "  map v to CustomInteger1\n"
      "  map %XRV_FILENAME% to CustomSlot9\n"
      "end\n");
  ASSERT_TRUE(result.ok) << result.errorMessage;
  const QRFFormatNode& node = *result.formats[0];
  EXPECT_EQ(slotNames(node),
            (std::vector<std::string>{"v", "t", "h", "p", "l", "secret", "f", "XRV_FILENAME"}));
  EXPECT_EQ(node.getSlot("v")->getType(), QRF_SLOT_VARIABLE);
  EXPECT_EQ(node.getSlot("v")->getVariable(), 2);
  EXPECT_EQ(node.getSlot("v")->getPQLCustomSlot(), "CustomInteger1");
  EXPECT_EQ(node.getSlot("v")->getLine(), 3);
  EXPECT_EQ(node.getSlot("t")->getValue(), "a \"b\" \\ \\n");
  EXPECT_EQ(node.getSlot("h")->getValue(), "<h>");
  EXPECT_EQ(node.getSlot("h")->getType(), QRF_SLOT_DEFAULT);
  EXPECT_EQ(node.getSlot("p")->getValue(), "%s/%s");
  EXPECT_EQ(node.getSlot("p")->getPrintfVars(), (std::vector<std::string>{"v", "t"}));
  ASSERT_EQ(node.getSlot("l")->getListItems().size(), 2u);
  EXPECT_TRUE(node.getSlot("l")->getListItems()[0].variable);
  EXPECT_EQ(node.getSlot("l")->getListItems()[1].text, "x");
  EXPECT_FALSE(node.getSlot("secret")->isVisible());
  EXPECT_TRUE(node.getSlot("v")->isVisible());
  EXPECT_EQ(node.getSlot("f")->getValue(), "%XRV_REMHOST%");
  EXPECT_EQ(node.getSlot("XRV_FILENAME")->getValue(), "%XRV_FILENAME%");
  EXPECT_EQ(node.getSlot("XRV_FILENAME")->getPQLCustomSlot(), "CustomSlot9");
}

TEST(QRFParser, InheritanceTakesTheSuperclassSlotsAndExpression) {
  QRFParseResult result = parse(
      "format Base\n  a = \"1\"\n  b = \"2\"\n  map b to CustomSlot1\nend\n"
      "format Base\n  pattern %s\n  a = $1\n  b = $1\n  map b to CustomSlot2\nend\n"
      "format Child extends Base\n  c = \"3\"\n  b = \"4\"\nend\n"
      "format Other extends Child\n  pattern x %s %s\n  map a to CustomSlot5\nend\n");
  ASSERT_TRUE(result.ok) << result.errorMessage;
  ASSERT_EQ(result.formats.size(), 4u);
  const QRFFormatNode& base = *result.formats[0];
  EXPECT_FALSE(base.hasExpression());
  // The superclass is the last format of that class defined before.
  const QRFFormatNode& child = *result.formats[2];
  EXPECT_EQ(child.getSuperclass(), result.formats[1].get());
  EXPECT_EQ(slotNames(child), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(child.getSlot("a")->getValue(), "$1");
  EXPECT_EQ(child.getSlot("b")->getValue(), "4");
  EXPECT_EQ(child.getSlot("b")->getPQLCustomSlot(), "CustomSlot2");
  EXPECT_EQ(child.getExpressionString(), "%s");
  EXPECT_EQ(child.getExpressionLine(), 7);
  EXPECT_EQ(child.getVariableCount(), 1);
  const QRFFormatNode& other = *result.formats[3];
  EXPECT_EQ(other.getExpressionString(), "x %s %s");
  EXPECT_EQ(other.getVariableCount(), 2);
  EXPECT_EQ(other.getSlot("a")->getPQLCustomSlot(), "CustomSlot5");
  EXPECT_EQ(other.getSlot("c")->getValue(), "3");
  // Slots of a superclass are copies: changing one leaves the other alone.
  EXPECT_EQ(result.formats[1]->getSlot("a")->getPQLCustomSlot(), "");
}

TEST(QRFParser, EmptyAndCommentOnlyTextsHaveNoFormats) {
  for (const char* text : {"", "\n\n", "# nothing\n   # at all", "\r\n"}) {
    QRFParseResult result = parse(text);
    EXPECT_TRUE(result.ok) << text;
    EXPECT_TRUE(result.formats.empty());
  }
}

}  // namespace
