#include "sources/process/ProcList.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "FakeProc.h"
#include "sources/process/ProcFiles.h"
#include "support/TraceCapture.h"
#include "support/Wait.h"

namespace {

using XRV::testing::FakeProc;
using XRV::testing::FakeProcess;
using XRV::testing::TraceCapture;

// The entries of a snapshot by pid.
std::map<int, ps_info> byPid(ProcList& list) {
  std::map<int, ps_info> entries;
  list.resetCursor();
  while (ps_info* entry = list.getNextEntry()) {
    entries[entry->pid] = *entry;
  }
  return entries;
}

// --- The line parsers ---

TEST(ProcFilesTest, StatLinesConvertAsTheHistoricalFormatDoes) {
  struct Case {
    const char* name;
    const char* line;
    int count;
    const char* commandName;
    char state;
    int32_t ppid;
  };
  const std::string complete = FakeProc::statLine(FakeProcess{.pid = 7, .name = "nginx"});
  // clang-format off
  const Case cases[] = {
      {"a complete line", complete.c_str(), 38, "nginx", 'S', 1},
      {"parentheses inside the name: the last one closes it",
       "7 ((sd-pam)) S 1 2 3 0 -1", 8, "(sd-pam)", 'S', 1},
      {"a blank in the name shifts what follows: 'b' becomes the state, 'S' is no number",
       "7 (a b) S 1 2 3 0 -1", 3, "a", 'b', 0},
      {"blanks and parentheses", "7 (x) (y) S 1 2 3", 3, "x)", '(', 0},
      {"a line that ends early", "7 (cut)", 2, "cut", '\0', 0},
      {"no closing parenthesis", "7 (broken S 1", -2, "", '\0', 0},
      {"an empty line", "", -2, "", '\0', 0},
      {"only blanks before the parenthesis", " )", -1, "", '\0', 0},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ps_info info{};
    std::string line = c.line;
    EXPECT_EQ(procfiles::parseStat(line.data(), &info), c.count);
    EXPECT_STREQ(info.commandName, c.commandName);
    EXPECT_EQ(info.state, c.state);
    EXPECT_EQ(info.ppid, c.ppid);
  }
}

TEST(ProcFilesTest, StatFieldsLandInTheirPlaces) {
  // Every value distinct: field k of the kernel's line holds 1000 + k (the masks are
  // words, the name and state text).
  std::string line = "1001 (name) R";
  for (int k = 4; k <= 52; ++k) {
    line += " " + std::to_string(1000 + k);
  }
  ps_info info{};
  ASSERT_EQ(procfiles::parseStat(line.data(), &info), procfiles::kStatFields);
  EXPECT_EQ(info.pid, 1001);
  EXPECT_STREQ(info.commandName, "name");
  EXPECT_EQ(info.state, 'R');
  const long long expected[] = {
      info.ppid, info.processGroup, info.session, info.terminal, info.terminalProcessGroup,
      static_cast<long long>(info.flags), static_cast<long long>(info.minorFaults),
      static_cast<long long>(info.childMinorFaults), static_cast<long long>(info.majorFaults),
      static_cast<long long>(info.childMajorFaults), static_cast<long long>(info.userTime),
      static_cast<long long>(info.systemTime), info.childUserTime, info.childSystemTime,
      info.priority, info.nice, info.threadCount, info.intervalTimerValue,
      static_cast<long long>(info.startTime), static_cast<long long>(info.virtualSize),
      info.residentSet, static_cast<long long>(info.residentLimit),
      static_cast<long long>(info.startCode), static_cast<long long>(info.endCode),
      static_cast<long long>(info.startStack), static_cast<long long>(info.stackPointer),
      static_cast<long long>(info.instructionPointer)};
  for (size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(expected[i], 1004 + static_cast<long long>(i)) << "kernel field " << 4 + i;
  }
  EXPECT_EQ(info.waitChannel, 1035U);
  EXPECT_EQ(info.pagesSwapped, 1036U);
  EXPECT_EQ(info.childPagesSwapped, 1037U);
  EXPECT_EQ(info.processor, 1039);  // 38, the exit signal, is skipped; so are 40 and 41
  EXPECT_EQ(info.blockIoDelayTicks, 1042U);
  EXPECT_EQ(info.guestTime, 1043U);
  EXPECT_EQ(info.childGuestTime, 1044U);
  EXPECT_EQ(info.startData, 1045U);
}

TEST(ProcFilesTest, StatNumbersOverflowAsStrtolAndTruncateToTheirWidth) {
  // A short line keeps the last four values out; numbers that overflow saturate, and
  // a "%d" keeps the low 32 bits of the long it read.
  std::string line = "4294967297 (n) S -1 99999999999999999999 0 0 0 -1";
  ps_info info{};
  info.blockIoDelayTicks = 77;
  EXPECT_EQ(procfiles::parseStat(line.data(), &info), 9);
  EXPECT_EQ(info.pid, 1);
  EXPECT_EQ(info.ppid, -1);
  EXPECT_EQ(info.processGroup, -1);  // LONG_MAX, cut to 32 bits
  EXPECT_EQ(info.flags, ULONG_MAX);  // strtoul's value of "-1"
  EXPECT_EQ(info.blockIoDelayTicks, 77U);
}

TEST(ProcFilesTest, StatusAndIoLinesAreMatchedByTheirKeys) {
  ps_info info{};
  struct Case {
    const char* line;
    procfiles::StatusLine kind;
  };
  const Case cases[] = {
      {"Name:\tkworker/u8:2-events", procfiles::STATUS_NAME},
      {"State:\tD (disk sleep)", procfiles::STATUS_STATE},
      {"Pid:\t42", procfiles::STATUS_PID},
      {"PPid:\t41", procfiles::STATUS_PPID},
      {"TracerPid:\t9", procfiles::STATUS_SKIPPED},
      {"Uid:\t1000\t1001\t1002\t1003", procfiles::STATUS_UID},
      {"Gid:\t2000\t2001\t2002\t2003", procfiles::STATUS_GID},
      {"Groups:\t4 24 27", procfiles::STATUS_SKIPPED},
      {"VmPeak:\t  999 kB", procfiles::STATUS_IGNORED},
      {"VmSize:\t   5000 kB", procfiles::STATUS_VM},
      {"VmLck:\t 1 kB", procfiles::STATUS_VM},
      {"VmRSS:\t 2000 kB", procfiles::STATUS_VM},
      {"VmData:\t 300 kB", procfiles::STATUS_VM},
      {"VmStk:\t 132 kB", procfiles::STATUS_VM},
      {"VmExe:\t 40 kB", procfiles::STATUS_VM},
      {"VmLib:\t 2100 kB", procfiles::STATUS_VM},
      {"VmSwap:\t 0 kB", procfiles::STATUS_SKIPPED},
      {"Threads:\t17", procfiles::STATUS_THREADS},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(procfiles::parseStatusLine(c.line, &info), c.kind) << c.line;
  }
  EXPECT_STREQ(info.name, "kworker/u8:2-events");
  EXPECT_EQ(info.statusState, 'D');
  EXPECT_EQ(info.statusPid, 42);
  EXPECT_EQ(info.statusPpid, 41);
  EXPECT_EQ(info.uid[1], 1001);
  EXPECT_EQ(info.uid[3], 1003);
  EXPECT_EQ(info.gid[0], 2000);
  EXPECT_EQ(info.gid[2], 2002);
  EXPECT_EQ(info.vmSize, 5000U);
  EXPECT_EQ(info.vmLck, 1U);
  EXPECT_EQ(info.vmRSS, 2000U);
  EXPECT_EQ(info.vmData, 300U);
  EXPECT_EQ(info.vmStk, 132U);
  EXPECT_EQ(info.vmExe, 40U);
  EXPECT_EQ(info.vmLib, 2100U);
  EXPECT_EQ(info.threads, 17);

  // io counters are 32-bit: above 2147483647 they wrap; the full width is kept apart.
  EXPECT_TRUE(procfiles::parseIoLine("rchar: 3000000000", &info));
  EXPECT_TRUE(procfiles::parseIoLine("wchar: 2147483647", &info));
  EXPECT_TRUE(procfiles::parseIoLine("syscr: 5", &info));
  EXPECT_TRUE(procfiles::parseIoLine("syscw: 6", &info));
  EXPECT_TRUE(procfiles::parseIoLine("read_bytes: 4294967296", &info));
  EXPECT_TRUE(procfiles::parseIoLine("write_bytes: 8", &info));
  EXPECT_TRUE(procfiles::parseIoLine("cancelled_write_bytes: 9", &info));
  EXPECT_FALSE(procfiles::parseIoLine("unknown: 10", &info));
  EXPECT_EQ(info.readChars, -1294967296);
  EXPECT_EQ(info.io64.readChars, 3000000000U);
  EXPECT_EQ(info.writtenChars, 2147483647);
  EXPECT_EQ(info.readCalls, 5);
  EXPECT_EQ(info.writeCalls, 6);
  EXPECT_EQ(info.readBytes, 0);
  EXPECT_EQ(info.io64.readBytes, 4294967296U);
  EXPECT_EQ(info.writtenBytes, 8);  // not overwritten by the cancelled count
}

TEST(ProcFilesTest, CommandLinesHaveBlanksForNulBytesAndAtMost2047Characters) {
  char text[4096];
  memcpy(text, "sleep\0" "600\0", 10);
  EXPECT_EQ(procfiles::cleanCmdline(text, 10), 10U);
  EXPECT_STREQ(text, "sleep 600 ");
  memset(text, 'x', 2048);
  EXPECT_EQ(procfiles::cleanCmdline(text, 2048), 2047U);
  EXPECT_EQ(strlen(text), 2047U);
}

// --- Snapshots of a fake tree ---

class ProcListTest : public ::testing::Test {
 protected:
  FakeProc proc_;
};

TEST_F(ProcListTest, ReadsEveryFileOfEveryProcess) {
  proc_.add(FakeProcess{.pid = 1, .name = "init", .userTime = 250, .systemTime = 120,
                        .threads = 3, .startTime = 5, .residentPages = 300, .virtualKb = 20000,
                        .cmdline = std::string("/sbin/init\0splash\0", 18),
                        .readChars = 3000000000ULL, .writtenChars = 12, .readBytes = 4096,
                        .writtenBytes = 8192});
  proc_.add(FakeProcess{.pid = 2, .name = "kthreadd", .ppid = 0, .flags = 0x208040,
                        .kernelThread = true});
  proc_.add(FakeProcess{.pid = 54, .name = "svc", .uid = 54321, .gid = 54321,
                        .cmdline = std::string("svc\0", 4)});
  proc_.write("self/stat", "not a process");  // skipped: no digit first
  TraceCapture trace("ProcFileReader::* detail");
  ProcList list(ProcList::FULL_STATUS_INFO, proc_.root().c_str());
  ASSERT_TRUE(list.isValid());
  EXPECT_EQ(list.getSecondsSinceBoot(), 10000U);
  ASSERT_EQ(list.getCount(), 3);
  auto entries = byPid(list);

  const ps_info& init = entries.at(1);
  EXPECT_EQ(init.statFieldCount, 38);
  EXPECT_STREQ(init.commandName, "init");
  EXPECT_EQ(init.userTime, 250U);
  EXPECT_EQ(init.systemTime, 120U);
  EXPECT_EQ(init.threadCount, 3);
  EXPECT_EQ(init.startTime, 5U);
  EXPECT_EQ(init.virtualSize, 20000U * 1024);
  EXPECT_EQ(init.residentSet, 300);
  EXPECT_EQ(init.processor, 1);
  EXPECT_EQ(init.startData, 4300000U);
  EXPECT_EQ(init.statmSize, 5000);
  EXPECT_EQ(init.statmResident, 300);
  EXPECT_EQ(init.statmData, 80);
  EXPECT_STREQ(init.name, "init");
  EXPECT_EQ(init.statusPid, 1);
  EXPECT_EQ(init.vmRSS, 1200U);
  EXPECT_EQ(init.vmSize, 20000U);
  EXPECT_EQ(init.threads, 3);
  EXPECT_STREQ(init.userName[0], "root");
  EXPECT_STREQ(init.userName[3], "root");
  EXPECT_EQ(init.readChars, -1294967296);  // above 2^31: wrapped
  EXPECT_EQ(init.io64.readChars, 3000000000ULL);
  EXPECT_EQ(init.writtenChars, 12);
  EXPECT_EQ(init.readBytes, 4096);
  EXPECT_EQ(init.writtenBytes, 8192);
  EXPECT_STREQ(init.cmdline, "/sbin/init splash ");

  const ps_info& kthreadd = entries.at(2);
  EXPECT_STREQ(kthreadd.cmdline, "[kthreadd]");
  EXPECT_EQ(kthreadd.vmSize, 0U);
  EXPECT_TRUE(trace.hasText("Kernel thread - no VM data"));

  const ps_info& svc = entries.at(54);
  EXPECT_EQ(svc.uid[1], 54321);
  EXPECT_STREQ(svc.userName[1], "");  // no such user
  EXPECT_STREQ(svc.cmdline, "svc ");
  EXPECT_TRUE(trace.containsText("completiing < " + proc_.root() + "/54 >"));
}

TEST_F(ProcListTest, MemoryInformationReadsOnlyStatAndStatus) {
  proc_.add(FakeProcess{.pid = 9, .name = "db", .residentPages = 5, .cmdline = "db"});
  ProcList list(ProcList::MEMORY_INFO, proc_.root().c_str());
  ASSERT_EQ(list.getCount(), 1);
  const ps_info* db = list.getEntry(0);
  EXPECT_EQ(db->residentSet, 5);
  EXPECT_EQ(db->vmRSS, 20U);
  EXPECT_EQ(db->statmResident, 0);  // statm not read
  EXPECT_FALSE(db->ioRead);
  EXPECT_STREQ(db->cmdline, "");
}

TEST_F(ProcListTest, ACommandNameWithBlanksKeepsWhatWasReadBeforeTheMisalignment) {
  proc_.add(FakeProcess{.pid = 30, .name = "a b", .userTime = 400, .cmdline = "tool"});
  proc_.add(FakeProcess{.pid = 31, .name = "x) (y", .userTime = 400, .cmdline = "other"});
  ProcList list(ProcList::FULL_STATUS_INFO, proc_.root().c_str());
  auto entries = byPid(list);
  ASSERT_EQ(entries.size(), 2U);
  for (int pid : {30, 31}) {
    const ps_info& entry = entries.at(pid);
    EXPECT_EQ(entry.statFieldCount, 3) << pid;
    EXPECT_EQ(entry.userTime, 0U) << pid;  // never reached
    EXPECT_EQ(entry.vmRSS, 400U) << pid;   // the other files are read all the same
  }
  EXPECT_STREQ(entries.at(30).commandName, "a");
  EXPECT_EQ(entries.at(30).state, 'b');
  EXPECT_STREQ(entries.at(30).name, "a");  // status's Name is read to its first blank too
  EXPECT_STREQ(entries.at(31).commandName, "x)");
  EXPECT_STREQ(entries.at(30).cmdline, "tool");
}

TEST_F(ProcListTest, AProcessThatVanishesIsAWarningAndTheSnapshotGoesOn) {
  for (int pid : {10, 11, 12}) {
    proc_.add(FakeProcess{.pid = pid, .cmdline = "p"});
  }
  // Gone before it was read: listed, but its directory is no more.
  std::filesystem::create_directory_symlink(proc_.path("gone"), proc_.path("13"));
  TraceCapture trace("ProcFileReader::* detail");
  ProcList list(ProcList::FULL_STATUS_INFO, proc_.root().c_str());
  EXPECT_EQ(list.getCount(), 3);
  EXPECT_TRUE(trace.hasText("Warn - Directory no longer exists < " + proc_.root() + "/13 >"));
  EXPECT_FALSE(trace.containsText("Error - cannot retrieve data"));

  // Gone while it was read: after stat, before statm.
  list.setReadHook([this](const char* path) {
    if (std::string(path) == proc_.path("11/statm")) {
      proc_.remove(11);
    }
  });
  trace.clear();
  ASSERT_TRUE(list.refresh());
  auto entries = byPid(list);
  EXPECT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries.count(11), 0U);
  EXPECT_TRUE(trace.hasText("Error - cannot retrieve data for < " + proc_.root() + "/11 >"));
  EXPECT_TRUE(
      trace.hasText("Error - Warn - stat failed; directory may no longer exist ...continuing"));
}

