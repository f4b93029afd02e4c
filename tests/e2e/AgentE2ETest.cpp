// The agent as an operator runs it: the real xrv-agent process, its tables read over
// HTTP, its signals and its two ways out.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "AgentHttp.h"
#include "AgentProcess.h"
#include "support/Files.h"
#include "support/SpawnedProcess.h"
#include "support/Wait.h"

namespace XRV::e2e {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kDefinition = E2E_DIR "/e2e-agent.xml";
const std::string kConfiguration = E2E_DIR "/e2e-agent.ini";

AgentOptions e2eAgent(std::vector<std::pair<std::string, std::string>> environment = {}) {
  return AgentOptions{kDefinition, kConfiguration, std::move(environment)};
}

std::string describe(int status) {
  if (WIFEXITED(status)) {
    return "exit status " + std::to_string(WEXITSTATUS(status));
  }
  if (WIFSIGNALED(status)) {
    return "signal " + std::to_string(WTERMSIG(status));
  }
  return "wait status " + std::to_string(status);
}

TEST(AgentE2E, ServesScriptGroupsAsTables) {
  AgentProcess agent(e2eAgent());
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();

  auto [status, tables] = get(agent, "/api/v1/tables");
  ASSERT_EQ(status, 200);
  ASSERT_EQ(tables.size(), 7u) << tables;
  EXPECT_EQ(tables[0]["group"], "Static_Rows");
  EXPECT_EQ(tables[0]["table"], "XRVSTAT");
  EXPECT_EQ(tables[4]["subnode_type"], "E2E");

  auto [nodesStatus, nodes] = get(agent, "/api/v1/nodes");
  ASSERT_EQ(nodesStatus, 200);
  const std::string origin = nodes[0]["msn"];
  EXPECT_EQ(nodes[0]["main"], true);
  EXPECT_TRUE(origin.ends_with(":XR")) << origin;

  auto [rowsStatus, rows] = get(agent, "/api/v1/tables/Static_Rows");
  ASSERT_EQ(rowsStatus, 200) << rows;
  EXPECT_EQ(rows["group"], "Static_Rows");
  EXPECT_EQ(rows["node"], origin);
  json expected = json::parse(R"([{"Name":"alpha","Small":-1,"Big":10},
                                  {"Name":"beta","Small":2,"Big":8589934592}])");
  expected[0]["ORIGINNODE"] = origin;
  expected[1]["ORIGINNODE"] = origin;
  EXPECT_EQ(rows["rows"], expected);

  // The built-in status groups report on the providers and the pool.
  const json pool = get(agent, "/api/v1/tables/Thread_Pool_Status").second;
  ASSERT_EQ(pool["rows"].size(), 1u) << pool;
  EXPECT_EQ(pool["rows"][0]["Thread_Pool_Size"], 2);
  const json statuses = get(agent, "/api/v1/tables/Performance_Object_Status").second;
  bool staticReported = false;
  for (const json& row : statuses["rows"]) {
    if (row["Query_Name"] == "Static_Rows") {
      staticReported = true;
      EXPECT_EQ(row["Error_Code_Name"], "OBJECT_ACTIVE");
    }
  }
  EXPECT_TRUE(staticReported) << statuses;
}

TEST(AgentE2E, EachSubnodeSeesItsOwnSection) {
  AgentProcess agent(e2eAgent());
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  const json nodes = getWhen(agent, "/api/v1/nodes", [](const json& n) { return n.size() == 3; });
  ASSERT_EQ(nodes.size(), 3u) << nodes;
  EXPECT_EQ(nodes[1]["msn"], "RV:one:E2E");
  EXPECT_EQ(nodes[1]["type"], "E2E");
  EXPECT_EQ(nodes[1]["online"], true);
  EXPECT_EQ(nodes[2]["msn"], "RV:two:E2E");

  struct Case {
    const char* msn;
    const char* site;
    int port;
  } cases[] = {{"RV:one:E2E", "first", 8001}, {"RV:two:E2E", "second", 8002}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.msn);
    auto [status, answer] = get(agent, std::string("/api/v1/tables/Site_Info?node=") + c.msn);
    ASSERT_EQ(status, 200) << answer;
    EXPECT_EQ(answer["node"], c.msn);
    ASSERT_EQ(answer["rows"].size(), 1u) << answer;
    EXPECT_EQ(answer["rows"][0]["ORIGINNODE"], c.msn);
    EXPECT_EQ(answer["rows"][0]["Site"], c.site);
    EXPECT_EQ(answer["rows"][0]["Port"], c.port);
  }
  // A history request covers every subnode.
  const json history = get(agent, "/api/v1/tables/Site_Info?type=HISTORICAL_SITUATION").second;
  ASSERT_EQ(history["rows"].size(), 2u) << history;
  EXPECT_EQ(get(agent, "/api/v1/tables/Site_Info?node=RV:three:E2E").first, 404);
}

