#pragma once

// HttpWorkers: the threads that do the work of HTTP requests (sampling a table may
// wait for a collection) while the event loops go on serving other connections.
//
// A bounded queue: when `kMaxQueued` requests already wait, submit() refuses (the
// server answers 503) instead of letting a flood grow memory. stop() runs what is
// queued and returns once every thread has ended: each job resumes a suspended
// connection, which must happen before the event loops are stopped.
//
// Thread-safe.

#include <condition_variable>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

#include "framework/Mutex.h"

namespace XRV::host {

class HttpWorkers {
 public:
  static constexpr size_t kMaxQueued = 4096;

  explicit HttpWorkers(int threads);
  ~HttpWorkers() { stop(); }
  HttpWorkers(const HttpWorkers&) = delete;
  HttpWorkers& operator=(const HttpWorkers&) = delete;

  // False when the queue is full or the workers stopped; the job is not run then.
  bool submit(std::function<void()> job);
  void stop();

 private:
  void run();

  XRV::Mutex mutex_;
  std::condition_variable work_;
  std::deque<std::function<void()>> queue_ XRV_GUARDED_BY(mutex_);
  bool stopping_ XRV_GUARDED_BY(mutex_) = false;
  std::vector<std::thread> threads_;  // made by the constructor, joined by stop()
};

}  // namespace XRV::host