TEST_F(ProcListTest, WithoutUptimeOrRootTheSnapshotIsNotSetUp) {
  TraceCapture trace("ProcList::* error");
  ProcList missing(ProcList::FULL_STATUS_INFO, "/nonexistent/proc");
  EXPECT_FALSE(missing.isValid());
  EXPECT_EQ(missing.getCount(), 0);
  EXPECT_EQ(missing.getEntry(0), nullptr);
  EXPECT_EQ(missing.getNextEntry(), nullptr);
  EXPECT_TRUE(trace.hasText("Error in opendir of /proc"));
  EXPECT_TRUE(trace.hasText("Cannot retrieve ProcList rows - error in setting up list"));

  proc_.add(FakeProcess{.pid = 5});
  std::filesystem::remove(proc_.path("uptime"));
  ProcList noUptime(ProcList::FULL_STATUS_INFO, proc_.root().c_str());
  EXPECT_FALSE(noUptime.isValid());
  proc_.setUptime(42.9);
  EXPECT_TRUE(noUptime.refresh());
  EXPECT_EQ(noUptime.getSecondsSinceBoot(), 42U);
  EXPECT_EQ(noUptime.getCount(), 1);
}

// Runs `check` as another user than the files' owner: in a child with the ids of
// nobody when this is root, directly otherwise. Returns what `check` returned.
int asAnotherUser(const std::function<int()>& check) {
  if (geteuid() != 0) {
    return check();
  }
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) {
      _exit(100);
    }
    _exit(check());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

