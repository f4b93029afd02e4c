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
