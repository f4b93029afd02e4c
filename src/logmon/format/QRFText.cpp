#include "logmon/format/QRFText.h"

#include <cstdarg>
#include <cstdio>

#include "foundation/String.h"
#include "foundation/Utilities.h"

namespace qrf {

std::string toNative(std::string_view utf8) {
  XRV::String out;
  if (!Utilities::UTF8ToNative(utf8.data(), utf8.size(), &out)) {
    return std::string(utf8);
  }
  return std::string(out.c_str(), out.length());
}

std::string toUTF8(std::string_view native) {
  XRV::String out;
  if (!Utilities::nativeToUTF8(native.data(), native.size(), &out)) {
    return std::string(native);
  }
  return std::string(out.c_str(), out.length());
}

std::string_view trimmed(std::string_view text) {
  const char* blanks = " \t\r\n";
  const size_t start = text.find_first_not_of(blanks);
  if (start == std::string_view::npos) {
    return {};
  }
  return text.substr(start, text.find_last_not_of(blanks) - start + 1);
}

std::vector<std::string> splitList(std::string_view text, char separator, bool regexAware) {
  std::vector<std::string> pieces;
  int depth = 0;
  bool inClass = false;
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && regexAware) {
      const char c = text[i];
      if (c == '\\') {
        i += i + 1 < text.size() ? 1 : 0;
        continue;
      }
      if (inClass) {
        inClass = c != ']';
        continue;
      }
      if (c == '[') {
        inClass = true;
      } else if (c == '(' || c == '{') {
        ++depth;
      } else if ((c == ')' || c == '}') && depth > 0) {
        --depth;
      }
      if (c != separator || depth > 0) {
        continue;
      }
    } else if (i < text.size() && text[i] != separator) {
      continue;
    }
    std::string_view piece = trimmed(text.substr(start, i - start));
    if (!piece.empty()) {
      pieces.emplace_back(piece);
    }
    start = i + 1;
  }
  return pieces;
}

std::string format(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string out(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0) {
    vsnprintf(out.data(), out.size() + 1, format, again);
  }
  va_end(again);
  return out;
}

}  // namespace qrf
