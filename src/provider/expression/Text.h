#pragma once

// Text helpers of the expression language. Texts are UTF-8; positions and lengths
// that the language shows are in characters (code points), and every ill-formed
// byte sequence counts as one character.

#include <cstddef>
#include <string_view>

namespace XRV::expression {

// The number of characters of `text`.
size_t characterCount(std::string_view text);

// The characters [start, start + count) of `text` as a view into it; positions past
// the end are cut off.
std::string_view characterRange(std::string_view text, size_t start, size_t count);

// True when `text` matches `pattern`, where "*" stands for any run of characters
// (none included), "?" for exactly one character, and a backslash makes the next
// character of the pattern stand for itself. Case-sensitive. No allocation.
bool wildcardMatch(std::string_view text, std::string_view pattern);

}  // namespace XRV::expression
