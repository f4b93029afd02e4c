#include "provider/expression/ExpressionLanguage.h"

#include <cstring>
#include <vector>

#include "foundation/UTF8String.h"
#include "framework/FwClock.h"
#include "framework/Trace.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/expression/IntervalData.h"
#include "provider/expression/Parsers.h"
#include "provider/expression/Scratch.h"

namespace XRV::expression {

namespace {

bool is64BitType(RAW_METRIC_TYPE type) {
  return type == NUMERIC_64BIT_DATA || type == DELTA_64BIT_DATA || type == RATE_64BIT_DATA ||
         type == PERCENT_DELTA_64BIT_DATA;
}

Expression* parseFormulaExpression(const char* formula, std::string* error, int* column) {
  XRV_TRACE_FN();
  std::unique_ptr<Program> program = parseFormula(formula == nullptr ? "" : formula, error, column);
  if (program == nullptr) {
    return nullptr;
  }
  return new ParsedExpression(formula == nullptr ? "" : formula, std::move(program));
}

// A filter of either grammar.
class ProgramFilter final : public RowFilter {
 public:
  explicit ProgramFilter(std::unique_ptr<Program> program) : program_(std::move(program)) {}

  void evaluate(const ResultInstance& row, FilterResult* result) const override {
    thread_local std::vector<const ResultMetric*> values;
    values.clear();
    for (const ResultMetric* value = row.getFirstMetric(); value != nullptr;
         value = static_cast<const ResultMetric*>(value->getNextElement())) {
      values.push_back(value);
    }
    for (const ResultMetric* value = row.getFirstDerivedMetric(); value != nullptr;
         value = static_cast<const ResultMetric*>(value->getNextElement())) {
      values.push_back(value);
    }
    RowValues rowValues(values.data(), static_cast<int>(values.size()));
    Scratch& scratch = threadScratch();
    scratch.reset();
    EvalContext context;
    context.row = &rowValues;
    context.scratch = &scratch;
    Value value = program_->evaluate(context);
    result->expectedType = EXPRESSION_BOOLEAN;
    if (value.failed()) {
      result->error = std::move(context.error);
      result->returnedType = EXPRESSION_BOOLEAN;
      return;
    }
    result->returnedType = value.type;
    result->passes = value.type == EXPRESSION_BOOLEAN && value.b;
  }

