// What the format-file mode generates and what operators write by hand, read into
// the model.

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <functional>
#include <string>

#include "mdl/MdlReader.h"

namespace xrvlog {
namespace {

MdlDocument readOk(const std::string& text) {
  MdlReadResult result = MdlReader::read(text);
  EXPECT_TRUE(result.ok()) << result.error().toString();
  return result.ok() ? result.document() : MdlDocument{};
}

// Tag bytes the format-file mode puts around slot names and values. Its expressions
// hold real tab characters in "[ \t]".
const std::string kSlot =
    "\x01"
    "msg"
    "\x04"
    "\x02"
    "$2"
    "\x03";

const std::string kGenerated =
    "//APPL XRV_none ProcessMax=50\n"
    "//NAME XRV_LOG E MaximumAttributeSize=2048\n"
    "//SOURCE FILE '/var/log/messages' TAIL EraseRestart=Y UNMATCHLOG='/tmp/unmatch.log' "
    "CompareByLastUpdate codepage=UTF-8 FileMonitorFrequency=5 FileExistTimeToWait=30\n"
    "//SOURCE FILE REGEXSTRICT='/var/log/^app.*\\.log$' RESTARTFROMTOP UNMATCHLOG='' "
    "CompareBySize codepage=IBM-943 FileMonitorFrequency=7 FileExistTimeToWait=32767 "
    "RemoteLog=Y SSH_HOSTNAME='db1' SSH_PORT='2222' SSH_USERID='mon' SSH_PASSWORD='pa''ss' "
    "SSH_AUTH_TYPE='PASSWORD' SSH_PUB_KEYFILE='/k.pub' SSH_PRIV_KEYFILE='/k'\n"
    "//SOURCE FILE '/tmp/.zelto/xrv_1.pipe' UNMATCHLOG='' codepage= CompareByAllMatches "
    "FileMonitorFrequency=5\n"
    "//RECORDSET  END(0,regex,(?m)^()[ \t]*Start (\\S+)|^()[ \t]*Begin\\r?\\n)\n"
    "//ATTRIBUTES NEWLINE\n"
    "OBVEvent Z 2048 +FILTER={ScanRegEx(0,^()[ \t]*Disk (\\S+) is full[ \t]*()$,REPLACEFIRST(" +
    kSlot +
    ")) OR ScanRegEx(0,^()[ \t\\t\\r\\f\\v]*a\\{1,2\\}\\(x\\) \\[\\.\\][ \t]*()$) OR "
    "MatchRegEx(0,()[^)]{1,3}(?:x|y)()" +
    ",REPLACEFIRST(" + kSlot +
    "))} @Generated WSK Event\n"
    "RemoteHost H 64 @Name of host where event originated, if not local\n";

TEST(MdlReader, ReadsTheHeaderAndEverySourceOptionTheFormatFileModeWrites) {
  MdlDocument document = readOk(kGenerated + '\0');
  EXPECT_EQ(document.application, "XRV_none");
  EXPECT_EQ(document.processMax, 50);
  EXPECT_EQ(document.table, "XRV_LOG");
  EXPECT_EQ(document.kind, TableKind::Event);
  EXPECT_EQ(document.maximumAttributeSize, 2048);
  ASSERT_EQ(document.sources.size(), 3u);

  const MdlSource& file = document.sources[0];
  EXPECT_EQ(file.line, 3);
  EXPECT_EQ(file.naming, SourceNaming::Path);
  EXPECT_EQ(file.name, "/var/log/messages");
  EXPECT_TRUE(file.tail);
  EXPECT_EQ(file.restart, RestartPosition::Unset);
  EXPECT_TRUE(file.eraseRestart);
  EXPECT_EQ(file.unmatchLog, "/tmp/unmatch.log");
  EXPECT_EQ(file.compare, CompareMode::LastUpdate);
  EXPECT_EQ(file.codepage, "UTF-8");
  EXPECT_EQ(file.monitorFrequency, 5);
  EXPECT_EQ(file.existTimeToWait, 30);
  EXPECT_FALSE(file.remote);

  const MdlSource& remote = document.sources[1];
  EXPECT_EQ(remote.naming, SourceNaming::RegexStrict);
  EXPECT_EQ(remote.name, "/var/log/^app.*\\.log$");
  EXPECT_FALSE(remote.tail);
  EXPECT_EQ(remote.restart, RestartPosition::FromTop);
  EXPECT_EQ(remote.compare, CompareMode::Size);
  EXPECT_EQ(remote.existTimeToWait, 32767);
  EXPECT_TRUE(remote.remote);
  EXPECT_EQ(remote.sshHost, "db1");
  EXPECT_EQ(remote.sshPort, 2222);
  EXPECT_EQ(remote.sshUser, "mon");
  EXPECT_EQ(remote.sshPassword, "pa'ss");
  EXPECT_EQ(remote.sshAuthType, "PASSWORD");
  EXPECT_EQ(remote.sshPublicKeyFile, "/k.pub");
  EXPECT_EQ(remote.sshPrivateKeyFile, "/k");

  const MdlSource& pipe = document.sources[2];
  EXPECT_EQ(pipe.name, "/tmp/.zelto/xrv_1.pipe");
  EXPECT_EQ(pipe.unmatchLog, "");
  EXPECT_EQ(pipe.codepage, "");
  EXPECT_EQ(pipe.compare, CompareMode::AllMatches);
  EXPECT_FALSE(pipe.existTimeToWait.has_value());
}

TEST(MdlReader, ReadsTheRecordSetAndTheEventFilterTheFormatFileModeWrites) {
  MdlDocument document = readOk(kGenerated);
  ASSERT_TRUE(document.recordSet.has_value());
  EXPECT_EQ(document.recordSet->boundary, MdlRecordSet::Boundary::End);
  EXPECT_EQ(document.recordSet->pattern, "(?m)^()[ \t]*Start (\\S+)|^()[ \t]*Begin\\r?\\n");
  EXPECT_EQ(document.split, FieldSplit::Whole);
  ASSERT_EQ(document.attributes.size(), 2u);

  const MdlAttribute& event = document.attributes[0];
  EXPECT_EQ(event.name, "OBVEvent");
  EXPECT_EQ(event.type, AttributeType::Text);
  EXPECT_EQ(event.size, 2048);
  EXPECT_EQ(event.description, "Generated WSK Event");
  ASSERT_EQ(event.filters.size(), 1u);
  EXPECT_FALSE(event.filters[0].drop);
  const auto& terms = event.filters[0].alternatives;
  ASSERT_EQ(terms.size(), 3u);
  EXPECT_EQ(terms[0].kind, MdlPattern::Kind::Scan);
  EXPECT_EQ(terms[0].regex, "^()[ \t]*Disk (\\S+) is full[ \t]*()$");
  EXPECT_EQ(terms[0].replaceFirst, kSlot);
  EXPECT_EQ(terms[0].column, 26);
  EXPECT_EQ(terms[1].regex, "^()[ \t\\t\\r\\f\\v]*a\\{1,2\\}\\(x\\) \\[\\.\\][ \t]*()$");
  EXPECT_FALSE(terms[1].replaceFirst.has_value());
  EXPECT_EQ(terms[2].kind, MdlPattern::Kind::Match);
  EXPECT_EQ(terms[2].regex, "()[^)]{1,3}(?:x|y)()");
  EXPECT_EQ(terms[2].replaceFirst, kSlot);

  const MdlAttribute& host = document.attributes[1];
  EXPECT_EQ(host.type, AttributeType::RemoteHost);
  EXPECT_EQ(host.size, 64);
  EXPECT_EQ(host.description, "Name of host where event originated, if not local");
}

TEST(MdlReader, ReadsCarriageReturnLineEndsLikeNewlines) {
  std::string text = kGenerated;
  for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2)) {
    text.insert(at, "\r");
  }
  MdlDocument document = readOk(text);
  EXPECT_EQ(document.attributes.at(1).description,
            "Name of host where event originated, if not local");
  EXPECT_EQ(document.sources.at(0).existTimeToWait, 30);
}

