#include "match/Matcher.h"

#include "../CountingNew.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace xrvlog {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Strings = std::vector<std::string>;
using Counts = std::vector<std::array<uint64_t, 3>>;  // matches, misses, limit hits per filter

PatternSpec scan(std::string expression, std::vector<FieldSpec> fields = {},
                 std::optional<std::string> replacement = {}) {
  return {PatternKind::Scan, std::move(expression), std::move(fields), std::move(replacement)};
}

Matcher matcher_for(std::vector<PatternSpec> filters, const MatchLimits& limits = {}) {
  return Matcher(PatternSet::compile(std::move(filters), limits));
}

Strings texts(const MatchResult& result) { return {result.fields.begin(), result.fields.end()}; }

Counts counts(const Matcher& matcher) {
  Counts counts;
  for (const PatternStats& s : matcher.stats())
    counts.push_back({s.matches, s.misses, s.limit_hits});
  return counts;
}

TEST(MatcherTest, ScanSearchesTheLineMatchStartsAtItsFirstByteWholeSpansIt) {
  const std::tuple<PatternKind, const char*, const char*, bool> cases[] = {
      {PatternKind::Scan, "b+c", "aabbc", true},
      {PatternKind::Match, "b+c", "aabbc", false},
      {PatternKind::Match, "a+b", "aabbc", true},
      {PatternKind::Match, "b", "ab", false},
      {PatternKind::Match, "a|b", "cb", false},
      {PatternKind::Scan, "x", "", false},
      {PatternKind::Match, "()$", "", true},
      // Whole: anchored at both ends, backtracking into alternatives to reach the end.
      {PatternKind::Whole, "a+b", "aabbc", false},
      {PatternKind::Whole, "a+b+c", "aabbc", true},
      {PatternKind::Whole, "a|ab", "ab", true},
      {PatternKind::Whole, "abc$", "abc\n", false},
      {PatternKind::Whole, "(?x)ab # note", "ab", true},
  };
  for (auto [kind, expression, line, matches] : cases) {
    SCOPED_TRACE(std::string(kind == PatternKind::Scan    ? "scan "
                             : kind == PatternKind::Match ? "match "
                                                          : "whole ") +
                 expression + " on " + line);
    EXPECT_EQ(matcher_for({{kind, expression, {}, {}}}).match(line).matched(), matches);
  }
}

TEST(MatcherTest, FiltersAreTriedInOrderAndTheFirstMatchWins) {
  Matcher matcher = matcher_for({{PatternKind::Match, "ERROR (\\w+)", {{"what", "1"}}, {}},
                                 scan("user=(\\w+)", {{"user", "1"}}),
                                 scan("(\\w+)$", {{"last", "1"}})});
  const std::tuple<const char*, int, Strings> cases[] = {{"ERROR disk user=bob", 0, {"disk"}},
                                                         {"login user=bob ok", 1, {"bob"}},
                                                         {"nothing here", 2, {"here"}},
                                                         {"  ", -1, {}},
                                                         {"ERROR ", -1, {}}};
  for (const auto& [line, pattern, fields] : cases) {
    SCOPED_TRACE(line);
    const MatchResult& result = matcher.match(line);
    EXPECT_EQ(result.pattern, pattern);
    EXPECT_EQ(texts(result), fields);
  }
  // A filter is only tried on lines the filters before it missed.
  EXPECT_EQ(counts(matcher), (Counts{{1, 4, 0}, {1, 3, 0}, {1, 2, 0}}));
}

TEST(MatcherTest, FieldsComeFromNamedAndNumberedGroupsAsViewsIntoTheLine) {
  Matcher matcher = matcher_for(
      {scan("^(?<host>\\S+) (\\S+) \\[(?<time>[^\\]]+)\\](?: (opt))?", {{"time", "time"},
                                                                        {"host", "host"},
                                                                        {"second", "2"},
                                                                        {"first", "1"},
                                                                        {"optional", "4"},
                                                                        {"whole", "0"}})});
  const std::string line = "10.0.0.1 - [10/Oct/2000:13:55:36 -0700] rest";
  const MatchResult& result = matcher.match(line);
  EXPECT_EQ(texts(result), (Strings{"10/Oct/2000:13:55:36 -0700", "10.0.0.1", "-", "10.0.0.1", "",
                                    "10.0.0.1 - [10/Oct/2000:13:55:36 -0700]"}));
  EXPECT_EQ(result.fields[1].data(), line.data()) << "fields are views into the line";
  EXPECT_EQ(result.text.data(), line.data()) << "without REPLACEFIRST the text is the line itself";
}

