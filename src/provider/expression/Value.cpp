#include "provider/expression/Value.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace XRV::expression {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isHexDigit(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

}  // namespace

const char* typeName(ExpressionType type) {
  switch (type) {
    case EXPRESSION_BOOLEAN:
      return "boolean";
    case EXPRESSION_INT32:
      return "32-bit integer";
    case EXPRESSION_INT64:
      return "64-bit integer";
    case EXPRESSION_DOUBLE:
      return "double";
    case EXPRESSION_STRING:
      return "text";
    case EXPRESSION_NONE:
      break;
  }
  return "nothing";
}

std::string describeValue(const Value& value) {
  if (value.isText()) {
    return "text \"" + std::string(value.view()) + "\"";
  }
  return typeName(value.type);
}

bool parseNumber(std::string_view text, Value* out) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && isBlank(text[begin])) {
    ++begin;
  }
  while (end > begin && isBlank(text[end - 1])) {
    --end;
  }
  if (begin == end || end - begin > 200) {
    return false;
  }
  // A copy with a terminating NUL for strtoll/strtod (bounded, on the stack).
  char buffer[208];
  size_t length = end - begin;
  text.copy(buffer, length, begin);
  buffer[length] = '\0';

  size_t digits = buffer[0] == '-' || buffer[0] == '+' ? 1 : 0;
  if (length >= digits + 2 && buffer[digits] == '0' &&
      (buffer[digits + 1] == 'x' || buffer[digits + 1] == 'X')) {
    size_t first = digits + 2;
    if (first >= length) {
      return false;
    }
    for (size_t i = first; i < length; ++i) {
      if (!isHexDigit(buffer[i])) {
        return false;
      }
    }
    errno = 0;
    unsigned long long magnitude = strtoull(buffer + first, nullptr, 16);
    if (errno == ERANGE || magnitude > static_cast<unsigned long long>(INT64_MAX)) {
      return false;
    }
    int64_t value = static_cast<int64_t>(magnitude);
    *out = Value::integer(buffer[0] == '-' ? -value : value);
    return true;
  }

  bool integral = true;
  bool sawDigit = false;
  for (size_t i = digits; i < length; ++i) {
    if (isDigit(buffer[i])) {
      sawDigit = true;
    } else if (buffer[i] == '.' || buffer[i] == 'e' || buffer[i] == 'E') {
      integral = false;
    } else if ((buffer[i] == '-' || buffer[i] == '+') && i > 0 &&
               (buffer[i - 1] == 'e' || buffer[i - 1] == 'E')) {
      // the exponent's sign
    } else {
      return false;
    }
  }
  if (!sawDigit) {
    return false;
  }
  char* stop = nullptr;
  errno = 0;
  if (integral) {
    long long value = strtoll(buffer, &stop, 10);
    if (errno == ERANGE || *stop != '\0') {
      return false;
    }
    *out = Value::integer(value);
    return true;
  }
  double value = strtod(buffer, &stop);
  if (*stop != '\0') {
    return false;
  }
  *out = Value::real(value);
  return true;
}

size_t formatScalar(const Value& value, char* buffer, size_t size) {
  int written = 0;
  switch (value.type) {
    case EXPRESSION_BOOLEAN:
      written = snprintf(buffer, size, "%s", value.b ? "true" : "false");
      break;
    case EXPRESSION_INT32:
    case EXPRESSION_INT64:
      written = snprintf(buffer, size, "%" PRId64, value.i);
      break;
    case EXPRESSION_DOUBLE:
      written = snprintf(buffer, size, "%.15g", value.d);
      break;
    default:
      written = 0;
      if (size > 0) {
        buffer[0] = '\0';
      }
      break;
  }
  if (written < 0) {
    return 0;
  }
  return static_cast<size_t>(written) < size ? static_cast<size_t>(written) : size - 1;
}

}  // namespace XRV::expression
