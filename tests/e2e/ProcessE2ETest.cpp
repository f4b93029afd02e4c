// The process data sources as an operator runs them: the real agent on the example
// definition examples/definitions/processes.xml, reading the machine's /proc, its
// tables read over HTTP. The agent finds itself among the processes.

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include <nlohmann/json.hpp>

#include "AgentHttp.h"
#include "AgentProcess.h"

namespace XRV::e2e {
namespace {

using nlohmann::json;

// The rows of `table` whose `column` is `value`.
json rowsWhere(const json& table, const std::string& column, const json& value) {
  json found = json::array();
  for (const json& row : table["rows"]) {
    if (row[column] == value) {
      found.push_back(row);
    }
  }
  return found;
}

TEST(ProcessE2E, TheExampleDefinitionShowsTheAgentAndTheMachinesProcesses) {
  AgentProcess agent(AgentOptions{EXAMPLES_DIR "/definitions/processes.xml", "", {}});
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();

  // The agent's own process, with every column of its type.
  const json daemons = get(agent, "/api/v1/tables/Daemon_Processes").second;
  const json self = rowsWhere(daemons, "PID", agent.pid());
  ASSERT_EQ(self.size(), 1u) << daemons;
  const json& row = self[0];
  EXPECT_EQ(row["Rule"], "agent");
  EXPECT_EQ(row["Parent_PID"].get<int>(), getpid());
  if (geteuid() == 0) {
    EXPECT_EQ(row["User"], "root");
  }
  EXPECT_TRUE(row["State"] == "S" || row["State"] == "R") << row;
  for (const char* number : {"CPU_Percent", "User_CPU_Percent", "System_CPU_Percent",
                             "Age_Seconds", "Read_Bytes", "Write_Bytes"}) {
    EXPECT_TRUE(row[number].is_number() && row[number].get<long long>() >= 0) << number << row;
  }
  EXPECT_GT(row["Resident_KB"].get<long long>(), 1000) << row;
  EXPECT_GT(row["Virtual_KB"].get<long long>(), row["Resident_KB"].get<long long>());
  EXPECT_GE(row["Threads"].get<int>(), 3) << "the main, refresh and HTTP threads at least";
  EXPECT_GE(row["Open_Descriptors"].get<int>(), 4) << row;
  EXPECT_EQ(row["Start_Time"].get<std::string>().size(), 16u) << row;
  EXPECT_NE(row["Command_Line"].get<std::string>().find("xrv-agent"), std::string::npos);

  // Is the agent up? One row says so. Other tests' agents may run beside this one.
  const json availability = get(agent, "/api/v1/tables/Service_Availability").second;
  ASSERT_EQ(availability["rows"].size(), 5u) << availability;
  const json up = rowsWhere(availability, "Rule", "agent");
  ASSERT_EQ(up.size(), 1u);
  EXPECT_TRUE(up[0]["Status"] == "UP" || up[0]["Status"] == "TOO_MANY") << up;
  EXPECT_GE(up[0]["Process_Count"].get<int>(), 1);
  EXPECT_EQ(up[0]["Minimum_Instances"], 1);
  EXPECT_EQ(up[0]["Status_Since"].get<std::string>().size(), 16u);
  for (const json& service : availability["rows"]) {
    EXPECT_EQ(service["Status"] == "DOWN", service["Process_Count"] == 0) << service;
  }

  // The ten busiest processes, busiest first.
  const json top = get(agent, "/api/v1/tables/Top_Processes").second;
  ASSERT_EQ(top["rows"].size(), 10u) << top;
  for (size_t i = 1; i < top["rows"].size(); ++i) {
    EXPECT_GE(top["rows"][i - 1]["CPU_Percent"].get<long long>(),
              top["rows"][i]["CPU_Percent"].get<long long>());
    EXPECT_GT(top["rows"][i]["PID"].get<int>(), 0);
  }

  const json byUser = get(agent, "/api/v1/tables/Memory_By_User").second;
  ASSERT_EQ(byUser["rows"].size(), 3u) << byUser;
  const json root = rowsWhere(byUser, "Rule", "root");
  ASSERT_EQ(root.size(), 1u);
  EXPECT_GE(root[0]["Process_Count"].get<int>(), 1);
  EXPECT_GT(root[0]["Resident_KB"].get<long long>(), 0);

  // The groups report their kind and their state.
  const json statuses = get(agent, "/api/v1/tables/Performance_Object_Status").second;
  for (const char* group : {"Service_Availability", "Daemon_Processes", "Top_Processes",
                            "Memory_By_User"}) {
    const json status = rowsWhere(statuses, "Query_Name", group);
    ASSERT_EQ(status.size(), 1u) << group << statuses;
    EXPECT_EQ(status[0]["Object_Type"], std::string(group) == "Service_Availability" ? 22 : 18);
    EXPECT_EQ(status[0]["Object_Status_Name"], "PERF_OBJECT_ACTIVE") << group;
    EXPECT_EQ(status[0]["Error_Code_Name"], "OBJECT_ACTIVE") << group;
  }
}

}  // namespace
}  // namespace XRV::e2e
