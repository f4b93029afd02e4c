// The formula language evaluated directly on rows of values: one table per concern,
// each case a formula and the typed result it must give ("int32 7", "error: ...").

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "EvaluationSupport.h"

namespace {

using XRV::testing::evaluateFormula;
using XRV::testing::ValueRow;

struct Case {
  const char* formula;
  const char* expected;
};

ValueRow standardRow() {
  ValueRow row;
  row.add("a", 7)
      .add("b", 2)
      .add("neg", -5)
      .add("big", 2147483647)
      .add("d", 2.5)
      .add64("w", 9223372036854775807LL)
      .addU64("u", 18446744073709551615ULL)
      .add("s", "abc")
      .addUtf8("t", "h\xC3\xA9llo w\xC3\xB6rld")  // héllo wörld
      .add("num_text", "42")
      .add("name", "web01")
      .add("Display Name", 11, "srcName")
      .add("x", 1, "y")   // display name x ...
      .add("z", 2, "x");  // ... but metric name x wins
  return row;
}

void runTable(std::initializer_list<Case> cases) {
  ValueRow row = standardRow();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.formula);
    EXPECT_EQ(evaluateFormula(c.formula, row), c.expected);
  }
}

TEST(Formula, PrecedenceAndAssociativity) {
  runTable({
      {"1 + 2 * 3", "int32 7"},
      {"(1 + 2) * 3", "int32 9"},
      {"10 - 4 - 3", "int32 3"},
      {"64 / 4 / 2", "int32 8"},
      {"7 % 4 * 2", "int32 6"},
      {"2 * -3", "int32 -6"},
      {"- -2", "int32 2"},
      {"-a + +b", "int32 -5"},
      {"1 + 2 == 3", "boolean true"},
      {"1 < 2 == 2 < 3", "boolean true"},
      {"true || false && false", "boolean true"},
      {"false && true || true", "boolean true"},
      {"!false && false", "boolean false"},
      {"!(false && false)", "boolean true"},
      {"a - b * 2 > b + 1 * 2", "boolean false"},
      {"a = 7 && b <> 3", "boolean true"},
  });
}

TEST(Formula, IntegerAndDoubleArithmetic) {
  runTable({
      {"a / b", "int32 3"},
      {"a / 2.0", "double 3.5"},
      {"a % b", "int32 1"},
      {"-7 / 2", "int32 -3"},
      {"-7 % 2", "int32 -1"},
      {"d * 2", "double 5"},
      {"a + d", "double 9.5"},
      {"5.5 % 2", "double 1.5"},
      {"0x10 + 1e1", "double 26"},
      {"(a * 100) / (b + 1)", "int32 233"},
      {"w - 1", "int64 9223372036854775806"},
      {"w - w + b", "int64 2"},  // once 64-bit, stays 64-bit
      {"b + w - w", "int64 0"},  // b + w clamps first
  });
}

TEST(Formula, OverflowWidensThenClamps) {
  runTable({
      {"big + 1", "int64 2147483648"},
      {"big * big", "int64 4611686014132420609"},
      {"-big - 2", "int64 -2147483649"},
      {"w + 1", "int64 9223372036854775807"},
      {"w * 2", "int64 9223372036854775807"},
      {"-w - 2", "int64 -9223372036854775808"},
      {"(-w - 1) / -1", "int64 9223372036854775807"},
      {"-(-w - 1)", "int64 9223372036854775807"},
      {"abs(-big - 1)", "int64 2147483648"},
      {"u", "double 1.84467440737096e+19"},
      {"9223372036854775807", "int64 9223372036854775807"},
      {"9223372036854775808",
       "parse error at 20: malformed or too large number 9223372036854775808"},
  });
}

TEST(Formula, DivisionByZeroGivesZero) {
  runTable({
      {"a / 0", "int32 0"},
      {"a % 0", "int32 0"},
      {"w / (b - 2)", "int64 0"},
      {"d / 0", "double 0"},
      {"d % 0.0", "double 0"},
      {"1 / 0 + 5", "int32 5"},
  });
}

TEST(Formula, TextsAndUtf8) {
  runTable({
      {"s + 1", "text abc1"},
      {"s + d", "text abc2.5"},
      {"'x' + \"y\" + s", "text xyabc"},
      {"'it\\'s'", "text it's"},
      {"s == 'abc'", "boolean true"},
      {"s < 'abd'", "boolean true"},
      {"s < 'ab'", "boolean false"},
      {"num_text > 5", "boolean true"},
      {"strlen(t)", "int32 11"},
      {"strlen(12345)", "int32 5"},
      {"strlen('')", "int32 0"},
      {"substr(t, 1, 4)", "text \xC3\xA9llo"},
      {"substr(t, 6)", "text w\xC3\xB6rld"},
      {"substr(t, 20)", "text "},
      {"substr(t, -3, 2)", "text h\xC3\xA9"},
      {"contains(t, 'w\xC3\xB6')", "boolean true"},
      {"contains(t, 'wo')", "boolean false"},
      {"matches(t, '^h.llo')", "boolean true"},
      {"matches(name, 'web[0-9]+$')", "boolean true"},
      {"matches(name, 'WEB')", "boolean false"},
      {"matches(name, '(?i)WEB')", "boolean true"},
      {"like(name, 'w?b*')", "boolean true"},
      {"tostring(a * 1.5)", "text 10.5"},
      {"tostring(a > b)", "text true"},
      {"tonumber('  12 ')", "int32 12"},
      {"tonumber(num_text) + 1", "int32 43"},
      {"tonumber('x', -1)", "int32 -1"},
      {"tonumber('1e3')", "double 1000"},
      {"tonumber('0x1f')", "int32 31"},
  });
}

