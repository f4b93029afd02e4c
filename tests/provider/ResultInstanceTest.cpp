#include "provider/ResultInstance.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "MakeValue.h"
#include "foundation/String.h"

namespace {

struct Column {
  MakeValue make;
  bool key;
};

TEST(ResultInstance, NameIsMadeOfKeyValues) {
  struct Case {
    const char* givenName;
    std::vector<Column> columns;
    const char* expected;  // null: the row has no name
  };
  const Case cases[] = {
      {nullptr, {{bytes("a"), false}, {int32(1), false}}, nullptr},
      {nullptr, {{int32(-7), true}}, "-7"},
      {nullptr, {{int64(-5000000000LL), true}}, "-5000000000"},
      {nullptr, {{uint64(18446744073709551615ULL), true}}, "18446744073709551615"},
      {nullptr, {{real(2.5), true}}, "2.5"},
      {nullptr, {{real(1e20), true}}, "1e+20"},
      {nullptr, {{utf8("m\xC3\xBCnchen"), true}}, "m\xC3\xBCnchen"},
      {nullptr,
       {{bytes("web01"), true}, {bytes("x"), false}, {int32(42), true}, {utf8("/var"), true}},
       "web01|42|/var"},
      {"eth0", {{bytes("x"), false}}, "eth0"},
      {"", {}, ""},
      {"inst", {{bytes("a"), true}, {bytes("b"), true}}, "insta|b"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected == nullptr ? "no name" : c.expected);
    std::vector<std::unique_ptr<Metric>> metrics;
    ResultInstance row(c.givenName, static_cast<int>(c.columns.size()));
    for (const Column& column : c.columns) {
      metrics.push_back(std::make_unique<Metric>("m"));
      metrics.back()->setIsKey(column.key);
      row.addMetric(column.make(metrics.back().get()));
    }
    EXPECT_EQ(row.getMetricCount(), static_cast<int>(c.columns.size()));
    if (c.expected == nullptr) {
      EXPECT_EQ(row.getInstanceName(), nullptr);
    } else {
      ASSERT_NE(row.getInstanceName(), nullptr);
      EXPECT_STREQ(row.getInstanceName(), c.expected);
    }
  }
}

TEST(ResultInstance, LongKeysGrowTheName) {
  // Lengths around the 64-byte growth step, then many short keys.
  std::vector<std::string> keys = {"a", std::string(61, 'b'), std::string(200, 'c'),
                                   std::string(63, 'd')};
  for (int i = 0; i < 100; ++i) {
    keys.push_back("k" + std::to_string(i));
  }
  Metric keyMetric("k");
  keyMetric.setIsKey(true);
  ResultInstance row(nullptr, static_cast<int>(keys.size()));
  std::string expected;
  for (const std::string& k : keys) {
    row.addMetric(new ResultMetric(&keyMetric, k.c_str()));
    expected += expected.empty() ? k : "|" + k;
    ASSERT_STREQ(row.getInstanceName(), expected.c_str());
  }
}

TEST(ResultInstance, DeepCopyIsIndependent) {
  Metric host("host");
  host.setIsKey(true);
  Metric load("load");
  auto original = std::make_unique<ResultInstance>("node", 3);
  original->addMetric(new ResultMetric(&host, "web01"));
  original->addMetric(new ResultMetric(&load, 7));
  original->addMetric(new ResultMetric("note", "Note", STRING_DATA, new UTF8String("ok")));
  original->addDerivedMetric(new ResultMetric(&load, 14LL));
  original->setTimestamp("1250102030405060789");  // only 16 characters are kept
  original->setOccurrenceCount(4);
  original->setSummary(true);
  original->setPassesFilter(false);

  std::unique_ptr<ResultInstance> copy(original->getDeepCopy());
  EXPECT_STREQ(copy->getInstanceName(), "nodeweb01");
  EXPECT_EQ(copy->getMetricCount(), 3);
  EXPECT_EQ(copy->getDerivedMetricCount(), 1);
  EXPECT_STREQ(copy->getTimestamp(), "1250102030405060");
  EXPECT_EQ(copy->getOccurrenceCount(), 4);
  EXPECT_TRUE(copy->isSummary());
  EXPECT_FALSE(copy->passesFilter());

  copy->findMetric("load")->setMetricValue(99);
  copy->clearDerivedMetrics();
  copy->setTimestamp("1250102030405999");
  copy->addMetric(new ResultMetric(&host, "extra"));  // a further key: after a "|"
  EXPECT_STREQ(copy->getInstanceName(), "nodeweb01|extra");
  EXPECT_STREQ(original->getInstanceName(), "nodeweb01");
  EXPECT_EQ(original->findMetric("load")->getInt(), 7);
  EXPECT_EQ(original->getFirstDerivedMetric()->getInt64(), 14);
  EXPECT_STREQ(original->getTimestamp(), "1250102030405060");
  EXPECT_EQ(original->getMetricCount(), 3);

  original.reset();  // the copy owns everything it reads
  XRV::String text;
  copy->findMetric("note")->toUTF8String(&text);
  EXPECT_STREQ(text.c_str(), "ok");
  EXPECT_STREQ(copy->findMetric("note")->getSurfMetricName(), "Note");
}

}  // namespace
