// What the rotation harness cannot show deterministically. Rename, delete/recreate,
// truncation and restarts under a live writer are the harness's.

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
using Lines = std::vector<std::string>;

class FileFollowerTest : public ::testing::Test {
 public:
  void append(const std::string& text, const fs::path& path = {}) {
    std::ofstream(path.empty() ? log_ : path, std::ios::binary | std::ios::app) << text;
  }
  void rewrite(const std::string& text) { std::ofstream(log_, std::ios::binary) << text; }
  FollowerOptions options(StartMode mode = StartMode::Tail) {
    FollowerOptions o;
    o.path = log_;
    o.start = mode;
    o.statePath = state_;
    o.rotatedFileGrace = 0ms;
    return o;
  }
  std::unique_ptr<FileFollower> follower(FollowerOptions o) {
    return std::make_unique<FileFollower>(std::move(o),
                                          [this](std::string_view line, unsigned flags) {
                                            lines_.emplace_back(line);
                                            flags_.push_back(flags);
                                          });
  }
  // A follower that has read the log as it is from its top.
  std::unique_ptr<FileFollower> readFromTop(FollowerOptions o) {
    auto f = follower(std::move(o));
    f->poll();
    return f;
  }
  Lines take() { return std::exchange(lines_, {}); }

  test::TempDir temp_{"xrvlog-follow"};
  fs::path dir_ = temp_.path();
  fs::path log_ = dir_ / "app.log";
  fs::path state_ = dir_ / "app.state";
  Lines lines_;
  std::vector<unsigned> flags_;
};

