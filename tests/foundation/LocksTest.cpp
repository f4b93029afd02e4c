#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "foundation/Locks.h"

namespace {

// Many threads increment one counter under the lock: any lost update shows.
template <typename Lock, typename Guard>
long countUnder(Lock& lock) {
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        Guard guard(lock);
        long seen = counter;
        std::this_thread::yield();
        counter = seen + 1;
        if (i % 5000 == 0) {
          std::this_thread::yield();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return counter;
}

TEST(Locks, PthreadMutexExcludes) {
  PthreadMutex mutex;
  EXPECT_EQ((countUnder<PthreadMutex, PthreadMutexLock>(mutex)), 80000);
}

TEST(Locks, LockObjectExcludes) {
  LockObject lock;
  EXPECT_EQ((countUnder<LockObject, LockObjectGuard>(lock)), 80000);
}

}  // namespace
