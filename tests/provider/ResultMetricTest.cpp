#include "provider/ResultMetric.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>

#include "MakeValue.h"
#include "foundation/String.h"
#include "provider/PrevResult.h"

namespace {

using ValuePtr = std::unique_ptr<ResultMetric>;

std::string rendered(const ResultMetric& value) {
  XRV::String out("left over");
  value.toUTF8String(&out);
  return out.c_str();
}

TEST(ResultMetric, RendersEachRepresentation) {
  struct Case {
    MakeValue make;
    RESULT_VALUE_KIND kind;
    const char* expected;
  };
  const Case cases[] = {
      {int32(-42), RESULT_INT32, "-42"},
      {int64(LLONG_MIN), RESULT_INT64, "-9223372036854775808"},
      {uint64(ULLONG_MAX), RESULT_UINT64, "18446744073709551615"},
      {real(2.5), RESULT_DOUBLE, "            2.5"},
      {real(1.0 / 3.0), RESULT_DOUBLE, "0.333333333333333"},
      {real(1e20), RESULT_DOUBLE, "          1e+20"},
      {bytes("web01 /var"), RESULT_STRING, "web01 /var"},
      {bytes(nullptr), RESULT_STRING, "No value"},
      {utf8("gr\xC3\xBC\xC3\x9F"), RESULT_UTF8, "gr\xC3\xBC\xC3\x9F"},
      {utf8(nullptr), RESULT_UTF8, "No value"},
  };
  Metric metric("m");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    ValuePtr value(c.make(&metric));
    EXPECT_EQ(value->getKind(), c.kind);
    EXPECT_EQ(rendered(*value), c.expected);
  }
}

TEST(ResultMetric, ValuesEqualOnlyWithinComparablePairings) {
  struct Case {
    const char* label;
    MakeValue left;
    MakeValue right;
    bool equal;
  };
  const char* ete = "\xC3\xA9t\xC3\xA9";
  const Case cases[] = {
      {"int32", int32(7), int32(7), true},
      {"int32 differs", int32(7), int32(8), false},
      {"int64", int64(5000000000LL), int64(5000000000LL), true},
      {"int64 differs", int64(5000000000LL), int64(5000000001LL), false},
      {"uint64 differs", uint64(ULLONG_MAX), uint64(1), false},
      {"double", real(2.5), real(2.5), true},
      {"double differs", real(2.5), real(2.50001), false},
      {"bytes", bytes("abc"), bytes("abc"), true},
      {"bytes prefix", bytes("abc"), bytes("ab"), false},
      {"utf8", utf8(ete), utf8(ete), true},
      {"utf8 differs", utf8(ete), utf8("ete"), false},
      {"bytes against utf8", bytes(ete), utf8(ete), true},
      {"bytes against other utf8", bytes("abc"), utf8("abd"), false},
      {"int32 against int64", int32(7), int64(7), false},
      {"int64 against uint64", int64(7), uint64(7), false},
      {"int32 against double", int32(2), real(2.0), false},
      {"number against its text", int32(7), bytes("7"), false},
      {"number against utf8 text", uint64(7), utf8("7"), false},
  };
  Metric metric("m");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    ValuePtr left(c.left(&metric));
    ValuePtr right(c.right(&metric));
    EXPECT_EQ(left->areValuesEqual(right.get()), c.equal);
    EXPECT_EQ(right->areValuesEqual(left.get()), c.equal) << "reversed";
    EXPECT_FALSE(left->areValuesEqual(nullptr));
  }
}

TEST(ResultMetric, ConvertsNumbersToTheWidthAsked) {
  struct Case {
    MakeValue make;
    int asInt;
    long long asInt64;
  };
  const Case cases[] = {
      {int64(0x100000005LL), 5, 0x100000005LL},  // cut as C casts cut
      {uint64(ULLONG_MAX), -1, -1},
      {real(-2.9), -2, -2},
      {real(1e12), INT_MAX, 1000000000000LL},  // out of range: clamped, not undefined
      {real(-1e30), INT_MIN, LLONG_MIN},
      {bytes("12"), 0, 0},
  };
  Metric metric("m");
  for (const Case& c : cases) {
    ValuePtr value(c.make(&metric));
    SCOPED_TRACE(rendered(*value));
    EXPECT_EQ(value->getIntValue(), c.asInt);
    EXPECT_EQ(value->getIntValue64(), c.asInt64);
  }
}

TEST(ResultMetric, SetMetricValueSwitchesRepresentations) {
  Metric metric("m");
  ResultMetric value(&metric, "first");
  value.setMappedData(true);  // kept apart from the representation, which changes below
  value.setMetricValue(12);
  EXPECT_TRUE(value.isNumber());
  value.setMetricValue(new UTF8String("\xC3\xA4"));
  EXPECT_EQ(rendered(value), "\xC3\xA4");
  // The UTF-8 value's own bytes, which go away with it.
  value.setMetricValue(value.getTextBytes());
  EXPECT_TRUE(value.isString());
  EXPECT_EQ(rendered(value), "\xC3\xA4");
  value.setMetricValue("a longer text than before");
  // A part of the current text, inside the buffer being reused.
  value.setMetricValue(value.getString() + 9);
  EXPECT_EQ(rendered(value), "text than before");
  value.setMetricValue(static_cast<const char*>(nullptr));
  EXPECT_EQ(rendered(value), "No value");
  value.setMetricValue(ULLONG_MAX);
  EXPECT_TRUE(value.isNumberU64());
  value.setMetricValue(static_cast<UTF8String*>(nullptr));
  EXPECT_EQ(rendered(value), "No value");
  value.setMetricValue(0.5);
  EXPECT_EQ(value.getDouble(), 0.5);
  EXPECT_TRUE(value.isMappedData());
  EXPECT_EQ(value.getMetric(), &metric);
  EXPECT_TRUE(value.isNumberDouble());
}

