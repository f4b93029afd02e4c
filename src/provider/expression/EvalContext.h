#pragma once

// EvalContext: what one evaluation works with (the row, the interval samples, room
// for texts) and, when it fails, why.

#include <cstdint>
#include <string>
#include <string_view>

#include "provider/expression/Value.h"

namespace XRV::expression {

class IntervalData;
class RowValues;
class Scratch;

// The interval functions' view of one calculation: whose samples, for which row,
// when, over which interval (0: the last two samples), and whether this
// calculation adds a sample.
struct IntervalFrame {
  IntervalData* data = nullptr;
  std::string_view row;
  int64_t now = 0;
  int interval = 0;
  bool store = false;
};

struct EvalContext {
  const RowValues* row = nullptr;           // null: no attribute can be referred to
  const IntervalFrame* interval = nullptr;  // null: interval functions fail
  Scratch* scratch = nullptr;               // must be set
  std::string error;                        // the first failure's description

  // Records `message` (the first failure wins) and returns the failed value.
  Value fail(std::string_view message) {
    if (error.empty()) {
      error.assign(message);
    }
    return Value::none();
  }

  // `value` as text: texts as they are, numbers and booleans written out into the
  // scratch space.
  std::string_view text(const Value& value) {
    return value.isText() ? value.view() : formatted(value);
  }
  std::string_view formatted(const Value& value);
};

}  // namespace XRV::expression
