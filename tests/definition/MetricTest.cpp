#include "definition/Metric.h"

#include <gtest/gtest.h>

namespace {

TEST(Metric, MappingOfSourceValues) {
  struct Case {
    const char* mapping;
    int entries;
    const char* value;
    const char* expected;  // null: no mapping
  };
  const Case cases[] = {
      {"0=Down,1=Up", 2, "1", "Up"},
      {"0=Down,1=Up", 2, "2", nullptr},
      {" 0 = Down , 1 = Up ", 2, "0", "Down"},
      {"0=Down,*=Unknown", 2, "7", "Unknown"},
      {"*=Any,5=Five", 2, "5", "Five"},
      {"a=,=b", 2, "a", ""},
      {"a=b=c", 1, "a", "b=c"},
      {"novalue,x=y", 1, "novalue", nullptr},
      {"", 0, "", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mapping);
    Metric metric;
    EXPECT_EQ(metric.parseMapArgs(c.mapping), c.entries);
    const char* mapped = metric.findMappedValue(c.value);
    if (c.expected == nullptr) {
      EXPECT_EQ(mapped, nullptr);
    } else {
      ASSERT_NE(mapped, nullptr);
      EXPECT_STREQ(mapped, c.expected);
    }
    metric.deleteMappedValues();
    EXPECT_EQ(metric.findMappedValue(c.value), nullptr);
  }
}

TEST(Metric, ComparisonsFollowTheType) {
  Metric number;
  number.setRawMetricType(NUMERIC_64BIT_DATA);
  EXPECT_TRUE(number.lt("9", "10")) << "numerically, not as text";
  EXPECT_TRUE(number.eq("10", "10.0"));
  EXPECT_TRUE(number.gt("-1", "-2"));
  EXPECT_TRUE(number.eq("abc", "0"));
  EXPECT_TRUE(number.lte(nullptr, "0"));

  Metric text;
  text.setRawMetricType(STRING_DATA);
  EXPECT_TRUE(text.gt("9", "10")) << "bytewise";
  EXPECT_TRUE(text.ne("10", "10.0"));
  EXPECT_TRUE(text.gte("b", "a"));
  EXPECT_TRUE(text.eq(nullptr, ""));
}

}  // namespace
