#include "FileWorker.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "engine/Diagnostics.h"
#include "tail/CodePageConverter.h"

namespace xrvlog {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A record whose end was not seen (RECORDSET) is handed out after the file has been
// quiet this long.
constexpr milliseconds kRecordIdle{500};
// How often the figures other threads read are brought up to date.
constexpr milliseconds kPublishInterval{200};
// ProcessMax is kept over windows of this length.
constexpr milliseconds kThrottleWindow{1000};

std::int64_t threadCpuNs() {
  timespec ts{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// The state file of one followed file: the table and a hash of the path, so that
// names stay short and free of slashes.
std::string statePathFor(const std::string& directory, const std::string& table,
                         const std::string& path) {
  std::uint64_t hash = 14695981039346656037ull;
  for (const unsigned char c : path) {
    hash = (hash ^ c) * 1099511628211ull;
  }
  std::string name;
  for (const char c : table) {
    name += (std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-') ? c : '_';
  }
  char suffix[24];
  std::snprintf(suffix, sizeof suffix, ".%016llx.pos", static_cast<unsigned long long>(hash));
  return directory + "/" + name + suffix;
}

}  // namespace

FileWorker::FileWorker(std::shared_ptr<TableContext> table, const MdlSource& source,
                       std::string path, bool discovered, FirstPass firstPass)
    : table_(std::move(table)),
      source_(source),
      path_(std::move(path)),
      discovered_(discovered),
      firstPass_(std::move(firstPass)) {
  report_.path = path_;
  report_.pattern = source_.naming == SourceNaming::Path ? "" : source_.name;
}

FileWorker::~FileWorker() {
  stop();
  join();
  if (unmatchedFd_ >= 0) {
    ::close(unmatchedFd_);
  }
}

void FileWorker::start() {
  thread_ = std::thread([this] {
    try {
      run();
    } catch (const std::exception& e) {
      // An exception must not end the process the engine runs in: this file stops.
      diagnose("table " + table_->document.table + ": " + path_ + " is no longer read: " +
               e.what());
      {
        std::lock_guard<std::mutex> hold(lock_);
        follower_ = nullptr;
        report_.state = XPWP_FILE_ERROR;
      }
      table_->callbacks.status(table_->document.table.c_str(), path_.c_str(), XPWP_SOURCE_OFFLINE);
      passFirst(false);
    }
  });
}

void FileWorker::passFirst(bool following) {
  if (!firstPassDone_) {
    firstPassDone_ = true;
    firstPass_(following);
  }
}

void FileWorker::stop() {
  std::lock_guard<std::mutex> hold(lock_);
  stopRequested_ = true;
  if (follower_ != nullptr) {
    follower_->stop();
  }
}

void FileWorker::join() {
  if (thread_.joinable()) {
    thread_.join();
  }
}

void FileWorker::wakeUp() {
  std::lock_guard<std::mutex> hold(lock_);
  if (follower_ != nullptr) {
    follower_->wakeUp();
  }
}

FileReport FileWorker::report() const {
  std::lock_guard<std::mutex> hold(lock_);
  return report_;
}

void FileWorker::addStats(std::vector<PatternStats>& into) const {
  std::lock_guard<std::mutex> hold(lock_);
  addPatternStats(into, stats_);
}

FollowerOptions FileWorker::followerOptions() const {
  FollowerOptions options;
  options.path = path_;
  options.start = (source_.tail && !discovered_) ? StartMode::Tail : StartMode::Resume;
  options.eraseRestart = source_.eraseRestart;
  options.restartAtEnd = source_.restart == RestartPosition::FromEnd;
  if (!table_->stateDirectory.empty()) {
    options.statePath = statePathFor(table_->stateDirectory, table_->document.table, path_);
  }
  if (source_.monitorFrequency) {
    options.fileMonitorFrequency = milliseconds(std::max(1, *source_.monitorFrequency) * 1000);
  }
  if (source_.existTimeToWait) {
    options.fileExistTimeToWait = milliseconds(std::max(1, *source_.existTimeToWait) * 1000);
  }
  options.maxLineLength = std::max<std::size_t>(options.maxLineLength,
                                                static_cast<std::size_t>(table_->document.maximumAttributeSize));
  return options;
}

void FileWorker::run() {
  builder_ = std::make_unique<RecordBuilder>(table_->rules);
  const char* table = table_->document.table.c_str();
  if (source_.remote) {
    diagnose("table " + table_->document.table + ": " + path_ + " on " + source_.sshHost +
             " is a remote source, which this engine does not read");
    {
      std::lock_guard<std::mutex> hold(lock_);
      report_.state = XPWP_FILE_ERROR;
    }
    table_->callbacks.status(table, path_.c_str(), XPWP_SOURCE_OFFLINE);
    passFirst(false);
    return;
  }
  if (!source_.codepage.empty()) {
    try {
      converter_ = std::make_unique<CodePageConverter>(source_.codepage);
      if (!converter_->converts()) {
        converter_.reset();
      }
    } catch (const std::exception& e) {
      diagnose("table " + table_->document.table + ": " + path_ + ": " + e.what() +
               "; reading the file as UTF-8");
    }
  }
  const FollowerOptions options = followerOptions();
  offlineRepeat_ = options.fileExistTimeToWait;
  FileFollower follower(options,
                        [this](std::string_view line, unsigned flags) { onLine(line, flags); });
  {
    std::lock_guard<std::mutex> hold(lock_);
    follower_ = &follower;
    if (stopRequested_) {
      follower.stop();
    }
  }
  throttleWall_ = Clock::now();
  throttleCpuNs_ = threadCpuNs();
  bool first = true;
  for (;;) {
    follower.poll();
    afterPass(follower, first);
    first = false;
    const milliseconds maxWait = builder_->hasPending() ? kRecordIdle : milliseconds::max();
    if (!follower.wait(maxWait)) {
      break;
    }
  }
  // Whatever reached the file before the stop is still read and delivered.
  follower.poll();
  builder_->flushPending(deliver_);
  afterPass(follower, false);
  follower.saveState();
  {
    std::lock_guard<std::mutex> hold(lock_);
    follower_ = nullptr;
    report_.state = XPWP_FILE_STOPPED;
  }
  publish(follower, true);
}

void FileWorker::onLine(std::string_view line, unsigned flags) {
  ++lines_;
  if (converter_) {
    line = converter_->convert(line);
  }
  builder_->addLine(line, flags, deliver_);
}

void FileWorker::onRecord(std::string_view record) {
  const std::string_view host = source_.remote ? std::string_view(source_.sshHost) : "";
  if (!builder_->build(record, host)) {
    writeUnmatched(record);
    return;
  }
  ++records_;
  ++passRecords_;
  table_->callbacks.record(table_->document.table.c_str(), path_.c_str(),
                           source_.description.c_str(), builder_->pairs());
}

void FileWorker::writeUnmatched(std::string_view record) {
  if (source_.unmatchLog.empty() || unmatchedFailed_) {
    return;
  }
  if (unmatchedFd_ < 0) {
    unmatchedFd_ = ::open(source_.unmatchLog.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (unmatchedFd_ < 0) {
      unmatchedFailed_ = true;
      diagnose("table " + table_->document.table + ": cannot open UNMATCHLOG " + source_.unmatchLog +
               ": " + std::strerror(errno));
      return;
    }
  }
  char newline = '\n';
  iovec parts[2] = {{const_cast<char*>(record.data()), record.size()}, {&newline, 1}};
  // O_APPEND keeps each record whole even when several files share one log.
  if (::writev(unmatchedFd_, parts, 2) < 0 && !unmatchedFailed_) {
    unmatchedFailed_ = true;
    diagnose("table " + table_->document.table + ": cannot write UNMATCHLOG " + source_.unmatchLog +
             ": " + std::strerror(errno));
  }
}

void FileWorker::afterPass(const FileFollower& follower, bool first) {
  const auto now = Clock::now();
  // The clock is read once a pass, not once a line: the idle time of a pending
  // record only needs the pass's precision.
  if (lines_ != linesAtLastPass_) {
    linesAtLastPass_ = lines_;
    lastLine_ = now;
  }
  if (builder_->hasPending() && now - lastLine_ >= kRecordIdle) {
    builder_->flushPending(deliver_);
  }
  const char* table = table_->document.table.c_str();
  if (passRecords_ > 0 && table_->document.kind == TableKind::Sampled) {
    // The records of this pass are one sample: an empty record closes it.
    table_->callbacks.record(table, path_.c_str(), source_.description.c_str(), {});
  }
  passRecords_ = 0;
  const bool open = follower.file().open;
  if (first || open != wasOpen_) {
    if (!open && !first) {
      diagnose("table " + table_->document.table + ": " + path_ + " is gone; waiting for it");
    }
    table_->callbacks.status(table, path_.c_str(), open ? XPWP_SOURCE_FOUND : XPWP_SOURCE_OFFLINE);
    wasOpen_ = open;
    lastOfflineReport_ = now;
  } else if (!open && now - lastOfflineReport_ >= offlineRepeat_) {
    // Still missing: said again at each look, so that an agent that took the table
    // for active once it was loaded hears of the file again.
    table_->callbacks.status(table, path_.c_str(), XPWP_SOURCE_OFFLINE);
    lastOfflineReport_ = now;
  }
  publish(follower, first);
  if (first) {
    passFirst(open);
  }
  throttle();
}

void FileWorker::publish(const FileFollower& follower, bool force) {
  const auto now = Clock::now();
  if (!force && now - lastPublish_ < kPublishInterval) {
    return;
  }
  lastPublish_ = now;
  std::vector<PatternStats> fresh;
  builder_->addStats(fresh);
  const FollowedFile& file = follower.file();
  std::lock_guard<std::mutex> hold(lock_);
  stats_.swap(fresh);
  if (report_.state != XPWP_FILE_STOPPED && report_.state != XPWP_FILE_ERROR) {
    report_.state = file.open ? XPWP_FILE_FOLLOWING : XPWP_FILE_WAITING;
  }
  report_.size = file.open ? static_cast<std::int64_t>(file.size) : -1;
  report_.position = static_cast<std::int64_t>(file.position);
  report_.modified = file.modified;
  report_.lines = lines_;
  report_.records = records_;
}

// ProcessMax: the share of one CPU this table's threads may use, kept by each thread
// for itself over short windows.
void FileWorker::throttle() {
  const std::optional<int>& percent = table_->document.processMax;
  if (!percent || *percent >= 100) {
    return;
  }
  const auto now = Clock::now();
  const std::int64_t wallNs =
      std::chrono::duration_cast<std::chrono::nanoseconds>(now - throttleWall_).count();
  const std::int64_t cpuNs = threadCpuNs() - throttleCpuNs_;
  const std::int64_t allowedNs = cpuNs * 100 / std::max(1, *percent);
  if (allowedNs > wallNs) {
    const std::int64_t sleepNs = std::min<std::int64_t>(allowedNs - wallNs, 1'000'000'000);
    timespec ts{sleepNs / 1'000'000'000, sleepNs % 1'000'000'000};
    ::nanosleep(&ts, nullptr);
  }
  if (wallNs >= std::chrono::nanoseconds(kThrottleWindow).count()) {
    throttleWall_ = Clock::now();
    throttleCpuNs_ = threadCpuNs();
  }
}

}  // namespace xrvlog
