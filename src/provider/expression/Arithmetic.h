#pragma once

// The arithmetic and ordering of numbers in the expression language.
//
// - Two 32-bit integers are combined in 64 bits; the result is 32-bit when it fits
//   and 64-bit when it does not (nothing wraps at 32 bits).
// - With a 64-bit integer and no double the result is 64-bit; a result beyond the
//   64-bit range is clamped to it.
// - With a double the result is a double (IEEE rules).
// - Integer division truncates toward zero; the remainder has the sign of the
//   dividend. Division and remainder by zero give 0 of the result's type.

#include "provider/expression/Value.h"

namespace XRV::expression {

enum ArithmeticOp : uint8_t { OP_ADD, OP_SUBTRACT, OP_MULTIPLY, OP_DIVIDE, OP_REMAINDER };

// Both operands must be numbers.
Value arithmetic(ArithmeticOp op, const Value& left, const Value& right);
// -value, with the same widening and clamping.
Value negate(const Value& value);
// |value|, likewise.
Value absolute(const Value& value);

// The order of two numbers: negative, zero or positive; kUnordered when one is NaN.
constexpr int kUnordered = 2;
int compareNumbers(const Value& left, const Value& right);

// 64-bit arithmetic clamped to the 64-bit range.
int64_t clampedAdd(int64_t a, int64_t b);
int64_t clampedSubtract(int64_t a, int64_t b);

}  // namespace XRV::expression
