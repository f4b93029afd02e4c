#pragma once

// Rows of values for evaluating formulas and filters directly, and the results of an
// evaluation written as "type value" texts that test tables compare against:
// "int32 5", "int64 5", "double 2.5", "boolean true", "text abc", or "error: why".

#include <memory>
#include <string>
#include <vector>

#include "definition/Metric.h"
#include "provider/ResultMetric.h"
#include "provider/expression/RowValues.h"

namespace XRV::testing {

class ValueRow {
 public:
  // One attribute each; `metricName` null: the display name serves as both.
  ValueRow& add(const char* name, int value, const char* metricName = nullptr);
  ValueRow& add64(const char* name, long long value);
  ValueRow& addU64(const char* name, unsigned long long value);
  ValueRow& add(const char* name, double value);
  ValueRow& add(const char* name, const char* text, const char* metricName = nullptr);
  ValueRow& addUtf8(const char* name, const char* text);

  XRV::expression::RowValues view() const {
    return {pointers_.data(), static_cast<int>(pointers_.size())};
  }
  const std::vector<const ResultMetric*>& pointers() const { return pointers_; }

 private:
  Metric* metric(const char* name, const char* metricName, RAW_METRIC_TYPE type);
  ValueRow& keep(ResultMetric* value);

  std::vector<std::unique_ptr<Metric>> metrics_;
  std::vector<std::unique_ptr<ResultMetric>> values_;
  std::vector<const ResultMetric*> pointers_;
};

// The formula parsed and evaluated on `row`, or "parse error at N: why".
std::string evaluateFormula(const std::string& formula, const ValueRow& row);
// The same with the filter grammar.
std::string evaluateFilter(const std::string& filter, const ValueRow& row);

}  // namespace XRV::testing
