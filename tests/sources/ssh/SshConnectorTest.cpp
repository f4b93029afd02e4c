// The SSH connector against a real OpenSSH sshd of the test's own (SshServer): logins,
// kept sessions, command files, host keys, failures and their codes, time-outs that
// end the remote command, and hosts that go down and come back.

#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "foundation/HashMap.h"
#include "framework/Configuration.h"
#include "provider/PerfObject.h"
#include "sources/ssh/LibsshConnector.h"
#include "sources/ssh/SshSessionPool.h"
#include "support/Files.h"
#include "support/SshServer.h"
#include "support/TempDirectory.h"
#include "support/TraceCapture.h"
#include "support/Wait.h"

namespace {

using XRV::testing::readFile;
using XRV::testing::SshServer;
using XRV::testing::TempDirectory;
using Settings = std::map<std::string, std::string>;
using Clock = std::chrono::steady_clock;

// One sshd for the whole program (starting it costs a few hundred milliseconds),
// stopped when the program ends.
SshServer& server() {
  static SshServer instance;
  return instance;
}

// A subnode's configuration section as the provider hands it over.
class Section {
 public:
  explicit Section(const Settings& settings) {
    for (const auto& [name, value] : settings) {
      map_.put(strdup(name.c_str()), strdup(value.c_str()));
    }
  }
  ~Section() { map_.foreach (hashMapFreeKeyData, nullptr); }
  HashMap* map() { return &map_; }

 private:
  HashMap map_;
};

// The outcome of one run.
struct RunResult {
  int result = -1;
  std::string out;
  std::string err;
  int exitStatus = -1;
  double seconds = 0;
};

RunResult runOn(SshConnector& connector, const std::string& command, int timeout = 10) {
  RunResult run;
  char* out = nullptr;
  char* err = nullptr;
  const auto start = Clock::now();
  run.result = connector.runScript(command.c_str(), &out, &err, timeout, &run.exitStatus);
  run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  run.out = out == nullptr ? "" : out;
  run.err = err == nullptr ? "" : err;
  free(out);
  free(err);
  return run;
}

// Whether a process whose command line contains `marker` runs on the machine.
bool processRuns(const std::string& marker) {
  DIR* proc = opendir("/proc");
  bool found = false;
  while (dirent* entry = proc == nullptr ? nullptr : readdir(proc)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9' || atoi(entry->d_name) == getpid()) {
      continue;
    }
    std::string line = readFile(std::string("/proc/") + entry->d_name + "/cmdline");
    std::replace(line.begin(), line.end(), '\0', ' ');
    found = found || line.find(marker) != std::string::npos;
  }
  if (proc != nullptr) {
    closedir(proc);
  }
  return found;
}

int count(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++n;
  }
  return n;
}

class SshConnectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!server().available()) {
      GTEST_SKIP() << server().reason();
    }
    if (!server().running()) {
      ASSERT_TRUE(server().start()) << server().reason();
    }
    installSshSupport();
    std::ofstream(knownHosts_) << server().knownHostsLine();
  }

  // Settings of a connection to the test's sshd with the user's key.
  Settings keyLogin() const {
    return {{"SSH_HOSTNAME", "127.0.0.1"},
            {"SSH_PORT", std::to_string(server().port())},
            {"SSH_USERID", "root"},
            {"SSH_AUTH_TYPE", "PUBLICKEY"},
            {"SSH_PRIV_KEYFILE", server().privateKey()},
            {"CDP_SSH_KNOWN_HOSTS", knownHosts_},
            {"CDP_SSH_TEMP_DIRECTORY", scratch_.file("remote")}};
  }
  Settings passwordLogin(const std::string& type = "PASSWORD",
                         const std::string& password = SshServer::password()) const {
    Settings settings = keyLogin();
    settings.erase("SSH_PRIV_KEYFILE");
    settings["SSH_AUTH_TYPE"] = type;
    settings["SSH_PASSWORD"] = password;
    return settings;
  }
  std::unique_ptr<LibsshConnector> connector(const Settings& settings) {
    auto made = std::make_unique<LibsshConnector>("G");
    Section section(settings);
    made->resetConfig("SSH", section.map());
    return made;
  }

  TempDirectory scratch_;
  std::string knownHosts_ = scratch_.file("known_hosts");
};

