#include "sources/process/ProcList.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "framework/Mutex.h"
#include "framework/Trace.h"
#include "sources/process/ProcFiles.h"

namespace {

// Bytes kept per directory name; longer names are no process directories.
constexpr size_t kNameSize = 24;
// Directory entries read per getdents call.
constexpr size_t kDirectoryBufferSize = 32768;

// Reads left behind, over every ProcList of the process.
std::atomic<int> stuckReaders{0};

int64_t steadyMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

// What a ProcList shares with its walker threads, which may outlive it when one of
// them was left behind in a read that does not return.
struct ProcList::Shared {
  explicit Shared(int fd) : rootFd(fd) {}
  ~Shared() {
    if (rootFd >= 0) {
      close(rootFd);
    }
  }

  // A process whose read was left behind: its command line, or all of it, is not read
  // again until that read returns.
  struct Stuck {
    int32_t pid;
    unsigned long startTime;
    bool wholeProcess;
  };

  const int rootFd;
  XRV::Mutex lock;
  std::condition_variable changed;  // a walker finished
  std::vector<Stuck> stuck XRV_GUARDED_BY(lock);
  std::shared_ptr<const ProcFileReader::ReadHook> hook XRV_GUARDED_BY(lock);

  bool isStuck(int32_t pid, unsigned long startTime, bool wholeProcess) XRV_REQUIRES(lock) {
    for (const Stuck& entry : stuck) {
      if (entry.pid == pid && entry.wholeProcess == wholeProcess &&
          (wholeProcess || entry.startTime == startTime)) {
        return true;
      }
    }
    return false;
  }
};

// One walker thread's state. Everything but `reader` and `scratch` is guarded by the
// shared lock; the thread holds the object, so it lives as long as the thread.
struct ProcList::Walker {
  Walker(const std::shared_ptr<Shared>& sharedState, const std::string& root, StatType statType)
      : shared(sharedState), reader(sharedState->rootFd, root, statType) {}

  std::shared_ptr<Shared> shared;
  ProcFileReader reader;
  ps_info scratch{};
  ProcList* owner = nullptr;  // null when idle or left behind
  bool leftBehind = false;
  bool finished = true;
  int index = -1;              // the entry being read
  bool inCmdline = false;      // only the command line is being read
  Shared::Stuck stuckKey{};    // what the walker was left behind on
  std::atomic<int64_t> busySince{0};
  std::thread thread;

  static void run(std::shared_ptr<Walker> self);
};

// --- The snapshot ---

ProcList::ProcList(StatType statType, const char* procRoot, int readTimeoutMillis)
    : statType_(statType),
      root_(procRoot == nullptr ? "/proc" : procRoot),
      readTimeoutMillis_(readTimeoutMillis < 1 ? 1 : readTimeoutMillis) {
  XRV_TRACE_FN();
  line_.resize(4096);
  entries_.reserve(kReservedEntries);
  cmdlines_.reserve(65536);
  refresh();
}

ProcList::~ProcList() {
  XRV_TRACE_FN();
  // Walkers are all joined or left behind when refresh() returns.
}

void ProcList::setReadHook(std::function<void(const char* path)> hook) {
  if (shared_ == nullptr) {
    return;
  }
  auto shared = hook ? std::make_shared<const ProcFileReader::ReadHook>(std::move(hook)) : nullptr;
  XRV::MutexLock guard(shared_->lock);
  shared_->hook = std::move(shared);
}

int ProcList::stuckReaderCount() { return stuckReaders.load(); }

bool ProcList::refresh() {
  XRV_TRACE_FN();
  valid_ = false;
  count_ = 0;
  cursor_ = 0;
  if (shared_ == nullptr) {
    const int fd = open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
      XRV_TRACE_ERROR("Error in opendir of /proc\n");
      perror("Error: opendir /proc");
      return false;
    }
    shared_ = std::make_shared<Shared>(fd);
  }
  if (!readUptime() || !listDirectory()) {
    return false;
  }
  walk();
  compact();
  resolveUserNames();
  valid_ = true;
  return true;
}

