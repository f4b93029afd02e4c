#pragma once

// RegExPattern: the check of a regular expression of a format file with ICU, the
// library the agent's own regular expressions use. The log engine compiles the
// expressions again with its own library when it loads the MDL text.

#include <string>
#include <string_view>

class RegExPattern {
 public:
  // True when `pattern` (UTF-8) compiles, with the number of its capture groups in
  // *groups. False with the UTF-16 offset where compiling stopped in *position (-1
  // when ICU does not say) and ICU's name of the error in *error.
  static bool check(std::string_view pattern, int* groups, int* position, std::string* error);
};