TEST_F(SshConnectorTest, LogsInWithEachMethodAndCapturesTheRun) {
  struct Case {
    const char* name;
    Settings settings;
    const char* accepted;  // sshd's log line of the login
  };
  const Case cases[] = {
      {"public key", keyLogin(), "Accepted publickey for root"},
      {"password", passwordLogin(), "Accepted password for root"},
      {"keyboard-interactive", passwordLogin("keyboard-interactive"),
       "Accepted keyboard-interactive/pam for root"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const int before = count(server().log(), c.accepted);
    auto ssh = connector(c.settings);
    EXPECT_FALSE(ssh->isInErrorState()) << ssh->getErrorMessage();
    const RunResult run = runOn(*ssh, "echo \"out $(id -un)\"; echo problem >&2; exit 3");
    EXPECT_EQ(run.result, 0) << ssh->getErrorMessage();
    EXPECT_EQ(run.out, "out root\n");
    EXPECT_EQ(run.err, "problem\n");
    EXPECT_EQ(run.exitStatus, 3);
    EXPECT_EQ(ssh->getErrorCode(), OBJECT_ACTIVE);
    // A second run takes the kept session: no second login.
    EXPECT_EQ(runOn(*ssh, "true").result, 0);
    EXPECT_EQ(count(server().log(), c.accepted), before + 1) << server().log();
    EXPECT_EQ(SshSessionPool::instance().idleSessions(*ssh->target()), 1u);
  }
}

TEST_F(SshConnectorTest, DisconnectSessionLogsInForEveryCommand) {
  Settings settings = keyLogin();
  settings["SSH_DISCONNECT_SESSION"] = "Y";
  auto ssh = connector(settings);
  const int before = count(server().log(), "Accepted publickey for root");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(runOn(*ssh, "echo " + std::to_string(i)).out, std::to_string(i) + "\n");
  }
  EXPECT_EQ(count(server().log(), "Accepted publickey for root"), before + 3);
  EXPECT_EQ(SshSessionPool::instance().idleSessions(*ssh->target()), 0u);
}

TEST_F(SshConnectorTest, ExportsTheSubnodeSettingsButNotTheConnection) {
  Settings settings = passwordLogin();
  settings["DB_NAME"] = "sales db";
  auto ssh = connector(settings);
  const RunResult run = runOn(*ssh, "echo \"$DB_NAME|$CDP_SSH_TEMP_DIRECTORY\"; env");
  ASSERT_EQ(run.result, 0) << ssh->getErrorMessage();
  EXPECT_EQ(run.out.substr(0, run.out.find('\n')), "sales db|" + scratch_.file("remote"));
  EXPECT_EQ(run.out.find(SshServer::password()), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("SSH_HOSTNAME"), std::string::npos) << run.out;
}

TEST_F(SshConnectorTest, UploadsCommandFilesOncePerSession) {
  const std::string script = scratch_.file("probe.sh");
  std::ofstream(script) << "echo version 1\n";
  auto ssh = connector(keyLogin());
  ssh->addCommandFile(script.c_str());
  const std::string remote = scratch_.file("remote") + "/probe.sh";
  EXPECT_EQ(runOn(*ssh, "sh \"$CDP_SSH_TEMP_DIRECTORY/probe.sh\"").out, "version 1\n")
      << ssh->getErrorMessage();
  // Not uploaded again while the session lives: a remote change stays.
  std::ofstream(remote) << "echo changed remotely\n";
  EXPECT_EQ(runOn(*ssh, "sh \"$CDP_SSH_TEMP_DIRECTORY/probe.sh\"").out, "changed remotely\n");
  // A changed local file is uploaded again.
  std::ofstream(script) << "echo version two\n";
  EXPECT_EQ(runOn(*ssh, "sh \"$CDP_SSH_TEMP_DIRECTORY/probe.sh\"").out, "version two\n");

  // A missing command file fails the run before the command.
  auto missing = connector(keyLogin());
  missing->addCommandFile(scratch_.file("absent.sh").c_str());
  EXPECT_EQ(runOn(*missing, "echo never").result, -1);
  EXPECT_EQ(missing->getErrorCode(), SCRIPT_NOT_FOUND);
}

