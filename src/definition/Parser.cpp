#include "definition/Parser.h"

#include <cstdlib>
#include <cstring>

#include "definition/XMLHandler.h"
#include "framework/Trace.h"

namespace {

// Byte classes for the scans inside a tag. The space is the only blank there.
constexpr unsigned char kEndsTagName = 1;        // ' ', '/', '>', end of buffer
constexpr unsigned char kEndsAttributeName = 2;  // '=', the tag's '>', end of buffer

struct ByteClasses {
  unsigned char of[256] = {};
  constexpr ByteClasses() {
    of[0] = kEndsTagName | kEndsAttributeName;
    of[static_cast<unsigned char>(' ')] = kEndsTagName;
    of[static_cast<unsigned char>('/')] = kEndsTagName;
    of[static_cast<unsigned char>('>')] = kEndsTagName | kEndsAttributeName;
    of[static_cast<unsigned char>('=')] = kEndsAttributeName;
  }
};
constexpr ByteClasses kClasses;

// The first byte from `p` on that is in one of the classes of `mask`. Names are a few
// bytes long: a table lookup per byte beats the set-up of a library search.
inline char* scanTo(char* p, unsigned char mask) {
  while ((kClasses.of[static_cast<unsigned char>(*p)] & mask) == 0) {
    ++p;
  }
  return p;
}

// How much of an entity name an error shows when no ';' ends it.
constexpr size_t kShownNameLength = 32;

constexpr int kLargestCodePoint = 0x10FFFF;

// The body of a numeric character reference: an 'x' and hexadecimal digits, or decimal
// digits, read as far as they go (as scanf's "%x" and "%d" read them: what follows
// the number is ignored). False only when there is no number at all. The value is
// not checked: each parser writes what it can of it.
bool readCodePoint(const char* body, long long* value) {
  const int base = *body == 'x' ? 16 : 10;
  const char* digits = base == 16 ? body + 1 : body;
  char* end = nullptr;
  long long result = strtoll(digits, &end, base);
  if (end == digits) {
    return false;
  }
  *value = result;
  return true;
}

// The escaped form of one byte for substituteEntities, written to `to` when given;
// returns its length.
size_t escapeByte(unsigned char c, char* to) {
  const char* replacement;
  switch (c) {
    case '&':
      replacement = "&amp;";
      break;
    case '<':
      replacement = "&lt;";
      break;
    case '>':
      replacement = "&gt;";
      break;
    case '"':
      replacement = "&quot;";
      break;
    case '\'':
      replacement = "&apos;";
      break;
    case '\n':
      replacement = "&#10;";
      break;
    case '\r':
      replacement = "&#13;";
      break;
    default:
      if (c >= 0x01 && c < 0x20) {
        // "&#NN;": two decimal digits.
        if (to != nullptr) {
          to[0] = '&';
          to[1] = '#';
          to[2] = static_cast<char>('0' + c / 10);
          to[3] = static_cast<char>('0' + c % 10);
          to[4] = ';';
        }
        return 5;
      }
      if (to != nullptr) {
        *to = static_cast<char>(c);
      }
      return 1;
  }
  const size_t length = strlen(replacement);
  if (to != nullptr) {
    memcpy(to, replacement, length);
  }
  return length;
}

}  // namespace

Parser::Parser(XMLHandler* handler) : handler_(handler), attributes_(16) {}

Parser::~Parser() = default;

size_t Parser::getCurrentOffset() const {
  if (document_ == nullptr || position_ == nullptr) {
    return 0;
  }
  return static_cast<size_t>(position_ - document_);
}

inline bool Parser::entityBefore(const char* from, const char* to) {
  if (nextEntity_ < from) {
    nextEntity_ = strchrnul(from, '&');
  }
  return nextEntity_ < to;
}

bool Parser::parse(char* document) {
  XRV_TRACE_FN();
  document_ = document;
  position_ = document;
  stack_.clear();
  attributes_.clear();
  if (document == nullptr) {
    return false;
  }

  nextEntity_ = strchrnul(document, '&');
  char* p = document;
  while (*p != '\0') {
    char* open = strchrnul(p, '<');
    const bool atEnd = *open == '\0';
    if (open != p && handler_ != nullptr) {
      // Cut the text off at the '<'; the tag is read from the bytes after it.
      *open = '\0';
      position_ = p;
      if (entityBefore(p, open) && !replaceEntities(p)) {
        return false;
      }
      // A reference to a value whose low byte is 0 can leave nothing to report.
      if (*p != '\0') {
        handler_->characters(p);
      }
    }
    if (atEnd) {
      p = open;
      break;
    }

    char* next;
    if (open[1] == '!' && open[2] == '-' && open[3] == '-') {
      char* close = strstr(open + 4, "-->");
      if (close == nullptr) {
        reportError(open, "Unfinished comment found");
        return false;
      }
      next = close + 3;
    } else if (open[1] == '?') {
      char* close = strstr(open + 2, "?>");
      if (close == nullptr) {
        reportError(open, "Unfinished declaration found");
        return false;
      }
      next = close + 2;
    } else if (open[1] == '/') {
      next = endTag(open);
    } else {
      next = startTag(open);
    }
    if (next == nullptr) {
      return false;
    }
    p = next;
  }

  if (stack_.getCount() > 0) {
    // Point at the '<' of the innermost element left open.
    const char* name = static_cast<const char*>(stack_.peek());
    reportError(name - 1, "Missing end tag for element: %s", name);
    return false;
  }
  position_ = p;
  return true;
}

