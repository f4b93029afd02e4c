#pragma once

// The framework's clock and sleep. Code that needs the time asks here, so that tests
// can install a clock of their own (fwSetClock) and run time forward at will.

#include <cstdint>
#include <ctime>

class FwClock {
 public:
  virtual ~FwClock() = default;
  // Wall-clock time in milliseconds since the epoch.
  virtual int64_t nowMillis() = 0;
  // A clock that never goes back, in milliseconds from an arbitrary start.
  virtual int64_t monotonicMillis() = 0;
  virtual void sleepMillis(int64_t milliseconds) = 0;
};

int64_t fwTimeMillis();
time_t fwTime();
int64_t fwMonotonicMillis();
// Sleeps at least `milliseconds` (restarted after signals); nothing for 0 or less.
void fwSleepMillis(int64_t milliseconds);

// Installs `clock` (null: the system clock again). The caller keeps ownership and
// must uninstall it before destroying it.
void fwSetClock(FwClock* clock);
