#pragma once

// EventRing: the last N event rows the agent produced, for GET /api/v1/events.
//
// Every event gets the next sequence number (from 1). When the ring is full the
// oldest event makes room; a reader that asks for events the ring no longer holds
// gets the oldest kept ones and the number it missed.
//
// Adding is on the path of every event, reading is not: the ring keeps each row in
// a compact binary form (squeezeRow), copied into storage the slot keeps from the
// events before, and turns rows into JSON when they are read, outside its lock.
//
// Event streams (EventStreams.h) learn of new events through addedFd(), an eventfd
// the ring signals: adding stays one lock of the ring, an atomic exchange and at
// most one write to the eventfd, whoever reads and however slowly.
//
// Thread-safe: events are added from the providers' threads while HTTP threads read.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/Locks.h"

namespace XRV::host {

struct CatalogGroup;

// An event as readers get it.
struct StoredEvent {
  uint64_t seq = 0;
  int64_t timeMillis = 0;  // milliseconds since the epoch, when the row arrived
  std::string group;
  std::string node;           // the row's ORIGINNODE
  std::string rowJson;        // the row as a JSON object
  bool continuation = false;  // a further row of the event before it
};

struct EventPage {
  std::vector<StoredEvent> events;
  uint64_t next = 1;     // what to ask for next time (`since`)
  uint64_t dropped = 0;  // events from `since` on that the ring no longer holds
};

class EventRing {
 public:
  // `capacity` below 1 is taken as 1.
  explicit EventRing(size_t capacity);
  ~EventRing();
  EventRing(const EventRing&) = delete;
  EventRing& operator=(const EventRing&) = delete;

  // Files the event row `row` (`length` bytes, packed by the layout of `group`)
  // under the next sequence number and returns that number; 0 (nothing filed) when
  // the row does not fit the layout. `group` must stay valid while the ring lives
  // (catalog entries do).
  uint64_t add(const CatalogGroup& group, int64_t timeMillis, const char* row, size_t length,
               bool continuation) XRV_EXCLUDES(mutex_);

  // Events with a sequence number of at least `since` (0 and 1 both mean from the
  // first), oldest first, at most `limit` of them; only those of `group` unless it is
  // empty. `next` continues after the last one returned, or after the newest event
  // when the page holds all there is; a `since` beyond the newest event answers
  // nothing and the `next` of the newest event (the agent may have restarted).
  EventPage read(uint64_t since, const std::string& group, size_t limit) const XRV_EXCLUDES(mutex_);

  size_t capacity() const { return capacity_; }
  // The sequence number of the oldest event held; the next one's when none is.
  uint64_t oldestHeld() const XRV_EXCLUDES(mutex_);

  // Readable once an event was added after the last takeAddedSignal(); -1 when the
  // system gave no eventfd (waiters then look again on their own).
  int addedFd() const { return addedFd_; }
  // Clears the signal: events added from now on set it again. Call it before looking
  // at the ring, so that an event added meanwhile is either seen or signalled. One
  // waiter only.
  void takeAddedSignal();

 private:
  struct Slot {
    uint64_t seq = 0;
    int64_t timeMillis = 0;
    const CatalogGroup* group = nullptr;
    std::string row;  // squeezed
    bool continuation = false;
  };

  const size_t capacity_;
  mutable PthreadMutex mutex_;
  std::vector<Slot> slots_ XRV_GUARDED_BY(mutex_);
  uint64_t nextSeq_ XRV_GUARDED_BY(mutex_) = 1;
  size_t count_ XRV_GUARDED_BY(mutex_) = 0;
  const int addedFd_;
  // Set while addedFd_ holds an unread signal: further adds skip the write.
  std::atomic<bool> signalled_{false};
};

}  // namespace XRV::host
