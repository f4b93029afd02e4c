#pragma once

// RefreshThread: collects providers in the background, each on its refresh interval.
//
// It keeps the providers in a queue ordered by their next refresh time; when the
// head is due it queues the next turn (previous due time + interval, so the schedule
// does not drift with the time collections take) and hands a collection job to the
// thread pool, or collects on its own thread when there is no pool. A provider whose
// last job has not finished yet is not queued again: its turn is counted as skipped.
// The template provider of a subnode type stands for all its subnode copies: its
// turn starts a job for each copy.
//
// It waits for the head's time on the framework clock (fwWaitFor), so a test that
// moves the clock by hand moves the schedule with it.
//
// Thread-safe: refreshShutdown may be called from any thread.

#include <atomic>
#include <condition_variable>
#include <ctime>
#include <thread>
#include <vector>

#include "framework/Mutex.h"

class SubnodeManager;
class ThreadPool;
class UAClientClass;
class UAClientClassList;

// Counts the providers whose rows arrive only as events (log monitors and the like);
// one without a refresh interval of its own gets 60 seconds unless
// CDP_DP_REFRESH_INTERVAL is set. The log monitors alone are counted in
// *logMonitorCount (when given).
int getEventGroupCount(UAClientClassList& providers, bool refreshIntervalSet, int* logMonitorCount);

class RefreshThread {
 public:
  // Builds the queue from `providers`: every provider with metadata, no discovery
  // group, an interval (its own or `defaultInterval`) and eligible for the pool.
  // `pool` and `subnodes` may be null.
  RefreshThread(int defaultInterval, UAClientClassList& providers, ThreadPool* pool,
                SubnodeManager* subnodes);
  // Stops the thread (refreshShutdown).
  ~RefreshThread();
  RefreshThread(const RefreshThread&) = delete;
  RefreshThread& operator=(const RefreshThread&) = delete;

  // Starts the thread; false when it cannot be started ("Could not start
  // RefreshThread, rc = %d").
  bool start();
  static void* startRefreshThread(void* refreshThread);
  void run();
  // Queues the provider's next turn: its previous due time + its interval.
  void addToSchedQueue(UAClientClass* provider);
  // One turn of one provider: a pool job, or a collection right here without a pool.
  void startJob(UAClientClass* provider);
  int getRefreshInterval() const { return defaultInterval_; }
  // Ends the thread and returns once it has ended: at once, unless a collection runs
  // on the refresh thread itself (no pool), which is let finish.
  void refreshShutdown();

  // The queue: (provider, due time) in order. For tests and the status groups.
  std::vector<std::pair<UAClientClass*, time_t>> getQueue();

 private:
  int intervalOf(const UAClientClass* provider) const;
  void insertLocked(UAClientClass* provider) XRV_REQUIRES(mutex_);
  void startTurn(UAClientClass* provider);
  // Marks the provider as queued; false (and a skipped turn counted) when it is already.
  bool claim(UAClientClass* provider);
  // A collection on the refresh thread itself (no pool).
  void collectInline(UAClientClass* provider);

  const int defaultInterval_;
  ThreadPool* pool_;
  SubnodeManager* subnodes_;
  std::atomic<unsigned> jobCounter_{0};
  XRV::Mutex mutex_;
  std::condition_variable wakeUp_;
  std::vector<UAClientClass*> queue_ XRV_GUARDED_BY(mutex_);  // ascending by next refresh time
  bool shutdown_ XRV_GUARDED_BY(mutex_) = false;
  int clockWaker_ = 0;                 // fwAddClockWaker's handle
  std::thread thread_;
};