const std::string kHeader = "//APPL shop\n//NAME SHOP_LOG S\n//SOURCE FILE '/var/log/shop.log'\n";

struct HandWritten {
  const char* form;
  std::string body;
  std::function<void(const MdlDocument&)> check;
};

class HandWrittenForms : public testing::TestWithParam<HandWritten> {};

TEST_P(HandWrittenForms, ReadIntoTheModel) {
  MdlDocument document = readOk(kHeader + GetParam().body);
  EXPECT_EQ(document.kind, TableKind::Sampled);
  EXPECT_EQ(document.maximumAttributeSize, 16384);
  GetParam().check(document);
}

INSTANTIATE_TEST_SUITE_P(
    MdlReader, HandWrittenForms,
    testing::Values(
        HandWritten{"delimiter",
                    "# order;amount;state\n//ATTRIBUTES ';'\n\norder Z 32\namount I 12\n"
                    "  state Z 16 @order state\n",
                    [](const MdlDocument& d) {
                      EXPECT_EQ(d.split, FieldSplit::Delimiter);
                      EXPECT_EQ(d.delimiter, ";");
                      ASSERT_EQ(d.attributes.size(), 3u);
                      EXPECT_EQ(d.attributes[1].type, AttributeType::Integer);
                      EXPECT_EQ(d.attributes[1].size, 12);
                      EXPECT_EQ(d.attributes[2].line, 9);
                      EXPECT_EQ(d.attributes[2].description, "order state");
                    }},
        HandWritten{"quote as delimiter", "//attributes ''''\nv z 8\n",
                    [](const MdlDocument& d) { EXPECT_EQ(d.delimiter, "'"); }},
        HandWritten{"tab", "//ATTRIBUTES TAB\nv D 8\n",
                    [](const MdlDocument& d) {
                      EXPECT_EQ(d.delimiter, "\t");
                      EXPECT_EQ(d.attributes[0].type, AttributeType::Decimal);
                    }},
        HandWritten{"named and numbered groups",
                    "//ATTRIBUTES REGEX='^(\\S+) (?<level>[A-Z]+) (?P<code>\\d+) (.*)$'\n"
                    "client Z 64 GROUP=1\nlevel Z 8\nnumber I 10 GROUP=code\nrest Z 512 GROUP=4\n"
                    "RemoteHost H 64\n",
                    [](const MdlDocument& d) {
                      EXPECT_EQ(d.split, FieldSplit::Regex);
                      EXPECT_EQ(d.fieldRegex, "^(\\S+) (?<level>[A-Z]+) (?P<code>\\d+) (.*)$");
                      EXPECT_EQ(d.fieldRegexLine, 4);
                      EXPECT_EQ(d.fieldRegexColumn, 21);
                      EXPECT_EQ(d.attributes[0].group, "1");
                      EXPECT_EQ(d.attributes[1].group, "");
                      EXPECT_EQ(d.attributes[2].group, "code");
                    }},
        HandWritten{"kept and dropped records",
                    "//ATTRIBUTES NEWLINE\n"
                    "line Z 1024 +FILTER={ScanRegEx(0,ERROR|WARN)} -FILTER={ScanRegEx(0,"
                    "healthcheck) OR MatchRegEx(0,\\s*)}\n",
                    [](const MdlDocument& d) {
                      const auto& filters = d.attributes.at(0).filters;
                      ASSERT_EQ(filters.size(), 2u);
                      EXPECT_FALSE(filters[0].drop);
                      EXPECT_EQ(filters[0].alternatives.at(0).regex, "ERROR|WARN");
                      EXPECT_TRUE(filters[1].drop);
                      ASSERT_EQ(filters[1].alternatives.size(), 2u);
                      EXPECT_EQ(filters[1].alternatives[1].regex, "\\s*");
                    }},
        HandWritten{"filter on a field",
                    "//ATTRIBUTES '|'\nuser Z 32\nverb Z 8 -FILTER={MatchRegEx(2,GET)}\n",
                    [](const MdlDocument& d) {
                      EXPECT_EQ(d.attributes.at(1).filters.at(0).alternatives.at(0).input, 2);
                    }},
        HandWritten{"records that start with a date",
                    "//RECORDSET START(0,regex,^\\d{4}-\\d\\d-\\d\\d )  \n//ATTRIBUTES NEWLINE\n"
                    "entry Z 8192\n",
                    [](const MdlDocument& d) {
                      ASSERT_TRUE(d.recordSet.has_value());
                      EXPECT_EQ(d.recordSet->boundary, MdlRecordSet::Boundary::Start);
                      EXPECT_EQ(d.recordSet->pattern, "^\\d{4}-\\d\\d-\\d\\d ");
                      EXPECT_EQ(d.recordSet->line, 4);
                      EXPECT_EQ(d.recordSet->column, 27);
                    }},
        HandWritten{"records that end at a closing line",
                    "//RECORDSET "
                    "END(0,regex,(?m)^\\](\\)|[])(]|[[:punct:])]|\\Q)\\E)$)\n//ATTRIBUTES NEWLINE\n"
                    "entry Z 8192\n",
                    [](const MdlDocument& d) {
                      EXPECT_EQ(d.recordSet->pattern, "(?m)^\\](\\)|[])(]|[[:punct:])]|\\Q)\\E)$");
                    }},
        HandWritten{"REPLACEFIRST ending in parentheses",
                    "//ATTRIBUTES NEWLINE\nmsg Z 99 +FILTER={ScanRegEx(0,(a)(b),REPLACEFIRST("
                    "$2 ($1))) OR ScanRegEx(0,c,REPLACEFIRST(x))}\n",
                    [](const MdlDocument& d) {
                      const auto& terms = d.attributes.at(0).filters.at(0).alternatives;
                      ASSERT_EQ(terms.size(), 2u);
                      EXPECT_EQ(terms[0].replaceFirst, "$2 ($1)");
                      EXPECT_EQ(terms[1].replaceFirst, "x");
                    }}),
    [](const testing::TestParamInfo<HandWritten>& param) {
      std::string name;
      for (const char* c = param.param.form; *c != '\0'; ++c) {
        name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
      }
      return name;
    });

