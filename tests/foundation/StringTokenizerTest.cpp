#include "foundation/StringTokenizer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// One call on the tokenizer and what it must give ("<null>" for null).
struct Step {
  enum Kind { kNext, kNextAt, kEnclosed, kChars, kRest, kHasMore } kind;
  const char* first = nullptr;   // delimiters, or the begin string
  const char* second = nullptr;  // the end string
  int count = 0;
  std::string expected;
};

const char* const kNull = "<null>";

Step next(std::string expected) { return {Step::kNext, nullptr, nullptr, 0, std::move(expected)}; }
Step nextAt(const char* delimiters, std::string expected) {
  return {Step::kNextAt, delimiters, nullptr, 0, std::move(expected)};
}
Step enclosed(const char* begin, const char* end, std::string expected) {
  return {Step::kEnclosed, begin, end, 0, std::move(expected)};
}
Step chars(int count, std::string expected) {
  return {Step::kChars, nullptr, nullptr, count, std::move(expected)};
}
Step rest(std::string expected) { return {Step::kRest, nullptr, nullptr, 0, std::move(expected)}; }
Step hasMore(bool expected) {
  return {Step::kHasMore, nullptr, nullptr, 0, expected ? "true" : "false"};
}

std::string run(StringTokenizer& tokenizer, const Step& step) {
  const char* token = nullptr;
  switch (step.kind) {
    case Step::kNext:
      token = tokenizer.nextToken();
      break;
    case Step::kNextAt:
      token = tokenizer.nextToken(step.first);
      break;
    case Step::kEnclosed:
      token = tokenizer.nextToken(step.first, step.second);
      break;
    case Step::kChars:
      token = tokenizer.nextChars(step.count);
      break;
    case Step::kRest:
      token = tokenizer.restOfLine();
      break;
    case Step::kHasMore:
      return tokenizer.hasMoreTokens() ? "true" : "false";
  }
  return token == nullptr ? kNull : token;
}

struct Case {
  const char* name;
  const char* text;
  std::vector<Step> steps;
  const char* delimiters = ",";
  bool utf8 = false;
};

void runCases(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    StringTokenizer tokenizer(c.text, c.delimiters);
    tokenizer.setUtf8(c.utf8);
    for (size_t i = 0; i < c.steps.size(); ++i) {
      SCOPED_TRACE("step " + std::to_string(i));
      EXPECT_EQ(run(tokenizer, c.steps[i]), c.steps[i].expected);
    }
  }
}

TEST(StringTokenizer, DelimitedTokens) {
  // clang-format off
  runCases({
      {"consecutive delimiters give empty tokens",
       "a,,b", {next("a"), next(""), next("b"), hasMore(false), next(kNull)}},
      {"a delimiter at the end starts no token", "a,", {next("a"), hasMore(false), next(kNull), next(kNull)}},
      {"a delimiter at the start gives an empty token",
       ",a", {hasMore(true), next(""), next("a"), next(kNull)}},
      {"empty text", "", {hasMore(false), next(kNull)}},
      {"null text", nullptr, {hasMore(false), next(kNull), rest("")}},
      {"any of several delimiter characters",
       "a b\tc", {next("a"), next("b"), next("c"), next(kNull)}, " \t"},
      {"empty delimiter set takes everything", "a,b", {next("a,b"), next(kNull)}, ""},
      {"delimiters given for one call only",
       "a;b,c;d", {nextAt(";", "a"), next("b"), nextAt(";", "c"), next("d")}},
      {"null delimiters mean the tokenizer's own", "a,b", {nextAt(nullptr, "a"), nextAt(nullptr, "b")}},
  });
  // clang-format on
}

TEST(StringTokenizer, EnclosedTokens) {
  // clang-format off
  runCases({
      {"quoted value, then the delimiter after it is skipped",
       "\"abc\",def", {enclosed("\"", "\"", "abc"), next("def"), next(kNull)}},
      {"text before the begin string is skipped",
       "junk<v>1</v>,2", {enclosed("<v>", "</v>", "1"), next("2")}},
      {"begin string missing: null, position unchanged",
       "abc,def", {enclosed("[", "]", kNull), next("abc"), enclosed("[", "]", kNull), next("def")}},
      {"end string never comes: the rest",
       "x[abc,d", {enclosed("[", "]", "abc,d"), hasMore(false), rest(kNull), next(kNull)}},
      {"end string as a separator of several characters",
       "a::b::c",
       {enclosed(nullptr, "::", "a"), enclosed("", "::", "b"), enclosed(nullptr, "::", "c"),
        enclosed(nullptr, "::", kNull)}},
      {"only one delimiter after the end string is skipped",
       "\"a\",,b", {enclosed("\"", "\"", "a"), next(""), next("b")}},
      {"a non-delimiter after the end string stays",
       "\"a\"x,b", {enclosed("\"", "\"", "a"), next("x"), next("b")}},
      {"empty end string: the rest", "a,b", {enclosed(nullptr, "", "a,b"), next(kNull)}},
      {"end string at the very end leaves an empty rest",
       "\"a\"", {enclosed("\"", "\"", "a"), next(kNull), rest(""), rest(kNull)}},
  });
  // clang-format on
}

