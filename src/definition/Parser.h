#pragma once

// The definition reader: a small XML parser that works in place on a NUL-terminated
// buffer and reports what it finds to an XMLHandler.
//
// It reads the subset of XML that agent definitions use: elements, attributes in
// double quotes, text, comments ("<!-- -->"), declarations ("<? ?>") and the
// entities &lt; &gt; &amp; &quot; &apos; with numeric character references (&#65;
// &#x41;). Inside a tag only the space character separates attributes: a tab or a
// line break becomes part of the next attribute's name.
//
// The first syntax error goes to the handler's fatalError and ends the parse.
//
// The buffer is changed as the parse goes: names and values are cut out of it with
// NULs and entities are replaced where they stand. Byte offsets into the buffer stay
// those of the original document, so getCurrentOffset() can be mapped back to a line
// and column of the original text.
//
// One Parser parses one document at a time; not thread-safe.

#include <cstddef>

#include "foundation/HashMap.h"
#include "foundation/List.h"

class XMLHandler;

class Parser {
 public:
  // `handler` may be null: the document is then only checked.
  explicit Parser(XMLHandler* handler);
  virtual ~Parser();
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

  // Parses `document` (NUL-terminated; changed in place). True when no error was
  // found.
  bool parse(char* document);

  // Byte offset from the start of the document: during a callback, of the '<' of the
  // tag being reported (for characters, of the text's first byte); after an error, of
  // the construct in which it was found (the tag's '<', the entity's '&').
  size_t getCurrentOffset() const;

 protected:
  // Turns the body of a numeric character reference (what stands between "&#" and
  // ";", e.g. "65" or "x41") into bytes at `out` (room for at least 4) and their
  // count in *length. This parser writes the low eight bits of the value as one
  // byte. Sets *length to 0 when the body is not a number from 1 to 0x10FFFF.
  virtual void decodeValue(char* entity, char* out, int* length);

 private:
  // Replaces the entities of the NUL-terminated `text` in place. False after
  // reporting an unknown or empty entity.
  bool replaceEntities(char* text);
  // Each reads the tag whose '<' is at `open`, reports it and returns where the parse
  // goes on; null after reporting an error. They run once per tag, so they carry no
  // trace scope of their own.
  char* startTag(char* open);
  char* endTag(char* open);
  // True when an '&' stands in [from, to). `from` never decreases during a parse and
  // the bytes from it on are still those of the document: one search ahead serves
  // every text and value up to the next '&', which is rare in definitions.
  bool entityBefore(const char* from, const char* to);
  void reportError(const char* at, const char* format, const char* arg = nullptr,
                   const char* arg2 = nullptr);

  XMLHandler* handler_;
  List stack_;          // names of the open elements, innermost last
  HashMap attributes_;  // of the current start tag
  const char* document_ = nullptr;
  const char* position_ = nullptr;
  const char* nextEntity_ = nullptr;  // the first '&' at or after the last search start
};

// Writes character references as UTF-8 (up to four bytes), falling back to the low
// eight bits of the value when it is no valid code point.
class DecodingParser : public Parser {
 public:
  using Parser::Parser;

 protected:
  void decodeValue(char* entity, char* out, int* length) override;
};

// Writes the UTF-8 form of `codePoint` to `out` (NUL-terminated when there is room).
// Returns the number of bytes (1 to 4), or 0 when the code point is negative, a
// surrogate, above 0x10FFFF, or does not fit in `outSize` bytes.
int convertToUTF8(int codePoint, char* out, int outSize);

// Escapes `text` for an XML document the agent writes: & < > " ' become entities,
// line feed and carriage return become "&#10;" and "&#13;", other control characters
// "&#NN;" with two decimal digits. *out receives a newly allocated text (caller
// frees), or null when memory runs out ("Memory allocation failed" is traced).
void substituteEntities(const char* text, char** out);
