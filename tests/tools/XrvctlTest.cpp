// xrvctl as an operator runs it: the real binary, its exit status and its output.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/Files.h"
#include "support/TempDirectory.h"

namespace {

using XRV::testing::readFile;
using XRV::testing::temporaryFile;

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

// `environment`: "NAME=value ..." for the command's environment.
Outcome xrvctl(const std::string& arguments, const std::string& environment = "") {
  std::string out = temporaryFile("xrvctl.out");
  std::string err = temporaryFile("xrvctl.err");
  std::string command =
      environment + " " + std::string(XRVCTL) + " " + arguments + " >" + out + " 2>" + err;
  int status = std::system(command.c_str());
  Outcome outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
  unlink(out.c_str());
  unlink(err.c_str());
  return outcome;
}

std::string writeTemp(const char* stem, const std::string& text) {
  std::string path = temporaryFile(stem);
  std::ofstream(path) << text;
  return path;
}

const std::string kExample = XRV_EXAMPLES_DIR "/definitions/linux-basics.xml";

TEST(Xrvctl, ValidateListsGroupsAsTables) {
  Outcome run = xrvctl("validate " + kExample);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("Disk_Usage  table XRVDISK, row 380 bytes"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("  Raw_Line         1   512  hidden"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("7 attribute groups"), std::string::npos);
}

TEST(Xrvctl, ValidateAsJson) {
  Outcome run = xrvctl("validate --json " + kExample);
  ASSERT_EQ(run.status, 0) << run.err;
  nlohmann::json report = nlohmann::json::parse(run.out);
  ASSERT_EQ(report["groups"].size(), 7u);
  const nlohmann::json& disk = report["groups"][0];
  EXPECT_EQ(disk["group"], "Disk_Usage");
  EXPECT_EQ(disk["table"], "XRVDISK");
  EXPECT_EQ(disk["row_size"], 380);
  EXPECT_EQ(disk["pure_event"], false);
  EXPECT_EQ(disk["discovery"], false);
  EXPECT_TRUE(disk["subnode_type"].is_null());
  const nlohmann::json& attributes = disk["attributes"];
  EXPECT_EQ(attributes[0]["name"], "ORIGINNODE");
  EXPECT_EQ(attributes[0]["offset"], 0);
  EXPECT_EQ(attributes[1]["hint"], "where the file system is mounted");
  EXPECT_TRUE(attributes[2]["hint"].is_null());
  EXPECT_EQ(attributes.back()["name"], "Raw_Line");
  EXPECT_EQ(attributes.back()["offset"], -1);
  ASSERT_TRUE(report["warnings"].is_array());
  for (const nlohmann::json& warning : report["warnings"]) {
    EXPECT_GT(warning["line"].get<int>(), 0);
  }
}

TEST(Xrvctl, ValidateReportsTheFirstErrorWithItsPosition) {
  std::string broken = writeTemp("broken.xml",
                                 "<agent>\n"
                                 "  <metadata>\n"
                                 "    <ag name='Disk' table=\"XRVDISK\"/>\n"
                                 "  </metadata>\n"
                                 "</agent>\n");
  Outcome run = xrvctl("validate " + broken);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, broken + ":3:5: error: Attribute value does not start with quote\n");
  EXPECT_EQ(run.out, "");

  Outcome json = xrvctl("validate --json " + broken);
  EXPECT_EQ(json.status, 1);
  nlohmann::json report = nlohmann::json::parse(json.out);
  EXPECT_EQ(report["error"]["line"], 3);
  EXPECT_EQ(report["error"]["column"], 5);
  EXPECT_EQ(report["error"]["message"], "Attribute value does not start with quote");
}

TEST(Xrvctl, ValidateWarnsAboutWhatItCannotUse) {
  std::string odd = writeTemp("odd.xml",
                              "<agent>\n"
                              "  <cimom name=\"x\"/>\n"
                              "  <metadata><ag name=\"G\" table=\"T\">\n"
                              "    <attr name=\"weird\" type=\"0\" size=\"3\"/>\n"
                              "  </ag></metadata>\n"
                              "</agent>\n");
  Outcome run = xrvctl("validate " + odd);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err,
            odd + ":2: warning: Element cimom is not handled by this build and is ignored\n" + odd +
                ":4: warning: WARNING: Attribute weird has an unsupported length: 3\n" + odd +
                ": warning: Attribute group G has no data source: its table stays empty\n");
}