TEST_F(SshConnectorTest, DeleteFileRemovesUploadsWhenTheSessionEnds) {
  const std::string script = scratch_.file("once.sh");
  std::ofstream(script) << "echo once\n";
  Settings settings = keyLogin();
  settings["SSH_DISCONNECT_SESSION"] = "Y";
  settings["SSH_DELETE_FILE"] = "Y";
  settings["CDP_SSH_DEL_COMMAND"] = "rm -f";
  auto ssh = connector(settings);
  ssh->addCommandFile(script.c_str());
  EXPECT_EQ(runOn(*ssh, "sh \"$CDP_SSH_TEMP_DIRECTORY/once.sh\"").out, "once\n");
  EXPECT_FALSE(std::filesystem::exists(scratch_.file("remote") + "/once.sh"));
}

TEST_F(SshConnectorTest, RefusesUnknownAndChangedHostKeys) {
  XRV::testing::TraceCapture trace("all.error");
  // Not in the file: refused, and the file stays as it was.
  std::ofstream(knownHosts_, std::ios::trunc) << "";
  auto unknown = connector(keyLogin());
  EXPECT_EQ(runOn(*unknown, "echo hi").result, -1);
  EXPECT_EQ(unknown->getErrorCode(), CONNECTION_FAILURE);
  EXPECT_NE(unknown->getErrorMessage().find("is not in " + knownHosts_), std::string::npos)
      << unknown->getErrorMessage();
  EXPECT_EQ(readFile(knownHosts_), "");

  // Trusted on first use when the host says so; known from then on.
  Settings trusting = keyLogin();
  trusting["SSH_ACCEPT_NEW_HOST_KEY"] = "Y";
  auto first = connector(trusting);
  EXPECT_EQ(runOn(*first, "echo hi").out, "hi\n") << first->getErrorMessage();
  EXPECT_NE(readFile(knownHosts_).find("[127.0.0.1]:" + std::to_string(server().port())),
            std::string::npos);

  // The host's key changes: refused, even with trust on first use, naming both keys.
  const std::string filed = readFile(knownHosts_);
  server().replaceHostKey();
  ASSERT_TRUE(server().start());
  first.reset();
  auto changed = connector(trusting);
  EXPECT_EQ(runOn(*changed, "echo hi").result, -1);
  EXPECT_EQ(changed->getErrorCode(), CONNECTION_FAILURE);
  const std::string message = changed->getErrorMessage();
  EXPECT_NE(message.find("the host key of [127.0.0.1]:" + std::to_string(server().port()) +
                         " has changed"),
            std::string::npos)
      << message;
  EXPECT_EQ(count(message, "SHA256:"), 2) << message;
  EXPECT_EQ(readFile(knownHosts_), filed);
  EXPECT_TRUE(trace.containsText("has changed")) << "refusals are traced as errors";
}