bool ProcList::readUptime() {
  XRV_TRACE_FN();
  const int fd = openat(shared_->rootFd, "uptime", O_RDONLY | O_CLOEXEC);
  ssize_t got = -1;
  if (fd >= 0) {
    got = read(fd, line_.data(), line_.size() - 1);
    close(fd);
  }
  if (got <= 0) {
    XRV_TRACE_ERROR("Cannot read %s/uptime", root_.c_str());
    return false;
  }
  line_[static_cast<size_t>(got)] = '\0';
  line_[strcspn(line_.data(), "\n")] = '\0';
  XRV_TRACE_DETAIL("String buffer: %s\n", line_.data());
  double up = 0;
  double idle = 0;
  if (sscanf(line_.data(), "%lf %lf", &up, &idle) < 1 || up < 0) {
    XRV_TRACE_ERROR("Cannot read %s/uptime", root_.c_str());
    return false;
  }
  secondsSinceBoot_ = static_cast<unsigned long>(up);
  XRV_TRACE_DETAIL("seconds since boot: %lu\n", secondsSinceBoot_);
  return true;
}

bool ProcList::listDirectory() {
  XRV_TRACE_FN();
  const int fd = shared_->rootFd;
  if (lseek(fd, 0, SEEK_SET) != 0) {
    XRV_TRACE_ERROR("Error in opendir of /proc\n");
    perror("Error: opendir /proc");
    return false;
  }
  names_.clear();
  alignas(dirent64) char buffer[kDirectoryBufferSize];
  for (;;) {
    const ssize_t got = getdents64(fd, buffer, sizeof buffer);
    if (got <= 0) {
      XRV_TRACE_DETAIL("readdir: error reading directory or end of file reached");
      break;
    }
    for (ssize_t offset = 0; offset < got;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + offset);
      offset += entry->d_reclen;
      const size_t length = strlen(entry->d_name);
      if (entry->d_name[0] < '0' || entry->d_name[0] > '9' || length >= kNameSize) {
        continue;
      }
      names_.insert(names_.end(), entry->d_name, entry->d_name + length);
      names_.resize(names_.size() + (kNameSize - length), '\0');
    }
  }
  count_ = static_cast<int>(names_.size() / kNameSize);
  // Each kept entry is overwritten whole; only entries beyond the last snapshot's are
  // made (and cleared) here.
  entries_.resize(static_cast<size_t>(count_));
  kept_.assign(static_cast<size_t>(count_), 0);
  cmdlineOffsets_.assign(static_cast<size_t>(count_), 0);
  cmdlines_.assign(1, '\0');  // offset 0: no command line
  return true;
}

// --- Walking the process directories ---

int ProcList::chooseWalkerCount() const {
  if (walkerCount_ > 0) {
    return walkerCount_;
  }
  const int processors = static_cast<int>(std::thread::hardware_concurrency());
  const int byWork = 1 + count_ / 256;
  return std::max(1, std::min({processors, kMaxWalkers, byWork}));
}

void ProcList::walk() {
  XRV_TRACE_FN();
  if (count_ == 0) {
    return;
  }
  nextIndex_ = 0;
  const int walkers = chooseWalkerCount();
  for (int i = 0; i < walkers; ++i) {
    if (!startWalker()) {
      break;
    }
  }
  superviseWalkers();
}

bool ProcList::startWalker() {
  XRV_TRACE_FN();
  std::shared_ptr<Walker> walker;
  for (const std::shared_ptr<Walker>& idle : walkers_) {
    XRV::MutexLock guard(shared_->lock);
    if (idle->finished && !idle->thread.joinable()) {
      walker = idle;
      break;
    }
  }
  if (walker == nullptr) {
    walker = std::make_shared<Walker>(shared_, root_, statType_);
    walkers_.push_back(walker);
  }
  {
    XRV::MutexLock guard(shared_->lock);
    walker->owner = this;
    walker->finished = false;
    walker->index = -1;
    walker->reader.setReadHook(shared_->hook);
  }
  try {
    walker->thread = std::thread(Walker::run, walker);
  } catch (const std::system_error& error) {
    XRV_TRACE_ERROR("ProcList: cannot start a walker thread: %s", error.what());
    XRV::MutexLock guard(shared_->lock);
    walker->owner = nullptr;
    walker->finished = true;
    return false;
  }
  return true;
}

