#include "tail/FileFollower.h"

#include "TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

namespace xrvlog {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::size_t openDescriptors() {
  std::size_t n = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    ++n;
  }
  return n;
}

class FileFollowerTest : public ::testing::Test {
public:
  void append(const std::string& text, const fs::path& path = {}) {
    std::ofstream(path.empty() ? log_ : path, std::ios::binary | std::ios::app) << text;
  }
  FollowerOptions options(StartMode mode = StartMode::Tail) {
    FollowerOptions o;
    o.path = log_;
    o.start = mode;
    o.statePath = state_;
    o.rotatedFileGrace = 0ms;
    return o;
  }
  std::unique_ptr<FileFollower> follower(FollowerOptions o) {
    return std::make_unique<FileFollower>(std::move(o), [this](std::string_view line, unsigned flags) {
      lines_.emplace_back(line);
      flags_.push_back(flags);
    });
  }
  std::vector<std::string> take() { return std::exchange(lines_, {}); }

  test::TempDir temp_{"xrvlog-follow"};
  fs::path dir_ = temp_.path();
  fs::path log_ = dir_ / "app.log";
  fs::path state_ = dir_ / "app.state";
  std::vector<std::string> lines_;
  std::vector<unsigned> flags_;
};

using Lines = std::vector<std::string>;

TEST_F(FileFollowerTest, StartModesWithAndWithoutSavedPosition) {
  struct Case {
    const char* name;
    StartMode mode;
    bool saved;       // a previous follower read "a" and stopped
    bool erase;
    Lines expected;   // after "c" is appended
  };
  const Case cases[] = {
      {"TAIL, no state: from the end", StartMode::Tail, false, false, {"c"}},
      {"TAIL resumes at the saved position", StartMode::Tail, true, false, {"b", "c"}},
      {"EraseRestart forgets the position", StartMode::Tail, true, true, {"c"}},
      {"RESTARTFROMTOP ignores the position", StartMode::RestartFromTop, true, false, {"a", "b", "c"}},
      {"RESTARTFROMEND ignores the position", StartMode::RestartFromEnd, true, false, {"c"}},
      {"RESTARTFROMTOP, no state", StartMode::RestartFromTop, false, false, {"a", "b", "c"}},
  };
  for (const auto& c : cases) {
    fs::remove(log_);
    fs::remove(state_);
    append("a\n");
    if (c.saved) {
      auto first = follower(options(StartMode::RestartFromTop));
      first->poll();
      ASSERT_TRUE(first->saveState());
    }
    take();
    append("b\n");
    auto o = options(c.mode);
    o.eraseRestart = c.erase;
    auto f = follower(o);
    f->poll();
    append("c\n");
    f->poll();
    EXPECT_EQ(take(), c.expected) << c.name;
    if (c.erase) {
      EXPECT_FALSE(fs::exists(state_)) << c.name;
    }
  }
}

TEST_F(FileFollowerTest, PartialLineWaitsForItsNewlineAndSurvivesRestart) {
  append("one\ntw");
  auto f = follower(options(StartMode::RestartFromTop));
  f->poll();
  EXPECT_EQ(take(), Lines{"one"});
  ASSERT_TRUE(f->saveState());
  f.reset();
  // The held "tw" is read again by the next follower, completed by the newline.
  append("o\n");
  f = follower(options());
  f->poll();
  EXPECT_EQ(take(), Lines{"two"});
  EXPECT_EQ(flags_.back(), kLineComplete);
}

TEST_F(FileFollowerTest, OverlongLineIsCutAtTheBound) {
  auto o = options(StartMode::RestartFromTop);
  o.maxLineLength = 4;
  o.readBlockSize = 3;
  append("abcdefghij\nok\n");
  auto f = follower(o);
  f->poll();
  EXPECT_EQ(take(), (Lines{"abcd", "efgh", "ij", "ok"}));
  EXPECT_EQ(flags_, (std::vector<unsigned>{kLineCut, kLineCut | kLineContinued, kLineContinued, kLineComplete}));
}