TEST(Xrvctl, ValidateComparesDataSourcesWithTheirGroups) {
  std::string mixed = writeTemp(
      "mixed.xml",
      "<agent>\n"
      "  <metadata>\n"
      "    <ag name=\"Disk\" table=\"T1\">\n"
      "      <attr name=\"Mount\" type=\"1\" size=\"8\"/><attr name=\"Used\" type=\"0\" size=\"4\"/>\n"
      "      <attr name=\"Free\" type=\"0\" size=\"4\"/><attr name=\"-Raw\" type=\"1\" size=\"8\"/>\n"
      "    </ag>\n"
      "    <ag name=\"Thread_Pool_Status\" table=\"T2\"><attr name=\"Thread_Pool_Size\" type=\"0\" size=\"4\"/></ag>\n"
      "  </metadata>\n"
      "  <script ag=\"Disk\" command=\"true\">\n"
      "    <metric name=\"Mount\" visible=\"true\" type=\"STRING_DATA\"/>\n"
      "    <metric name=\"Free\" visible=\"true\" type=\"NUMERIC_DATA\"/><metric name=\"Raw\" type=\"STRING_DATA\"/>\n"
      "  </script>\n"
      "  <script ag=\"Disk\" command=\"false\"/>\n"
      "  <script ag=\"Undeclared\" command=\"true\"/>\n"
      "</agent>\n");
  Outcome run = xrvctl("validate " + mixed);
  EXPECT_EQ(run.status, 0);
  std::string warnings;
  for (const char* warning :
       {"Disk: column 2 is Used but the data source puts attribute Free there",
        "Disk has 3 columns but its data source fills only 2",
        "Disk has more than one data source: only the first one is used",
        "Undeclared has a data source but is not declared in the metadata: it has no table"}) {
    warnings += mixed + ": warning: Attribute group " + warning + "\n";
  }
  EXPECT_EQ(run.err, warnings);
  EXPECT_NE(run.out.find("2 attribute groups, 4 warnings"), std::string::npos) << run.out;

  nlohmann::json report = nlohmann::json::parse(xrvctl("validate --json " + mixed).out);
  ASSERT_EQ(report["warnings"].size(), 4u);
  EXPECT_TRUE(report["warnings"][0]["line"].is_null());
}

TEST(Xrvctl, ValidateWarnsAboutADefinitionWithoutGroups) {
  std::string empty = writeTemp("empty.xml", "<agent><appl name=\"XRV\" nodeType=\"XR\"/></agent>");
  Outcome run = xrvctl("validate " + empty);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, empty + ": warning: The definition declares no attribute group: the agent "
                             "would serve no table (is this an agent definition?)\n");
  EXPECT_NE(run.out.find("0 attribute groups, 1 warning"), std::string::npos) << run.out;

  // Not XML at all reads as text outside any element: no agent definition.
  std::string ini = writeTemp("agent.ini", "[agent]\nCDP_DP_CACHE_TTL = 60\n");
  run = xrvctl("validate " + ini);
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("no <agent> element"), std::string::npos) << run.err;
}

TEST(Xrvctl, UsageAndUnreadableFiles) {
  EXPECT_NE(xrvctl("").status, 0);
  EXPECT_NE(xrvctl("validate").status, 0);
  Outcome missing = xrvctl("validate /nonexistent/definition.xml");
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("/nonexistent/definition.xml: cannot open"), std::string::npos);
  // Refused before a byte is read: a FIFO would wait for a writer for ever.
  char directory[] = "/tmp/xrv-files-XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const std::string fifo = std::string(directory) + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string big = std::string(directory) + "/big.xml";
  std::ofstream(big).close();
  std::filesystem::resize_file(big, 3LL * 1024 * 1024);
  struct Case {
    std::string path;
    const char* message;
  };
  for (const Case& c : {Case{directory, "is a directory, not a file"},
                        Case{fifo, "is not a regular file"}, Case{"/dev/zero", "is not a regular file"},
                        Case{big, "is larger than 2 MB"}}) {
    SCOPED_TRACE(c.path);
    Outcome refused = xrvctl("validate " + c.path, "XRV_MAX_FILE_MB=2");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find(c.message), std::string::npos) << refused.err;
  }
  std::filesystem::remove_all(directory);
}

