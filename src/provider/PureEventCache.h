#pragma once

// PureEventCache: the last events of an event group, newest first, and the flood
// control that decides which arriving events are sent.
//
// With a summary interval, an arriving event that matches a cached one (same key
// values, same derived values) is a duplicate: it counts one more occurrence of the
// cached event (or replaces it, keeping the count, when the group keeps the latest);
// the threshold then decides whether it is sent: all, none, the first, or every N-th
// occurrence. Each summary turns the cached events into summaries; only summaries
// may be trimmed from a full cache, so no occurrence goes uncounted.
//
// Contract:
// - `lock` guards the rows and the threshold. Callers hold it across decide() and
//   whatever they do with the row afterwards (packing it): once the lock is
//   released the cache may trim or replace the row.
// - The cache owns the rows it stored; decide() says whether it stored the one it
//   was given, else the caller still owns it.
// - The summary interval may be read without the lock (it only chooses between
//   ways of counting); it is written with the threshold, under the lock.

#include <atomic>
#include <functional>

#include "foundation/Locks.h"
#include "provider/ResultList.h"

// Flood-control thresholds of event groups; N >= 1 sends every N-th duplicate.
enum FLOOD_THRESHOLD {
  EVENT_SEND_NONE = -1,
  EVENT_SEND_FIRST = -2,
  EVENT_SEND_ALL = -3,
};

class PureEventCache {
 public:
  // How two rows are compared for duplicates.
  using Matcher = std::function<bool(const ResultInstance* a, const ResultInstance* b)>;

  PureEventCache() = default;
  PureEventCache(const PureEventCache&) = delete;
  PureEventCache& operator=(const PureEventCache&) = delete;

  mutable PthreadMutex lock;

  // Set up once, before events arrive: how many events are kept (0: none), and
  // whether a duplicate replaces the cached event.
  void setSize(int size) { size_ = size < 0 ? 0 : size; }
  int getSize() const { return size_; }
  void setReplaceWithLatest(bool on) { replaceWithLatest_ = on; }

  // The flood control (the threshold as FLOOD_THRESHOLD or N >= 1).
  void configure(int threshold, int summaryInterval) XRV_EXCLUDES(lock);
  int threshold() const XRV_REQUIRES(lock) { return threshold_; }
  int summaryInterval() const { return summaryInterval_.load(); }

  // The arriving `row`: finds a duplicate, counts, stores or replaces, and decides.
  // True when the row is to be sent; *stored tells whether the cache kept it.
  bool decide(ResultInstance* row, const Matcher& matches, const char* group, bool* stored)
      XRV_REQUIRES(lock);
  // Puts `row` first and trims the cache; false (row not taken) when it keeps nothing.
  bool add(ResultInstance* row) XRV_REQUIRES(lock);

  ResultInstance* first() const XRV_REQUIRES(lock) { return rows_.head(); }
  int count() const XRV_REQUIRES(lock) { return rows_.count(); }
  void clear() XRV_REQUIRES(lock) { rows_.clear(); }

 private:
  int size_ = 100;
  bool replaceWithLatest_ = false;
  std::atomic<int> summaryInterval_{0};
  int threshold_ XRV_GUARDED_BY(lock) = EVENT_SEND_ALL;
  ResultList rows_ XRV_GUARDED_BY(lock);
};
