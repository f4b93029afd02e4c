#include "provider/expression/Arithmetic.h"

#include <cmath>

namespace XRV::expression {

namespace {

int64_t clampOnOverflow(bool overflow, int64_t result, bool positive) {
  if (!overflow) {
    return result;
  }
  return positive ? INT64_MAX : INT64_MIN;
}

// The 64-bit operation, clamped.
int64_t integerResult(ArithmeticOp op, int64_t a, int64_t b) {
  int64_t result = 0;
  switch (op) {
    case OP_ADD:
      return clampedAdd(a, b);
    case OP_SUBTRACT:
      return clampedSubtract(a, b);
    case OP_MULTIPLY: {
      bool overflow = __builtin_mul_overflow(a, b, &result);
      return clampOnOverflow(overflow, result, (a < 0) == (b < 0));
    }
    case OP_DIVIDE:
      if (b == 0) {
        return 0;
      }
      if (a == INT64_MIN && b == -1) {
        return INT64_MAX;
      }
      return a / b;
    case OP_REMAINDER:
      if (b == 0 || b == -1) {
        return 0;
      }
      return a % b;
  }
  return 0;
}

double doubleResult(ArithmeticOp op, double a, double b) {
  switch (op) {
    case OP_ADD:
      return a + b;
    case OP_SUBTRACT:
      return a - b;
    case OP_MULTIPLY:
      return a * b;
    case OP_DIVIDE:
      return b == 0.0 ? 0.0 : a / b;
    case OP_REMAINDER:
      return b == 0.0 ? 0.0 : std::fmod(a, b);
  }
  return 0.0;
}

}  // namespace

int64_t clampedAdd(int64_t a, int64_t b) {
  int64_t result = 0;
  bool overflow = __builtin_add_overflow(a, b, &result);
  return clampOnOverflow(overflow, result, b > 0);
}

int64_t clampedSubtract(int64_t a, int64_t b) {
  int64_t result = 0;
  bool overflow = __builtin_sub_overflow(a, b, &result);
  return clampOnOverflow(overflow, result, b < 0);
}

Value arithmetic(ArithmeticOp op, const Value& left, const Value& right) {
  if (left.type == EXPRESSION_DOUBLE || right.type == EXPRESSION_DOUBLE) {
    return Value::real(doubleResult(op, left.asDouble(), right.asDouble()));
  }
  int64_t result = integerResult(op, left.i, right.i);
  if (left.type == EXPRESSION_INT32 && right.type == EXPRESSION_INT32) {
    return Value::integer(result);
  }
  return Value::int64(result);
}

Value negate(const Value& value) {
  if (value.type == EXPRESSION_DOUBLE) {
    return Value::real(-value.d);
  }
  int64_t result = value.i == INT64_MIN ? INT64_MAX : -value.i;
  return value.type == EXPRESSION_INT32 ? Value::integer(result) : Value::int64(result);
}

Value absolute(const Value& value) {
  if (value.type == EXPRESSION_DOUBLE) {
    return Value::real(std::fabs(value.d));
  }
  return value.i < 0 ? negate(value) : value;
}

int compareNumbers(const Value& left, const Value& right) {
  if (left.isInteger() && right.isInteger()) {
    return left.i < right.i ? -1 : (left.i > right.i ? 1 : 0);
  }
  double a = left.asDouble();
  double b = right.asDouble();
  if (std::isnan(a) || std::isnan(b)) {
    return kUnordered;
  }
  return a < b ? -1 : (a > b ? 1 : 0);
}

}  // namespace XRV::expression
