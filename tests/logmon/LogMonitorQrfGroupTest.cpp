// Format-file log monitor groups over the real log engine: records of a log become
// events of their format's class with Class, msg and custom attributes filled, and OBV
// events reach an event server; what goes wrong with the conf and format files; the
// subnodes' conf files; the conf file's flood control and duplicate keys; and changes
// of either file picked up at the next collection.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "LogMonitorTestSupport.h"
#include "TestEventServer.h"
#include "provider/PureEventCache.h"
#include "support/TestConfiguration.h"

namespace {

using XRV::testing::logMonitorDefinition;
using XRV::testing::LogMonitorTest;
using XRV::testing::Rows;
using XRV::testing::TestEventServer;
using XRV::testing::waitUntil;

const char kAttrs[] =
    R"(<attr name="Class" type="2" size="32"/><attr name="Log_File" type="2" size="128"/>)"
    R"(<attr name="msg" type="2" size="64"/><attr name="CustomSlot1" type="2" size="32"/>)"
    R"(<attr name="CustomInteger1" type="0" size="4"/><attr name="OBVEvent" type="2" size="256"/>)"
    R"(<attr name="RemoteHost" type="2" size="32"/>)";
const char kMetrics[] =
    R"(<metric name="Class" type="STRING_DATA" visible="true"/>)"
    R"(<metric name="Log_File" type="STRING_DATA" visible="true"/>)"
    R"(<metric name="msg" type="STRING_DATA" visible="true"/>)"
    R"(<metric name="CustomSlot1" type="STRING_DATA" visible="true"/>)"
    R"(<metric name="CustomInteger1" type="NUMERIC_DATA" visible="true"/>)"
    R"(<metric name="OBVEvent" type="STRING_DATA" visible="true"/>)"
    R"(<metric name="RemoteHost" type="STRING_DATA" visible="true"/>)";
const char kMonitor[] = R"(app="XRV" ag="Events" use_qrf="true" sourceMapAttr="Log_File")";

// "SEVERITY CODE text": class Line; "... disk ..." class Disk; DEBUG lines dropped.
const char kFormats[] =
    "format Line\n"
    "  pattern %s %s %s*\n"
    "  severity = $1\n"
    "  code = $2\n"
    "  msg = $3\n"
    "  map severity to CustomSlot1\n"
    "  map code to CustomInteger1\n"
    "end\n"
    "format Disk extends Line\n"
    "  pattern %s %s disk %s*\n"
    "  msg = printf(\"disk %s\", what)\n"
    "  hidden what = $3\n"
    "end\n"
    "format *DISCARD*\n"
    "  pattern DEBUG %s*\n"
    "end\n";

class LogMonitorQrfGroupTest : public LogMonitorTest {
 protected:
  void SetUp() override {
    LogMonitorTest::SetUp();
    setConfigurationProperty("CTAFW_HOSTNAME", "web01");
    directory_.append("app.log", "");
  }

  // Writes `name` in the test's directory anew, its modification time a second later
  // than before, so that the group sees a change however fast the test is.
  void write(const std::string& name, const std::string& text) {
    const std::string path = directory_.file(name);
    struct stat before {};
    const bool existed = stat(path.c_str(), &before) == 0;
    std::ofstream(path, std::ios::trunc) << text;
    if (existed) {
      const timespec times[2] = {{0, UTIME_OMIT}, {before.st_mtim.tv_sec + 1, 0}};
      utimensat(AT_FDCWD, path.c_str(), times, 0);
    }
  }

  // The conf file events.conf (watching app.log, then `more`), the format file
  // events.fmt, and XRV_CONF_FILE naming the conf file.
  void writeFiles(const std::string& more = "", const std::string& formats = kFormats) {
    write("events.conf",
          "LogSources=" + directory_.file("app.log") + "\nNO_UTF8_CONVERSION=YES\n" + more);
    write("events.fmt", formats);
    setConfigurationProperty("XRV_CONF_FILE", directory_.file("events.conf").c_str());
  }

  LogMonitorQueryClass* loadGroup(const std::string& agAttributes = R"(pure="true")") {
    return load(logMonitorDefinition("Events", agAttributes, kAttrs, kMonitor, kMetrics,
                                     "format-file mode"));
  }