TEST_F(FileFollowerTest, MissingFileIsWaitedForAndReadFromTop) {
  auto f = follower(options());
  f->poll();
  EXPECT_FALSE(f->following());
  append("born\n");
  f->poll();
  EXPECT_TRUE(f->following());
  EXPECT_EQ(take(), Lines{"born"});
}

TEST_F(FileFollowerTest, RotationsAndTruncationsWithoutWriterRaces) {
  struct Case {
    const char* name;
    std::function<void(FileFollowerTest&)> rotate;
    Lines expected;
    std::uint64_t rotations, truncations;
  };
  const Case cases[] = {
      {"rename, old file written after the rename",
       [](FileFollowerTest& t) {
         fs::rename(t.log_, t.dir_ / "app.log.1");
         t.append("late\n", t.dir_ / "app.log.1");
         t.append("new\n");
       },
       {"late", "new"}, 1, 0},
      {"delete and recreate",
       [](FileFollowerTest& t) {
         fs::remove(t.log_);
         t.append("new\n");
       },
       {"new"}, 1, 0},
      {"truncate to empty, then written",
       [](FileFollowerTest& t) {
         fs::resize_file(t.log_, 0);
         t.append("new\n");
       },
       {"new"}, 0, 1},
      {"truncated under a writer that keeps its offset",
       [](FileFollowerTest& t) {
         fs::resize_file(t.log_, 0);
         std::fstream out(t.log_, std::ios::binary | std::ios::in | std::ios::out);
         out.seekp(16);
         out << "new\n";
       },
       {"new"}, 0, 1},
      {"rewritten in place past the read position",
       [](FileFollowerTest& t) {
         std::ofstream(t.log_, std::ios::binary) << "NEW FIRST\nNEW SECOND\nNEW THIRD\n";
       },
       {"NEW FIRST", "NEW SECOND", "NEW THIRD"}, 0, 1},
      {"unterminated end of a rotated file is handed out",
       [](FileFollowerTest& t) {
         t.append("half");
         fs::rename(t.log_, t.dir_ / "app.log.1");
       },
       {"half"}, 1, 0},
  };
  for (const auto& c : cases) {
    fs::remove(log_);
    append("old one\nold two\n");
    auto f = follower(options(StartMode::RestartFromTop));
    f->poll();
    EXPECT_EQ(take(), (Lines{"old one", "old two"})) << c.name;
    c.rotate(*this);
    f->poll();
    f->poll();
    EXPECT_EQ(take(), c.expected) << c.name;
    EXPECT_EQ(f->stats().rotations, c.rotations) << c.name;
    EXPECT_EQ(f->stats().truncations, c.truncations) << c.name;
  }
}

TEST_F(FileFollowerTest, RenameWhileDownIsReadToTheEndOfTheOldFile) {
  append("a\n");
  auto f = follower(options(StartMode::RestartFromTop));
  f->poll();
  f.reset(); // saves the state
  take();
  append("b\n");
  fs::rename(log_, dir_ / "app.log.1");
  append("c\n");
  f = follower(options());
  f->poll();
  f->poll();
  EXPECT_EQ(take(), (Lines{"b", "c"}));
  // Gone entirely while down: the new file is read from its top.
  f.reset();
  append("d\n");
  fs::remove(log_);
  append("e\n");
  f = follower(options());
  f->poll();
  EXPECT_EQ(take(), Lines{"e"});
}

