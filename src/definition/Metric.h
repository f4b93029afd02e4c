#pragma once

// Metric: one attribute of an attribute group as a data provider collects it, with
// everything the agent definition says about it (filled by
// XMLConfigParser::initializeMetric and by the data source's own parser).
//
// A Metric keeps its own copies of the texts it is given and owns its Expression.
// Metrics are chained (ListElement) in their provider's metric list, in definition
// order. Not thread-safe; metrics are built while the definition is read and only
// read afterwards.

#include "foundation/List.h"

class Expression;

// How a value is taken from the source and what is reported: the "type" word of a
// metric in the agent definition. Value 8 is not assigned.
enum RAW_METRIC_TYPE {
  NUMERIC_DATA = 0,              // 32-bit number, passed through (also any unknown word)
  STRING_DATA = 1,               // text, passed through
  DELTA_DATA = 2,                // 32-bit change since the previous sample
  RATE_DATA = 3,                 // 32-bit change per second since the previous sample
  PERCENT_DELTA_DATA = 4,        // 32-bit percent change since the previous sample
  VALUE_CHANGED = 5,             // 1 when the value differs from the previous sample
  PREVIOUS_STRING_DATA = 6,      // the previous sample's text
  PREVIOUS_NUMERIC_DATA = 7,     // the previous sample's number
  NUMERIC_64BIT_DATA = 9,        // 64-bit number, passed through
  DELTA_64BIT_DATA = 10,         // 64-bit change
  RATE_64BIT_DATA = 11,          // 64-bit change per second
  PERCENT_DELTA_64BIT_DATA = 12  // percent change, kept as 64-bit
};

// The type of a definition word ("STRING_DATA", ...), compared exactly. Any other
// word, and null, give NUMERIC_DATA; *known (when given) tells whether the word was
// one of the type names.
RAW_METRIC_TYPE rawMetricTypeFromName(const char* name, bool* known = nullptr);
// The definition word of a type; "NUMERIC_DATA" for 0 and for values without one.
const char* rawMetricTypeName(RAW_METRIC_TYPE type);
// True for the types computed from the previous sample: 2-7 and 10-12.
inline bool isRateOrDeltaType(RAW_METRIC_TYPE type) {
  return (type >= DELTA_DATA && type <= PREVIOUS_NUMERIC_DATA) ||
         (type >= DELTA_64BIT_DATA && type <= PERCENT_DELTA_64BIT_DATA);
}

// Aligned so that a value referring to its Metric can keep flags in the pointer's low
// bits (see ResultMetric).
class alignas(32) Metric : public ListElement {
 public:
  Metric();
  explicit Metric(const char* metricName);
  ~Metric() override;

  // The name by which the data source finds the value ("metricName" in the
  // definition, else the attribute's "name").
  const char* getMetricName() const { return metricName_; }
  void setMetricName(const char* name);
  // The attribute's name in the framework's tables ("name").
  const char* getSurfMetricName() const { return surfName_; }
  void setSurfName(const char* name);

  // The attribute type code of the table column (text or number), when known.
  int getMetricType() const { return metricType_; }
  void setMetricType(int type) { metricType_ = type; }
  RAW_METRIC_TYPE getRawMetricType() const { return rawType_; }
  void setRawMetricType(RAW_METRIC_TYPE type) { rawType_ = type; }
  // True for the text types (STRING_DATA, PREVIOUS_STRING_DATA).
  bool isStringType() const;

  int getSize() const { return size_; }
  void setSize(int size) { size_ = size; }
  int getSizeLimit() const { return sizeLimit_; }
  void setSizeLimit(int limit) { sizeLimit_ = limit; }

  // Decimal places by which doubles are scaled when they are reported.
  bool hasScale() const { return hasScale_; }
  int getScale() const { return scale_; }
  void setScale(int scale);
  bool hasScaleTransparent() const { return hasScaleTransparent_; }
  bool isScaleTransparent() const { return scaleTransparent_; }
  void setScaleTransparent(bool transparent);
  bool hasPrecision() const { return hasPrecision_; }
  int getPrecision() const { return precision_; }
  void setPrecision(int precision);

