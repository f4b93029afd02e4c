#include "definition/Metric.h"

#include <cstdlib>
#include <cstring>

#include "definition/Expression.h"
#include "foundation/Utilities.h"
#include "framework/Trace.h"

namespace {

struct TypeName {
  const char* name;
  RAW_METRIC_TYPE type;
};

constexpr TypeName kTypeNames[] = {
    {"NUMERIC_DATA", NUMERIC_DATA},  // what every other word means too; known, not warned
    {"STRING_DATA", STRING_DATA},
    {"DELTA_DATA", DELTA_DATA},
    {"RATE_DATA", RATE_DATA},
    {"PERCENT_DELTA_DATA", PERCENT_DELTA_DATA},
    {"VALUE_CHANGED", VALUE_CHANGED},
    {"PREVIOUS_STRING_DATA", PREVIOUS_STRING_DATA},
    {"PREVIOUS_NUMERIC_DATA", PREVIOUS_NUMERIC_DATA},
    {"NUMERIC_64BIT_DATA", NUMERIC_64BIT_DATA},
    {"DELTA_64BIT_DATA", DELTA_64BIT_DATA},
    {"RATE_64BIT_DATA", RATE_64BIT_DATA},
    {"PERCENT_DELTA_64BIT_DATA", PERCENT_DELTA_64BIT_DATA},
};

// `text` without the blanks around it, copied.
char* trimmedCopy(const char* begin, const char* end) {
  while (begin < end && (*begin == ' ' || *begin == '\t')) {
    ++begin;
  }
  while (end > begin && (end[-1] == ' ' || end[-1] == '\t')) {
    --end;
  }
  return strndup(begin, static_cast<size_t>(end - begin));
}

}  // namespace

RAW_METRIC_TYPE rawMetricTypeFromName(const char* name, bool* known) {
  if (name != nullptr) {
    for (const TypeName& entry : kTypeNames) {
      if (strcmp(name, entry.name) == 0) {
        if (known != nullptr) {
          *known = true;
        }
        return entry.type;
      }
    }
  }
  if (known != nullptr) {
    *known = false;
  }
  return NUMERIC_DATA;
}

const char* rawMetricTypeName(RAW_METRIC_TYPE type) {
  for (const TypeName& entry : kTypeNames) {
    if (entry.type == type) {
      return entry.name;
    }
  }
  return "NUMERIC_DATA";
}

Metric::Metric() = default;

Metric::Metric(const char* metricName) { setMetricName(metricName); }

Metric::~Metric() {
  XRV_TRACE_FN();
  delete expression_;
  deleteMappedValues();
  for (char* text : {metricName_, surfName_, formula_, arg1_, arg2_, separator_, beginDelimiter_,
                     endDelimiter_, mapSourceData_}) {
    free(text);
  }
}

void Metric::setMetricName(const char* name) { Utilities::setOwnedText(&metricName_, name); }

void Metric::setSurfName(const char* name) { Utilities::setOwnedText(&surfName_, name); }

bool Metric::isStringType() const {
  return rawType_ == STRING_DATA || rawType_ == PREVIOUS_STRING_DATA;
}

void Metric::setScale(int scale) {
  hasScale_ = true;
  scale_ = scale;
}

void Metric::setScaleTransparent(bool transparent) {
  hasScaleTransparent_ = true;
  scaleTransparent_ = transparent;
}

void Metric::setPrecision(int precision) {
  hasPrecision_ = true;
  precision_ = precision;
}

void Metric::setExpression(Expression* expression) {
  if (expression != expression_) {
    delete expression_;
    expression_ = expression;
  }
}

void Metric::setExpressionFormula(const char* formula) {
  Utilities::setOwnedText(&formula_, formula);
}

void Metric::setOperands(const char* arg1, const char* arg2, char operation) {
  Utilities::setOwnedText(&arg1_, arg1);
  Utilities::setOwnedText(&arg2_, arg2);
  operation_ = operation;
}

void Metric::setSeparator(const char* separator) {
  Utilities::setOwnedText(&separator_, separator);
}

void Metric::setBeginDelimiter(const char* delimiter) {
  Utilities::setOwnedText(&beginDelimiter_, delimiter);
}

void Metric::setEndDelimiter(const char* delimiter) {
  Utilities::setOwnedText(&endDelimiter_, delimiter);
}

void Metric::setMapSourceData(const char* mapping) {
  XRV_TRACE_FN();
  Utilities::setOwnedText(&mapSourceData_, mapping);
  parseMapArgs(mapping);
}

int Metric::parseMapArgs(const char* mapping) {
  XRV_TRACE_FN();
  deleteMappedValues();
  if (mapping == nullptr) {
    return 0;
  }
  const char* entry = mapping;
  while (true) {
    const char* end = strchr(entry, ',');
    if (end == nullptr) {
      end = entry + strlen(entry);
    }
    const char* equals =
        static_cast<const char*>(memchr(entry, '=', static_cast<size_t>(end - entry)));
    if (equals == nullptr) {
      XRV_TRACE_DETAIL("Map entry without '=' skipped in %s", mapping);
    } else {
      auto* value = static_cast<MappedValue*>(malloc(sizeof(MappedValue)));
      if (value != nullptr) {
        value->source = trimmedCopy(entry, equals);
        value->target = trimmedCopy(equals + 1, end);
        mappedValues_.add(value);
      }
    }
    if (*end == '\0') {
      break;
    }
    entry = end + 1;
  }
  return mappedValues_.getCount();
}

const char* Metric::findMappedValue(const char* value) const {
  const char* fallback = nullptr;
  for (int i = 0; i < mappedValues_.getCount(); ++i) {
    const auto* entry = static_cast<const MappedValue*>(mappedValues_.get(i));
    if (value != nullptr && strcmp(entry->source, value) == 0) {
      return entry->target;
    }
    if (fallback == nullptr && strcmp(entry->source, "*") == 0) {
      fallback = entry->target;
    }
  }
  return fallback;
}

void Metric::deleteMappedValues() {
  while (mappedValues_.getCount() > 0) {
    auto* entry = static_cast<MappedValue*>(mappedValues_.pop());
    free(entry->source);
    free(entry->target);
    free(entry);
  }
}

int Metric::compareValues(const char* left, const char* right) const {
  const char* a = left == nullptr ? "" : left;
  const char* b = right == nullptr ? "" : right;
  if (isStringType()) {
    return strcmp(a, b);
  }
  double x = strtod(a, nullptr);
  double y = strtod(b, nullptr);
  return x < y ? -1 : (x > y ? 1 : 0);
}
