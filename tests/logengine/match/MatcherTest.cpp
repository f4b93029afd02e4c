#include "match/Matcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

// Counts the test program's allocations, to show that matching a line makes none.
static std::atomic<std::size_t> allocations{0};

void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace xrvlog {
namespace {

using ::testing::HasSubstr;

std::shared_ptr<const PatternSet> compile_one(PatternSpec spec, const MatchLimits& limits = {}) {
  std::vector<PatternSpec> specs;
  specs.push_back(std::move(spec));
  return PatternSet::compile(std::move(specs), limits);
}

std::vector<std::string> texts(const MatchResult& result) {
  return {result.fields.begin(), result.fields.end()};
}

TEST(MatcherTest, ScanSearchesTheLineAndMatchStartsAtItsFirstByte) {
  struct Case {
    PatternKind kind;
    const char* expression;
    const char* line;
    bool matches;
  } cases[] = {
      {PatternKind::Scan, "b+c", "aabbc", true},
      {PatternKind::Match, "b+c", "aabbc", false},
      {PatternKind::Match, "a+b", "aabbc", true},
      {PatternKind::Match, "b", "ab", false},  // not retried at later start positions
      {PatternKind::Scan, "^b", "ab", false},
      {PatternKind::Scan, "c$", "abc", true},
      {PatternKind::Match, "a|b", "ba", true},
      {PatternKind::Scan, "x", "", false},
      {PatternKind::Match, "()$", "", true},
  };
  for (const Case& c : cases) {
    Matcher matcher(compile_one({c.kind, c.expression, {}, {}}));
    EXPECT_EQ(matcher.match(c.line).matched(), c.matches)
        << (c.kind == PatternKind::Scan ? "scan " : "match ") << c.expression << " on " << c.line;
  }
}

TEST(MatcherTest, FiltersAreTriedInOrderAndTheFirstMatchWins) {
  std::vector<PatternSpec> specs = {
      {PatternKind::Match, "ERROR (\\w+)", {{"what", "1"}}, {}},
      {PatternKind::Scan, "user=(\\w+)", {{"user", "1"}}, {}},
      {PatternKind::Scan, "(\\w+)$", {{"last", "1"}}, {}},
  };
  Matcher matcher(PatternSet::compile(specs));
  struct Case {
    const char* line;
    int pattern;
    std::vector<std::string> fields;
  } cases[] = {
      {"ERROR disk user=bob", 0, {"disk"}},
      {"login user=bob ok", 1, {"bob"}},
      {"nothing here", 2, {"here"}},
      {"  ", -1, {}},
      {"ERROR ", -1, {}},
  };
  for (const Case& c : cases) {
    const MatchResult& result = matcher.match(c.line);
    EXPECT_EQ(result.pattern, c.pattern) << c.line;
    EXPECT_EQ(texts(result), c.fields) << c.line;
  }
  // A filter is only tried on lines the filters before it missed.
  const std::vector<PatternStats>& stats = matcher.stats();
  EXPECT_EQ(stats[0].matches, 1u);
  EXPECT_EQ(stats[0].misses, 4u);
  EXPECT_EQ(stats[1].matches, 1u);
  EXPECT_EQ(stats[1].misses, 3u);
  EXPECT_EQ(stats[2].matches, 1u);
  EXPECT_EQ(stats[2].misses, 2u);
  EXPECT_EQ(stats[2].limit_hits, 0u);
  EXPECT_EQ(matcher.limited_records(), 0u);
}

TEST(MatcherTest, FieldsComeFromNamedAndNumberedGroupsAsViewsIntoTheLine) {
  PatternSpec spec{PatternKind::Scan,
                   "^(?<host>\\S+) (\\S+) \\[(?<time>[^\\]]+)\\](?: (opt))?",
                   {{"time", "time"}, {"host", "host"}, {"second", "2"}, {"first", "1"}, {"optional", "4"},
                    {"whole", "0"}},
                   {}};
  Matcher matcher(compile_one(spec));
  const std::string line = "10.0.0.1 - [10/Oct/2000:13:55:36 -0700] rest";
  const MatchResult& result = matcher.match(line);
  ASSERT_TRUE(result.matched());
  EXPECT_EQ(texts(result), (std::vector<std::string>{"10/Oct/2000:13:55:36 -0700", "10.0.0.1", "-", "10.0.0.1",
                                                     "", "10.0.0.1 - [10/Oct/2000:13:55:36 -0700]"}));
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_GE(result.fields[i].data(), line.data());
    EXPECT_LE(result.fields[i].data() + result.fields[i].size(), line.data() + line.size());
  }
  EXPECT_EQ(result.text.data(), line.data()) << "without REPLACEFIRST the text is the line itself";
}

TEST(MatcherTest, ReplaceFirstReplacesTheFirstMatchOnly) {
  struct Case {
    const char* expression;
    const char* replacement;
    const char* line;
    const char* text;
  } cases[] = {
      {"(\\d+)", "<$1>", "a 12 b 34", "a <12> b 34"},
      {"(?<n>\\d+)", "${n}${n}", "x9y", "x99y"},
      {"(\\d)(\\d)", "${2}$1", "12345", "21345"},
      {"cost", "$$5", "the cost is", "the $5 is"},
      {"^(\\w+) (\\w+)$", "second=$2 first=$1", "alpha beta", "second=beta first=alpha"},
      {"(a)|(b)", "[$2]", "b", "[b]"},
      {"(a)|(b)", "[$2]", "a", "[]"},  // an unset group is empty
      {"z*", "-", "abc", "-abc"},      // an empty match at the start
  };
  for (const Case& c : cases) {
    Matcher matcher(compile_one({PatternKind::Scan, c.expression, {}, std::string(c.replacement)}));
    const MatchResult& result = matcher.match(c.line);
    ASSERT_TRUE(result.matched()) << c.expression;
    EXPECT_EQ(result.text, c.text) << c.expression << " -> " << c.replacement << " on " << c.line;
  }
}

TEST(MatcherTest, ReplaceFirstBufferIsReusedAcrossLines) {
  Matcher matcher(compile_one({PatternKind::Scan, "(\\w+)", {}, std::string("<$1>")}));
  EXPECT_EQ(matcher.match("a-much-longer-first-line").text, "<a>-much-longer-first-line");
  EXPECT_EQ(matcher.match("bb").text, "<bb>");
  EXPECT_EQ(matcher.match("--").matched(), false);
  EXPECT_EQ(matcher.match("--").text, "--");
}

TEST(MatcherTest, MatchingAllocatesNothingOnceTheBuffersHaveGrown) {
  std::vector<PatternSpec> specs = {
      {PatternKind::Match, "(\\w+) (\\w+)", {{"a", "1"}, {"b", "2"}}, std::string("$2 $1!")},
      {PatternKind::Scan, "(?<n>\\d+)", {{"n", "n"}}, std::string("<${n}>")},
      {PatternKind::Scan, "(a+)+$", {}, {}},
  };
  Matcher matcher(PatternSet::compile(specs));
  const std::vector<std::string> lines = {"alpha beta gamma", "-- 12345 --", "----", std::string(5000, 'a') + "b",
                                          "x y", "--7"};
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
  MatchLimits limits;
  limits.use_jit = GetParam();
  std::vector<PatternSpec> specs = {
      {PatternKind::Scan, "(a+)+$", {}, {}},
      {PatternKind::Scan, "^(ok) (\\d+)$", {{"n", "2"}}, {}},
  };
  Matcher matcher(PatternSet::compile(specs, limits));
  if (!GetParam()) {
    EXPECT_FALSE(matcher.patterns().jit());
  }

  const std::string line = std::string(100'000, 'a') + "b";
  const auto start = std::chrono::steady_clock::now();
  const MatchResult& result = matcher.match(line);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_FALSE(result.matched());
  EXPECT_LT(elapsed, std::chrono::seconds(2));
  EXPECT_EQ(matcher.stats()[0].limit_hits, 1u);
  EXPECT_EQ(matcher.stats()[0].misses, 1u);
  EXPECT_EQ(matcher.stats()[1].misses, 1u);
  EXPECT_EQ(matcher.limited_records(), 1u);

  // The next filter still sees a line the first one gave up on: "ok 7" cannot end in a.
  const MatchResult& next = matcher.match("ok 7");
  EXPECT_EQ(next.pattern, 1);
  EXPECT_EQ(texts(next), std::vector<std::string>{"7"});
  EXPECT_EQ(matcher.match("aaaa").pattern, 0) << "a short line still matches within the limit";
  EXPECT_EQ(matcher.stats()[0].limit_hits, 1u);
}

// The configured match limit is the one applied: (a+)+$ on n 'a's and a 'b' takes about
// 2^n steps.
TEST_P(CatastrophicTest, FollowsTheConfiguredMatchLimit) {
  struct Case {
    uint32_t match_limit;
    std::size_t length;
    bool limited;
  } cases[] = {{1000, 20, true}, {100'000'000, 10, false}, {1'000'000, 12, false}, {5000, 16, true}};
  for (const Case& c : cases) {
    MatchLimits limits;
    limits.use_jit = GetParam();
    limits.match_limit = c.match_limit;
    Matcher matcher(compile_one({PatternKind::Scan, "(a+)+$", {}, {}}, limits));
    EXPECT_FALSE(matcher.match(std::string(c.length, 'a') + "b").matched());
    EXPECT_EQ(matcher.stats()[0].limit_hits, c.limited ? 1u : 0u) << c.match_limit << " " << c.length;
    EXPECT_EQ(matcher.limited_records(), c.limited ? 1u : 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(JitAndInterpreter, CatastrophicTest, ::testing::Values(true, false),
                         [](const auto& param) { return param.param ? "Jit" : "Interpreter"; });

TEST(MatcherTest, StatusSaysHowTheFiltersRun) {
  MatchLimits interpreter;
  interpreter.use_jit = false;
  auto set = compile_one({PatternKind::Scan, "a", {}, {}}, interpreter);
  EXPECT_FALSE(set->jit());
  EXPECT_THAT(set->status(), HasSubstr("interpreter (JIT switched off)"));
  EXPECT_THAT(set->status(), HasSubstr("PCRE2 10."));

  auto jit = compile_one({PatternKind::Scan, "a", {}, {}});
  EXPECT_THAT(jit->status(), jit->jit() ? HasSubstr(", JIT") : HasSubstr("interpreter"));
}

TEST(MatcherTest, BadFiltersFailWithTheirMessageAndOffset) {
  struct Case {
    PatternSpec spec;
    std::size_t offset;
    const char* message;
  } cases[] = {
      {{PatternKind::Scan, "(abc", {}, {}}, 4, "missing closing parenthesis at offset 4 of \"(abc\""},
      {{PatternKind::Scan, "[z-a]", {}, {}}, 3, "range out of order in character class"},
      {{PatternKind::Match, "a{3,1}", {}, {}}, 5, "numbers out of order in {} quantifier"},
      {{PatternKind::Scan, "(a)", {{"x", "2"}}, {}}, std::string::npos,
       "field 'x' names group 2, but the expression has 1 groups"},
      {{PatternKind::Scan, "(?<a>a)", {{"x", "b"}}, {}}, std::string::npos,
       "field 'x' names group 'b', which the expression does not have"},
      {{PatternKind::Scan, "(a)", {}, std::string("x$")}, 1, "the replacement ends in '$'"},
      {{PatternKind::Scan, "(a)", {}, std::string("${1")}, 0, "'${' without its '}'"},
      {{PatternKind::Scan, "(a)", {}, std::string("ab$%")}, 2, "must be followed by a group"},
      {{PatternKind::Scan, "(a)", {}, std::string("$2")}, 0, "names group 2, but the expression has 1"},
      {{PatternKind::Scan, "(a)", {}, std::string("${nope}")}, 0, "names group 'nope'"},
  };
  for (const Case& c : cases) {
    std::vector<PatternSpec> specs = {{PatternKind::Scan, "fine", {}, {}}, c.spec};
    try {
      PatternSet::compile(specs);
      ADD_FAILURE() << c.spec.expression << " compiled";
    } catch (const PatternError& error) {
      EXPECT_EQ(error.pattern(), 1u) << c.message;
      EXPECT_EQ(error.offset(), c.offset) << c.message;
      EXPECT_THAT(error.what(), HasSubstr(c.message));
      EXPECT_THAT(error.what(), HasSubstr("filter 2: "));
    }
  }
}

TEST(MatcherTest, MatchesUtf8LinesByCharacter) {
  struct Case {
    const char* expression;
    std::string line;
    bool matches;
    std::string field;
  } cases[] = {
      {"^(.{3})$", "äöü", true, "äöü"},                // three characters, six bytes
      {"ü(.)x", "aüßx", true, "ß"},
      {"^(.)", "€uro", true, "€"},
      {"(abc)", "\xff\xfe" "abc", true, "abc"},       // invalid bytes before a match
      {"^(.)", "\xff" "abc", false, ""},              // nor does '.' match an invalid byte
      {"(.)\\d", "\xc3\x28" "x1", true, "x"},         // a broken two-byte sequence
  };
  for (const Case& c : cases) {
    Matcher matcher(compile_one({PatternKind::Scan, c.expression, {{"f", "1"}}, {}}));
    const MatchResult& result = matcher.match(c.line);
    ASSERT_EQ(result.matched(), c.matches) << c.expression;
    if (c.matches) {
      EXPECT_EQ(result.fields.at(0), c.field) << c.expression;
    }
  }
}

double thread_cpu_ns() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// The scaled samples estimate the filter's share of the thread's CPU time: all of it
// here, as the loop does little besides matching.
TEST(MatcherTest, CpuTimeIsSampledAndScaled) {
  const std::string line = std::string(4000, 'x') + " key=value";
  for (uint32_t period : {0u, 1u, 8u}) {
    MatchLimits limits;
    limits.cpu_sample_period = period;
    Matcher matcher(compile_one({PatternKind::Scan, "(\\w+)=(\\w+)", {}, {}}, limits));
    const double start = thread_cpu_ns();
    for (int i = 0; i < 2000; ++i) ASSERT_TRUE(matcher.match(line).matched());
    const double spent = thread_cpu_ns() - start;
    const auto estimate = static_cast<double>(matcher.stats()[0].cpu_ns);
    if (period == 0) {
      EXPECT_EQ(estimate, 0.0);
    } else {
      EXPECT_GT(estimate, 0.4 * spent) << period;
      EXPECT_LT(estimate, 1.6 * spent) << period;
    }
  }
}

TEST(MatcherTest, StatsAddUp) {
  PatternStats total{1, 2, 3, 4};
  total += PatternStats{10, 20, 30, 40};
  EXPECT_EQ(total.matches, 11u);
  EXPECT_EQ(total.misses, 22u);
  EXPECT_EQ(total.limit_hits, 33u);
  EXPECT_EQ(total.cpu_ns, 44u);
}

TEST(MatcherTest, MatchersOnOneSetKeepTheirOwnResultsAndStats) {
  auto set = compile_one({PatternKind::Scan, "(\\d+)", {{"n", "1"}}, {}});
  Matcher first(set);
  Matcher second(set);
  const std::string a = "a 1", b = "b 22";
  const MatchResult& one = first.match(a);
  const MatchResult& two = second.match(b);
  EXPECT_EQ(texts(one), std::vector<std::string>{"1"});
  EXPECT_EQ(texts(two), std::vector<std::string>{"22"});
  second.match("none");
  EXPECT_EQ(first.stats()[0].misses, 0u);
  EXPECT_EQ(second.stats()[0].misses, 1u);
}

}  // namespace
}  // namespace xrvlog
