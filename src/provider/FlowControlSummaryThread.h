#pragma once

// The flood-control summary thread: one for the process. Event groups with a summary
// interval queue here; when a group's summary time comes, the thread sends the
// group's cached events as summary events and queues the group again.

#include <condition_variable>
#include <ctime>
#include <thread>
#include <vector>

#include "framework/Mutex.h"

class ResultsManager;

// The queue, ordered by next summary time (ascending). Not thread-safe: it is guarded
// by the summary thread's mutex.
class SummaryQueue {
 public:
  // Nothing when `provider` is queued already; otherwise its next summary becomes
  // now + its summary interval and it goes after the last provider whose time is
  // strictly earlier (in front of providers with the same time).
  void add(ResultsManager* provider, time_t now);
  // The head, taken off; null when empty.
  ResultsManager* pop();
  // False when `provider` was not queued.
  bool remove(ResultsManager* provider);
  ResultsManager* head() const { return entries_.empty() ? nullptr : entries_.front(); }
  bool contains(const ResultsManager* provider) const;
  size_t size() const { return entries_.size(); }

 private:
  std::vector<ResultsManager*> entries_;
};

class FlowControlSummaryThread {
 public:
  static FlowControlSummaryThread& instance();

  // Queues `provider` (see SummaryQueue::add); starts the thread on first use.
  void add(ResultsManager* provider) XRV_EXCLUDES(mutex_);
  // Takes `provider` out of the queue; when the thread is sending its summaries right
  // now, waits until it is done, so the provider may be destroyed afterwards.
  void remove(ResultsManager* provider) XRV_EXCLUDES(mutex_);
  bool isQueued(const ResultsManager* provider) XRV_EXCLUDES(mutex_);
  // Stops the thread (it is started again by the next add).
  void shutdown() XRV_EXCLUDES(mutex_);

  ~FlowControlSummaryThread();

 private:
  FlowControlSummaryThread() = default;
  void flowControlSummaryMain() XRV_EXCLUDES(mutex_);

  XRV::Mutex mutex_;
  std::condition_variable changed_;
  SummaryQueue queue_ XRV_GUARDED_BY(mutex_);
  ResultsManager* sending_ XRV_GUARDED_BY(mutex_) = nullptr;  // whose summaries are being sent now
  bool stopping_ XRV_GUARDED_BY(mutex_) = false;
  std::thread thread_ XRV_GUARDED_BY(mutex_);
};
