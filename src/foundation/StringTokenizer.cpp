#include "foundation/StringTokenizer.h"

#include <cstring>

#include "framework/Trace.h"

namespace {

bool isContinuationByte(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

}  // namespace

StringTokenizer::StringTokenizer(const char* text, const char* delimiters)
    : text_(text), delimiters_(delimiters) {
  XRV_TRACE_FN();
}

void StringTokenizer::reset(const char* text) {
  text_.assign(text);
  position_ = 0;
  exhausted_ = false;
}

const char* StringTokenizer::takeToken(size_t begin, size_t end) {
  if (!token_.assign(text_.c_str() + begin, end - begin)) {
    return nullptr;
  }
  return token_.c_str();
}

const char* StringTokenizer::nextToken() { return nextToken(nullptr); }

const char* StringTokenizer::nextToken(const char* delimiters) {
  XRV_TRACE_FN();
  if (!hasMoreTokens()) {
    return nullptr;
  }
  const char* set = delimiters == nullptr ? delimiters_.c_str() : delimiters;
  size_t begin = position_;
  size_t end = begin + strcspn(text_.c_str() + begin, set);
  if (end < text_.length()) {
    position_ = end + 1;
  } else {
    position_ = end;
    exhausted_ = true;
  }
  return takeToken(begin, end);
}

const char* StringTokenizer::nextToken(const char* beginDelimiter, const char* endDelimiter) {
  XRV_TRACE_FN();
  if (!hasMoreTokens()) {
    return nullptr;
  }
  const char* text = text_.c_str();
  size_t length = text_.length();
  size_t begin = position_;
  if (beginDelimiter != nullptr && *beginDelimiter != '\0') {
    const char* found = strstr(text + begin, beginDelimiter);
    if (found == nullptr) {
      XRV_TRACE_DETAIL("Begin delimiter %s not found", beginDelimiter);
      return nullptr;
    }
    begin = static_cast<size_t>(found - text) + strlen(beginDelimiter);
  }
  const char* found = endDelimiter == nullptr || *endDelimiter == '\0'
                          ? nullptr
                          : strstr(text + begin, endDelimiter);
  if (found == nullptr) {
    position_ = length;
    exhausted_ = true;
    return takeToken(begin, length);
  }
  size_t end = static_cast<size_t>(found - text);
  position_ = end + strlen(endDelimiter);
  if (position_ < length && strchr(delimiters_.c_str(), text[position_]) != nullptr) {
    ++position_;
  }
  return takeToken(begin, end);
}

const char* StringTokenizer::nextChars(int count) {
  XRV_TRACE_FN();
  if (!hasMoreTokens()) {
    return nullptr;
  }
  const char* text = text_.c_str();
  size_t length = text_.length();
  size_t begin = position_;
  size_t end = begin;
  if (!utf8_) {
    size_t wanted = count < 1 ? 0 : static_cast<size_t>(count);
    end = wanted < length - begin ? begin + wanted : length;
  } else {
    // A character is a byte and the continuation bytes behind it, at most four bytes
    // in all, so that stray continuation bytes in a broken text still count.
    for (int taken = 0; taken < count && end < length; ++taken) {
      size_t start = end++;
      while (end < length && end - start < 4 && isContinuationByte(text[end])) {
        ++end;
      }
    }
  }
  position_ = end;
  if (end == length) {
    exhausted_ = true;
  }
  return takeToken(begin, end);
}

const char* StringTokenizer::restOfLine() {
  XRV_TRACE_FN();
  if (exhausted_) {
    return nullptr;
  }
  size_t begin = position_;
  position_ = text_.length();
  exhausted_ = true;
  return takeToken(begin, position_);
}
