// Records into attribute values: fields, filters, types, statistics, bad patterns.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <optional>

#include "../CountingNew.h"
#include "RecordTestSupport.h"

namespace xrvlog {
namespace {

using test::rulesFor;
using ::testing::HasSubstr;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using Values = std::vector<std::string>;

Pairs pairsOf(const RecordBuilder& builder) {
  Pairs pairs;
  for (const NameValue& pair : builder.pairs()) {
    pairs.emplace_back(pair.name, pair.value);
  }
  return pairs;
}

// The values of a kept record, or nothing when it is not kept.
std::optional<Values> valuesOf(RecordBuilder& builder, std::string_view record,
                               std::string_view host = "") {
  if (!builder.build(record, host)) {
    return std::nullopt;
  }
  Values values;
  for (const NameValue& pair : builder.pairs()) {
    values.emplace_back(pair.value);
  }
  return values;
}

struct RecordCase {
  std::string record;
  std::optional<Values> values;  // nothing: the record is not kept
};

void expectValues(const std::string& mdl, const std::vector<RecordCase>& cases,
                  std::string_view host = "") {
  RecordBuilder builder(rulesFor(mdl));
  for (const RecordCase& c : cases) {
    SCOPED_TRACE(c.record);
    EXPECT_EQ(valuesOf(builder, c.record, host), c.values);
  }
}

// The generated example of the operator's reference, as it stands there.
std::string generatedExample() {
  std::ifstream doc(MDL_DOC);
  std::string line;
  std::string block;
  bool inBlock = false;
  while (std::getline(doc, line)) {
    if (line.starts_with("```")) {
      if (inBlock && block.starts_with("//APPL") && block.find("//RECORDSET") != block.npos) {
        return block;
      }
      inBlock = !inBlock;
      block.clear();
    } else if (inBlock) {
      block += line + "\n";
    }
  }
  return "";
}

TEST(RecordBuild, TheGeneratedExampleBuildsItsEventTextWithReplaceFirst) {
  const std::string text = generatedExample();
  ASSERT_THAT(text, HasSubstr("REPLACEFIRST(disk=$2;)"));
  MdlReadResult read = MdlReader::read(text);
  ASSERT_TRUE(read.ok()) << read.error().toString();

  // Every line a record: each format's filter on its own.
  MdlDocument lineByLine = read.document();
  lineByLine.recordSet.reset();
  RecordBuilder single(RecordRules::compile(lineByLine));
  const std::pair<const char*, const char*> lines[] = {
      {"Disk sda is full", "disk=sda;"},
      {"  Disk sdb is full \t", "disk=sdb;"},
      {"Disk sdc is back", "disk=sdc;"},
      {"Disk sdc is back later", nullptr},  // MatchRegEx: the whole record
      {"old: Disk sdd is full", nullptr},
      {"Start job1", nullptr},
  };
  for (auto [record, event] : lines) {
    SCOPED_TRACE(record);
    ASSERT_EQ(single.build(record, "web01"), event != nullptr);
    if (event != nullptr) {
      EXPECT_EQ(pairsOf(single), (Pairs{{"OBVEvent", event}, {"RemoteHost", "web01"}}));
    }
  }

  // With its //RECORDSET: "Start" lines could begin a record of several lines, but
  // no filter spans lines, so each line is a record and both disk lines are kept.
  RecordBuilder builder(RecordRules::compile(read.document()));
  std::vector<Pairs> kept;
  std::vector<std::string> records;
  const RecordHandler onRecord = [&](std::string_view record) {
    records.emplace_back(record);
    if (builder.build(record, "")) {
      kept.push_back(pairsOf(builder));
    }
  };
  for (const char* line : {"Start job1", "Disk sda is full", "Start job2", "Disk sdb is back"}) {
    builder.addLine(line, kLineComplete, onRecord);
  }
  builder.flushPending(onRecord);
  EXPECT_EQ(records, (Values{"Start job1", "Disk sda is full", "Start job2", "Disk sdb is back"}));
  EXPECT_EQ(kept, (std::vector<Pairs>{{{"OBVEvent", "disk=sda;"}, {"RemoteHost", ""}},
                                      {{"OBVEvent", "disk=sdb;"}, {"RemoteHost", ""}}}));
}

TEST(RecordBuild, SplitsTheRecordIntoFields) {
  const char* byField = "order Z 32\nhost H 8\namount I 12\nstate Z 16\n";
  expectValues(std::string("//ATTRIBUTES ';'\n") + byField,
               {{"1;2;open", Values{"1", "db1", "2", "open"}},
                {"1;2", Values{"1", "db1", "2", ""}},
                {"1;2;open;extra;more", Values{"1", "db1", "2", "open"}},
                {";;", Values{"", "db1", "", ""}},
                {"", Values{"", "db1", "", ""}}},
               "db1");
  expectValues(std::string("//ATTRIBUTES '::'\n") + byField,
               {{"a::7::b:c", Values{"a", "", "7", "b:c"}}, {"a:7", Values{"a:7", "", "", ""}}});
  expectValues(std::string("//ATTRIBUTES TAB\n") + byField,
               {{"a\t7\tx y", Values{"a", "", "7", "x y"}}});
  expectValues("//ATTRIBUTES NEWLINE\nall Z 64\nshort Z 3\nhost H 64\n",
               {{"a;b\tc", Values{"a;b\tc", "a;b", "h"}}}, "h");
}

TEST(RecordBuild, TakesFieldsFromCaptureGroups) {
  // The reference's example.
  const std::string mdl =
      "//ATTRIBUTES REGEX='^(\\S+) \\S+ (?<user>\\S+) \\[([^]]+)\\] \"(?<request>[^\"]*)\" "
      "(\\d{3})'\n"
      "client Z 64 GROUP=1\nuser Z 32\ntime Z 32 GROUP=3\nrequest Z 1024\nstatus I 3 GROUP=5\n"
      "whole Z 20 GROUP=0\n";
  expectValues(mdl, {{"10.0.0.1 - bob [10/Oct/2000:13:55:36 -0700] \"GET / HTTP/1.0\" 200 2326",
                      Values{"10.0.0.1", "bob", "10/Oct/2000:13:55:36 -0700", "GET / HTTP/1.0",
                             "200", "10.0.0.1 - bob [10/O"}},
                     {"10.0.0.1 - bob [x] \"\" 404",
                      Values{"10.0.0.1", "bob", "x", "", "404", "10.0.0.1 - bob [x] \""}},
                     // The expression does not match: the record is not kept.
                     {"10.0.0.1 - bob [x] \"GET\"", std::nullopt},
                     {"", std::nullopt}});
  // A group that did not take part is empty.
  expectValues("//ATTRIBUTES REGEX='^(a)?(b)'\nfirst Z 4 GROUP=1\nsecond Z 4 GROUP=2\n",
               {{"b", Values{"", "b"}}, {"ab", Values{"a", "b"}}});
}

TEST(RecordBuild, KeepsAndDropsByFilters) {
  expectValues(
      "//ATTRIBUTES ';'\n"
      "user Z 16 +FILTER={MatchRegEx(2,GET|PUT) OR ScanRegEx(0,admin)}\n"
      "verb Z 8 -FILTER={ScanRegEx(1,^bot) OR MatchRegEx(0,.*;HEAD;.*)}\n"
      "path Z 64 +FILTER={ScanRegEx(3,^/api/(\\w+),REPLACEFIRST(api:$1)) OR ScanRegEx(3,.)}\n",
      {{"alice;GET;/api/users/7", Values{"alice", "GET", "api:users/7"}},
       {"alice;PUT;/index", Values{"alice", "PUT", "/index"}},
       // MatchRegEx takes the whole field, not a start of it.
       {"alice;GETX;/x", std::nullopt},
       {"alice;get;/x", std::nullopt},
       {"admin;POST;/x", Values{"admin", "POST", "/x"}},
       {"bot7;GET;/x", std::nullopt},
       {"robot;GET;/x", Values{"robot", "GET", "/x"}},
       {"admin;HEAD;/x", std::nullopt},
       {"alice;GET;", std::nullopt},
       {"alice;GET", std::nullopt}});
  // The reference's example: ERROR or FATAL, but no health checks.
  expectValues(
      "//ATTRIBUTES NEWLINE\n"
      "message Z 2048 +FILTER={ScanRegEx(0,ERROR|FATAL)} -FILTER={ScanRegEx(0,healthcheck) OR "
      "MatchRegEx(0,\\s*)}\n",
      {{"ERROR disk", Values{"ERROR disk"}},
       {"FATAL: healthcheck failed", std::nullopt},
       {"INFO ok", std::nullopt}});
  // With capture-group fields, input N is group N; with NEWLINE, input 1 is the record.
  expectValues("//ATTRIBUTES REGEX='^(\\w+) (\\d+)'\nname Z 8 GROUP=1 -FILTER={MatchRegEx(2,0+)}\n",
               {{"x 00", std::nullopt}, {"x 10", Values{"x"}}, {"x y", std::nullopt}});
  expectValues(
      "//ATTRIBUTES NEWLINE\nline Z 9 +FILTER={MatchRegEx(1,ab.)} -FILTER={ScanRegEx(2,.)}\n",
      {{"abc", Values{"abc"}}, {"abcd", std::nullopt}});
}

TEST(RecordBuild, TheFirstReplaceFirstOfAnAttributeGivesItsValue) {
  expectValues(
      "//ATTRIBUTES ';'\n"
      "a Z 64 +FILTER={ScanRegEx(1,x) OR ScanRegEx(1,(\\d+)-(\\d+),REPLACEFIRST($2\\)$1 $ ${1}))} "
      "+FILTER={ScanRegEx(0,.,REPLACEFIRST(second))}\n"
      "b Z 64 +FILTER={ScanRegEx(0,;(.*),REPLACEFIRST(=$1))}\n",
      {// The first matching term has no REPLACEFIRST; the later filter's gives the value.
       {"x 1-2;z", Values{"second 1-2;z", "x 1-2=z"}},
       {"a 12-34 b;z", Values{"a 34)12 $ 12 b", "a 12-34 b=z"}}});
}

TEST(RecordBuild, ConvertsValuesByType) {
  const std::string mdl = "//ATTRIBUTES ';'\nz Z 4\ni I 3\nd D 5\nbig I 20\nh H 4\n";
  expectValues(
      mdl,
      {{"abcdef;42;1.5;-9223372036854775808",
        Values{"abcd", "42", "1.5", "-9223372036854775808", "host"}},
       // Z is cut at a character boundary: "ä" and "ö" are two bytes each.
       {"\xc3\xa4\xc3\xb6\xc3\xbc;+7;-0.25;0",
        Values{"\xc3\xa4\xc3\xb6", "7", "-0.25", "0", "host"}},
       {"a\xc3\xa4\xc3\xb6; -12 \t;  3. ;+0042\r", Values{"a\xc3\xa4", "-12", "3.", "42", "host"}},
       {"x;0042;.5;9223372036854775807", Values{"x", "42", ".5", "9223372036854775807", "host"}},
       // Not a number, or longer than the size: empty.
       {"x;1234;123456;9223372036854775808", Values{"x", "", "", "", "host"}},
       {"x;12a;1.2.3;1 2", Values{"x", "", "", "", "host"}},
       {"x;;;", Values{"x", "", "", "", "host"}},
       {"x;-;.;+", Values{"x", "", "", "", "host"}},
       {"x;0x1;1,5;1e3", Values{"x", "", "", "", "host"}}},
      "hostname");
}

TEST(RecordBuild, NamesTheLineAndColumnOfABadPattern) {
  const std::tuple<const char*, int, int, const char*> cases[] = {
      {"//RECORDSET START(0,regex,a{2,1})\n//ATTRIBUTES NEWLINE\nv Z 4\n", 4, 27,
       "numbers out of order"},
      {"//ATTRIBUTES REGEX='(x)\\'\nv Z 4 GROUP=1\n", 4, 21, "at end of pattern"},
      {"//ATTRIBUTES NEWLINE\nv Z 4 +FILTER={ScanRegEx(0,ok) OR MatchRegEx(0,x**)}\n", 5, 35,
       "quantifier does not follow a repeatable item"},
      {"//ATTRIBUTES ';'\na Z 4\nb I 3 -FILTER={ScanRegEx(1,a) OR ScanRegEx(0,(?<=a+)b)}\n", 6, 34,
       "lookbehind"},
      {"//ATTRIBUTES NEWLINE\nv Z 4 +FILTER={ScanRegEx(0,(a),REPLACEFIRST(<$2>))}\n", 5, 16,
       "names group 2, but the expression has 1 groups"},
  };
  for (const auto& [mdl, line, column, message] : cases) {
    SCOPED_TRACE(mdl);
    try {
      rulesFor(mdl);
      ADD_FAILURE() << "compiled";
    } catch (const RecordRuleError& error) {
      EXPECT_EQ(error.line(), line);
      EXPECT_EQ(error.column(), column);
      EXPECT_THAT(error.what(), HasSubstr(message));
      EXPECT_THAT(error.what(), ::testing::Not(::testing::StartsWith("filter ")));
    }
  }
}

TEST(RecordBuild, CountsEveryPatternUnderItsAttribute) {
  auto rules = rulesFor(
      "//RECORDSET START(0,regex,^\\S)\n"
      "//ATTRIBUTES REGEX='^(\\w+) (\\w+)'\n"
      "a Z 8 GROUP=1 +FILTER={ScanRegEx(0,x) OR ScanRegEx(0,y) OR MatchRegEx(2,z+)}\n"
      "b Z 8 GROUP=2 -FILTER={ScanRegEx(1,drop)}\n");
  using Info = std::pair<std::string, std::string>;
  std::vector<Info> infos;
  for (const RecordRules::PatternInfo& info : rules->patterns()) {
    infos.emplace_back(info.attribute, info.pattern);
  }
  EXPECT_EQ(infos, (std::vector<Info>{{"", "^\\S"},
                                      {"", "^(\\w+) (\\w+)"},
                                      {"a", "x"},
                                      {"a", "y"},
                                      {"a", "z+"},
                                      {"b", "drop"}}));

  RecordBuilder first(rules);
  RecordBuilder second(rules);
  const RecordHandler ignore = [](std::string_view) {};
  for (const char* line : {"x 1", " y", "q zz", "drop z", "-"}) {
    first.addLine(line, kLineComplete, ignore);
  }
  // x: kept. y: kept. zz: kept by its third term. drop: dropped. "-": no fields.
  Values kept;
  for (const char* record : {"x 1", "a y", "q zz", "drop z", "-"}) {
    if (first.build(record, "")) {
      kept.emplace_back(record);
    }
  }
  EXPECT_EQ(kept, (Values{"x 1", "a y", "q zz"}));
  second.build("nothing here", "");

  using Counts = std::vector<std::array<uint64_t, 3>>;
  std::vector<PatternStats> stats(1, PatternStats{100, 0, 0, 0});
  first.addStats(stats);
  second.addStats(stats);
  Counts counts;
  for (const PatternStats& s : stats) {
    counts.push_back({s.matches, s.misses, s.limit_hits});
  }
  EXPECT_EQ(counts, (Counts{{104, 1, 0},  // the lines, on top of what was there
                            {5, 1, 0},
                            {1, 4, 0},
                            {1, 3, 0},
                            {2, 1, 0},
                            {1, 3, 0}}));
}

TEST(RecordBuild, ARecordCostsNoAllocationOnceTheBuffersHaveGrown) {
  const char* mdl =
      "//ATTRIBUTES ';'\n"
      "user Z 8 +FILTER={ScanRegEx(0,GET|PUT) OR ScanRegEx(2,^a)} -FILTER={ScanRegEx(1,^bot)}\n"
      "amount I 6\nrate D 8\n"
      "path Z 64 +FILTER={ScanRegEx(4,^/api/(\\w+),REPLACEFIRST(api:$1)) OR ScanRegEx(4,.)}\n"
      "host H 16\n";
  // Alice, bob and carol are kept either way. END: alice's line and the next are one
  // record (GET matches them joined), bot's line is broken off by bob's, which is
  // beyond the bound and so a record of its own, and carol's line goes out alone at
  // the flush.
  const std::pair<const char*, std::size_t> modes[] = {{"//RECORDSET START(0,regex,^\\w)\n", 300},
                                                       {"//RECORDSET END(0,regex,;$)\n", 300}};
  for (const auto& [recordSet, keptInRounds] : modes) {
    SCOPED_TRACE(recordSet);
    RecordBuilder builder(rulesFor(recordSet + std::string(mdl), 4096));
    const std::string longPath(3000, 'p');
    const std::vector<test::Piece> pieces = {
        {"alice;12;1.5;/api/users/7 GET;"},
        {" continued;"},
        {"bot;1;2;/x GET;"},
        {"bob;abc;-0.5;/" + longPath.substr(0, 1000), kLineCut},
        {longPath, kLineCut | kLineContinued},
        {longPath + " PUT;", kLineContinued},
        {"carol;7;8;/api/a\xc3\xa4 GET;"},
    };
    std::size_t kept = 0;
    const RecordHandler onRecord = [&](std::string_view record) {
      kept += builder.build(record, "remote.example") ? 1 : 0;
    };
    auto round = [&] {
      for (const test::Piece& piece : pieces) {
        builder.addLine(piece.text, piece.flags, onRecord);
      }
      builder.flushPending(onRecord);
    };
    round();
    const std::size_t before = allocations.load();
    kept = 0;
    for (int i = 0; i < 100; ++i) {
      round();
    }
    EXPECT_EQ(allocations.load() - before, 0u);
    EXPECT_EQ(kept, keptInRounds);
    EXPECT_EQ(builder.oversizedRecords(), 101u);
  }
}

}  // namespace
}  // namespace xrvlog