char* Parser::endTag(char* open) {
  char* name = open + 2;
  char* end = scanTo(name, kEndsTagName);
  switch (*end) {
    case '>':
      break;
    case ' ':
      reportError(open, "Element ending tags cannot have attributes");
      return nullptr;
    case '/':
      if (end[1] == '>') {
        *end = '\0';
        reportError(open, "Self terminated tag for end tag: %s", name);
      } else {
        reportError(open, "Incorrect end of tag");
      }
      return nullptr;
    default:
      reportError(open, "Cannot find end of tag");
      return nullptr;
  }
  *end = '\0';
  if (stack_.getCount() == 0) {
    reportError(open, "Unbalanced end tag found: %s", name);
    return nullptr;
  }
  const char* top = static_cast<const char*>(stack_.peek());
  if (strcmp(top, name) != 0) {
    reportError(open, "Mismatched end tag found: %s != %s", name, top);
    return nullptr;
  }
  stack_.pop();
  if (handler_ != nullptr) {
    position_ = open;
    handler_->endElement(name);
  }
  return end + 1;
}

char* Parser::startTag(char* open) {
  char* name = open + 1;
  char* cursor = scanTo(name, kEndsTagName);
  bool selfClosing = false;
  switch (*cursor) {
    case '>':
      // No attributes: nothing to clear afterwards.
      *cursor = '\0';
      if (handler_ != nullptr) {
        position_ = open;
        handler_->startElement(name, &attributes_);
      }
      stack_.add(name);
      return cursor + 1;
    case '/':
      if (cursor[1] != '>') {
        reportError(open, "Incorrect end of tag found");
        return nullptr;
      }
      *cursor = '\0';
      selfClosing = true;
      cursor += 2;
      break;
    case ' ':
      *cursor++ = '\0';
      break;
    default:
      reportError(open, "Cannot find end of tag");
      return nullptr;
  }

  while (!selfClosing) {
    while (*cursor == ' ') {
      ++cursor;
    }
    if (*cursor == '>') {
      ++cursor;
      break;
    }
    if (*cursor == '/') {
      if (cursor[1] != '>') {
        reportError(open, "Incorrect end of tag found");
        return nullptr;
      }
      cursor += 2;
      selfClosing = true;
      break;
    }
    if (*cursor == '\0') {
      reportError(open, "Cannot find end of tag or start of attribute");
      return nullptr;
    }
    // The name runs to the '=' as it stands, blanks and all; a name that meets the
    // tag's '>' first has no value.
    char* attributeName = cursor;
    char* equals = scanTo(cursor, kEndsAttributeName);
    if (*equals != '=') {
      reportError(open, "Cannot find start of attribute value");
      return nullptr;
    }
    if (equals[1] != '"') {
      reportError(open, "Attribute value does not start with quote");
      return nullptr;
    }
    char* value = equals + 2;
    char* close = strchr(value, '"');
    if (close == nullptr) {
      reportError(open, "Cannot find end of attribute value");
      return nullptr;
    }
    const bool hasEntity = entityBefore(value, close);
    *equals = '\0';
    *close = '\0';
    if (hasEntity && !replaceEntities(value)) {
      return nullptr;
    }
    attributes_.put(attributeName, value);
    cursor = close + 1;
  }

  if (handler_ != nullptr) {
    position_ = open;
    handler_->startElement(name, &attributes_);
    if (selfClosing) {
      handler_->endElement(name);
    }
  }
  if (!selfClosing) {
    stack_.add(name);
  }
  if (attributes_.getCount() > 0) {
    attributes_.clear();
  }
  return cursor;
}