TEST(MatcherTest, ReplaceFirstReplacesTheFirstMatchOnly) {
  const char* cases[][4] = {
      // expression, replacement, line, text
      {"(\\d+)", "<$1>", "a 12 b 34", "a <12> b 34"},
      {"(?<n>\\d+)", "${n}${n}", "x9y", "x99y"},
      {"(\\d)(\\d)", "${2}$1", "12345", "21345"},
      {"cost", "$$5", "the cost is", "the $5 is"},
      {"^(\\w+) (\\w+)$", "second=$2 first=$1", "alpha beta", "second=beta first=alpha"},
      {"(a)|(b)", "[$2]", "b", "[b]"},
      {"(a)|(b)", "[$2]", "a", "[]"},  // an unset group is empty
      {"z*", "-", "abc", "-abc"},      // an empty match at the start
  };
  for (auto [expression, replacement, line, text] : cases) {
    SCOPED_TRACE(std::string(expression) + " -> " + replacement + " on " + line);
    EXPECT_EQ(matcher_for({scan(expression, {}, replacement)}).match(line).text, text);
  }
  // The buffer is reused: a shorter line leaves nothing of the longer one, a miss gives the line
  // back.
  Matcher matcher = matcher_for({scan("(\\w+)", {}, "<$1>")});
  EXPECT_EQ(matcher.match("a-much-longer-first-line").text, "<a>-much-longer-first-line");
  EXPECT_EQ(matcher.match("bb").text, "<bb>");
  EXPECT_EQ(matcher.match("--").text, "--");
}

TEST(MatcherTest, MatchingAllocatesNothingOnceTheBuffersHaveGrown) {
  Matcher matcher =
      matcher_for({{PatternKind::Match, "(\\w+) (\\w+)", {{"a", "1"}, {"b", "2"}}, "$2 $1!"},
                   scan("(?<n>\\d+)", {{"n", "n"}}, "<${n}>"),
                   scan("(a+)+$")});
  const Strings lines = {"alpha beta gamma",           "-- 12345 --", "----",
                         std::string(5000, 'a') + "b", "x y",         "--7"};
  for (const std::string& line : lines) matcher.match(line);
  const std::size_t before = allocations.load();
  int matched = 0;
  for (int round = 0; round < 100; ++round) {
    for (const std::string& line : lines) matched += matcher.match(line).matched() ? 1 : 0;
  }
  EXPECT_EQ(allocations.load() - before, 0u);
  EXPECT_EQ(matched, 400);
  EXPECT_EQ(matcher.stats()[2].limit_hits, 101u);
}

class CatastrophicTest : public ::testing::TestWithParam<bool> {};

