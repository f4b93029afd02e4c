// Scripts over SSH as an operator runs them: the real agent runs one script group on
// subnodes whose sections name a host and a login, all against a real OpenSSH sshd of
// the test's own (tests/support/test-sshd) on a free loopback port, and reports each
// subnode's rows and error code over HTTP.

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "AgentHttp.h"
#include "AgentProcess.h"
#include "support/Files.h"
#include "support/SshServer.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace XRV::e2e {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;
using XRV::testing::readFile;
using XRV::testing::SshServer;
using XRV::testing::TempDirectory;
using Section = std::map<std::string, std::string>;

const std::string kDefinition = E2E_DIR "/ssh-agent.xml";

// The processes whose command line contains `marker`.
std::set<std::string> processesRunning(const std::string& marker) {
  std::set<std::string> found;
  DIR* proc = opendir("/proc");
  while (dirent* entry = proc == nullptr ? nullptr : readdir(proc)) {
    if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') {
      std::string line = readFile(std::string("/proc/") + entry->d_name + "/cmdline");
      std::replace(line.begin(), line.end(), '\0', ' ');
      if (line.find(marker) != std::string::npos) {
        found.insert(entry->d_name);
      }
    }
  }
  if (proc != nullptr) {
    closedir(proc);
  }
  return found;
}

class SshE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!sshd_.available()) {
      GTEST_SKIP() << sshd_.reason();
    }
    std::ofstream(knownHosts_) << sshd_.knownHostsLine();
  }

  // A login to the test's sshd with the user's key.
  Section keyLogin(const std::string& site) const {
    return {{"SSH_HOSTNAME", "127.0.0.1"},
            {"SSH_PORT", std::to_string(sshd_.port())},
            {"SSH_USERID", "root"},
            {"SSH_AUTH_TYPE", "PUBLICKEY"},
            {"SSH_PRIV_KEYFILE", sshd_.privateKey()},
            {"SITE", site}};
  }
  Section passwordLogin(const std::string& site, const std::string& password) const {
    Section section = keyLogin(site);
    section.erase("SSH_PRIV_KEYFILE");
    section["SSH_AUTH_TYPE"] = "PASSWORD";
    section["SSH_PASSWORD"] = password;
    return section;
  }

  // The agent with one [subnode SSH KEY] section per entry of `subnodes`.
  AgentOptions options(const std::map<std::string, Section>& subnodes) const {
    const std::string configuration = scratch_.file("agent.ini");
    std::ofstream out(configuration, std::ios::trunc);
    out << "[agent]\nCDP_DP_THREAD_POOL_SIZE = 8\nCDP_DP_REFRESH_INTERVAL = 3600\n"
        << "CDP_REMOTE_PROBE_REFRESH_INTERVAL = 1\nCDP_DP_CACHE_TTL = 3600\n"
        << "CDP_PERFORMANCE_OBJECT_STATUS_CACHE_TTL = 1\nCDP_DP_SCRIPT_TIMEOUT = 10\n"
        << "CDP_SSH_RECONNECT_MAX_DELAY = 1\n"
        << "CDP_BINPATH = " << E2E_DIR << "\n"
        << "CDP_SSH_KNOWN_HOSTS = " << knownHosts_ << "\n"
        << "CDP_SSH_TEMP_DIRECTORY = " << scratch_.file("remote") << "\n";
    for (const auto& [key, section] : subnodes) {
      out << "\n[subnode SSH " << key << "]\n";
      for (const auto& [name, value] : section) {
        out << name << " = " << value << "\n";
      }
    }
    return AgentOptions{kDefinition, configuration, {}};
  }

  // The Performance_Object_Status row of Remote_Probe on subnode `key`, once its error
  // code is `code` (or the time is up).
  static json statusOnce(const AgentProcess& agent, const std::string& key, const std::string& code,
                         milliseconds timeout = seconds(15)) {
    auto find = [&](const json& answer) {
      for (const json& row : answer.is_object() ? answer["rows"] : json::array()) {
        if (row["Query_Name"] == "Remote_Probe" && row["Subnode_Key"] == key) {
          return row;
        }
      }
      return json();
    };
    const json answer = getWhen(
        agent, "/api/v1/tables/Performance_Object_Status",
        [&](const json& a) { return find(a).value("Error_Code_Name", "") == code; }, timeout);
    return find(answer);
  }

  // The rows of Remote_Probe on subnode `key`, once there are some.
  static json rowsOf(const AgentProcess& agent, const std::string& key) {
    const json answer = getWhen(agent, "/api/v1/tables/Remote_Probe?node=RV:" + key + ":SSH",
                                [](const json& a) { return a.is_object() && !a["rows"].empty(); });
    return answer.is_object() ? answer["rows"] : json::array();
  }

  SshServer sshd_;
  TempDirectory scratch_;
  std::string knownHosts_ = scratch_.file("known_hosts");
};

