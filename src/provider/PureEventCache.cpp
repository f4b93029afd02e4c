#include "provider/PureEventCache.h"

#include "framework/Trace.h"

namespace {
const char* nameOf(const ResultInstance* row) {
  return row->getInstanceName() == nullptr ? "" : row->getInstanceName();
}
}  // namespace

void PureEventCache::configure(int threshold, int summaryInterval) {
  PthreadMutexLock guard(lock);
  threshold_ = threshold;
  summaryInterval_.store(summaryInterval < 0 ? 0 : summaryInterval);
}

bool PureEventCache::decide(ResultInstance* row, const Matcher& matches, const char* group,
                            bool* stored) {
  XRV_TRACE_FN();
  ResultInstance* duplicate = nullptr;
  ResultInstance* kept = row;
  bool replaced = false;
  if (summaryInterval_.load() >= 1) {
    for (ResultInstance* cached = rows_.head(); cached != nullptr;
         cached = ResultList::next(cached)) {
      if (!cached->isSummary() && matches(cached, row)) {
        duplicate = cached;
        break;
      }
    }
    if (duplicate != nullptr) {
      XRV_TRACE_DETAIL("Found duplicate event for %s:%s", group, nameOf(row));
      if (replaceWithLatest_) {
        row->setOccurrenceCount(duplicate->getOccurrenceCount());
        rows_.replace(duplicate, row);
        delete duplicate;
        duplicate = row;
        replaced = true;
      }
      kept = duplicate;
      kept->incrementOccurences();
    } else {
      XRV_TRACE_DETAIL("Received new event %s:%s", group, nameOf(row));
    }
  }

  bool send = false;
  const int count = kept->getOccurrenceCount();
  if (threshold_ == EVENT_SEND_ALL) {
    XRV_TRACE_DETAIL("EVENT_SEND_ALL, sending event %s:%s", group, nameOf(row));
    send = true;
  } else if (threshold_ == EVENT_SEND_FIRST && duplicate == nullptr) {
    XRV_TRACE_DETAIL("EVENT_SEND_FIRST, sending event %s:%s", group, nameOf(row));
    send = true;
  } else if (threshold_ >= 1 && count % threshold_ == 0) {
    XRV_TRACE_DETAIL("evtFloodThreshold = %d, occurrenceCount = %d, sending event %s:%s",
                     threshold_, count, group, nameOf(row));
    send = true;
  } else {
    XRV_TRACE_DETAIL("EVENT_SEND_NONE, not sending event %s:%s", group, nameOf(row));
  }

  if (!replaceWithLatest_ && threshold_ == EVENT_SEND_ALL && summaryInterval_.load() == 0) {
    *stored = add(row);
  } else if (duplicate != nullptr) {
    *stored = replaced;
  } else {
    *stored = add(row);
  }
  return send;
}

bool PureEventCache::add(ResultInstance* row) {
  if (size_ < 1) {
    return false;
  }
  rows_.prepend(row);
  while (rows_.count() > size_) {
    ResultInstance* victim = rows_.tail();
    if (summaryInterval_.load() > 0) {
      // Only events already summarised may go: the others still have to be counted in
      // a summary. Without such an event the cache stays over its size for now.
      while (victim != nullptr && !victim->isSummary()) {
        victim = ResultList::previous(victim);
      }
      if (victim == nullptr) {
        break;
      }
    }
    rows_.unlink(victim);
    delete victim;
  }
  return true;
}