// The agent's main node as xrvctl sample names it (the host without its domain).
std::string sampleOrigin() {
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  std::string name = host;
  return name.substr(0, std::min<size_t>(name.find('.'), 29)) + ":XR";
}

const std::string kWords =
    "<agent>\n"
    "  <appl name=\"XRV\" nodeType=\"XR\"/>\n"
    "  <metadata>\n"
    "    <ag name=\"Words\" table=\"XRVWORD\"><attr name=\"Word\" type=\"2\" size=\"8\"/>"
    "<attr name=\"Count\" type=\"0\" size=\"4\"/></ag>\n"
    "    <ag name=\"Broken\" table=\"XRVBRK\"><attr name=\"Word\" type=\"2\" size=\"8\"/></ag>\n"
    "    <ag name=\"Unserved\" table=\"XRVNONE\"><attr name=\"Word\" type=\"2\" size=\"8\"/></ag>\n"
    "  </metadata>\n"
    "  <script ag=\"Words\" separator=\" \" utf8_input=\"true\" "
    "command=\"printf 'x,y 7\\nsay&quot;hi&quot; -3\\nna\xC3\xAFvet\xC3\xA9 12\\n'\">\n"
    "    <metric name=\"Word\" type=\"STRING_DATA\" key=\"true\" visible=\"true\"/>\n"
    "    <metric name=\"Count\" type=\"NUMERIC_DATA\" visible=\"true\"/>\n"
    "  </script>\n"
    "  <script ag=\"Broken\" command=\"echo oops &gt;&amp;2; exit 3\">\n"
    "    <metric name=\"Word\" type=\"STRING_DATA\" visible=\"true\"/>\n"
    "  </script>\n"
    "</agent>\n";

TEST(Xrvctl, SampleFormats) {
  const std::string words = writeTemp("words.xml", kWords);
  const std::string origin = sampleOrigin();
  // "naïveté" is 9 bytes in an 8-byte column: the cut "é" goes, never half of it.
  const std::string naive = "na\xC3\xAFvet";

  Outcome csv = xrvctl("sample " + words + " Words --format csv");
  EXPECT_EQ(csv.status, 0) << csv.err;
  EXPECT_EQ(csv.out, "ORIGINNODE,Word,Count\n" + origin + ",\"x,y\",7\n" + origin +
                         ",\"say\"\"hi\"\"\",-3\n" + origin + "," + naive + ",12\n");

  Outcome json = xrvctl("sample " + words + " XRVWORD --format json");
  EXPECT_EQ(json.status, 0) << json.err;
  nlohmann::json sampled = nlohmann::json::parse(json.out);
  ASSERT_EQ(sampled.size(), 1u);
  EXPECT_EQ(sampled[0]["group"], "Words");
  EXPECT_EQ(sampled[0]["table"], "XRVWORD");
  EXPECT_EQ(sampled[0]["node"], origin);
  ASSERT_EQ(sampled[0]["rows"].size(), 3u);
  EXPECT_EQ(sampled[0]["rows"][1],
            (nlohmann::json{{"ORIGINNODE", origin}, {"Word", "say\"hi\""}, {"Count", -3}}));
  EXPECT_TRUE(sampled[0]["rows"][2]["Count"].is_number_integer());

  // Every group by default: texts left, numbers right; problems on standard error.
  Outcome table = xrvctl("sample " + words);
  EXPECT_EQ(table.status, 1) << "Unserved has no data source";
  const size_t width = std::max(origin.size(), std::string("ORIGINNODE").size());
  const std::string header = "ORIGINNODE" + std::string(width - 10, ' ');
  const std::string node = origin + std::string(width - origin.size(), ' ');
  EXPECT_EQ(table.out, "Words (XRVWORD): 3 rows\n" +
                       header + "  Word     Count\n" +
                       node + "  x,y          7\n" +
                       node + "  say\"hi\"     -3\n" +
                       node + "  " + naive + "      12\n"
                       "\n"
                       "Broken (XRVBRK): 0 rows\n"
                       "ORIGINNODE  Word\n");
  EXPECT_EQ(table.err,
            "xrvctl: Broken: the data source reports SCRIPT_NONZERO_RETURN (standard error: "
            "oops)\n"
            "xrvctl: attribute group Unserved has no data source in this definition, not "
            "sampled\n");
}

