#pragma once
// FileFollower: hands every complete line of one log file to a callback exactly once,
// across rotation by rename, copytruncate, truncation in place, deletion and
// re-creation, and across a restart of the process (through a state file).
//
// Thread contract:
//  - A follower is driven by one thread: the one that calls run(), or poll() and
//    wait() in its own loop. The line handler runs on that thread, inside those calls.
//    No other member may be called concurrently with them, except stop().
//  - stop() may be called from any thread, at any time: it makes wait() and run()
//    return promptly.
//  - The handler must not throw or call back into the follower.
//
// Reading is woken by inotify (changes to the file, names appearing in its directory)
// and, whatever inotify says, by a check every fileMonitorFrequency; between those the
// thread sleeps. When the file is renamed or deleted, the open descriptor is read to
// its end (and kept for rotatedFileGrace in case the writer still appends to it)
// before the file now under the name is read from its top. A file that shrinks below
// the read position, or whose first bytes change, was truncated: it is read again from
// its top, skipping the NUL bytes a writer that does not append leaves there.
//
// The one loss: copytruncate copies the file away and then empties it. Lines written
// after the follower's last read and before the truncation are only in the copy, which
// is not followed; the window is usually one wake-up long (see the rotation harness).
//
// With a state file, the position is saved every stateSaveInterval and when run()
// returns or the follower is destroyed; after a crash, the lines handed out since the
// last save are handed out again. At restart the saved inode is looked for under the
// name and then in the same directory (a rename during the downtime), and its first
// bytes must still match. Of a file rotated away while the follower ran, what is
// appended after the stop is not read. A stopped follower stays stopped.

#include "FollowState.h"
#include "LineAssembler.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace xrvlog {

// Where reading starts when the follower is created.
enum class StartMode {
  Tail,            // TAIL: where the state file says; without one, at the end
  RestartFromTop,  // RESTARTFROMTOP: at the top, whatever was read before
  RestartFromEnd,  // RESTARTFROMEND: at the end, whatever was read before
  Resume,          // where the state file says; without one, at the top
};

struct FollowerOptions {
  std::string path;
  StartMode start = StartMode::Tail;
  // EraseRestart: the state file is removed at start, so TAIL starts at the end.
  bool eraseRestart = false;
  // A file that replaces the followed one, or a truncated one, is read from its end
  // rather than its top (only once the follower has had the file open).
  bool restartAtEnd = false;
  // Empty: positions are not kept across restarts.
  std::string statePath;
  // FileMonitorFrequency: the check that runs even when inotify reports nothing.
  std::chrono::milliseconds fileMonitorFrequency{1000};
  // FileExistTimeToWait: how often a missing file is looked for when inotify cannot
  // watch its directory.
  std::chrono::milliseconds fileExistTimeToWait{30000};
  // How long a rotated-away file is still read after it stopped growing.
  std::chrono::milliseconds rotatedFileGrace{5000};
  std::chrono::milliseconds stateSaveInterval{5000};
  std::size_t readBlockSize = 256 * 1024;
  std::size_t maxLineLength = 64 * 1024;
  std::uint32_t signatureBytes = 256;
  bool useInotify = true;
};

struct FollowerStats {
  std::uint64_t lines = 0;
  std::uint64_t bytes = 0;
  std::uint64_t rotations = 0;    // renamed or deleted away
  std::uint64_t truncations = 0;  // shrunk or rewritten in place
  std::uint64_t opens = 0;
  std::uint64_t wakeups = 0;  // returns from wait()
  std::uint64_t stateWriteErrors = 0;
};

// The followed file as the last pass saw it.
struct FollowedFile {
  bool open = false;
  std::uint64_t size = 0;
  std::uint64_t position = 0;  // offset of the next byte to read
  std::int64_t modified = -1;  // seconds since the epoch
};

class FileFollower {
 public:
  FileFollower(FollowerOptions options, LineHandler handler);
  ~FileFollower();
  FileFollower(const FileFollower&) = delete;
  FileFollower& operator=(const FileFollower&) = delete;

  // Reads whatever is there now, without blocking.
  void poll();
  // Sleeps until inotify reports a change, stop() or wakeUp() is called or the next
  // check is due, but no longer than maxWait. False once stop() was called.
  bool wait(std::chrono::milliseconds maxWait = std::chrono::milliseconds::max());
  // poll() and wait() until stop(); saves the state before returning.
  void run();
  // Any thread.
  void stop();
  // Any thread: makes wait() return at once, for a pass now.
  void wakeUp();
  // Writes the state file now (no-op without one). False if it could not be written.
  bool saveState();

  const FollowerStats& stats() const { return stats_; }
  const FollowedFile& file() const { return file_; }
  // False while the file is missing.
  bool following() const;

 private:
  struct OpenFile;
  using Clock = std::chrono::steady_clock;

  void start();
  bool openCurrent(bool fromTop);
  void readAvailable(OpenFile& file);
  void checkTruncation(OpenFile& file);
  void retireCurrent();
  void finishRetired(std::size_t index);
  void closeFile(OpenFile& file);
  void watchDirectory();
  void drainInotify();
  std::chrono::milliseconds nextTimeout() const;

  FollowerOptions options_;
  LineHandler handler_;
  LineHandler counting_;
  FollowerStats stats_;
  FollowedFile file_;
  std::unique_ptr<OpenFile> current_;
  std::vector<std::unique_ptr<OpenFile>> retired_;
  int inotifyFd_ = -1;
  int directoryWatch_ = -1;
  int wakeFd_ = -1;
  std::atomic<bool> stopped_{false};
  bool stateDirty_ = false;
  Clock::time_point lastSave_;
};

}  // namespace xrvlog
