// The correctness harness: a writer appends sequence-numbered lines while the file is
// rotated by rename, copied and truncated, truncated in place, deleted and recreated,
// and while the follower is stopped and started again (with a rename rotation during
// the downtime). Every line must arrive exactly once, except inside a copytruncate
// window: from the first line not yet read when the copy starts to the last line
// written before the truncation. What happens there is measured and reported, one
// line per kind of rotation.

#include "tail/FileFollower.h"

#include "TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>

namespace xrvlog {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr std::uint64_t kLinesPerRound = 16000;

// For a soak (make soak): XRVLOG_HARNESS_SECONDS runs rounds until that many seconds
// have passed, XRVLOG_HARNESS_ROUNDS that many rounds. By default, two rounds.
int envNumber(const char* name) {
  const char* text = std::getenv(name);
  const int n = text == nullptr ? 0 : std::atoi(text);
  return n > 0 ? n : 0;
}

// What was done to the file; the lines written after it until the next are its lines.
enum Kind : std::size_t {
  kFirst,
  kRename,
  kCopyTruncate,
  kTruncate,
  kDelete,
  kRestart,
  kRenameStopped,
  kKinds
};
constexpr std::array<const char*, kKinds> kKindNames = {"start",
                                                        "rename",
                                                        "copytruncate",
                                                        "truncate in place",
                                                        "delete and recreate",
                                                        "restart",
                                                        "rename while stopped"};

class Harness {
 public:
  Harness() { openLog(); }
  ~Harness() {
    if (runner_.joinable()) {
      stopFollower();
    }
    ::close(fd_);
  }

  void startFollower(StartMode mode) {
    FollowerOptions o;
    o.path = log_;
    o.start = mode;
    o.statePath = dir_ / "app.state";
    o.fileMonitorFrequency = 100ms;
    o.fileExistTimeToWait = 100ms;
    o.rotatedFileGrace = 300ms;
    o.stateSaveInterval = 100ms;
    o.readBlockSize = 64 * 1024;
    follower_ = std::make_unique<FileFollower>(
        o, [this](std::string_view line, unsigned flags) { take(line, flags); });
    runner_ = std::thread([f = follower_.get()] { f->run(); });
  }
  void stopFollower() {
    follower_->stop();
    runner_.join();
    rotations_ += follower_->stats().rotations;
    truncations_ += follower_->stats().truncations;
    follower_.reset();
  }

  // The following lines are written after `kind` happened to the file.
  void mark(Kind kind) {
    phases_.push_back({next_, kind});
    ++events_[kind];
  }

  void write(std::uint64_t n) {
    char line[128];
    for (std::uint64_t i = 0; i < n; ++i) {
      if (next_ == counts_.size()) {
        std::lock_guard lock(mutex_);
        counts_.resize(counts_.size() + kLinesPerRound, 0);
      }
      const int len =
          std::snprintf(line, sizeof line, "L%08llu %.*s\n", static_cast<unsigned long long>(next_),
                        static_cast<int>(next_ % 61),
                        "abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyzabcdefghijk");
      if (::write(fd_, line, static_cast<std::size_t>(len)) != len) {
        throw std::runtime_error("write");
      }
      ++next_;
      if (next_ % 64 == 0) {
        std::this_thread::sleep_for(200us);
      }
    }
  }
  void reopen() {
    ::close(fd_);
    openLog();
  }
  void copyTruncate(std::uint64_t writtenDuringCopy) {
    mark(kCopyTruncate);
    // Windows stay ordered and apart, for inWindow's search.
    const std::uint64_t start =
        std::max(lowestMissing(), windows_.empty() ? 0 : windows_.back().second);
    {
      std::ifstream in(log_, std::ios::binary);
      std::ofstream out(dir_ / "app.log.copy", std::ios::binary | std::ios::trunc);
      out << in.rdbuf();
    }
    write(writtenDuringCopy);
    truncate();
    std::lock_guard lock(mutex_);
    windows_.push_back({start, next_});
  }
  void truncateInPlace() {
    waitFor(next_);
    truncate();
  }
  void truncate() {
    if (::ftruncate(fd_, 0) != 0) {
      throw std::runtime_error("ftruncate");
    }
  }
  bool waitFor(std::uint64_t end, std::chrono::milliseconds limit = 10s) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (lowestMissing() < end) {
      if (std::chrono::steady_clock::now() > until) {
        return false;
      }
      std::this_thread::sleep_for(5ms);
    }
    return true;
  }

