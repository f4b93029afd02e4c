#pragma once

// SubnodeZombieCollector: the zombie killer. Deletes the providers of removed
// subnodes ("zombies") once nothing can reach them any more, in passes run by its
// own thread every interval or by a caller (collect).
//
// A zombie is kept while a live provider or another zombie reads from it
// (getQueryReferences), while it is pinned (a SubnodeProviderPin holds it: marked
// in use), while it is on the collection queue, and while it is collecting. The
// decision is taken under the registry lock, the lock under which the subnode
// manager hands out pins and changes the provider list, so a provider found by a
// lookup is either pinned before the pass looks at it or was never found.
//
// Ownership: the queued providers belong to the collector (enqueue hands them
// over); it deletes them in a pass, or when it is destroyed. The provider list and
// the registry lock are the manager's and must outlive the collector.
//
// Locks: queueLock_ guards the queue; threadLock_ guards the thread handle.
// Lock order: registry lock, then queueLock_ (enqueue is called with the registry
// lock held). Providers are deleted with neither held. The thread sleeps on a
// condition variable of its own and is woken early only to stop.
//
// Thread-safety: every operation may be called from any thread.

#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <thread>
#include <vector>

#include "foundation/Locks.h"

class UAClientClass;
class UAClientClassList;

class SubnodeZombieCollector {
 public:
  // `registryLock`: the subnode manager's lock; `providers`: the list of live
  // providers, whose references keep zombies; `intervalSeconds`: between the
  // thread's passes.
  SubnodeZombieCollector(PthreadMutex& registryLock, const UAClientClassList& providers,
                         int intervalSeconds);
  // Stops the thread and deletes the providers still queued.
  ~SubnodeZombieCollector();
  SubnodeZombieCollector(const SubnodeZombieCollector&) = delete;
  SubnodeZombieCollector& operator=(const SubnodeZombieCollector&) = delete;

  // Takes over `provider`, already out of the provider list and marked a zombie.
  void enqueue(UAClientClass* provider) XRV_EXCLUDES(queueLock_);
  int count() XRV_EXCLUDES(queueLock_);
  // One pass on the caller's thread; returns the number of providers deleted. Takes
  // the registry lock: not to be called with it held.
  int collect() XRV_EXCLUDES(queueLock_);

  // Starts the thread. False when it runs already or cannot start.
  bool start() XRV_EXCLUDES(threadLock_);
  // Wakes the thread and waits for it to end; returns at once when none runs.
  void stop() XRV_EXCLUDES(threadLock_);

 private:
  void zombieKiller(std::stop_token stop);

  PthreadMutex& registryLock_;
  const UAClientClassList* const providers_ XRV_PT_GUARDED_BY(registryLock_);
  const int interval_;

  PthreadMutex queueLock_;
  std::vector<UAClientClass*> zombies_ XRV_GUARDED_BY(queueLock_);  // in the order removed

  PthreadMutex threadLock_;
  std::jthread thread_ XRV_GUARDED_BY(threadLock_);
  // Only for the sleep between passes: guards nothing.
  std::mutex sleepMutex_;
  std::condition_variable_any wake_;
};
