#include "scheduling/ThreadPool.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <system_error>
#include <thread>
#include <utility>

#include "foundation/Utilities.h"
#include "framework/Mutex.h"
#include "framework/Trace.h"

// Shared by the pool object and its detached workers, so that it lives as long as the
// last of them.
struct ThreadPool::State {
  XRV::Mutex mutex;
  std::condition_variable workAvailable;
  std::condition_variable workerEnded;
  std::deque<IThreadPoolJob*> queue XRV_GUARDED_BY(mutex);
  ThreadPoolStatistics statistics XRV_GUARDED_BY(mutex);
  int running XRV_GUARDED_BY(mutex) = 0;
  bool stopping XRV_GUARDED_BY(mutex) = false;
};

namespace {

struct timespec now() {
  struct timespec time;
  clock_gettime(CLOCK_REALTIME, &time);
  return time;
}

double secondsBetween(const struct timespec& from, const struct timespec& to) {
  return static_cast<double>(to.tv_sec - from.tv_sec) +
         static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e9;
}

}  // namespace

ThreadPool::ThreadPool(int size) : state_(std::make_shared<State>()), size_(size) {
  XRV_TRACE_FN();
  ThreadPoolStatistics& statistics = state_->statistics;
  statistics.minimumActive = size;
  statistics.minimumQueueLength = size;
  for (int i = 0; i < size; ++i) {
    try {
      std::thread worker(&ThreadPool::workerThreadMain, state_);
      worker.detach();
    } catch (const std::system_error& error) {
      XRV_TRACE_ERROR("Could not start pool thread #%d: %s", i, error.what());
      continue;
    }
    XRV::MutexLock lock(state_->mutex);
    ++statistics.threads;
    ++state_->running;
    XRV_TRACE_DETAIL("Successfully started pool thread #%d", i);
  }
}

ThreadPool::~ThreadPool() {
  XRV_TRACE_FN();
  shutdown();
  XRV::MutexLock lock(state_->mutex);
  for (IThreadPoolJob* job : state_->queue) {
    delete job;
  }
  state_->queue.clear();
}

void ThreadPool::shutdown() {
  XRV_TRACE_FN();
  XRV::MutexLock lock(state_->mutex);
  state_->stopping = true;
  state_->workAvailable.notify_all();
  // The waits call their predicates with the mutex held.
  state_->workerEnded.wait(lock.native(),
                           [this]() XRV_NO_THREAD_SAFETY_ANALYSIS { return state_->running == 0; });
}

void ThreadPool::submitJob(IThreadPoolJob* job) { submitJobs(&job, 1); }

void ThreadPool::submitJobs(IThreadPoolJob* const* jobs, int count) {
  XRV_TRACE_FN();
  struct timespec stamp = now();
  {
    XRV::MutexLock lock(state_->mutex);
    for (int i = 0; i < count; ++i) {
      jobs[i]->setTimeOnQueue(stamp);
      state_->queue.push_back(jobs[i]);
    }
  }
  if (count == 1) {
    state_->workAvailable.notify_one();
  } else {
    state_->workAvailable.notify_all();
  }
}

ThreadPoolStatistics ThreadPool::getTPStatistics() {
  XRV::MutexLock lock(state_->mutex);
  ThreadPoolStatistics copy = state_->statistics;
  copy.queueLength = static_cast<int>(state_->queue.size());
  return copy;
}

void ThreadPool::workerThreadMain(std::shared_ptr<State> state) {
  XRV_TRACE_FN();
  XRV::MutexLock lock(state->mutex);
  ThreadPoolStatistics& statistics = state->statistics;
  while (true) {
    state->workAvailable.wait(lock.native(), [&]() XRV_NO_THREAD_SAFETY_ANALYSIS {
      return state->stopping || !state->queue.empty();
    });
    if (state->stopping) {
      break;
    }
    const int queueLength = static_cast<int>(state->queue.size());
    XRV_TRACE_DETAIL("There are %d jobs on the queue, taking the first one", queueLength);
    IThreadPoolJob* job = state->queue.front();
    state->queue.pop_front();
    ++statistics.active;

    const int samples = statistics.completed;
    statistics.averageActive =
        Utilities::calculateAverage(statistics.averageActive, statistics.active, samples);
    statistics.minimumActive = std::min(statistics.minimumActive, statistics.active);
    statistics.maximumActive = std::max(statistics.maximumActive, statistics.active);
    statistics.averageQueueLength =
        Utilities::calculateAverage(statistics.averageQueueLength, queueLength, samples);
    statistics.minimumQueueLength = std::min(statistics.minimumQueueLength, queueLength);
    statistics.maximumQueueLength = std::max(statistics.maximumQueueLength, queueLength);
    statistics.averageJobWait = Utilities::calculateAverage(
        statistics.averageJobWait, secondsBetween(job->getTimeOnQueue(), now()), samples);

    lock.unlock();
    job->execute();
    delete job;
    lock.lock();
    --statistics.active;
    ++statistics.completed;
  }
  --state->running;
  state->workerEnded.notify_all();
}