  // Checks the tally; returns the report, one line per kind.
  std::vector<std::string> verify() {
    std::lock_guard lock(mutex_);
    struct Tally {
      std::uint64_t lines = 0, wrong = 0, inWindows = 0, lost = 0, doubled = 0;
    };
    std::array<Tally, kKinds> tallies{};
    std::size_t phase = 0;
    std::uint64_t wrong = 0;
    for (std::uint64_t seq = 0; seq < next_; ++seq) {
      while (phase + 1 < phases_.size() && phases_[phase + 1].first <= seq) {
        ++phase;
      }
      Tally& tally = tallies[phases_[phase].second];
      ++tally.lines;
      if (inWindow(seq)) {
        // A window may begin with lines written before the copy: all of it is the
        // copytruncate's.
        Tally& window = tallies[kCopyTruncate];
        ++window.inWindows;
        window.lost += counts_[seq] == 0;
        window.doubled += counts_[seq] > 1;
      } else if (counts_[seq] != 1) {
        ++tally.wrong;
        if (++wrong <= 10) {
          ADD_FAILURE() << "line " << seq << " (after " << kKindNames[phases_[phase].second]
                        << ") delivered " << int(counts_[seq]) << " times";
        }
      }
    }
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(stray_, 0U) << "lines beyond what was written or not from the writer";
    EXPECT_EQ(damagedOutside_, 0U) << "cut or unterminated lines outside a copytruncate window";
    std::vector<std::string> report;
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
      const Tally& t = tallies[kind];
      std::ostringstream line;
      line << kKindNames[kind] << ": ";
      if (kind != kFirst) {
        line << events_[kind] << " times, ";
      }
      line << t.lines << (kind == kFirst ? " lines, " : " lines after, ") << t.wrong << " wrong";
      if (kind == kCopyTruncate) {
        line << "; " << t.inWindows << " in its windows: " << t.lost << " lost, " << t.doubled
             << " doubled, " << damagedInside_ << " torn";
      }
      report.push_back(line.str());
    }
    return report;
  }

  // The test reads dir_, log_, next_, rotations_, truncations_ and events_ directly.
  void openLog() {
    fd_ = ::open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd_ < 0) {
      throw std::runtime_error("open");
    }
  }
  bool inWindow(std::uint64_t seq) const {
    const auto after = std::upper_bound(windows_.begin(), windows_.end(), seq,
                                        [](std::uint64_t s, const auto& w) { return s < w.first; });
    return after != windows_.begin() && seq < std::prev(after)->second;
  }
  void take(std::string_view line, unsigned flags) {
    std::uint64_t seq = 0;
    const bool parsed = line.size() > 9 && line[0] == 'L' &&
                        std::from_chars(line.data() + 1, line.data() + 9, seq).ec == std::errc() &&
                        seq < counts_.size();
    std::lock_guard lock(mutex_);
    if (flags != kLineComplete) {
      // A torn line can only come from a truncation cutting a line short.
      (parsed && inWindow(seq) ? damagedInside_ : damagedOutside_) += 1;
      return;
    }
    if (!parsed) {
      ++stray_;
      return;
    }
    if (counts_[seq] < 255) {
      ++counts_[seq];
    }
  }
  std::uint64_t lowestMissing() {
    std::lock_guard lock(mutex_);
    while (cursor_ < counts_.size() && (counts_[cursor_] != 0 || inWindow(cursor_))) {
      ++cursor_;
    }
    return cursor_;
  }

  test::TempDir temp_{"xrvlog-harness"};
  fs::path dir_ = temp_.path();
  fs::path log_ = dir_ / "app.log";
  int fd_ = -1;
  std::uint64_t next_ = 0;  // the writer's next sequence number
  std::unique_ptr<FileFollower> follower_;
  std::thread runner_;
  std::mutex mutex_;
  std::vector<std::uint8_t> counts_;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> windows_;     // [first, end) lines
  std::vector<std::pair<std::uint64_t, Kind>> phases_{{0, kFirst}};  // first line, kind
  std::array<std::uint64_t, kKinds> events_{};
  std::uint64_t cursor_ = 0;
  std::uint64_t rotations_ = 0, truncations_ = 0;
  std::uint64_t stray_ = 0, damagedInside_ = 0, damagedOutside_ = 0;
};

TEST(RotationHarnessTest, EveryLineOnceThroughRotationsAndRestarts) {
  const int seconds = envNumber("XRVLOG_HARNESS_SECONDS");
  const int rounds = seconds > 0 ? 0 : std::max(envNumber("XRVLOG_HARNESS_ROUNDS"), 2);
  const auto began = std::chrono::steady_clock::now();
  const auto until = began + std::chrono::seconds(seconds);
  Harness h;
  h.startFollower(StartMode::RestartFromTop);
  int round = 0;
  for (;
       round < rounds || (seconds > 0 && (round == 0 || std::chrono::steady_clock::now() < until));
       ++round) {
    h.write(2000);

    // Rename: the writer keeps appending to the old file for a while.
    h.mark(kRename);
    fs::rename(h.log_, h.dir_ / "app.log.1");
    h.write(200);
    h.reopen();
    h.write(2000);

    // copytruncate, with lines written while the copy is made.
    h.copyTruncate(100);
    h.write(2000);

    // Truncated in place once everything was read.
    h.mark(kTruncate);
    h.truncateInPlace();
    h.write(2000);

    // Deleted, still written through the open descriptor, then recreated.
    h.mark(kDelete);
    fs::remove(h.log_);
    h.write(200);
    h.reopen();
    h.write(2000);

    // Restart without rotation.
    h.mark(kRestart);
    h.stopFollower();
    h.write(300);
    h.startFollower(StartMode::Tail);
    h.write(1000);

    // Restart with a rename rotation while stopped.
    h.mark(kRenameStopped);
    h.stopFollower();
    h.write(500);
    fs::rename(h.log_, h.dir_ / "app.log.2");
    h.write(100);
    h.reopen();
    h.write(500);
    h.startFollower(StartMode::Tail);
    h.write(2000);

    // A second copytruncate, right after a burst.
    h.copyTruncate(50);
    h.write(1000);
  }

  EXPECT_TRUE(h.waitFor(h.next_)) << "not every line arrived";
  h.stopFollower();
  // Per round: rename, delete, the rename found at restart; two copytruncates and
  // one truncation in place.
  EXPECT_EQ(h.rotations_, 3U * static_cast<unsigned>(round));
  EXPECT_EQ(h.truncations_, 3U * static_cast<unsigned>(round));
  const std::vector<std::string> report = h.verify();
  const auto took = std::chrono::duration<double>(std::chrono::steady_clock::now() - began);
  std::cout << "[ harness  ] " << h.next_ << " lines in " << round << " rounds, " << took.count()
            << " s\n";
  for (const std::string& line : report) {
    std::cout << "[ harness  ] " << line << '\n';
  }
  ::testing::Test::RecordProperty("copytruncate", report[kCopyTruncate]);
}

}  // namespace
}  // namespace xrvlog
