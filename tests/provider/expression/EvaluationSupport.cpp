#include "EvaluationSupport.h"

#include "foundation/UTF8String.h"
#include "provider/expression/Parsers.h"
#include "provider/expression/Scratch.h"

namespace XRV::testing {

using namespace XRV::expression;

Metric* ValueRow::metric(const char* name, const char* metricName, RAW_METRIC_TYPE type) {
  auto made = std::make_unique<Metric>(metricName != nullptr ? metricName : name);
  made->setSurfName(name);
  made->setRawMetricType(type);
  metrics_.push_back(std::move(made));
  return metrics_.back().get();
}

ValueRow& ValueRow::keep(ResultMetric* value) {
  values_.emplace_back(value);
  pointers_.push_back(value);
  return *this;
}

ValueRow& ValueRow::add(const char* name, int value, const char* metricName) {
  return keep(new ResultMetric(metric(name, metricName, NUMERIC_DATA), value));
}

ValueRow& ValueRow::add64(const char* name, long long value) {
  return keep(new ResultMetric(metric(name, nullptr, NUMERIC_64BIT_DATA), value));
}

ValueRow& ValueRow::addU64(const char* name, unsigned long long value) {
  return keep(new ResultMetric(metric(name, nullptr, NUMERIC_64BIT_DATA), value));
}

ValueRow& ValueRow::add(const char* name, double value) {
  return keep(new ResultMetric(metric(name, nullptr, NUMERIC_DATA), value));
}

ValueRow& ValueRow::add(const char* name, const char* text, const char* metricName) {
  return keep(new ResultMetric(metric(name, metricName, STRING_DATA), text));
}

ValueRow& ValueRow::addUtf8(const char* name, const char* text) {
  return keep(new ResultMetric(metric(name, nullptr, STRING_DATA), new UTF8String(text)));
}

namespace {

std::string describe(const Value& value, const EvalContext& context) {
  char buffer[64];
  switch (value.type) {
    case EXPRESSION_NONE:
      return "error: " + context.error;
    case EXPRESSION_BOOLEAN:
      return std::string("boolean ") + (value.b ? "true" : "false");
    case EXPRESSION_INT32:
      return "int32 " + std::to_string(value.i);
    case EXPRESSION_INT64:
      return "int64 " + std::to_string(value.i);
    case EXPRESSION_DOUBLE:
      formatScalar(value, buffer, sizeof buffer);
      return std::string("double ") + buffer;
    case EXPRESSION_STRING:
      return "text " + std::string(value.view());
  }
  return "?";
}

std::string run(std::unique_ptr<Program> program, const std::string& error, int column,
                const ValueRow& row) {
  if (program == nullptr) {
    return "parse error at " + std::to_string(column) + ": " + error;
  }
  RowValues values = row.view();
  Scratch scratch;
  EvalContext context;
  context.row = &values;
  context.scratch = &scratch;
  Value value = program->evaluate(context);
  return describe(value, context);
}

}  // namespace

std::string evaluateFormula(const std::string& formula, const ValueRow& row) {
  std::string error;
  int column = 0;
  auto program = parseFormula(formula, &error, &column);
  return run(std::move(program), error, column, row);
}

std::string evaluateFilter(const std::string& filter, const ValueRow& row) {
  std::string error;
  int column = 0;
  auto program = parseFilter(filter, &error, &column);
  return run(std::move(program), error, column, row);
}

}  // namespace XRV::testing
