// The filter grammar evaluated directly on a row of values.

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "EvaluationSupport.h"

namespace {

using XRV::testing::evaluateFilter;
using XRV::testing::ValueRow;

struct Case {
  const char* filter;
  const char* expected;
};

void runTable(std::initializer_list<Case> cases) {
  ValueRow row;
  row.add("cpu", 95)
      .add("name", "web01")
      .add("host", "db7")
      .add("load", 1.5)
      .add("status", "OK")
      .add64("count", 10)
      .addUtf8("city", "Z\xC3\xBCrich")  // Zürich
      .add("pct", "100*")
      .add("Disk Used", 80, "disk_used");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.filter);
    EXPECT_EQ(evaluateFilter(c.filter, row), c.expected);
  }
}

TEST(Filter, Wildcards) {
  // clang-format off
  runTable({
      {"name LIKE \"web*\"", "boolean true"},
      {"name LIKE 'web?" "?'", "boolean true"},
      {"name LIKE 'web?'", "boolean false"},
      {"name LIKE '*01'", "boolean true"},
      {"name LIKE '*'", "boolean true"},
      {"name LIKE ''", "boolean false"},
      {"name LIKE 'w*b*1'", "boolean true"},
      {"name LIKE '*b*b*'", "boolean false"},
      {"name LIKE 'WEB*'", "boolean false"},
      {"name NOT LIKE 'web*'", "boolean false"},
      {"city LIKE 'Z?rich'", "boolean true"},
      {"city LIKE 'Z?" "?rich'", "boolean false"},
      {"pct LIKE '100\\*'", "boolean true"},
      {"pct LIKE '10\\*'", "boolean false"},
      {"cpu LIKE '9*'", "boolean true"},
  });
  // clang-format on
}

TEST(Filter, ComparisonsAndLogic) {
  runTable({
      {"cpu > 90 AND name LIKE \"web*\"", "boolean true"},
      {"cpu > 90 and name like 'db*'", "boolean false"},
      {"cpu > 90 OR cpu < 10 AND status = 'FAIL'", "boolean true"},
      {"(cpu > 90 OR cpu < 10) AND status = 'FAIL'", "boolean false"},
      {"NOT (cpu < 50 OR status = 'FAIL')", "boolean true"},
      {"NOT cpu < 50 AND NOT status = 'FAIL'", "boolean true"},
      {"cpu > 90 && !(status != 'OK') || host = 'x'", "boolean true"},
      {"cpu = 95", "boolean true"},
      {"cpu == 95", "boolean true"},
      {"cpu <> 95", "boolean false"},
      {"cpu != 94", "boolean true"},
      {"load >= 1.5", "boolean true"},
      {"load < 1.5", "boolean false"},
      {"count > 9", "boolean true"},
      {"cpu > count", "boolean true"},
      {"-5 < cpu", "boolean true"},
      {"status = \"OK\"", "boolean true"},
      {"host > 'da'", "boolean true"},
      {"disk_used = 80 AND `Disk Used` = 80", "boolean true"},
      {"cpu = '95'", "boolean true"},
  });
}

TEST(Filter, EvaluationErrors) {
  runTable({
      {"missing = 1", "error: attribute missing is not in the row"},
      {"cpu > 90 AND missing = 1", "error: attribute missing is not in the row"},
      {"cpu < 90 AND missing = 1", "boolean false"},  // decided before the missing one
      {"cpu > host", "error: cannot compare text \"db7\" with a number"},
  });
}

TEST(Filter, ParseErrorsSayWhatAndWhere) {
  runTable({
      {"", "parse error at 1: expected an attribute or a value but found end of text"},
      {"cpu > ", "parse error at 7: expected an attribute or a value but found end of text"},
      {"cpu 90", "parse error at 7: expected a comparison or LIKE but found number"},
      {"cpu", "parse error at 4: expected a comparison or LIKE but found end of text"},
      {"cpu + 1 > 2", "parse error at 6: expected a comparison or LIKE but found '+'"},
      {"cpu > 90 AND", "parse error at 13: expected an attribute or a value but found end of text"},
      {"name LIKE web", "parse error at 14: LIKE needs a quoted pattern, not name web"},
      {"name NOT 'x'", "parse error at 13: expected LIKE after NOT but found text \"x\""},
      {"cpu > 90)", "parse error at 10: unexpected ')' after a complete filter"},
      {"(cpu > 90", "parse error at 10: expected ')' but found end of text"},
      {"AND = 1", "parse error at 4: expected an attribute or a value but found the keyword AND"},
      {"cpu > - 'x'", "parse error at 12: expected a number after '-' but found text \"x\""},
      {"cpu > 90 & x = 1", "parse error at 11: unexpected '&' (did you mean '&&'?)"},
      {"name = 'web", "parse error at 12: text without its closing '"},
  });
}

TEST(Filter, DeepNestingIsRefused) {
  std::string deep = std::string(1000, '(') + "a = 1" + std::string(1000, ')');
  EXPECT_EQ(evaluateFilter(deep, ValueRow().add("a", 1)),
            "parse error at 202: filter nested too deeply");
  std::string nots;
  for (int i = 0; i < 1000; ++i) {
    nots += "NOT ";
  }
  EXPECT_EQ(evaluateFilter(nots + "a = 1", ValueRow().add("a", 1)).substr(0, 15),
            "parse error at ");
}

}  // namespace
