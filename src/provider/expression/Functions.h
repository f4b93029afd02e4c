#pragma once

// The built-in functions of the expression language.

#include <string_view>

#include "provider/expression/EvalContext.h"
#include "provider/expression/IntervalData.h"

namespace XRV::expression {

class Regex;

enum FunctionId : uint8_t {
  FUNCTION_IF,
  FUNCTION_ABS,
  FUNCTION_MIN,
  FUNCTION_MAX,
  FUNCTION_ROUND,
  FUNCTION_STRLEN,
  FUNCTION_SUBSTR,
  FUNCTION_CONTAINS,
  FUNCTION_MATCHES,
  FUNCTION_LIKE,
  FUNCTION_TOSTRING,
  FUNCTION_TONUMBER,
  FUNCTION_INTERVAL,  // average, minimum, maximum, delta, rate
};

struct FunctionInfo {
  const char* name;
  FunctionId id;
  int minArguments;
  int maxArguments;
  IntervalKind interval;  // for FUNCTION_INTERVAL
};

// The function called `name` (exact, lower case); null when there is none.
const FunctionInfo* findFunction(std::string_view name);

// The most arguments any call may have.
constexpr int kMaxArguments = 16;

// Calls a function whose arguments are all evaluated (every one but `if` and the
// interval functions). `regex` is the compiled pattern of `matches` when its
// pattern is a literal, else null.
Value callFunction(FunctionId id, const Value* arguments, int count, EvalContext& context,
                   Regex* regex);

}  // namespace XRV::expression