TEST(Xrvctl, SampleTheExampleDefinition) {
  Outcome run = xrvctl("sample " + kExample + " Load_Average Thread_Pool_Status --format json");
  ASSERT_EQ(run.status, 0) << run.err;
  // Kept in the order printed: the columns come in row order.
  nlohmann::ordered_json sampled = nlohmann::ordered_json::parse(run.out);
  ASSERT_EQ(sampled.size(), 2u);
  ASSERT_EQ(sampled[0]["rows"].size(), 1u);
  const nlohmann::ordered_json& load = sampled[0]["rows"][0];
  std::vector<std::string> columns;
  for (const auto& [name, value] : load.items()) {
    columns.push_back(name);
  }
  EXPECT_EQ(columns, (std::vector<std::string>{"ORIGINNODE", "Host", "Runnable_Tasks",
                                               "One_Minute", "Five_Minutes", "Fifteen_Minutes",
                                               "Uptime_Seconds"}));
  // The values are ExampleDefinitionTest's.
  // Without a thread pool its status group reports none.
  EXPECT_EQ(sampled[1]["rows"][0]["Thread_Pool_Size"], 0);
}

TEST(Xrvctl, SampleRefusesUnknownGroupsAndBrokenDefinitions) {
  Outcome unknown = xrvctl("sample " + kExample + " Memory Nope");
  EXPECT_EQ(unknown.status, 1);
  EXPECT_TRUE(unknown.out.empty());
  EXPECT_NE(unknown.err.find("no attribute group or table named Nope; it has: Disk_Usage"),
            std::string::npos)
      << unknown.err;
  Outcome broken = xrvctl("sample " + writeTemp("broken.xml", "<agent><metadata>"));
  EXPECT_EQ(broken.status, 1);
  EXPECT_NE(broken.err.find(": error: "), std::string::npos) << broken.err;
  EXPECT_NE(xrvctl("sample " + kExample + " --format xml").status, 0);
}

const std::string kOrdersMdl =
    "//APPL shop\n"
    "//NAME SHOP_ORDERS S\n"
    "//SOURCE FILE '/var/log/shop/orders.log' TAIL\n"
    "//RECORDSET START(0,regex,^\\d+;)\n"
    "//ATTRIBUTES ';'\n"
    "order Z 32\n"
    "amount I 12\n"
    "state Z 16 -FILTER={MatchRegEx(3,TEST)}\n"
    "note Z 64\n";
// The last line has no newline; line 5 continues the record of line 4.
const std::string kOrdersLog =
    "header line\n1001;250;open\n1002;x;TEST\n1003; 75 ;paid;first\n  more detail\n1004;12;open";

TEST(Xrvctl, LogtestPrintsTheKeptRecordsAndHowThePatternsDid) {
  Outcome run = xrvctl("logtest " + writeTemp("orders.mdl", kOrdersMdl) + " " +
                       writeTemp("orders.log", kOrdersLog));
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out,
            "record 1 (line 1)\n"
            "  order = header line\n  amount = \n  state = \n  note = \n"
            "record 2 (line 2)\n"
            "  order = 1001\n  amount = 250\n  state = open\n  note = \n"
            "record 4 (line 4)\n"
            "  order = 1003\n  amount = 75\n  state = paid\n  note = first\\n  more detail\n"
            "record 5 (line 6)\n"
            "  order = 1004\n  amount = 12\n  state = open\n  note = \n"
            "\n"
            "ATTRIBUTE      MATCHES     MISSES  LIMIT HITS  PATTERN\n"
            "//RECORDSET          4          2           0  ^\\d+;\n"
            "state                1          4           0  TEST\n"
            "\n"
            "lines 6, records 5, kept 4, unmatched 1, oversized 0\n");
}

