#include "scheduling/ThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "support/Wait.h"

namespace {

using XRV::testing::waitUntil;

// Jobs that record their numbers in the order they ran; a job may wait at the gate
// until the test opens it.
struct Record {
  std::mutex lock;
  std::condition_variable opened;
  bool open = true;
  std::vector<int> ran;

  void setOpen(bool value) {
    std::lock_guard<std::mutex> guard(lock);
    open = value;
    opened.notify_all();
  }
  std::vector<int> numbers() {
    std::lock_guard<std::mutex> guard(lock);
    return ran;
  }
};

class NumberJob : public IThreadPoolJob {
 public:
  NumberJob(int number, Record* record, bool gated = false)
      : number_(number), record_(record), gated_(gated) {}
  void execute() override {
    std::unique_lock<std::mutex> guard(record_->lock);
    record_->opened.wait(guard, [this] { return !gated_ || record_->open; });
    record_->ran.push_back(number_);
  }

 private:
  int number_;
  Record* record_;
  bool gated_;
};

TEST(ThreadPool, OneWorkerRunsJobsInOrderAndCountsThem) {
  Record record;
  ThreadPool pool(1);
  ThreadPoolStatistics statistics = pool.getTPStatistics();
  EXPECT_EQ(statistics.threads, 1);
  EXPECT_EQ(statistics.averageActive, -1.0) << "no job yet";
  EXPECT_EQ(statistics.averageJobWait, -1.0);
  EXPECT_EQ(statistics.minimumQueueLength, 1) << "minima start at the pool size";

  record.setOpen(false);  // the first job holds the worker until all are queued
  std::vector<IThreadPoolJob*> jobs;
  for (int i = 0; i < 5; ++i) {
    jobs.push_back(new NumberJob(i, &record, i == 0));
  }
  pool.submitJobs(jobs.data(), static_cast<int>(jobs.size()));
  pool.submitJob(new NumberJob(5, &record));
  record.setOpen(true);
  waitUntil([&] { return pool.getTPStatistics().completed == 6; });
  EXPECT_EQ(record.numbers(), (std::vector<int>{0, 1, 2, 3, 4, 5}));
  statistics = pool.getTPStatistics();
  EXPECT_EQ(statistics.completed, 6);
  EXPECT_EQ(statistics.maximumActive, 1);
  EXPECT_EQ(statistics.minimumActive, 1);
  EXPECT_EQ(statistics.averageActive, 1.0);
  // The first job found five or six waiting (the sixth was queued before the worker
  // woke, or not); the last found none left besides itself.
  EXPECT_GE(statistics.maximumQueueLength, 5);
  EXPECT_EQ(statistics.minimumQueueLength, 1);
  EXPECT_GT(statistics.averageJobWait, 0.0) << "the later jobs waited for the first";
}

TEST(ThreadPool, ShutdownLeavesQueuedJobsToTheDestructor) {
  Record record;
  {
    ThreadPool pool(2);
    record.setOpen(false);
    pool.submitJob(new NumberJob(1, &record, true));
    pool.submitJob(new NumberJob(2, &record, true));
    waitUntil([&] { return pool.getTPStatistics().active == 2; });
    for (int i = 3; i < 10; ++i) {
      pool.submitJob(new NumberJob(i, &record));
    }
    std::thread opener([&] {
      // Opened once shutdown has begun: the two running jobs finish; the seven
      // queued never run.
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      record.setOpen(true);
    });
    pool.shutdown();
    opener.join();
  }
  EXPECT_EQ(record.numbers().size(), 2u);
}

TEST(ThreadPool, ManySubmittersManyWorkers) {
  std::atomic<int> done{0};
  struct CountJob : IThreadPoolJob {
    explicit CountJob(std::atomic<int>* counter) : counter_(counter) {}
    void execute() override { ++*counter_; }
    std::atomic<int>* counter_;
  };
  ThreadPool pool(4);
  std::vector<std::thread> submitters;
  for (int t = 0; t < 4; ++t) {
    submitters.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        pool.submitJob(new CountJob(&done));
      }
    });
  }
  for (std::thread& submitter : submitters) {
    submitter.join();
  }
  // A job counts as completed only after it ran: wait for the pool's own count.
  waitUntil([&] { return pool.getTPStatistics().completed == 2000; });
  EXPECT_EQ(done.load(), 2000);
  EXPECT_EQ(pool.getTPStatistics().completed, 2000);
  EXPECT_LE(pool.getTPStatistics().maximumActive, 4);
}

}  // namespace
