#include "subnode/SubnodeZombieCollector.h"

#include <chrono>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "framework/Trace.h"
#include "provider/UAClientClass.h"
#include "provider/UAClientClassList.h"
#include "subnode/SubnodeHelpers.h"

using XRV::subnode::nextProvider;
using XRV::subnode::shortAddress;

SubnodeZombieCollector::SubnodeZombieCollector(PthreadMutex& registryLock,
                                               const UAClientClassList& providers,
                                               int intervalSeconds)
    : registryLock_(registryLock), providers_(&providers), interval_(intervalSeconds) {}

SubnodeZombieCollector::~SubnodeZombieCollector() {
  XRV_TRACE_FN();
  stop();
  std::vector<UAClientClass*> zombies;
  {
    PthreadMutexLock guard(queueLock_);
    zombies.swap(zombies_);
  }
  for (UAClientClass* zombie : zombies) {
    zombie->shutdownExternalProcesses();
    delete zombie;
  }
}

void SubnodeZombieCollector::enqueue(UAClientClass* provider) {
  PthreadMutexLock guard(queueLock_);
  zombies_.push_back(provider);
}

int SubnodeZombieCollector::count() {
  PthreadMutexLock guard(queueLock_);
  return static_cast<int>(zombies_.size());
}

bool SubnodeZombieCollector::start() {
  XRV_TRACE_FN();
  PthreadMutexLock guard(threadLock_);
  if (thread_.joinable()) {
    XRV_TRACE_ERROR("The zombie killer runs already");
    return false;
  }
  try {
    thread_ = std::jthread([this](std::stop_token stop) { zombieKiller(std::move(stop)); });
  } catch (const std::system_error& error) {
    XRV_TRACE_ERROR("Could not start the zombie killer: %s", error.what());
    return false;
  }
  return true;
}

void SubnodeZombieCollector::stop() {
  XRV_TRACE_FN();
  std::jthread thread;
  {
    PthreadMutexLock guard(threadLock_);
    if (!thread_.joinable()) {
      return;
    }
    thread = std::move(thread_);
  }
  // Joined outside the lock: a start meanwhile gets a thread of its own.
  thread.request_stop();
  thread.join();
  XRV_TRACE_DETAIL("The zombie killer has stopped");
}

void SubnodeZombieCollector::zombieKiller(std::stop_token stop) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Initiating garbage collection with interval of %d seconds", interval_);
  for (;;) {
    {
      std::unique_lock<std::mutex> sleep(sleepMutex_);
      // Returns at the end of the interval, or at once when a stop is requested.
      wake_.wait_for(sleep, stop, std::chrono::seconds(interval_), [] { return false; });
    }
    if (stop.stop_requested()) {
      return;
    }
    collect();
  }
}

int SubnodeZombieCollector::collect() {
  XRV_TRACE_FN();
  std::vector<UAClientClass*> doomed;
  {
    PthreadMutexLock registry(registryLock_);
    PthreadMutexLock queue(queueLock_);
    XRV_TRACE_DETAIL("Beginning garbage collection interval, %d zombies on queue",
                     static_cast<int>(zombies_.size()));
    std::unordered_set<const UAClientClass*> queued(zombies_.begin(), zombies_.end());
    // A live provider that reads from a zombie keeps it, for as long as it does.
    std::unordered_set<const UAClientClass*> referencedByLive;
    for (UAClientClass* provider = providers_->getFirst(); provider != nullptr && !queued.empty();
         provider = nextProvider(provider)) {
      for (const UAClientClass* referenced : provider->getQueryReferences()) {
        if (queued.count(referenced) != 0) {
          XRV_TRACE_DETAIL("Query Object %08x refers to %08x", shortAddress(provider),
                           shortAddress(referenced));
          referencedByLive.insert(referenced);
        }
      }
    }

    int lastCount = static_cast<int>(zombies_.size());
    int curCount = lastCount;
    // Deleting a zombie may free the ones it referred to: repeat while the queue shrinks.
    while (curCount > 0) {
      XRV_TRACE_DETAIL("Starting garbage collection cycle, lastCount = %d, curCount = %d",
                       lastCount, curCount);
      lastCount = curCount;
      std::unordered_set<const UAClientClass*> referenced = referencedByLive;
      for (UAClientClass* zombie : zombies_) {
        for (const UAClientClass* target : zombie->getQueryReferences()) {
          if (target != zombie) {
            XRV_TRACE_DETAIL("Query Object %08x refers to %08x", shortAddress(zombie),
                             shortAddress(target));
            referenced.insert(target);
          }
        }
      }
      for (auto zombie = zombies_.begin(); zombie != zombies_.end();) {
        UAClientClass* provider = *zombie;
        if (referenced.count(provider) != 0) {
          ++zombie;
          continue;
        }
        XRV_TRACE_DETAIL("Query Object %08x is a root-- no other objects refer to it",
                         shortAddress(provider));
        const char* busy = nullptr;
        if (provider->genericAgentInUse()) {
          busy = "in use by a framework request";
        } else if (provider->isOnQueue()) {
          busy = "queued for a collection";
        } else if (provider->isCollecting()) {
          busy = "collecting";
        }
        if (busy != nullptr) {
          XRV_TRACE_DETAIL("Query Object %08x is not quiescent (%s)-- keeping it",
                           shortAddress(provider), busy);
          ++zombie;
          continue;
        }
        XRV_TRACE_DETAIL("Query Object %08x is quiescent-- deleting", shortAddress(provider));
        doomed.push_back(provider);
        zombie = zombies_.erase(zombie);
      }
      curCount = static_cast<int>(zombies_.size());
      if (curCount == lastCount) {
        break;
      }
    }
  }
  // Nothing can reach them any more: delete them without holding a lock.
  for (UAClientClass* provider : doomed) {
    provider->shutdownExternalProcesses();
    delete provider;
  }
  return static_cast<int>(doomed.size());
}
