#pragma once

// Target lists for engine tests, and what the machine offers.

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "foundation/List.h"
#include "sources/ping/PingTarget.h"

namespace XRV::testing {

// Owns the records and the List the engine is handed.
class PingTargets {
 public:
  PingTarget& add(const std::string& address) {
    records_.push_back(std::make_unique<PingTarget>(address.c_str()));
    list_.add(records_.back().get());
    return *records_.back();
  }
  List* list() { return &list_; }
  PingTarget& at(int i) { return *records_.at(i); }
  int countInState(int state) const {
    int count = 0;
    for (const auto& record : records_) {
      count += record->getState() == state ? 1 : 0;
    }
    return count;
  }

 private:
  std::vector<std::unique_ptr<PingTarget>> records_;
  List list_;
};

inline bool hasIPv6Loopback() {
  std::ifstream addresses("/proc/net/if_inet6");
  std::string line;
  while (std::getline(addresses, line)) {
    if (line.rfind("00000000000000000000000000000001", 0) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace XRV::testing
