// Many commands at once, as eight collecting providers would run them: each thread runs
// commands one after another, chosen at random, that succeed, fail, print a lot to
// both streams, or time out (killed or left to finish). Afterwards no descriptor and
// no child process may be left behind, and every command that finished printed
// exactly what it should have.
//
// XRV_SEED=N repeats a run.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sources/command/CommandWithTimeout.h"
#include "support/TraceCapture.h"
#include "support/Wait.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kThreads = 8;
constexpr int kRunsPerThread = 250;
constexpr size_t kLargeOut = 100 * 1024;
constexpr size_t kLargeErr = 30 * 1024;

int countOpenDescriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

// Processes whose parent is this process: running children and zombies alike.
int countChildren() {
  const pid_t self = getpid();
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    std::ifstream status(entry.path() / "status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("PPid:", 0) == 0) {
        if (atoi(line.c_str() + 5) == self) {
          ++count;
        }
        break;
      }
    }
  }
  return count;
}

std::string repeated(const std::string& unit, size_t size) {
  std::string text;
  while (text.size() < size) {
    text += unit;
  }
  text.resize(size);
  return text;
}

enum class Kind { kSmall, kLarge, kFailing, kMissing, kTimeOut, kTimeOutKilled };

struct Planned {
  Kind kind;
  std::string command;
  int timeout = 30;
  int rc = 0;
  std::string out{};
  std::string err{};
};

Planned plan(std::mt19937& random, int thread, int run) {
  const std::string tag = std::to_string(thread) + "-" + std::to_string(run);
  const int draw = static_cast<int>(random() % 1000);
  if (draw < 15) {
    return {Kind::kTimeOut, "sleep 2; echo late", 1};
  }
  if (draw < 30) {
    return {Kind::kTimeOutKilled, "sleep 2; echo never", 1};
  }
  if (draw < 130) {
    return {Kind::kLarge,
            "yes " + tag + " | head -c " + std::to_string(kLargeOut) + "; yes E" + tag +
                " | head -c " + std::to_string(kLargeErr) + " >&2",
            30, 0, repeated(tag + "\n", kLargeOut), repeated("E" + tag + "\n", kLargeErr)};
  }
  if (draw < 330) {
    const int rc = 1 + static_cast<int>(random() % 125);
    return {Kind::kFailing, "echo partial " + tag + "; echo bad >&2; exit " + std::to_string(rc),
            30, rc, "partial " + tag + "\n", "bad\n"};
  }
  if (draw < 380) {
    return {Kind::kMissing, "xrv_missing_command_" + tag, 30, 127, "", ""};
  }
  return {Kind::kSmall, "echo out " + tag + "; echo err " + tag + " >&2", 30, 0,
          "out " + tag + "\n", "err " + tag + "\n"};
}

// Killing a timed-out command reaps whatever child of the process has ended, so a
// command running meanwhile may lose its exit status. Counted before each killing
// run starts and after it returns.
std::atomic<long> killingRunsStarted{0};
std::atomic<long> killingRunsEnded{0};

struct Totals {
  std::mutex mutex;
  std::vector<std::string> failures;
  long checked = 0;
  long lost = 0;
  long timedOut = 0;

  void fail(const Planned& planned, const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    failures.push_back(planned.command.substr(0, 60) + ": " + what);
  }
};

