#include "provider/FlowControlSummaryThread.h"

#include <algorithm>
#include <chrono>

#include "framework/FwClock.h"
#include "framework/Trace.h"
#include "provider/ResultsManager.h"

namespace {
// How long the thread sleeps when no group is queued (an add wakes it earlier).
constexpr std::chrono::milliseconds kIdleWait(30000);
}  // namespace

void SummaryQueue::add(ResultsManager* provider, time_t now) {
  if (contains(provider)) {
    return;
  }
  time_t next = now + provider->getSummaryInterval();
  provider->setNextSummary(next);
  auto position = std::find_if(entries_.begin(), entries_.end(), [next](ResultsManager* queued) {
    return queued->getNextSummary() >= next;
  });
  entries_.insert(position, provider);
}

ResultsManager* SummaryQueue::pop() {
  if (entries_.empty()) {
    return nullptr;
  }
  ResultsManager* first = entries_.front();
  entries_.erase(entries_.begin());
  return first;
}

bool SummaryQueue::remove(ResultsManager* provider) {
  auto found = std::find(entries_.begin(), entries_.end(), provider);
  if (found == entries_.end()) {
    return false;
  }
  entries_.erase(found);
  return true;
}

bool SummaryQueue::contains(const ResultsManager* provider) const {
  return std::find(entries_.begin(), entries_.end(), provider) != entries_.end();
}

FlowControlSummaryThread& FlowControlSummaryThread::instance() {
  static FlowControlSummaryThread thread;
  return thread;
}

FlowControlSummaryThread::~FlowControlSummaryThread() { shutdown(); }

void FlowControlSummaryThread::add(ResultsManager* provider) {
  XRV_TRACE_FN();
  XRV::MutexLock lock(mutex_);
  queue_.add(provider, fwTime());
  if (!thread_.joinable()) {
    stopping_ = false;
    thread_ = std::thread(&FlowControlSummaryThread::flowControlSummaryMain, this);
  }
  changed_.notify_all();
}

void FlowControlSummaryThread::remove(ResultsManager* provider) {
  XRV_TRACE_FN();
  XRV::MutexLock lock(mutex_);
  queue_.remove(provider);
  while (sending_ == provider) {
    changed_.wait(lock.native());
  }
  changed_.notify_all();
}

bool FlowControlSummaryThread::isQueued(const ResultsManager* provider) {
  XRV::MutexLock lock(mutex_);
  return queue_.contains(provider);
}

void FlowControlSummaryThread::shutdown() {
  XRV_TRACE_FN();
  std::thread stopped;
  {
    XRV::MutexLock lock(mutex_);
    stopping_ = true;
    stopped = std::move(thread_);
    changed_.notify_all();
  }
  if (stopped.joinable()) {
    stopped.join();
  }
}

void FlowControlSummaryThread::flowControlSummaryMain() {
  XRV_TRACE_FN();
  XRV::MutexLock lock(mutex_);
  while (!stopping_) {
    ResultsManager* next = queue_.head();
    if (next == nullptr) {
      changed_.wait_for(lock.native(), kIdleWait);
      continue;
    }
    time_t wait = next->getNextSummary() - fwTime();
    if (wait > 0) {
      // Woken early by a change of the queue: look at the head again.
      changed_.wait_for(lock.native(), std::chrono::seconds(wait));
      continue;
    }
    queue_.pop();
    if (next->getSummaryInterval() >= 1) {
      queue_.add(next, fwTime());
    } else {
      XRV_TRACE_DETAIL(
          "query object %s no longer has non-zero summary interval, not re-adding to queue",
          next->getAttributeGroup());
    }
    sending_ = next;
    lock.unlock();
    next->sendSummaryEvents();
    lock.lock();
    sending_ = nullptr;
    changed_.notify_all();
  }
}