TEST(StringTokenizer, FixedWidthTokens) {
  const char* const umlauts = "\xC3\xA4\xC3\xB6\xC3\xBC,x";  // "äöü,x"
  // clang-format off
  runCases({
      {"bytes, the last token shorter",
       "abcdefg", {chars(3, "abc"), chars(3, "def"), chars(3, "g"), chars(1, kNull), rest(kNull)}},
      {"a following delimiter is not skipped", "ab,cd", {chars(2, "ab"), next(""), next("cd")}},
      {"count below one takes nothing", "ab", {chars(0, ""), chars(-3, ""), chars(5, "ab")}},
      {"UTF-8 characters are counted whole",
       umlauts, {chars(2, "\xC3\xA4\xC3\xB6"), chars(1, "\xC3\xBC"), next(""), next("x")}, ",", true},
      {"bytes cut UTF-8 characters when asked to", umlauts, {chars(1, "\xC3"), chars(2, "\xA4\xC3")}},
      {"four-byte characters",
       "\xF0\x9F\x98\x80" "ab", {chars(1, "\xF0\x9F\x98\x80"), chars(5, "ab"), chars(1, kNull)}, ",", true},
      {"stray continuation bytes still count",
       "\x80\x80\x80\x80\x80" "a",
       {chars(1, "\x80\x80\x80\x80"), chars(1, "\x80"), chars(1, "a")}, ",", true},
  });
  // clang-format on
}

TEST(StringTokenizer, RestOfLine) {
  // clang-format off
  runCases({
      {"after tokens", "a,b c,d", {next("a"), rest("b c,d"), hasMore(false), next(kNull), rest(kNull)}},
      {"after a trailing delimiter it is empty", "a,", {next("a"), rest(""), rest(kNull)}},
      {"after a token that ran to the end it is null", "a", {next("a"), rest(kNull)}},
      {"of an empty text", "", {rest(""), rest(kNull), next(kNull)}},
  });
  // clang-format on
}

// Attributes of one script output line, each cut its own way, as the script data
// source does it.
TEST(StringTokenizer, ModesMixedOnOneLine) {
  // clang-format off
  runCases({
      {"log line",
       "web01,2024-01-05 10:00:00 ERROR disk full, /var",
       {next("web01"), chars(10, "2024-01-05"), enclosed(" ", " ", "10:00:00"),
        nextAt(" ", "ERROR"), rest("disk full, /var")}},
      {"quoted and separated columns",
       "7,\"GET /a,b\",200|OK|tail, more",
       {next("7"), enclosed("\"", "\"", "GET /a,b"), enclosed(nullptr, "|", "200"),
        enclosed(nullptr, "|", "OK"), next("tail"), rest(" more")}},
      {"tab as separator of one column", "a\tb,c", {nextAt("\t", "a"), next("b"), next("c"), next(kNull)}},
      {"fixed widths then tokens",
       "00420017rest,x", {chars(4, "0042"), chars(4, "0017"), next("rest"), next("x"), chars(1, kNull)}},
  });
  // clang-format on
}

TEST(StringTokenizer, ResetReusesBuffersAndKeepsSettings) {
  StringTokenizer tokenizer("a fairly long first line,with,some,columns", ",");
  tokenizer.setUtf8(true);
  const char* first = tokenizer.nextToken();
  ASSERT_STREQ(first, "a fairly long first line");

  const char* lines[] = {"x\xC3\xA4y,1", "short,2", "", "z,3"};
  const char* const expected[][2] = {
      {"x\xC3\xA4y", ""}, {"sho", "rt"}, {nullptr, nullptr}, {"z,3", nullptr}};
  for (size_t i = 0; i < 4; ++i) {
    SCOPED_TRACE(lines[i]);
    tokenizer.reset(lines[i]);
    EXPECT_TRUE(tokenizer.isUtf8());
    const char* token = tokenizer.nextChars(3);
    if (expected[i][0] == nullptr) {
      EXPECT_EQ(token, nullptr);
      continue;
    }
    ASSERT_NE(token, nullptr);
    EXPECT_STREQ(token, expected[i][0]);
    EXPECT_EQ(token, first) << "the token buffer must be reused, not reallocated";
    const char* second = tokenizer.nextToken();
    EXPECT_STREQ(second == nullptr ? "<null>" : second,
                 expected[i][1] == nullptr ? "<null>" : expected[i][1]);
  }
}

}  // namespace
