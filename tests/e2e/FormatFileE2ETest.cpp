// Format-file log monitor groups as an operator runs them: the real agent generates
// the MDL of qrf-agent.xml's group from a conf file and a format file in a directory of
// the test's own, the real log engine follows a growing log, every record becomes an
// event row of its format's class (GET /api/v1/events) and its OBV event goes to a test
// event server, through server outages and agent restarts.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "AgentHttp.h"
#include "AgentProcess.h"
#include "TestEventServer.h"
#include "support/Files.h"
#include "support/TempDirectory.h"

namespace XRV::e2e {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;
using XRV::testing::TempDirectory;
using XRV::testing::TestEventServer;

const std::string kDefinition = E2E_DIR "/qrf-agent.xml";
const char kGroup[] = "Log_Events";
const char kToken[] = "qrf-token";
const char kHost[] = "e2ehost";  // CTAFW_HOSTNAME: the stream is e2ehost:Log_Events

// A Java application's log: one line per message, an exception with its stack trace as
// one record, request lines with a status, and DEBUG lines that are dropped.
const char kFormats[] = R"(format Java_Log
  pattern %s %s %s [%s] %s - %s*
  time = printf("%s %s", date, clock)
  hidden date = $1
  hidden clock = $2
  severity = $3
  logger = $5
  msg = $6
  map severity to CustomSlot1
  map logger to CustomSlot2
  map %XRV_FILENAME% to CustomSlot3
end

format Java_Exception extends Java_Log
  regex ^(\d{4}-\d\d-\d\d) (\d\d:\d\d:\d\d,\d{3}) (ERROR|WARN) +\[([^\]]*)\] (\S+) - ([^\n]*)\n([\w.$]+)(?:: ([^\n]*))?([\s\S]*)$
  exception = $7
  reason = $8
  hidden trace = $9
  msg = printf("%s: %s", exception, reason)
  map exception to CustomSlot2
end

format Request
  pattern %s %s REQUEST %s %s
  path = $3
  status = $4
  msg = printf("%s gave %s", path, status)
  map status to CustomInteger1
end

format *DISCARD*
  pattern %s %s DEBUG %s*
end
)";

// "2024-10-12 10:01:NN,000 INFO [main] com.example.Main - TEXT"
std::string infoLine(int second, const std::string& text) {
  char stamp[32];
  snprintf(stamp, sizeof stamp, "2024-10-12 10:01:%02d,000", second % 60);
  return std::string(stamp) + " INFO [main] com.example.Main - " + text + "\n";
}

// The directory of one test: the log, the conf and format files, the agent's
// configuration, the event spool and the read positions.
class FormatFileSite {
 public:
  FormatFileSite() { directory_.append("app.log", ""); }

  // events.conf with `more` after the keys every test has; events.fmt; agent.ini.
  void write(const std::string& more, const std::string& settings = "") {
    std::ofstream(file("events.conf"), std::ios::trunc)
        << "LogSources=" << file("app.log") << "\nNO_UTF8_CONVERSION=YES\n" << more;
    std::ofstream(file("events.fmt"), std::ios::trunc) << kFormats;
    std::ofstream(file("agent.ini"), std::ios::trunc)
        << "[agent]\nXRV_CONF_FILE = " << file("events.conf")
        << "\nCDP_DP_CACHE_TTL = 1\nXRV_LOG_POSITIONS_DIR = " << file("positions") << "\n"
        << settings;
  }
  AgentOptions agent(std::vector<std::pair<std::string, std::string>> environment = {}) const {
    environment.emplace_back("XRV_ADMIN_TOKEN", kToken);
    environment.emplace_back("CTAFW_HOSTNAME", kHost);
    return AgentOptions{kDefinition, file("agent.ini"), std::move(environment)};
  }
  std::string file(const std::string& name) const { return directory_.file(name); }
  bool append(const std::string& lines) const { return directory_.append("app.log", lines); }

 private:
  TempDirectory directory_{"/tmp/xrv-e2eqrf-"};
};

std::string serverKeys(const TestEventServer& server) {
  return "EventServer=127.0.0.1\nEventServerPort=" + std::to_string(server.port()) +
         "\nEventSpoolDirectory=spool\nIncludeOBVEventAttr=Y\n";
}

std::string stream() { return std::string(kHost) + ":" + kGroup; }

// The Collection_Detail of the group, once it contains `fragment` (or the time is up).
std::string detailOnce(const AgentProcess& agent, const std::string& fragment) {
  std::string detail;
  getWhen(agent, "/api/v1/tables/Performance_Object_Status", [&](const json& answer) {
    for (const json& row : answer.is_object() ? answer["rows"] : json::array()) {
      if (row["Query_Name"] == kGroup) {
        detail = row.value("Collection_Detail", "");
      }
    }
    return detail.find(fragment) != std::string::npos;
  });
  return detail;
}

