#include "host/HttpWorkers.h"

#include <utility>

namespace XRV::host {

HttpWorkers::HttpWorkers(int threads) {
  for (int i = 0; i < (threads < 1 ? 1 : threads); ++i) {
    threads_.emplace_back(&HttpWorkers::run, this);
  }
}

bool HttpWorkers::submit(std::function<void()> job) {
  {
    XRV::MutexLock lock(mutex_);
    if (stopping_ || queue_.size() >= kMaxQueued) {
      return false;
    }
    queue_.push_back(std::move(job));
  }
  work_.notify_one();
  return true;
}

void HttpWorkers::stop() {
  {
    XRV::MutexLock lock(mutex_);
    stopping_ = true;
  }
  work_.notify_all();
  for (std::thread& thread : threads_) {
    if (thread.joinable()) {
      thread.join();
    }
  }
}

void HttpWorkers::run() {
  XRV::MutexLock lock(mutex_);
  for (;;) {
    while (!stopping_ && queue_.empty()) {
      work_.wait(lock.native());
    }
    if (queue_.empty()) {
      return;  // stopping, and nothing left to run
    }
    std::function<void()> job = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
}

}  // namespace XRV::host
