#pragma once

// RegExPattern: the check of a regular expression of a format file with ICU, the
// library the agent's own regular expressions use. The log engine compiles the
// expressions again with its own library when it loads the MDL text.

#include <string>
#include <string_view>
#include <vector>

class RegExPattern {
 public:
  // True when `pattern` (UTF-8) compiles, with the number of its capture groups in
  // *groups. False with the UTF-16 offset where compiling stopped in *position (-1
  // when ICU does not say) and ICU's name of the error in *error.
  static bool check(std::string_view pattern, int* groups, int* position, std::string* error);

  // What the MDL text needs to know of an expression that the agent embeds in one of
  // its own, "()" + expression + "()": read as both libraries read it (escapes, \Q...\E
  // quotes, character classes, (?#...) comments).
  struct Layout {
    std::vector<size_t> newlines;  // offsets of the "\n" escapes outside classes and quotes
    bool openQuote = false;        // a \Q runs to the end: an "\E" must close it
    std::string problem;           // why it cannot be embedded; "" when it can
  };
  static Layout layout(std::string_view pattern);
};
