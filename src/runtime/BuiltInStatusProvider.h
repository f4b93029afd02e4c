#pragma once

// The data sources of the agent's own status groups: they have no outside source
// that could fail, so they always report themselves active, under their group's name.
//
// Their rows describe records the agent holds (a provider, a log file, a pattern):
// each attribute the definition declares is matched by name to a StatusField of the
// record, which gives its value as a number and, for text attributes, as a text.

#include <cstring>
#include <string>

#include "definition/Metric.h"
#include "provider/ResultMetric.h"
#include "provider/ResultsManager.h"

class BuiltInStatusProvider : public ResultsManager {
 public:
  BuiltInStatusProvider(const char* applicationName, const char* attributeGroup)
      : ResultsManager(applicationName, attributeGroup, UA_STATUS) {}

  const char* getPerfObjectName() override { return getAttributeGroup(); }
  int getPerfObjectStatus() override { return PERF_OBJECT_ACTIVE; }
  int getPerfErrorCode() override { return OBJECT_ACTIVE; }
};

// One attribute of a status group over records of type Record.
template <typename Record>
struct StatusField {
  const char* name;
  long long (*number)(const Record&);  // null: 0
  std::string (*text)(const Record&);  // null: the number's digits
};

// The value of `metric` for `record`: the field of the metric's name as text or as
// number, by the metric's type; "" or 0 when no field has that name.
template <typename Record, size_t N>
ResultMetric* statusFieldValue(const Metric* metric, const Record& record,
                               const StatusField<Record> (&fields)[N]) {
  const StatusField<Record>* field = nullptr;
  for (const StatusField<Record>& candidate : fields) {
    if (strcmp(candidate.name, metric->getMetricName()) == 0) {
      field = &candidate;
      break;
    }
  }
  const long long number = field == nullptr || field->number == nullptr ? 0 : field->number(record);
  if (metric->isStringType()) {
    if (field == nullptr) {
      return new ResultMetric(metric, "");
    }
    const std::string text = field->text != nullptr ? field->text(record) : std::to_string(number);
    return new ResultMetric(metric, text.c_str());
  }
  return new ResultMetric(metric, number);
}