// (a+)+$ against a long run of 'a' ending in 'b' backtracks exponentially; the limits
// must give the record up quickly, count it, and leave the matcher usable.
TEST_P(CatastrophicTest, IsBoundedCountedAndNotFatal) {
  Matcher matcher =
      matcher_for({scan("(a+)+$"), scan("^(ok) (\\d+)$", {{"n", "2"}})}, {.use_jit = GetParam()});
  const PatternSet& set = matcher.patterns();
  EXPECT_TRUE(GetParam() || !set.jit()) << "the interpreter was asked for";
  const char* how = set.jit()    ? ", JIT"
                    : GetParam() ? ", interpreter (JIT"
                                 : ", interpreter (JIT switched off)";
  EXPECT_THAT(set.status(), AllOf(StartsWith("PCRE2 10."), HasSubstr(how)));

  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(matcher.match(std::string(100'000, 'a') + "b").matched());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(counts(matcher), (Counts{{0, 1, 1}, {0, 1, 0}}));
  EXPECT_EQ(matcher.limited_records(), 1u);

  // The next filter still sees a line the first one gave up on: "ok 7" cannot end in a.
  EXPECT_EQ(texts(matcher.match("ok 7")), Strings{"7"});
  EXPECT_EQ(matcher.match("aaaa").pattern, 0) << "a short line still matches within the limit";
  EXPECT_EQ(counts(matcher), (Counts{{1, 2, 1}, {1, 1, 0}}));
}

// The configured match limit is the one applied: (a+)+$ on n 'a's and a 'b' takes about 2^n steps.
TEST_P(CatastrophicTest, FollowsTheConfiguredMatchLimit) {
  for (auto [match_limit, limited] : {std::pair{1000u, 1u}, {100'000'000u, 0u}}) {
    SCOPED_TRACE(match_limit);
    Matcher matcher =
        matcher_for({scan("(a+)+$")}, {.match_limit = match_limit, .use_jit = GetParam()});
    EXPECT_FALSE(matcher.match(std::string(16, 'a') + "b").matched());
    EXPECT_EQ(matcher.stats()[0].limit_hits, limited);
    EXPECT_EQ(matcher.limited_records(), limited);
  }
}

INSTANTIATE_TEST_SUITE_P(JitAndInterpreter, CatastrophicTest, ::testing::Values(true, false),
                         [](const auto& param) { return param.param ? "Jit" : "Interpreter"; });

TEST(MatcherTest, BadFiltersFailWithTheirMessageAndOffset) {
  const std::tuple<PatternSpec, std::size_t, const char*> cases[] = {
      {scan("(abc"), 4, "missing closing parenthesis at offset 4 of \"(abc\""},
      {{PatternKind::Match, "a{3,1}", {}, {}}, 5, "numbers out of order in {} quantifier"},
      {scan("(a)", {{"x", "2"}}), std::string::npos,
       "field 'x' names group 2, but the expression has 1 groups"},
      {scan("(?<a>a)", {{"x", "b"}}), std::string::npos,
       "field 'x' names group 'b', which the expression does not have"},
      {scan("(a)", {}, "x$"), 1, "the replacement ends in '$'"},
      {scan("(a)", {}, "${1"), 0, "'${' without its '}'"},
      {scan("(a)", {}, "ab$%"), 2, "must be followed by a group"},
      {scan("(a)", {}, "x$2"), 1,
       "the replacement at offset 1 names group 2, but the expression has 1"},
      {scan("(a)", {}, "${nope}"), 0, "names group 'nope'"},
  };
  for (const auto& [filter, offset, message] : cases) {
    SCOPED_TRACE(message);
    try {
      PatternSet::compile({scan("fine"), filter});
      ADD_FAILURE() << filter.expression << " compiled";
    } catch (const PatternError& error) {
      EXPECT_EQ(error.pattern(), 1u);
      EXPECT_EQ(error.offset(), offset);
      EXPECT_THAT(error.what(), AllOf(StartsWith("filter 2: "), HasSubstr(message)));
    }
  }
}

TEST(MatcherTest, MatchesUtf8LinesByCharacter) {
  const char* cases[][3] = {
      // expression, line, the group's text or null for no match
      {"^(.{3})$", "äöü", "äöü"},  // three characters, six bytes
      {"ü(.)x", "aüßx", "ß"},
      {"^(.)", "€uro", "€"},
      {"(abc)",
       "\xff\xfe"
       "abc",
       "abc"},  // invalid bytes before a match
      {"^(.)",
       "\xff"
       "abc",
       nullptr},  // nor does '.' match an invalid byte
      {"(.)\\d",
       "\xc3\x28"
       "x1",
       "x"},  // a broken two-byte sequence
  };
  for (auto [expression, line, field] : cases) {
    SCOPED_TRACE(expression);
    Matcher matcher = matcher_for({scan(expression, {{"f", "1"}})});
    EXPECT_EQ(texts(matcher.match(line)), field ? Strings{field} : Strings{});
  }
}

// The scaled samples estimate the filter's share of the thread's CPU time: all of it
// here, as the loop does little besides matching and this program runs one thread.
TEST(MatcherTest, CpuTimeIsSampledAndScaled) {
  const std::string line = std::string(4000, 'x') + " key=value";
  for (uint32_t period : {0u, 1u, 8u}) {
    SCOPED_TRACE(period);
    Matcher matcher = matcher_for({scan("(\\w+)=(\\w+)")}, {.cpu_sample_period = period});
    const std::clock_t start = std::clock();
    for (int i = 0; i < 2000; ++i) ASSERT_TRUE(matcher.match(line).matched());
    const double spent = static_cast<double>(std::clock() - start) * 1e9 / CLOCKS_PER_SEC;
    const auto estimate = static_cast<double>(matcher.stats()[0].cpu_ns);
    EXPECT_GE(estimate, period == 0 ? 0.0 : 0.4 * spent);
    EXPECT_LE(estimate, period == 0 ? 0.0 : 1.6 * spent);
  }
}

TEST(MatcherTest, StatsAddUp) {
  PatternStats total{1, 2, 3, 4};
  total += PatternStats{10, 20, 30, 40};
  EXPECT_EQ((std::array{total.matches, total.misses, total.limit_hits, total.cpu_ns}),
            (std::array<uint64_t, 4>{11, 22, 33, 44}));
}

TEST(MatcherTest, MatchersOnOneSetKeepTheirOwnResultsAndStats) {
  auto set = PatternSet::compile({scan("(\\d+)", {{"n", "1"}})});
  Matcher first(set), second(set);
  const MatchResult& one = first.match("a 1");
  EXPECT_EQ(texts(second.match("b 22")), Strings{"22"});
  EXPECT_EQ(texts(one), Strings{"1"});
  second.match("none");
  EXPECT_EQ(counts(first), (Counts{{1, 0, 0}}));
  EXPECT_EQ(counts(second), (Counts{{1, 1, 0}}));
}

}  // namespace
}  // namespace xrvlog
