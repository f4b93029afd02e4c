#pragma once

// ProcessSampler: successive snapshots of the process table (ProcList) and what they
// tell together: each process's processor use since the previous snapshot, when it
// started and how old it is. It knows nothing of attribute groups; the process data
// sources turn its processes into rows.
//
// Processor use is in percent of one processor (a process busy on two processors
// shows 200), split into user and system time:
//   - a process seen in the previous snapshot: its ticks since then over the time
//     since then;
//   - a process that started since the previous snapshot: its ticks over its life;
//   - at the first snapshot: every process's ticks over its life.
// A sample less than a second after the previous one is measured from the one
// before (the base moves on only after a second).
// A process whose stat line could not be read to its times uses none.
//
// Steady state: the snapshot's buffers and the previous snapshot's times are reused,
// so a sample allocates nothing per process once they have grown.
//
// Not thread-safe: one collection at a time (the provider's collection lock).

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sources/process/ProcList.h"

class ProcessSampler {
 public:
  // What a sample adds to each entry of the snapshot.
  struct Usage {
    double userPercent = 0;
    double systemPercent = 0;
    int64_t startSeconds = 0;  // since the epoch
    int64_t ageSeconds = 0;
  };

  // Reads the tree at `procRoot` (a directory laid out as /proc).
  explicit ProcessSampler(std::string procRoot = "/proc");
  ~ProcessSampler();
  ProcessSampler(const ProcessSampler&) = delete;
  ProcessSampler& operator=(const ProcessSampler&) = delete;

  // Takes a snapshot at wall-clock `nowMillis` and steady `monotonicMillis` (the
  // interval since the previous sample is measured on the latter). False when the
  // snapshot could not be set up; the previous times are kept for the next one.
  bool sample(int64_t nowMillis, int64_t monotonicMillis);

  int count() const { return count_; }
  const ps_info& entry(int index) const { return *list_->getEntry(index); }
  const Usage& usage(int index) const { return usage_[static_cast<size_t>(index)]; }
  // The open file descriptors of process `pid`: -1 when they cannot be counted (gone,
  // or another user's process when the agent is not root).
  int countDescriptors(int32_t pid);

  const std::string& procRoot() const { return procRoot_; }
  long ticksPerSecond() const { return ticksPerSecond_; }
  unsigned long pageKilobytes() const { return pageKilobytes_; }
  // A kernel thread (the kernel's own flag in stat).
  static bool isKernelThread(const ps_info& entry);

 private:
  // A process's times in the previous snapshot, in pid order.
  struct Times {
    int32_t pid;
    unsigned long startTime;
    unsigned long userTime;
    unsigned long systemTime;
  };

  const Times* previousTimes(int32_t pid, unsigned long startTime) const;

  std::string procRoot_;
  std::unique_ptr<ProcList> list_;
  int count_ = 0;
  std::vector<Usage> usage_;
  std::vector<Times> previous_;
  std::vector<Times> current_;
  int64_t previousMonotonic_ = -1;
  long ticksPerSecond_;
  unsigned long pageKilobytes_;
  int rootFd_ = -1;
  std::unique_ptr<char[]> directoryBuffer_;
};