TEST(MdlReader, ReadsEveryRegexSourceAndItsGroups) {
  MdlDocument document = readOk(
      "//APPL a\n//NAME t E\n//SOURCE FILE REGEX='/var/log/(app|web)[0-9]*\\.log' "
      "description='app logs' RESTARTFROMEND EraseRestart=n\n"
      "//ATTRIBUTES NEWLINE\nline Z 10\n");
  const MdlSource& source = document.sources.at(0);
  EXPECT_EQ(source.naming, SourceNaming::Regex);
  EXPECT_EQ(source.name, "/var/log/(app|web)[0-9]*\\.log");
  EXPECT_EQ(source.description, "app logs");
  EXPECT_EQ(source.restart, RestartPosition::FromEnd);
  EXPECT_FALSE(source.eraseRestart);
}

// Every complete example in the operator's reference (a block that starts with
// //APPL) reads as it stands there.
TEST(MdlReader, ReadsTheExamplesOfTheReference) {
  std::ifstream doc(MDL_DOC);
  ASSERT_TRUE(doc.is_open());
  std::string line;
  std::string block;
  bool inBlock = false;
  int examples = 0;
  while (std::getline(doc, line)) {
    if (line.starts_with("```")) {
      if (inBlock && block.starts_with("//APPL")) {
        MdlReadResult result = MdlReader::read(block);
        EXPECT_TRUE(result.ok()) << result.error().toString() << "\n" << block;
        ++examples;
      }
      inBlock = !inBlock;
      block.clear();
    } else if (inBlock) {
      block += line + "\n";
    }
  }
  EXPECT_EQ(examples, 2);
}

}  // namespace
}  // namespace xrvlog
