#include "scheduling/RefreshThread.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <vector>

#include "definition/AttributeGroupMeta.h"
#include "framework/FwClock.h"
#include "framework/Settings.h"
#include "framework/Trace.h"
#include "provider/UAClientClass.h"
#include "provider/UAClientClassList.h"
#include "scheduling/CollectDataJob.h"
#include "scheduling/ThreadPool.h"
#include "subnode/SubnodeManager.h"

namespace {
constexpr int kEventGroupInterval = 60;
}  // namespace

int getEventGroupCount(UAClientClassList& providers, bool refreshIntervalSet,
                       int* logMonitorCount) {
  XRV_TRACE_FN();
  int events = 0;
  int logMonitors = 0;
  for (UAClientClass* provider = providers.getFirst(); provider != nullptr;
       provider = static_cast<UAClientClass*>(provider->getNextElement())) {
    int type = provider->getObjectType();
    if (type == UA_LOG_MONITOR) {
      ++logMonitors;
    }
    if (type == UA_LOG_MONITOR || type == UA_EVENT_LOG) {
      ++events;
      if (provider->getRefreshInterval() == 0 && !refreshIntervalSet) {
        provider->setRefreshInterval(kEventGroupInterval);
      }
    }
  }
  if (logMonitorCount != nullptr) {
    *logMonitorCount = logMonitors;
  }
  return events;
}

RefreshThread::RefreshThread(int defaultInterval, UAClientClassList& providers, ThreadPool* pool,
                             SubnodeManager* subnodes)
    : defaultInterval_(defaultInterval < 0 ? 0 : defaultInterval), pool_(pool), subnodes_(subnodes) {
  XRV_TRACE_FN();
  // A test's clock wakes the thread when it moves; the system clock never calls this.
  clockWaker_ = fwAddClockWaker([this] {
    XRV::MutexLock lock(mutex_);
    wakeUp_.notify_all();
  });
  const time_t now = fwTime();
  const XRV::SettingRead initialDelay =
      XRV::readSetting(XRV::Setting::InitialCollectionDelay, XRV_SETTING_HERE());
  const bool delaySet = initialDelay.set;
  const int delay = static_cast<int>(initialDelay.number);
  // Subnode copies are appended to the list by the discovery thread, under the subnode
  // manager's lock: take the providers as they are now.
  std::vector<UAClientClass*> candidates;
  auto collect = [&providers, &candidates] {
    for (UAClientClass* provider = providers.getFirst(); provider != nullptr;
         provider = static_cast<UAClientClass*>(provider->getNextElement())) {
      candidates.push_back(provider);
    }
  };
  if (subnodes_ != nullptr) {
    subnodes_->acquireLock();
    collect();
    subnodes_->releaseLock();
  } else {
    collect();
  }
  XRV::MutexLock lock(mutex_);
  for (UAClientClass* provider : candidates) {
    const char* group = provider->getAttributeGroup();
    AttributeGroupMeta* meta = provider->getAttributeGroupMeta();
    if (meta == nullptr) {
      XRV_TRACE_DETAIL("Note: Query Class %s has no metadata", group);
      continue;
    }
    if (meta->isDiscoveryAttributeGroup() || provider->getSubnodeKey() != nullptr) {
      continue;  // discovery has its own thread; copies go with their template's turn
    }
    int interval =
        provider->getRefreshInterval() > 0 ? provider->getRefreshInterval() : defaultInterval_;
    if (interval == 0) {
      XRV_TRACE_DETAIL(
          "Attribute group %s has no refresh interval-- not collecting "
          "asynchronously",
          group);
      continue;
    }
    provider->setRefreshInterval(interval);
    if (meta->subnodeType() != nullptr && subnodes_ != nullptr) {
      subnodes_->forEachSubnodeQueryClass(
          group, [interval](UAClientClass* copy) { copy->setRefreshInterval(interval); });
    }
    if (!provider->isThreadPoolEligible()) {
      XRV_TRACE_DETAIL(
          "Attribute group %s is not thread pool eligible-- not collecting "
          "asynchronously",
          group);
      continue;
    }
    provider->setNextRefresh(now + (delaySet ? delay : interval));
    XRV_TRACE_DETAIL("Scheduling attribute group %s for refresh at %ld", group,
                     static_cast<long>(provider->getNextRefresh()));
    insertLocked(provider);
  }
  XRV_TRACE_DETAIL("Dump of initial scheduler queue:");
  for (size_t i = 0; i < queue_.size(); ++i) {
    XRV_TRACE_DETAIL("%3d: %s@%ld (interval %d)", static_cast<int>(i),
                     queue_[i]->getAttributeGroup(), static_cast<long>(queue_[i]->getNextRefresh()),
                     intervalOf(queue_[i]));
  }
}

RefreshThread::~RefreshThread() {
  fwRemoveClockWaker(clockWaker_);
  refreshShutdown();
}

int RefreshThread::intervalOf(const UAClientClass* provider) const {
  int own = provider->getRefreshInterval();
  return own >= 1 ? own : defaultInterval_;
}