  bool getIsKey() const { return key_; }
  void setIsKey(bool key) { key_ = key; }
  bool getIsHidden() const { return hidden_; }
  void setIsHidden(bool hidden) { hidden_ = hidden; }
  bool isCounter() const { return counter_; }
  void setIsCounter(bool counter) { counter_ = counter; }
  bool isIntervalBased() const { return intervalBased_; }
  void setIntervalBased(bool intervalBased) { intervalBased_ = intervalBased; }

  // A derived attribute is computed from others: by a formula, or by the two-operand
  // form arg1 op arg2.
  bool isDerived() const { return derived_; }
  void setDerived(bool derived) { derived_ = derived; }
  // The parsed formula (owned; replaces and deletes an earlier one); null when there
  // is none or it could not be parsed.
  Expression* getExpression() const { return expression_; }
  void setExpression(Expression* expression);
  const char* getExpressionFormula() const { return formula_; }
  void setExpressionFormula(const char* formula);
  const char* getArg1() const { return arg1_; }
  const char* getArg2() const { return arg2_; }
  char getOperation() const { return operation_; }
  void setOperands(const char* arg1, const char* arg2, char operation);

  // Cutting the value out of a line of text (script output).
  const char* getSeparator() const { return separator_; }
  void setSeparator(const char* separator);
  const char* getBeginDelimiter() const { return beginDelimiter_; }
  void setBeginDelimiter(const char* delimiter);
  const char* getEndDelimiter() const { return endDelimiter_; }
  void setEndDelimiter(const char* delimiter);
  // Fixed width in characters; -1 when the value is not of fixed width.
  int getMaxChars() const { return maxChars_; }
  void setMaxChars(int maxChars) { maxChars_ = maxChars < 1 ? -1 : maxChars; }
  bool isRestOfRecord() const { return restOfRecord_; }
  void setRestOfRecord(bool rest) { restOfRecord_ = rest; }

  // A value-to-value mapping applied to raw source values, written in the definition
  // as "source=target" entries separated by commas ("0=Down,1=Up,*=Unknown"); blanks
  // around sources and targets are dropped and "*" maps every value not listed.
  const char* getMapSourceData() const { return mapSourceData_; }
  void setMapSourceData(const char* mapping);
  // Parses the mapping text into entries (setMapSourceData does it). Returns the
  // number of entries; entries without "=" are skipped.
  int parseMapArgs(const char* mapping);
  // The target for `value`, or null when the mapping has none.
  const char* findMappedValue(const char* value) const;
  void deleteMappedValues();

  // Comparisons of two values of this attribute, as the filters make them: text
  // types compare bytewise, every other type numerically (a text that is no number
  // counts as 0). Null counts as the empty text.
  bool eq(const char* left, const char* right) const { return compareValues(left, right) == 0; }
  bool ne(const char* left, const char* right) const { return compareValues(left, right) != 0; }
  bool lt(const char* left, const char* right) const { return compareValues(left, right) < 0; }
  bool lte(const char* left, const char* right) const { return compareValues(left, right) <= 0; }
  bool gt(const char* left, const char* right) const { return compareValues(left, right) > 0; }
  bool gte(const char* left, const char* right) const { return compareValues(left, right) >= 0; }
  int compareValues(const char* left, const char* right) const;

 private:
  struct MappedValue {
    char* source;
    char* target;
  };

  char* metricName_ = nullptr;
  char* surfName_ = nullptr;
  int metricType_ = 0;
  RAW_METRIC_TYPE rawType_ = NUMERIC_DATA;
  int size_ = 0;
  int sizeLimit_ = 0;
  bool hasScale_ = false;
  int scale_ = 0;
  bool hasScaleTransparent_ = false;
  bool scaleTransparent_ = false;
  bool hasPrecision_ = false;
  int precision_ = 0;
  bool key_ = false;
  bool hidden_ = false;
  bool counter_ = false;
  bool intervalBased_ = false;
  bool derived_ = false;
  Expression* expression_ = nullptr;
  char* formula_ = nullptr;
  char* arg1_ = nullptr;
  char* arg2_ = nullptr;
  char operation_ = '\0';
  char* separator_ = nullptr;
  char* beginDelimiter_ = nullptr;
  char* endDelimiter_ = nullptr;
  int maxChars_ = -1;
  bool restOfRecord_ = false;
  char* mapSourceData_ = nullptr;
  List mappedValues_;  // of MappedValue*, owned
};
