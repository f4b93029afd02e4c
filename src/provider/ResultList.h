#pragma once

// ResultList: a doubly linked list of rows (ResultInstance), with its count. The
// list owns its rows: clear() and the destructor delete them.
//
// Not thread-safe; the provider's locks guard its lists.

#include "provider/ResultInstance.h"

class ResultList {
 public:
  ResultList() = default;
  ~ResultList() { clear(); }
  ResultList(const ResultList&) = delete;
  ResultList& operator=(const ResultList&) = delete;

  ResultInstance* head() const { return head_; }
  ResultInstance* tail() const { return tail_; }
  int count() const { return count_; }
  bool empty() const { return count_ == 0; }
  static ResultInstance* next(const ResultInstance* row) {
    return static_cast<ResultInstance*>(row->getNextElement());
  }
  static ResultInstance* previous(const ResultInstance* row) {
    return static_cast<ResultInstance*>(row->getPrevElement());
  }

  void append(ResultInstance* row);
  void prepend(ResultInstance* row);
  // Unlinks `row` (which must be in this list); the caller owns it afterwards.
  void unlink(ResultInstance* row);
  // Puts `replacement` where `old` stands and unlinks `old`, which the caller owns.
  void replace(ResultInstance* old, ResultInstance* replacement);
  // Moves every row of `other` to the end of this list.
  void takeAll(ResultList& other);
  // Deletes every row.
  void clear();

 private:
  ResultInstance* head_ = nullptr;
  ResultInstance* tail_ = nullptr;
  int count_ = 0;
};

// Keeps the values of the row a few places ahead of a walk loading into the cache. A
// table of many rows does not fit the cache; without this, a pass over every value
// waits on memory at each row. Call next() once per row, before reading the row.
class RowPrefetcher {
 public:
  // How many rows ahead of the walk the values are loaded.
  static constexpr int kRowsAhead = 4;
  // What the walk does with the rows: reads them, or deletes them (their values are
  // then read for the last time; see ResultInstance::prefetchValues).
  enum Walk { kReading, kDeleting };

  RowPrefetcher(const ResultInstance* first, Walk walk)
      : ahead_(first), lastUse_(walk == kDeleting) {
    for (int i = 0; i < kRowsAhead && ahead_ != nullptr; ++i) {
      ahead_ = ResultList::next(ahead_);
    }
  }
  void next() {
    if (ahead_ != nullptr) {
      ahead_->prefetchValues(lastUse_);
      ahead_ = ResultList::next(ahead_);
    }
  }

 private:
  const ResultInstance* ahead_;
  bool lastUse_;
};