  // Ends a case of a table: the trace has `text` (unless null); then the group, the
  // definition and the trace are forgotten.
  void expectTraceAndForget(const char* text) {
    if (text != nullptr) {
      EXPECT_TRUE(framework_.trace().hasText(text)) << text;
    }
    providers_.clear();
    resetDefinitionState();
    framework_.trace().clear();
  }

  // Appends `lines` and a last line "END 0 end", and returns the events from `from` on
  // once that one came, without it.
  Rows eventsAfter(const std::string& lines, size_t from = 0) {
    directory_.append("app.log", lines + "END 0 end\n");
    EXPECT_TRUE(waitUntil([&] {
      const Rows sent = events("Events", from);
      return !sent.empty() && sent.back()[3] == "END";
    }));
    Rows sent = events("Events", from);
    if (!sent.empty()) {
      sent.pop_back();
    }
    return sent;
  }
};

TEST_F(LogMonitorQrfGroupTest, RecordsBecomeClassedEventsAndOBVEventsReachTheServer) {
  TestEventServer server;
  ASSERT_TRUE(server.start());
  writeFiles("IncludeOBVEventAttr=Y\nLognameIsBasename=Y\nEventServer=127.0.0.1\nEventServerPort=" +
             std::to_string(server.port()) + "\nEventSpoolDirectory=spool\n");
  setConfigurationProperty("XRV_SEND_OBV_EVENTS", "Y");
  LogMonitorQueryClass* provider = loadGroup();
  ASSERT_NE(provider, nullptr);
  provider->start();
  ASSERT_EQ(provider->getPerfErrorCode(), OBJECT_ACTIVE);
  EXPECT_EQ(provider->getConfFile(), directory_.file("events.conf"));
  EXPECT_EQ(provider->getFormatFile(), directory_.file("events.fmt"));
  EXPECT_TRUE(provider->isLogNameBasename());
  EXPECT_TRUE(provider->sendsObvEvents());
  EXPECT_TRUE(provider->includesObvEventAttr());
  EXPECT_TRUE(framework_.trace().hasText("fmt file not specified for conf file " +
                                         directory_.file("events.conf") + ", assuming " +
                                         directory_.file("events.fmt")));
  EXPECT_TRUE(framework_.trace().hasText(directory_.file("events.conf") + " and " +
                                         directory_.file("events.fmt") + " parsed successfully."));
  EXPECT_NE(provider->getMdl().find("OBVEvent Z 2048 +FILTER={"), std::string::npos);

  const std::string line = "Line;severity='ERROR';code='42';msg='it''s full';END";
  const std::string disk = "Disk;severity='WARN';code='7';msg='disk sda1 slow';END";
  EXPECT_EQ(eventsAfter("ERROR 42 it's full\nDEBUG 1 noise\nWARN 7 disk sda1 slow\n"),
            (Rows{{"Line", "app.log", "it's full", "ERROR", "42", line, ""},
                  {"Disk", "app.log", "disk sda1 slow", "WARN", "7", disk, ""}}));
  EXPECT_TRUE(framework_.trace().hasText("Submitting OBV event:\n" + line));
  EXPECT_TRUE(framework_.trace().containsText("Found *DISCARD* in value 2#"));

  // The END line's event too; the DEBUG line's is discarded before it is sent.
  ASSERT_TRUE(server.waitForEvents("web01:Events", 3));
  const auto forwarded = server.events("web01:Events");
  ASSERT_EQ(forwarded.size(), 3u);
  EXPECT_EQ(forwarded[0].text, line);
  EXPECT_EQ(forwarded[1].text, disk);
  EXPECT_TRUE(std::filesystem::is_directory(directory_.file("spool")));
  ASSERT_TRUE(waitUntil([&] {
    return provider->getCollectionDetail() ==
           "OBV events to 127.0.0.1:" + std::to_string(server.port()) +
               ": connected; submitted 3, acknowledged 3, pending 0, dropped 0";
  })) << provider->getCollectionDetail();
}

TEST_F(LogMonitorQrfGroupTest, WithoutTheFlagsOnlyEventRowsGo) {
  TestEventServer server;
  ASSERT_TRUE(server.start());
  writeFiles("EventServer=127.0.0.1\nEventServerPort=" + std::to_string(server.port()) + "\n");
  LogMonitorQueryClass* provider = loadGroup();
  ASSERT_NE(provider, nullptr);
  provider->start();
  // No OBVEvent text in the rows, the path in Log_File, nothing forwarded.
  EXPECT_FALSE(provider->sendsObvEvents());
  EXPECT_FALSE(provider->includesObvEventAttr());
  EXPECT_FALSE(provider->isLogNameBasename());
  EXPECT_EQ(eventsAfter("ERROR 1 x\n"),
            (Rows{{"Line", directory_.file("app.log"), "x", "ERROR", "1", "", ""}}));
  EXPECT_EQ(provider->getCollectionDetail(), "");
  EXPECT_EQ(server.connections(), 0u);
  EXPECT_FALSE(framework_.trace().containsText("Submitting OBV event"));
}

TEST_F(LogMonitorQrfGroupTest, FilesThatCannotBeUsedStopTheGroup) {
  struct Case {
    const char* why;
    const char* conf;    // XRV_CONF_FILE; null: unset
    const char* format;  // XRV_FORMAT_FILE; null: unset
    int code;
    std::string trace;
  } cases[] = {
      {"no conf file named", nullptr, nullptr, CONF_FILE_DOES_NOT_EXIST,
       "use_qrf flag is set, but no QRF config data present, top level node disabled."},
      {"a conf file that is not there", "none.conf", nullptr, CONF_FILE_DOES_NOT_EXIST,
       "OBVEmitter initialization failed, no OBV events will be sent"},
      {"a line that is not NAME=value", "bad.conf", nullptr, INVALID_CONF_FILE,
       "OBVEmitter initialization failed, no OBV events will be sent"},
      {"a directory", "dir.conf", "events.fmt", OBV_INITIALIZATION_FAILED,
       "OBVEmitter initialization failed, no OBV events will be sent"},
      {"a format file that is not there", "events.conf", "none.fmt", CANNOT_OPEN_FORMAT_FILE,
       "QRFConfig initialization failed, no QRF log monitoring will be done"},
      {"a format file with a syntax error", "events.conf", "broken.fmt",
       FORMAT_FILE_SYNTAX_ERROR,
       "QRFConfig initialization failed, no QRF log monitoring will be done"},
      {"no format file for a conf file not ending in .conf", "events.cfg", nullptr,
       CANNOT_OPEN_FORMAT_FILE, "ERROR: subnode conf file {F} does not end with .conf, can't "
                                "determine fmt file name"},
      {"no log file to watch", "empty.conf", "events.fmt", FILE_NAME_MISSING,
       "No LogSources found in conf file {F}, and syslog not configured, nothing to monitor"},
  };
  writeFiles();
  write("bad.conf", "LogSources=/x\nnot a pair\n");
  std::filesystem::create_directory(directory_.file("dir.conf"));
  write("broken.fmt", "format A\n  pattern %s\n  x $1\nend\n");
  write("events.cfg", "LogSources=/x\n");
  write("empty.conf", "NO_UTF8_CONVERSION=YES\n");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    resetConfigurationForTesting();
    setConfigurationProperty("XRV_CONF_FILE",
                             c.conf == nullptr ? nullptr : directory_.file(c.conf).c_str());
    setConfigurationProperty("XRV_FORMAT_FILE",
                             c.format == nullptr ? nullptr : directory_.file(c.format).c_str());
    LogMonitorQueryClass* provider = loadGroup();
    ASSERT_NE(provider, nullptr);
    provider->start();
    EXPECT_EQ(provider->getPerfObjectStatus(), PERF_OBJECT_INACTIVE);
    EXPECT_EQ(provider->getPerfErrorCode(), c.code) << perfObjectErrorCodeName(c.code);
    std::string trace = c.trace;
    if (const size_t at = trace.find("{F}"); at != std::string::npos) {
      trace.replace(at, 3, directory_.file(c.conf));
    }
    EXPECT_TRUE(framework_.trace().hasText(trace)) << trace;
    EXPECT_EQ(framework_.trace().hasText("QRF monitor with no QRFconfig, not starting"),
              c.code != FILE_NAME_MISSING);
    expectTraceAndForget(nullptr);
  }
}

