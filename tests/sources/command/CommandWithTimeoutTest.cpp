#include "sources/command/CommandWithTimeout.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/HashMap.h"
#include "foundation/String.h"
#include "framework/FwClock.h"
#include "framework/Trace.h"
#include "sources/command/SshConnector.h"
#include "support/Recorded.h"
#include "support/TraceCapture.h"
#include "support/Wait.h"

namespace {

using Clock = std::chrono::steady_clock;
using XRV::testing::secondsSince;
using XRV::testing::TraceCapture;
using XRV::testing::waitUntil;

// Names of the TrackedCommands deleted so far, by whichever thread deleted them.
using Deletions = XRV::testing::Recorded<std::string>;

class TrackedCommand : public CommandWithTimeout {
 public:
  TrackedCommand(const char* cmd, int timeout, Deletions* deletions)
      : CommandWithTimeout(cmd, timeout), deletions_(deletions) {}
  ~TrackedCommand() override { deletions_->add(getCmd()); }

 private:
  Deletions* deletions_;
};

// The standard-error limit is process-wide: tests that change it put it back.
class StderrLimit {
 public:
  explicit StderrLimit(int limit) : saved_(stdErrSizeLimit) { stdErrSizeLimit = limit; }
  ~StderrLimit() { stdErrSizeLimit = saved_; }