TEST(ResultMetric, SharesTheMetricsNamesAndCopiesOthers) {
  Metric metric("diskFree");
  metric.setSurfName("Disk_Free");
  metric.setIsKey(true);
  metric.setIsCounter(true);
  metric.setRawMetricType(DELTA_64BIT_DATA);
  ResultMetric value(&metric, 5LL);
  value.setMappedData(true);
  EXPECT_EQ(value.getMetricName(), metric.getMetricName());
  EXPECT_TRUE(value.isKey());
  EXPECT_TRUE(value.isCounter());
  ValuePtr copy(value.getDeepCopy());
  EXPECT_EQ(copy->getSurfMetricName(), metric.getSurfMetricName()) << "shared, as in the original";
  EXPECT_TRUE(copy->isKey());

  std::string name = "status";
  auto named =
      std::make_unique<ResultMetric>(name.c_str(), "Status", STRING_DATA, new UTF8String("up"));
  name.assign("xxxxxx");
  EXPECT_STREQ(named->getMetricName(), "status");
  EXPECT_FALSE(named->isKey());
  ValuePtr namedCopy(named->getDeepCopy());
  ValuePtr renamed(value.getDeepCopy("other", "Other"));
  namedCopy->setMetricValue("down");
  EXPECT_EQ(rendered(*named), "up");
  named.reset();  // the copy must not point into the original
  EXPECT_STREQ(namedCopy->getSurfMetricName(), "Status");
  EXPECT_EQ(rendered(*namedCopy), "down");
  EXPECT_STREQ(renamed->getMetricName(), "other");
  EXPECT_EQ(renamed->getMetric(), nullptr);
  EXPECT_EQ(renamed->getInt64(), 5);
  // A renamed copy keeps what the Metric said of the value, and the value's own flag.
  EXPECT_EQ(renamed->getRawMetricType(), DELTA_64BIT_DATA);
  EXPECT_TRUE(renamed->isKey());
  EXPECT_TRUE(renamed->isCounter());
  EXPECT_TRUE(renamed->isMappedData());
  ValuePtr renamedCopy(renamed->getDeepCopy());
  renamed.reset();
  EXPECT_STREQ(renamedCopy->getSurfMetricName(), "Other");
  EXPECT_EQ(renamedCopy->getRawMetricType(), DELTA_64BIT_DATA);
  EXPECT_TRUE(renamedCopy->isCounter());

  ResultMetric nameless(nullptr, nullptr, RATE_DATA, "x");
  EXPECT_EQ(nameless.getMetricName(), nullptr);
  EXPECT_EQ(nameless.getSurfMetricName(), nullptr);
  EXPECT_EQ(nameless.getRawMetricType(), RATE_DATA);
  ResultMetric displayOnly(nullptr, "Shown", NUMERIC_DATA, "x");
  EXPECT_EQ(displayOnly.getMetricName(), nullptr);
  EXPECT_STREQ(displayOnly.getSurfMetricName(), "Shown");
}

TEST(PrevResult, KeepsACopyAndTakesNewValues) {
  Metric metric("bytesIn");
  ResultMetric current(&metric, 100);
  PrevResult previous(current, 1000);
  current.setMetricValue(200);
  EXPECT_EQ(previous.getInt64(), 100) << "a copy, not a reference";

  struct Case {
    MakeValue make;
    RESULT_VALUE_KIND kind;
    const char* text;
  };
  const Case cases[] = {{uint64(5000000000ULL), RESULT_UINT64, ""},
                        {bytes("eth0 up"), RESULT_STRING, "eth0 up"},
                        {utf8("eth0 down"), RESULT_UTF8, "eth0 down"},
                        {real(2.5), RESULT_DOUBLE, ""},
                        {int32(3), RESULT_INT32, ""}};
  for (const Case& c : cases) {
    ValuePtr next(c.make(&metric));
    SCOPED_TRACE(rendered(*next));
    previous.setValue(*next);
    EXPECT_EQ(previous.getKind(), c.kind);
    EXPECT_STREQ(previous.getText(), c.text);
    // The number is read in the representation the kind names.
    switch (c.kind) {
      case RESULT_UINT64:
        EXPECT_EQ(previous.getUInt64(), 5000000000ULL);
        break;
      case RESULT_DOUBLE:
        EXPECT_EQ(previous.getDouble(), 2.5);
        break;
      case RESULT_INT32:
        EXPECT_EQ(previous.getInt64(), 3);
        break;
      default:
        break;
    }
  }

  ResultMetric other("renamed", "Renamed", STRING_DATA, "x");
  previous.setValue(other);
  EXPECT_STREQ(previous.getMetricName(), "bytesIn") << "the stored names stay";

  PrevResultInstance instance("eth0");
  instance.add(current, 1);
  auto named = std::make_unique<ResultMetric>("renamed", "Renamed", STRING_DATA, "x");
  instance.add(*named, 2);
  named.reset();  // the stored name is a copy
  ASSERT_NE(instance.find("renamed"), nullptr);
  EXPECT_EQ(instance.find("renamed")->getTime(), 2);
  EXPECT_STREQ(instance.find("bytesIn")->getMetricName(), "bytesIn");
  EXPECT_EQ(instance.find("missing"), nullptr);
}

}  // namespace
