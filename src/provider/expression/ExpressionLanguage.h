#pragma once

// The expression language as the rest of the agent sees it.
//
// Linking this library installs, during static initialisation:
// - the formula parser of the definition reader (registerExpressionParser);
// - the evaluator of formula attributes (registerDerivedEvaluator), which keeps the
//   interval functions' samples in each provider (IntervalData);
// - the row filter parsers of the "filter" and "expression" grammars
//   (registerRowFilterParser).
// The language itself is described in docs/expressions.md.

#include <memory>
#include <string>

#include "definition/Expression.h"
#include "provider/ResultsManager.h"
#include "provider/expression/Program.h"

class Metric;

namespace XRV::expression {

// A parsed formula: the Expression a Metric owns.
class ParsedExpression final : public Expression {
 public:
  ParsedExpression(const char* formula, std::unique_ptr<Program> program)
      : formula_(formula), program_(std::move(program)) {}
  const char* getFormula() const override { return formula_.c_str(); }
  const Program& program() const { return *program_; }
  // True the first time: a formula's first failure is traced as an error, later
  // ones only in detail.
  bool firstFailure() const { return !failureReported_.exchange(true); }

 private:
  std::string formula_;
  std::unique_ptr<Program> program_;
  mutable std::atomic<bool> failureReported_{false};
};

// Installs the parsers and the evaluator (already done at start-up; harmless again).
void installExpressionLanguage();

// The value that a formula's result gives an attribute of `metric`'s type: texts for
// text attributes, numbers (booleans as 1 and 0) for the others. Null, with *error
// set, for a text that is no number in a numeric attribute. Caller owns the result.
ResultMetric* makeDerivedValue(const Metric* metric, const Value& value, std::string* error);

// Whether `text` parses in `grammar` ("filter" or "expression"); otherwise *error
// and *column say why and where (as for formulas). An unknown grammar is an error
// at column 0.
bool checkFilterText(const char* grammar, const char* text, std::string* error, int* column);

// The line that marks an error: blanks, then "^" under the column before `column`.
std::string markerLine(int column);

}  // namespace XRV::expression
