#pragma once
// One followed file of a table, on a thread of its own: the follower hands lines to
// the record builder, kept records go to the agent's data callback, the others to
// the source's UNMATCHLOG, and changes of the file's presence to the status callback.
//
// start(), stop(), join(), wakeUp(), report() and addStats() may be called from any
// thread; everything else runs on the worker's thread.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/TableContext.h"
#include "match/Matcher.h"
#include "tail/FileFollower.h"

namespace xrvlog {

class CodePageConverter;

// What XPWP_GetMonitoredFileStatus reports for one file.
struct FileReport {
  std::string path;
  std::string pattern;  // of the source that found the file; "" for a plain path
  int state = XPWP_FILE_WAITING;
  std::int64_t size = -1;
  std::int64_t position = 0;
  std::int64_t modified = -1;
  std::uint64_t lines = 0;
  std::uint64_t records = 0;
};

class FileWorker {
 public:
  // Called once, on the worker's thread, after its first pass over the file; the
  // argument tells whether the file is there.
  using FirstPass = std::function<void(bool following)>;

  // discovered: the file turned up after the table was loaded (a new match of a
  // pattern), so it is read from its top even under TAIL.
  FileWorker(std::shared_ptr<TableContext> table, const MdlSource& source, std::string path,
             bool discovered, FirstPass firstPass);
  ~FileWorker();
  FileWorker(const FileWorker&) = delete;
  FileWorker& operator=(const FileWorker&) = delete;

  void start();
  // Reads what is there, hands out a record still being collected, saves the
  // position; join() waits for it.
  void stop();
  void join();
  void wakeUp();

  const std::string& path() const { return path_; }
  FileReport report() const;
  void addStats(std::vector<PatternStats>& into) const;

 private:
  void run();
  FollowerOptions followerOptions() const;
  void onLine(std::string_view line, unsigned flags);
  void onRecord(std::string_view record);
  void afterPass(const FileFollower& follower, bool first);
  void writeUnmatched(std::string_view record);
  void throttle();
  void publish(const FileFollower& follower, bool force);
  // Calls firstPass_ the first time only.
  void passFirst(bool following);

  const std::shared_ptr<TableContext> table_;
  const MdlSource& source_;
  const std::string path_;
  const bool discovered_;
  const FirstPass firstPass_;
  std::thread thread_;

  // The worker thread's own state.
  // Hands each record the builder completes to onRecord; made once, not once a line.
  const RecordHandler deliver_ = [this](std::string_view record) { onRecord(record); };
  std::unique_ptr<RecordBuilder> builder_;
  std::unique_ptr<CodePageConverter> converter_;
  int unmatchedFd_ = -1;
  bool unmatchedFailed_ = false;
  bool wasOpen_ = false;
  bool firstPassDone_ = false;
  std::uint64_t lines_ = 0;
  std::uint64_t records_ = 0;
  std::uint64_t passRecords_ = 0;
  std::uint64_t linesAtLastPass_ = 0;
  std::chrono::steady_clock::time_point lastLine_;  // end of the last pass that read a line
  std::chrono::steady_clock::time_point lastPublish_;
  std::chrono::steady_clock::time_point lastOfflineReport_;
  std::chrono::milliseconds offlineRepeat_{30000};  // FileExistTimeToWait
  std::chrono::steady_clock::time_point throttleWall_;
  std::int64_t throttleCpuNs_ = 0;

  // Guarded by lock_: shared with the callers of stop(), wakeUp(), report(), addStats().
  mutable std::mutex lock_;
  FileFollower* follower_ = nullptr;
  bool stopRequested_ = false;
  FileReport report_;
  std::vector<PatternStats> stats_;
};

}  // namespace xrvlog
