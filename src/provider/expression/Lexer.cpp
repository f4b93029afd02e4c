#include "provider/expression/Lexer.h"

namespace XRV::expression {

namespace {

bool isNameStart(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isNamePart(char c) { return isNameStart(c) || isDigit(c); }
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

Token Lexer::error(size_t start, size_t end, std::string why) {
  Token token;
  token.kind = TOKEN_ERROR;
  token.start = start;
  token.end = end;
  token.text = std::move(why);
  position_ = source_.size();
  return token;
}

Token Lexer::next() {
  while (position_ < source_.size() && isBlank(source_[position_])) {
    ++position_;
  }
  Token token;
  token.start = position_;
  if (position_ >= source_.size()) {
    token.kind = TOKEN_END;
    token.end = position_;
    return token;
  }
  const char c = source_[position_];
  const char following = position_ + 1 < source_.size() ? source_[position_ + 1] : '\0';
  if (isDigit(c) || (c == '.' && isDigit(following))) {
    return lexNumber(position_);
  }
  if (isNameStart(c)) {
    size_t end = position_;
    while (end < source_.size() && isNamePart(source_[end])) {
      ++end;
    }
    token.kind = TOKEN_NAME;
    token.text.assign(source_.substr(position_, end - position_));
    token.end = position_ = end;
    return token;
  }
  if (c == '"' || c == '\'') {
    return lexText(position_);
  }
  if (c == '`') {
    return lexQuotedName(position_);
  }
  size_t length = 1;
  switch (c) {
    case '(':
      token.kind = TOKEN_OPEN;
      break;
    case ')':
      token.kind = TOKEN_CLOSE;
      break;
    case ',':
      token.kind = TOKEN_COMMA;
      break;
    case '+':
      token.kind = TOKEN_PLUS;
      break;
    case '-':
      token.kind = TOKEN_MINUS;
      break;
    case '*':
      token.kind = TOKEN_STAR;
      break;
    case '/':
      token.kind = TOKEN_SLASH;
      break;
    case '%':
      token.kind = TOKEN_PERCENT;
      break;
    case '!':
      token.kind = following == '=' ? TOKEN_NOT_EQUAL : TOKEN_BANG;
      length = following == '=' ? 2 : 1;
      break;
    case '=':
      token.kind = TOKEN_EQUAL;
      length = following == '=' ? 2 : 1;
      break;
    case '<':
      token.kind =
          following == '=' ? TOKEN_LESS_EQUAL : (following == '>' ? TOKEN_NOT_EQUAL : TOKEN_LESS);
      length = following == '=' || following == '>' ? 2 : 1;
      break;
    case '>':
      token.kind = following == '=' ? TOKEN_GREATER_EQUAL : TOKEN_GREATER;
      length = following == '=' ? 2 : 1;
      break;
    case '&':
    case '|':
      if (following != c) {
        return error(position_, position_ + 1,
                     std::string("unexpected '") + c + "' (did you mean '" + c + c + "'?)");
      }
      token.kind = c == '&' ? TOKEN_AND : TOKEN_OR;
      length = 2;
      break;
    default:
      return error(position_, position_ + 1, std::string("unexpected character '") + c + "'");
  }
  token.end = position_ = position_ + length;
  return token;
}

Token Lexer::lexNumber(size_t start) {
  size_t end = start;
  if (source_[end] == '0' && end + 1 < source_.size() &&
      (source_[end + 1] == 'x' || source_[end + 1] == 'X')) {
    end += 2;
    while (end < source_.size() && isNamePart(source_[end])) {
      ++end;
    }
  } else {
    while (end < source_.size() && (isNamePart(source_[end]) || source_[end] == '.' ||
                                    ((source_[end] == '+' || source_[end] == '-') &&
                                     (source_[end - 1] == 'e' || source_[end - 1] == 'E')))) {
      ++end;
    }
  }
  std::string_view lexeme = source_.substr(start, end - start);
  Token token;
  token.start = start;
  token.end = position_ = end;
  if (!parseNumber(lexeme, &token.number)) {
    return error(start, end, "malformed or too large number " + std::string(lexeme));
  }
  token.kind = TOKEN_NUMBER;
  return token;
}

Token Lexer::lexText(size_t start) {
  const char quote = source_[start];
  Token token;
  token.kind = TOKEN_TEXT;
  token.start = start;
  size_t i = start + 1;
  while (i < source_.size() && source_[i] != quote) {
    char c = source_[i];
    if (c == '\\' && i + 1 < source_.size()) {
      char escaped = source_[i + 1];
      if (escaped == '\\' || escaped == '"' || escaped == '\'') {
        token.text += escaped;
      } else if (escaped == 'n') {
        token.text += '\n';
      } else if (escaped == 't') {
        token.text += '\t';
      } else {
        token.text += c;
        token.text += escaped;
      }
      i += 2;
      continue;
    }
    token.text += c;
    ++i;
  }
  if (i >= source_.size()) {
    return error(start, source_.size(), std::string("text without its closing ") + quote);
  }
  token.end = position_ = i + 1;
  return token;
}

Token Lexer::lexQuotedName(size_t start) {
  size_t close = source_.find('`', start + 1);
  if (close == std::string_view::npos) {
    return error(start, source_.size(), "attribute name without its closing `");
  }
  if (close == start + 1) {
    return error(start, close + 1, "empty attribute name");
  }
  Token token;
  token.kind = TOKEN_QUOTED_NAME;
  token.start = start;
  token.text.assign(source_.substr(start + 1, close - start - 1));
  token.end = position_ = close + 1;
  return token;
}

int Lexer::errorColumn(const Token& token) {
  // Offsets are 0-based: the last character read is at end - 1, its column is end,
  // and the column after it end + 1. The end token has read nothing new: the last
  // character of the source (at end - 1 as well) is the one marked.
  return static_cast<int>(token.end) + 1;
}

std::string Lexer::describe(const Token& token) {
  switch (token.kind) {
    case TOKEN_END:
      return "end of text";
    case TOKEN_NUMBER:
      return "number";
    case TOKEN_TEXT:
      return "text \"" + token.text + "\"";
    case TOKEN_NAME:
      return "name " + token.text;
    case TOKEN_QUOTED_NAME:
      return "name `" + token.text + "`";
    case TOKEN_ERROR:
      return token.text;
    default:
      break;
  }
  static const char* const kSymbols[] = {"(",  ")",  ",", "+",  "-", "*",  "/",  "%", "!",
                                         "==", "!=", "<", "<=", ">", ">=", "&&", "||"};
  return std::string("'") + kSymbols[token.kind - TOKEN_OPEN] + "'";
}

}  // namespace XRV::expression
