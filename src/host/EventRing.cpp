#include "host/EventRing.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/JsonWriter.h"
#include "host/RowJson.h"
#include "host/TableCatalog.h"

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

uint64_t EventRing::add(const CatalogGroup& group, int64_t timeMillis, const char* row,
                        size_t length, bool continuation) {
  if (row == nullptr || !rowFitsLayout(group, length)) {
    return 0;
  }
  uint64_t seq = 0;
  {
    PthreadMutexLock lock(mutex_);
    Slot& slot = slots_[(nextSeq_ - 1) % capacity_];
    squeezeRow(group, row, length, &slot.row);
    seq = nextSeq_++;
    slot.seq = seq;
    slot.timeMillis = timeMillis;
    slot.group = &group;
    slot.continuation = continuation;
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
  EventPage page;
  std::vector<Slot> copies;
  {
    PthreadMutexLock lock(mutex_);
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
      const Slot& slot = slots_[(seq - 1) % capacity_];
      if (!group.empty() && slot.group->name != group) {
        continue;
      }
      if (copies.size() == limit) {
        page.next = seq;
        break;
      }
      copies.push_back(slot);
    }
  }
  // JSON is made here, with the ring open to adds again.
  page.events.reserve(copies.size());
  std::vector<DecodedColumn> columns;
  for (const Slot& slot : copies) {
    StoredEvent& event = page.events.emplace_back();
    event.seq = slot.seq;
    event.timeMillis = slot.timeMillis;
    event.group = slot.group->name;
    event.continuation = slot.continuation;
    JsonWriter json;
    if (decodeSqueezedRow(*slot.group, slot.row, &columns)) {
      if (!columns.empty() && !columns.front().isNumber()) {
        event.node = columns.front().text;  // ORIGINNODE
      }
      writeColumnsJson(json, columns);
    } else {
      json.beginObject().endObject();
    }
    event.rowJson = json.take();
  }
  return page;
}

}  // namespace XRV::host
