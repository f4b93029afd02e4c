#pragma once

// XMLConfigParser: the base of every parser of an agent-definition element, and the
// registry that maps element names to them.
//
// Every parser class has exactly one instance, constructed during static
// initialisation, which registers itself under its element name; the dispatcher
// (ConfigXMLParser) hands it the whole subtree of every element of that name. A
// data-source parser creates its provider at its own start tag, a Metric for each
// inner "metric" element (filled with initializeMetric), and hands the provider over
// at its end tag.
//
// The helpers read the attribute vocabulary that all data sources share.

#include <string>
#include <vector>

#include "definition/XMLHandler.h"

class Expression;
class HashMap;
class Metric;

class XMLConfigParser : public XMLHandler {
 public:
  // Forgets an element left half-read by a definition that could not be read to its
  // end, so that the next definition starts clean. Parsers that keep state between
  // their callbacks override it.
  virtual void abandon() {}

  // Fills `metric` from the attributes of a metric element: type, key, visible,
  // counter, size, name, metricName, map, arg1/op/arg2, formula, scale,
  // scaleTransparent, precision, intervalBased.
  static void initializeMetric(Metric* metric, const HashMap* attributes);
  // The expression language's parse of `formula`; null when it does not parse (the
  // reason is traced) or this build has no expression language.
  static Expression* parseExpression(const char* formula);
  // True only for the exact text "true".
  static bool getBoolean(const HashMap* attributes, const char* key);
  // The decimal value (leading digits, as atoi reads them), 0 when absent.
  static int getInteger(const HashMap* attributes, const char* key);
  // The attribute's text, or null.
  static const char* getString(const HashMap* attributes, const char* key);
};

// Files `parser` under `elementName` (a text that lives as long as the process); a
// later registration under the same name replaces the earlier one.
void registerXMLConfigParser(const char* elementName, XMLConfigParser* parser);
// The parser registered for `elementName`, or null.
XMLConfigParser* findXMLConfigParser(const char* elementName);
// Every registered element name, sorted.
std::vector<std::string> registeredElementNames();
// Calls abandon() on every registered parser.
void abandonAllXMLConfigParsers();