TEST_F(SshConnectorTest, FailuresCarryTheirCodes) {
  Settings wrongPassword = passwordLogin("PASSWORD", "not-the-password");
  Settings wrongKeyboard = passwordLogin("KEYBOARD_INTERACTIVE", "not-the-password");
  Settings noHost = keyLogin();
  noHost["SSH_HOSTNAME"] = "no-such-host.invalid";
  Settings closedPort = keyLogin();
  closedPort["SSH_PORT"] = std::to_string(XRV::testing::freeLoopbackPort());
  Settings missingKey = keyLogin();
  missingKey["SSH_PRIV_KEYFILE"] = scratch_.file("no-key");
  Settings strangeKey = keyLogin();
  strangeKey["SSH_PUB_KEYFILE"] = server().publicKey();
  strangeKey["SSH_PRIV_KEYFILE"] = scratch_.file("other_key");
  ASSERT_EQ(system(("ssh-keygen -q -t ed25519 -N '' -f " + scratch_.file("other_key")).c_str()), 0);
  struct Case {
    const char* name;
    Settings settings;
    int code;
  };
  const Case cases[] = {
      {"wrong password", wrongPassword, AUTHENTICATION_FAILED},
      {"wrong keyboard-interactive password", wrongKeyboard, AUTHENTICATION_FAILED},
      {"unresolvable host", noHost, HOST_NAME_RESOLUTION_FAILED},
      {"nothing listens", closedPort, REMOTE_HOST_UNAVAILABLE},
      {"missing private key", missingKey, AUTHENTICATION_FAILED},
      {"key the host does not know", strangeKey, AUTHENTICATION_FAILED},
  };
  XRV::testing::TraceCapture trace;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto ssh = connector(c.settings);
    EXPECT_EQ(runOn(*ssh, "echo hi").result, -1);
    EXPECT_EQ(ssh->getErrorCode(), c.code) << ssh->getErrorMessage();
    EXPECT_TRUE(ssh->isInErrorState());
    EXPECT_FALSE(ssh->getErrorMessage().empty());
    EXPECT_EQ(ssh->getErrorMessage().find("not-the-password"), std::string::npos);
  }
  for (const std::string& line : trace.lines()) {
    ASSERT_EQ(line.find("not-the-password"), std::string::npos) << line;
    ASSERT_EQ(line.find(SshServer::password()), std::string::npos) << line;
  }
}

