#pragma once
// From the text an attribute takes to the value the agent receives, and from an MDL
// REPLACEFIRST template to the matcher's replacement text. Pure functions.

#include <cstddef>
#include <string>
#include <string_view>

#include "mdl/MdlDocument.h"

namespace xrvlog {

// The longest start of `text` of at most `bytes` bytes that does not end inside a
// UTF-8 character. Bytes that are not UTF-8 are cut at the byte bound.
std::string_view utf8Prefix(std::string_view text, std::size_t bytes);

// Appends the value of an attribute of `type` and `size` that takes `text`:
// Z and H: the text, cut to `size` bytes at a character boundary.
// I: a whole number in the 64-bit range with at most `size` digits, blanks (spaces,
//    tabs, CR, LF) around it ignored, written without '+' and leading zeros;
//    anything else appends nothing.
// D: optional sign, digits with at most one '.', at least one digit, at most `size`
//    characters, blanks around it ignored, written as read without a '+'; anything
//    else appends nothing.
void appendValue(std::string& out, AttributeType type, std::size_t size, std::string_view text);

// An MDL REPLACEFIRST template as the matcher's replacement: $N and ${N} (or ${name})
// stand for a group, a '\' makes the next character literal, any other '$' is literal.
std::string replacementFromTemplate(std::string_view mdlTemplate);

}  // namespace xrvlog
