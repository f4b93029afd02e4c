#pragma once

// QRFScanner: cuts a format file (docs/format-files.md) into tokens for QRFParser.
// The language is line-oriented: the end of a line is a token of its own. A '#'
// where a token could begin starts a comment that runs to the end of the line.

#include <cstddef>
#include <string>
#include <string_view>

struct QRFToken {
  enum Type {
    END,       // the end of the text
    NEWLINE,   // the end of a line
    WORD,      // letters, digits and _ * . - :  (names, keywords)
    STRING,    // "text"; `text` holds it without quotes, escapes resolved
    VARIABLE,  // $N; `text` holds "$N"
    TOKEN,     // %NAME%
    EQUALS,
    COMMA,
    OPEN,      // (
    CLOSE,     // )
    BAD,       // something the scanner refuses; `text` says what was found, `problem` why
  };
  Type type = END;
  std::string text;
  std::string problem;
  int line = 1;

  // How an error message shows the token: its text, or what it stands for.
  std::string shown() const;
};

class QRFScanner {
 public:
  // The longest token (a pattern line included) the scanner takes.
  static constexpr size_t kMaxToken = 16384;

  explicit QRFScanner(std::string_view text) : text_(text) {}

  QRFToken next();
  // What the line holds from here to its end, blanks at both ends left out (the
  // expression of a pattern or regex line). A BAD token when it is too long or holds a
  // character the language refuses; else a WORD token.
  QRFToken restOfLine();
  int line() const { return line_; }

 private:
  QRFToken make(QRFToken::Type type, std::string text) const;
  QRFToken bad(std::string found, std::string problem) const;
  void skipBlanksAndComment();
  // Control characters other than tab and CR are not part of the language.
  static bool refused(char c);
  static std::string tooLong(std::string_view text);

  std::string_view text_;
  size_t at_ = 0;
  int line_ = 1;
};