TEST(Formula, FunctionsOnNumbers) {
  runTable({
      {"if(a > b, 'big', 'small')", "text big"},
      {"if(0, 1, 2)", "int32 2"},
      {"if(true, 1, missing)", "int32 1"},
      {"abs(neg)", "int32 5"},
      {"abs(-2.5)", "double 2.5"},
      {"min(3, 1.5, 2)", "double 1.5"},
      {"max(a, b)", "int32 7"},
      {"max(a, b, w)", "int64 9223372036854775807"},
      {"min(b, w)", "int64 2"},
      {"min('b', 'a', 'c')", "text a"},
      {"round(2.5)", "int32 3"},
      {"round(-2.5)", "int32 -3"},
      {"round(3.14159, 2)", "double 3.14"},
      {"round(1234, -2)", "int32 1200"},
      {"round(a)", "int32 7"},
  });
}

TEST(Formula, AttributeReferences) {
  runTable({
      {"srcName + 1", "int32 12"},
      {"`Display Name` * 2", "int32 22"},
      {"x", "int32 2"},  // the metric name x, not the display name x
      {"y", "int32 1"},
      {"missing + 1", "error: attribute missing is not in the row"},
      {"`no such one`", "error: attribute no such one is not in the row"},
  });
}

TEST(Formula, EvaluationErrors) {
  runTable({
      {"s * 2", "error: cannot apply * to text \"abc\" and 32-bit integer"},
      {"s > 5", "error: cannot compare text \"abc\" with a number"},
      {"true + 1", "error: cannot apply + to boolean and 32-bit integer"},
      {"true < false", "error: cannot compare boolean and boolean with <"},
      {"!s", "error: ! needs a boolean or a number, not text \"abc\""},
      {"s && true", "error: && needs booleans or numbers, not text \"abc\""},
      {"-s", "error: unary - needs a number, not text \"abc\""},
      {"if(s, 1, 2)", "error: if needs a boolean or a number as its condition, not text \"abc\""},
      {"abs(s)", "error: abs needs a number, not text \"abc\""},
      {"round(s)", "error: round needs a number, not text \"abc\""},
      {"max(1, 'a')", "error: max needs numbers or texts, not 32-bit integer and text \"a\""},
      {"substr(s, 'x')", "error: substr needs a whole number as its start, not text \"x\""},
      {"tonumber(s)", "error: tonumber: text \"abc\" is not a number"},
      {"matches(s, s + '(')",
       "error: invalid regular expression \"abc(\": U_REGEX_MISMATCHED_PAREN at offset 4"},
      {"average(a)",
       "error: average has no samples here (interval functions work in formulas of attributes "
       "only)"},
  });
}

// The column is one past the last character read: the definition reader's marker
// line puts its "^" under that last character.
TEST(Formula, ParseErrorsSayWhatAndWhere) {
  runTable({
      {"", "parse error at 1: unexpected end of text"},
      {"a +", "parse error at 4: unexpected end of text"},
      {"a + * b", "parse error at 6: unexpected '*'"},
      {"(1 + 2", "parse error at 7: expected ')' but found end of text"},
      {"foo(1)", "parse error at 4: unknown function foo"},
      {"substr('a')", "parse error at 12: substr takes 2 to 3 arguments, not 1"},
      {"abs(1, 2)", "parse error at 10: abs takes 1 argument, not 2"},
      {"max(1 2)",
       "parse error at 8: expected ',' or ')' in the arguments of max but found number"},
      {"1 2", "parse error at 4: unexpected number after a complete formula"},
      {"a & b", "parse error at 4: unexpected '&' (did you mean '&&'?)"},
      {"a | b", "parse error at 4: unexpected '|' (did you mean '||'?)"},
      {"'abc", "parse error at 5: text without its closing '"},
      {"`abc", "parse error at 5: attribute name without its closing `"},
      {"12abc", "parse error at 6: malformed or too large number 12abc"},
      {"a # b", "parse error at 4: unexpected character '#'"},
      {"matches(s, '(')",
       "parse error at 16: invalid regular expression \"(\": U_REGEX_MISMATCHED_PAREN at offset 1"},
  });
}

TEST(Formula, DeepNestingIsRefusedNotOverflowed) {
  ValueRow row;
  std::string deep = std::string(5000, '(') + "1" + std::string(5000, ')');
  EXPECT_EQ(evaluateFormula(deep, row), "parse error at 202: formula nested too deeply");
  std::string negations(5000, '-');
  EXPECT_EQ(evaluateFormula(negations + "1", row).substr(0, 15), "parse error at ");
  // A long flat chain is fine up to the depth limit, and refused beyond it.
  std::string chain = "a";
  for (int i = 0; i < 150; ++i) {
    chain += " + a";
  }
  EXPECT_EQ(evaluateFormula(chain, ValueRow().add("a", 1)), "int32 151");
  for (int i = 0; i < 100; ++i) {
    chain += " + a";
  }
  EXPECT_EQ(evaluateFormula(chain, ValueRow().add("a", 1)).substr(0, 15), "parse error at ");
}

}  // namespace
