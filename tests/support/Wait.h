#pragma once

// Waiting on the real clock for what other threads or processes bring about, always
// with a bound: a fault fails the test instead of hanging it.

#include <chrono>
#include <thread>

namespace XRV::testing {

using SteadyClock = std::chrono::steady_clock;

inline double secondsSince(SteadyClock::time_point start) {
  return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

// Polls `done` until it holds or `seconds` have passed; whether it held.
template <typename Done>
bool waitUntil(Done done, double seconds = 10) {
  const SteadyClock::time_point start = SteadyClock::now();
  while (!done()) {
    if (secondsSince(start) > seconds) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace XRV::testing
