#include "framework/FwClock.h"

#include <atomic>
#include <cerrno>

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

FwClock& activeClock() { return *currentClock.load(std::memory_order_acquire); }

}  // namespace

int64_t fwTimeMillis() { return activeClock().nowMillis(); }

time_t fwTime() { return static_cast<time_t>(activeClock().nowMillis() / 1000); }

int64_t fwMonotonicMillis() { return activeClock().monotonicMillis(); }

void fwSleepMillis(int64_t milliseconds) { activeClock().sleepMillis(milliseconds); }

void fwSetClock(FwClock* replacement) {
  currentClock.store(replacement == nullptr ? &systemClock : replacement,
                     std::memory_order_release);
}
