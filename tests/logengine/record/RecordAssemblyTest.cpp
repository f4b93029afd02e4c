// Lines into records: //RECORDSET START and END, cut lines, the record bound.

#include <gtest/gtest.h>

#include "RecordTestSupport.h"

namespace xrvlog {
namespace {

using test::feed;
using test::Handed;
using test::Piece;
using test::rulesFor;
using Records = std::vector<std::string>;

Records texts(const std::vector<Handed>& handed) {
  Records records;
  for (const Handed& one : handed) {
    records.push_back(one.record);
  }
  return records;
}

std::vector<Piece> lines(std::initializer_list<const char*> texts) {
  std::vector<Piece> pieces;
  for (const char* text : texts) {
    pieces.push_back({text});
  }
  return pieces;
}

struct AssemblyCase {
  const char* what;
  const char* recordSet;  // the //RECORDSET line, or "" for none
  std::vector<Piece> pieces;
  Records beforeFlush;
  Records fromFlush;
};

TEST(RecordAssembly, JoinsLinesByTheRecordSet) {
  const AssemblyCase cases[] = {
      {"every line a record", "", lines({"a", "", "b c"}), {"a", "", "b c"}, {}},
      {"START: lines up to the next start line",
       "//RECORDSET START(0,regex,^\\d{4}-)",
       lines({"before", "2024-01 first", "  at a", "", "2024-02 second", "  tail"}),
       {"before", "2024-01 first\n  at a\n"},
       {"2024-02 second\n  tail"}},
      {"START: a start line on its own",
       "//RECORDSET START(0,regex,^S)",
       lines({"S1", "S2"}),
       {"S1"},
       {"S2"}},
  };
  for (const AssemblyCase& c : cases) {
    SCOPED_TRACE(c.what);
    RecordBuilder builder(rulesFor(c.recordSet + std::string("\n//ATTRIBUTES NEWLINE\nv Z 9\n")));
    EXPECT_EQ(texts(feed(builder, c.pieces, false)), c.beforeFlush);
    EXPECT_EQ(builder.hasPending(), !c.fromFlush.empty());
    EXPECT_EQ(texts(feed(builder, {}, true)), c.fromFlush);
    EXPECT_FALSE(builder.hasPending());
    EXPECT_EQ(builder.oversizedRecords(), 0u);
  }
}

// END as the format language writes it: the pattern names the first lines of the
// formats that span lines, and the filters decide where such a record ends.
TEST(RecordAssembly, EndJoinsTheLinesAFilterCanStillMatch) {
  const std::string mdl =
      "//RECORDSET  END(0,regex,(?m)^()[ \\t]*Start (\\S+)\\r?\\n|^()[ \\t]*Begin\\r?\\n|^Oops)\n"
      "//ATTRIBUTES NEWLINE\n"
      "v Z 99 +FILTER={ScanRegEx(0,^()[ \\t]*Start (\\S+)\\r?\\nline two (\\S+)[ \\t]*()$) OR "
      "ScanRegEx(0,^()[ \\t]*Begin\\r?\\nmid (\\S+)\\r?\\nend[ \\t]*()$) OR "
      "ScanRegEx(0,^Oops (\\S+)\\r?\\n([\\s\\S]*)$) OR "
      "ScanRegEx(0,^()[ \\t]*Disk (\\S+) is full[ \\t]*()$)}\n";
  const AssemblyCase cases[] = {
      {"the lines of a format that spans lines become one record", "",
       lines({"Disk sda is full", "Start 1", "line two x", "after"}),
       {"Disk sda is full", "Start 1\nline two x", "after"},
       {}},
      {"three lines", "", lines({"Begin", "mid 7", "end", "x"}), {"Begin\nmid 7\nend", "x"}, {}},
      {"a first line that is not continued goes out alone, and the next line starts anew", "",
       lines({"Start 1", "Start 2", "line two y"}),
       {"Start 1"},
       {"Start 2\nline two y"}},  // a matched record may grow until the next line or quiet
      {"a record takes lines while it matches, up to a line that stands on its own", "",
       lines({"Oops x", "  at a", "  at b", "Disk sdb is full", "Oops y", "Start 5"}),
       {"Oops x\n  at a\n  at b", "Disk sdb is full", "Oops y"},
       {"Start 5"}},
      {"the lines of a record that falls apart are looked at again", "",
       lines({"Begin", "Start 4", "line two z", "y"}),
       {"Begin", "Start 4\nline two z", "y"},
       {}},
      {"a record still open when the file goes quiet goes out line by line", "",
       lines({"x", "Begin", "mid 1"}),
       {"x"},
       {"Begin", "mid 1"}},
  };
  for (const AssemblyCase& c : cases) {
    SCOPED_TRACE(c.what);
    RecordBuilder builder(rulesFor(mdl));
    EXPECT_EQ(texts(feed(builder, c.pieces, false)), c.beforeFlush);
    EXPECT_EQ(builder.hasPending(), !c.fromFlush.empty());
    EXPECT_EQ(texts(feed(builder, {}, true)), c.fromFlush);
    EXPECT_FALSE(builder.hasPending());
  }
  // The line numbers of records, joined or broken up.
  RecordBuilder numbered(rulesFor(mdl));
  EXPECT_EQ(feed(numbered, lines({"a", "Begin", "Start 4", "line two z", "b"})),
            (std::vector<Handed>{{"a", 1}, {"Begin", 2}, {"Start 4\nline two z", 3}, {"b", 5}}));
  // Without a keep filter on the record nothing can join lines: each is a record.
  RecordBuilder unfiltered(rulesFor("//RECORDSET END(0,regex,Start)\n//ATTRIBUTES NEWLINE\nv Z 9\n"));
  EXPECT_EQ(texts(feed(unfiltered, lines({"Start 1", "line two x"}))),
            (Records{"Start 1", "line two x"}));
  // A line that would take the record beyond the bound breaks it up.
  RecordBuilder bounded(rulesFor(mdl, 16));
  EXPECT_EQ(texts(feed(bounded, lines({"Start 1", "line two toolongvalue"}))),
            (Records{"Start 1", "line two toolong"}));
  EXPECT_EQ(bounded.oversizedRecords(), 1u);
}

TEST(RecordAssembly, AfterAFlushLinesBeforeTheNextStartLineAreRecordsOfTheirOwn) {
  RecordBuilder builder(rulesFor("//RECORDSET START(0,regex,^\\[)\n//ATTRIBUTES NEWLINE\nv Z 9\n"));
  EXPECT_EQ(texts(feed(builder, lines({"[1] a", " more"}))), (Records{"[1] a\n more"}));
  EXPECT_EQ(texts(feed(builder, lines({" late", "[2] b", " more"}), false)), (Records{" late"}));
  EXPECT_TRUE(builder.hasPending());
}

TEST(RecordAssembly, TellsTheLineEachRecordStartsOn) {
  const std::pair<const char*, std::vector<Handed>> cases[] = {
      {"", {{"a", 1}, {"bcd", 2}, {"e;f", 3}, {"g;", 4}}},
      {"//RECORDSET START(0,regex,;)", {{"a", 1}, {"bcd", 2}, {"e;f", 3}, {"g;", 4}}},
      {"//RECORDSET START(0,regex,^[ae])", {{"a\nbcd", 1}, {"e;f\ng;", 3}}},
  };
  for (const auto& [recordSet, expected] : cases) {
    SCOPED_TRACE(recordSet);
    RecordBuilder builder(rulesFor(recordSet + std::string("\n//ATTRIBUTES NEWLINE\nv Z 9\n")));
    // Line 2 comes in three pieces.
    EXPECT_EQ(feed(builder, {{"a"},
                             {"b", kLineCut},
                             {"c", kLineCut | kLineContinued},
                             {"d", kLineContinued},
                             {"e;f"},
                             {"g;", kLineUnterminated}}),
              expected);
  }
}

TEST(RecordAssembly, JoinsTheCutPiecesOfALine) {
  const std::pair<std::vector<Piece>, Records> cases[] = {
      {{{"ab", kLineCut}, {"cd", kLineCut | kLineContinued}, {"ef", kLineContinued}}, {"abcdef"}},
      // The rest of a cut line never came: what came is a line of its own.
      {{{"ab", kLineCut}, {"xy"}}, {"ab", "xy"}},
      {{{"ab", kLineCut}, {"cd", kLineContinued | kLineUnterminated}}, {"abcd"}},
      // Flushed while the rest is still awaited.
      {{{"ab", kLineCut}, {"cd", kLineCut | kLineContinued}}, {"abcd"}},
  };
  for (const auto& [pieces, expected] : cases) {
    RecordBuilder builder(rulesFor("//ATTRIBUTES NEWLINE\nv Z 9\n"));
    EXPECT_EQ(texts(feed(builder, pieces)), expected);
  }
}

struct OversizeCase {
  const char* what;
  const char* recordSet;
  std::vector<Piece> pieces;
  Records records;
  std::uint64_t oversized;
};

TEST(RecordAssembly, DropsWhatGoesBeyondTheBoundAndCountsTheRecord) {
  const OversizeCase cases[] = {
      {"a long line", "", lines({"0123456789", "ok"}), {"01234567", "ok"}, 1},
      {"not inside a character",
       "",
       lines({"aaaaaaa\xc3\xa9", "aaaaaa\xe2\x82\xac"}),
       {"aaaaaaa", "aaaaaa"},
       2},
      {"a line exactly at the bound", "", lines({"01234567"}), {"01234567"}, 0},
      {"cut pieces",
       "",
       {{"0123", kLineCut}, {"4567", kLineCut | kLineContinued}, {"89", kLineContinued}, {"ok"}},
       {"01234567", "ok"},
       1},
      {"START: lines beyond the bound",
       "//RECORDSET START(0,regex,^S)",
       lines({"S1", "abcdef", "gh", "S2", "x"}),
       {"S1\nabcde", "S2\nx"},
       1},
  };
  for (const OversizeCase& c : cases) {
    SCOPED_TRACE(c.what);
    RecordBuilder builder(
        rulesFor(c.recordSet + std::string("\n//ATTRIBUTES NEWLINE\nv Z 9\n"), 8));
    EXPECT_EQ(texts(feed(builder, c.pieces)), c.records);
    EXPECT_EQ(builder.oversizedRecords(), c.oversized);
  }
}

}  // namespace
}  // namespace xrvlog