TEST_F(FileFollowerTest, StartModesWithAndWithoutSavedPosition) {
  struct Case {
    const char* name;
    StartMode mode;
    bool saved;  // a previous follower read "a" and saved
    bool erase;
    Lines expected;  // after "b" was there at start and "c" appended
  };
  const Case cases[] = {
      {"TAIL, no state: from the end", StartMode::Tail, false, false, {"c"}},
      {"TAIL resumes at the saved position", StartMode::Tail, true, false, {"b", "c"}},
      {"EraseRestart forgets the position", StartMode::Tail, true, true, {"c"}},
      {"RESTARTFROMTOP ignores the position",
       StartMode::RestartFromTop,
       true,
       false,
       {"a", "b", "c"}},
      {"RESTARTFROMEND ignores the position", StartMode::RestartFromEnd, true, false, {"c"}},
      {"Resume, no state: from the top", StartMode::Resume, false, false, {"a", "b", "c"}},
      {"Resume at the saved position", StartMode::Resume, true, false, {"b", "c"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(log_);
    fs::remove(state_);
    append("a\n");
    if (c.saved) {
      ASSERT_TRUE(readFromTop(options(StartMode::RestartFromTop))->saveState());
    }
    take();
    append("b\n");
    auto o = options(c.mode);
    o.eraseRestart = c.erase;
    auto f = readFromTop(o);
    append("c\n");
    f->poll();
    EXPECT_EQ(take(), c.expected);
    EXPECT_EQ(fs::exists(state_), c.saved && !c.erase);
  }
}

// RESTARTFROMEND: a replacement or a truncated file is read from where it ends then;
// the file's first appearance is still read from its top.
TEST_F(FileFollowerTest, RestartAtEndSkipsWhatAReplacementAlreadyHolds) {
  auto o = options(StartMode::Resume);
  o.statePath.clear();
  o.restartAtEnd = true;
  auto f = readFromTop(o);
  append("first\n");
  f->poll();
  fs::rename(log_, dir_ / "app.log.1");
  append("old in new\n");
  f->poll();
  append("fresh\n");
  f->poll();
  rewrite("rewritten longer than before\n");
  fs::resize_file(log_, 4);
  f->poll();
  append("after truncation\n");
  f->poll();
  EXPECT_EQ(take(), (Lines{"first", "fresh", "after truncation"}));
  EXPECT_EQ(f->file().position, 21u);
  EXPECT_TRUE(f->file().open);
}

TEST_F(FileFollowerTest, WakeUpEndsAWaitAtOnce) {
  auto o = options(StartMode::Resume);
  o.fileMonitorFrequency = 60s;
  o.useInotify = false;
  auto f = readFromTop(o);
  std::thread waker([&] {
    std::this_thread::sleep_for(50ms);
    f->wakeUp();
  });
  const auto began = std::chrono::steady_clock::now();
  EXPECT_TRUE(f->wait());
  waker.join();
  EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);
  EXPECT_TRUE(f->wait(10ms)) << "the wake-up was consumed, the bound ends this wait";
}

TEST_F(FileFollowerTest, OverlongLineIsCutAtTheBound) {
  auto o = options(StartMode::RestartFromTop);
  o.maxLineLength = 4;
  o.readBlockSize = 3;
  append("abcdefghij\nok\n");
  readFromTop(o);
  EXPECT_EQ(take(), (Lines{"abcd", "efgh", "ij", "ok"}));
  EXPECT_EQ(flags_, (std::vector<unsigned>{kLineCut, kLineCut | kLineContinued, kLineContinued,
                                           kLineComplete}));
}

TEST_F(FileFollowerTest, MissingFileIsWaitedForAndReadFromTop) {
  auto f = readFromTop(options());
  EXPECT_FALSE(f->following());
  append("born\n");
  f->poll();
  EXPECT_TRUE(f->following());
  EXPECT_EQ(take(), Lines{"born"});
}

TEST_F(FileFollowerTest, ChangesInPlaceAndUnterminatedRotatedEnd) {
  struct Case {
    const char* name;
    std::function<void(FileFollowerTest&)> change;
    Lines expected;
    std::uint64_t rotations, truncations;
  };
  const Case cases[] = {
      {"truncated under a writer that keeps its offset",
       [](FileFollowerTest& t) {
         fs::resize_file(t.log_, 0);
         std::fstream out(t.log_, std::ios::binary | std::ios::in | std::ios::out);
         out.seekp(16);
         out << "new\n";
       },
       {"new"},
       0,
       1},
      {"rewritten in place past the read position",
       [](FileFollowerTest& t) { t.rewrite("NEW FIRST\nNEW SECOND\nNEW THIRD\n"); },
       {"NEW FIRST", "NEW SECOND", "NEW THIRD"},
       0,
       1},
      {"unterminated end of a rotated file is handed out",
       [](FileFollowerTest& t) {
         t.append("half");
         fs::rename(t.log_, t.dir_ / "app.log.1");
       },
       {"half"},
       1,
       0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(log_);
    append("old one\nold two\n");
    auto f = readFromTop(options(StartMode::RestartFromTop));
    take();
    c.change(*this);
    f->poll();
    f->poll();
    EXPECT_EQ(take(), c.expected);
    EXPECT_EQ(f->stats().rotations, c.rotations);
    EXPECT_EQ(f->stats().truncations, c.truncations);
  }
}

TEST_F(FileFollowerTest, ResumeChecksThatTheSavedFileIsStillTheSame) {
  struct Case {
    const char* name;
    std::function<void(FileFollowerTest&)> whileDown;
    Lines expected;
  };
  const Case cases[] = {
      // The held "thi" is read again, completed by the newline.
      {"appended", [](FileFollowerTest& t) { t.append("rd\n"); }, {"third"}},
      {"truncated shorter", [](FileFollowerTest& t) { t.rewrite("x\n"); }, {"x"}},
      {"rewritten longer with another head",
       [](FileFollowerTest& t) { t.rewrite("other first line\nother second line\n"); },
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
    SCOPED_TRACE(c.name);
    fs::remove(log_);
    append("first line\nsecond line\nthi");
    readFromTop(options(StartMode::RestartFromTop));
    EXPECT_EQ(take(), (Lines{"first line", "second line"}));
    c.whileDown(*this);
    readFromTop(options());
    EXPECT_EQ(take(), c.expected);
  }
}

TEST_F(FileFollowerTest, RotatedFileIsReadUntilItStaysQuietForTheGrace) {
  auto o = options(StartMode::RestartFromTop);
  o.rotatedFileGrace = 150ms;
  append("a\n");
  auto f = readFromTop(o);
  fs::rename(log_, dir_ / "app.log.1");
  f->poll();
  append("late\n", dir_ / "app.log.1");
  f->poll();
  std::this_thread::sleep_for(200ms);
  f->poll();
  append("too late\n", dir_ / "app.log.1");
  f->poll();
  EXPECT_EQ(take(), (Lines{"a", "late"}));
}

TEST_F(FileFollowerTest, WakesForChangesWithoutBusyWaiting) {
  struct Case {
    const char* name;
    bool inotify;
    std::chrono::milliseconds check, linger;
    std::uint64_t minWakeups;
  };
  // Polling alone: about one wake-up per 50 ms over some 300-500 ms, not thousands.
  // inotify: the line is seen long before the 10 s check is due.
  const Case cases[] = {{"polling alone", false, 50ms, 300ms, 3}, {"inotify", true, 10s, 0ms, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(log_);
    auto o = options(StartMode::RestartFromTop);
    o.useInotify = c.inotify;
    o.fileMonitorFrequency = o.fileExistTimeToWait = c.check;
    std::atomic<int> seen{0};
    FileFollower f(o, [&](std::string_view, unsigned) { ++seen; });
    const auto began = std::chrono::steady_clock::now();
    std::thread runner([&] { f.run(); });
    std::this_thread::sleep_for(50ms);
    append("x\n");
    for (int i = 0; i < 300 && seen.load() == 0; ++i) {
      std::this_thread::sleep_for(10ms);
    }
    std::this_thread::sleep_for(c.linger);
    f.stop();
    runner.join();
    EXPECT_EQ(seen.load(), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);
    EXPECT_GE(f.stats().wakeups, c.minWakeups);
    EXPECT_LE(f.stats().wakeups, 40U);
  }
}

TEST_F(FileFollowerTest, NoDescriptorLeaksAcrossRotations) {
  const auto descriptors = [] {
    const fs::directory_iterator fds("/proc/self/fd");
    return std::distance(begin(fds), end(fds));
  };
  const auto before = descriptors();
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
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
}  // namespace xrvlog
