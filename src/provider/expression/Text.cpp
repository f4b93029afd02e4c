#include "provider/expression/Text.h"

#include <unicode/utf8.h>

#include <cstdint>

namespace XRV::expression {

namespace {

// The byte offset just past the character that starts at `offset`.
size_t nextCharacter(std::string_view text, size_t offset) {
  int32_t i = static_cast<int32_t>(offset);
  UChar32 c = 0;
  U8_NEXT(text.data(), i, static_cast<int32_t>(text.size()), c);
  (void)c;
  return static_cast<size_t>(i);
}

}  // namespace

size_t characterCount(std::string_view text) {
  size_t count = 0;
  for (size_t offset = 0; offset < text.size(); offset = nextCharacter(text, offset)) {
    ++count;
  }
  return count;
}

std::string_view characterRange(std::string_view text, size_t start, size_t count) {
  size_t begin = 0;
  for (size_t skipped = 0; skipped < start && begin < text.size(); ++skipped) {
    begin = nextCharacter(text, begin);
  }
  size_t end = begin;
  for (size_t taken = 0; taken < count && end < text.size(); ++taken) {
    end = nextCharacter(text, end);
  }
  return text.substr(begin, end - begin);
}

bool wildcardMatch(std::string_view text, std::string_view pattern) {
  // Greedy matching with one backtrack point: the last "*" seen and the text offset
  // it has swallowed up to. Linear in practice, quadratic at worst; never recursive.
  size_t t = 0;
  size_t p = 0;
  size_t starPattern = std::string_view::npos;
  size_t starText = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      starPattern = ++p;
      starText = t;
      continue;
    }
    if (p < pattern.size() && pattern[p] == '?') {
      ++p;
      t = nextCharacter(text, t);
      continue;
    }
    if (p < pattern.size()) {
      size_t literal = p;
      if (pattern[p] == '\\' && p + 1 < pattern.size()) {
        literal = p + 1;
      }
      if (pattern[literal] == text[t]) {
        p = literal + 1;
        ++t;
        continue;
      }
    }
    if (starPattern == std::string_view::npos) {
      return false;
    }
    p = starPattern;
    starText = nextCharacter(text, starText);
    t = starText;
  }
  while (p < pattern.size() && pattern[p] == '*') {
    ++p;
  }
  return p == pattern.size();
}

}  // namespace XRV::expression