 private:
  int saved_;
};

TEST(CommandWithTimeout, ExitStatusesAndOutput) {
  const std::string notExecutable =
      (std::filesystem::temp_directory_path() / ("xrv-cwt-" + std::to_string(getpid()))).string();
  FILE* file = fopen(notExecutable.c_str(), "w");
  ASSERT_NE(file, nullptr);
  fputs("echo never\n", file);
  fclose(file);
  chmod(notExecutable.c_str(), 0644);

  struct Case {
    std::string command;
    int result;
    int rc;
    std::optional<std::string> out;
    std::optional<std::string> err;
  };
  const Case cases[] = {
      {"true", 0, 0, "", ""},
      {"echo out; echo err >&2", 0, 0, "out\n", "err\n"},
      {"printf 'no newline'", 0, 0, "no newline", ""},
      {"exit 3", 0, 3, "", ""},
      {"xrv_no_such_command_here", 0, 127, "", std::nullopt},
      {"exit 126", 0, 126, "", ""},
      {notExecutable, 0, 126, "", std::nullopt},
      // Ended by a signal: no exit status to report.
      {"kill -9 $$", -1, -1, "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    CommandWithTimeout command(c.command.c_str(), 10);
    EXPECT_EQ(command.runCommand(), c.result);
    EXPECT_EQ(command.getRC(), c.rc);
    EXPECT_EQ(command.getStatus(), CWT_COMPLETED) << "every run ends in 7, failed or not";
    ASSERT_NE(command.getStdout(), nullptr);
    ASSERT_NE(command.getStderr(), nullptr);
    if (c.out) {
      EXPECT_STREQ(command.getStdout(), c.out->c_str());
    }
    if (c.err) {
      EXPECT_STREQ(command.getStderr(), c.err->c_str());
    } else {
      EXPECT_GT(strlen(command.getStderr()), 0u) << "the shell says why";
    }
    EXPECT_FALSE(command.hasTimedOut());
  }
  unlink(notExecutable.c_str());
}

TEST(CommandWithTimeout, TimeOutWithKillKillsTheShellButNotItsChildren) {
  TraceCapture capture;
  // The shell prints its background child's pid and waits for it; the child's output
  // does not go to the pipes, so they close when the shell dies.
  CommandWithTimeout command("sleep 30 >/dev/null 2>&1 & echo $!; wait", 1);
  command.setKillProcess(true);
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(command.runCommand(), 1);
  const double waited = secondsSince(start);
  // At the deadline; the upper bound leaves room for a loaded machine.
  EXPECT_GE(waited, 0.95);
  EXPECT_LT(waited, 2.5);
  EXPECT_EQ(command.getStatus(), CWT_COMPLETED);
  EXPECT_TRUE(command.hasTimedOut());

  const Clock::time_point joining = Clock::now();
  command.join();
  EXPECT_LT(secondsSince(joining), 5.0) << "the shell was not killed";
  EXPECT_EQ(command.getRC(), -1);
  EXPECT_EQ(command.getStatus(), CWT_COMPLETED);
  ASSERT_NE(command.getStdout(), nullptr);
  const pid_t child = atoi(command.getStdout());
  ASSERT_GT(child, 1);
  EXPECT_EQ(kill(child, 0), 0) << "the shell's own child lives on";
  kill(child, SIGKILL);

  EXPECT_TRUE(capture.containsText("process terminated after timeout for command <"));
}

TEST(CommandWithTimeout, KillingATimedOutCommandNeverReapsAnotherCommandsChild) {
  // The first shell exits at once with 3, but its background sleep keeps its output
  // open for 2 s: until then the shell is an unreaped child of the agent, exactly
  // when the second command times out and is killed.
  int firstResult = 0;
  CommandWithTimeout first("sleep 2 & exit 3", 30);
  std::thread running([&] { firstResult = first.runCommand(); });
  CommandWithTimeout second("exec sleep 30", 1);
  second.setKillProcess(true);
  EXPECT_EQ(second.runCommand(), 1);
  running.join();
  EXPECT_EQ(firstResult, 0);
  EXPECT_EQ(first.getRC(), 3) << "its status was taken by the other command's reaping";
  second.join();
}

TEST(CommandWithTimeout, ATimeOutBeforeTheStartCancelsIt) {
  char directory[] = "/tmp/xrv-cancel-XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const std::string marker = std::string(directory) + "/ran";
  CommandWithTimeout command(("touch " + marker).c_str(), 1);
  command.setKillProcess(true);
  {
    // Another command holds the process-start lock for longer than the time-out.
    PthreadMutexLock busy(fdLock);
    EXPECT_EQ(command.runCommand(), 1);
  }
  ASSERT_TRUE(waitUntil([&] { return command.getStatus() == CWT_COMPLETED; }));
  command.join();
  EXPECT_NE(access(marker.c_str(), F_OK), 0) << "started after its time-out, unsupervised";
  std::filesystem::remove_all(directory);
}

TEST(CommandWithTimeout, StoppingTheAgentEndsRunningCommandsAndStartsNoMore) {
  CommandWithTimeout hanging("exec sleep 30", 60);
  int result = 0;
  std::thread running([&] { result = hanging.runCommand(); });
  ASSERT_TRUE(waitUntil([&] { return hanging.getPid() > 1; }));
  const Clock::time_point stopping = Clock::now();
  stopAllCommands();
  running.join();
  EXPECT_EQ(result, 1);
  EXPECT_LT(secondsSince(stopping), 2.0);
  hanging.join();
  EXPECT_EQ(hanging.getRC(), -1) << "killed";

  char directory[] = "/tmp/xrv-stop-XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const std::string marker = std::string(directory) + "/ran";
  CommandWithTimeout late(("touch " + marker).c_str(), 60);
  EXPECT_EQ(late.runCommand(), 1);
  late.join();
  EXPECT_NE(access(marker.c_str(), F_OK), 0) << "started while the agent stops";
  allowCommandsAgain();
  std::filesystem::remove_all(directory);
}

TEST(CommandWithTimeout, OutputBeyondTheLimitKillsTheCommandAndKeepsNothing) {
  const long long saved = outputSizeLimit;
  outputSizeLimit = 1 << 20;
  struct Case {
    const char* command;
    const char* stream;
  };
  // An endless writer behind a pipe (the shell is not the writer) and one on stderr.
  for (const Case& c : {Case{"yes | cat", "stdout"}, Case{"yes >&2", "stderr"}}) {
    SCOPED_TRACE(c.command);
    TraceCapture capture;
    CommandWithTimeout command(c.command, 30);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(command.runCommand(), -1);
    EXPECT_LT(secondsSince(start), 10.0);
    EXPECT_TRUE(command.isOutputTooBig());
    EXPECT_TRUE(capture.containsText(std::string("bytes to ") + c.stream + ", killing it"));
  }
  outputSizeLimit = saved;
}

TEST(CommandWithTimeout, CommandInheritsNoDescriptorOfTheAgentButStandardInput) {
  // A descriptor opened without close-on-exec, as a library's socket may be.
  const int inherited = open("/dev/null", O_RDONLY);
  ASSERT_GE(inherited, 3);
  const std::string probe = "for fd in 0 " + std::to_string(inherited) +
                            "; do [ -e /proc/self/fd/$fd ] && echo open || echo closed; done";
  CommandWithTimeout command(probe.c_str(), 10);
  EXPECT_EQ(command.runCommand(), 0);
  close(inherited);
  ASSERT_NE(command.getStdout(), nullptr);
  EXPECT_STREQ(command.getStdout(), "open\nclosed\n");
}

TEST(CommandWithTimeout, LargeOutputOnBothStreamsArrivesWhole) {
  // A megabyte of standard error first: unless both pipes are read at once, the child
  // blocks on it and standard output never comes.
  constexpr size_t kOut = 10 * 1024 * 1024;
  constexpr size_t kErr = 1024 * 1024;
  const std::string cmd = "head -c " + std::to_string(kErr) + " /dev/zero | tr '\\0' e >&2; " +
                          "yes 0123456789abcdef | head -c " + std::to_string(kOut);
  CommandWithTimeout command(cmd.c_str(), 60);
  ASSERT_EQ(command.runCommand(), 0);
  EXPECT_EQ(command.getRC(), 0);

  std::string expected;
  while (expected.size() < kOut) {
    expected += "0123456789abcdef\n";
  }
  expected.resize(kOut);
  EXPECT_TRUE(command.getStdout() == expected) << "standard output differs from what was printed";
  EXPECT_EQ(std::string(command.getStderr()), std::string(kErr, 'e'));
}

TEST(CommandWithTimeout, StandardErrorIsCutAtTheLimitAndStandardOutputNever) {
  const std::string printed = "0123456789abcdefghijklmno";  // 25 bytes
  const struct {
    int limit;
    size_t kept;
  } cases[] = {{-1, 25}, {0, 25}, {10, 10}, {25, 25}, {30, 25}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.limit);
    StderrLimit limit(c.limit);
    CommandWithTimeout command(("printf " + printed + " >&2; printf " + printed).c_str(), 10);
    ASSERT_EQ(command.runCommand(), 0);
    EXPECT_EQ(std::string(command.getStderr()), printed.substr(0, c.kept));
    EXPECT_EQ(std::string(command.getStdout()), printed);
  }
}

TEST(CommandWithTimeout, EnvironmentPrefixExportsEveryVariableInMapOrder) {
  EXPECT_EQ(CommandWithTimeout::buildEnvString(nullptr), nullptr);
  struct Case {
    std::vector<std::pair<const char*, const char*>> entries;  // in insertion order
    const char* prefix;
  };
  const Case cases[] = {
      {{}, ""},
      {{{"A", "1"}}, "A=\"1\" export A;"},
      // "A" comes before "B" in the map whatever the order of insertion.
      {{{"B", "2"}, {"A", "1"}}, "A=\"1\" export A;B=\"2\" export B;"},
      {{{"Q", "say \"hi\""}}, "Q=\"say \"hi\"\" export Q;"},
  };
  for (const Case& c : cases) {
    HashMap vars;
    for (const auto& [name, value] : c.entries) {
      vars.put(name, value);
    }
    char* prefix = CommandWithTimeout::buildEnvString(&vars);
    ASSERT_NE(prefix, nullptr);
    EXPECT_STREQ(prefix, c.prefix);
    free(prefix);
  }

  XRV::String out("X;");
  addVartoUNIXEnv(&out, "NAME");
  EXPECT_STREQ(out.c_str(), "X;NAME export NAME;");

  // The prefix goes straight in front of the command; the second echo runs in a child
  // shell, so it sees B only when B was exported.
  CommandWithTimeout command("echo $A; sh -c 'echo $B'", 10, "A=\"1\" export A;B=\"2\" export B;");
  ASSERT_EQ(command.runCommand(), 0);
  EXPECT_STREQ(command.getStdout(), "1\n2\n");
}

TEST(CommandWithTimeout, ContainsVariableLooksAtTheNameBeforeTheFirstEquals) {
  HashMap vars;
  vars.put("A", "1");
  vars.put("PATH_X", "2");
  const struct {
    const char* assignment;
    bool contained;
  } cases[] = {{"A=1", true},      {"A", true},      {"A=B=C", true}, {"PATH_X=", true},
               {"B=1", false},     {"AB=1", false},  {"=A", false},   {"a=1", false},
               {"PATH=A", false}};
  for (const auto& c : cases) {
    EXPECT_EQ(CommandWithTimeout::containsVariable(&vars, c.assignment), c.contained)
        << c.assignment;
  }
  EXPECT_FALSE(CommandWithTimeout::containsVariable(nullptr, "A=1"));
}

TEST(CommandWithTimeout, LineIterator) {
  CommandWithTimeout notRun("true", 10);
  char buffer[16];
  EXPECT_EQ(notRun.getNextLineFromStdout(buffer, 10), nullptr);

  struct Line {
    const char* text;
    bool terminated = true;
  };
  struct Case {
    const char* printed;  // printf format
    int max;
    std::vector<std::optional<Line>> lines;  // up to and including the first null
  };
  const Case cases[] = {
      {"a\\r\\nb\\n\\nc", 10, {Line{"a\r"}, Line{"b"}, Line{""}, Line{"c"}, std::nullopt}},
      {"a\\n", 10, {Line{"a"}, std::nullopt}},
      {"", 10, {std::nullopt}},
      {"\\r\\nx", 10, {Line{""}, Line{"x"}, std::nullopt}},
      // Cut at 3: the character after the cut ("d") is lost.
      {"abcdef\\nxy", 3, {Line{"abc", false}, Line{"ef"}, Line{"xy"}, std::nullopt}},
      // A line of exactly max characters is not terminated; its LF is skipped.
      {"abc\\nde", 3, {Line{"abc", false}, Line{"de"}, std::nullopt}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.printed);
    CommandWithTimeout command((std::string("printf '") + c.printed + "'").c_str(), 10);
    ASSERT_EQ(command.runCommand(), 0);
    for (size_t i = 0; i < c.lines.size(); ++i) {
      SCOPED_TRACE(i);
      memset(buffer, '#', sizeof buffer);
      char* line = command.getNextLineFromStdout(buffer, c.max);
      if (!c.lines[i]) {
        EXPECT_EQ(line, nullptr);
        continue;
      }
      ASSERT_EQ(line, buffer);
      if (c.lines[i]->terminated) {
        EXPECT_STREQ(buffer, c.lines[i]->text);
      } else {
        EXPECT_EQ(std::string(buffer, c.max), c.lines[i]->text);
        EXPECT_EQ(buffer[c.max], '#');
      }
    }
  }
}

TEST(CommandWithTimeout, StartProcAndEndProc) {
  errno = 0;
  EXPECT_EQ(endProc(nullptr), -1);
  EXPECT_EQ(errno, EINVAL);

  pinfo* info = startProc("echo out; echo err >&2; exit 5", nullptr);
  ASSERT_NE(info, nullptr);
  ASSERT_NE(info->stdoutFile, nullptr);
  ASSERT_NE(info->stderrFile, nullptr);
  char line[32] = "";
  ASSERT_NE(fgets(line, sizeof line, info->stdoutFile), nullptr);
  EXPECT_STREQ(line, "out\n");
  ASSERT_NE(fgets(line, sizeof line, info->stderrFile), nullptr);
  EXPECT_STREQ(line, "err\n");
  EXPECT_EQ(endProc(info), 5);

  info = startProc("kill -9 $$", nullptr);
  ASSERT_NE(info, nullptr);
  errno = 0;
  EXPECT_EQ(endProc(info), -1);
  EXPECT_EQ(errno, ECHILD);
}

// A holder left without end() — an early return, an exception — kills and reaps its
// child: no process, zombie or pipe stays behind. A moved-from holder releases nothing.
TEST(CommandWithTimeout, StartedProcessReleasesAChildNotEnded) {
  pid_t pid = 0;
  {
    StartedProcess process(startProc("sleep 30", nullptr));
    ASSERT_TRUE(process.readable());
    pid = process->pid;
    StartedProcess moved(std::move(process));
    EXPECT_FALSE(process);
    ASSERT_EQ(kill(pid, 0), 0);  // still running while `moved` holds it
  }
  errno = 0;
  EXPECT_EQ(kill(pid, 0), -1);  // reaped, not a zombie
  EXPECT_EQ(errno, ESRCH);

  // Replacing a held child releases the old one.
  StartedProcess holder(startProc("sleep 30", nullptr));
  ASSERT_TRUE(holder.readable());
  const pid_t first = holder->pid;
  holder = StartedProcess(startProc("exit 3", nullptr));
  EXPECT_EQ(kill(first, 0), -1);
  EXPECT_EQ(holder.end(), 3);
  EXPECT_FALSE(holder);
  EXPECT_EQ(holder.end(), -1);  // ended once only
}

// Uses up every descriptor below a lowered limit (exhaust); gives them back, and the
// limit, when it goes.
class DescriptorShortage {
 public:
  DescriptorShortage() { getrlimit(RLIMIT_NOFILE, &saved_); }
  ~DescriptorShortage() {
    release();
    setrlimit(RLIMIT_NOFILE, &saved_);
  }
  void exhaust() {
    int highest = 2;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      highest = std::max(highest, atoi(entry.path().filename().c_str()));
    }
    struct rlimit lowered = saved_;
    lowered.rlim_cur = highest + 8;
    setrlimit(RLIMIT_NOFILE, &lowered);
    std::lock_guard<std::mutex> lock(mutex_);
    for (int fd = open("/dev/null", O_RDONLY); fd >= 0; fd = open("/dev/null", O_RDONLY)) {
      spare_.push_back(fd);
    }
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int fd : spare_) {
      close(fd);
    }
    spare_.clear();
  }

 private:
  struct rlimit saved_;
  std::mutex mutex_;
  std::vector<int> spare_;
};

