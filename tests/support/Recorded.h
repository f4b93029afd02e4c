#pragma once

// What other threads note down while a test reads it: a list that takes additions
// from any thread and hands out copies.

#include <algorithm>
#include <mutex>
#include <vector>

namespace XRV::testing {

template <typename T>
class Recorded {
 public:
  void add(T value) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_.push_back(std::move(value));
  }
  std::vector<T> get() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }
  bool contains(const T& value) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::find(values_.begin(), values_.end(), value) != values_.end();
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    values_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<T> values_;
};

}  // namespace XRV::testing
