#include "foundation/UTF8String.h"

#include <cstring>

#include "foundation/Utilities.h"
#include "framework/Trace.h"

namespace {

int compareBytes(const char* left, size_t leftLength, const char* right, size_t rightLength) {
  size_t common = leftLength < rightLength ? leftLength : rightLength;
  int result = memcmp(left, right, common);
  if (result != 0) {
    return result;
  }
  if (leftLength == rightLength) {
    return 0;
  }
  return leftLength < rightLength ? -1 : 1;
}

}  // namespace

UTF8String::UTF8String(const char* utf8) : text_(utf8) {}

UTF8String::UTF8String(const char* utf8, size_t length) : text_(utf8, length) {}

UTF8String* UTF8String::fromNative(const char* native) {
  XRV_TRACE_FN();
  if (native == nullptr) {
    return nullptr;
  }
  auto* result = new UTF8String;
  if (!result->assignNative(native, strlen(native))) {
    delete result;
    return nullptr;
  }
  return result;
}

bool UTF8String::assignNative(const char* native, size_t length) {
  XRV_TRACE_FN();
  return Utilities::nativeToUTF8(native, length, &text_);
}

bool UTF8String::concat(const UTF8String& other) { return text_.append(other.text_); }

bool UTF8String::concat(const char* utf8) { return text_.append(utf8); }

size_t UTF8String::charCount() const {
  XRV_TRACE_FN();
  const char* text = text_.c_str();
  size_t length = text_.length();
  size_t count = 0;
  size_t i = 0;
  while (i < length) {
    if (static_cast<unsigned char>(text[i]) < 0x80) {
      ++i;
    } else {
      bool valid = false;
      i += Utilities::scanUTF8Character(text + i, length - i, &valid);
    }
    ++count;
  }
  return count;
}

int UTF8String::compare(const UTF8String& other) const {
  return compareBytes(text_.c_str(), text_.length(), other.text_.c_str(), other.text_.length());
}

int UTF8String::compare(const char* utf8) const {
  if (utf8 == nullptr) {
    return 1;
  }
  return compareBytes(text_.c_str(), text_.length(), utf8, strlen(utf8));
}

bool UTF8String::isValid() const { return Utilities::isValidUTF8(text_.c_str(), text_.length()); }
