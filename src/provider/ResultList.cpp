#include "provider/ResultList.h"

void ResultList::append(ResultInstance* row) {
  row->setNextElement(nullptr);
  row->setPrevElement(tail_);
  if (tail_ != nullptr) {
    tail_->setNextElement(row);
  } else {
    head_ = row;
  }
  tail_ = row;
  ++count_;
}

void ResultList::prepend(ResultInstance* row) {
  row->setPrevElement(nullptr);
  row->setNextElement(head_);
  if (head_ != nullptr) {
    head_->setPrevElement(row);
  } else {
    tail_ = row;
  }
  head_ = row;
  ++count_;
}

void ResultList::unlink(ResultInstance* row) {
  ResultInstance* before = previous(row);
  ResultInstance* after = next(row);
  if (before != nullptr) {
    before->setNextElement(after);
  } else {
    head_ = after;
  }
  if (after != nullptr) {
    after->setPrevElement(before);
  } else {
    tail_ = before;
  }
  row->setNextElement(nullptr);
  row->setPrevElement(nullptr);
  --count_;
}

void ResultList::replace(ResultInstance* old, ResultInstance* replacement) {
  ResultInstance* before = previous(old);
  ResultInstance* after = next(old);
  replacement->setPrevElement(before);
  replacement->setNextElement(after);
  if (before != nullptr) {
    before->setNextElement(replacement);
  } else {
    head_ = replacement;
  }
  if (after != nullptr) {
    after->setPrevElement(replacement);
  } else {
    tail_ = replacement;
  }
  old->setNextElement(nullptr);
  old->setPrevElement(nullptr);
}

void ResultList::takeAll(ResultList& other) {
  if (other.head_ == nullptr) {
    return;
  }
  if (tail_ != nullptr) {
    tail_->setNextElement(other.head_);
    other.head_->setPrevElement(tail_);
  } else {
    head_ = other.head_;
  }
  tail_ = other.tail_;
  count_ += other.count_;
  other.head_ = other.tail_ = nullptr;
  other.count_ = 0;
}

void ResultList::clear() {
  ResultInstance* row = head_;
  RowPrefetcher prefetcher(head_, RowPrefetcher::kDeleting);
  while (row != nullptr) {
    prefetcher.next();
    ResultInstance* following = next(row);
    delete row;
    row = following;
  }
  head_ = tail_ = nullptr;
  count_ = 0;
}
