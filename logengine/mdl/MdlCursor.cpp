#include "mdl/MdlCursor.h"

#include <cstdio>

#include "mdl/MdlDocument.h"

namespace xrvlog {

namespace {

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool isBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

bool isNameStart(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }

bool isNameChar(char c) { return isNameStart(c) || (c >= '0' && c <= '9'); }

bool MdlCursor::skipBlanks() {
  size_t start = position_;
  while (!atEnd() && isBlank(peek())) {
    advance();
  }
  return position_ != start;
}

void MdlCursor::requireSeparator(std::string_view after) {
  if (!skipBlanks() && !atEnd()) {
    fail("a blank after " + std::string(after));
  }
}

bool MdlCursor::acceptLiteral(std::string_view literal) {
  if (text_.size() - position_ < literal.size()) {
    return false;
  }
  for (size_t i = 0; i < literal.size(); ++i) {
    if (lower(text_[position_ + i]) != lower(literal[i])) {
      return false;
    }
  }
  position_ += literal.size();
  return true;
}

bool MdlCursor::acceptKeyword(std::string_view word) {
  size_t start = position_;
  if (!acceptLiteral(word)) {
    return false;
  }
  if (isNameChar(peek())) {
    position_ = start;
    return false;
  }
  return true;
}

void MdlCursor::expectLiteral(std::string_view literal, std::string_view what) {
  if (!acceptLiteral(literal)) {
    fail(what);
  }
}

size_t MdlCursor::oneOf(std::initializer_list<std::string_view> words, std::string_view what) {
  size_t index = 0;
  for (std::string_view word : words) {
    if (acceptKeyword(word)) {
      return index;
    }
    ++index;
  }
  fail(what);
}

std::string_view MdlCursor::token() {
  size_t start = position_;
  while (!atEnd() && !isBlank(peek())) {
    advance();
  }
  return text_.substr(start, position_ - start);
}

std::string_view MdlCursor::name(std::string_view what) {
  if (!isNameStart(peek())) {
    fail(what);
  }
  size_t start = position_;
  while (isNameChar(peek())) {
    advance();
  }
  if (position_ - start > MdlLimits::kNameBytes) {
    failAt(start, std::string(what) + " is longer than " + std::to_string(MdlLimits::kNameBytes) +
                      " bytes");
  }
  return text_.substr(start, position_ - start);
}

int MdlCursor::number(std::string_view what, long low, long high) {
  size_t start = position_;
  bool negative = acceptLiteral("-");
  long value = 0;
  bool digits = false;
  while (peek() >= '0' && peek() <= '9') {
    digits = true;
    if (value <= high) {
      value = value * 10 + (peek() - '0');
    }
    advance();
  }
  if (negative) {
    value = -value;
  }
  std::string range =
      std::string(what) + " from " + std::to_string(low) + " to " + std::to_string(high);
  if (!digits) {
    position_ = start;
    fail(range);
  }
  if (value < low || value > high) {
    failAt(start,
           "expected " + range + ", found " + std::string(text_.substr(start, position_ - start)));
  }
  return static_cast<int>(value);
}

std::string MdlCursor::quoted(std::string_view what, size_t limit) {
  if (peek() != '\'') {
    fail(std::string(what) + " in single quotes");
  }
  size_t start = position_;
  advance();
  std::string value;
  while (true) {
    if (atEnd()) {
      failAt(start, "the quote that opens " + std::string(what) + " is never closed");
    }
    char c = peek();
    advance();
    if (c == '\'') {
      if (peek() != '\'') {
        break;
      }
      advance();
    }
    if (value.size() == limit) {
      failAt(start, std::string(what) + " is longer than " + std::to_string(limit) + " bytes");
    }
    value.push_back(c);
  }
  return value;
}

std::string MdlCursor::describeNext() const {
  if (atEnd()) {
    return "the end of the line";
  }
  unsigned char c = static_cast<unsigned char>(peek());
  if (c < 0x20 || c == 0x7f) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "byte 0x%02X", c);
    return buffer;
  }
  std::string_view next = rest().substr(0, 24);
  size_t blank = next.find_first_of(" \t");
  if (blank != std::string_view::npos && blank > 0) {
    next = next.substr(0, blank);
  }
  return "'" + std::string(next) + "'";
}

void MdlCursor::fail(std::string_view expected) const {
  throw MdlSyntaxError{line_, column(),
                       "expected " + std::string(expected) + ", found " + describeNext()};
}

void MdlCursor::failAt(size_t position, std::string message) const {
  throw MdlSyntaxError{line_, static_cast<int>(position) + 1, std::move(message)};
}

}  // namespace xrvlog
