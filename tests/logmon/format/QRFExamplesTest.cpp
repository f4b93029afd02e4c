// The example conf and format files of examples/formats: each loads without a warning,
// the log engine takes its MDL text, and the records of its sample log become the
// events the comments promise. And the Apache example through the real engine.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "FormatTestSupport.h"
#include "logengine/engine/xpwp.h"
#include "logmon/format/QRFEventText.h"
#include "mdl/MdlReader.h"
#include "record/RecordBuilder.h"
#include "tail/LineAssembler.h"
#include "support/Files.h"
#include "support/TempDirectory.h"

namespace {

using XRV::testing::FormatTest;
using XRV::testing::readFile;
using XRV::testing::TempDirectory;

const std::string kExamples = XRV_EXAMPLES_DIR "/formats/";

struct Event {
  std::string wskClass;
  std::map<std::string, std::string> slots;
};

// The event a record's OBVEvent value stands for.
Event decode(const QRFConfig& config, const std::string& value) {
  QRFEventText text;
  EXPECT_TRUE(decodeEventText(value, config, &text)) << value;
  Event event;
  const QRFFormatNode* node = config.getFormat(text.formatIndex);
  event.wskClass = node == nullptr ? "<no format>" : node->getWskClass();
  for (const QRFEventSlot& slot : text.slots) {
    std::string joined;
    for (const std::string& item : slot.values) {
      joined += (joined.empty() ? "" : ",") + item;
    }
    event.slots[slot.name] = slot.list ? "[" + joined + "]" : joined;
  }
  return event;
}

struct Example {
  std::unique_ptr<OBVEmitter> emitter;
  std::unique_ptr<QRFConfig> config;
};

Example load(const std::string& name) {
  Example example;
  const std::string conf = kExamples + name + ".conf";
  example.emitter = std::make_unique<OBVEmitter>(conf.c_str());
  EXPECT_EQ(example.emitter->getError(), 0) << example.emitter->getErrorText();
  example.config = std::make_unique<QRFConfig>(example.emitter.get(), conf.c_str(),
                                               (kExamples + name + ".fmt").c_str(), "QRF_LOG",
                                               nullptr, 0);
  return example;
}

class QRFExamplesTest : public FormatTest {};

TEST_F(QRFExamplesTest, EveryExampleLoadsAndItsRecordsBecomeTheirEvents) {
  struct Case {
    const char* name;
    std::vector<std::string> classes;  // of the kept records of its sample log, in order
    std::map<std::string, std::string> lastSlots;  // some slots of the last kept record
  } cases[] = {
      {"apache-access",
       {"Apache_Access", "Apache_Server_Error", "*DISCARD*"},
       {}},
      {"apache-error",
       {"Apache_Error", "Apache_Client_Error"},
       {{"client", "192.0.2.7:5555"}, {"module", "core"}, {"time", "Oct 12 2024 10:01:02.123456"}}},
      {"syslog",
       {"Syslog_SSH_Failure", "Syslog_FS_Error", "Syslog"},
       {{"program", "CRON[901]"}, {"origin", "192.0.2.10"}, {"RemoteHost", "%XRV_REMHOST%"}}},
      // The exception and its stack trace are one record of four lines.
      {"java-exception",
       {"Java_Log", "Java_Exception"},
       {{"exception", "java.lang.IllegalStateException"},
        {"msg", "java.lang.IllegalStateException: card declined (payment failed)"},
        {"time", "2024-10-12 10:01:02,123"},
        {"logger", "com.example.shop.Checkout"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Example example = load(c.name);
    const QRFConfig& config = *example.config;
    ASSERT_EQ(config.getError(), 0);
    for (const QRFDiagnostic& diagnostic : config.diagnostics()) {
      ADD_FAILURE() << diagnostic.file << ":" << diagnostic.line << ": " << diagnostic.text;
    }
    xrvlog::MdlReadResult read = xrvlog::MdlReader::read(config.mdlStream());
    ASSERT_TRUE(read.ok()) << read.error().toString() << "\n" << config.mdlStream();
    std::shared_ptr<const xrvlog::RecordRules> rules = xrvlog::RecordRules::compile(read.document());
    xrvlog::RecordBuilder builder(rules);

    // The sample log's lines joined into records as the engine joins them.
    std::vector<std::string> records;
    const xrvlog::RecordHandler collect = [&records](std::string_view record) {
      records.emplace_back(record);
    };
    std::istringstream lines(readFile(kExamples + c.name + ".log"));
    for (std::string line; std::getline(lines, line);) {
      builder.addLine(line, xrvlog::kLineComplete, collect);
    }
    builder.flushPending(collect);
    std::vector<std::string> classes;
    Event last;
    for (const std::string& record : records) {
      if (!builder.build(record, "")) {
        continue;
      }
      ASSERT_EQ(builder.pairs().size(), 2u);
      EXPECT_EQ(std::string(builder.pairs()[0].name), "OBVEvent");
      last = decode(config, std::string(builder.pairs()[0].value));
      classes.push_back(last.wskClass);
    }
    EXPECT_EQ(classes, c.classes);
    for (const auto& [slot, value] : c.lastSlots) {
      EXPECT_EQ(last.slots[slot], value) << slot;
    }
  }
}

TEST_F(QRFExamplesTest, SlotValuesComeBackFromTheEngineAsWritten) {
  XRV::testing::Generated generated = XRV::testing::generate(
      "LogSources=/l",
      "format C\n  pattern [%s] %s*\n"
      "  hidden a = $1\n"
      "  digits = printf(\"%s1%s2\", a, a)\n"
      "  text = \"cost $1 (50%) \\\\ back))\"\n"
      "  items = list($2, \"b))\", $1)\n"
      "  nested = printf(\"<%s|%%|%s>\", digits, text)\n"
      "end\n");
  ASSERT_EQ(generated.config->getError(), 0);
  xrvlog::MdlReadResult read = xrvlog::MdlReader::read(generated.mdl());
  ASSERT_TRUE(read.ok()) << read.error().toString();
  xrvlog::RecordBuilder builder(xrvlog::RecordRules::compile(read.document()));
  ASSERT_TRUE(builder.build("[x7] the rest $2", ""));
  const Event event = decode(*generated.config, std::string(builder.pairs()[0].value));
  EXPECT_EQ(event.wskClass, "C");
  const std::map<std::string, std::string> expected = {
      {"digits", "x71x72"},
      {"text", "cost $1 (50%) \\ back))"},
      {"items", "[the rest $2,b)),x7]"},
      {"nested", "<x71x72|%|cost $1 (50%) \\ back))>"}};
  EXPECT_EQ(event.slots, expected);
}

// What the engine's callbacks brought.
struct Seen {
  std::mutex lock;
  std::condition_variable changed;
  std::vector<std::vector<std::pair<std::string, std::string>>> records;
};
Seen* seen = nullptr;

void onData(void*, const char*, const char*, const char*, const XPWP_NameValue* pairs, int count) {
  std::vector<std::pair<std::string, std::string>> record;
  for (int i = 0; i < count; ++i) {
    record.emplace_back(pairs[i].name, pairs[i].value);
  }
  std::lock_guard<std::mutex> hold(seen->lock);
  seen->records.push_back(std::move(record));
  seen->changed.notify_all();
}

void onStatus(void*, const char*, const char*, int) {}

TEST_F(QRFExamplesTest, TheApacheExampleThroughTheLogEngine) {
  TempDirectory directory;
  const std::string log = directory.file("access.log");
  std::ofstream(log) << "";
  // The example's conf file, watching the temporary log instead.
  std::string conf;
  std::istringstream lines(readFile(kExamples + "apache-access.conf"));
  for (std::string line; std::getline(lines, line);) {
    conf += (line.rfind("LogSources=", 0) == 0 ? "LogSources=" + log : line) + "\n";
  }
  const std::string format = readFile(kExamples + "apache-access.fmt");
  XRV::testing::Generated generated = XRV::testing::generate(conf, format);
  ASSERT_EQ(generated.config->getError(), 0);

  Seen records;
  seen = &records;
  XPWP_Handle handle = nullptr;
  ASSERT_EQ(XPWP_StartCommonProvider(&handle, 2), CDP_Success);
  ASSERT_EQ(XPWP_RegisterDataCallback(handle, onData), CDP_Success);
  ASSERT_EQ(XPWP_RegisterStatusCallback(handle, onStatus), CDP_Success);
  const std::string mdl = generated.mdl();
  ASSERT_EQ(XPWP_LoadMetafile(handle, mdl.c_str(), mdl.size() + 1), CDP_Success) << mdl;
  for (int round = 0; round < 1000 && XPWP_AreAllFileThreadsStartedTable(handle, "QRF_LOG") != 18;
       ++round) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_TRUE(directory.append("access.log", readFile(kExamples + "apache-access.log") +
                                                 "not an access log line\n"));
  {
    std::unique_lock<std::mutex> hold(records.lock);
    EXPECT_TRUE(records.changed.wait_for(hold, std::chrono::seconds(10),
                                         [&] { return records.records.size() >= 3; }));
  }
  XPWP_StopCommonProvider(handle);
  seen = nullptr;

  ASSERT_EQ(records.records.size(), 3u);
  const auto& first = records.records[0];
  ASSERT_EQ(first.size(), 2u);
  EXPECT_EQ(first[0].first, "OBVEvent");
  EXPECT_EQ(first[1], (std::pair<std::string, std::string>{"RemoteHost", ""}));
  Event event = decode(*generated.config, first[0].second);
  EXPECT_EQ(event.wskClass, "Apache_Access");
  const std::map<std::string, std::string> expected = {
      {"client", "192.0.2.7"},
      {"user", "alice"},
      {"time", "10/Oct/2024:13:55:36 +0200"},
      {"method", "GET"},
      {"path", "/index.html"},
      {"status", "200"},
      {"bytes", "2326"},
      {"msg", "GET /index.html from 192.0.2.7: 200"},
      {"severity", "INFO"},
      {"hostname", "web01"},
      {"origin", "192.0.2.10"},
      {"XRV_FILENAME", "%XRV_FILENAME%"}};
  EXPECT_EQ(event.slots, expected);
  EXPECT_EQ(decode(*generated.config, records.records[1][0].second).wskClass, "Apache_Server_Error");
  EXPECT_EQ(decode(*generated.config, records.records[2][0].second).wskClass, "*DISCARD*");
}

}  // namespace