TEST_F(LogMonitorQrfGroupTest, EachSubnodeNeedsAConfFileOfItsOwn) {
  writeFiles();
  for (const char* site : {"s2", "s3"}) {
    std::filesystem::create_directory(directory_.file(site));
    directory_.append(std::string(site) + "/app.log", "");
  }
  write("s2/site.conf", "LogSources=" + directory_.file("s2/app.log") + "\n");
  write("s2/site.fmt", kFormats);
  XRV::testing::ConfigurationFile configuration;
  ASSERT_TRUE(configuration.load("[agent]\nXRV_CONF_FILE=" + directory_.file("events.conf") +
                                 "\n[subnode LSN s1]\nOTHER=1\n[subnode LSN s2]\nXRV_CONF_FILE=" +
                                 directory_.file("s2/site.conf") +
                                 "\n[subnode LSN s3]\nXRV_CONF_FILE=" +
                                 directory_.file("s2/site.conf") + "\n"));
  LogMonitorQueryClass* provider = loadGroup(R"(pure="true" subnode_type="LSN")");
  ASSERT_NE(provider, nullptr);
  provider->start();  // the template starts nothing
  auto copyFor = [&](const char* key) {
    auto* copy = static_cast<LogMonitorQueryClass*>(provider->subnodeCopy(key, nullptr));
    adopt(copy);
    copy->start();
    return copy;
  };
  LogMonitorQueryClass* s1 = copyFor("s1");
  EXPECT_EQ(s1->getPerfErrorCode(), DUPLICATE_CONF_FILE);
  EXPECT_TRUE(framework_.trace().hasText(
      "Detected conf file " + directory_.file("events.conf") +
      " in subnode s1 which is also configured in the top level node; disabling this subnode"));
  EXPECT_TRUE(framework_.trace().hasText(
      "use_qrf flag is set, but no QRF config data present, subnode \"s1\" disabled."));

  LogMonitorQueryClass* s2 = copyFor("s2");
  EXPECT_EQ(s2->getPerfErrorCode(), OBJECT_ACTIVE);
  EXPECT_EQ(s2->getTableName(), "Events_s2");
  LogMonitorQueryClass* s3 = copyFor("s3");
  EXPECT_EQ(s3->getPerfErrorCode(), DUPLICATE_CONF_FILE);
  EXPECT_TRUE(framework_.trace().hasText(
      "Conf file " + directory_.file("s2/site.conf") +
      " is already monitored by attribute group Events subnode s2; disabling Events subnode s3"));

  // Once s2's copy is gone, s3 may have the file.
  providers_.erase(std::find_if(providers_.begin(), providers_.end(),
                                [&](const auto& p) { return p.get() == s2; }));
  s3->reset();
  EXPECT_EQ(s3->getPerfErrorCode(), OBJECT_ACTIVE);
}

