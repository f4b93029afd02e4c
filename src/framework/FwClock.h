#pragma once

// The framework's clock and sleep. Code that needs the time asks here, so that tests
// can install a clock of their own (fwSetClock) and run time forward at will.
//
// A thread that waits for a time to come waits through fwWaitFor, on its own
// condition variable. The system clock waits as std::condition_variable::wait_for
// does. A clock that moves only when told to (a test's) waits until someone notifies
// the condition variable; whoever moves such a clock calls fwClockMoved, which runs
// the wakers registered with fwAddClockWaker, and each waker notifies its waiter.

#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>

class FwClock {
 public:
  virtual ~FwClock() = default;
  // Wall-clock time in milliseconds since the epoch.
  virtual int64_t nowMillis() = 0;
  // A clock that never goes back, in milliseconds from an arbitrary start.
  virtual int64_t monotonicMillis() = 0;
  virtual void sleepMillis(int64_t milliseconds) = 0;
  // Waits on `wakeUp` (`lock` holds its mutex) until `milliseconds` of this clock have
  // passed or `done` holds; returns done(). This one waits on the system's steady
  // clock.
  virtual bool waitFor(std::condition_variable& wakeUp, std::unique_lock<std::mutex>& lock,
                       int64_t milliseconds, const std::function<bool()>& done);
};

int64_t fwTimeMillis();
time_t fwTime();
int64_t fwMonotonicMillis();
// Sleeps at least `milliseconds` (restarted after signals); nothing for 0 or less.
void fwSleepMillis(int64_t milliseconds);
// Waits on the installed clock (FwClock::waitFor).
bool fwWaitFor(std::condition_variable& wakeUp, std::unique_lock<std::mutex>& lock,
               int64_t milliseconds, const std::function<bool()>& done);

// Installs `clock` (null: the system clock again). The caller keeps ownership and
// must uninstall it before destroying it.
void fwSetClock(FwClock* clock);

// Wakers: called by fwClockMoved, one after the other, never while a waker is being
// added or removed. A waker takes its waiter's mutex and notifies its condition
// variable, so that a waiter about to wait cannot miss the move. The waiter must not
// hold that mutex while adding or removing its waker. fwAddClockWaker returns the
// handle for fwRemoveClockWaker; once that returns, the waker is not running and is
// not called again.
int fwAddClockWaker(std::function<void()> waker);
void fwRemoveClockWaker(int handle);
// Runs every waker: for clocks that move when told to, after each move.
void fwClockMoved();
