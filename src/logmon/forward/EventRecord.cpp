#include "logmon/forward/EventRecord.h"

#include <charconv>

namespace XRV::forward {

size_t formatRecordHeader(char* out, uint64_t seq, uint64_t length) {
  char* end = std::to_chars(out, out + 20, seq).ptr;
  *end++ = ' ';
  end = std::to_chars(end, end + 20, length).ptr;
  *end++ = '\n';
  return static_cast<size_t>(end - out);
}

namespace {

// Reads a decimal number ending at `stop` from data[*at...]; NEED_MORE when the
// data ends first.
RecordParse parseNumber(const char* data, size_t size, size_t* at, char stop, uint64_t* value) {
  const size_t start = *at;
  uint64_t number = 0;
  for (;; ++*at) {
    if (*at == size) {
      return *at - start > 20 ? RecordParse::INVALID : RecordParse::NEED_MORE;
    }
    const char c = data[*at];
    if (c == stop) {
      break;
    }
    if (c < '0' || c > '9' || *at - start >= 20 || (*at > start && data[start] == '0')) {
      return RecordParse::INVALID;
    }
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (number > (UINT64_MAX - digit) / 10) {
      return RecordParse::INVALID;
    }
    number = number * 10 + digit;
  }
  if (*at == start) {
    return RecordParse::INVALID;
  }
  ++*at;
  *value = number;
  return RecordParse::COMPLETE;
}

}  // namespace

RecordParse parseRecord(const char* data, size_t size, uint64_t* seq, uint64_t* length,
                        size_t* total) {
  size_t at = 0;
  RecordParse result = parseNumber(data, size, &at, ' ', seq);
  if (result != RecordParse::COMPLETE) {
    return result;
  }
  result = parseNumber(data, size, &at, '\n', length);
  if (result != RecordParse::COMPLETE) {
    return result;
  }
  if (*length > SIZE_MAX - at - 1) {
    return RecordParse::INVALID;
  }
  const size_t end = at + static_cast<size_t>(*length);
  if (end >= size) {
    return RecordParse::NEED_MORE;
  }
  if (data[end] != '\n') {
    return RecordParse::INVALID;
  }
  *total = end + 1;
  return RecordParse::COMPLETE;
}

}  // namespace XRV::forward
