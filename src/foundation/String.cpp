#include "foundation/String.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "framework/Trace.h"

namespace XRV {

namespace {

// The smallest buffer worth allocating, not counting the NUL.
constexpr size_t kMinimumCapacity = 15;

}  // namespace

String::String(const char* text) {
  if (text != nullptr) {
    assign(text, strlen(text));
  }
}

String::String(const char* text, size_t length) {
  if (text != nullptr) {
    assign(text, length);
  }
}

String::String(const String& other) { assign(other.buffer_, other.length_); }

String::String(String&& other) noexcept { takeFrom(other); }

void String::takeFrom(String& other) noexcept {
  if (other.ownsBuffer()) {
    buffer_ = other.buffer_;
    capacity_ = other.capacity_;
  } else {
    buffer_ = inline_;
    capacity_ = kInlineCapacity;
    memcpy(inline_, other.inline_, other.length_ + 1);
  }
  length_ = other.length_;
  other.resetInline();
}

String& String::operator=(const String& other) {
  if (this != &other) {
    assign(other.buffer_, other.length_);
  }
  return *this;
}

String& String::operator=(String&& other) noexcept {
  if (this != &other) {
    if (ownsBuffer()) {
      free(buffer_);
    }
    takeFrom(other);
  }
  return *this;
}

String::~String() {
  if (ownsBuffer()) {
    free(buffer_);
  }
}

bool String::grow(size_t needed) {
  XRV_TRACE_FN();
  if (needed >= SIZE_MAX / 2) {
    XRV_TRACE_ERROR("Text of %zu bytes is too long", needed);
    return false;
  }
  size_t capacity = capacity_ * 2;
  if (capacity < needed) {
    capacity = needed;
  }
  if (capacity < kMinimumCapacity) {
    capacity = kMinimumCapacity;
  }
  char* buffer =
      static_cast<char*>(ownsBuffer() ? realloc(buffer_, capacity + 1) : malloc(capacity + 1));
  if (buffer == nullptr) {
    XRV_TRACE_ERROR("Unable to allocate %zu bytes for a text", capacity + 1);
    return false;
  }
  if (!ownsBuffer()) {
    memcpy(buffer, inline_, length_ + 1);
  }
  buffer_ = buffer;
  capacity_ = capacity;
  return true;
}

bool String::reserve(size_t capacity) { return capacity <= capacity_ || grow(capacity); }

void String::setLength(size_t length) {
  length_ = length > capacity_ ? capacity_ : length;
  buffer_[length_] = '\0';
}

bool String::append(const char* text) { return text == nullptr || append(text, strlen(text)); }

bool String::append(const char* text, size_t length) {
  if (text == nullptr || length == 0) {
    return true;
  }
  if (length > capacity_ - length_) {
    if (length > SIZE_MAX / 2) {
      return false;
    }
    // The text may be a part of this very object, which growing moves.
    bool inside = text >= buffer_ && text <= buffer_ + capacity_;
    size_t offset = inside ? static_cast<size_t>(text - buffer_) : 0;
    if (!grow(length_ + length)) {
      return false;
    }
    if (inside) {
      text = buffer_ + offset;
    }
  }
  memmove(buffer_ + length_, text, length);
  length_ += length;
  buffer_[length_] = '\0';
  return true;
}

bool String::append(char c) {
  if (length_ == capacity_ && !grow(length_ + 1)) {
    return false;
  }
  buffer_[length_++] = c;
  buffer_[length_] = '\0';
  return true;
}

bool String::appendFormat(const char* format, ...) {
  XRV_TRACE_FN();
  if (format == nullptr) {
    return true;
  }
  size_t room = capacity_ - length_ + 1;
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int printed = vsnprintf(buffer_ + length_, room, format, args);
  va_end(args);
  if (printed < 0) {
    va_end(again);
    buffer_[length_] = '\0';
    XRV_TRACE_ERROR("Unprintable format %s", format);
    return false;
  }
  size_t added = static_cast<size_t>(printed);
  if (added < room) {
    va_end(again);
    length_ += added;
    return true;
  }
  if (!grow(length_ + added)) {
    va_end(again);
    buffer_[length_] = '\0';
    return false;
  }
  vsnprintf(buffer_ + length_, capacity_ - length_ + 1, format, again);
  va_end(again);
  length_ += added;
  return true;
}

bool String::assign(const char* text) {
  if (text == nullptr) {
    clear();
    return true;
  }
  return assign(text, strlen(text));
}

bool String::assign(const char* text, size_t length) {
  if (text == nullptr || length == 0) {
    clear();
    return true;
  }
  // A text inside this object's buffer always fits, so it is never moved away.
  if (length > capacity_ && !grow(length)) {
    return false;
  }
  memmove(buffer_, text, length);
  length_ = length;
  buffer_[length_] = '\0';
  return true;
}

void String::clear() {
  length_ = 0;
  buffer_[0] = '\0';
}

char* String::release() {
  XRV_TRACE_FN();
  char* result = buffer_;
  if (!ownsBuffer()) {
    result = static_cast<char*>(malloc(length_ + 1));
    if (result == nullptr) {
      XRV_TRACE_ERROR("Unable to allocate %zu bytes for a text", length_ + 1);
      return nullptr;
    }
    memcpy(result, inline_, length_ + 1);
  }
  resetInline();
  return result;
}

bool String::operator==(const String& other) const {
  return length_ == other.length_ && memcmp(buffer_, other.buffer_, length_) == 0;
}

bool String::operator==(const char* text) const {
  return text != nullptr && strlen(text) == length_ && memcmp(buffer_, text, length_) == 0;
}

}  // namespace XRV
