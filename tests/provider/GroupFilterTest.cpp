#include "provider/GroupFilter.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "definition/AttributeGroupMeta.h"
#include "provider/ResultInstance.h"
#include "provider/ResultList.h"

namespace {

// Answers for each row what the test says, by the row's name.
class ScriptedFilter : public RowFilter {
 public:
  explicit ScriptedFilter(std::map<std::string, FilterResult> results)
      : results_(std::move(results)) {}
  void evaluate(const ResultInstance& row, FilterResult* result) const override {
    *result = results_.at(row.getInstanceName());
  }

 private:
  std::map<std::string, FilterResult> results_;
};

FilterResult passing() {
  FilterResult result;
  result.passes = true;
  return result;
}

TEST(GroupFilterTest, OnlyABooleanTrueWithoutErrorPasses) {
  struct Case {
    const char* name;
    bool passes;
    const char* error;
    int expectedType;
    int returnedType;
    bool expected;
  };
  const Case cases[] = {
      {"true", true, "", 1, 1, true},
      {"false", false, "", 1, 1, false},
      {"true with an error", true, "attribute missing", 1, 1, false},
      {"true of another type", true, "", 1, 4, false},
      {"false of another type", false, "", 1, 4, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FilterResult result;
    result.passes = c.passes;
    result.error = c.error;
    result.expectedType = c.expectedType;
    result.returnedType = c.returnedType;
    ScriptedFilter filter({{"row", result}});
    ResultInstance row("row", 0);
    EXPECT_EQ(GroupFilter::passes(filter, &row, "G"), c.expected);
  }
}

TEST(GroupFilterTest, MarksTheRowsFromTheOneGivenToTheEndOfItsList) {
  ScriptedFilter filter({{"a", FilterResult()}, {"b", passing()}, {"c", FilterResult()}});
  ResultList list;
  for (const char* name : {"a", "b", "c"}) {
    list.append(new ResultInstance(name, 0));
  }
  ResultInstance* a = list.head();
  ResultInstance* b = ResultList::next(a);
  ResultInstance* c = ResultList::next(b);

  GroupFilter::mark(filter, b, "G");
  EXPECT_TRUE(a->passesFilter());  // before the first row marked: untouched
  EXPECT_TRUE(b->passesFilter());
  EXPECT_FALSE(c->passesFilter());

  GroupFilter::mark(filter, a, "G");
  EXPECT_FALSE(a->passesFilter());
  EXPECT_TRUE(b->passesFilter());
  EXPECT_FALSE(c->passesFilter());
}

// The parser the tests register: the text "broken" does not parse, any other gives a
// filter that passes every row. Notes the text it was given.
std::string parsedText;
RowFilter* scriptedParser(const char* text, std::string* error) {
  parsedText = text;
  if (std::string(text) == "broken") {
    *error = "does not parse";
    return nullptr;
  }
  return new ScriptedFilter({{"row", passing()}});
}

class GroupFilterLoadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    registerRowFilterParser("filter", &scriptedParser);
    registerRowFilterParser("expression", &scriptedParser);
    setenv("XRV_GROUP_FILTER_TEST", "expanded", 1);
  }
  void TearDown() override {
    registerRowFilterParser("filter", nullptr);
    registerRowFilterParser("expression", nullptr);
    unsetenv("XRV_GROUP_FILTER_TEST");
  }
};

TEST_F(GroupFilterLoadTest, LoadsTheGroupsFilterOrNone) {
  struct Case {
    const char* name;
    const char* expression;  // null: none
    const char* grammar;     // null: the default
    bool loaded;
    const char* parsed;  // what the parser was given, when it was called
  };
  const Case cases[] = {
      {"no expression", nullptr, nullptr, false, nullptr},
      {"empty expression", "", nullptr, false, nullptr},
      {"filter grammar, variables expanded", "A == ${XRV_GROUP_FILTER_TEST}", "filter", true,
       "A == expanded"},
      {"expression grammar, taken as it is", "A == ${XRV_GROUP_FILTER_TEST}", "expression", true,
       "A == ${XRV_GROUP_FILTER_TEST}"},
      {"unknown grammar", "A == 1", "sql", false, nullptr},
      {"does not parse", "broken", "expression", false, "broken"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AttributeGroupMeta meta("XR", "TG");
    if (c.grammar != nullptr) {
      meta.setFilterGrammar(c.grammar);
    }
    if (c.expression != nullptr) {
      meta.setFilterExpression(c.expression);
    }
    GroupFilter filter;
    AttributeGroupMeta passAll("XR", "TP");
    passAll.setFilterGrammar("expression");
    passAll.setFilterExpression("everything");
    filter.load(&passAll, "G");
    ASSERT_NE(filter.current(), nullptr);
    parsedText = "(not called)";

    filter.load(&meta, "G");  // drops the filter loaded before, whatever comes
    EXPECT_EQ(filter.current() != nullptr, c.loaded);
    EXPECT_EQ(parsedText, c.parsed == nullptr ? "(not called)" : c.parsed);
    if (c.loaded) {
      ResultInstance row("row", 0);
      EXPECT_TRUE(GroupFilter::passes(*filter.current(), &row, "G"));
    }
  }
}

TEST_F(GroupFilterLoadTest, WithoutAParserForTheGrammarNothingIsFiltered) {
  registerRowFilterParser("expression", nullptr);
  AttributeGroupMeta meta("XR", "TG");
  meta.setFilterGrammar("expression");
  meta.setFilterExpression("A == 1");
  GroupFilter filter;
  filter.load(&meta, "G");
  EXPECT_EQ(filter.current(), nullptr);

  filter.load(nullptr, "G");
  EXPECT_EQ(filter.current(), nullptr);
}

}  // namespace