TEST_F(LogMonitorQrfGroupTest, TheConfFileSetsFloodControl) {
  struct Case {
    const char* conf;
    const char* agAttributes;
    int threshold;
    int interval;
    const char* trace;
  } cases[] = {
      {"EventFloodThreshold=3\nEventSummaryInterval=60\n", "", 3, 60, nullptr},
      {"EventFloodThreshold=send_none\nEventSummaryInterval=60\n", "", EVENT_SEND_NONE, 60,
       nullptr},
      {"EventFloodThreshold=0\nEventSummaryInterval=60\n", "", EVENT_SEND_NONE, 60,
       "WARNING: invalid flood control threshold '0', treating as SEND_NONE"},
      {"EventFloodThreshold=send_first\n", "", EVENT_SEND_ALL, 0,
       "WARNING: flood control threshold set without summary interval.  Thresholds would never "
       "reset; disabling flood control"},
      // Neither key: the definition's settings stay.
      {"", R"(event_flood_threshold="send_first" event_summary_interval="600")",
       EVENT_SEND_FIRST, 600, nullptr},
      // Either key replaces both of the definition's.
      {"EventSummaryInterval=30\n",
       R"(event_flood_threshold="send_first" event_summary_interval="600")", EVENT_SEND_ALL, 30,
       nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.conf);
    writeFiles(c.conf);
    LogMonitorQueryClass* provider = loadGroup(std::string(R"(pure="true" )") + c.agAttributes);
    ASSERT_NE(provider, nullptr);
    provider->start();
    EXPECT_EQ(provider->getFloodThreshold(), c.threshold);
    EXPECT_EQ(provider->getSummaryInterval(), c.interval);
    expectTraceAndForget(c.trace);
  }
}