// The undefined-behaviour checker probes memory through a pipe the first time it
// checks the dynamic type of an object: each polymorphic type on the path of a failed
// start meets it here, before descriptors run out.
void meetTheTypesOfAFailedStart() {
  XRV_TRACE_FN();
  TraceCapture capture("error");
  XRV_TRACE_ERROR("before the shortage");
  CommandWithTimeout command("true", 10);
  EXPECT_EQ(command.runCommand(), 0);
  fwSleepMillis(1);
}

TEST(CommandWithTimeout, FailedStartIsRetriedOnceAfterTheDelay) {
  meetTheTypesOfAFailedStart();
  const int savedDelay = commandRetryDelay;
  commandRetryDelay = 300;
  for (bool freedMeanwhile : {true, false}) {
    SCOPED_TRACE(freedMeanwhile);
    TraceCapture capture("error");
    DescriptorShortage shortage;
    std::thread freer;
    if (freedMeanwhile) {
      std::atomic<bool> running{false};
      freer = std::thread([&] {
        running = true;
        waitUntil([&] { return capture.containsText("initial popen failed for command"); });
        shortage.release();
      });
      waitUntil([&] { return running.load(); });
    }
    shortage.exhaust();
    CommandWithTimeout command("echo started", 10);
    const Clock::time_point start = Clock::now();
    const int result = command.runCommand();
    const double took = secondsSince(start);
    if (freer.joinable()) {
      freer.join();
    }
    shortage.release();
    EXPECT_GE(took, 0.29) << "the retry waits for the delay";
    EXPECT_TRUE(capture.hasText("Error, could not allocate file descriptors"));
    EXPECT_TRUE(capture.hasText("initial popen failed for command echo started, errno=" +
                                std::to_string(EMFILE) + " retrying in 300"));
    EXPECT_EQ(command.getStatus(), CWT_COMPLETED);
    if (freedMeanwhile) {
      EXPECT_EQ(result, 0);
      EXPECT_EQ(command.getRC(), 0);
      EXPECT_STREQ(command.getStdout(), "started\n");
    } else {
      EXPECT_EQ(result, -1);
      EXPECT_EQ(command.getRC(), -1);
      EXPECT_EQ(command.getStdout(), nullptr);
      EXPECT_TRUE(capture.hasText("starting process failed for command echo started, errno=" +
                                  std::to_string(EMFILE)));
    }
  }
  commandRetryDelay = savedDelay;
}

