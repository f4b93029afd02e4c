#pragma once
// CodePageConverter: turns the bytes of one line, read from a file in the source's
// code page (codepage=NAME), into UTF-8, through ICU.
//
// Names are ICU's converter names and aliases, in any case: "ISO-8859-1",
// "windows-1252", "Shift_JIS", "EUC-JP", "GB18030", "ibm-943"... A name of digits only
// is a code page number, tried as "cpN", then "ibm-N", then "windows-N" (932 is
// Windows' Japanese code page, 819 ISO-8859-1). An empty name, "UTF-8", "UTF8" and
// 1208, and any name ICU takes for UTF-8, mean the file is UTF-8 already: convert()
// then hands its input back untouched (bytes that are not valid UTF-8 stay as they are).
//
// A byte, or a sequence of bytes, that is not a character of the code page becomes
// U+FFFD; so does a multi-byte character cut off by the end of the line. Each line is
// converted on its own, from the code page's initial state (a stateful code page such
// as ISO-2022-JP returns to ASCII before each line end anyway).
//
// The file follower splits lines at the byte 0x0A. A code page in which that byte on
// its own is not a line feed cannot be split that way and is refused: UTF-16 and
// UTF-32 (whose line feed is 0A 00 or 00 0A...) and the EBCDIC code pages (line feed
// 0x25). An unknown name is refused too; both throw std::invalid_argument.
//
// Once its buffer has grown to the longest line, convert() allocates nothing. One
// converter belongs to one thread.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct UConverter;

namespace xrvlog {

class CodePageConverter {
 public:
  explicit CodePageConverter(std::string_view name);
  ~CodePageConverter();
  CodePageConverter(CodePageConverter&&) noexcept;
  CodePageConverter& operator=(CodePageConverter&&) noexcept;

  // False when lines are handed back as they are.
  bool converts() const { return source_ != nullptr; }
  // ICU's name of the code page; "UTF-8" when nothing is converted.
  const std::string& name() const { return name_; }

  // The line in UTF-8. The view is valid until the next call, or is `in` itself when
  // nothing is converted.
  std::string_view convert(std::string_view in);

 private:
  void reserve(std::size_t bytes, std::size_t keep);

  UConverter* source_ = nullptr;
  UConverter* utf8_ = nullptr;
  std::string name_;
  std::unique_ptr<char[]> buffer_;
  std::size_t capacity_ = 0;
};

}  // namespace xrvlog