TEST(Xrvctl, LogtestAsJson) {
  Outcome run = xrvctl("logtest --json " + writeTemp("orders.mdl", kOrdersMdl) + " " +
                       writeTemp("orders.log", kOrdersLog));
  ASSERT_EQ(run.status, 0) << run.err;
  std::vector<nlohmann::json> objects;
  std::istringstream lines(run.out);
  for (std::string line; std::getline(lines, line);) {
    objects.push_back(nlohmann::json::parse(line));
  }
  ASSERT_EQ(objects.size(), 5u) << run.out;
  std::vector<int> numbers;
  for (size_t i = 0; i < 4; ++i) {
    numbers.push_back(objects[i]["record"].get<int>());
  }
  EXPECT_EQ(numbers, (std::vector<int>{1, 2, 4, 5}));
  EXPECT_EQ(objects[3]["line"], 6);
  EXPECT_EQ(objects[2]["attributes"], (nlohmann::json{{"order", "1003"},
                                                      {"amount", "75"},
                                                      {"state", "paid"},
                                                      {"note", "first\n  more detail"}}));
  // The attributes keep their MDL order.
  EXPECT_NE(
      run.out.find("{\"order\":\"1001\",\"amount\":\"250\",\"state\":\"open\",\"note\":\"\"}"),
      std::string::npos);
  const nlohmann::json& statistics = objects[4]["statistics"];
  EXPECT_EQ(statistics["lines"], 6);
  EXPECT_EQ(statistics["records"], 5);
  EXPECT_EQ(statistics["kept"], 4);
  EXPECT_EQ(statistics["unmatched"], 1);
  EXPECT_EQ(statistics["patterns"][1], (nlohmann::json{{"attribute", "state"},
                                                       {"pattern", "TEST"},
                                                       {"matches", 1},
                                                       {"misses", 4},
                                                       {"limit_hits", 0}}));
}

TEST(Xrvctl, LogtestNamesWhereTheMdlIsWrong) {
  const std::string log = writeTemp("orders.log", kOrdersLog);
  const std::string header = "//APPL a\n//NAME t E\n//SOURCE FILE '/x'\n//ATTRIBUTES NEWLINE\n";
  const std::pair<std::string, std::string> cases[] = {
      {header + "v Z 9 +FILTER={FindRegEx(0,a)}\n",
       ":5:16: expected ScanRegEx or MatchRegEx, found 'FindRegEx(0,a)}'\n"},
      {header + "v Z 9 +FILTER={ScanRegEx(0,a) OR ScanRegEx(0,a{2,1})}\n",
       ":5:34: numbers out of order in {} quantifier at offset 5 of \"a{2,1}\"\n"},
  };
  for (const auto& [mdl, message] : cases) {
    const std::string path = writeTemp("bad.mdl", mdl);
    Outcome run = xrvctl("logtest " + path + " " + log);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, path + message);
  }
  Outcome noLog = xrvctl("logtest " + writeTemp("orders.mdl", kOrdersMdl) + " /nonexistent/x.log");
  EXPECT_EQ(noLog.status, 2);
  EXPECT_EQ(noLog.err, "/nonexistent/x.log: cannot be read: No such file or directory\n");
  EXPECT_EQ(xrvctl("logtest /nonexistent/x.mdl " + log).status, 2);
  EXPECT_NE(xrvctl("logtest " + log).status, 0);
}

// A conf file and a format file side by side, named as the agent expects them.
class FormatFiles {
 public:
  FormatFiles(const std::string& conf, const std::string& format) {
    std::ofstream(directory_.file("app.conf")) << conf;
    std::ofstream(directory_.file("app.fmt")) << format;
  }
  std::string conf() const { return directory_.file("app.conf"); }
  std::string format() const { return directory_.file("app.fmt"); }
  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(directory_.file(name)) << text;
    return directory_.file(name);
  }

 private:
  XRV::testing::TempDirectory directory_;
};