TEST_F(SshE2E, ScriptGroupRunsOnTwoSubnodesOfOneHostWithDifferentLogins) {
  Section bypassword = passwordLogin("second site", SshServer::password());
  bypassword["SSH_DISCONNECT_SESSION"] = "Y";
  AgentProcess agent(options({{"bykey", keyLogin("first site")}, {"bypassword", bypassword}}));
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();

  const json byKey = rowsOf(agent, "bykey");
  ASSERT_EQ(byKey.size(), 1u) << byKey;
  EXPECT_EQ(byKey[0]["Site"], "first site");
  EXPECT_EQ(byKey[0]["User"], "root");
  EXPECT_EQ(byKey[0]["Probe"], "probe ran in remote");  // the uploaded command file
  EXPECT_EQ(byKey[0]["ORIGINNODE"], "RV:bykey:SSH");
  const json byPassword = rowsOf(agent, "bypassword");
  ASSERT_EQ(byPassword.size(), 1u) << byPassword;
  EXPECT_EQ(byPassword[0]["Site"], "second site");
  EXPECT_EQ(byPassword[0]["Probe"], "probe ran in remote");

  for (const char* key : {"bykey", "bypassword"}) {
    SCOPED_TRACE(key);
    const json status = statusOnce(agent, key, "OBJECT_ACTIVE");
    EXPECT_EQ(status.value("Error_Code_Name", ""), "OBJECT_ACTIVE") << status;
    EXPECT_EQ(status.value("Object_Type", 0), 20);  // a script over SSH
  }
  // The key login keeps its session; the other logs in for every collection.
  std::this_thread::sleep_for(seconds(3));
  const std::string log = sshd_.log();
  size_t keyLogins = 0;
  size_t passwordLogins = 0;
  for (size_t at = log.find("Accepted "); at != std::string::npos;
       at = log.find("Accepted ", at + 1)) {
    keyLogins += log.compare(at, 18, "Accepted publickey") == 0 ? 1 : 0;
    passwordLogins += log.compare(at, 17, "Accepted password") == 0 ? 1 : 0;
  }
  EXPECT_EQ(keyLogins, 1u) << log;
  EXPECT_GE(passwordLogins, 3u) << log;
}

TEST_F(SshE2E, FailuresAreReportedPerSubnodeAndThePasswordNowhere) {
  const std::string otherKey = scratch_.file("other_host_key");
  ASSERT_EQ(system(("ssh-keygen -q -t ed25519 -N '' -f " + otherKey).c_str()), 0);
  std::ofstream(scratch_.file("changed_hosts"))
      << "[127.0.0.1]:" << sshd_.port() << " " << readFile(otherKey + ".pub");
  std::ofstream(scratch_.file("empty_hosts")) << "";
  Section unknownKey = keyLogin("unknown");
  unknownKey["CDP_SSH_KNOWN_HOSTS"] = scratch_.file("empty_hosts");
  Section changedKey = keyLogin("changed");
  changedKey["CDP_SSH_KNOWN_HOSTS"] = scratch_.file("changed_hosts");
  changedKey["SSH_ACCEPT_NEW_HOST_KEY"] = "Y";  // a changed key is refused all the same
  Section slow = keyLogin("slow");
  slow["MODE"] = "slow";
  AgentProcess agent(options({{"healthy", keyLogin("healthy")},
                              {"wrongpassword", passwordLogin("w", "Wrong-Secret-42")},
                              {"unknownkey", unknownKey},
                              {"changedkey", changedKey},
                              {"slow", slow}}));
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();

  EXPECT_EQ(statusOnce(agent, "healthy", "OBJECT_ACTIVE").value("Error_Code_Name", ""),
            "OBJECT_ACTIVE");
  const json wrong = statusOnce(agent, "wrongpassword", "AUTHENTICATION_FAILED");
  EXPECT_EQ(wrong.value("Error_Code_Name", ""), "AUTHENTICATION_FAILED") << wrong;
  EXPECT_NE(wrong.value("Last_Standard_Error", "").find("refused the password"), std::string::npos)
      << wrong;
  const json unknown = statusOnce(agent, "unknownkey", "CONNECTION_FAILURE");
  EXPECT_EQ(unknown.value("Error_Code_Name", ""), "CONNECTION_FAILURE") << unknown;
  EXPECT_NE(unknown.value("Last_Standard_Error", "").find("is not in"), std::string::npos)
      << unknown;
  const json changed = statusOnce(agent, "changedkey", "CONNECTION_FAILURE");
  EXPECT_EQ(changed.value("Error_Code_Name", ""), "CONNECTION_FAILURE") << changed;
  EXPECT_NE(changed.value("Last_Standard_Error", "").find("has changed"), std::string::npos)
      << changed;
  EXPECT_EQ(readFile(scratch_.file("empty_hosts")), "");  // nothing trusted on the way

  // The slow command outlives its 10 s: TIMEOUT, and it ends on the remote host too.
  // (The next collection starts another one: the first one's processes must go.)
  std::set<std::string> first;
  ASSERT_TRUE(XRV::testing::waitUntil(
      [&] { return !(first = processesRunning("sleep 41.5")).empty(); }, 10));
  const json timedOut = statusOnce(agent, "slow", "TIMEOUT", seconds(20));
  EXPECT_EQ(timedOut.value("Error_Code_Name", ""), "TIMEOUT") << timedOut;
  EXPECT_TRUE(XRV::testing::waitUntil(
      [&] {
        const std::set<std::string> now = processesRunning("sleep 41.5");
        return std::none_of(first.begin(), first.end(),
                            [&](const std::string& pid) { return now.count(pid) != 0; });
      },
      5));

  // The password is in no answer of the API and no line of the trace.
  for (const char* path : {"/api/v1/tables/Performance_Object_Status", "/api/v1/nodes",
                           "/api/v1/tables", "/api/v1/tables/Ssh_Hosts", "/metrics"}) {
    SCOPED_TRACE(path);
    const auto [status, body] = get(agent, path);
    EXPECT_EQ(body.dump().find("Wrong-Secret-42"), std::string::npos);
  }
  EXPECT_EQ(agent.trace().find("Wrong-Secret-42"), std::string::npos);
  EXPECT_EQ(agent.standardError().find("Wrong-Secret-42"), std::string::npos);
}

