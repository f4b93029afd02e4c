// Log monitor groups as an operator runs them: the real agent loads the real log
// engine, follows files in a directory of the test's own (LOG_DIR, named in the
// configuration) and serves what the files say as event rows (GET /api/v1/events and
// the event stream), as tables and as the status of its groups.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "AgentHttp.h"
#include "AgentProcess.h"
#include "support/Files.h"
#include "support/TempDirectory.h"

namespace XRV::e2e {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;
using LogDirectory = XRV::testing::TempDirectory;
using XRV::testing::readFile;

const std::string kDefinition = E2E_DIR "/log-agent.xml";
const std::string kConfiguration = E2E_DIR "/log-agent.ini";

// The agent of log-agent.xml over the files of `logs`. Its configuration file is
// log-agent.ini with an [agent] section that names LOG_DIR, followed by `settings`.
AgentOptions logAgent(const LogDirectory& logs, const std::string& settings = "",
                      std::vector<std::pair<std::string, std::string>> environment = {}) {
  const std::string configuration = logs.file("agent.ini");
  std::ofstream out(configuration, std::ios::trunc);
  out << readFile(kConfiguration) << "\n[agent]\nLOG_DIR = " << logs.path() << "\n" << settings;
  return AgentOptions{kDefinition, configuration, std::move(environment)};
}

// ERROR lines of the application log: "ERROR;N;TEXT N" for each N of [from, to].
std::string errorLines(int from, int to, const std::string& text) {
  std::string lines;
  for (int n = from; n <= to; ++n) {
    lines += "ERROR;" + std::to_string(n) + ";" + text + " " + std::to_string(n) + "\n";
  }
  return lines;
}

// Lines of the flood log: "CODE N" for each N of [from, to].
std::string floodLines(const std::string& code, int from, int to) {
  std::string lines;
  for (int n = from; n <= to; ++n) {
    lines += code + " " + std::to_string(n) + "\n";
  }
  return lines;
}

// Waits until each of `groups` follows its files: its status is OBJECT_ACTIVE.
void waitUntilFollowing(const AgentProcess& agent, std::initializer_list<const char*> groups) {
  for (const char* group : groups) {
    ASSERT_EQ(statusOnce(agent, group, "OBJECT_ACTIVE").value("Error_Code_Name", ""),
              "OBJECT_ACTIVE")
        << group;
  }
}

// The Log_File_Status rows of `group`.
std::vector<json> fileStatusOf(const AgentProcess& agent, const std::string& group) {
  std::vector<json> rows;
  const json answer = get(agent, "/api/v1/tables/Log_File_Status").second;
  for (const json& row : answer.is_object() ? answer["rows"] : json::array()) {
    if (row["Attribute_Group"] == group) {
      rows.push_back(row);
    }
  }
  return rows;
}

// The events an event stream (`path`) sends, its `data:` objects, until `count` came
// or `timeout` passed.
std::vector<json> streamedEvents(int port, const std::string& path, size_t count, seconds timeout) {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(timeout.count(), 0);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::string text;
  std::vector<json> events;
  client.Get(path, [&](const char* data, size_t length) {
    text.append(data, length);
    for (size_t end = text.find("\n\n"); end != std::string::npos; end = text.find("\n\n")) {
      const std::string message = text.substr(0, end + 1);
      text.erase(0, end + 2);
      const size_t at = message.find("\ndata: ");
      if (message.find("\nevent: event\n") != std::string::npos && at != std::string::npos) {
        const size_t from = at + 7;
        events.push_back(json::parse(message.substr(from, message.find('\n', from) - from)));
      }
    }
    return events.size() < count && std::chrono::steady_clock::now() < deadline;
  });
  return events;
}

TEST(LogMonitorE2E, AppendedLinesBecomeEventsAndSamples) {
  LogDirectory logs("/tmp/xrv-e2elog-");
  for (const char* file : {"app.log", "queues-a.log", "queues-b.log"}) {
    ASSERT_TRUE(logs.append(file, ""));
  }
  AgentProcess agent(logAgent(logs));
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  ASSERT_NO_FATAL_FAILURE(waitUntilFollowing(agent, {"App_Events", "Queue_Depths"}));
  const std::string origin = originNode(agent);
  const std::string appLog = logs.file("app.log");

  {
    SCOPED_TRACE("event rows, in the ring and on the stream");
    const uint64_t since = nextEvent(agent, "App_Events");
    auto stream = std::async(std::launch::async, [&] {
      return streamedEvents(agent.port(),
                            "/api/v1/events/stream?group=App_Events&since=" + std::to_string(since),
                            2, seconds(10));
    });
    // INFO does not pass the filter of Level.
    ASSERT_TRUE(logs.append("app.log", "ERROR;42;disk full\nINFO;1;started\nWARN;7;slow disk\n"));
    const json events = eventsOf(agent, "App_Events", since, 2);
    ASSERT_EQ(events.size(), 2u) << events;
    const json expected = json::array({{{"ORIGINNODE", origin},
                                        {"Level", "ERROR"},
                                        {"Code", 42},
                                        {"Message", "disk full"},
                                        {"Log_File", appLog},
                                        {"Log_Kind", "application"}},
                                       {{"ORIGINNODE", origin},
                                        {"Level", "WARN"},
                                        {"Code", 7},
                                        {"Message", "slow disk"},
                                        {"Log_File", appLog},
                                        {"Log_Kind", "application"}}});
    for (size_t i = 0; i < events.size(); ++i) {
      EXPECT_EQ(events[i]["group"], "App_Events");
      EXPECT_EQ(events[i]["node"], origin);
      EXPECT_EQ(events[i]["row"], expected[i]);
    }
    const std::vector<json> streamed = stream.get();
    EXPECT_EQ(json(streamed), events) << "the stream sends what the ring lists";
  }

  {
    SCOPED_TRACE("a rotation by rename");
    const uint64_t since = nextEvent(agent, "App_Events");
    ASSERT_TRUE(logs.append("app.log", errorLines(1, 5, "rotation")));
    ASSERT_EQ(eventsOf(agent, "App_Events", since, 5).size(), 5u);
    // The logger goes on writing into the renamed file until it opens the new one;
    // the engine has not necessarily read lines 6 to 10 before the rename.
    const int logger = open(appLog.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_GE(logger, 0);
    const std::string before = errorLines(6, 8, "rotation");
    const std::string after = errorLines(9, 10, "rotation");
    EXPECT_EQ(write(logger, before.data(), before.size()), static_cast<ssize_t>(before.size()));
    ASSERT_EQ(rename(appLog.c_str(), logs.file("app.log.1").c_str()), 0);
    EXPECT_EQ(write(logger, after.data(), after.size()), static_cast<ssize_t>(after.size()));
    close(logger);
    ASSERT_TRUE(logs.append("app.log", errorLines(11, 13, "rotation")));

    const json events = eventsOf(agent, "App_Events", since, 13);
    std::vector<int> expected;
    for (int n = 1; n <= 13; ++n) {
      expected.push_back(n);
    }
    EXPECT_EQ(column<int>(events, "Code"), expected) << "each line once, in order";
    EXPECT_EQ(column<std::string>(events, "Log_File"),
              std::vector<std::string>(events.size(), appLog));
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(eventsOf(agent, "App_Events", since, 14, milliseconds(0)).size(), 13u);
  }

  {
    SCOPED_TRACE("a sampled group: the last complete sample of each file");
    const std::string a = logs.file("queues-a.log");
    const std::string b = logs.file("queues-b.log");
    auto row = [&](const char* queue, int depth, const std::string& file) {
      return json{{"ORIGINNODE", origin}, {"Queue", queue}, {"Depth", depth}, {"Log_File", file}};
    };
    auto rowsWhen = [&](const json& expected) {
      return getWhen(
          agent, "/api/v1/tables/Queue_Depths",
          [&](const json& answer) { return answer.is_object() && answer["rows"] == expected; },
          seconds(10))["rows"];
    };
    // Two writes to queues-a.log, the second well within 2 s of the first: one
    // sample, whether the engine reads them in one pass or in two.
    ASSERT_TRUE(logs.append("queues-a.log", "inbound;3\noutbound;5\n"));
    ASSERT_TRUE(logs.append("queues-b.log", "inbound;40\n"));
    ASSERT_TRUE(logs.append("queues-a.log", "retry;1\n"));
    json expected = json::array(
        {row("inbound", 3, a), row("outbound", 5, a), row("retry", 1, a), row("inbound", 40, b)});
    ASSERT_EQ(rowsWhen(expected), expected);
    // A record 2 s after the last one starts a new sample, which replaces that file's
    // sample only. (The rows were seen, so their records had arrived.)
    std::this_thread::sleep_for(milliseconds(2100));
    ASSERT_TRUE(logs.append("queues-a.log", "inbound;9\n"));
    expected = json::array({row("inbound", 9, a), row("inbound", 40, b)});
    EXPECT_EQ(rowsWhen(expected), expected);
  }
}

// Two groups follow one file; each sends the first event of a run of duplicates (same
// Code), then send_first none and the other every third, and once per summary
// interval (3 s) the event that stood for a run again, as its summary. After a
// summary the counting starts anew. The summaries of both groups come at the same
// moments (they were queued together); a run written right after one lies within
// one interval.
TEST(LogMonitorE2E, FloodControlCountsDuplicateLines) {
  LogDirectory logs("/tmp/xrv-e2elog-");
  ASSERT_TRUE(logs.append("flood.log", ""));
  AgentProcess agent(logAgent(logs));
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  ASSERT_NO_FATAL_FAILURE(waitUntilFollowing(agent, {"Flood_First", "Flood_Third"}));
  const uint64_t first = nextEvent(agent, "Flood_First");
  const uint64_t third = nextEvent(agent, "Flood_Third");
  struct Step {
    const char* why;
    std::string lines;
    std::vector<int> sendFirst;  // Seq of the events each group sent, summaries last
    std::vector<int> everyThird;
  };
  const Step steps[] = {
      // One event, and its summary: after it, an interval lies ahead.
      {"a single line", floodLines("A", 1, 1), {1, 1}, {1, 1}},
      // Seven duplicates: the 1st (count 0), then counts 3 and 6; the summary is the 1st.
      {"a run of seven", floodLines("B", 1, 7), {1, 1}, {1, 4, 7, 1}},
      // The summary ended the run: B counts from 0 again.
      {"the same code after its summary", floodLines("B", 8, 11), {8, 8}, {8, 11, 8}},
  };
  std::vector<int> sentFirst;
  std::vector<int> sentThird;
  for (const Step& step : steps) {
    SCOPED_TRACE(step.why);
    ASSERT_TRUE(logs.append("flood.log", step.lines));
    sentFirst.insert(sentFirst.end(), step.sendFirst.begin(), step.sendFirst.end());
    sentThird.insert(sentThird.end(), step.everyThird.begin(), step.everyThird.end());
    const json byFirst = eventsOf(agent, "Flood_First", first, sentFirst.size());
    const json byThird = eventsOf(agent, "Flood_Third", third, sentThird.size());
    EXPECT_EQ(column<int>(byFirst, "Seq"), sentFirst) << byFirst;
    EXPECT_EQ(column<int>(byThird, "Seq"), sentThird) << byThird;
    ASSERT_FALSE(HasFailure());
  }
}

// The states of the files reach Performance_Object_Status and Log_File_Status; each
// subnode's copy runs a table of its own, its MDL header rewritten.
TEST(LogMonitorE2E, GroupsReportTheirFilesAndSubnodesRunTablesOfTheirOwn) {
  LogDirectory logs("/tmp/xrv-e2elog-");
  for (const char* file : {"north.log", "south.log"}) {
    ASSERT_TRUE(logs.append(file, ""));
  }
  AgentProcess agent(
      logAgent(logs, "", {{"XRV_TRACE", "detail:LogMonitorQueryClass::startEngineAndLoad"}}));
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  const std::string origin = originNode(agent);

  {
    SCOPED_TRACE("a file missing at the start, and made later");
    EXPECT_EQ(statusOnce(agent, "Late_Log", "FILE_OFFLINE").value("Object_Status_Name", ""),
              "PERF_OBJECT_INACTIVE");
    std::vector<json> files = fileStatusOf(agent, "Late_Log");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0]["File_Name"], logs.file("late.log"));
    EXPECT_EQ(files[0]["File_Status"], "WAITING");

    const uint64_t since = nextEvent(agent, "Late_Log");
    ASSERT_TRUE(logs.append("late.log", "first line\nsecond line\n"));
    EXPECT_EQ(statusOnce(agent, "Late_Log", "OBJECT_ACTIVE").value("Object_Status_Name", ""),
              "PERF_OBJECT_ACTIVE");
    // Without TAIL a file that turns up is read from its top.
    EXPECT_EQ(column<std::string>(eventsOf(agent, "Late_Log", since, 2), "Message"),
              (std::vector<std::string>{"first line", "second line"}));
    files = fileStatusOf(agent, "Late_Log");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0]["File_Status"], "FOLLOWING");
  }

  {
    SCOPED_TRACE("an empty file name");
    const json unnamed = statusOnce(agent, "Unnamed_Log", "FILE_NAME_MISSING");
    EXPECT_EQ(unnamed.value("Error_Code_Name", ""), "FILE_NAME_MISSING") << unnamed;
    EXPECT_EQ(unnamed.value("Object_Status_Name", ""), "PERF_OBJECT_INACTIVE");
    EXPECT_TRUE(fileStatusOf(agent, "Unnamed_Log").empty());
  }

  {
    SCOPED_TRACE("subnodes");
    const json nodes = getWhen(agent, "/api/v1/nodes", [](const json& n) { return n.size() == 3; });
    ASSERT_EQ(nodes.size(), 3u) << nodes;
    struct Site {
      const char* key;
      const char* msn;
    } sites[] = {{"north", "RV:north:LSN"}, {"south", "RV:south:LSN"}};
    for (const Site& site : sites) {
      EXPECT_EQ(
          statusOnce(agent, "Site_Log", "OBJECT_ACTIVE", site.key).value("Error_Code_Name", ""),
          "OBJECT_ACTIVE")
          << site.key;
    }
    // The template runs no table: one row per copy, under the copy's table.
    std::vector<json> files = fileStatusOf(agent, "Site_Log");
    std::sort(files.begin(), files.end(),
              [](const json& l, const json& r) { return l["Subnode_Key"] < r["Subnode_Key"]; });
    ASSERT_EQ(files.size(), 2u) << json(files);
    const std::string trace = agent.trace();
    for (size_t i = 0; i < 2; ++i) {
      const std::string key = sites[i].key;
      EXPECT_EQ(files[i]["Table_Name"], "Site_Log_" + key);
      EXPECT_EQ(files[i]["Subnode_Key"], key);
      EXPECT_EQ(files[i]["File_Name"], logs.file(key + ".log"));
      const std::string header = "Loading mdl of table Site_Log_" + key + ":\n//APPL XRV_LSN_" +
                                 key + "\n//NAME Site_Log_" + key + " E\n//SOURCE FILE '" +
                                 logs.file(key + ".log") + "' TAIL\n";
      EXPECT_NE(trace.find(header), std::string::npos) << header;
    }

    const uint64_t since = nextEvent(agent, "Site_Log");
    ASSERT_TRUE(logs.append("north.log", "north one\n"));
    const json events = eventsOf(agent, "Site_Log", since, 1);
    ASSERT_EQ(events.size(), 1u) << events;
    ASSERT_TRUE(logs.append("south.log", "south one\n"));
    const json both = eventsOf(agent, "Site_Log", since, 2);
    ASSERT_EQ(both.size(), 2u) << both;
    for (size_t i = 0; i < 2; ++i) {
      const std::string key = sites[i].key;
      EXPECT_EQ(both[i]["node"], sites[i].msn);
      EXPECT_EQ(both[i]["row"], (json{{"ORIGINNODE", sites[i].msn},
                                      {"Message", key + " one"},
                                      {"Log_File", logs.file(key + ".log")}}));
    }
  }
}

