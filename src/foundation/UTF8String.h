#pragma once

// UTF8String: a text known to be in UTF-8, as the agent keeps and reports every text.
//
// The bytes are taken as given; isValid() tells whether they are well-formed, and
// fromNative()/assignNative() convert from the process locale's code page (ill-formed
// input then comes out repaired, see Utilities). Lengths are in bytes except
// charCount(). Comparisons are bytewise, which for UTF-8 is code-point order.
//
// Copyable and movable. Not thread-safe: one object, one thread at a time.

#include <cstddef>
#include <new>

#include "foundation/ObjectPool.h"
#include "foundation/String.h"

class UTF8String {
 public:
  UTF8String() = default;
  // A copy of the UTF-8 bytes of `utf8`; null gives the empty text.
  explicit UTF8String(const char* utf8);
  // A copy of the first `length` bytes of `utf8`.
  UTF8String(const char* utf8, size_t length);

  // A new object (caller deletes) holding `native` converted from the process
  // locale's code page; null when `native` is null or the conversion fails.
  static UTF8String* fromNative(const char* native);
  // Replaces the content with `length` bytes of native text, converted. Reuses the
  // buffer. False, with the object empty, when `native` is null or the conversion
  // fails.
  bool assignNative(const char* native, size_t length);

  // Append. A null text appends nothing. False when out of memory.
  bool concat(const UTF8String& other);
  bool concat(const char* utf8);

  // NUL-terminated; never null; valid until the next change of this object.
  const char* c_str() const { return text_.c_str(); }
  const char* getBytes() const { return text_.c_str(); }
  const XRV::String& str() const { return text_; }
  // In bytes.
  size_t length() const { return text_.length(); }
  bool empty() const { return text_.empty(); }
  // In code points; every ill-formed part counts as one (the U+FFFD it would become).
  size_t charCount() const;

  bool equals(const UTF8String& other) const { return text_ == other.text_; }
  // False for null.
  bool equals(const char* utf8) const { return text_ == utf8; }
  // Negative, zero or positive as this text sorts before, with or after the other,
  // byte by byte (a text sorts after its own beginning). Null sorts first.
  int compare(const UTF8String& other) const;
  int compare(const char* utf8) const;

  // True when the bytes are well-formed UTF-8.
  bool isValid() const;

  // Text values are made for every row of every collection: their objects come from
  // a pool, and short texts need no buffer of their own (see XRV::String).
  static void* operator new(size_t size) { return XRV::ObjectPool<UTF8String>::allocate(size); }
  static void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return XRV::ObjectPool<UTF8String>::allocateOrNull(size);
  }
  static void operator delete(void* block, size_t size) {
    XRV::ObjectPool<UTF8String>::release(block, size);
  }

 private:
  XRV::String text_;
};