TEST_F(SshConnectorTest, ConfigurationThatCannotWorkIsAnErrorState) {
  struct Case {
    const char* name;
    const char* subnodeType;
    bool section;
    Settings settings;
    int code;
  };
  Settings strangeType = keyLogin();
  strangeType["SSH_AUTH_TYPE"] = "carrier-pigeon";
  const Case cases[] = {
      {"no section for the subnode", "SSH", false, {}, SUBNODE_NOT_FOUND_IN_CONFIG},
      {"no host name", "SSH", true, {{"SSH_USERID", "root"}}, NO_HOSTNAME},
      {"unknown authentication type", "SSH", true, strangeType, AUTHENTICATION_FAILED},
      {"everything set", "SSH", true, keyLogin(), OBJECT_ACTIVE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LibsshConnector ssh("G");
    Section section(c.settings);
    ssh.resetConfig(c.subnodeType, c.section ? section.map() : nullptr);
    EXPECT_EQ(ssh.getErrorCode(), c.code) << ssh.getErrorMessage();
    EXPECT_EQ(ssh.isInErrorState(), c.code != OBJECT_ACTIVE);
    if (c.code != OBJECT_ACTIVE) {
      EXPECT_EQ(runOn(ssh, "echo never").result, -1);
      EXPECT_EQ(ssh.getErrorCode(), c.code);
    }
  }
}

TEST_F(SshConnectorTest, ResetConfigMovesToTheNewTarget) {
  auto ssh = connector(keyLogin());
  ASSERT_EQ(runOn(*ssh, "true").result, 0);
  const std::shared_ptr<const SshTarget> old = ssh->target();
  EXPECT_EQ(SshSessionPool::instance().idleSessions(*old), 1u);
  // The same settings again: nothing changes, the session stays.
  {
    Section same(keyLogin());
    ssh->resetConfig("SSH", same.map());
  }
  EXPECT_EQ(ssh->target(), old);
  // New exported values only: the same connection, so the session stays; the
  // commands see the new values.
  Settings other = keyLogin();
  other["SITE"] = "two";
  {
    Section changed(other);
    ssh->resetConfig("SSH", changed.map());
  }
  EXPECT_NE(ssh->target(), old);
  EXPECT_EQ(runOn(*ssh, "echo $SITE").out, "two\n");
  EXPECT_EQ(SshSessionPool::instance().idleSessions(*old), 1u);
  // Another login: the old connection's session is closed.
  Section password(passwordLogin());
  ssh->resetConfig("SSH", password.map());
  EXPECT_EQ(SshSessionPool::instance().idleSessions(*old), 0u);
  EXPECT_EQ(runOn(*ssh, "echo $SITE").out, "\n");
  EXPECT_EQ(SshSessionPool::instance().idleSessions(*ssh->target()), 1u);
}

TEST_F(SshConnectorTest, CommandPastItsTimeOutIsEndedOnTheRemoteHost) {
  auto ssh = connector(keyLogin());
  // The shell and its child: both must go.
  const RunResult run = runOn(*ssh, "sleep 37.125; echo late", 2);
  EXPECT_EQ(run.result, -1);
  EXPECT_EQ(ssh->getErrorCode(), TIMEOUT) << ssh->getErrorMessage();
  EXPECT_LT(run.seconds, 4.5);
  EXPECT_FALSE(processRuns("sleep 37.125"));
  // The session is still good for the next command.
  EXPECT_EQ(runOn(*ssh, "echo next").out, "next\n");

  // The agent stops: a running command ends at once.
  std::atomic<bool> done{false};
  std::thread stopper([&] {
    XRV::testing::waitUntil([] { return processRuns("sleep 38.25"); }, 5);
    ssh->abortCommands();
    done = true;
  });
  const RunResult aborted = runOn(*ssh, "sleep 38.25", 30);
  stopper.join();
  EXPECT_EQ(aborted.result, -1);
  EXPECT_LT(aborted.seconds, 8);
  EXPECT_FALSE(processRuns("sleep 38.25"));
}

TEST_F(SshConnectorTest, HostThatGoesDownIsReconnectedWithBackoff) {
  setConfigurationProperty("CDP_SSH_RECONNECT_MAX_DELAY", "1");
  auto ssh = connector(keyLogin());
  ASSERT_EQ(runOn(*ssh, "true").result, 0);
  server().stop();
  EXPECT_EQ(runOn(*ssh, "true").result, -1);
  EXPECT_EQ(ssh->getErrorCode(), REMOTE_HOST_UNAVAILABLE) << ssh->getErrorMessage();
  // Within the back-off, the next run fails at once without trying.
  const RunResult refused = runOn(*ssh, "true");
  EXPECT_EQ(refused.result, -1);
  EXPECT_LT(refused.seconds, 0.5);
  EXPECT_NE(ssh->getErrorMessage().find("not tried again"), std::string::npos);
  EXPECT_EQ(SshSessionPool::instance().backoff(*ssh->target()), std::chrono::seconds(1));

  ASSERT_TRUE(server().start()) << server().reason();
  bool back = false;
  for (int i = 0; i < 50 && !back; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    back = runOn(*ssh, "echo back").out == "back\n";
  }
  EXPECT_TRUE(back) << ssh->getErrorMessage();
  EXPECT_EQ(ssh->getErrorCode(), OBJECT_ACTIVE);
  EXPECT_EQ(SshSessionPool::instance().backoff(*ssh->target()), std::chrono::seconds(0));
  setConfigurationProperty("CDP_SSH_RECONNECT_MAX_DELAY", nullptr);
}

TEST_F(SshConnectorTest, SlowHostDoesNotHoldUpOthers) {
  // A host that takes the connection and never says a word.
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 16), 0);
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  Settings silent = keyLogin();
  silent["SSH_PORT"] = std::to_string(ntohs(address.sin_port));
  auto slow = connector(silent);
  auto fast = connector(keyLogin());

  RunResult slowRun;
  std::thread slowThread([&] { slowRun = runOn(*slow, "echo never", 3); });
  std::vector<std::thread> fastThreads;
  std::atomic<int> good{0};
  for (int i = 0; i < 4; ++i) {
    fastThreads.emplace_back([&, i] {
      for (int n = 0; n < 5; ++n) {
        const RunResult run = runOn(*fast, "echo " + std::to_string(i));
        good += run.out == std::to_string(i) + "\n" && run.seconds < 2 ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : fastThreads) {
    thread.join();
  }
  EXPECT_EQ(good, 20);
  slowThread.join();
  EXPECT_EQ(slowRun.result, -1);
  EXPECT_EQ(slow->getErrorCode(), TIMEOUT) << slow->getErrorMessage();
  // Overlapping runs took sessions of their own; some are kept.
  EXPECT_GE(SshSessionPool::instance().idleSessions(*fast->target()), 1u);
  EXPECT_LE(SshSessionPool::instance().idleSessions(*fast->target()),
            SshSessionPool::kMaxIdleSessions);
  close(listener);
}

}  // namespace
