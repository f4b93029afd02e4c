#include "logmon/format/QRFScanner.h"

#include <cctype>

#include "logmon/format/QRFText.h"

namespace {

bool isWordCharacter(char c) {
  return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '*' || c == '.' ||
         c == '-' || c == ':' || (static_cast<unsigned char>(c) & 0x80) != 0;
}

}  // namespace

std::string QRFToken::shown() const {
  switch (type) {
    case END:
      return "end of file";
    case NEWLINE:
      return "end of line";
    case STRING:
      return "\"" + text.substr(0, 100) + "\"";
    default:
      return text.substr(0, 100);
  }
}

QRFToken QRFScanner::make(QRFToken::Type type, std::string text) const {
  QRFToken token;
  token.type = type;
  token.text = std::move(text);
  token.line = line_;
  return token;
}

QRFToken QRFScanner::bad(std::string found, std::string problem) const {
  QRFToken token = make(QRFToken::BAD, std::move(found));
  token.problem = std::move(problem);
  return token;
}

bool QRFScanner::refused(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return (byte < 0x20 && c != '\t' && c != '\r' && c != '\n') || byte == 0x7f;
}

std::string QRFScanner::tooLong(std::string_view text) {
  return qrf::format("token too long %.100s", std::string(text.substr(0, 100)).c_str());
}

void QRFScanner::skipBlanksAndComment() {
  while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\r')) {
    ++at_;
  }
  if (at_ < text_.size() && text_[at_] == '#') {
    while (at_ < text_.size() && text_[at_] != '\n') {
      ++at_;
    }
  }
}

QRFToken QRFScanner::next() {
  skipBlanksAndComment();
  if (at_ >= text_.size()) {
    return make(QRFToken::END, "");
  }
  const char c = text_[at_];
  if (c == '\n') {
    QRFToken token = make(QRFToken::NEWLINE, "");
    ++at_;
    ++line_;
    return token;
  }
  if (refused(c)) {
    ++at_;
    return bad(qrf::format("\\x%02x", static_cast<unsigned char>(c)),
               "control characters are not allowed");
  }
  const size_t start = at_;
  if (isWordCharacter(c)) {
    while (at_ < text_.size() && isWordCharacter(text_[at_])) {
      ++at_;
    }
    std::string_view word = text_.substr(start, at_ - start);
    if (word.size() > kMaxToken) {
      return bad(std::string(word.substr(0, 100)), tooLong(word));
    }
    return make(QRFToken::WORD, std::string(word));
  }
  ++at_;
  switch (c) {
    case '=':
      return make(QRFToken::EQUALS, "=");
    case ',':
      return make(QRFToken::COMMA, ",");
    case '(':
      return make(QRFToken::OPEN, "(");
    case ')':
      return make(QRFToken::CLOSE, ")");
    case '$': {
      while (at_ < text_.size() && isdigit(static_cast<unsigned char>(text_[at_])) != 0) {
        ++at_;
      }
      std::string_view number = text_.substr(start, at_ - start);
      if (number.size() == 1) {
        return bad("$", "expected a number after '$'");
      }
      if (number.size() > 5) {
        return bad(std::string(number.substr(0, 100)), "variables are numbered from $1 to $9999");
      }
      return make(QRFToken::VARIABLE, std::string(number));
    }
    case '%': {
      while (at_ < text_.size() &&
             (isalnum(static_cast<unsigned char>(text_[at_])) != 0 || text_[at_] == '_')) {
        ++at_;
      }
      if (at_ < text_.size() && text_[at_] == '%' && at_ > start + 1) {
        ++at_;
        return make(QRFToken::TOKEN, std::string(text_.substr(start, at_ - start)));
      }
      return bad(std::string(text_.substr(start, at_ - start)),
                 "expected a token such as %XRV_FILENAME%");
    }
    case '"': {
      std::string value;
      while (at_ < text_.size() && text_[at_] != '"' && text_[at_] != '\n') {
        char d = text_[at_++];
        if (refused(d)) {
          return bad(qrf::format("\\x%02x", static_cast<unsigned char>(d)),
                     "control characters are not allowed");
        }
        if (d == '\\' && at_ < text_.size() && (text_[at_] == '"' || text_[at_] == '\\')) {
          d = text_[at_++];
        }
        value += d;
        if (value.size() > kMaxToken) {
          return bad(value.substr(0, 100), tooLong(value));
        }
      }
      if (at_ >= text_.size() || text_[at_] != '"') {
        return bad("\"" + value.substr(0, 100), "a text in double quotes must end on its line");
      }
      ++at_;
      return make(QRFToken::STRING, value);
    }
    default:
      return bad(std::string(1, c), "this character cannot begin a word");
  }
}

QRFToken QRFScanner::restOfLine() {
  while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t')) {
    ++at_;
  }
  const size_t start = at_;
  while (at_ < text_.size() && text_[at_] != '\n') {
    if (refused(text_[at_])) {
      const char c = text_[at_];
      while (at_ < text_.size() && text_[at_] != '\n') {
        ++at_;
      }
      return bad(qrf::format("\\x%02x", static_cast<unsigned char>(c)),
                 "control characters are not allowed");
    }
    ++at_;
  }
  std::string_view rest = qrf::trimmed(text_.substr(start, at_ - start));
  if (rest.size() > kMaxToken) {
    return bad(std::string(rest.substr(0, 100)), tooLong(rest));
  }
  return make(QRFToken::WORD, std::string(rest));
}