// With XRV_LOG_POSITIONS_DIR in its configuration file, an agent stopped in the middle
// of a file and started again reads on from where it stopped: the lines written while
// it was down arrive, none twice. (Without it, TAIL would start at the end again.)
TEST(LogMonitorE2E, TheAgentRestartedMidFileResumesWhereItStopped) {
  LogDirectory logs("/tmp/xrv-e2elog-");
  const std::string positions = logs.file("positions");  // made by the agent
  ASSERT_TRUE(logs.append("app.log", errorLines(0, 0, "before the agent")));
  const std::string settings = "XRV_LOG_POSITIONS_DIR = " + positions + "\n";
  {
    AgentProcess agent(logAgent(logs, settings, {{"XRV_ADMIN_TOKEN", "log-token"}}));
    ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
    ASSERT_NO_FATAL_FAILURE(waitUntilFollowing(agent, {"App_Events"}));
    ASSERT_TRUE(logs.append("app.log", errorLines(1, 3, "first run")));
    EXPECT_EQ(column<int>(eventsOf(agent, "App_Events", 0, 3), "Code"),
              (std::vector<int>{1, 2, 3}));
    // The orderly stop: every table is read to its end and its position saved.
    std::string why;
    ASSERT_TRUE(stopAgent(agent, "log-token", &why)) << why;
  }
  bool saved = false;
  for (const auto& entry : std::filesystem::directory_iterator(positions)) {
    saved = saved || entry.path().filename().string().starts_with("App_Events.");
  }
  EXPECT_TRUE(saved) << "no read position of App_Events in " << positions;

  ASSERT_TRUE(logs.append("app.log", errorLines(4, 6, "while down")));
  AgentProcess agent(logAgent(logs, settings));
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  EXPECT_EQ(column<int>(eventsOf(agent, "App_Events", 0, 3), "Code"), (std::vector<int>{4, 5, 6}));
  ASSERT_TRUE(logs.append("app.log", errorLines(7, 7, "second run")));
  EXPECT_EQ(column<int>(eventsOf(agent, "App_Events", 0, 4), "Code"),
            (std::vector<int>{4, 5, 6, 7}));
}

}  // namespace
}  // namespace XRV::e2e
