// Malformed MDL: each error names the line and column where reading stopped and
// what was expected there.

#include <gtest/gtest.h>

#include <string>

#include "mdl/MdlReader.h"

namespace xrvlog {
namespace {

const std::string kHead = "//APPL a\n//NAME t E\n";
const std::string kSource = "//SOURCE FILE '/l'\n";
const std::string kTop = kHead + kSource + "//ATTRIBUTES NEWLINE\n";

struct Malformed {
  std::string text;
  int line;
  int column;
  std::string message;
};

class MalformedMdl : public testing::TestWithParam<Malformed> {};

TEST_P(MalformedMdl, NamesLineColumnAndWhatWasExpected) {
  MdlReadResult result = MdlReader::read(GetParam().text);
  ASSERT_FALSE(result.ok());
  EXPECT_EQ(result.error().line, GetParam().line) << result.error().toString();
  EXPECT_EQ(result.error().column, GetParam().column) << result.error().toString();
  EXPECT_NE(result.error().message.find(GetParam().message), std::string::npos)
      << result.error().toString();
}

INSTANTIATE_TEST_SUITE_P(
    Structure, MalformedMdl,
    testing::Values(
        Malformed{"", 1, 1, "expected //APPL, found the end of the text"},
        Malformed{"//NAME t E\n", 1, 1, "expected //APPL, found '//NAME'"},
        Malformed{"//APPL a\n//SOURCE FILE '/l'\n", 2, 1, "expected //NAME"},
        Malformed{kHead + "//ATTRIBUTES NEWLINE\n", 3, 1, "expected //SOURCE FILE"},
        Malformed{kHead + kSource + "line Z 1\n", 4, 1,
                  "expected //SOURCE FILE, //RECORDSET or //ATTRIBUTES, found 'line'"},
        Malformed{kHead + kSource + "//RECORDSET START(0,regex,a)\n//RECORDSET END(0,regex,b)\n", 5,
                  1, "expected //SOURCE FILE or //ATTRIBUTES"},
        Malformed{kTop, 5, 1, "expected an attribute line, found the end of the text"},
        Malformed{kTop + "//SOURCE FILE '/m'\n", 5, 1, "expected an attribute line"},
        Malformed{kTop + std::string("x Z 1\0y Z 1\n", 12), 5, 6, "NUL byte"},
        Malformed{kTop + "line Z 10\nline Z 20\n", 6, 1, "already defined on line 5"},
        Malformed{kTop + std::string(1024 * 1024 + 5, 'x'), 5, 1048577, "longer than"}));

INSTANTIATE_TEST_SUITE_P(
    Header, MalformedMdl,
    testing::Values(
        Malformed{"//APPL\n", 1, 7, "expected an application name, found the end of the line"},
        Malformed{"//APPL a ProcessMax=0\n", 1, 21, "expected a CPU percentage from 1 to 100"},
        Malformed{"//APPL a ProcessMax=5 ProcessMax=6\n", 1, 23, "expected ProcessMax="},
        Malformed{"//APPL a\n//NAME t X\n", 2, 10, "expected the table kind E or S, found 'X'"},
        Malformed{"//APPL a\n//NAME t E MaximumAttributeSize=100001\n", 2, 33,
                  "from 1 to 100000, found 100001"},
        Malformed{"//APPL a\n//NAME t EventSize=5\n", 2, 10, "expected the table kind"}));

INSTANTIATE_TEST_SUITE_P(
    Source, MalformedMdl,
    testing::Values(
        Malformed{kHead + "//SOURCE PIPE '/p'\n", 3, 10, "expected FILE, found 'PIPE'"},
        Malformed{kHead + "//SOURCE FILE TAIL\n", 3, 19, "expected the file name"},
        Malformed{kHead + "//SOURCE FILE '' TAIL\n", 3, 15, "the file name is empty"},
        Malformed{kHead + "//SOURCE FILE REGEX='' TAIL\n", 3, 21, "the file name is empty"},
        Malformed{kHead + "//SOURCE FILE '/l TAIL\n", 3, 15, "never closed"},
        Malformed{kHead + "//SOURCE FILE '/l' REGEX='/m'\n", 3, 20, "a second file name"},
        Malformed{kHead + "//SOURCE FILE '/l' TAIL tail\n", 3, 25, "option tail is given twice"},
        Malformed{kHead + "//SOURCE FILE '/l' RESTARTFROMTOP RESTARTFROMEND\n", 3, 35,
                  "option restartfrom is given twice"},
        Malformed{kHead + "//SOURCE FILE '/l' CompareByName\n", 3, 20,
                  "expected a SOURCE FILE option, found 'CompareByName'"},
        Malformed{kHead + "//SOURCE FILE '/l'TAIL\n", 3, 19, "expected a blank"},
        Malformed{kHead + "//SOURCE FILE '/l' EraseRestart=maybe\n", 3, 33, "expected Y or N"},
        Malformed{kHead + "//SOURCE FILE '/l' FileMonitorFrequency=-1\n", 3, 41,
                  "seconds from 0 to 86400"},
        Malformed{kHead + "//SOURCE FILE '/l' SSH_PORT='22x'\n", 3, 32, "from 1 to 65535"},
        Malformed{kHead + "//SOURCE FILE '/l' RemoteLog=Y\n", 3, 3, "needs SSH_HOSTNAME"},
        Malformed{kHead + "//SOURCE FILE REGEX='/var/(a|b/x.log'\n", 3, 27, "group opened here"},
        Malformed{kHead + "//SOURCE FILE REGEX='/var/[ab/x.log'\n", 3, 27, "class opened here"}));

INSTANTIATE_TEST_SUITE_P(
    RecordSetAndFields, MalformedMdl,
    testing::Values(
        Malformed{kHead + kSource + "//RECORDSET MIDDLE(0,regex,x)\n", 4, 13,
                  "expected START or END"},
        Malformed{kHead + kSource + "//RECORDSET END(1,regex,x)\n", 4, 17,
                  "the input number from 0 to 0"},
        Malformed{kHead + kSource + "//RECORDSET END(0,regex,)\n", 4, 25,
                  "expected a regular expression"},
        Malformed{kHead + kSource + "//RECORDSET END(0,regex,((a)\n", 4, 25, "group opened here"},
        Malformed{kHead + kSource + "//RECORDSET END(0,regex,(a)\n", 4, 28,
                  "expected ')' closing the pattern"},
        Malformed{kHead + kSource + "//RECORDSET END(0,regex,a) b\n", 4, 28,
                  "the end of the line after the RECORDSET pattern"},
        Malformed{kHead + kSource + "//ATTRIBUTES COMMA\n", 4, 14, "expected NEWLINE, TAB"},
        Malformed{kHead + kSource + "//ATTRIBUTES ''\n", 4, 14, "the delimiter is empty"},
        Malformed{kHead + kSource + "//ATTRIBUTES REGEX='a)'\n", 4, 22, "closes no group"},
        Malformed{kHead + kSource + "//ATTRIBUTES REGEX='(?<a>x)'\nb Z 1\n", 5, 1,
                  "no group named b"},
        Malformed{kHead + kSource + "//ATTRIBUTES REGEX='(?<a>x)'\nb Z 1 GROUP=c\n", 5, 1,
                  "no group named c"},
        Malformed{kTop + "v Z 1 GROUP=1\n", 5, 7, "GROUP= needs fields from"},
        Malformed{
            kHead + kSource + "//ATTRIBUTES REGEX='(a)(?:b)(?<c>d)(?=e)(?#(x)'\nb Z 1 GROUP=3\n", 5,
            1, "no group 3: the //ATTRIBUTES expression has 2 capturing groups"},
        Malformed{
            kHead + kSource + "//ATTRIBUTES REGEX='(?<c>d)'\nc Z 1 -FILTER={ScanRegEx(2,x)}\n", 5,
            16, "no group 2"},
        Malformed{kHead + kSource + "//ATTRIBUTES REGEX='(?<c>d)'\nc Z 1 GROUP=1c\n", 5, 13,
                  "a group number or name"}));

INSTANTIATE_TEST_SUITE_P(
    Attributes, MalformedMdl,
    testing::Values(
        Malformed{kTop + "1st Z 10\n", 5, 1, "expected an attribute name, found '1st'"},
        Malformed{kTop + "v Q 10\n", 5, 3, "expected a type letter Z, I, D or H, found 'Q'"},
        Malformed{kTop + "v ZZ 10\n", 5, 3, "expected a type letter"},
        Malformed{kTop + "v Z 16385\n", 5, 5, "a size from 1 to 16384"},
        Malformed{kTop + "v I 21\n", 5, 5, "a size from 1 to 20"},
        Malformed{kTop + "v H 0\n", 5, 5, "a size from 1 to 255"},
        Malformed{kTop + "v Z 10 FILTER={ScanRegEx(0,a)}\n", 5, 8, "expected +FILTER="},
        Malformed{kTop + "v Z 10@x\n", 5, 7, "expected a blank"},
        Malformed{kTop + "v Z 10 +FILTER=ScanRegEx(0,a)\n", 5, 16, "expected '{'"},
        Malformed{kTop + "v Z 10 +FILTER={FindRegEx(0,a)}\n", 5, 17,
                  "expected ScanRegEx or MatchRegEx, found 'FindRegEx(0,a)}'"},
        Malformed{kTop + "v Z 10 +FILTER={ScanRegEx(x,a)}\n", 5, 27, "an input number"},
        Malformed{kTop + "v Z 10 +FILTER={ScanRegEx(0,a)\n", 5, 31, "OR or '}'"},
        Malformed{kTop + "v Z 10 +FILTER={ScanRegEx(0,a) AND ScanRegEx(0,b)}\n", 5, 32,
                  "expected OR or '}' after the term, found 'AND'"},
        Malformed{kTop + "v Z 10 +FILTER={ScanRegEx(0,a)ORScanRegEx(0,b)}\n", 5, 31, "OR or '}'"},
        Malformed{kTop + "v Z 10 +FILTER={ScanRegEx(0,(a}\n", 5, 29, "group opened here"},
        Malformed{kTop + "v Z 10 +FILTER={ScanRegEx(0,(a)}\n", 5, 33,
                  "expected ')' closing the term"},
        Malformed{kTop + "v Z 10 +FILTER={ScanRegEx(0,)}\n", 5, 29, "a regular expression"},
        Malformed{kTop + "v Z 10 +FILTER={ScanRegEx(0,a,REPLACEFIRST(x)}\n", 5, 31,
                  "REPLACEFIRST is not closed"},
        Malformed{kTop + "v Z 10 +FILTER={ScanRegEx(0," + std::string(251, '(') +
                      std::string(251, ')') + ")}\n",
                  5, 279, "nested deeper than 250"}));

TEST(MdlReaderLimits, RefusesATextLargerThanTheLimit) {
  std::string text = "//APPL a\n";
  text.resize(MdlLimits::kTextBytes + 1, '#');
  MdlReadResult result = MdlReader::read(text);
  ASSERT_FALSE(result.ok());
  EXPECT_EQ(result.error().toString(),
            "line 1, column 1: the MDL text is 16777217 bytes, more than the limit of 16777216");
}

TEST(MdlReaderLimits, RefusesMoreAttributesThanTheLimit) {
  std::string text = "//APPL a\n//NAME t E\n//SOURCE FILE '/l'\n//ATTRIBUTES ';'\n";
  for (size_t i = 0; i <= MdlLimits::kAttributes; ++i) {
    text += "a" + std::to_string(i) + " Z 1\n";
  }
  MdlReadResult result = MdlReader::read(text);
  ASSERT_FALSE(result.ok());
  EXPECT_EQ(result.error().line, 5 + static_cast<int>(MdlLimits::kAttributes));
  EXPECT_EQ(result.error().toString(),
            "line 1029, column 1: a table may have at most 1024 attributes");
}

}  // namespace
}  // namespace xrvlog
