#include "definition/XMLConfigParser.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "definition/DefinitionWarnings.h"
#include "definition/Expression.h"
#include "definition/Metric.h"
#include "foundation/HashMap.h"
#include "framework/Trace.h"

namespace {

// Created by the first registration, which happens during static initialisation.
HashMap*& registry() {
  static HashMap* map = nullptr;
  return map;
}

// The expression that stands in for a formula that does not parse: the constant -1.
Expression* constantMinusOne(ExpressionParser parser) {
  std::string error;
  int column = 0;
  return parser("-1", &error, &column);
}

}  // namespace

void registerXMLConfigParser(const char* elementName, XMLConfigParser* parser) {
  XRV_TRACE_FN();
  if (registry() == nullptr) {
    registry() = new HashMap();
  }
  registry()->put(elementName, parser);
}

XMLConfigParser* findXMLConfigParser(const char* elementName) {
  if (registry() == nullptr || elementName == nullptr) {
    return nullptr;
  }
  return static_cast<XMLConfigParser*>(registry()->get(elementName));
}

std::vector<std::string> registeredElementNames() {
  XRV_TRACE_FN();
  std::vector<std::string> names;
  if (registry() != nullptr) {
    HashMapIterator it = registry()->iterator();
    while (it.hasNext()) {
      it.next();
      names.emplace_back(it.getKey());
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

void abandonAllXMLConfigParsers() {
  XRV_TRACE_FN();
  if (registry() != nullptr) {
    registry()->foreach (
        [](const char*, const void* parser, void*) {
          if (parser != nullptr) {
            static_cast<XMLConfigParser*>(const_cast<void*>(parser))->abandon();
          }
        },
        nullptr);
  }
}

const char* XMLConfigParser::getString(const HashMap* attributes, const char* key) {
  return attributes == nullptr ? nullptr : static_cast<const char*>(attributes->get(key));
}

bool XMLConfigParser::getBoolean(const HashMap* attributes, const char* key) {
  const char* value = getString(attributes, key);
  return value != nullptr && strcmp(value, "true") == 0;
}

int XMLConfigParser::getInteger(const HashMap* attributes, const char* key) {
  const char* value = getString(attributes, key);
  if (value == nullptr) {
    return 0;
  }
  errno = 0;
  long number = strtol(value, nullptr, 10);
  return static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX));
}

Expression* XMLConfigParser::parseExpression(const char* formula) {
  XRV_TRACE_FN();
  ExpressionParser parser = getExpressionParser();
  if (parser == nullptr) {
    XRV_TRACE_DETAIL("Expressions are not available in this build, formula kept as text: %s",
                     formula);
    return nullptr;
  }
  std::string error;
  int column = 0;
  Expression* expression = parser(formula, &error, &column);
  if (expression == nullptr) {
    // A line of blanks with "^" under the column before the failing one.
    std::string marker(column > 2 ? static_cast<size_t>(column - 2) : 0, ' ');
    marker += '^';
    XRV_DEFINITION_WARNING("Error parsing expression:\n%s\n%s", formula, marker.c_str());
    XRV_TRACE_DETAIL("%s", error.c_str());
  }
  return expression;
}

void XMLConfigParser::initializeMetric(Metric* metric, const HashMap* attributes) {
  XRV_TRACE_FN();
  const char* name = getString(attributes, "name");
  const char* metricName = getString(attributes, "metricName");
  metric->setSurfName(name);
  metric->setMetricName(metricName != nullptr ? metricName : name);

  const char* type = getString(attributes, "type");
  bool known = false;
  metric->setRawMetricType(rawMetricTypeFromName(type, &known));
  if (type == nullptr) {
    XRV_DEFINITION_WARNING("Attribute %s has no type, treating it as numeric",
                           name == nullptr ? "(unnamed)" : name);
  } else if (!known) {
    XRV_DEFINITION_WARNING("Attribute %s has the unknown type %s, treating it as numeric",
                           name == nullptr ? "(unnamed)" : name, type);
  }
  metric->setIsKey(getBoolean(attributes, "key"));
  metric->setIsHidden(!getBoolean(attributes, "visible"));
  metric->setIsCounter(getBoolean(attributes, "counter"));
  metric->setSize(getInteger(attributes, "size"));
  metric->setIntervalBased(getBoolean(attributes, "intervalBased"));
  if (const char* map = getString(attributes, "map")) {
    metric->setMapSourceData(map);
  }
  if (getString(attributes, "scale") != nullptr) {
    metric->setScale(getInteger(attributes, "scale"));
  }
  if (getString(attributes, "scaleTransparent") != nullptr) {
    metric->setScaleTransparent(getBoolean(attributes, "scaleTransparent"));
  }
  if (getString(attributes, "precision") != nullptr) {
    metric->setPrecision(getInteger(attributes, "precision"));
  }
  if (const char* arg1 = getString(attributes, "arg1")) {
    const char* op = getString(attributes, "op");
    metric->setOperands(arg1, getString(attributes, "arg2"), op == nullptr ? '\0' : op[0]);
    metric->setDerived(true);
  }
  if (const char* formula = getString(attributes, "formula")) {
    metric->setDerived(true);
    metric->setExpressionFormula(formula);
    Expression* expression = parseExpression(formula);
    ExpressionParser parser = getExpressionParser();
    if (expression == nullptr && parser != nullptr) {
      expression = constantMinusOne(parser);
      metric->setExpressionFormula("-1");
      XRV_TRACE_ERROR(
          "Due to the expression parsing error, the value of metric %s will be set "
          "to -1.",
          metric->getMetricName() == nullptr ? "" : metric->getMetricName());
    }
    metric->setExpression(expression);
  }
}
