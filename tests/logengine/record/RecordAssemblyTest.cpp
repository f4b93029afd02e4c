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
      {"END: the record ends with the line the match ends",
       "//RECORDSET END(0,regex,(?m)^()[ \\t]*Start (\\S+)\\r?\\n)",
       lines({"a", "Start 1", "b", "  Start 2", "Start"}),
       {"a\nStart 1", "b\n  Start 2"},
       {"Start"}},
      {"END: a match at a line's end takes the line end along",
       "//RECORDSET END(0,regex,(?m)^END$)",
       lines({"x", "END", "ENDING", "END"}),
       {"x\nEND", "ENDING\nEND"},
       {}},
      {"END: a match inside a line ends the record there",
       "//RECORDSET END(0,regex,;)",
       lines({"a;b;c", "d", "e;"}),
       {"a;", "b;", "c\nd\ne;"},
       {}},
      {"END: paragraphs between empty lines",
       "//RECORDSET END(0,regex,(?m)^$)",
       lines({"a", "b", "", "c", "", ""}),
       {"a\nb\n", "c\n", ""},
       {}},
      {"END: an empty match at the start ends nothing",
       "//RECORDSET END(0,regex,^)",
       lines({"a", "b"}),
       {},
       {"a\nb"}},
      {"END: several lines in one pattern",
       "//RECORDSET END(0,regex,begin\\n[^\\n]*\\n)",
       lines({"x", "begin", "y", "z"}),
       {"x\nbegin\ny"},
       {"z"}},
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
      {"//RECORDSET END(0,regex,;)", {{"a\nbcd\ne;", 1}, {"f\ng;", 3}}},
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
      {"END: the end is still found",
       "//RECORDSET END(0,regex,(?m)^E$)",
       lines({"aaaa", "bbbb", "cccc", "E", "c", "E"}),
       {"aaaa\nbbb", "c\nE"},
       1},
      {"END: the rest of the ending line starts the next record",
       "//RECORDSET END(0,regex,;)",
       lines({"aaaaaaa", "bb;cc", "d;"}),
       {"aaaaaaa", "cc\nd;"},
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
