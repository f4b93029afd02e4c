#pragma once

// ResultStore: a provider's rows, in two lists and an index.
//
//   active   the rows requests are answered from, in the order they were merged;
//   new      the rows the collection in progress has made so far, not yet seen by
//            any request;
//   by name  instance name -> the first active row of that name, kept only when the
//            provider merges rows by name (aggregation, replacing rows by key).
//
// Contract:
// - `activeLock` guards the active list and the index, `newLock` the new list.
//   Whoever needs both takes activeLock first. Each method names the lock it needs;
//   the clang build checks every caller.
// - The store owns every row in it. The clear methods and the destructor delete
//   rows; the unlink methods and replaceActiveWithNew hand rows to the caller.
// - The index never names a row that is not active, and every named active row is
//   found through it (the first of its name, or the one put first on purpose).
// - Whether the store keeps the index is set before the first row arrives.

#include "foundation/HashMap.h"
#include "foundation/Locks.h"
#include "provider/ResultList.h"

class ResultStore {
 public:
  ResultStore();
  ~ResultStore();
  ResultStore(const ResultStore&) = delete;
  ResultStore& operator=(const ResultStore&) = delete;

  void setIndexed(bool indexed) { indexed_ = indexed; }
  bool isIndexed() const { return indexed_; }

  mutable PthreadMutex activeLock XRV_ACQUIRED_BEFORE(newLock);
  mutable PthreadMutex newLock;

  // --- Active rows ---
  ResultInstance* firstActive() const XRV_REQUIRES(activeLock) { return active_.head(); }
  int activeCount() const XRV_REQUIRES(activeLock) { return active_.count(); }
  bool activeEmpty() const XRV_REQUIRES(activeLock) { return active_.empty(); }
  // Appends `row`; its name finds it unless an earlier row has that name.
  void appendActive(ResultInstance* row) XRV_REQUIRES(activeLock);
  // Puts `row` first; its name finds it from now on.
  void prependActive(ResultInstance* row) XRV_REQUIRES(activeLock);
  // The active row `name` finds; null when none is or the store keeps no index.
  ResultInstance* findActive(const char* name) const XRV_REQUIRES(activeLock);
  // Puts `row` where `old` (active, of the same name) stands; the caller owns `old`.
  void replaceActive(ResultInstance* old, ResultInstance* row) XRV_REQUIRES(activeLock);
  // Takes `row` out of the active rows; the caller owns it.
  void unlinkActive(ResultInstance* row) XRV_REQUIRES(activeLock);
  void clearActive() XRV_REQUIRES(activeLock);
  // The whole-table merge: every active row moves to `leaving` and every new row
  // becomes active, in its order.
  void replaceActiveWithNew(ResultList* leaving) XRV_REQUIRES(activeLock, newLock);

  // --- New rows ---
  ResultInstance* firstNew() const XRV_REQUIRES(newLock) { return new_.head(); }
  int newCount() const XRV_REQUIRES(newLock) { return new_.count(); }
  bool newEmpty() const XRV_REQUIRES(newLock) { return new_.empty(); }
  void appendNew(ResultInstance* row) XRV_REQUIRES(newLock) { new_.append(row); }
  // Takes `row` out of the new rows; the caller owns it.
  void unlinkNew(ResultInstance* row) XRV_REQUIRES(newLock) { new_.unlink(row); }
  void clearNew() XRV_REQUIRES(newLock) { new_.clear(); }

 private:
  void index(ResultInstance* row, bool overrideEarlier) XRV_REQUIRES(activeLock);
  void unindex(ResultInstance* row) XRV_REQUIRES(activeLock);
  void clearIndex() XRV_REQUIRES(activeLock);

  bool indexed_ = false;
  ResultList active_ XRV_GUARDED_BY(activeLock);
  // Instance name (an owned copy) -> row.
  HashMap byName_ XRV_GUARDED_BY(activeLock);
  ResultList new_ XRV_GUARDED_BY(newLock);
};