TEST(AgentE2E, TheRefreshThreadMovesACachedGroup) {
  AgentProcess agent(e2eAgent());
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  auto count = [&] {
    const json answer = get(agent, "/api/v1/tables/Counter").second;
    return answer["rows"].size() == 1 ? answer["rows"][0]["Count"].get<int64_t>() : -1;
  };
  // Requests are served from the cache: five of them move the counter by at most the
  // one background collection that may fall between them.
  const int64_t first = count();
  ASSERT_GE(first, 1);
  int64_t last = first;
  for (int i = 0; i < 4; ++i) {
    last = count();
  }
  EXPECT_LE(last - first, 1);
  // The refresh thread collects every second.
  std::this_thread::sleep_for(milliseconds(2500));
  EXPECT_GE(count() - last, 1);
}

TEST(AgentE2E, BrokenDefinitionIsFatal) {
  AgentProcess agent(AgentOptions{E2E_DIR "/broken-agent.xml", "", {}});
  int status = 0;
  ASSERT_TRUE(agent.waitForExit(seconds(15), &status));
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << describe(status);
  EXPECT_EQ(agent.standardError(), "Fatal Error (-1) Detected. Exiting\n");
  EXPECT_EQ(agent.standardOutput(), "");  // it never served
}

TEST(AgentE2E, SigtermWhileScriptsRunEndsTheWholeGroup) {
  AgentProcess agent(e2eAgent());
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  // The request waits for a script that runs 30 seconds, with a child of its own.
  auto request = std::async(std::launch::async, [&] { return get(agent, "/api/v1/tables/Slow"); });
  auto sleeping = [&] {
    int count = 0;
    for (const std::string& member : processGroupMembers(agent.pid())) {
      count += member.ends_with(" sleep");
    }
    return count;
  };
  XRV::testing::waitUntil([&] { return sleeping() >= 2; });
  ASSERT_EQ(sleeping(), 2) << "the script did not start";

  ASSERT_EQ(kill(agent.pid(), SIGTERM), 0);
  int status = 0;
  ASSERT_TRUE(agent.waitForExit(seconds(5), &status));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << describe(status);
  std::this_thread::sleep_for(seconds(1));
  const std::vector<std::string> left = processGroupMembers(agent.pid());
  EXPECT_TRUE(left.empty()) << "left: " << ::testing::PrintToString(left);
  // The request ended with the agent: cut off, or (when the answer got out first) with
  // no rows, the script having been killed.
  const auto [requestStatus, answer] = request.get();
  if (requestStatus != 0) {
    EXPECT_EQ(requestStatus, 200);
    EXPECT_EQ(answer["rows"].size(), 0u) << answer;
  }
}

TEST(AgentE2E, SighupAndSigpipeAreIgnored) {
  AgentProcess agent(e2eAgent({{"XRV_TRACE", "detail:CleanUp"}}));
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  for (int signal : {SIGHUP, SIGPIPE, SIGHUP}) {
    ASSERT_EQ(kill(agent.pid(), signal), 0);
  }
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_TRUE(agent.running());
  EXPECT_EQ(get(agent, "/api/v1/tables/Static_Rows").first, 200);
  const std::string trace = agent.trace();
  EXPECT_NE(trace.find("Ignoring received signal: 1"), std::string::npos) << trace;
  EXPECT_NE(trace.find("Ignoring received signal: 13"), std::string::npos) << trace;
}

