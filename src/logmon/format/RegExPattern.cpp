#include "logmon/format/RegExPattern.h"

#include <unicode/uregex.h>
#include <unicode/ustring.h>

#include <cctype>
#include <climits>
#include <vector>

#include "framework/Trace.h"

bool RegExPattern::check(std::string_view pattern, int* groups, int* position,
                         std::string* error) {
  XRV_TRACE_FN();
  *groups = 0;
  *position = -1;
  if (pattern.size() > INT32_MAX / 2) {
    *error = "U_REGEX_PATTERN_TOO_BIG";
    return false;
  }
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  u_strFromUTF8(nullptr, 0, &length, pattern.data(), static_cast<int32_t>(pattern.size()),
                &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
    *error = u_errorName(status);
    return false;
  }
  std::vector<UChar> wide(static_cast<size_t>(length) + 1);
  status = U_ZERO_ERROR;
  u_strFromUTF8(wide.data(), length + 1, nullptr, pattern.data(),
                static_cast<int32_t>(pattern.size()), &status);
  if (U_FAILURE(status)) {
    *error = u_errorName(status);
    return false;
  }
  UParseError where{};
  URegularExpression* compiled = uregex_open(wide.data(), length, 0, &where, &status);
  if (U_FAILURE(status)) {
    *error = u_errorName(status);
    *position = where.offset;
    uregex_close(compiled);
    return false;
  }
  *groups = uregex_groupCount(compiled, &status);
  uregex_close(compiled);
  return true;
}

RegExPattern::Layout RegExPattern::layout(std::string_view pattern) {
  Layout layout;
  bool inClass = false;
  bool inQuote = false;
  size_t i = 0;
  while (i < pattern.size()) {
    const char c = pattern[i];
    if (inQuote) {
      inQuote = pattern.compare(i, 2, "\\E") != 0;
      i += inQuote ? 1 : 2;
    } else if (c == '\\') {
      if (i + 1 < pattern.size() && pattern[i + 1] == 'Q') {
        inQuote = true;
      } else if (!inClass && i + 1 < pattern.size() && pattern[i + 1] == 'n') {
        layout.newlines.push_back(i);
      }
      i += 2;
    } else if (inClass) {
      if (c == '[' && pattern.compare(i, 2, "[:") == 0 &&
          pattern.find(":]", i + 2) != std::string_view::npos) {
        i = pattern.find(":]", i + 2) + 2;
        continue;
      }
      if (c == '[' && layout.problem.empty()) {
        // ICU reads a set inside the class, the log engine's library a '['.
        layout.problem = "a [ inside a character class must be written \\[";
      }
      inClass = c != ']';
      ++i;
    } else if (c == '[') {
      inClass = true;
      ++i;
      // A ']' right after '[' or '[^' belongs to the class.
      i += i < pattern.size() && pattern[i] == '^' ? 1 : 0;
      i += i < pattern.size() && pattern[i] == ']' ? 1 : 0;
    } else if (pattern.compare(i, 3, "(?#") == 0) {
      const size_t end = pattern.find(')', i);
      i = end == std::string_view::npos ? pattern.size() : end + 1;
    } else if (pattern.compare(i, 2, "(?") == 0) {
      size_t j = i + 2;
      bool extended = false;
      while (j < pattern.size() && (isalpha(static_cast<unsigned char>(pattern[j])) != 0 ||
                                    pattern[j] == '-')) {
        extended = extended || pattern[j] == 'x';
        ++j;
      }
      if (extended && j < pattern.size() && (pattern[j] == ')' || pattern[j] == ':') &&
          layout.problem.empty()) {
        // Its comments would run past the end of the expression.
        layout.problem = "the flag x (extended mode) cannot be used";
      }
      i += 2;
    } else {
      ++i;
    }
  }
  layout.openQuote = inQuote;
  return layout;
}
