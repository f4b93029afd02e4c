// The filter terms and REPLACEFIRST templates that format expressions, regular
// expressions and slots become.

#include <gtest/gtest.h>

#include "FormatTestSupport.h"
#include "logmon/format/QRFEventText.h"
#include "support/TraceCapture.h"

namespace {

using XRV::testing::FormatTest;
using XRV::testing::generate;
using XRV::testing::oneFormat;
using XRV::testing::TraceCapture;

// What a pattern of class C with no slots gives: its filter term, "" when dropped.
std::string filterOf(const std::string& pattern, const std::string& conf = "") {
  XRV::testing::Generated generated = generate(conf, oneFormat(pattern));
  EXPECT_EQ(generated.config->getError(), 0);
  return generated.config->generateMdlFilter(0);
}

const std::string kStart = "ScanRegEx(0,^()[ \t]*";
const std::string kEnd = "[ \t]*()$,REPLACEFIRST(0#))";
const std::string kStrictBlank = "[ \t\\t\\r\\f\\v]+";
const std::string kStrictEnd = "[ \t\\t\\r\\f\\v]*()$,REPLACEFIRST(0#))";

class QRFFilterTest : public FormatTest {};

TEST_F(QRFFilterTest, EachConstructOfAnExpression) {
  struct Case {
    const char* pattern;
    std::string regex;  // between the fixed start and end
  } cases[] = {
      {"%s", "(\\S+)"},
      {"%s+", "(\\S.*)"},
      {"%s*", "(.*)"},
      {"x %s*", "x +(.*)"},
      {"%12s", "(\\S{1,12})\\S*?"},
      {"%1s", "(\\S{1,1})\\S*?"},
      {"%0s", "(\\S+?)"},
      {"%70000s", "(\\S{1,65535})\\S*?"},
      {"%t", "(\\S+ +\\S+ +\\S+)"},
      {"a%nb", "a\\r?\\nb"},
      {"a b   c", "a +b +c"},
      {"a\tb", "a\tb"},
      {"100%% %s", "100% +(\\S+)"},
      {"%s-%s:%t", "(\\S+)-(\\S+):(\\S+ +\\S+ +\\S+)"},
      {"*?+[(){}^$|\\./]", "\\*\\?\\+\\[\\(\\)\\{\\}\\^\\$\\|\\\\\\.\\/]"},
      {"user=%s,id=%5s", "user=(\\S+),id=(\\S{1,5})\\S*?"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pattern);
    EXPECT_EQ(filterOf(c.pattern), kStart + c.regex + kEnd);
  }
}

TEST_F(QRFFilterTest, StrictModeTakesTabsAndOtherBlanksForSpaces) {
  TraceCapture trace;
  EXPECT_EQ(filterOf("a\tb %s", "ENFORCE_STRICT_WSK_COMPATIBILITY=yes"),
            kStart + "a" + kStrictBlank + "b" + kStrictBlank + "(\\S+)" + kStrictEnd);
  EXPECT_TRUE(trace.hasText(
      "QRF enforcing strict WSK compatibility-- TABs will be treated as spaces.  Note performance "
      "penalty"));
  EXPECT_EQ(filterOf("a\tb", "ENFORCE_STRICT_WSK_COMPATIBILITY=no"), kStart + "a\tb" + kEnd);
}

TEST_F(QRFFilterTest, ExpressionsThatCannotBeUsedAreDroppedWithTheirReason) {
  struct Case {
    const char* pattern;
    std::string text;
  } cases[] = {
      {"%s%s",
       "WARNING: Invalid construct \"%s%s\" in expression \"%s%s\".  This can never match; "
       "discarding"},
      {"x %t%s*",
       "WARNING: Invalid construct \"%s%s\" in expression \"x %t%s*\".  This can never match; "
       "discarding"},
      {"x %q", "Format for class C contains illegal variable \"%q\" in format expression \"x %q\""},
      {"%5t", "Format for class C contains illegal variable \"%5t\" in format expression \"%5t\""},
      {"a %", "Format for class C contains illegal variable \"%\" in format expression \"a %\""},
      {"%s?", "Repeat signifier ? not recognized-- only '+' and '*' are allowed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pattern);
    TraceCapture trace;
    XRV::testing::Generated generated = generate("LogSources=/l", oneFormat(c.pattern));
    EXPECT_EQ(generated.config->generateMdlFilter(0), "");
    EXPECT_TRUE(trace.hasText(c.text));
    EXPECT_TRUE(generated.hasDiagnostic(c.text));
    EXPECT_EQ(generated.config->diagnostics().front().line, 2);
    // A file whose only format is dropped yields a text the engine refuses: said too.
    EXPECT_EQ(generated.filter(), "");
  }
}

TEST_F(QRFFilterTest, RegularExpressionsAndTheLinesTheySpan) {
  struct Case {
    const char* regex;
    std::string filter;
    int lines;
  } cases[] = {
      {"^(a+) (b)$", "MatchRegEx(0,()^(a+) (b)$()", 1},
      {"(?i)error", "MatchRegEx(0,()(?i)error()", 1},
      {"a\\nb[\\n]c\\\\nd\\n", "MatchRegEx(0,()a\\r?\\nb[\\n]c\\\\nd\\r?\\n()", 3},
      {"x[^\\]\\n]\\ny", "MatchRegEx(0,()x[^\\]\\n]\\r?\\ny()", 2},
      // A quote that runs to the end is closed before the "()" behind it.
      {"a\\Q(x\\ny", "MatchRegEx(0,()a\\Q(x\\ny\\E()", 1},
      {"a\\Q\\n\\E\\n(?#\\n)b", "MatchRegEx(0,()a\\Q\\n\\E\\r?\\n(?#\\n)b()", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.regex);
    TraceCapture trace;
    XRV::testing::Generated generated =
        generate("", std::string("format C\n  regex ") + c.regex + "\nend\n");
    ASSERT_EQ(generated.config->getError(), 0);
    EXPECT_EQ(generated.config->generateMdlFilter(0), c.filter + ",REPLACEFIRST(0#))");
    EXPECT_EQ(trace.hasText("Format for class C is " + std::to_string(c.lines) + " lines long"),
              c.lines > 1);
  }
}

TEST_F(QRFFilterTest, SlotsBecomeTheTemplate) {
  const std::string name = "\x01";
  const std::string endName = "\x04";
  const std::string value = "\x02";
  const std::string endValue = "\x03";
  auto slot = [&](const std::string& n, const std::string& v) {
    return name + n + endName + value + v + endValue;
  };
  struct Case {
    const char* why;
    const char* body;
    std::string text;  // after "0#"
  } cases[] = {
      {"a variable is group N+1", "  v = $2\n", slot("v", "$3")},
      {"a text is quoted", "  v = \"a$b)c\\\\d\"\n", slot("v", "a\\$b\\)c\\\\d")},
      {"printf fills in slots", "  hidden a = $1\n  b = $2\n  p = printf(\"%s-%s\", a, b)\n",
       slot("b", "$3") + slot("p", "$2-$3")},
      {"a digit after a variable stays apart", "  hidden a = $1\n  p = printf(\"%s1 %%\", a)\n",
       slot("p", "${2}1 %")},
      {"printf of printf", "  hidden a = $1\n  hidden p = printf(\"<%s>\", a)\n"
                           "  q = printf(\"[%s]\", p)\n",
       slot("q", "[<$2>]")},
      {"a list", "  l = list($1, \"x)\", $2)\n", slot("l", "\x0f$2\x06x\\)\x06$3\x0e")},
      {"a token", "  f = %XRV_FILENAME%\n", slot("f", "%XRV_FILENAME%")},
      {"hidden slots are left out", "  hidden h = $1\n", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    XRV::testing::Generated generated = generate("", oneFormat("%s %s", c.body));
    ASSERT_EQ(generated.config->getError(), 0);
    EXPECT_EQ(generated.config->generateMdlFilter(0),
              kStart + "(\\S+) +(\\S+)[ \t]*()$,REPLACEFIRST(0#" + c.text + "))");
  }
}

TEST_F(QRFFilterTest, SlotsThatCannotBeWrittenAreLeftOutWithTheirReason) {
  struct Case {
    const char* body;
    std::string text;  // the reason
    std::string kept;  // what the template keeps after "0#"
  } cases[] = {
      {"  p = printf(\"%s %s\", a)\n  hidden a = $1\n",
       "Invalid PRINTF in format C, slot p.  There are not enough variables to satisfy all the "
       "'%s' controls in the format string",
       ""},
      {"  p = printf(\"<%s>\", nosuch)\n",
       "WARNING: undefined slot nosuch in printf, continuing with literal value",
       "\x01p\x04\x02<nosuch>\x03"},
      {"  p = printf(\"%s\", a, a)\n  hidden a = $1\n",
       "WARNING: PRINTF in format C, slot p has more variables than '%s' controls; the rest are "
       "ignored",
       "\x01p\x04\x02$2\x03"},
      {"  v = $3\n",
       "WARNING: slot v of format C refers to $3, but the format has 1 variables; leaving the "
       "slot out",
       ""},
      {"  a = printf(\"%s\", b)\n  b = printf(\"%s\", a)\n",
       "Invalid PRINTF in format C, slot a.  PRINTF slots fill in each other more than 8 deep",
       ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    TraceCapture trace;
    XRV::testing::Generated generated = generate("LogSources=/l", oneFormat("%s", c.body));
    ASSERT_EQ(generated.config->getError(), 0);
    EXPECT_TRUE(trace.hasText(c.text));
    EXPECT_TRUE(generated.hasDiagnostic(c.text));
    EXPECT_EQ(generated.config->diagnostics().front().line, 3);
    EXPECT_EQ(generated.config->generateMdlFilter(0),
              kStart + "(\\S+)" + kEnd.substr(0, kEnd.size() - 2) + c.kept + "))");
  }
}

TEST_F(QRFFilterTest, SeparatorKeysChangeTheTags) {
  XRV::testing::Generated generated =
      generate("QRF_START_NAME=$\nQRF_END_NAME=<<\nQRF_START_VAL=\nQRF_END_VAL=)\n"
               "QRF_LIST_SEPARATOR=|\nQRF_START_LIST=[\nQRF_END_LIST=]\nQRF_QUOTE=q",
               oneFormat("%s", "  v = list($1, \"a\")\n"));
  const QRFConfig& config = *generated.config;
  EXPECT_EQ(config.getStartNameTag(), '$');
  EXPECT_EQ(config.getEndNameTag(), '<');
  EXPECT_EQ(config.getStartValTag(), '\x02');  // an empty value keeps the default
  EXPECT_EQ(config.getEndValTag(), ')');
  EXPECT_EQ(config.getQuoteTag(), 'q');
  EXPECT_EQ(config.getListSeparatorTag(), '|');
  EXPECT_EQ(config.getStartListTag(), '[');
  EXPECT_EQ(config.getEndListTag(), ']');
  EXPECT_EQ(generated.config->generateMdlFilter(0),
            kStart + "(\\S+)[ \t]*()$,REPLACEFIRST(0#\\$v<\x02[$2|a]\\)))");
}

TEST_F(QRFFilterTest, EscapingHelpers) {
  EXPECT_EQ(QRFConfig::escapeRegexChars("a.b*c?d+e[f(g)h{i}j^k$l|m\\n/o]p"),
            "a\\.b\\*c\\?d\\+e\\[f\\(g\\)h\\{i\\}j\\^k\\$l\\|m\\\\n\\/o]p");
  EXPECT_EQ(QRFConfig::quoteSlotValue("(a) $1 \\ b"), "(a\\) \\$1 \\\\ b");
  EXPECT_EQ(QRFConfig::generateFilenameRegex("/var/log/app*.log"), "/var/log/^app.*\\.log$");
  EXPECT_EQ(QRFConfig::generateFilenameRegex("/var/log/a?c/x+y/z.log"),
            "/var/log/^a.c$/^x\\+y$/z.log");
  EXPECT_EQ(QRFConfig::generateFilenameRegex("logs/*"), "logs/^.*$");
}

}  // namespace

namespace {

TEST_F(QRFFilterTest, EventTextsReadBack) {
  XRV::testing::Generated generated = generate("QRF_QUOTE=~", oneFormat("%s"));
  const QRFConfig& config = *generated.config;
  QRFEventText event;
  ASSERT_TRUE(decodeEventText("12#\x01" "a\x04\x02one\x03\x01" "b\x04\x02\x0fx\x06y\x0e\x03\x01"
                              "c\x04\x02~\x03~z\x03",
                              config, &event));
  EXPECT_EQ(event.formatIndex, 12);
  ASSERT_EQ(event.slots.size(), 3u);
  EXPECT_EQ(event.slots[0].name, "a");
  EXPECT_EQ(event.slots[0].values, std::vector<std::string>{"one"});
  EXPECT_FALSE(event.slots[0].list);
  EXPECT_TRUE(event.slots[1].list);
  EXPECT_EQ(event.slots[1].values, (std::vector<std::string>{"x", "y"}));
  EXPECT_EQ(event.slots[2].values, std::vector<std::string>{"\x03z"});

  QRFEventText bare;
  EXPECT_TRUE(decodeEventText("\x01" "a\x04\x02" "1\x03", config, &bare));
  EXPECT_EQ(bare.formatIndex, -1);
  for (const char* broken : {"3#x", "3#\x01" "a\x04" "1\x03", "3#\x01" "a\x04\x02" "1"}) {
    QRFEventText event2;
    EXPECT_FALSE(decodeEventText(broken, config, &event2)) << broken;
  }
}

}  // namespace