void ProcList::Walker::run(std::shared_ptr<Walker> self) {
  Shared& shared = *self->shared;
  char name[kNameSize];
  for (;;) {
    int index = -1;
    {
      XRV::MutexLock guard(shared.lock);
      ProcList* owner = self->owner;
      if (owner == nullptr) {
        break;  // left behind
      }
      while (index < 0 && owner->nextIndex_ < owner->count_) {
        const int candidate = owner->nextIndex_++;
        memcpy(name, owner->names_.data() + static_cast<size_t>(candidate) * kNameSize, kNameSize);
        if (!shared.isStuck(atoi(name), 0, true)) {
          index = candidate;
        }
      }
      if (index < 0) {
        self->finished = true;
        self->owner = nullptr;
        shared.changed.notify_all();
        return;
      }
      self->index = index;
      self->inCmdline = false;
      self->busySince.store(steadyMillis());
    }
    bool cmdlineDue = false;
    bool kept = self->reader.readProcess(name, &self->scratch, &cmdlineDue);
    const char* cmdline = "";
    size_t length = 0;
    if (cmdlineDue) {
      bool read = false;
      {
        XRV::MutexLock guard(shared.lock);
        if (self->owner == nullptr) {
          break;
        }
        read = stuckReaders.load() < kMaxStuckReaders &&
               !shared.isStuck(self->scratch.pid, self->scratch.startTime, false);
        self->inCmdline = read;
      }
      if (read) {
        kept = self->reader.readCmdline(self->scratch, &cmdline, &length);
      } else {
        self->reader.finishWithoutCmdline();
      }
    }
    XRV::MutexLock guard(shared.lock);
    ProcList* owner = self->owner;
    if (owner == nullptr) {
      break;
    }
    owner->commit(*self, index, kept, cmdline, length);
    self->inCmdline = false;
    self->busySince.store(0);
  }
  // Left behind, and back now: the process may be read again.
  XRV::MutexLock guard(shared.lock);
  for (auto entry = shared.stuck.begin(); entry != shared.stuck.end(); ++entry) {
    if (entry->pid == self->stuckKey.pid && entry->startTime == self->stuckKey.startTime &&
        entry->wholeProcess == self->stuckKey.wholeProcess) {
      shared.stuck.erase(entry);
      break;
    }
  }
  stuckReaders.fetch_sub(1);
}

void ProcList::commit(Walker& walker, int index, bool kept, const char* cmdline,
                      size_t cmdlineLength) {
  const auto slot = static_cast<size_t>(index);
  entries_[slot] = walker.scratch;
  kept_[slot] = kept ? 1 : 0;
  cmdlineOffsets_[slot] = 0;
  if (cmdlineLength > 0) {
    cmdlineOffsets_[slot] = static_cast<uint32_t>(cmdlines_.size());
    cmdlines_.insert(cmdlines_.end(), cmdline, cmdline + cmdlineLength);
    cmdlines_.push_back('\0');
  }
}

void ProcList::superviseWalkers() {
  XRV_TRACE_FN();
  const int64_t slice = std::max(1, std::min(readTimeoutMillis_ / 2, 100));
  std::vector<std::shared_ptr<Walker>> behind;
  {
    XRV::MutexLock guard(shared_->lock);
    for (;;) {
      bool running = false;
      for (const std::shared_ptr<Walker>& walker : walkers_) {
        running = running || walker->owner == this;
      }
      if (!running && nextIndex_ >= count_) {
        break;
      }
      if (!running) {
        // Every walker was left behind: a new one carries on, if one may.
        guard.unlock();
        const bool started = stuckReaders.load() < 2 * kMaxStuckReaders && startWalker();
        guard.lock();
        if (!started) {
          XRV_TRACE_ERROR("ProcList: %d processes not read: too many reads did not return",
                          count_ - nextIndex_);
          nextIndex_ = count_;
        }
        continue;
      }
      shared_->changed.wait_for(guard.native(), std::chrono::milliseconds(slice));
      const int64_t now = steadyMillis();
      for (const std::shared_ptr<Walker>& walker : walkers_) {
        const int64_t since = walker->busySince.load();
        if (walker->owner != this || walker->finished || since == 0 ||
            now - since <= readTimeoutMillis_) {
          continue;
        }
        // Left behind: keep what it read of the process when only the command line
        // was still being read, and skip the process until the read returns.
        const ps_info& scratch = walker->scratch;
        const char* name = names_.data() + static_cast<size_t>(walker->index) * kNameSize;
        walker->stuckKey = walker->inCmdline
                               ? Shared::Stuck{scratch.pid, scratch.startTime, false}
                               : Shared::Stuck{atoi(name), 0, true};
        if (walker->inCmdline) {
          commit(*walker, walker->index, true, "", 0);
        } else {
          kept_[static_cast<size_t>(walker->index)] = 0;
        }
        XRV_TRACE_ERROR("ProcList: reading %s/%s did not return within %d ms; going on without %s",
                        root_.c_str(), name, readTimeoutMillis_,
                        walker->inCmdline ? "its command line" : "the process");
        shared_->stuck.push_back(walker->stuckKey);
        stuckReaders.fetch_add(1);
        walker->owner = nullptr;
        walker->leftBehind = true;
        behind.push_back(walker);
      }
    }
  }
  for (const std::shared_ptr<Walker>& walker : behind) {
    walker->thread.detach();
    walkers_.erase(std::find(walkers_.begin(), walkers_.end(), walker));
  }
  for (const std::shared_ptr<Walker>& walker : walkers_) {
    if (walker->thread.joinable()) {
      walker->thread.join();
    }
  }
}