TEST(CommandWithTimeout, CleanupReapsOnlyFinishedCommandsAndKeepsTheOrder) {
  Deletions deletions;
  CommandWithTimeoutList list;
  auto add = [&](const char* cmd, int timeout, std::optional<_CWTStatus> forced = {}) {
    auto* command = new TrackedCommand(cmd, timeout, &deletions);
    if (forced) {
      command->setStatus(*forced);
    } else {
      command->runCommand();
    }
    list.addCommand(command);
    return command;
  };
  add("true", 10);
  add("error", 10, CWT_ERROR);
  add("not started", 10, CWT_NOT_STARTED);
  // Timed out without a kill (a time-out of 0 would cancel the start): it returns at
  // its deadline, runs on unsupervised and is kept until it ends.
  const Clock::time_point start = Clock::now();
  CommandWithTimeout* slow = add("sleep 3; echo late", 1);
  EXPECT_GE(secondsSince(start), 0.95);
  EXPECT_LT(secondsSince(start), 2.5);
  EXPECT_EQ(slow->getStatus(), CWT_RUNNING);
  EXPECT_FALSE(slow->hasTimedOut());
  // Timed out but finished by now: its worker must still be joined.
  CommandWithTimeout* late = add("sleep 1.2", 1);
  add("start failed", 10, CWT_START_FAILED);
  ASSERT_TRUE(waitUntil([&] { return late->getStatus() == CWT_COMPLETED; }));

  list.cleanupFinishedCommands();
  EXPECT_EQ(deletions.get(), (std::vector<std::string>{"true", "error", "sleep 1.2"}));
  std::vector<std::string> kept;
  for (int i = 0; i < list.getCount(); ++i) {
    kept.push_back(list.getCommand(i)->getCmd());
  }
  EXPECT_EQ(kept, (std::vector<std::string>{"not started", "sleep 3; echo late", "start failed"}));

  ASSERT_TRUE(waitUntil([&] { return slow->getStatus() == CWT_COMPLETED; }));
  EXPECT_EQ(slow->getRC(), 0);
  EXPECT_STREQ(slow->getStdout(), "late\n");
  list.cleanupFinishedCommands();
  EXPECT_EQ(list.getCount(), 2);
  EXPECT_TRUE(deletions.contains("sleep 3; echo late"));
}

