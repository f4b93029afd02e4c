#include "host/EventRing.h"

#include <algorithm>
#include <utility>

namespace XRV::host {

EventRing::EventRing(size_t capacity)
    : capacity_(std::max<size_t>(capacity, 1)), slots_(capacity_) {}

uint64_t EventRing::add(StoredEvent event) {
  PthreadMutexLock lock(mutex_);
  event.seq = nextSeq_++;
  const uint64_t seq = event.seq;
  slots_[(seq - 1) % capacity_] = std::move(event);
  count_ = std::min(count_ + 1, capacity_);
  return seq;
}

EventPage EventRing::read(uint64_t since, const std::string& group, size_t limit) const {
  PthreadMutexLock lock(mutex_);
  EventPage page;
  page.next = nextSeq_;
  const uint64_t oldest = nextSeq_ - count_;
  uint64_t from = std::max<uint64_t>(since, 1);
  if (from > nextSeq_) {
    return page;
  }
  if (from < oldest) {
    page.dropped = oldest - from;
    from = oldest;
  }
  for (uint64_t seq = from; seq < nextSeq_; ++seq) {
    const StoredEvent& event = slots_[(seq - 1) % capacity_];
    if (!group.empty() && event.group != group) {
      continue;
    }
    if (page.events.size() == limit) {
      page.next = seq;
      break;
    }
    page.events.push_back(event);
  }
  return page;
}

}  // namespace XRV::host
