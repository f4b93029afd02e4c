#include "framework/TraceRules.h"

#include <gtest/gtest.h>

#include "framework/Trace.h"

namespace {

using XRV::trace::globMatch;
using XRV::trace::TRACE_DETAIL;
using XRV::trace::TRACE_ERROR;
using XRV::trace::TRACE_FLOW;
using XRV::trace::traceFunctionName;
using XRV::trace::TraceRuleSet;

TEST(TraceRules, LevelsAndTheLastMatchingRuleWins) {
  struct Case {
    const char* rules;
    const char* function;
    const char* file;
    uint32_t mask;
  };
  const Case cases[] = {
      {"", "HashMap::put", "HashMap.cpp", TRACE_ERROR},
      {"off", "HashMap::put", "HashMap.cpp", 0},
      {"detail", "HashMap::put", "HashMap.cpp", TRACE_ERROR | TRACE_DETAIL},
      {"flow", "HashMap::put", "HashMap.cpp", TRACE_ERROR | TRACE_FLOW},
      {"all", "HashMap::put", "HashMap.cpp", TRACE_ERROR | TRACE_DETAIL | TRACE_FLOW},
      {"ALL", "HashMap::put", "HashMap.cpp", TRACE_ERROR | TRACE_DETAIL | TRACE_FLOW},
      {"all:ResultsManager::*", "HashMap::put", "HashMap.cpp", TRACE_ERROR},
      {"all:ResultsManager::*", "ResultsManager::updateResults", "ResultsManager.cpp",
       TRACE_ERROR | TRACE_DETAIL | TRACE_FLOW},
      {"all off:HashMap::*", "HashMap::put", "HashMap.cpp", 0},
      {"off:HashMap::* all", "HashMap::put", "HashMap.cpp",
       TRACE_ERROR | TRACE_DETAIL | TRACE_FLOW},
      {"detail:*.cpp,flow:List.cpp", "List::add", "List.cpp", TRACE_ERROR | TRACE_FLOW},
      {"detail:*.cpp,flow:List.cpp", "HashMap::put", "HashMap.cpp", TRACE_ERROR | TRACE_DETAIL},
      {"  detail:Resu?tsManager::*\t\n", "ResultsManager::start", "x.cpp",
       TRACE_ERROR | TRACE_DETAIL},
      {"detail:updateResults", "ResultsManager::updateResults", "x.cpp", TRACE_ERROR},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("rules '") + c.rules + "' function " + c.function);
    TraceRuleSet rules;
    std::string error;
    EXPECT_TRUE(rules.parse(c.rules, &error)) << error;
    EXPECT_EQ(rules.maskFor(c.function, c.file), c.mask);
  }
}

TEST(TraceRules, BadRulesAreReportedAndSkipped) {
  struct Case {
    const char* rules;
    const char* errorFragment;
    size_t validRules;
  };
  const Case cases[] = {
      {"verbose", "bad trace rule 'verbose': unknown level", 0},
      {"detail flow:", "bad trace rule 'flow:': empty pattern", 1},
      {"ResultsManager::x", "unknown level", 0},
      {"all,loud:Foo*,off:Bar", "'loud:Foo*'", 2},
      {":Foo", "unknown level", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rules);
    TraceRuleSet rules;
    std::string error;
    EXPECT_FALSE(rules.parse(c.rules, &error));
    EXPECT_NE(error.find(c.errorFragment), std::string::npos) << error;
    EXPECT_EQ(rules.rules().size(), c.validRules);
  }
}

TEST(TraceRules, GlobMatchesWholeTexts) {
  struct Case {
    const char* pattern;
    const char* text;
    bool match;
  };
  const Case cases[] = {
      {"*", "", true},
      {"*", "anything", true},
      {"", "", true},
      {"", "a", false},
      {"a*", "abc", true},
      {"*c", "abc", true},
      {"*b*", "abc", true},
      {"a?c", "abc", true},
      {"a?c", "ac", false},
      {"abc", "abcd", false},
      {"*::update*", "ResultsManager::updateResults", true},
      {"*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaac", false},
      {"**x", "yx", true},
      {"*", "*ll", true},
      {"a*", "a*", true},
      {"*b", "*xb", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.pattern) + " vs " + c.text);
    EXPECT_EQ(globMatch(c.pattern, c.text), c.match);
  }
}

TEST(TraceRules, FunctionNamesFromCompilerTexts) {
  struct Case {
    const char* pretty;
    const char* name;
  };
  const Case cases[] = {
      {"void ResultsManager::updateResults()", "ResultsManager::updateResults"},
      {"int main(int, char**)", "main"},
      {"const char* XRV::String::c_str() const", "XRV::String::c_str"},
      {"char *copy(const char *)", "copy"},
      {"ResultsManager::ResultsManager(const char*, const char*, int)",
       "ResultsManager::ResultsManager"},
      {"virtual ResultsManager::~ResultsManager()", "ResultsManager::~ResultsManager"},
      {"int n::A::foo(T) const [with T = int]", "n::A::foo"},
      {"int n::A::foo(T) const [T = int]", "n::A::foo"},
      {"std::map<int, int> Cache::entries()", "Cache::entries"},
      {"void Box<T>::set(T) [with T = std::pair<int, int>]", "Box::set"},
      {"int n::A::operator()(int)", "n::A::operator()"},
      {"bool Key::operator<(const Key&) const", "Key::operator<"},
      {"n::A::operator bool() const", "n::A::operator bool"},
      {"n::A::foo<int>(int) const::<lambda()>", "n::A::foo"},
      {"auto n::A::foo(int)::(anonymous class)::operator()() const", "n::A::foo"},
      {"void (anonymous namespace)::helper()", "(anonymous namespace)::helper"},
      {"void {anonymous}::helper()", "{anonymous}::helper"},
      {"odd", "odd"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pretty);
    EXPECT_EQ(traceFunctionName(c.pretty), c.name);
  }
}

}  // namespace
