#include "scheduling/ThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// Records its number when it runs; can take its time.
class NumberJob : public IThreadPoolJob {
 public:
  NumberJob(int number, std::vector<int>* ran, std::mutex* lock, int millis = 0)
      : number_(number), ran_(ran), lock_(lock), millis_(millis) {}
  void execute() override {
    if (millis_ > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(millis_));
    }
    std::lock_guard<std::mutex> guard(*lock_);
    ran_->push_back(number_);
  }

 private:
  int number_;
  std::vector<int>* ran_;
  std::mutex* lock_;
  int millis_;
};

void waitFor(const std::function<bool()>& done) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

TEST(ThreadPool, StatisticsStartValues) {
  ThreadPool pool(3);
  ThreadPoolStatistics statistics = pool.getTPStatistics();
  EXPECT_EQ(statistics.threads, 3);
  EXPECT_EQ(statistics.active, 0);
  EXPECT_EQ(statistics.completed, 0);
  EXPECT_EQ(statistics.averageActive, -1.0);
  EXPECT_EQ(statistics.averageQueueLength, -1.0);
  EXPECT_EQ(statistics.averageJobWait, -1.0);
  EXPECT_EQ(statistics.minimumActive, 3) << "minima start at the pool size";
  EXPECT_EQ(statistics.minimumQueueLength, 3);
  EXPECT_EQ(statistics.maximumActive, 0);
  EXPECT_EQ(statistics.maximumQueueLength, 0);
}

TEST(ThreadPool, OneWorkerRunsJobsInOrderAndCountsThem) {
  std::vector<int> ran;
  std::mutex lock;
  ThreadPool pool(1);
  std::vector<IThreadPoolJob*> jobs;
  for (int i = 0; i < 5; ++i) {
    jobs.push_back(new NumberJob(i, &ran, &lock, i == 0 ? 50 : 0));
  }
  pool.submitJobs(jobs.data(), static_cast<int>(jobs.size()));
  pool.submitJob(new NumberJob(5, &ran, &lock));
  waitFor([&] { return pool.getTPStatistics().completed == 6; });
  {
    std::lock_guard<std::mutex> guard(lock);
    EXPECT_EQ(ran, (std::vector<int>{0, 1, 2, 3, 4, 5}));
  }
  ThreadPoolStatistics statistics = pool.getTPStatistics();
  EXPECT_EQ(statistics.completed, 6);
  EXPECT_EQ(statistics.maximumActive, 1);
  EXPECT_EQ(statistics.minimumActive, 1);
  EXPECT_EQ(statistics.averageActive, 1.0);
  // The first job found six waiting (the sixth was queued before the worker woke, or
  // not); the last found none left besides itself.
  EXPECT_GE(statistics.maximumQueueLength, 5);
  EXPECT_EQ(statistics.minimumQueueLength, 1);
  EXPECT_GT(statistics.averageJobWait, 0.0) << "the later jobs waited for the first";
}

TEST(ThreadPool, ShutdownLeavesQueuedJobsToTheDestructor) {
  std::vector<int> ran;
  std::mutex lock;
  {
    ThreadPool pool(2);
    pool.submitJob(new NumberJob(1, &ran, &lock, 100));
    pool.submitJob(new NumberJob(2, &ran, &lock, 100));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (int i = 3; i < 10; ++i) {
      pool.submitJob(new NumberJob(i, &ran, &lock));
    }
    pool.shutdown();  // the two running jobs finish; the seven queued never run
  }
  std::lock_guard<std::mutex> guard(lock);
  EXPECT_EQ(ran.size(), 2u);
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
  waitFor([&] { return pool.getTPStatistics().completed == 2000; });
  EXPECT_EQ(done.load(), 2000);
  EXPECT_EQ(pool.getTPStatistics().completed, 2000);
  EXPECT_LE(pool.getTPStatistics().maximumActive, 4);
}

}  // namespace