// No name resolution for the DEFAULT slots.
const std::string kHost = "CTAFW_HOSTNAME=web01 CDP_IP_ADDR=192.0.2.10";
const std::string kAppFormat =
    "format Line\n  pattern %s %s*\n  level = $1\n  msg = $2\n  hostname = default\nend\n"
    "format Error extends Line\n  pattern ERROR %s*\n  msg = $1\n  level = \"E\"\nend\n";

TEST(Xrvctl, MdlPrintsTheGeneratedText) {
  FormatFiles files("LogSources=/var/log/app.log\nNO_UTF8_CONVERSION=YES\n", kAppFormat);
  Outcome run = xrvctl("mdl " + files.conf(), kHost);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out,
            "//APPL XRV_none\n"
            "//NAME Log_Events E MaximumAttributeSize=2048\n"
            "//SOURCE FILE '/var/log/app.log' TAIL UNMATCHLOG='' CompareByAllMatches "
            "codepage=UTF-8 FileMonitorFrequency=5 FileExistTimeToWait=30\n"
            "//ATTRIBUTES NEWLINE\n"
            "OBVEvent Z 2048 +FILTER={ScanRegEx(0,^()[ \t]*ERROR +(.*)[ \t]*()$,REPLACEFIRST(1#"
            "\x01level\x04\x02" "E\x03\x01msg\x04\x02$2\x03\x01hostname\x04\x02web01\x03)) OR "
            "ScanRegEx(0,^()[ \t]*(\\S+) +(.*)[ \t]*()$,REPLACEFIRST(0#"
            "\x01level\x04\x02$2\x03\x01msg\x04\x02$3\x03\x01hostname\x04\x02web01\x03))} "
            "@Generated WSK Event\n"
            "RemoteHost H 64 @Name of host where event originated, if not local\n");
  Outcome named = xrvctl("mdl " + files.conf() + " " + files.format() +
                             " --app Shop --group Shop_Log --subnode-type LZ",
                         kHost);
  EXPECT_EQ(named.status, 0) << named.err;
  EXPECT_EQ(named.out.substr(0, 53), "//APPL Shop_LZ\n//NAME Shop_Log E MaximumAttributeSize");
}

