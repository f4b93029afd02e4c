#include "sources/process/ProcessSampler.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "framework/Trace.h"

namespace {

// The kernel's flag of its own threads, in the flags field of stat.
constexpr unsigned long kKernelThreadFlag = 0x00200000;
constexpr size_t kDirectoryBufferSize = 16384;
// Seconds between two samples for the later one to become the next one's base.
constexpr double kShortestInterval = 1.0;

}  // namespace

ProcessSampler::ProcessSampler(std::string procRoot)
    : procRoot_(std::move(procRoot)),
      ticksPerSecond_(sysconf(_SC_CLK_TCK) > 0 ? sysconf(_SC_CLK_TCK) : 100),
      pageKilobytes_(sysconf(_SC_PAGESIZE) > 0 ? static_cast<unsigned long>(sysconf(_SC_PAGESIZE)) / 1024
                                               : 4) {}

ProcessSampler::~ProcessSampler() {
  if (rootFd_ >= 0) {
    close(rootFd_);
  }
}

bool ProcessSampler::isKernelThread(const ps_info& entry) {
  return (entry.flags & kKernelThreadFlag) != 0;
}

bool ProcessSampler::sample(int64_t nowMillis, int64_t monotonicMillis) {
  XRV_TRACE_FN();
  if (list_ == nullptr) {
    list_ = std::make_unique<ProcList>(ProcList::FULL_STATUS_INFO, procRoot_.c_str());
  } else {
    list_->refresh();
  }
  count_ = list_->getCount();
  if (!list_->isValid()) {
    return false;
  }
  const double interval =
      previousMonotonic_ < 0 ? 0 : static_cast<double>(monotonicMillis - previousMonotonic_) / 1000.0;
  const auto uptime = static_cast<int64_t>(list_->getSecondsSinceBoot());
  const int64_t bootSeconds = nowMillis / 1000 - uptime;
  const auto ticks = static_cast<double>(ticksPerSecond_);

  usage_.resize(static_cast<size_t>(count_));
  current_.clear();
  for (int i = 0; i < count_; ++i) {
    const ps_info& process = *list_->getEntry(i);
    Usage& usage = usage_[static_cast<size_t>(i)];
    const auto startSeconds = static_cast<int64_t>(static_cast<double>(process.startTime) / ticks);
    usage.startSeconds = bootSeconds + startSeconds;
    usage.ageSeconds = std::max<int64_t>(0, uptime - startSeconds);
    usage.userPercent = 0;
    usage.systemPercent = 0;
    if (process.statFieldCount < 15) {
      continue;  // the times were not read
    }
    current_.push_back(Times{process.pid, process.startTime, process.userTime, process.systemTime});
    unsigned long user = process.userTime;
    unsigned long system = process.systemTime;
    double seconds = std::max(1.0, static_cast<double>(usage.ageSeconds));
    if (interval > 0) {
      if (const Times* before = previousTimes(process.pid, process.startTime)) {
        user = user > before->userTime ? user - before->userTime : 0;
        system = system > before->systemTime ? system - before->systemTime : 0;
        seconds = interval;
      } else {
        seconds = std::min(seconds, interval);  // started since the previous sample
      }
    }
    usage.userPercent = static_cast<double>(user) / ticks / seconds * 100.0;
    usage.systemPercent = static_cast<double>(system) / ticks / seconds * 100.0;
  }
  // Samples less than a second apart are measured against the same earlier one: over
  // a few ticks the percentages would only be noise.
  if (previousMonotonic_ < 0 || interval >= kShortestInterval) {
    std::sort(current_.begin(), current_.end(),
              [](const Times& a, const Times& b) { return a.pid < b.pid; });
    previous_.swap(current_);
    previousMonotonic_ = monotonicMillis;
  }
  return true;
}

const ProcessSampler::Times* ProcessSampler::previousTimes(int32_t pid,
                                                           unsigned long startTime) const {
  auto found = std::lower_bound(previous_.begin(), previous_.end(), pid,
                                [](const Times& times, int32_t key) { return times.pid < key; });
  if (found == previous_.end() || found->pid != pid || found->startTime != startTime) {
    return nullptr;  // a new process, even one that took an old pid
  }
  return &*found;
}

int ProcessSampler::countDescriptors(int32_t pid) {
  XRV_TRACE_FN();
  if (rootFd_ < 0) {
    rootFd_ = open(procRoot_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (rootFd_ < 0) {
      return -1;
    }
  }
  if (directoryBuffer_ == nullptr) {
    directoryBuffer_ = std::make_unique<char[]>(kDirectoryBufferSize);
  }
  char path[32];
  snprintf(path, sizeof path, "%d/fd", pid);
  const int fd = openat(rootFd_, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    return -1;
  }
  int count = 0;
  for (;;) {
    const ssize_t got = getdents64(fd, directoryBuffer_.get(), kDirectoryBufferSize);
    if (got < 0) {
      count = -1;
      break;
    }
    if (got == 0) {
      break;
    }
    for (ssize_t offset = 0; offset < got;) {
      const auto* entry = reinterpret_cast<const dirent64*>(directoryBuffer_.get() + offset);
      offset += entry->d_reclen;
      count += entry->d_name[0] == '.' ? 0 : 1;
    }
  }
  close(fd);
  return count;
}