 private:
  std::unique_ptr<Program> program_;
};

std::unique_ptr<Program> parseForGrammar(const char* grammar, const char* text, std::string* error,
                                         int* column) {
  if (strcmp(grammar, "filter") == 0) {
    return parseFilter(text, error, column);
  }
  if (strcmp(grammar, "expression") != 0) {
    *error = std::string("unknown filter grammar ") + grammar;
    *column = 0;
    return nullptr;
  }
  std::unique_ptr<Program> program = parseFormula(text, error, column);
  if (program != nullptr && program->hasIntervalFunctions()) {
    *error =
        "interval functions (average, minimum, maximum, delta, rate) cannot be used in filters";
    *column = static_cast<int>(strlen(text)) + 1;
    return nullptr;
  }
  return program;
}

RowFilter* parseRowFilter(const char* grammar, const char* text, std::string* error) {
  int column = 0;
  std::unique_ptr<Program> program = parseForGrammar(grammar, text, error, &column);
  if (program == nullptr) {
    *error = "column " + std::to_string(column) + ": " + *error + "\n" + text + "\n" +
             markerLine(column);
    return nullptr;
  }
  return new ProgramFilter(std::move(program));
}

RowFilter* parseFilterGrammar(const char* text, std::string* error) {
  XRV_TRACE_FN();
  return parseRowFilter("filter", text, error);
}

RowFilter* parseExpressionGrammar(const char* text, std::string* error) {
  XRV_TRACE_FN();
  return parseRowFilter("expression", text, error);
}

// The provider's interval data, created on first use.
IntervalData* intervalDataOf(ResultsManager* provider) XRV_REQUIRES(derivedCalculationLock()) {
  DerivedAttributes& derived = provider->derivedAttributes();
  auto* data = static_cast<IntervalData*>(derived.state());
  if (data == nullptr) {
    auto created = std::make_unique<IntervalData>();
    data = created.get();
    derived.setState(std::move(created));
  }
  return data;
}

// Called through the DerivedEvaluator hook, with the derived calculation lock held.
ResultMetric* evaluateDerived(ResultsManager* provider, const Metric* metric,
                              const ResultInstance* row, const DerivedInputs& inputs,
                              const char* requestId, StorageBehavior behavior)
    XRV_REQUIRES(derivedCalculationLock()) {
  XRV_TRACE_SITE();
  const auto* expression = dynamic_cast<const ParsedExpression*>(metric->getExpression());
  if (expression == nullptr) {
    return nullptr;
  }
  const Program& program = expression->program();
  RowValues values(inputs.values, inputs.count);
  Scratch& scratch = threadScratch();
  scratch.reset();
  EvalContext context;
  context.row = &values;
  context.scratch = &scratch;
  IntervalFrame frame;
  if (program.hasIntervalFunctions()) {
    frame.data = intervalDataOf(provider);
    const char* name = row->getInstanceName();
    frame.row = name == nullptr ? "" : name;
    frame.now = fwTime();
    frame.store = behavior == STORE_INTERVAL_DATA;
    int interval =
        requestId != nullptr && *requestId != '\0' ? provider->getRequestInterval(requestId) : 0;
    frame.interval = interval > 0 ? interval : provider->getDefaultRateDeltaInterval();
    frame.data->noteInterval(frame.interval);
    context.interval = &frame;
  }
  Value value = program.evaluate(context);
  std::string error;
  ResultMetric* result = value.failed() ? nullptr : makeDerivedValue(metric, value, &error);
  if (result == nullptr) {
    const std::string& why = value.failed() ? context.error : error;
    const char* name = metric->getMetricName() == nullptr ? "" : metric->getMetricName();
    const char* rowName = row->getInstanceName() == nullptr ? "" : row->getInstanceName();
    if (expression->firstFailure()) {
      XRV_TRACE_ERROR("Cannot calculate %s = %s for row %s: %s", name, expression->getFormula(),
                      rowName, why.c_str());
    } else {
      XRV_TRACE_DETAIL("Cannot calculate %s = %s for row %s: %s", name, expression->getFormula(),
                       rowName, why.c_str());
    }
  }
  return result;
}

}  // namespace

ResultMetric* makeDerivedValue(const Metric* metric, const Value& value, std::string* error) {
  if (metric->isStringType()) {
    char buffer[32];
    std::string_view text =
        value.isText() ? value.view()
                       : std::string_view(buffer, formatScalar(value, buffer, sizeof buffer));
    return new ResultMetric(metric, new UTF8String(text.data(), text.size()));
  }
  switch (value.type) {
    case EXPRESSION_BOOLEAN:
      return new ResultMetric(metric, value.b ? 1 : 0);
    case EXPRESSION_INT32:
    case EXPRESSION_INT64:
      if (is64BitType(metric->getRawMetricType()) || value.type == EXPRESSION_INT64) {
        return new ResultMetric(metric, static_cast<long long>(value.i));
      }
      return new ResultMetric(metric, static_cast<int>(value.i));
    case EXPRESSION_DOUBLE:
      return new ResultMetric(metric, value.d);
    case EXPRESSION_STRING: {
      Value number;
      if (parseNumber(value.view(), &number)) {
        return makeDerivedValue(metric, number, error);
      }
      *error =
          "the formula gave text \"" + std::string(value.view()) + "\" for a numeric attribute";
      return nullptr;
    }
    case EXPRESSION_NONE:
      break;
  }
  *error = "the formula gave no value";
  return nullptr;
}

void installExpressionLanguage() {
  registerExpressionParser(&parseFormulaExpression);
  registerDerivedEvaluator(&evaluateDerived);
  registerRowFilterParser("filter", &parseFilterGrammar);
  registerRowFilterParser("expression", &parseExpressionGrammar);
}

bool checkFilterText(const char* grammar, const char* text, std::string* error, int* column) {
  XRV_TRACE_FN();
  return parseForGrammar(grammar, text, error, column) != nullptr;
}

std::string markerLine(int column) {
  std::string marker(column > 2 ? static_cast<size_t>(column - 2) : 0, ' ');
  marker += '^';
  return marker;
}

namespace {
// Installs the language when the program starts (this library is linked whole).
[[maybe_unused]] const bool installed = (installExpressionLanguage(), true);
}  // namespace

}  // namespace XRV::expression
