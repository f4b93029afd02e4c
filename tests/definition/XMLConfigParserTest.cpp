#include "definition/XMLConfigParser.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "definition/DefinitionWarnings.h"
#include "definition/Expression.h"
#include "definition/Metric.h"
#include "foundation/HashMap.h"
#include "support/TraceCapture.h"

namespace {

// Attributes of a metric element, as the parser hands them over.
class Attributes {
 public:
  Attributes(std::initializer_list<std::pair<const char*, const char*>> pairs) {
    for (const auto& [name, value] : pairs) {
      map_.put(name, value);
    }
  }
  const HashMap* get() const { return &map_; }

 private:
  HashMap map_;
};

std::unique_ptr<Metric> metricFrom(const Attributes& attributes) {
  auto metric = std::make_unique<Metric>();
  XMLConfigParser::initializeMetric(metric.get(), attributes.get());
  return metric;
}

TEST(XMLConfigParser, BooleansAndIntegers) {
  Attributes attributes{{"yes", "true"}, {"upper", "TRUE"},      {"one", "1"},
                        {"n", "42"},     {"neg", "-7"},          {"junk", "12abc"},
                        {"text", "abc"}, {"huge", "99999999999"}};
  EXPECT_TRUE(XMLConfigParser::getBoolean(attributes.get(), "yes"));
  for (const char* key : {"upper", "one", "missing"}) {
    EXPECT_FALSE(XMLConfigParser::getBoolean(attributes.get(), key)) << key;
  }
  const std::pair<const char*, int> integers[] = {{"n", 42},   {"neg", -7},    {"junk", 12},
                                                  {"text", 0}, {"missing", 0}, {"huge", INT32_MAX}};
  for (const auto& [key, value] : integers) {
    EXPECT_EQ(XMLConfigParser::getInteger(attributes.get(), key), value) << key;
  }
}

TEST(XMLConfigParser, InitializeMetricReadsTheSharedVocabulary) {
  auto metric = metricFrom({{"name", "Used_Percent"},
                            {"metricName", "pct"},
                            {"type", "RATE_64BIT_DATA"},
                            {"key", "true"},
                            {"visible", "true"},
                            {"counter", "true"},
                            {"size", "8"},
                            {"map", "0=Down,1=Up"},
                            {"scale", "2"},
                            {"scaleTransparent", "false"},
                            {"precision", "1"},
                            {"intervalBased", "true"}});
  EXPECT_STREQ(metric->getSurfMetricName(), "Used_Percent");
  EXPECT_STREQ(metric->getMetricName(), "pct");
  EXPECT_EQ(metric->getRawMetricType(), RATE_64BIT_DATA);
  EXPECT_TRUE(metric->getIsKey());
  EXPECT_FALSE(metric->getIsHidden());
  EXPECT_TRUE(metric->isCounter());
  EXPECT_EQ(metric->getSize(), 8);
  EXPECT_STREQ(metric->findMappedValue("1"), "Up");
  ASSERT_TRUE(metric->hasScale());
  EXPECT_EQ(metric->getScale(), 2);
  EXPECT_TRUE(metric->hasScaleTransparent());
  EXPECT_FALSE(metric->isScaleTransparent());
  EXPECT_EQ(metric->getPrecision(), 1);
  EXPECT_TRUE(metric->isIntervalBased());
  EXPECT_FALSE(metric->isDerived());

  auto defaults = metricFrom({{"name", "Plain"}, {"type", "STRING_DATA"}, {"visible", "yes"}});
  EXPECT_STREQ(defaults->getMetricName(), "Plain") << "the name when there is no metricName";
  EXPECT_TRUE(defaults->getIsHidden()) << "visible only for the exact text true";
  EXPECT_FALSE(defaults->getIsKey());
  EXPECT_FALSE(defaults->hasScale());
  EXPECT_FALSE(defaults->hasScaleTransparent());
  EXPECT_FALSE(defaults->hasPrecision());
  EXPECT_EQ(defaults->getMapSourceData(), nullptr);
}

TEST(XMLConfigParser, TypeWordsAreExactAndUnknownOnesAreNumeric) {
  struct Case {
    const char* word;
    RAW_METRIC_TYPE type;
    bool warned;
  };
  const Case cases[] = {
      {"STRING_DATA", STRING_DATA, false},
      {"DELTA_DATA", DELTA_DATA, false},
      {"PERCENT_DELTA_DATA", PERCENT_DELTA_DATA, false},
      {"VALUE_CHANGED", VALUE_CHANGED, false},
      {"PREVIOUS_STRING_DATA", PREVIOUS_STRING_DATA, false},
      {"PREVIOUS_NUMERIC_DATA", PREVIOUS_NUMERIC_DATA, false},
      {"NUMERIC_64BIT_DATA", NUMERIC_64BIT_DATA, false},
      {"DELTA_64BIT_DATA", DELTA_64BIT_DATA, false},
      {"PERCENT_DELTA_64BIT_DATA", PERCENT_DELTA_64BIT_DATA, false},
      {"string_data", NUMERIC_DATA, true},
      {"NUMERIC_DATA", NUMERIC_DATA, false},
      {"INTEGER", NUMERIC_DATA, true},
  };
  struct Sink : DefinitionWarningSink {
    void definitionWarning(const char* message) override { messages.emplace_back(message); }
    std::vector<std::string> messages;
  } sink;
  setDefinitionWarningSink(&sink);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.word);
    sink.messages.clear();
    auto metric = metricFrom({{"name", "m"}, {"type", c.word}});
    EXPECT_EQ(metric->getRawMetricType(), c.type);
    EXPECT_EQ(sink.messages.size(), c.warned ? 1u : 0u);
  }
  sink.messages.clear();
  metricFrom({{"name", "untyped"}});
  EXPECT_EQ(sink.messages,
            std::vector<std::string>{"Attribute untyped has no type, treating it as numeric"});
  setDefinitionWarningSink(nullptr);
  EXPECT_TRUE(isRateOrDeltaType(PREVIOUS_STRING_DATA));
  EXPECT_FALSE(isRateOrDeltaType(NUMERIC_64BIT_DATA));
}

TEST(XMLConfigParser, DerivedAttributes) {
  auto simple = metricFrom({{"name", "Total"}, {"arg1", "a"}, {"arg2", "b"}, {"op", "+-"}});
  EXPECT_TRUE(simple->isDerived());
  EXPECT_STREQ(simple->getArg1(), "a");
  EXPECT_STREQ(simple->getArg2(), "b");
  EXPECT_EQ(simple->getOperation(), '+');

  // The expression language is linked in: take it out to see the reader without one.
  ExpressionParser linked = getExpressionParser();
  registerExpressionParser(nullptr);
  XRV::testing::TraceCapture capture("detail");
  auto formula = metricFrom({{"name", "Ratio"}, {"formula", "a / b"}});
  registerExpressionParser(linked);
  EXPECT_TRUE(formula->isDerived());
  EXPECT_STREQ(formula->getExpressionFormula(), "a / b") << "kept as text without a language";
  EXPECT_EQ(formula->getExpression(), nullptr);
  EXPECT_TRUE(capture.containsText("Expressions are not available in this build"));
}

// How a formula that does not parse is reported and replaced is
// ProviderExpressionTest's, with the language itself.

}  // namespace
