#pragma once

// XRV::String: the agent's growable text.
//
// A text of up to kInlineCapacity bytes lives inside the object; a longer one in a
// malloc'd buffer that grows geometrically. Rows hold many short texts (keys, states,
// names), so most values never allocate. Either way the text ends in a NUL, so c_str()
// can be handed to C interfaces as it is. Moving an object moves an inline text with
// it: pointers from c_str() and data() do not survive a move.
//
// Bytes are copied verbatim; a text given with an explicit length may hold NULs, and
// length() counts them, but c_str() readers stop at the first.
//
// Growth can fail when memory is short: the growing operations then return false and
// leave the content as it was; a constructor that cannot get memory leaves the object
// empty. Nothing throws.
//
// Not thread-safe: one object, one thread at a time (or a lock around it).

#include <cstddef>

namespace XRV {

class String {
 public:
  String() noexcept = default;
  // A copy of `text`; null gives the empty text. Implicit, so that literals and C
  // texts can be passed where a String is expected.
  String(const char* text);
  // The first `length` bytes of `text` (which need not be NUL-terminated there).
  String(const char* text, size_t length);
  String(const String& other);
  String(String&& other) noexcept;
  String& operator=(const String& other);
  String& operator=(String&& other) noexcept;
  ~String();

  // Bytes a text can have without a buffer of its own.
  static constexpr size_t kInlineCapacity = 15;

  // Never null; valid until the next change (or move) of this object.
  const char* c_str() const { return buffer_; }
  // The buffer, for writing up to capacity() bytes followed by setLength(). Never null.
  char* data() { return buffer_; }
  size_t length() const { return length_; }
  bool empty() const { return length_ == 0; }
  // Bytes that fit without growing, not counting the NUL.
  size_t capacity() const { return capacity_; }

  // Makes room for at least `capacity` bytes (plus the NUL). False when out of memory.
  bool reserve(size_t capacity);
  // Declares the first `length` bytes of data() to be the text, after the caller wrote
  // them, and writes the NUL behind them. `length` beyond capacity() is clamped to it.
  void setLength(size_t length);

  // Appending a null text does nothing. False when out of memory (nothing appended).
  bool append(const char* text);
  bool append(const char* text, size_t length);
  bool append(char c);
  bool append(const String& other) { return append(other.buffer_, other.length_); }
  // printf-style. The arguments must not point into this object. False when out of
  // memory or the format is unprintable (nothing appended).
  bool appendFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // Replace the content, reusing the buffer when it is large enough. A null text
  // makes the object empty. False when out of memory (the content is then unchanged).
  bool assign(const char* text);
  bool assign(const char* text, size_t length);

  // Length 0; the buffer and its capacity stay for reuse.
  void clear();
  // Hands the text (NUL-terminated, length() bytes) to the caller in a malloc'd block,
  // which the caller frees with free(); the object is left empty. An inline text is
  // copied into a fresh block. Null only when that allocation fails (the object then
  // keeps its text).
  char* release();

  bool operator==(const String& other) const;
  // A null text equals no String, not even an empty one.
  bool operator==(const char* text) const;

 private:
  bool grow(size_t needed);
  bool ownsBuffer() const { return buffer_ != inline_; }
  // Back to the empty inline text, forgetting (not freeing) any buffer.
  void resetInline() {
    buffer_ = inline_;
    length_ = 0;
    capacity_ = kInlineCapacity;
    inline_[0] = '\0';
  }
  // Takes `other`'s text, leaving it empty; this object holds no buffer of its own.
  void takeFrom(String& other) noexcept;

  char* buffer_ = inline_;
  size_t length_ = 0;
  size_t capacity_ = kInlineCapacity;
  char inline_[kInlineCapacity + 1] = {};
};

}  // namespace XRV
