#include "provider/expression/Functions.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>

#include "provider/expression/Arithmetic.h"
#include "provider/expression/Regex.h"
#include "provider/expression/Scratch.h"
#include "provider/expression/Text.h"

namespace XRV::expression {

namespace {

constexpr FunctionInfo kFunctions[] = {
    {"if", FUNCTION_IF, 3, 3, INTERVAL_AVERAGE},
    {"abs", FUNCTION_ABS, 1, 1, INTERVAL_AVERAGE},
    {"min", FUNCTION_MIN, 2, kMaxArguments, INTERVAL_AVERAGE},
    {"max", FUNCTION_MAX, 2, kMaxArguments, INTERVAL_AVERAGE},
    {"round", FUNCTION_ROUND, 1, 2, INTERVAL_AVERAGE},
    {"strlen", FUNCTION_STRLEN, 1, 1, INTERVAL_AVERAGE},
    {"substr", FUNCTION_SUBSTR, 2, 3, INTERVAL_AVERAGE},
    {"contains", FUNCTION_CONTAINS, 2, 2, INTERVAL_AVERAGE},
    {"matches", FUNCTION_MATCHES, 2, 2, INTERVAL_AVERAGE},
    {"like", FUNCTION_LIKE, 2, 2, INTERVAL_AVERAGE},
    {"tostring", FUNCTION_TOSTRING, 1, 1, INTERVAL_AVERAGE},
    {"tonumber", FUNCTION_TONUMBER, 1, 2, INTERVAL_AVERAGE},
    {"average", FUNCTION_INTERVAL, 1, 1, INTERVAL_AVERAGE},
    {"minimum", FUNCTION_INTERVAL, 1, 1, INTERVAL_MINIMUM},
    {"maximum", FUNCTION_INTERVAL, 1, 1, INTERVAL_MAXIMUM},
    {"delta", FUNCTION_INTERVAL, 1, 1, INTERVAL_DELTA},
    {"rate", FUNCTION_INTERVAL, 1, 1, INTERVAL_RATE},
};

// An integer argument (doubles are truncated toward zero); false when not a number.
bool integerArgument(const Value& value, int64_t* out) {
  if (value.isInteger()) {
    *out = value.i;
    return true;
  }
  if (value.type == EXPRESSION_DOUBLE && std::isfinite(value.d)) {
    *out = value.d >= 9.2e18 ? INT64_MAX
                             : (value.d <= -9.2e18 ? INT64_MIN : static_cast<int64_t>(value.d));
    return true;
  }
  return false;
}

// A double rounded half away from zero to a whole number, as an integer (clamped).
Value roundToInteger(double value) {
  if (std::isnan(value)) {
    return Value::integer(0);
  }
  double rounded = std::round(value);
  if (rounded >= 9.223372036854775807e18) {
    return Value::int64(INT64_MAX);
  }
  if (rounded <= -9.223372036854775808e18) {
    return Value::int64(INT64_MIN);
  }
  return Value::integer(static_cast<int64_t>(rounded));
}

Value round(const Value* arguments, int count, EvalContext& context) {
  const Value& value = arguments[0];
  if (!value.isNumber()) {
    return context.fail("round needs a number, not " + describeValue(value));
  }
  int64_t digits = 0;
  if (count == 2 && !integerArgument(arguments[1], &digits)) {
    return context.fail("round needs a whole number of digits, not " + describeValue(arguments[1]));
  }
  if (digits >= 0 && value.isInteger()) {
    return value;
  }
  if (count == 1) {
    return roundToInteger(value.d);
  }
  digits = std::clamp<int64_t>(digits, -18, 18);
  double scale = std::pow(10.0, static_cast<double>(digits));
  double rounded = std::round(value.asDouble() * scale) / scale;
  if (value.isInteger()) {
    Value whole = roundToInteger(rounded);
    return value.type == EXPRESSION_INT64 ? Value::int64(whole.i) : whole;
  }
  return Value::real(rounded);
}

// min or max of numbers, or of texts (bytewise); not of a mixture. Numbers give the
// widest type among the arguments.
Value extreme(bool wantMax, const Value* arguments, int count, EvalContext& context) {
  ExpressionType widest = EXPRESSION_INT32;
  for (int i = 0; i < count; ++i) {
    const Value& argument = arguments[i];
    if (argument.isText() != arguments[0].isText() || !(argument.isText() || argument.isNumber())) {
      return context.fail(std::string(wantMax ? "max" : "min") + " needs numbers or texts, not " +
                          describeValue(arguments[0]) + " and " + describeValue(argument));
    }
    if (argument.type == EXPRESSION_DOUBLE || widest == EXPRESSION_DOUBLE) {
      widest = EXPRESSION_DOUBLE;
    } else if (argument.type == EXPRESSION_INT64) {
      widest = EXPRESSION_INT64;
    }
  }
  Value best = arguments[0];
  for (int i = 1; i < count; ++i) {
    const Value& candidate = arguments[i];
    int order = candidate.isText() ? candidate.view().compare(best.view())
                                   : compareNumbers(candidate, best);
    if (order != kUnordered && ((wantMax && order > 0) || (!wantMax && order < 0))) {
      best = candidate;
    }
  }
  if (best.isText()) {
    return best;
  }
  if (widest == EXPRESSION_DOUBLE) {
    return Value::real(best.asDouble());
  }
  return widest == EXPRESSION_INT64 ? Value::int64(best.i) : best;
}

Value substring(const Value* arguments, int count, EvalContext& context) {
  std::string_view text = context.text(arguments[0]);
  int64_t start = 0;
  int64_t length = INT64_MAX;
  if (!integerArgument(arguments[1], &start)) {
    return context.fail("substr needs a whole number as its start, not " +
                        describeValue(arguments[1]));
  }
  if (count == 3 && !integerArgument(arguments[2], &length)) {
    return context.fail("substr needs a whole number as its length, not " +
                        describeValue(arguments[2]));
  }
  if (start < 0 || length <= 0) {
    start = std::max<int64_t>(start, 0);
    length = std::max<int64_t>(length, 0);
  }
  std::string_view part =
      characterRange(text, static_cast<size_t>(start), static_cast<size_t>(length));
  return Value::text(part.data(), part.size());
}

Value toNumber(const Value* arguments, int count, EvalContext& context) {
  const Value& value = arguments[0];
  if (value.isNumber()) {
    return value;
  }
  if (value.type == EXPRESSION_BOOLEAN) {
    return Value::integer(value.b ? 1 : 0);
  }
  Value number;
  if (parseNumber(value.view(), &number)) {
    return number;
  }
  if (count == 2) {
    return arguments[1];
  }
  return context.fail("tonumber: " + describeValue(value) + " is not a number");
}

Value matches(const Value* arguments, EvalContext& context, Regex* compiled) {
  std::string_view text = context.text(arguments[0]);
  std::unique_ptr<Regex> own;
  if (compiled == nullptr) {
    std::string error;
    own = Regex::compile(context.text(arguments[1]), &error);
    if (own == nullptr) {
      return context.fail(error);
    }
    compiled = own.get();
  }
  std::string error;
  bool found = compiled->find(text, &error);
  if (!error.empty()) {
    return context.fail(error);
  }
  return Value::boolean(found);
}

}  // namespace

const FunctionInfo* findFunction(std::string_view name) {
  for (const FunctionInfo& function : kFunctions) {
    if (name == function.name) {
      return &function;
    }
  }
  return nullptr;
}

std::string_view EvalContext::formatted(const Value& value) {
  char* buffer = scratch->allocate(32);
  size_t length = formatScalar(value, buffer, 32);
  return {buffer, length};
}

Value callFunction(FunctionId id, const Value* arguments, int count, EvalContext& context,
                   Regex* regex) {
  switch (id) {
    case FUNCTION_ABS:
      if (!arguments[0].isNumber()) {
        return context.fail("abs needs a number, not " + describeValue(arguments[0]));
      }
      return absolute(arguments[0]);
    case FUNCTION_MIN:
    case FUNCTION_MAX:
      return extreme(id == FUNCTION_MAX, arguments, count, context);
    case FUNCTION_ROUND:
      return round(arguments, count, context);
    case FUNCTION_STRLEN:
      return Value::integer(static_cast<int64_t>(characterCount(context.text(arguments[0]))));
    case FUNCTION_SUBSTR:
      return substring(arguments, count, context);
    case FUNCTION_CONTAINS: {
      std::string_view text = context.text(arguments[0]);
      return Value::boolean(text.find(context.text(arguments[1])) != std::string_view::npos);
    }
    case FUNCTION_MATCHES:
      return matches(arguments, context, regex);
    case FUNCTION_LIKE: {
      std::string_view text = context.text(arguments[0]);
      return Value::boolean(wildcardMatch(text, context.text(arguments[1])));
    }
    case FUNCTION_TOSTRING: {
      std::string_view text = context.text(arguments[0]);
      return Value::text(text.data(), text.size());
    }
    case FUNCTION_TONUMBER:
      return toNumber(arguments, count, context);
    case FUNCTION_IF:
    case FUNCTION_INTERVAL:
      break;
  }
  return context.fail("internal error: function evaluated out of place");
}

}  // namespace XRV::expression
