#include "framework/TraceRules.h"

#include <strings.h>

#include <cstring>

#include "framework/Trace.h"

// Nothing in the trace facility traces itself: the rules are read under the lock
// that a trace point takes to learn its mask.

namespace XRV::trace {
namespace {

struct LevelWord {
  const char* word;
  uint32_t mask;
};

constexpr LevelWord kLevels[] = {
    {"off", 0},
    {"error", TRACE_ERROR},
    {"detail", TRACE_ERROR | TRACE_DETAIL},
    {"flow", TRACE_ERROR | TRACE_FLOW},
    {"all", TRACE_ERROR | TRACE_DETAIL | TRACE_FLOW},
};

bool isRuleSeparator(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == ','; }

bool isIdentifierChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool startsWithAt(std::string_view text, size_t at, std::string_view prefix) {
  return text.size() - at >= prefix.size() && text.compare(at, prefix.size(), prefix) == 0;
}

bool levelMask(std::string_view word, uint32_t* mask) {
  for (const LevelWord& level : kLevels) {
    if (word.size() == strlen(level.word) &&
        strncasecmp(word.data(), level.word, word.size()) == 0) {
      *mask = level.mask;
      return true;
    }
  }
  return false;
}

// Copies an operator name ("operator()", "operator<<", "operator bool") starting at
// `at` to `out`; returns the index after it.
size_t copyOperatorName(std::string_view text, size_t at, std::string* out) {
  size_t i = at + 8;  // "operator"
  out->append("operator");
  if (startsWithAt(text, i, "()") || startsWithAt(text, i, "[]")) {
    out->append(text.substr(i, 2));
    return i + 2;
  }
  size_t symbolStart = i;
  while (i < text.size() && strchr("+-*/%^&|~!=<>,", text[i]) != nullptr && text[i] != '\0') {
    ++i;
  }
  if (i > symbolStart) {
    out->append(text.substr(symbolStart, i - symbolStart));
    return i;
  }
  // Conversion, new and delete operators: "operator bool", "operator new[]".
  if (i < text.size() && text[i] == ' ') {
    out->push_back(' ');
    ++i;
    while (i < text.size() && (isIdentifierChar(text[i]) || text[i] == ':' || text[i] == '*' ||
                               text[i] == '&' || text[i] == '[' || text[i] == ']')) {
      out->push_back(text[i]);
      ++i;
    }
  }
  return i;
}

}  // namespace

bool TraceRuleSet::parse(std::string_view text, std::string* error) {
  bool ok = true;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && isRuleSeparator(text[i])) {
      ++i;
    }
    size_t start = i;
    while (i < text.size() && !isRuleSeparator(text[i])) {
      ++i;
    }
    if (start == i) {
      break;
    }
    std::string_view rule = text.substr(start, i - start);
    size_t colon = rule.find(':');
    std::string_view level = rule.substr(0, colon);
    std::string_view pattern =
        colon == std::string_view::npos ? std::string_view() : rule.substr(colon + 1);
    uint32_t mask = 0;
    const char* problem = nullptr;
    if (!levelMask(level, &mask)) {
      problem = "unknown level (use off, error, detail, flow or all)";
    } else if (colon != std::string_view::npos && pattern.empty()) {
      problem = "empty pattern after ':'";
    }
    if (problem != nullptr) {
      if (ok && error != nullptr) {
        *error = "bad trace rule '" + std::string(rule) + "': " + problem;
      }
      ok = false;
      continue;
    }
    rules_.push_back(TraceRule{mask, std::string(pattern)});
  }
  return ok;
}

uint32_t TraceRuleSet::maskFor(std::string_view function, std::string_view file) const {
  for (auto rule = rules_.rbegin(); rule != rules_.rend(); ++rule) {
    if (rule->pattern.empty() || globMatch(rule->pattern, function) ||
        globMatch(rule->pattern, file)) {
      return rule->mask;
    }
  }
  return TRACE_ERROR;
}

bool globMatch(std::string_view pattern, std::string_view text) {
  size_t p = 0;
  size_t t = 0;
  size_t starPattern = std::string_view::npos;
  size_t starText = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      starPattern = p++;
      starText = t;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (starPattern != std::string_view::npos) {
      p = starPattern + 1;
      t = ++starText;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') {
    ++p;
  }
  return p == pattern.size();
}

std::string traceFunctionName(std::string_view pretty) {
  static constexpr std::string_view kAnonymousNamespace = "(anonymous namespace)";
  std::string name;
  int templateDepth = 0;
  size_t i = 0;
  while (i < pretty.size()) {
    char c = pretty[i];
    if (templateDepth == 0 && startsWithAt(pretty, i, "operator") &&
        (i == 0 || !isIdentifierChar(pretty[i - 1])) &&
        (i + 8 == pretty.size() || !isIdentifierChar(pretty[i + 8]))) {
      i = copyOperatorName(pretty, i, &name);
      continue;
    }
    if (templateDepth == 0 && startsWithAt(pretty, i, kAnonymousNamespace)) {
      name.append(kAnonymousNamespace);
      i += kAnonymousNamespace.size();
      continue;
    }
    ++i;
    if (c == '<') {
      ++templateDepth;
    } else if (c == '>') {
      if (templateDepth > 0) {
        --templateDepth;
      }
    } else if (templateDepth > 0) {
      // inside template arguments: dropped
    } else if (c == '(') {
      break;  // the parameter list: the name is complete
    } else if (c == ' ') {
      name.clear();  // what came before was the return type or a qualifier
    } else if ((c == '*' || c == '&') && name.empty()) {
      // pointer or reference of the return type written against the name
    } else {
      name.push_back(c);
    }
  }
  if (name.empty()) {
    return std::string(pretty);
  }
  return name;
}

}  // namespace XRV::trace