void provider(int thread, unsigned seed, Totals* totals) {
  std::mt19937 random(seed + thread);
  CommandWithTimeoutList outstanding;
  long checked = 0;
  long lost = 0;
  long timedOut = 0;
  for (int run = 0; run < kRunsPerThread; ++run) {
    // What a provider does at the start of each collection.
    outstanding.cleanupFinishedCommands();
    const Planned planned = plan(random, thread, run);
    auto* command = new CommandWithTimeout(planned.command.c_str(), planned.timeout);

    if (planned.kind == Kind::kTimeOut || planned.kind == Kind::kTimeOutKilled) {
      const bool kill = planned.kind == Kind::kTimeOutKilled;
      command->setKillProcess(kill);
      if (kill) {
        ++killingRunsStarted;
      }
      const int result = command->runCommand();
      if (kill) {
        ++killingRunsEnded;
      }
      if (result != 1) {
        totals->fail(planned, "did not time out: " + std::to_string(result));
      }
      if (kill != command->hasTimedOut()) {
        totals->fail(planned, "timed-out flag wrong");
      }
      ++timedOut;
      outstanding.addCommand(command);
      continue;
    }

    const long killsEndedBefore = killingRunsEnded;
    const int result = command->runCommand();
    const long killsStartedAfter = killingRunsStarted;
    const bool killOverlapped = killsStartedAfter > killsEndedBefore;
    ++checked;
    if (result == -1 && command->getRC() == -1 && killOverlapped) {
      ++lost;
    } else if (result != 0) {
      totals->fail(planned, "runCommand " + std::to_string(result));
    } else if (command->getRC() != planned.rc) {
      totals->fail(planned, "rc " + std::to_string(command->getRC()));
    }
    if (command->getStatus() != CWT_COMPLETED) {
      totals->fail(planned, "status " + std::to_string(command->getStatus()));
    }
    if (command->getStdout() == nullptr || command->getStdout() != planned.out) {
      totals->fail(planned, "standard output differs");
    }
    const char* err = command->getStderr();
    if (err == nullptr ||
        (planned.kind == Kind::kMissing ? *err == '\0' : err != planned.err)) {
      totals->fail(planned, std::string("standard error differs: ") + (err ? err : "(null)"));
    }
    delete command;
  }

  // The commands left to finish in the background end within two seconds.
  if (!XRV::testing::waitUntil(
          [&] {
            outstanding.cleanupFinishedCommands();
            return outstanding.getCount() == 0;
          },
          20)) {
    totals->fail(Planned{Kind::kTimeOut, "outstanding"}, "commands never finished");
  }

  std::lock_guard<std::mutex> lock(totals->mutex);
  totals->checked += checked;
  totals->lost += lost;
  totals->timedOut += timedOut;
}

TEST(CommandRobustness, ManyCommandsFromEightThreadsLeaveNothingBehind) {
  const char* seedText = getenv("XRV_SEED");
  const unsigned seed =
      seedText != nullptr ? static_cast<unsigned>(strtoul(seedText, nullptr, 10))
                          : static_cast<unsigned>(
                                Clock::now().time_since_epoch().count() % 1000000007);
  printf("seed: %u (XRV_SEED=%u repeats this run)\n", seed, seed);

  // Error lines only: one per time-out.
  XRV::testing::TraceCapture capture("error");
  const int descriptorsBefore = countOpenDescriptors();
  const int childrenBefore = countChildren();
  const Clock::time_point start = Clock::now();

  Totals totals;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back(provider, i, seed, &totals);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();

  // A killed shell has been reaped by now; give an exiting one a moment.
  XRV::testing::waitUntil([&] { return countChildren() <= childrenBefore; }, 5);
  const int children = countChildren();
  const int descriptors = countOpenDescriptors();

  printf("runs: %d in %.1f s; timed out: %ld; lost statuses: %ld of %ld checked runs\n",
         kThreads * kRunsPerThread, seconds, totals.timedOut, totals.lost, totals.checked);
  EXPECT_LT(seconds, 90.0);
  EXPECT_EQ(totals.checked + totals.timedOut, kThreads * kRunsPerThread);
  EXPECT_GT(totals.timedOut, 0) << "the seed chose no time-out at all";
  long timeOutLines = 0;
  for (const std::string& text : capture.texts()) {
    timeOutLines += text.rfind("Timeout waiting for command to complete -- ", 0) == 0 ? 1 : 0;
  }
  EXPECT_EQ(timeOutLines, totals.timedOut);
  EXPECT_EQ(descriptors, descriptorsBefore) << "descriptors left open";
  EXPECT_EQ(children, childrenBefore) << "child processes left (zombies?)";
  EXPECT_TRUE(totals.failures.empty()) << totals.failures.size() << " failures, the first: "
                                       << totals.failures.front();
}

}  // namespace
