#pragma once

// ThreadPool: a fixed set of worker threads that run jobs from one queue, in order.
// The refresh thread hands it the background collections, the framework adapter the
// collections a request waits for. It keeps statistics about itself, which the
// "Thread_Pool_Status" attribute group reports.
//
// Thread-safe. The workers are detached: they live as long as the process, or until
// shutdown(), which lets them finish the job they run and end.

#include <ctime>
#include <memory>

#include "foundation/ThreadPoolJob.h"

// The pool's statistics. Before the first job the averages are -1.0 and the minima
// the pool size (on purpose: the first job sets them).
struct ThreadPoolStatistics {
  int threads = 0;
  int active = 0;
  int completed = 0;
  double averageActive = -1.0;
  int minimumActive = 0;
  int maximumActive = 0;
  int queueLength = 0;
  double averageQueueLength = -1.0;
  int minimumQueueLength = 0;
  int maximumQueueLength = 0;
  double averageJobWait = -1.0;  // seconds on the queue
};

class ThreadPool {
 public:
  // Starts `size` workers ("Successfully started pool thread #%d"); a worker that
  // cannot be started is traced and not counted.
  explicit ThreadPool(int size);
  // Ends the workers (shutdown()) and deletes the jobs still queued.
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // Queues the job (the pool owns it and deletes it after it ran).
  void submitJob(IThreadPoolJob* job);
  // Queues several jobs with one time stamp.
  void submitJobs(IThreadPoolJob* const* jobs, int count);
  // A copy of the statistics with the current queue length.
  ThreadPoolStatistics getTPStatistics();
  int getSize() const { return size_; }
  // Stops taking jobs: workers finish the job they run and end; queued jobs stay
  // queued (the destructor deletes them). Waits until every worker has ended.
  void shutdown();

 private:
  struct State;
  static void workerThreadMain(std::shared_ptr<State> state);

  std::shared_ptr<State> state_;
  int size_;
};
