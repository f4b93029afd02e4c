#pragma once

// Lexer: splits a formula or filter text into tokens, for both grammars.
//
// Names are letters, digits and "_" (not starting with a digit), or any text between
// backquotes; texts are in single or double quotes, with backslash escapes for the
// quote, the backslash, "n" and "t" (a backslash before anything else stays).
// Numbers are decimal integers, "0x" hexadecimal integers, and decimals with a
// point or an exponent.

#include <cstddef>
#include <string>
#include <string_view>

#include "provider/expression/Value.h"

namespace XRV::expression {

enum TokenKind {
  TOKEN_END,
  TOKEN_ERROR,
  TOKEN_NUMBER,
  TOKEN_TEXT,
  TOKEN_NAME,
  TOKEN_QUOTED_NAME,
  TOKEN_OPEN,
  TOKEN_CLOSE,
  TOKEN_COMMA,
  TOKEN_PLUS,
  TOKEN_MINUS,
  TOKEN_STAR,
  TOKEN_SLASH,
  TOKEN_PERCENT,
  TOKEN_BANG,
  TOKEN_EQUAL,      // = or ==
  TOKEN_NOT_EQUAL,  // != or <>
  TOKEN_LESS,
  TOKEN_LESS_EQUAL,
  TOKEN_GREATER,
  TOKEN_GREATER_EQUAL,
  TOKEN_AND,  // &&
  TOKEN_OR,   // ||
};

struct Token {
  TokenKind kind = TOKEN_END;
  size_t start = 0;  // byte offsets in the source, [start, end)
  size_t end = 0;
  Value number{};    // TOKEN_NUMBER
  std::string text;  // TOKEN_TEXT (unescaped), TOKEN_NAME, TOKEN_QUOTED_NAME; TOKEN_ERROR: why
};

class Lexer {
 public:
  explicit Lexer(std::string_view source) : source_(source) {}
  Token next();
  // The 1-based column that error reports give for a problem found with `token`:
  // one past its last character (for the end, one past the last character of the
  // source), so that the marker line's "^" stands under the last character read.
  static int errorColumn(const Token& token);
  // How `token` is shown in messages: "')'", "name cpu", "end of text".
  static std::string describe(const Token& token);

 private:
  Token lexNumber(size_t start);
  Token lexText(size_t start);
  Token lexQuotedName(size_t start);
  Token error(size_t start, size_t end, std::string why);

  std::string_view source_;
  size_t position_ = 0;
};

}  // namespace XRV::expression
