// A position in one MDL line with the small scanning steps the reader is made of.
// Every failure throws MdlSyntaxError carrying the line and column.

#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace xrvlog {

struct MdlSyntaxError {
  int line;
  int column;
  std::string message;
};

class MdlCursor {
 public:
  MdlCursor(std::string_view text, int line) : text_(text), line_(line) {}

  bool atEnd() const { return position_ >= text_.size(); }
  char peek(size_t ahead = 0) const {
    return position_ + ahead < text_.size() ? text_[position_ + ahead] : '\0';
  }
  void advance(size_t count = 1) { position_ += count; }
  size_t position() const { return position_; }
  void setPosition(size_t position) { position_ = position; }
  std::string_view text() const { return text_; }
  std::string_view rest() const { return text_.substr(position_); }
  int line() const { return line_; }
  int column() const { return static_cast<int>(position_) + 1; }

  // Skips spaces and tabs; returns whether there were any.
  bool skipBlanks();
  // Requires at least one blank, or the end of the line.
  void requireSeparator(std::string_view after);
  // Consumes `word` (letters compared without case) when it comes next and is not
  // followed by another name character.
  bool acceptKeyword(std::string_view word);
  // Consumes `literal` exactly (letters compared without case).
  bool acceptLiteral(std::string_view literal);
  void expectLiteral(std::string_view literal, std::string_view what);
  // Consumes the first of `words` that comes next as a keyword and returns its index.
  size_t oneOf(std::initializer_list<std::string_view> words, std::string_view what);
  // A run of non-blank characters; may be empty.
  std::string_view token();
  // A name: letters, digits and "_", starting with a letter or "_".
  std::string_view name(std::string_view what);
  // A decimal number within [low, high].
  int number(std::string_view what, long low, long high);
  // A single-quoted text, a doubled quote standing for one quote.
  std::string quoted(std::string_view what, size_t limit);

  [[noreturn]] void fail(std::string_view expected) const;
  [[noreturn]] void failAt(size_t position, std::string message) const;

  // How the character at the cursor is shown in messages.
  std::string describeNext() const;

 private:
  std::string_view text_;
  int line_;
  size_t position_ = 0;
};

bool isNameStart(char c);
bool isNameChar(char c);

}  // namespace xrvlog