TEST(AgentE2E, XrvctlQueriesAndStopsTheAgent) {
  AgentProcess agent(e2eAgent({{"XRV_ADMIN_TOKEN", "ctl-token"}}));
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  int status = 0;
  // xrvctl `command` on this agent, with `arguments`; its standard output.
  auto xrvctl = [&](const std::string& command, const std::string& arguments = "") {
    return XRV::testing::commandOutput(
        std::string(XRVCTL) + " " + command + " --url " + agent.url() + arguments, &status);
  };
  const std::string table = xrvctl("query", " Static_Rows");
  EXPECT_EQ(status, 0);
  EXPECT_NE(table.find("Static_Rows (XRVSTAT): 2 rows"), std::string::npos) << table;
  EXPECT_NE(table.find("beta"), std::string::npos) << table;

  ASSERT_EQ(getWhen(agent, "/api/v1/nodes", [](const json& n) { return n.size() == 3; }).size(),
            3u);
  const json sites = json::parse(
      xrvctl("query", " Site_Info --node RV:two:E2E --format json"),
      nullptr, false);
  EXPECT_EQ(status, 0);
  ASSERT_TRUE(sites.is_array()) << sites;
  EXPECT_EQ(sites[0]["rows"][0]["Site"], "second") << sites;

  xrvctl("query", " Nothing 2>&1");
  EXPECT_EQ(WEXITSTATUS(status), 1);
  const std::string refused =
      xrvctl("stop", " --token bad 2>&1");
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_NE(refused.find("HTTP 401"), std::string::npos) << refused;

  EXPECT_TRUE(agent.running());

  // No source of this definition sends events: none held, and a follower waits for
  // them without holding up the stop.
  EXPECT_EQ(xrvctl("events"), "");
  EXPECT_EQ(status, 0);
  const std::string unknown =
      xrvctl("events", " --group Nothing 2>&1");
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_NE(unknown.find("unknown attribute group: Nothing"), std::string::npos) << unknown;
  XRV::testing::SpawnedProcess follower({XRVCTL, "events", "--url", agent.url(), "--follow"});
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_EQ(follower.exitStatus(0), -1);

  const auto stopping = std::chrono::steady_clock::now();
  xrvctl("stop", " --token ctl-token");
  EXPECT_EQ(status, 0);
  ASSERT_TRUE(agent.waitForExit(seconds(10), &status));
  EXPECT_LT(std::chrono::steady_clock::now() - stopping, seconds(5));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << describe(status);
  // The orderly road, not the signal one.
  EXPECT_EQ(agent.trace().find("Termination signal received"), std::string::npos);
}

TEST(AgentE2E, XrvctlStopEndsTheAgentWhileAScriptHangs) {
  AgentProcess agent(e2eAgent({{"XRV_ADMIN_TOKEN", "ctl-token"}}));
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  // The request waits for a script that runs 30 seconds (its time-out is longer).
  auto request = std::async(std::launch::async, [&] { return get(agent, "/api/v1/tables/Slow"); });
  XRV::testing::waitUntil(
      [&] { return std::filesystem::exists(agent.stateDirectory() + "/slow-started"); });
  std::this_thread::sleep_for(milliseconds(200));  // the shell is in its sleep
  const auto stopping = std::chrono::steady_clock::now();
  int status = 0;
  XRV::testing::commandOutput(std::string(XRVCTL) + " stop --url " + agent.url() + " --token ctl-token", &status);
  EXPECT_EQ(status, 0);
  ASSERT_TRUE(agent.waitForExit(seconds(5), &status)) << "still waiting for the script";
  EXPECT_LT(std::chrono::steady_clock::now() - stopping, seconds(5));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << describe(status);
  request.wait();
}

TEST(AgentE2E, TheDemoRuns) {
  AgentProcess agent(
      AgentOptions{EXAMPLES_DIR "/demo/demo.xml", EXAMPLES_DIR "/demo/demo.ini", {}});
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  // Without the demo script no writer runs: the log groups wait for their files.
  EXPECT_EQ(get(agent, "/api/v1/tables").second.size(), 18u);
  const json nodes = getWhen(agent, "/api/v1/nodes", [](const json& n) { return n.size() == 3; });
  ASSERT_EQ(nodes.size(), 3u) << nodes;
  const json temp = get(agent, "/api/v1/tables/Directory_Usage?node=RV:temp:DIR").second;
  ASSERT_EQ(temp["rows"].size(), 1u) << temp;
  EXPECT_EQ(temp["rows"][0]["Path"], "/tmp");
  EXPECT_EQ(get(agent, "/api/v1/tables/Demo_Items").second["rows"].size(), 100u);
  const json counter = get(agent, "/api/v1/tables/Demo_Counter").second;
  ASSERT_EQ(counter["rows"].size(), 1u) << counter;
  EXPECT_GE(counter["rows"][0]["Count"], 1);
  // The agent finds itself in the process table.
  const json processes = get(agent, "/api/v1/tables/Agent_Processes").second;
  bool self = false;
  for (const json& row : processes["rows"]) {
    self = self || (row["Rule"] == "agent" && row["PID"] == agent.pid());
  }
  EXPECT_TRUE(self) << processes;
  const json services = get(agent, "/api/v1/tables/Service_Availability").second;
  ASSERT_EQ(services["rows"].size(), 4u) << services;
  EXPECT_EQ(services["rows"][0]["Rule"], "agent");
  EXPECT_NE(services["rows"][0]["Status"], "DOWN");
  EXPECT_EQ(get(agent, "/healthz").first, 200);
}

}  // namespace
}  // namespace XRV::e2e
