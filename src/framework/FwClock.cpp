#include "framework/FwClock.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <utility>
#include <vector>

namespace {

class SystemClock : public FwClock {
 public:
  int64_t nowMillis() override { return read(CLOCK_REALTIME); }
  int64_t monotonicMillis() override { return read(CLOCK_MONOTONIC); }
  void sleepMillis(int64_t milliseconds) override {
    if (milliseconds <= 0) {
      return;
    }
    struct timespec remaining;
    remaining.tv_sec = static_cast<time_t>(milliseconds / 1000);
    remaining.tv_nsec = static_cast<long>((milliseconds % 1000) * 1000000);
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
  }

 private:
  static int64_t read(clockid_t id) {
    struct timespec now;
    clock_gettime(id, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
  }
};

SystemClock systemClock;
std::atomic<FwClock*> currentClock{&systemClock};

std::mutex wakersMutex;
std::vector<std::pair<int, std::function<void()>>> wakers;  // guarded by wakersMutex
int nextWaker = 0;                                          // guarded by wakersMutex

FwClock& activeClock() { return *currentClock.load(std::memory_order_acquire); }

}  // namespace

int64_t fwTimeMillis() { return activeClock().nowMillis(); }

time_t fwTime() { return static_cast<time_t>(activeClock().nowMillis() / 1000); }

int64_t fwMonotonicMillis() { return activeClock().monotonicMillis(); }

void fwSleepMillis(int64_t milliseconds) { activeClock().sleepMillis(milliseconds); }

bool fwWaitFor(std::condition_variable& wakeUp, std::unique_lock<std::mutex>& lock,
               int64_t milliseconds, const std::function<bool()>& done) {
  return activeClock().waitFor(wakeUp, lock, milliseconds, done);
}

bool FwClock::waitFor(std::condition_variable& wakeUp, std::unique_lock<std::mutex>& lock,
                      int64_t milliseconds, const std::function<bool()>& done) {
  return wakeUp.wait_for(lock, std::chrono::milliseconds(milliseconds), done);
}

int fwAddClockWaker(std::function<void()> waker) {
  std::lock_guard<std::mutex> guard(wakersMutex);
  wakers.emplace_back(++nextWaker, std::move(waker));
  return nextWaker;
}

void fwRemoveClockWaker(int handle) {
  std::lock_guard<std::mutex> guard(wakersMutex);
  std::erase_if(wakers, [handle](const auto& waker) { return waker.first == handle; });
}

void fwClockMoved() {
  std::lock_guard<std::mutex> guard(wakersMutex);
  for (const auto& waker : wakers) {
    waker.second();
  }
}

void fwSetClock(FwClock* replacement) {
  currentClock.store(replacement == nullptr ? &systemClock : replacement,
                     std::memory_order_release);
}