bool Parser::replaceEntities(char* text) {
  XRV_TRACE_FN();
  // Replacements are never longer than what they replace, so the text is rewritten
  // from the front: `to` trails `from`, which keeps the original offsets for errors.
  char* to = text;
  char* from = text;
  for (;;) {
    char* amp = strchr(from, '&');
    if (amp == nullptr) {
      if (to != from) {
        memmove(to, from, strlen(from) + 1);
      }
      return true;
    }
    const size_t plain = static_cast<size_t>(amp - from);
    if (to != from) {
      memmove(to, from, plain);
    }
    to += plain;

    char* name = amp + 1;
    char* semicolon = strchr(name, ';');
    if (semicolon == nullptr) {
      char shown[kShownNameLength + 1];
      const size_t length = strnlen(name, kShownNameLength);
      memcpy(shown, name, length);
      shown[length] = '\0';
      reportError(amp, "Unrecognized entity: %s", shown);
      return false;
    }
    const size_t length = static_cast<size_t>(semicolon - name);
    if (length == 0) {
      reportError(amp, "Entity name cannot be empty");
      return false;
    }
    *semicolon = '\0';

    char replacement = '\0';
    if (length == 2 && name[1] == 't' && (name[0] == 'l' || name[0] == 'g')) {
      replacement = name[0] == 'l' ? '<' : '>';
    } else if (length == 3 && memcmp(name, "amp", 3) == 0) {
      replacement = '&';
    } else if (length == 4 && memcmp(name, "quot", 4) == 0) {
      replacement = '"';
    } else if (length == 4 && memcmp(name, "apos", 4) == 0) {
      replacement = '\'';
    }

    if (replacement != '\0') {
      *to++ = replacement;
    } else if (*name == '#') {
      char bytes[4];
      int count = 0;
      decodeValue(name + 1, bytes, &count);
      if (count <= 0 || count > 4) {
        reportError(amp, "Unrecognized entity: %s", name);
        return false;
      }
      memcpy(to, bytes, static_cast<size_t>(count));
      to += count;
    } else {
      reportError(amp, "Unrecognized entity: %s", name);
      return false;
    }
    from = semicolon + 1;
  }
}

void Parser::reportError(const char* at, const char* format, const char* arg, const char* arg2) {
  XRV_TRACE_FN();
  position_ = at;
  if (handler_ != nullptr) {
    if (arg2 != nullptr) {
      handler_->fatalError(format, arg, arg2);
    } else if (arg != nullptr) {
      handler_->fatalError(format, arg);
    } else {
      handler_->fatalError(format);
    }
  }
  stack_.clear();
  attributes_.clear();
}

void Parser::decodeValue(char* entity, char* out, int* length) {
  XRV_TRACE_FN();
  long long value = 0;
  if (!readCodePoint(entity, &value)) {
    *length = 0;
    return;
  }
  out[0] = static_cast<char>(value & 0xFF);
  *length = 1;
}

void DecodingParser::decodeValue(char* entity, char* out, int* length) {
  XRV_TRACE_FN();
  long long value = 0;
  if (!readCodePoint(entity, &value)) {
    *length = 0;
    return;
  }
  int count = value < 0 || value > kLargestCodePoint
                  ? 0
                  : convertToUTF8(static_cast<int>(value), out, 4);
  if (count == 0) {
    // A surrogate, or beyond the last code point: no character of its own.
    out[0] = static_cast<char>(value & 0xFF);
    count = 1;
  }
  *length = count;
}

int convertToUTF8(int codePoint, char* out, int outSize) {
  XRV_TRACE_FN();
  if (out == nullptr || codePoint < 0 || codePoint > kLargestCodePoint ||
      (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
    return 0;
  }
  const auto value = static_cast<unsigned>(codePoint);
  int count;
  if (value < 0x80) {
    count = 1;
  } else if (value < 0x800) {
    count = 2;
  } else if (value < 0x10000) {
    count = 3;
  } else {
    count = 4;
  }
  if (count > outSize) {
    return 0;
  }
  switch (count) {
    case 1:
      out[0] = static_cast<char>(value);
      break;
    case 2:
      out[0] = static_cast<char>(0xC0 | (value >> 6));
      out[1] = static_cast<char>(0x80 | (value & 0x3F));
      break;
    case 3:
      out[0] = static_cast<char>(0xE0 | (value >> 12));
      out[1] = static_cast<char>(0x80 | ((value >> 6) & 0x3F));
      out[2] = static_cast<char>(0x80 | (value & 0x3F));
      break;
    default:
      out[0] = static_cast<char>(0xF0 | (value >> 18));
      out[1] = static_cast<char>(0x80 | ((value >> 12) & 0x3F));
      out[2] = static_cast<char>(0x80 | ((value >> 6) & 0x3F));
      out[3] = static_cast<char>(0x80 | (value & 0x3F));
      break;
  }
  if (count < outSize) {
    out[count] = '\0';
  }
  return count;
}

void substituteEntities(const char* text, char** out) {
  XRV_TRACE_FN();
  if (out == nullptr) {
    return;
  }
  *out = nullptr;
  if (text == nullptr) {
    text = "";
  }
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  size_t size = 1;
  for (const unsigned char* p = bytes; *p != '\0'; ++p) {
    size += escapeByte(*p, nullptr);
  }
  char* result = static_cast<char*>(malloc(size));
  if (result == nullptr) {
    XRV_TRACE_ERROR("Memory allocation failed");
    return;
  }
  char* to = result;
  for (const unsigned char* p = bytes; *p != '\0'; ++p) {
    to += escapeByte(*p, to);
  }
  *to = '\0';
  *out = result;
}