TEST(FormatFileE2E, RecordsBecomeClassedEventsAndReachTheEventServerOnce) {
  TestEventServer server;
  ASSERT_TRUE(server.start());
  FormatFileSite site;
  site.write(serverKeys(server), "XRV_SEND_OBV_EVENTS = Y\n");
  std::vector<std::string> sent;  // the OBVEvent texts of the rows, in order

  {
    AgentProcess agent(site.agent());
    ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
    ASSERT_EQ(statusOnce(agent, kGroup, "OBJECT_ACTIVE").value("Error_Code_Name", ""),
              "OBJECT_ACTIVE");
    const std::string log = site.file("app.log");

    SCOPED_TRACE("classes, slots and custom attributes");
    ASSERT_TRUE(site.append(
        infoLine(0, "started") + "2024-10-12 10:01:01,000 DEBUG [main] x - noise\n" +
        "2024-10-12 10:01:01,500 REQUEST /cart 503\n" +
        "2024-10-12 10:01:02,123 ERROR [main] com.example.Checkout - payment failed\n"
        "java.lang.IllegalStateException: card declined\n"
        "\tat com.example.Checkout.pay(Checkout.java:42)\n"
        "\tat com.example.Main.main(Main.java:7)\n" +
        infoLine(3, "done")));
    const json events = eventsOf(agent, kGroup, 0, 4);
    ASSERT_EQ(events.size(), 4u) << events;
    struct Expected {
      const char* wskClass;
      const char* msg;
      const char* slot1;
      const char* slot2;
      std::string slot3;
      int integer1;
      std::string text;
    } expected[] = {
        {"Java_Log", "started", "INFO", "com.example.Main", log, 0,
         "Java_Log;time='2024-10-12 10:01:00,000';severity='INFO';logger='com.example.Main';"
         "msg='started';XRV_FILENAME='" + log + "';END"},
        {"Request", "/cart gave 503", "", "", "", 503,
         "Request;path='/cart';status='503';msg='/cart gave 503';END"},
        {"Java_Exception", "java.lang.IllegalStateException: card declined", "ERROR",
         "java.lang.IllegalStateException", log, 0,
         "Java_Exception;time='2024-10-12 10:01:02,123';severity='ERROR';"
         "logger='com.example.Checkout';msg='java.lang.IllegalStateException: card declined';"
         "XRV_FILENAME='" + log + "';exception='java.lang.IllegalStateException';"
         "reason='card declined';END"},
        {"Java_Log", "done", "INFO", "com.example.Main", log, 0, ""},
    };
    for (size_t i = 0; i < 4; ++i) {
      SCOPED_TRACE(i);
      const json& row = events[i]["row"];
      EXPECT_EQ(row["Class"], expected[i].wskClass);
      EXPECT_EQ(row["msg"], expected[i].msg);
      EXPECT_EQ(row["CustomSlot1"], expected[i].slot1);
      EXPECT_EQ(row["CustomSlot2"], expected[i].slot2);
      EXPECT_EQ(row["CustomSlot3"], expected[i].slot3);
      EXPECT_EQ(row["CustomInteger1"], expected[i].integer1);
      EXPECT_EQ(row["Log_File"], log);
      if (!expected[i].text.empty()) {
        EXPECT_EQ(row["OBVEvent"], expected[i].text);
      }
    }
    sent = column<std::string>(events, "OBVEvent");
    ASSERT_TRUE(server.waitForEvents(stream(), 4));

    SCOPED_TRACE("events while the event server is down, then across an agent restart");
    server.stop(true);
    EXPECT_NE(detailOnce(agent, "not connected").find("OBV events to 127.0.0.1:"),
              std::string::npos);
    ASSERT_TRUE(site.append(infoLine(4, "while the server is down") + infoLine(5, "still down")));
    const json down = eventsOf(agent, kGroup, 0, 6);
    ASSERT_EQ(down.size(), 6u) << down;
    sent.push_back(down[4]["row"]["OBVEvent"]);
    sent.push_back(down[5]["row"]["OBVEvent"]);
    std::string why;
    ASSERT_TRUE(stopAgent(agent, kToken, &why)) << why;
  }
  ASSERT_TRUE(site.append(infoLine(6, "while the agent is down")));
  AgentProcess agent(site.agent());
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  ASSERT_TRUE(site.append(infoLine(7, "after the restart")));
  const json later = eventsOf(agent, kGroup, 0, 2);
  ASSERT_EQ(later.size(), 2u) << later;
  for (const std::string& text : column<std::string>(later, "OBVEvent")) {
    sent.push_back(text);
  }
  ASSERT_TRUE(server.start());
  ASSERT_TRUE(server.waitForEvents(stream(), sent.size(), 30));
  std::this_thread::sleep_for(milliseconds(300));  // anything sent twice would be here by now
  const std::vector<XRV::testing::ServerEvent> received = server.events(stream());
  ASSERT_EQ(received.size(), sent.size());
  for (size_t i = 0; i < received.size(); ++i) {
    EXPECT_EQ(received[i].seq, i + 1);
    EXPECT_EQ(received[i].text, sent[i]);
  }
  EXPECT_EQ(server.duplicates(stream()), 0u);
  // Acknowledged in this run: the two the first run left in the spool, and its own two.
  EXPECT_EQ(detailOnce(agent, "pending 0"),
            "OBV events to 127.0.0.1:" + std::to_string(server.port()) +
                ": connected; submitted 2, acknowledged 4, pending 0, dropped 0");
}

