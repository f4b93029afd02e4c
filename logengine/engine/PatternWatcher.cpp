#include "PatternWatcher.h"

#include <algorithm>
#include <chrono>

#include "engine/Diagnostics.h"
#include "tail/SourceScanner.h"

namespace xrvlog {
namespace {

constexpr std::chrono::seconds kDefaultRescan{5};

}  // namespace

PatternWatcher::PatternWatcher(std::shared_ptr<TableContext> table, const MdlSource& source)
    : table_(std::move(table)), source_(source) {}

PatternWatcher::~PatternWatcher() {
  stop();
  join();
}

void PatternWatcher::start() { thread_ = std::thread([this] { run(); }); }

void PatternWatcher::stop() {
  std::lock_guard<std::mutex> hold(lock_);
  stopRequested_ = true;
  wake_.notify_all();
}

void PatternWatcher::join() {
  if (thread_.joinable()) {
    thread_.join();
  }
}

void PatternWatcher::wakeUp() {
  std::lock_guard<std::mutex> hold(lock_);
  wakeRequested_ = true;
  wake_.notify_all();
  for (auto& [path, worker] : workers_) {
    worker->wakeUp();
  }
}

void PatternWatcher::reports(std::vector<FileReport>& into) const {
  std::lock_guard<std::mutex> hold(lock_);
  if (workers_.empty()) {
    FileReport waiting;
    waiting.path = source_.name;
    waiting.pattern = source_.name;
    waiting.state = error_.empty() ? XPWP_FILE_WAITING : XPWP_FILE_ERROR;
    into.push_back(waiting);
  }
  for (const auto& [path, worker] : workers_) {
    into.push_back(worker->report());
  }
}

void PatternWatcher::addStats(std::vector<PatternStats>& into) const {
  std::lock_guard<std::mutex> hold(lock_);
  addPatternStats(into, retiredStats_);
  for (const auto& [path, worker] : workers_) {
    worker->addStats(into);
  }
}

void PatternWatcher::initialFileDone(bool following) {
  if (following) {
    initialFollowing_.store(true);
  }
  if (initialPending_.fetch_sub(1) == 1) {
    table_->firstPassDone(initialFollowing_.load());
  }
}

void PatternWatcher::run() {
  std::unique_ptr<SourceScanner> scanner;
  try {
    scanner = std::make_unique<SourceScanner>(source_.naming, source_.name, source_.compare);
  } catch (const std::exception& e) {
    diagnose("table " + table_->document.table + ": the file pattern " + source_.name +
             " cannot be used: " + e.what());
    {
      std::lock_guard<std::mutex> hold(lock_);
      error_ = e.what();
    }
    table_->callbacks.status(table_->document.table.c_str(), source_.name.c_str(),
                             XPWP_SOURCE_OFFLINE);
    table_->firstPassDone(false);
    return;
  }
  const auto interval = source_.existTimeToWait
                            ? std::chrono::seconds(std::max(1, *source_.existTimeToWait))
                            : kDefaultRescan;
  bool initial = true;
  bool saidLimited = false;
  bool looking = true;
  for (;;) {
    if (looking) {
      try {
        reconcile(scanner->scan(), initial);
      } catch (const std::exception& e) {
        // An exception must not end the process the engine runs in: the files already
        // followed go on, no new ones are looked for.
        diagnose("table " + table_->document.table + ": the file pattern " + source_.name +
                 " is no longer looked for: " + e.what());
        looking = false;
        if (initial) {
          table_->firstPassDone(false);
        }
      }
      initial = false;
      if (scanner->limited() && !saidLimited) {
        diagnose("table " + table_->document.table + ": the file pattern " + source_.name +
                 " matches more than the engine looks at; some files are not followed");
      }
      saidLimited = scanner->limited();
    }
    std::unique_lock<std::mutex> hold(lock_);
    wake_.wait_for(hold, interval, [this] { return stopRequested_ || wakeRequested_; });
    wakeRequested_ = false;
    if (stopRequested_) {
      break;
    }
  }
  std::map<std::string, std::unique_ptr<FileWorker>> last;
  {
    std::lock_guard<std::mutex> hold(lock_);
    last.swap(workers_);
  }
  for (auto& [path, worker] : last) {
    worker->stop();
  }
  for (auto& [path, worker] : last) {
    worker->join();
  }
  std::lock_guard<std::mutex> hold(lock_);
  workers_.swap(last);  // stopped, but still reported with their last figures
}

void PatternWatcher::reconcile(const std::vector<std::string>& chosen, bool initial) {
  std::vector<std::unique_ptr<FileWorker>> dropped;
  std::vector<FileWorker*> started;
  {
    std::lock_guard<std::mutex> hold(lock_);
    if (stopRequested_) {
      return;
    }
    for (auto it = workers_.begin(); it != workers_.end();) {
      if (std::find(chosen.begin(), chosen.end(), it->first) == chosen.end()) {
        dropped.push_back(std::move(it->second));
        it = workers_.erase(it);
      } else {
        ++it;
      }
    }
    if (initial) {
      initialPending_.store(static_cast<int>(chosen.size()));
    }
    for (const std::string& path : chosen) {
      if (workers_.count(path) != 0) {
        continue;
      }
      FileWorker::FirstPass firstPass = [](bool) {};
      if (initial) {
        firstPass = [this](bool following) { initialFileDone(following); };
      }
      auto worker = std::make_unique<FileWorker>(table_, source_, path, !initial, std::move(firstPass));
      started.push_back(worker.get());
      workers_.emplace(path, std::move(worker));
    }
  }
  for (FileWorker* worker : started) {
    worker->start();
  }
  if (initial && chosen.empty()) {
    table_->callbacks.status(table_->document.table.c_str(), source_.name.c_str(),
                             XPWP_SOURCE_OFFLINE);
    table_->firstPassDone(false);
  }
  // A file no longer chosen is finished outside the lock: reading it to its end may
  // take a while, and reports go on meanwhile.
  for (auto& worker : dropped) {
    worker->stop();
    worker->join();
    std::vector<PatternStats> last;
    worker->addStats(last);
    table_->callbacks.status(table_->document.table.c_str(), worker->path().c_str(),
                             XPWP_SOURCE_OFFLINE);
    std::lock_guard<std::mutex> hold(lock_);
    addPatternStats(retiredStats_, last);
  }
}

}  // namespace xrvlog