TEST_F(ProcListTest, AnUnreadableIoFileLeavesTheProcessWithoutIoAndCommandLine) {
  proc_.add(FakeProcess{.pid = 60, .name = "theirs", .userTime = 8, .cmdline = "theirs"});
  proc_.add(FakeProcess{.pid = 61, .name = "open", .cmdline = "open"});
  chmod(proc_.path("60/io").c_str(), 0400);
  chmod(proc_.path("61/io").c_str(), 0444);
  // 0: as expected; else the number of the failed check.
  const int failed = asAnotherUser([this] {
    TraceCapture trace("ProcFileReader::* detail");
    ProcList list(ProcList::FULL_STATUS_INFO, proc_.root().c_str());
    auto entries = byPid(list);
    if (entries.size() != 2) return 1;
    const ps_info& theirs = entries.at(60);
    if (theirs.ioRead || theirs.userTime != 8 || theirs.vmRSS != 400) return 2;
    if (std::string(theirs.cmdline) != "") return 3;
    if (std::string(entries.at(61).cmdline) != "open" || !entries.at(61).ioRead) return 4;
    if (!trace.hasText("Error - Warn - getline failed for io file ...continuing")) return 5;
    return 0;
  });
  EXPECT_EQ(failed, 0);
}

// A read of /proc that does not return, as a read of a stuck process's cmdline: a
// FIFO without a writer blocks whoever opens it.
class StuckReadTest : public ProcListTest {
 protected:
  void TearDown() override {
    // Let every left-behind read return: open each FIFO for writing while a reader
    // waits on it.
    XRV::testing::waitUntil([this] {
      for (const std::string& fifo : fifos_) {
        const int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) {
          close(fd);
        }
      }
      return ProcList::stuckReaderCount() == 0;
    });
  }
  void makeFifo(const std::string& relative) {
    const std::string path = proc_.path(relative);
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    fifos_.push_back(path);
  }

  std::vector<std::string> fifos_;
};

