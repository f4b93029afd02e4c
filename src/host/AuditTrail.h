#pragma once

// AuditTrail: the agent's audit records (start-up, shutdown), kept in memory for
// GET /api/v1/audit.
//
// The agent writes its shutdown record from a signal handler, so `add` takes no lock
// and allocates nothing: records go into a fixed ring of slots, their texts cut to
// the slot's fields, and the oldest record makes room when the ring is full. Readers
// copy a slot and check that no writer was in it meanwhile; a record being written
// while it is read is simply not listed yet.
//
// Thread-safe; `add` is async-signal-safe.

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "framework/Framework.h"

namespace XRV::host {

struct AuditEntry {
  uint64_t seq = 0;  // from 1, in the order written
  int64_t timeMillis = 0;
  std::string component, text, category, action, messageId, productName, applicationName;
  int recordClass = 0;
  int recordCode = 0;
};

class AuditTrail {
 public:
  static constexpr size_t kSlots = 128;

  void add(const FwAuditRecord& record) noexcept;
  // The records kept, oldest first.
  std::vector<AuditEntry> entries() const;

 private:
  struct Slot {
    // 2 * index + 1 while being written, 2 * index + 2 once written (index from 0);
    // 0 while never used.
    std::atomic<uint64_t> stamp{0};
    int64_t timeMillis = 0;
    int recordClass = 0;
    int recordCode = 0;
    char component[32] = {};
    char text[256] = {};
    char category[32] = {};
    char action[32] = {};
    char messageId[16] = {};
    char productName[64] = {};
    char applicationName[64] = {};
  };

  Slot slots_[kSlots];
  std::atomic<uint64_t> next_{0};
};

}  // namespace XRV::host
