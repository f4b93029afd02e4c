#pragma once

// Small text helpers of the format-file code.

#include <string>
#include <string_view>
#include <vector>

namespace qrf {

// `utf8` in the native code page of the process; `utf8` itself when it cannot be
// converted.
std::string toNative(std::string_view utf8);
// `native` in UTF-8 (ill-formed parts replaced); `native` itself when it cannot be
// converted.
std::string toUTF8(std::string_view native);
// `text` without blanks (spaces, tabs, CR, LF) at either end.
std::string_view trimmed(std::string_view text);
// `text` cut at each `separator`, every piece trimmed, empty pieces left out.
// With `regexAware`, a separator inside [...], {...} or (...) or after a backslash
// does not cut.
std::vector<std::string> splitList(std::string_view text, char separator, bool regexAware);
// printf into a std::string.
std::string format(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace qrf
