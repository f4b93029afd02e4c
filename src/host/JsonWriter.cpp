#include "host/JsonWriter.h"

#include <algorithm>
#include <charconv>

#include "runtime/RowDecoder.h"

namespace XRV::host {

namespace {

// The characters a JSON string cannot hold as they stand.
bool needsEscape(unsigned char c) { return c < 0x20 || c == '"' || c == '\\' || c == 0x7F; }

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string valid;
  const bool ascii = std::all_of(text.begin(), text.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (!ascii) {
    valid = sanitizeUtf8(text.data(), text.size());
    text = valid;
  }
  out.push_back('"');
  size_t plain = 0;  // start of the run of characters copied as they stand
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (!needsEscape(c)) {
      continue;
    }
    out.append(text.data() + plain, i - plain);
    plain = i + 1;
    switch (c) {
      case '"':
        out.append("\\\"");
        break;
      case '\\':
        out.append("\\\\");
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\r':
        out.append("\\r");
        break;
      case '\t':
        out.append("\\t");
        break;
      default:
        out.append("\\u00");
        out.push_back(kHex[c >> 4]);
        out.push_back(kHex[c & 0xF]);
    }
  }
  out.append(text.data() + plain, text.size() - plain);
  out.push_back('"');
}

void JsonWriter::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!first_.empty()) {
    if (!first_.back()) {
      out_.push_back(',');
    }
    first_.back() = false;
  }
}

JsonWriter& JsonWriter::beginObject() {
  separate();
  out_.push_back('{');
  first_.push_back(true);
  return *this;
}

JsonWriter& JsonWriter::endObject() {
  out_.push_back('}');
  first_.pop_back();
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  separate();
  out_.push_back('[');
  first_.push_back(true);
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  out_.push_back(']');
  first_.pop_back();
  return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
  separate();
  appendJsonString(out_, name);
  out_.push_back(':');
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::value(std::string_view text) {
  separate();
  appendJsonString(out_, text);
  return *this;
}

JsonWriter& JsonWriter::value(int64_t number) {
  separate();
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, number);
  out_.append(buffer, result.ptr);
  return *this;
}

JsonWriter& JsonWriter::value(uint64_t number) {
  separate();
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, number);
  out_.append(buffer, result.ptr);
  return *this;
}

JsonWriter& JsonWriter::value(bool flag) {
  separate();
  out_.append(flag ? "true" : "false");
  return *this;
}

JsonWriter& JsonWriter::null() {
  separate();
  out_.append("null");
  return *this;
}

JsonWriter& JsonWriter::raw(std::string_view json) {
  separate();
  out_.append(json);
  return *this;
}

}  // namespace XRV::host
