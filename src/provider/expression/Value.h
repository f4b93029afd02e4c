#pragma once

// Value: one value of the expression language while an expression is evaluated.
//
// A value is a boolean, a 32-bit or 64-bit integer, a double or a text. Texts are
// views (pointer and length, UTF-8): they point into the row being evaluated, into
// the parsed expression's literals, or into the evaluation's scratch space, and are
// valid only while that evaluation runs. A value of type EXPRESSION_NONE stands for
// a failed evaluation. Values are trivially copyable: evaluating a numeric
// expression never allocates.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace XRV::expression {

// The types of the language. The numbers appear in trace texts ("ExpressionType[%d]").
enum ExpressionType : uint8_t {
  EXPRESSION_NONE = 0,  // no value: the evaluation failed
  EXPRESSION_BOOLEAN = 1,
  EXPRESSION_INT32 = 2,
  EXPRESSION_INT64 = 3,
  EXPRESSION_DOUBLE = 4,
  EXPRESSION_STRING = 5,
};

const char* typeName(ExpressionType type);

struct Value {
  union {
    bool b;
    int64_t i;  // EXPRESSION_INT32 keeps values of the 32-bit range here too
    double d;
    const char* s;
  };
  uint32_t length;  // bytes of a text
  ExpressionType type;

  static Value none() { return of(EXPRESSION_NONE); }
  static Value boolean(bool value) {
    Value v = of(EXPRESSION_BOOLEAN);
    v.b = value;
    return v;
  }
  // INT32 when `value` fits in 32 bits, else INT64.
  static Value integer(int64_t value) {
    Value v = of(value >= INT32_MIN && value <= INT32_MAX ? EXPRESSION_INT32 : EXPRESSION_INT64);
    v.i = value;
    return v;
  }
  static Value int64(int64_t value) {
    Value v = of(EXPRESSION_INT64);
    v.i = value;
    return v;
  }
  static Value real(double value) {
    Value v = of(EXPRESSION_DOUBLE);
    v.d = value;
    return v;
  }
  static Value text(const char* bytes, size_t length) {
    Value v = of(EXPRESSION_STRING);
    v.s = bytes;
    v.length = static_cast<uint32_t>(length);
    return v;
  }

  bool failed() const { return type == EXPRESSION_NONE; }
  bool isNumber() const {
    return type == EXPRESSION_INT32 || type == EXPRESSION_INT64 || type == EXPRESSION_DOUBLE;
  }
  bool isInteger() const { return type == EXPRESSION_INT32 || type == EXPRESSION_INT64; }
  bool isText() const { return type == EXPRESSION_STRING; }
  std::string_view view() const { return {s, length}; }
  // A number as a double (meaningful for numbers only).
  double asDouble() const { return type == EXPRESSION_DOUBLE ? d : static_cast<double>(i); }

 private:
  // A zero value of `valueType`, for the factories to fill in.
  static Value of(ExpressionType valueType) {
    Value v;
    v.i = 0;
    v.length = 0;
    v.type = valueType;
    return v;
  }
};

// How a value is named in error messages: its type, or a text with its content.
std::string describeValue(const Value& value);

// Reads a whole text as a number, blanks around it allowed: a decimal integer
// (INT32 or INT64 by size), "0x" hexadecimal, or a decimal with a point or an
// exponent (DOUBLE). False for anything else, and for integers beyond 64 bits.
bool parseNumber(std::string_view text, Value* out);

// Writes a number or boolean as text ("%d", "%lld", "%.15g", "true"/"false") into
// `buffer` (at least 32 bytes). Returns the length.
size_t formatScalar(const Value& value, char* buffer, size_t size);

}  // namespace XRV::expression