TEST(CommandWithTimeout, DisposeWhenFinishedDeletesNowOrWhenTheWorkerEnds) {
  Deletions deletions;
  auto* running = new TrackedCommand("sleep 1.5", 1, &deletions);
  auto* finished = new TrackedCommand("echo", 10, &deletions);
  ASSERT_EQ(finished->runCommand(), 0);
  ASSERT_EQ(running->runCommand(), 1);
  CommandWithTimeout::disposeWhenFinished(std::unique_ptr<CommandWithTimeout>(finished));
  CommandWithTimeout::disposeWhenFinished(std::unique_ptr<CommandWithTimeout>(running));
  EXPECT_EQ(deletions.get(), std::vector<std::string>{"echo"});
  EXPECT_TRUE(waitUntil([&] { return deletions.contains("sleep 1.5"); }));

  // The list's destructor does the same for what it still holds.
  {
    CommandWithTimeoutList list;
    auto* timedOut = new TrackedCommand("sleep 1.3", 1, &deletions);
    timedOut->runCommand();
    list.addCommand(timedOut);
    list.addCommand(new TrackedCommand("never run", 10, &deletions));
  }
  EXPECT_TRUE(deletions.contains("never run"));
  EXPECT_TRUE(waitUntil([&] { return deletions.contains("sleep 1.3"); }));
}