TEST_F(SshE2E, HostThatGoesDownIsReportedAndRecovers) {
  AgentProcess agent(options({{"host", keyLogin("up")}}));
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  ASSERT_EQ(statusOnce(agent, "host", "OBJECT_ACTIVE").value("Error_Code_Name", ""),
            "OBJECT_ACTIVE");

  sshd_.stop();  // the host and its sessions go
  const json down = statusOnce(agent, "host", "REMOTE_HOST_UNAVAILABLE");
  EXPECT_EQ(down.value("Error_Code_Name", ""), "REMOTE_HOST_UNAVAILABLE") << down;
  EXPECT_NE(down.value("Last_Standard_Error", "").find("cannot connect"), std::string::npos)
      << down;

  ASSERT_TRUE(sshd_.start()) << sshd_.reason();
  const json up = statusOnce(agent, "host", "OBJECT_ACTIVE");
  EXPECT_EQ(up.value("Error_Code_Name", ""), "OBJECT_ACTIVE") << up;
  EXPECT_TRUE(agent.running());
}

TEST_F(SshE2E, ExampleDefinitionCollectsFromItsHosts) {
  // The example's sections, pointed at the test's sshd: one key and one password login.
  const std::string configuration = scratch_.file("remote-hosts.ini");
  std::ofstream(configuration)
      << "[agent]\nCDP_BINPATH = " << EXAMPLES_DIR << "/definitions\n"
      << "CDP_DP_THREAD_POOL_SIZE = 4\nCDP_DP_REFRESH_INTERVAL = 3600\n"
      << "CDP_SSH_KNOWN_HOSTS = " << scratch_.file("learnt_hosts") << "\n"
      << "CDP_SSH_TEMP_DIRECTORY = " << scratch_.file("remote") << "\n"
      << "\n[subnode RHO web01]\nSSH_HOSTNAME = 127.0.0.1\nSSH_PORT = " << sshd_.port()
      << "\nSSH_USERID = root\nSSH_AUTH_TYPE = PUBLICKEY\nSSH_PRIV_KEYFILE = " << sshd_.privateKey()
      << "\nSSH_ACCEPT_NEW_HOST_KEY = Y\n"
      << "\n[subnode RHO db01]\nSSH_HOSTNAME = 127.0.0.1\nSSH_PORT = " << sshd_.port()
      << "\nSSH_USERID = root\nSSH_AUTH_TYPE = PASSWORD\nSSH_PASSWORD = " << SshServer::password()
      << "\nSSH_ACCEPT_NEW_HOST_KEY = Y\n";
  AgentProcess agent(AgentOptions{EXAMPLES_DIR "/definitions/remote-hosts.xml", configuration, {}});
  ASSERT_TRUE(agent.waitUntilServing()) << agent.standardError();
  for (const char* node : {"RV:web01:RHO", "RV:db01:RHO"}) {
    SCOPED_TRACE(node);
    auto rows = [&](const std::string& group) {
      const json answer =
          getWhen(agent, "/api/v1/tables/" + group + "?node=" + node,
                  [](const json& a) { return a.is_object() && !a["rows"].empty(); });
      return answer.is_object() ? answer["rows"] : json::array();
    };
    const json load = rows("Remote_Load");
    ASSERT_EQ(load.size(), 1u) << load;
    EXPECT_GE(load[0].value("Runnable_Tasks", 0), 1) << load;
    const json memory = rows("Remote_Memory");  // from the uploaded remote-memory.sh
    ASSERT_EQ(memory.size(), 1u) << memory;
    EXPECT_GT(memory[0].value("Total_KB", 0LL), 0) << memory;
    EXPECT_GE(memory[0].value("Used_KB", -1LL), 0) << memory;
    const json fileSystems = rows("Remote_File_Systems");
    EXPECT_TRUE(std::any_of(fileSystems.begin(), fileSystems.end(), [](const json& row) {
      return row["Mount_Point"] == "/";
    })) << fileSystems;
  }
  EXPECT_NE(readFile(scratch_.file("learnt_hosts")).find("[127.0.0.1]:"), std::string::npos);
}

}  // namespace
}  // namespace XRV::e2e
