#pragma once
// A REGEX or REGEXSTRICT source: looks for the files its pattern names when the table
// is loaded, again every FileExistTimeToWait (5 s when unset) and on every wake-up,
// and keeps one FileWorker for each file the CompareBy mode chooses. A file no longer
// chosen is read to its end, then reported offline.

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/FileWorker.h"
#include "engine/TableContext.h"

namespace xrvlog {

class PatternWatcher {
 public:
  PatternWatcher(std::shared_ptr<TableContext> table, const MdlSource& source);
  ~PatternWatcher();
  PatternWatcher(const PatternWatcher&) = delete;
  PatternWatcher& operator=(const PatternWatcher&) = delete;

  void start();
  void stop();
  void join();
  // A new look for files now, and a pass over every followed one.
  void wakeUp();
  void reports(std::vector<FileReport>& into) const;
  void addStats(std::vector<PatternStats>& into) const;

 private:
  void run();
  // Starts workers for newly chosen files and stops those no longer chosen.
  void reconcile(const std::vector<std::string>& chosen, bool initial);
  void initialFileDone(bool following);

  const std::shared_ptr<TableContext> table_;
  const MdlSource& source_;
  std::thread thread_;
  std::atomic<int> initialPending_{0};
  std::atomic<bool> initialFollowing_{false};

  // Guarded by lock_.
  mutable std::mutex lock_;
  std::condition_variable wake_;
  bool stopRequested_ = false;
  bool wakeRequested_ = false;
  std::map<std::string, std::unique_ptr<FileWorker>> workers_;
  std::vector<PatternStats> retiredStats_;  // of the workers already stopped
  std::string error_;  // the pattern could not be used
};

}  // namespace xrvlog
