#pragma once

// The rule language of XRV_TRACE, kept free of global state so that it can be
// tested and fuzzed on its own.
//
// Rules are separated by blanks or commas. Each is LEVEL or LEVEL:PATTERN, where
// LEVEL is one of (any case)
//   off     nothing
//   error   errors only (the default for a function no rule matches)
//   detail  errors and detail lines (flag 1)
//   flow    errors and function entry/exit (flag 64)
//   all     errors, detail lines and entry/exit
// and PATTERN is a glob ('*' any run of characters, '?' one character) matched
// against the whole function name ("ResultsManager::updateResults") or the source
// file's base name ("ResultsManager.cpp"). A rule without a pattern matches every
// function. The last matching rule wins.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace XRV::trace {

struct TraceRule {
  uint32_t mask;
  std::string pattern;  // empty: every function
};

class TraceRuleSet {
 public:
  // Parses `text`. Returns false and describes the first bad rule in *error (when
  // given) if a rule is invalid; valid rules are kept either way.
  bool parse(std::string_view text, std::string* error);
  uint32_t maskFor(std::string_view function, std::string_view file) const;
  const std::vector<TraceRule>& rules() const { return rules_; }

 private:
  std::vector<TraceRule> rules_;
};

// Whole-text glob match with '*' and '?'.
bool globMatch(std::string_view pattern, std::string_view text);

// "Class::method" from a compiler's pretty function text such as
// "const char* ns::Class::method(int) const [with T = int]": return type,
// parameters, qualifiers and template arguments removed.
std::string traceFunctionName(std::string_view prettyFunction);

}  // namespace XRV::trace