// The nice value of each of the agent's threads.
std::vector<int> threadNiceValues(pid_t pid) {
  std::vector<int> values;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) +
                                                              "/task")) {
    const std::string stat = XRV::testing::readFile(task.path().string() + "/stat");
    // The fields after the command's closing parenthesis; the nice value is the 19th
    // field of the line, the 17th after it.
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    for (int i = 0; i < 17 && fields >> field; ++i) {
    }
    values.push_back(atoi(field.c_str()));
  }
  return values;
}

TEST(FormatFileE2E, ChangedFilesArePickedUpAtTheNextCollection) {
  FormatFileSite site;
  site.write("ProcessPriorityClass=b\n", "CDP_LOG_EVENTS_REFRESH_INTERVAL = 1\n");
  AgentProcess agent(site.agent({{"XRV_TRACE", "detail:LogMonitorQueryClass::*"}}));
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  ASSERT_EQ(statusOnce(agent, kGroup, "OBJECT_ACTIVE").value("Error_Code_Name", ""),
            "OBJECT_ACTIVE");
  // ProcessPriorityClass=b: nice 10 for every thread (unless the test runs nicer still:
  // the agent may not lower it).
  errno = 0;
  const int ours = getpriority(PRIO_PROCESS, 0);
  const std::vector<int> nice = threadNiceValues(agent.pid());
  EXPECT_EQ(nice, std::vector<int>(nice.size(), std::max(10, errno == 0 ? ours : 0)));
  ASSERT_TRUE(site.append(infoLine(0, "before")));
  ASSERT_EQ(column<std::string>(eventsOf(agent, kGroup, 0, 1), "Class"),
            std::vector<std::string>{"Java_Log"});

  // A new class in the format file, and the conf file's event text in the rows.
  std::ofstream(site.file("events.fmt"), std::ios::app)
      << "format Startup extends Java_Log\n  pattern %s %s %s [%s] %s - started %s*\nend\n";
  std::ofstream(site.file("events.conf"), std::ios::app) << "IncludeOBVEventAttr=Y\n";
  // The next collection (within a second) resets the group, which then loads anew.
  const auto deadline = std::chrono::steady_clock::now() + seconds(15);
  std::string trace;
  do {
    std::this_thread::sleep_for(milliseconds(100));
    trace = agent.trace();
  } while (std::chrono::steady_clock::now() < deadline &&
           (trace.find("fmt file " + site.file("events.fmt") + " has changed, updating") ==
                std::string::npos ||
            trace.rfind("xpw initialization complete") < trace.rfind("has changed, updating")));
  ASSERT_NE(trace.find("conf file " + site.file("events.conf") + " has changed, updating"),
            std::string::npos);
  ASSERT_GT(trace.rfind("xpw initialization complete"), trace.rfind("has changed, updating"));
  ASSERT_TRUE(site.append(infoLine(1, "started again")));
  const json events = eventsOf(agent, kGroup, 0, 2);
  ASSERT_EQ(events.size(), 2u) << events;
  EXPECT_EQ(events[1]["row"]["Class"], "Startup");
  EXPECT_EQ(events[1]["row"]["OBVEvent"],
            "Startup;time='2024-10-12 10:01:01,000';severity='INFO';logger='com.example.Main';"
            "msg='again';XRV_FILENAME='" + site.file("app.log") + "';END");
}

// examples/definitions/format-files.xml as its .ini says to run it, from the top of the
// repository: each subnode reads its conf and format file and runs its table, whether
// or not the machine has the logs.
TEST(FormatFileE2E, TheExampleDefinitionRunsASubnodePerConfFile) {
  AgentProcess agent(AgentOptions{EXAMPLES_DIR "/definitions/format-files.xml",
                                  EXAMPLES_DIR "/definitions/format-files.ini",
                                  {{"CDP_BINPATH", EXAMPLES_DIR "/.."},
                                   {"CDP_DP_CACHE_TTL", "1"},
                                   {"XRV_TRACE", "detail:LogMonitorQueryClass::initQRF"}}});
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  for (const char* key : {"access", "syslog"}) {
    SCOPED_TRACE(key);
    const json status = statusOnce(agent, kGroup, "OBJECT_ACTIVE", key);
    EXPECT_EQ(status.value("Object_Status_Name", ""), "PERF_OBJECT_ACTIVE") << status;
    const std::string conf = std::string("examples/formats/") +
                             (std::string(key) == "access" ? "apache-access" : "syslog");
    EXPECT_NE(agent.trace().find(conf + ".conf and " + conf + ".fmt parsed successfully."),
              std::string::npos);
  }
}

}  // namespace
}  // namespace XRV::e2e
