#include "host/EventRing.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace XRV::host {

EventRing::EventRing(size_t capacity)
    : capacity_(std::max<size_t>(capacity, 1)),
      slots_(capacity_),
      addedFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

EventRing::~EventRing() {
  if (addedFd_ >= 0) {
    close(addedFd_);
  }
}

void EventRing::takeAddedSignal() {
  // The eventfd first, the flag after: cleared the other way round, an add between
  // the two would write a signal that the read then takes, and leave the flag set,
  // so that no later add signals again.
  uint64_t count = 0;
  [[maybe_unused]] ssize_t got = ::read(addedFd_, &count, sizeof count);
  signalled_.store(false);
}

uint64_t EventRing::add(StoredEvent event) {
  uint64_t seq = 0;
  {
    PthreadMutexLock lock(mutex_);
    event.seq = nextSeq_++;
    seq = event.seq;
    slots_[(seq - 1) % capacity_] = std::move(event);
    count_ = std::min(count_ + 1, capacity_);
  }
  if (addedFd_ >= 0 && !signalled_.exchange(true)) {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t written = ::write(addedFd_, &one, sizeof one);
  }
  return seq;
}

uint64_t EventRing::oldestHeld() const {
  PthreadMutexLock lock(mutex_);
  return nextSeq_ - count_;
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
