#include "runtime/AgentSignals.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "definition/AgentSettings.h"
#include "support/FrameworkDouble.h"

namespace {

using XRV::testing::FrameworkDouble;

// What CleanUp did instead of signalling the group and leaving.
struct Exits {
  std::vector<std::pair<pid_t, int>> signalled;
  std::vector<int> left;
};
Exits exits;

int recordSignalGroup(pid_t group, int signal) {
  exits.signalled.emplace_back(group, signal);
  return 0;
}
void recordLeave(int status) { exits.left.push_back(status); }

void restoreDefault(int signal) {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigaction(signal, &action, nullptr);
}

sighandler_t currentHandler(int signal) {
  struct sigaction action = {};
  sigaction(signal, nullptr, &action);
  return action.sa_handler;
}

// While it lives: CleanUp leaves through the recorders above, the handlers and the
// flag are restored afterwards, and a framework double records what CleanUp did.
class SignalSandbox {
 public:
  SignalSandbox() {
    exits = Exits();
    shutdownSignaled = 0;
    applicationSettings().applicationName.assign("XRV");
    setCleanUpExitsForTesting(recordSignalGroup, recordLeave);
  }
  ~SignalSandbox() {
    setCleanUpExitsForTesting(nullptr, nullptr);
    for (int signal : {SIGHUP, SIGINT, SIGPIPE, SIGTERM}) {
      restoreDefault(signal);
    }
    shutdownSignaled = 0;
    applicationSettings() = ApplicationSettings();
  }

  FrameworkDouble framework{"detail"};
};

TEST(AgentSignalsTest, FirstTerminationSignalShutsDownAndLeaves) {
  for (int signal : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(signal);
    SignalSandbox sandbox;
    FrameworkDouble& framework = sandbox.framework;
    CleanUp(signal);
    EXPECT_EQ(shutdownSignaled, 1);
    EXPECT_EQ(framework.settings().shutdownModes, std::vector<int>{1});
    EXPECT_EQ(currentHandler(SIGTERM), SIG_IGN) << "later SIGTERMs, its own too, are ignored";
    EXPECT_EQ(exits.signalled, (std::vector<std::pair<pid_t, int>>{{getpgid(0), SIGTERM}}));
    EXPECT_EQ(exits.left, std::vector<int>{0});
    ASSERT_EQ(framework.auditRecords().size(), 1u);
    const FrameworkDouble::Audit audit = framework.auditRecords()[0];
    EXPECT_EQ(audit.component, "QBXAgent");
    EXPECT_EQ(audit.text, "The agent is shutting down.");
    EXPECT_EQ(audit.category, "Shutdown");
    EXPECT_EQ(audit.action, "Stop");
    EXPECT_EQ(audit.messageId, "XRV9001I");
    EXPECT_EQ(audit.productName, "XRV Test Framework");
    EXPECT_EQ(audit.applicationName, "XRV");
    EXPECT_EQ(audit.recordClass, 36);
    EXPECT_EQ(audit.recordCode, 6000);
  }
}

TEST(AgentSignalsTest, EverySignalAfterTheFirstTerminationIsIgnored) {
  SignalSandbox sandbox;
  FrameworkDouble& framework = sandbox.framework;
  shutdownSignaled = 1;
  for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE}) {
    CleanUp(signal);
  }
  EXPECT_TRUE(exits.signalled.empty());
  EXPECT_TRUE(exits.left.empty());
  EXPECT_TRUE(framework.settings().shutdownModes.empty());
  EXPECT_TRUE(framework.auditRecords().empty());
  EXPECT_EQ(shutdownSignaled, 1);
}

TEST(AgentSignalsTest, HangUpAndBrokenPipeNeverEndTheAgent) {
  SignalSandbox sandbox;
  // SIGHUP and SIGPIPE are delivered for real below (their default action would end
  // the test). The test's trace capture allocates, which a signal handler must not:
  // CleanUp's own lines are off here.
  XRV::trace::configure("detail off:CleanUp");
  registerSignalHandlers();
  for (int signal : {SIGHUP, SIGINT, SIGPIPE, SIGTERM}) {
    EXPECT_EQ(currentHandler(signal), CleanUp) << signal;
  }
  raise(SIGHUP);
  raise(SIGPIPE);
  EXPECT_EQ(shutdownSignaled, 0);
  EXPECT_TRUE(exits.left.empty());
  EXPECT_TRUE(exits.signalled.empty());
}

// The real road, in a child process that leads its own process group (as the agent
// does): a command it started is ended with it, and the agent leaves with status 0.
TEST(AgentSignalsRealRoad, TerminationEndsTheProcessGroup) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The statement runs in a child process started for it: it names the file after
  // its parent, the test process.
  auto pidFile = [](pid_t testProcess) {
    return "/tmp/xrv-signals-" + std::to_string(testProcess);
  };
  auto agent = [&pidFile] {
    setpgid(0, 0);
    registerSignalHandlers();
    pid_t child = fork();
    if (child == 0) {
      // Holding none of the test's pipes: the test would wait for them to close.
      int null = open("/dev/null", O_RDWR);
      for (int stream : {0, 1, 2}) {
        dup2(null, stream);
      }
      for (int fd = 3; fd < 1024; ++fd) {
        close(fd);
      }
      execl("/bin/sh", "sh", "-c", "sleep 30", static_cast<char*>(nullptr));
      _exit(127);
    }
    std::ofstream(pidFile(getppid())) << child;
    raise(SIGTERM);
    _exit(3);  // not reached
  };
  EXPECT_EXIT(agent(), ::testing::ExitedWithCode(0), "");
  pid_t command = 0;
  std::ifstream(pidFile(getpid())) >> command;
  unlink(pidFile(getpid()).c_str());
  ASSERT_GT(command, 0);
  // The orphaned command is gone (or at most a zombie waiting for its new parent).
  bool gone = false;
  for (int i = 0; i < 100 && !gone; ++i) {
    std::ifstream stat("/proc/" + std::to_string(command) + "/stat");
    std::string pid, name, state;
    gone = !(stat >> pid >> name >> state) || state == "Z";
    if (!gone) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  EXPECT_TRUE(gone) << "the command " << command << " outlived the agent";
  if (!gone) {
    killpg(getpgid(command), SIGKILL);
  }
}

TEST(AgentSignalsRealRoad, FatalExitTakesTheSignalRoad) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto agent = [] {
    setpgid(0, 0);
    registerSignalHandlers();
    exit_with_notification(-1);
  };
  EXPECT_EXIT(agent(), ::testing::ExitedWithCode(0), "Fatal Error \\(-1\\) Detected\\. Exiting");
}

}  // namespace
