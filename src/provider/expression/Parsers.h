#pragma once

// The two grammars of the language, both parsed into a Program.
//
// Formulas (the "formula" of an attribute, and filters of the "expression"
// grammar), lowest precedence first, every binary operator left-associative:
//   ||    &&    == = != <>    < <= > >=    + -    * / %    unary - + !
// with numbers, texts, true, false, attribute names, function calls and
// parentheses as operands.
//
// Filters (the "filter" grammar): conditions combined with AND, OR and NOT (also
// written &&, || and !) and parentheses; a condition compares an attribute or a
// literal with another (= == != <> < <= > >=), or matches one against a wildcard
// text with [NOT] LIKE. Keywords are case-insensitive.
//
// A text that does not parse gives null, a description in *error and in *column
// the 1-based column just past the last character read (see Lexer::errorColumn).

#include <memory>
#include <string>
#include <string_view>

#include "provider/expression/Program.h"

namespace XRV::expression {

std::unique_ptr<Program> parseFormula(std::string_view text, std::string* error, int* column);
std::unique_ptr<Program> parseFilter(std::string_view text, std::string* error, int* column);

}  // namespace XRV::expression
