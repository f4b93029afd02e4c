#include "record/AttributeValue.h"

#include <charconv>
#include <cstdint>

namespace xrvlog {
namespace {

bool continuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }
bool digit(char c) { return c >= '0' && c <= '9'; }

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

void appendInteger(std::string& out, std::size_t size, std::string_view text) {
  text = trimmed(text);
  if (text.size() > 1 && text[0] == '+' && digit(text[1])) {
    text.remove_prefix(1);
  }
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  auto [stop, error] = std::from_chars(text.data(), end, number);
  if (text.empty() || error != std::errc() || stop != end) {
    return;
  }
  char buffer[24];
  auto written = std::to_chars(buffer, buffer + sizeof buffer, number);
  const std::size_t digits =
      static_cast<std::size_t>(written.ptr - buffer) - (number < 0 ? 1u : 0u);
  if (digits <= size) {
    out.append(buffer, written.ptr);
  }
}

void appendDecimal(std::string& out, std::size_t size, std::string_view text) {
  text = trimmed(text);
  if (!text.empty() && text[0] == '+') {
    text.remove_prefix(1);
  }
  std::size_t at = !text.empty() && text[0] == '-' ? 1 : 0;
  std::size_t digits = 0;
  bool point = false;
  for (; at < text.size(); ++at) {
    if (digit(text[at])) {
      ++digits;
    } else if (text[at] == '.' && !point) {
      point = true;
    } else {
      return;
    }
  }
  if (digits > 0 && text.size() <= size) {
    out += text;
  }
}

}  // namespace

std::string_view utf8Prefix(std::string_view text, std::size_t bytes) {
  if (text.size() <= bytes) {
    return text;
  }
  std::size_t cut = bytes;
  // A character is at most four bytes: its lead byte is at most three back.
  for (int back = 0; back < 3 && cut > 0 && continuation(text[cut]); ++back) {
    --cut;
  }
  if (continuation(text[cut])) {
    cut = bytes;
  }
  return text.substr(0, cut);
}

void appendValue(std::string& out, AttributeType type, std::size_t size, std::string_view text) {
  switch (type) {
    case AttributeType::Integer:
      appendInteger(out, size, text);
      break;
    case AttributeType::Decimal:
      appendDecimal(out, size, text);
      break;
    case AttributeType::Text:
    case AttributeType::RemoteHost:
      out += utf8Prefix(text, size);
      break;
  }
}

std::string replacementFromTemplate(std::string_view mdlTemplate) {
  std::string replacement;
  for (std::size_t i = 0; i < mdlTemplate.size(); ++i) {
    const char c = mdlTemplate[i];
    const char next = i + 1 < mdlTemplate.size() ? mdlTemplate[i + 1] : '\0';
    if (c == '\\' && i + 1 < mdlTemplate.size()) {
      replacement += next == '$' ? "$$" : std::string(1, next);
      ++i;
    } else if (c == '$' && next == '{') {
      const std::size_t close = mdlTemplate.find('}', i);
      if (close == std::string_view::npos) {
        replacement += "$$";
        continue;
      }
      replacement += mdlTemplate.substr(i, close - i + 1);
      i = close;
    } else if (c == '$' && digit(next)) {
      replacement += '$';
    } else if (c == '$') {
      replacement += "$$";
    } else {
      replacement += c;
    }
  }
  return replacement;
}

}  // namespace xrvlog