class FakeConnector : public SshConnector {
 public:
  FakeConnector(int result, bool* deleted) : result_(result), deleted_(deleted) {}
  ~FakeConnector() override { *deleted_ = true; }
  int executeScript(const char* command, char** out, char** err, int timeoutSeconds) override {
    command_ = command;
    timeout_ = timeoutSeconds;
    *out = strdup("remote out");
    *err = strdup("remote err");
    return result_;
  }
  void resetConfig(const char*, HashMap*) override {}
  void addCommandFile(const char*) override {}
  bool isInErrorState() const override { return false; }
  int getErrorCode() const override { return 0; }

  std::string command_;
  int timeout_ = 0;

 private:
  int result_;
  bool* deleted_;
};

TEST(CommandWithTimeout, RemoteRunUsesTheConnector) {
  for (int result : {0, 5}) {
    for (bool owns : {true, false}) {
      SCOPED_TRACE(std::to_string(result) + (owns ? " owned" : " not owned"));
      bool deleted = false;
      auto* connector = new FakeConnector(result, &deleted);
      {
        CommandWithTimeout command(connector, "uptime", 7, "A=\"1\" export A;", owns);
        EXPECT_EQ(command.runCommand(), 0);
        EXPECT_EQ(command.getRC(), result);
        EXPECT_EQ(command.getStatus(), CWT_COMPLETED);
        EXPECT_EQ(connector->command_, "uptime") << "no environment prefix remotely";
        EXPECT_EQ(connector->timeout_, 7);
        if (result == 0) {
          EXPECT_STREQ(command.getStdout(), "remote out");
          EXPECT_STREQ(command.getStderr(), "remote err");
        } else {
          EXPECT_EQ(command.getStdout(), nullptr);
          EXPECT_EQ(command.getStderr(), nullptr);
        }
      }
      EXPECT_EQ(deleted, owns);
      if (!owns) {
        delete connector;
      }
    }
  }
}

}  // namespace