// Three lines of one severity, the third of class Disk: which are duplicates depends
// on the keys.
TEST_F(LogMonitorQrfGroupTest, DuplicateKeysDecideWhatFloodControlCounts) {
  struct Case {
    const char* keys;  // DupDetectionKeyAttributes; null: unset
    std::vector<std::string> expected;
    std::vector<std::string> used;
    const char* trace;
  } cases[] = {
      // The group has no key attributes: every event is a duplicate of the first.
      {nullptr, {"a"}, {}, nullptr},
      {"Class", {"a", "disk c"}, {"Class"}, "Using metric Class as a dup detection key"},
      {"Class, msg", {"a", "b", "disk c"}, {"Class", "msg"}, nullptr},
      {"CustomSlot1,Nope", {"a"}, {"CustomSlot1"}, "ERROR: Ignoring unknown metric: Nope"},
      {"Nope", {"a"}, {},
       "DupDetectionKeyAttributes contained no valid attribute names, defaulting to built-in "
       "keys"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.keys == nullptr ? "unset" : c.keys);
    writeFiles("EventFloodThreshold=send_first\nEventSummaryInterval=600\n" +
               std::string(c.keys == nullptr ? "" : std::string("DupDetectionKeyAttributes=") +
                                                         c.keys + "\n"));
    LogMonitorQueryClass* provider = loadGroup();
    ASSERT_NE(provider, nullptr);
    provider->start();
    EXPECT_EQ(provider->getDupDetectionKeys(), c.used);
    const size_t before = events("Events").size();
    directory_.append("app.log", "ERROR 1 a\nERROR 2 b\nERROR 3 disk c\n");
    // Flood control decided on all three (and sent those it sends after deciding).
    const auto decisions = [&] {
      size_t count = 0;
      for (const std::string& text : framework_.trace().texts()) {
        count += text.starts_with("EVENT_SEND_") ? 1 : 0;
      }
      return count;
    };
    ASSERT_TRUE(waitUntil([&] {
      return decisions() == 3 && events("Events", before).size() >= c.expected.size();
    }));
    std::vector<std::string> messages;
    for (const auto& row : events("Events", before)) {
      messages.push_back(row[2]);
    }
    EXPECT_EQ(messages, c.expected);
    expectTraceAndForget(c.trace);
  }
}

TEST_F(LogMonitorQrfGroupTest, ChangedFilesArePickedUpAtTheNextCollection) {
  writeFiles();
  LogMonitorQueryClass* provider = loadGroup();
  ASSERT_NE(provider, nullptr);
  provider->start();
  EXPECT_EQ(eventsAfter("ERROR 1 special one\n"),
            (Rows{{"Line", directory_.file("app.log"), "special one", "ERROR", "1", "", ""}}));
  // Nothing changed: a collection resets nothing.
  provider->collectData(nullptr);
  EXPECT_FALSE(provider->isResetPending());
  EXPECT_FALSE(framework_.trace().containsText("has changed, updating"));

  struct Step {
    const char* why;
    const char* file;
    std::string text;
    const char* trace;
    Rows expected;
  } steps[] = {
      {"a new class in the format file", "events.fmt",
       std::string(kFormats) + "format Special extends Line\n  pattern %s %s special %s*\nend\n",
       "fmt file {F} has changed, updating",
       {{"Special", directory_.file("app.log"), "two", "ERROR", "2", "", ""}}},
      {"the event text in the rows, by the conf file", "events.conf",
       "LogSources=" + directory_.file("app.log") + "\nIncludeOBVEventAttr=yes\n",
       "conf file {F} has changed, updating",
       {{"Special", directory_.file("app.log"), "two", "ERROR", "2",
         "Special;severity='ERROR';code='2';msg='two';END", ""}}},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.why);
    write(step.file, step.text);
    const size_t before = events("Events").size();
    provider->collectData(nullptr);
    std::string trace = step.trace;
    trace.replace(trace.find("{F}"), 3, directory_.file(step.file));
    EXPECT_TRUE(framework_.trace().hasText(trace)) << trace;
    ASSERT_TRUE(waitUntil([&] { return !provider->isResetPending() && provider->isMdlLoaded(); }));
    EXPECT_EQ(provider->getPerfErrorCode(), OBJECT_ACTIVE);
    EXPECT_EQ(eventsAfter("ERROR 2 special two\n", before), step.expected);
  }
}

}  // namespace