TEST(Xrvctl, MdlReportsErrorsAndWarningsWithFileAndLine) {
  struct Case {
    const char* why;
    std::string conf;
    std::string format;
    int status;
    std::string err;  // with FMT for the format file's path, CONF for the conf file's
  } cases[] = {
      {"a syntax error", "LogSources=/l", "format A\n  pattern %s\n  v $1\nend\n", 2,
       "FMT:3: error: Format file parse error in file FMT at line 3: \"$1\" error is: "
       "\"expected '=' after the slot name v\"\n"},
      {"a format that can never match", "LogSources=/l",
       "format A\n  pattern %s%s\nend\nformat B\n  pattern x %s\nend\n", 0,
       "FMT:2: warning: WARNING: Invalid construct \"%s%s\" in expression \"%s%s\".  This can "
       "never match; discarding\n"},
      {"no sources", "", "format A\n  pattern %s\nend\n", 2,
       "CONF: warning: No LogSources found in conf file CONF, and syslog not configured, "
       "nothing to monitor\nthe log engine would refuse this MDL text: line 3, column 1: "
       "expected //SOURCE FILE, found '//ATTRIBUTES'\n"},
      {"a broken conf file", "LogSources=/l\nnonsense\n", "", 2,
       "CONF:2: expected NAME=value, found 'nonsense'\n"},
      {"no usable format", "LogSources=/l", "format A\n  pattern %q\nend\n", 2,
       "FMT:2: error: Format for class A contains illegal variable \"%q\" in format expression "
       "\"%q\"\nFMT: warning: WARNING: no format of FMT gives a filter; the log engine will "
       "not load this MDL\nthe log engine would refuse this MDL text: line 5, column 26: "
       "expected ScanRegEx or MatchRegEx, found '}'\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    FormatFiles files(c.conf, c.format);
    Outcome run = xrvctl("mdl " + files.conf(), kHost);
    EXPECT_EQ(run.status, c.status);
    std::string expected = c.err;
    for (const auto& [placeholder, path] : {std::pair<std::string, std::string>{"FMT", files.format()},
                                            {"CONF", files.conf()}}) {
      for (size_t at = expected.find(placeholder); at != std::string::npos;
           at = expected.find(placeholder, at + path.size())) {
        expected.replace(at, placeholder.size(), path);
      }
    }
    EXPECT_EQ(run.err, expected);
  }
  FormatFiles files("LogSources=/l", "");
  Outcome noFormat = xrvctl("mdl " + files.write("other.txt", "LogSources=/l"));
  EXPECT_EQ(noFormat.status, 2);
  EXPECT_NE(noFormat.err.find("does not end with .conf; name the format file as well"),
            std::string::npos);
  Outcome missing = xrvctl("mdl " + files.write("x.txt", "") + "/nothing.conf");
  EXPECT_EQ(missing.status, 2);
  EXPECT_NE(missing.err.find("/nothing.conf: cannot open: "), std::string::npos);
  Outcome unreadableFormat = xrvctl("mdl " + files.conf() + " /nonexistent/app.fmt");
  EXPECT_EQ(unreadableFormat.status, 2);
  EXPECT_EQ(unreadableFormat.err,
            "/nonexistent/app.fmt: error: Could not open format file /nonexistent/app.fmt\n");
}

TEST(Xrvctl, MdlShowsTheSyslogPipeWithoutTouchingTheSystem) {
  FormatFiles files("AutoInitSyslog=yes", "format A\n  pattern %s\nend\n");
  Outcome run = xrvctl("mdl " + files.conf(), kHost + " XRV_INSTANCE_NAME=i1");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("\n//SOURCE FILE '/tmp/.zelto/XRV_i1.pipe' UNMATCHLOG='' codepage="),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.err.find("the syslog configuration was not looked at"), std::string::npos);
}

TEST(Xrvctl, LogtestTakesAConfAndAFormatFile) {
  FormatFiles files("LogSources=/var/log/app.log\nNO_UTF8_CONVERSION=YES", kAppFormat);
  const std::string log = files.write("app.log", "INFO started\nERROR disk full\n\n");
  const std::string expected =
      "record 1 (line 1)\n"
      "  class Line\n  level = INFO\n  msg = started\n  hostname = web01\n  RemoteHost = \n"
      "record 2 (line 2)\n"
      "  class Error\n  level = E\n  msg = disk full\n  hostname = web01\n  RemoteHost = \n";
  for (const std::string& arguments : {files.conf() + " " + log,
                                       files.conf() + " " + files.format() + " " + log}) {
    Outcome run = xrvctl("logtest " + arguments, kHost);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.substr(0, expected.size()), expected);
    EXPECT_NE(run.out.find("lines 3, records 3, kept 2, unmatched 1, oversized 0\n"),
              std::string::npos);
  }
  Outcome json = xrvctl("logtest --json " + files.conf() + " " + log, kHost);
  ASSERT_EQ(json.status, 0) << json.err;
  nlohmann::json first = nlohmann::json::parse(json.out.substr(0, json.out.find('\n')));
  EXPECT_EQ(first["class"], "Line");
  EXPECT_EQ(first["slots"], (nlohmann::json{{"level", "INFO"}, {"msg", "started"}, {"hostname", "web01"}}));
  EXPECT_EQ(first["attributes"]["RemoteHost"], "");

  Outcome tooMany = xrvctl("logtest " + log + " " + log + " " + log);
  EXPECT_EQ(tooMany.status, 2);
  EXPECT_EQ(tooMany.err, "logtest: expected MDL_FILE LOG_FILE or CONF_FILE [FORMAT_FILE] LOG_FILE\n");
  Outcome broken = xrvctl("logtest " + files.write("bad.conf", "x") + " " + log);
  EXPECT_EQ(broken.status, 2);
  EXPECT_NE(broken.err.find("bad.conf:1: expected NAME=value"), std::string::npos);
}

}  // namespace