// Drops the entries that were not kept, in place, and points each command line at
// its text.
void ProcList::compact() {
  XRV_TRACE_FN();
  int kept = 0;
  for (int i = 0; i < count_; ++i) {
    const auto slot = static_cast<size_t>(i);
    if (kept_[slot] == 0) {
      continue;
    }
    if (kept != i) {
      entries_[static_cast<size_t>(kept)] = entries_[slot];
    }
    entries_[static_cast<size_t>(kept)].cmdline = cmdlines_.data() + cmdlineOffsets_[slot];
    ++kept;
  }
  count_ = kept;
  entries_.resize(static_cast<size_t>(count_));
}

void ProcList::resolveUserNames() {
  XRV_TRACE_FN();
  userNames_.clear();
  size_t last = 0;
  for (ps_info& entry : entries_) {
    if (!entry.statusRead) {
      continue;
    }
    for (int i = 0; i < 4; ++i) {
      const auto uid = static_cast<uid_t>(entry.uid[i]);
      if (last >= userNames_.size() || userNames_[last].uid != uid) {
        last = 0;
        while (last < userNames_.size() && userNames_[last].uid != uid) {
          ++last;
        }
        if (last == userNames_.size()) {
          UserName name{uid, false, {}};
          if (passwdBuffer_.empty()) {
            const long size = sysconf(_SC_GETPW_R_SIZE_MAX);
            passwdBuffer_.resize(size > 0 ? static_cast<size_t>(size) : 16384);
          }
          struct passwd record;
          struct passwd* found = nullptr;
          int error = 0;
          while ((error = getpwuid_r(uid, &record, passwdBuffer_.data(), passwdBuffer_.size(),
                                     &found)) == ERANGE &&
                 passwdBuffer_.size() < (1U << 20)) {
            passwdBuffer_.resize(passwdBuffer_.size() * 2);
          }
          if (error == 0 && found != nullptr) {
            name.known = true;
            snprintf(name.name, sizeof name.name, "%s", found->pw_name);
          } else {
            XRV_TRACE_DETAIL("Error: getpwuid failed for %d\n", entry.uid[i]);
          }
          userNames_.push_back(name);
        }
      }
      memcpy(entry.userName[i], userNames_[last].name, sizeof entry.userName[i]);
    }
  }
}

// --- Reading the snapshot ---

int ProcList::getCount() {
  if (!valid_) {
    XRV_TRACE_FN();
    XRV_TRACE_ERROR("Cannot retrieve ProcList rows - error in setting up list\n");
    return 0;
  }
  return count_;
}

ps_info* ProcList::getEntry(int index) {
  if (!valid_) {
    XRV_TRACE_FN();
    XRV_TRACE_ERROR("Cannot retrieve ProcList rows - error in setting up list\n");
    return nullptr;
  }
  return index < 0 || index >= count_ ? nullptr : &entries_[static_cast<size_t>(index)];
}

ps_info* ProcList::getNextEntry() {
  ps_info* entry = getEntry(cursor_);
  if (entry != nullptr) {
    ++cursor_;
  }
  return entry;
}

unsigned long ProcList::getSecondsSinceBoot() {
  if (!valid_) {
    XRV_TRACE_FN();
    XRV_TRACE_ERROR("Cannot retrieve ProcList rows - error in setting up list\n");
    return 0;
  }
  return secondsSinceBoot_;
}
