// The MDL texts of the example definitions (the demo's and examples/definitions) as
// operators copy them: each must load, and keep or drop typical lines as its comment
// promises.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "mdl/MdlReader.h"
#include "record/RecordBuilder.h"

namespace xrvlog {
namespace {

// Every mdl_stream of the XML file by its //NAME table, XML escapes undone and
// ${...} references replaced by a path.
std::map<std::string, std::string> mdlStreams(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  const std::string xml = text.str();
  std::map<std::string, std::string> streams;
  const std::regex stream("<mdl_stream>([^<]*)</mdl_stream>");
  for (std::sregex_iterator it(xml.begin(), xml.end(), stream), end; it != end; ++it) {
    std::string mdl = (*it)[1];
    for (const auto& [escaped, plain] : {std::pair{"&lt;", "<"}, {"&gt;", ">"}, {"&amp;", "&"}}) {
      mdl = std::regex_replace(mdl, std::regex(escaped), plain);
    }
    mdl = std::regex_replace(mdl, std::regex(R"(\$\{[A-Z_]+\})"), "/var/log/example");
    const std::size_t name = mdl.find("//NAME ") + 7;
    streams[mdl.substr(name, mdl.find(' ', name) - name)] = mdl;
  }
  return streams;
}

TEST(ExampleMdl, ExamplesLoadAndKeepWhatTheySay) {
  const char* const access = R"(10.0.1.7 - - [25/Nov/2026:12:00:00 +0000] "GET /login HTTP/1.1" )";
  struct Expect {
    const char* table;
    std::string line;
    std::vector<std::pair<std::string, std::string>> kept;
  };
  const std::vector<Expect> expects = {
      {"XRVWEBERR",
       std::string(access) + "503 1751 \"-\" \"curl\"",
       {{"Client", "10.0.1.7"},
        {"Time", "25/Nov/2026:12:00:00 +0000"},
        {"Request", "GET /login HTTP/1.1"},
        {"Status", "503"},
        {"Bytes", "1751"}}},
      {"XRVWEBERR", std::string(access) + "200 1751 \"-\" \"curl\"", {}},
      {"XRVWEBREQ",
       std::string(access) + "404 12 \"-\" \"curl\"",
       {{"Status_Class", "4xx"}, {"Status", "404"}, {"Request", "GET /login HTTP/1.1"}}},
      {"XRVSYSERR",
       "Nov 25 12:00:00 web01 backup[42]: error: disk /dev/sdb1 is 97% full",
       {{"Time", "Nov 25 12:00:00"},
        {"Host", "web01"},
        {"Program", "backup"},
        {"Message", "error: disk /dev/sdb1 is 97% full"}}},
      {"XRVSYSERR", "Nov 25 12:00:01 web01 cron[7]: info: job done", {}},
  };
  for (const char* file : {XRV_EXAMPLES_DIR "/demo/demo.xml",
                           XRV_EXAMPLES_DIR "/definitions/log-monitoring.xml"}) {
    SCOPED_TRACE(file);
    const auto streams = mdlStreams(file);
    ASSERT_EQ(streams.size(), 3u);
    for (const Expect& expect : expects) {
      SCOPED_TRACE(expect.line);
      ASSERT_EQ(streams.count(expect.table), 1u) << expect.table;
      MdlReadResult read = MdlReader::read(streams.at(expect.table));
      ASSERT_TRUE(read.ok()) << read.error().toString();
      RecordBuilder builder(RecordRules::compile(read.document()));
      std::vector<std::pair<std::string, std::string>> got;
      if (builder.build(expect.line, "")) {
        for (const NameValue& pair : builder.pairs()) {
          got.emplace_back(pair.name, pair.value);
        }
      }
      EXPECT_EQ(got, expect.kept);
    }
  }
}

}  // namespace
}  // namespace xrvlog