void RefreshThread::insertLocked(UAClientClass* provider) {
  const time_t due = provider->getNextRefresh();
  auto position = std::find_if(queue_.begin(), queue_.end(), [due](const UAClientClass* queued) {
    return queued->getNextRefresh() >= due;
  });
  queue_.insert(position, provider);
}

bool RefreshThread::start() {
  XRV_TRACE_FN();
  try {
    thread_ = std::thread(&RefreshThread::startRefreshThread, this);
  } catch (const std::system_error& error) {
    XRV_TRACE_ERROR("Could not start RefreshThread, rc = %d", error.code().value());
    return false;
  }
  return true;
}

void* RefreshThread::startRefreshThread(void* refreshThread) {
  XRV_TRACE_FN();
  auto* self = static_cast<RefreshThread*>(refreshThread);
  XRV_TRACE_DETAIL("Starting refresh thread with interval: %d", self->defaultInterval_);
  self->run();
  return nullptr;
}

void RefreshThread::run() {
  XRV_TRACE_FN();
  XRV::MutexLock lock(mutex_);
  if (queue_.empty()) {
    XRV_TRACE_DETAIL("Scheduler queue is empty, refresh thread terminating");
    return;
  }
  while (!shutdown_ && !queue_.empty()) {
    UAClientClass* provider = queue_.front();
    queue_.erase(queue_.begin());
    int64_t wait = static_cast<int64_t>(provider->getNextRefresh()) * 1000 - fwTimeMillis();
    if (wait >= 1) {
      // The wait calls the predicate with mutex_ held.
      fwWaitFor(wakeUp_, lock.native(), wait,
                [this]() XRV_NO_THREAD_SAFETY_ANALYSIS { return shutdown_; });
      if (shutdown_) {
        break;
      }
    }
    // The next turn is fixed before this one starts, from this one's due time.
    int interval = intervalOf(provider);
    XRV_TRACE_DETAIL("Using queue interval of %d for %s", interval, provider->getAttributeGroup());
    provider->setNextRefresh(provider->getNextRefresh() + interval);
    insertLocked(provider);
    lock.unlock();
    startTurn(provider);
    lock.lock();
  }
}

void RefreshThread::addToSchedQueue(UAClientClass* provider) {
  XRV_TRACE_FN();
  int interval = intervalOf(provider);
  XRV_TRACE_DETAIL("Using queue interval of %d for %s", interval, provider->getAttributeGroup());
  XRV::MutexLock lock(mutex_);
  provider->setNextRefresh(provider->getNextRefresh() + interval);
  insertLocked(provider);
  wakeUp_.notify_all();
}

void RefreshThread::startTurn(UAClientClass* provider) {
  XRV_TRACE_FN();
  AttributeGroupMeta* meta = provider->getAttributeGroupMeta();
  if (meta == nullptr || meta->subnodeType() == nullptr || provider->getSubnodeKey() != nullptr ||
      subnodes_ == nullptr) {
    startJob(provider);
    return;
  }
  // The template's turn is every copy's turn, in the subnode manager's order. The
  // pins hold the copies until they are claimed; from then on the on-queue mark holds
  // each (until its job, or the collection here, takes it off the queue).
  std::vector<SubnodeProviderPin> copies = subnodes_->pinAllSubnodeQueryClasses(meta);
  std::vector<UAClientClass*> collectHere;
  for (const SubnodeProviderPin& copy : copies) {
    if (pool_ != nullptr) {
      startJob(copy.get());
    } else if (claim(copy.get())) {
      collectHere.push_back(copy.get());
    }
  }
  copies.clear();
  for (UAClientClass* copy : collectHere) {
    collectInline(copy);
    copy->setOnQueue(false);
  }
}

bool RefreshThread::claim(UAClientClass* provider) {
  if (!provider->markOnQueue()) {
    XRV_TRACE_SITE();
    XRV_TRACE_DETAIL("%s already on thread pool queue, not adding again",
                     provider->getAttributeGroup());
    provider->countSkippedInterval();
    return false;
  }
  return true;
}

void RefreshThread::collectInline(UAClientClass* provider) {
  XRV_TRACE_FN();
  char id[16];
  snprintf(id, sizeof id, "%08x", jobCounter_.fetch_add(1));
  provider->collectDataIfNeeded(id);
  notifyCollectionDone(provider);
}

void RefreshThread::startJob(UAClientClass* provider) {
  XRV_TRACE_FN();
  if (!claim(provider)) {
    return;
  }
  if (pool_ == nullptr) {
    collectInline(provider);
    provider->setOnQueue(false);
    return;
  }
  char id[16];
  snprintf(id, sizeof id, "%08x", jobCounter_.fetch_add(1));
  pool_->submitJob(new CollectDataJob(provider, id));
}

void RefreshThread::refreshShutdown() {
  XRV_TRACE_FN();
  {
    XRV::MutexLock lock(mutex_);
    shutdown_ = true;
  }
  wakeUp_.notify_all();
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
    thread_.join();
  }
}

std::vector<std::pair<UAClientClass*, time_t>> RefreshThread::getQueue() {
  XRV::MutexLock lock(mutex_);
  std::vector<std::pair<UAClientClass*, time_t>> entries;
  for (UAClientClass* provider : queue_) {
    entries.emplace_back(provider, provider->getNextRefresh());
  }
  return entries;
}
