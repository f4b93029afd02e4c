#pragma once

// Derived-attribute expressions: the parsed form of a metric's "formula".
//
// The definition reader only knows the interface; the expression language registers
// its parser here. A build without one keeps formulas as text on their metrics.

#include <string>

class Expression {
 public:
  virtual ~Expression() = default;
  // The formula this expression was parsed from.
  virtual const char* getFormula() const = 0;
};

// Parses `formula`. Returns the expression (caller owns it), or null with a
// description in *error and the 1-based column of the failing character in
// *errorColumn.
using ExpressionParser = Expression* (*)(const char* formula, std::string* error, int* errorColumn);

// Installs the expression language's parser (null removes it). Done during static
// initialisation by the library that provides it.
void registerExpressionParser(ExpressionParser parser);
ExpressionParser getExpressionParser();