TEST_F(FileFollowerTest, ResumeChecksThatTheSavedFileIsStillTheSame) {
  struct Case {
    const char* name;
    std::function<void(FileFollowerTest&)> whileDown;
    Lines expected;
  };
  const Case cases[] = {
      {"appended", [](FileFollowerTest& t) { t.append("more\n"); }, {"more"}},
      {"truncated shorter", [](FileFollowerTest& t) { std::ofstream(t.log_, std::ios::binary) << "x\n"; }, {"x"}},
      {"rewritten longer with another head",
       [](FileFollowerTest& t) { std::ofstream(t.log_, std::ios::binary) << "other first line\nother second line\n"; },
       {"other first line", "other second line"}},
      // The inode number may well be reused; the first bytes tell the files apart.
      {"deleted and recreated",
       [](FileFollowerTest& t) {
         fs::remove(t.log_);
         t.append("recreated with a longer first line\n");
       },
       {"recreated with a longer first line"}},
  };
  for (const auto& c : cases) {
    fs::remove(log_);
    append("first line\nsecond line\n");
    follower(options(StartMode::RestartFromTop))->poll();
    take();
    c.whileDown(*this);
    auto f = follower(options());
    f->poll();
    EXPECT_EQ(take(), c.expected) << c.name;
  }
}

TEST_F(FileFollowerTest, RotatedFileIsReadUntilItStaysQuietForTheGrace) {
  auto o = options(StartMode::RestartFromTop);
  o.rotatedFileGrace = 150ms;
  append("a\n");
  const std::size_t before = openDescriptors();
  auto f = follower(o);
  f->poll();
  fs::rename(log_, dir_ / "app.log.1");
  f->poll();
  EXPECT_EQ(openDescriptors(), before + 3) << "eventfd, inotify and the old file";
  append("late\n", dir_ / "app.log.1");
  f->poll();
  std::this_thread::sleep_for(200ms);
  f->poll();
  EXPECT_EQ(openDescriptors(), before + 2) << "the old file is closed";
  append("too late\n", dir_ / "app.log.1");
  f->poll();
  EXPECT_EQ(take(), (Lines{"a", "late"}));
}

TEST_F(FileFollowerTest, PollingAloneFindsChangesWithoutBusyWaiting) {
  auto o = options(StartMode::RestartFromTop);
  o.useInotify = false;
  o.fileMonitorFrequency = 50ms;
  o.fileExistTimeToWait = 50ms;
  std::atomic<int> seen{0};
  FileFollower f(o, [&](std::string_view, unsigned) { ++seen; });
  std::thread runner([&] { f.run(); });
  append("x\n");
  for (int i = 0; i < 200 && seen.load() == 0; ++i) {
    std::this_thread::sleep_for(10ms);
  }
  std::this_thread::sleep_for(300ms);
  f.stop();
  runner.join();
  EXPECT_EQ(seen.load(), 1);
  // About one wake-up per 50 ms over some 300-500 ms, not thousands.
  EXPECT_LE(f.stats().wakeups, 40U);
  EXPECT_GE(f.stats().wakeups, 3U);
}

TEST_F(FileFollowerTest, InotifyWakesWellBeforeTheCheckIsDue) {
  auto o = options();
  o.fileMonitorFrequency = 10s;
  o.fileExistTimeToWait = 10s;
  std::atomic<int> seen{0};
  FileFollower f(o, [&](std::string_view, unsigned) { ++seen; });
  const auto began = std::chrono::steady_clock::now();
  std::thread runner([&] { f.run(); });
  std::this_thread::sleep_for(50ms);
  append("created later\n");
  for (int i = 0; i < 300 && seen.load() == 0; ++i) {
    std::this_thread::sleep_for(10ms);
  }
  f.stop();
  runner.join();
  EXPECT_EQ(seen.load(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);
}

TEST_F(FileFollowerTest, NoDescriptorLeaksAcrossRotations) {
  const std::size_t before = openDescriptors();
  for (int round = 0; round < 3; ++round) {
    append("line\n");
    auto f = follower(options(StartMode::RestartFromTop));
    for (int i = 0; i < 8; ++i) {
      f->poll();
      fs::rename(log_, dir_ / ("app.log." + std::to_string(i)));
      append("next\n");
    }
    f->poll();
    fs::remove(log_);
    f->poll();
  }
  EXPECT_EQ(openDescriptors(), before);
}

} // namespace
} // namespace xrvlog
