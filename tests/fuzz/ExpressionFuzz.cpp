// Fuzz target for the expression language: every input is parsed as a formula and
// as a filter, and what parses is evaluated on a row of every kind of value, with
// interval samples stored and read. Nothing may crash, leak or run away; a parse
// error must say what and where (a column within the text, or just past it); an
// evaluation gives a value or an error with its reason.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Require.h"
#include "definition/Metric.h"
#include "foundation/UTF8String.h"
#include "framework/Trace.h"
#include "provider/ResultMetric.h"
#include "provider/expression/IntervalData.h"
#include "provider/expression/Parsers.h"
#include "provider/expression/RowValues.h"
#include "provider/expression/Scratch.h"

namespace {

using namespace XRV::expression;

struct FuzzRow {
  FuzzRow() {
    add("a", new ResultMetric(metric("a"), 7));
    add("b", new ResultMetric(metric("b"), 0));
    add("w", new ResultMetric(metric("w"), 9223372036854775807LL));
    add("u", new ResultMetric(metric("u"), 18446744073709551615ULL));
    add("d", new ResultMetric(metric("d"), -2.5));
    add("s", new ResultMetric(metric("s"), "web01"));
    add("t", new ResultMetric(metric("t"), new UTF8String("Z\xC3\xBCrich \xF0\x9F\x98\x80")));
    add("n", new ResultMetric(metric("n"), "42"));
  }
  Metric* metric(const char* name) {
    metrics.push_back(std::make_unique<Metric>(name));
    metrics.back()->setSurfName(name);
    return metrics.back().get();
  }
  void add(const char*, ResultMetric* value) {
    values.emplace_back(value);
    pointers.push_back(value);
  }
  std::vector<std::unique_ptr<Metric>> metrics;
  std::vector<std::unique_ptr<ResultMetric>> values;
  std::vector<const ResultMetric*> pointers;
};

void evaluate(const Program& program, const FuzzRow& row, IntervalData* data) {
  RowValues values(row.pointers.data(), static_cast<int>(row.pointers.size()));
  for (int round = 0; round < 3; ++round) {
    Scratch& scratch = threadScratch();
    scratch.reset();
    IntervalFrame frame;
    frame.data = data;
    frame.row = "row";
    frame.now = 1000 + round;
    frame.interval = round == 2 ? 60 : 0;
    frame.store = round < 2;
    EvalContext context;
    context.row = &values;
    context.scratch = &scratch;
    context.interval = &frame;
    Value value = program.evaluate(context);
    require(value.failed() == !context.error.empty());
    if (value.isText()) {
      require(value.length == 0 || value.s != nullptr);
    }
  }
}

void check(std::unique_ptr<Program> program, const std::string& error, int column,
           const std::string& text, const FuzzRow& row, IntervalData* data) {
  if (program == nullptr) {
    require(!error.empty());
    require(column >= 1 && static_cast<size_t>(column) <= text.size() + 2);
    return;
  }
  evaluate(*program, row, data);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  XRV::trace::configure("off");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  static const FuzzRow row;
  std::string text(reinterpret_cast<const char*>(bytes), size);
  IntervalData data;
  std::string error;
  int column = 0;
  auto formula = parseFormula(text, &error, &column);
  check(std::move(formula), error, column, text, row, &data);
  error.clear();
  column = 0;
  auto filter = parseFilter(text, &error, &column);
  check(std::move(filter), error, column, text, row, &data);
  return 0;
}
