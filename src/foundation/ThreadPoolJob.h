#pragma once

// IThreadPoolJob: a piece of work the agent's worker pool runs, and the door through
// which code below the scheduler hands such work to the pool.
//
// The pool itself (scheduling/ThreadPool.h) is made by the agent loader. Data sources
// that must finish something off their caller's thread (the log monitor completes a
// reset on a worker, not on the log engine's thread that reported it) submit their
// job through submitThreadPoolJob; the loader installs the pool as the sink once it
// exists and removes it before the pool goes.

#include <ctime>

class IThreadPoolJob {
 public:
  virtual ~IThreadPoolJob() = default;
  virtual void execute() = 0;
  // Stamped by the pool when the job is queued.
  virtual void setTimeOnQueue(const struct timespec& when) { timeOnQueue_ = when; }
  const struct timespec& getTimeOnQueue() const { return timeOnQueue_; }

 private:
  struct timespec timeOnQueue_ = {0, 0};
};

// Takes the job (and owns it from then on); false when it cannot, and the caller
// still owns the job.
using ThreadPoolJobSink = bool (*)(IThreadPoolJob* job);

// Installs `sink` (null: none). Thread-safe.
void setThreadPoolJobSink(ThreadPoolJobSink sink);

// Hands `job` to the installed sink. False, the job still the caller's, when no pool
// takes jobs.
bool submitThreadPoolJob(IThreadPoolJob* job);
