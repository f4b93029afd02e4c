// The correctness harness: a writer appends sequence-numbered lines while the file is
// rotated by rename, copied and truncated, truncated in place, deleted and recreated,
// and while the follower is stopped and started again (with a rename rotation during
// the downtime). Every line must arrive exactly once, except inside a copytruncate
// window: from the first line not yet read when the copy starts to the last line
// written before the truncation. What happens there is measured and reported.

#include "tail/FileFollower.h"

#include "TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
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

// XRVLOG_HARNESS_ROUNDS runs the scenario more often, for a longer soak.
int rounds() {
  const char* text = std::getenv("XRVLOG_HARNESS_ROUNDS");
  const int n = text == nullptr ? 0 : std::atoi(text);
  return n > 0 ? n : 2;
}

class Harness {
 public:
  explicit Harness(std::uint64_t capacity) : capacity_(capacity) {
    counts_.assign(capacity_, 0);
    openLog();
  }
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

  void write(std::uint64_t n) {
    char line[128];
    for (std::uint64_t i = 0; i < n; ++i) {
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
    const std::uint64_t start = lowestMissing();
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

  // Checks the tally; returns a report of the copytruncate windows.
  std::string verify() {
    std::lock_guard lock(mutex_);
    std::ostringstream report;
    std::size_t wrong = 0;
    for (std::uint64_t seq = 0; seq < next_; ++seq) {
      if (inWindow(seq) || counts_[seq] == 1) {
        continue;
      }
      if (++wrong <= 10) {
        ADD_FAILURE() << "line " << seq << " delivered " << int(counts_[seq]) << " times";
      }
    }
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(stray_, 0U) << "lines beyond what was written or not from the writer";
    EXPECT_EQ(damagedOutside_, 0U) << "cut or unterminated lines outside a copytruncate window";
    for (const auto& w : windows_) {
      std::uint64_t lost = 0, doubled = 0;
      for (std::uint64_t seq = w.first; seq < w.second; ++seq) {
        lost += counts_[seq] == 0;
        doubled += counts_[seq] > 1;
      }
      report << "copytruncate window of " << (w.second - w.first) << " lines: " << lost << " lost, "
             << doubled << " doubled; ";
    }
    report << "damaged lines inside windows: " << damagedInside_;
    return report.str();
  }

  // The test reads dir_, log_, next_, rotations_ and truncations_ directly.
  void openLog() {
    fd_ = ::open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd_ < 0) {
      throw std::runtime_error("open");
    }
  }
  bool inWindow(std::uint64_t seq) const {
    for (const auto& w : windows_) {
      if (seq >= w.first && seq < w.second) {
        return true;
      }
    }
    return false;
  }
  void take(std::string_view line, unsigned flags) {
    std::uint64_t seq = 0;
    const bool parsed = line.size() > 9 && line[0] == 'L' &&
                        std::from_chars(line.data() + 1, line.data() + 9, seq).ec == std::errc() &&
                        seq < capacity_;
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
    while (cursor_ < capacity_ && (counts_[cursor_] != 0 || inWindow(cursor_))) {
      ++cursor_;
    }
    return cursor_;
  }

  test::TempDir temp_{"xrvlog-harness"};
  fs::path dir_ = temp_.path();
  fs::path log_ = dir_ / "app.log";
  std::uint64_t capacity_;
  int fd_ = -1;
  std::uint64_t next_ = 0;  // the writer's next sequence number
  std::unique_ptr<FileFollower> follower_;
  std::thread runner_;
  std::mutex mutex_;
  std::vector<std::uint8_t> counts_;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> windows_;
  std::uint64_t cursor_ = 0;
  std::uint64_t rotations_ = 0, truncations_ = 0;
  std::uint64_t stray_ = 0, damagedInside_ = 0, damagedOutside_ = 0;
};

TEST(RotationHarnessTest, EveryLineOnceThroughRotationsAndRestarts) {
  const int n = rounds();
  Harness h(kLinesPerRound * static_cast<std::uint64_t>(n));
  h.startFollower(StartMode::RestartFromTop);
  for (int round = 0; round < n; ++round) {
    h.write(2000);

    // Rename: the writer keeps appending to the old file for a while.
    fs::rename(h.log_, h.dir_ / "app.log.1");
    h.write(200);
    h.reopen();
    h.write(2000);

    // copytruncate, with lines written while the copy is made.
    h.copyTruncate(100);
    h.write(2000);

    // Truncated in place once everything was read.
    h.truncateInPlace();
    h.write(2000);

    // Deleted, still written through the open descriptor, then recreated.
    fs::remove(h.log_);
    h.write(200);
    h.reopen();
    h.write(2000);

    // Restart without rotation.
    h.stopFollower();
    h.write(300);
    h.startFollower(StartMode::Tail);
    h.write(1000);

    // Restart with a rename rotation while stopped.
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
  EXPECT_EQ(h.rotations_, 3U * static_cast<unsigned>(n));
  EXPECT_EQ(h.truncations_, 3U * static_cast<unsigned>(n));
  const std::string report = h.verify();
  std::cout << "[ harness  ] " << h.next_ << " lines written; " << report << '\n';
  ::testing::Test::RecordProperty("copytruncate", report);
}

}  // namespace
}  // namespace xrvlog
