#pragma once

// StringTokenizer: takes a text apart, one token at a time, from left to right.
//
// A script's output line is cut attribute by attribute, and each attribute may use a
// different way of finding its end; the four ways below can therefore be mixed freely
// on the same text, each one continuing where the previous one stopped.
//
// Delimited tokens (nextToken(), nextToken(delimiters)):
//   The token is the text up to the next of the delimiter characters; the delimiter
//   itself is consumed. Two consecutive delimiters give an empty token ("a,,b" gives
//   "a", "", "b"; ",a" gives "", "a"). A delimiter at the very end does not start a
//   further token ("a," gives "a" and then none), and an empty text has no tokens.
//   An empty delimiter set makes the token the rest of the text.
//
// Enclosed tokens (nextToken(beginDelimiter, endDelimiter)):
//   Both are strings, not character sets. With a begin string, the text up to and
//   including its next occurrence is skipped (there is no token when it does not
//   occur) and the token runs up to the next end string. Without one (null or ""),
//   the token runs from the current position up to the end string, which thus works
//   as a separator of several characters. When the end string never comes (or is
//   null or ""), the token is the rest of the text. After the end string, one
//   directly following character of the tokenizer's own delimiter set is consumed
//   too, so that "\"abc\",def" with '"' and '"', and then the delimiter ",", gives
//   "abc" and "def".
//
// Fixed-width tokens (nextChars(count)):
//   The next `count` bytes, or characters after setUtf8(true) (a multi-byte UTF-8
//   character is never cut); fewer at the end of the text. A delimiter that follows
//   is not consumed: fixed-width columns are fixed.
//
// The rest (restOfLine()):
//   Everything from the current position to the end, possibly "" (the last column of
//   "a," is ""). The tokenizer is exhausted afterwards.
//
// The tokenizer is also exhausted once a token has run to the end of the text. Every
// operation returns null when no token is left, and a call that returns null changes
// nothing. hasMoreTokens() tells whether
// nextToken() would give one; restOfLine() may still give "" when it says false.
//
// Ownership: the tokenizer copies the text and the delimiters it is given. Tokens are
// NUL-terminated texts in the tokenizer's own buffer, valid until the next call on
// the object. reset() reuses both buffers, so cutting line after line allocates only
// when a line is longer than every line before it.
//
// Not thread-safe: one object, one thread at a time.

#include <cstddef>

#include "foundation/String.h"

class StringTokenizer {
 public:
  // `text` null: the empty text. `delimiters` null: "" (every token is the rest).
  StringTokenizer(const char* text, const char* delimiters);
  StringTokenizer(const StringTokenizer&) = delete;
  StringTokenizer& operator=(const StringTokenizer&) = delete;

  // Starts over on a new text with the same delimiters and mode.
  void reset(const char* text);

  bool hasMoreTokens() const { return !exhausted_ && position_ < text_.length(); }

  // The next token at the tokenizer's delimiters; null when none is left.
  const char* nextToken();
  // The next token at the given delimiter characters, for this call only (null: the
  // tokenizer's own delimiters).
  const char* nextToken(const char* delimiters);
  // The next enclosed token (see above); null when none is left or the begin string
  // does not occur. On null the position is unchanged.
  const char* nextToken(const char* beginDelimiter, const char* endDelimiter);
  // The next `count` bytes or UTF-8 characters; null when none is left. A count below 1
  // gives "" (when something is left) and consumes nothing.
  const char* nextChars(int count);
  // Everything that is left, possibly ""; null once the tokenizer is exhausted.
  const char* restOfLine();

  // nextChars counts UTF-8 characters instead of bytes. Off by default; reset() keeps
  // it.
  void setUtf8(bool utf8) { utf8_ = utf8; }
  bool isUtf8() const { return utf8_; }

 private:
  const char* takeToken(size_t begin, size_t end);

  XRV::String text_;
  XRV::String delimiters_;
  XRV::String token_;
  size_t position_ = 0;     // first byte not yet consumed
  bool exhausted_ = false;  // a token ran to the end, or the rest was taken
  bool utf8_ = false;
};