TEST_F(StuckReadTest, AStuckReadIsLeftBehindAndTheProcessSkippedUntilItReturns) {
  struct Case {
    const char* file;
    bool keptWithoutCmdline;  // else the process is dropped
  };
  for (const Case& c : {Case{"cmdline", true}, Case{"status", false}}) {
    SCOPED_TRACE(c.file);
    for (int pid : {70, 71, 72}) {
      proc_.add(FakeProcess{.pid = pid, .userTime = 9, .cmdline = "p" + std::to_string(pid)});
    }
    makeFifo(std::string("71/") + c.file);
    const auto started = std::chrono::steady_clock::now();
    ProcList list(ProcList::FULL_STATUS_INFO, proc_.root().c_str(), 100);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
    auto entries = byPid(list);
    EXPECT_STREQ(entries.at(70).cmdline, "p70");
    EXPECT_STREQ(entries.at(72).cmdline, "p72");
    ASSERT_EQ(entries.count(71), c.keptWithoutCmdline ? 1U : 0U);
    if (c.keptWithoutCmdline) {
      EXPECT_EQ(entries.at(71).userTime, 9U);
      EXPECT_STREQ(entries.at(71).cmdline, "");
    }
    EXPECT_EQ(ProcList::stuckReaderCount(), 1);

    // While the read has not returned the process is not tried again: no wait, no
    // second thread left behind.
    const auto again = std::chrono::steady_clock::now();
    ASSERT_TRUE(list.refresh());
    EXPECT_LT(std::chrono::steady_clock::now() - again, std::chrono::milliseconds(90));
    EXPECT_EQ(ProcList::stuckReaderCount(), 1);
    EXPECT_EQ(byPid(list).count(71), c.keptWithoutCmdline ? 1U : 0U);

    TearDown();  // the read returns
    EXPECT_EQ(ProcList::stuckReaderCount(), 0);
    fifos_.clear();
    proc_.add(FakeProcess{.pid = 71, .cmdline = "back"});
    ASSERT_TRUE(list.refresh());
    EXPECT_STREQ(byPid(list).at(71).cmdline, "back");
  }
}

}  // namespace
