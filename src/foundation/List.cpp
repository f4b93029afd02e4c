#include "foundation/List.h"

#include <cstdlib>
#include <cstring>

#include "framework/Trace.h"

namespace {
constexpr int kGrowth = 10;
}

List::List() : count_(0), capacity_(0), items_(nullptr) {}

List::List(const List* other) : count_(0), capacity_(0), items_(nullptr) {
  if (other == nullptr || other->capacity_ <= 0) {
    return;
  }
  items_ = static_cast<void**>(malloc(sizeof(void*) * static_cast<size_t>(other->capacity_)));
  if (items_ == nullptr) {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("Cannot allocate a list of %d slots", other->capacity_);
    return;
  }
  memcpy(items_, other->items_, sizeof(void*) * static_cast<size_t>(other->capacity_));
  count_ = other->count_;
  capacity_ = other->capacity_;
}

List::~List() { free(items_); }

bool List::grow() {
  int capacity = capacity_ + kGrowth;
  void** items =
      static_cast<void**>(realloc(items_, sizeof(void*) * static_cast<size_t>(capacity)));
  if (items == nullptr) {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("Cannot grow a list to %d slots, element not added", capacity);
    return false;
  }
  memset(items + capacity_, 0, sizeof(void*) * kGrowth);
  items_ = items;
  capacity_ = capacity;
  return true;
}

void List::add(const void* item) {
  if (count_ == capacity_ && !grow()) {
    return;
  }
  items_[count_++] = const_cast<void*>(item);
}

void List::insert(int index, const void* item) {
  if (index < 0) {
    return;
  }
  if (index >= count_) {
    add(item);
    return;
  }
  if (count_ == capacity_ && !grow()) {
    return;
  }
  memmove(items_ + index + 1, items_ + index, sizeof(void*) * static_cast<size_t>(count_ - index));
  items_[index] = const_cast<void*>(item);
  ++count_;
}

void* List::remove(int index) {
  if (index < 0 || index >= count_) {
    return nullptr;
  }
  void* item = items_[index];
  memmove(items_ + index, items_ + index + 1,
          sizeof(void*) * static_cast<size_t>(count_ - index - 1));
  items_[--count_] = nullptr;
  return item;
}

int List::find(const void* item, int (*compare)(const void* element, const void* item)) const {
  for (int i = 0; i < count_; ++i) {
    if (compare == nullptr ? items_[i] == item : compare(items_[i], item) == 0) {
      return i;
    }
  }
  return -1;
}

void* List::peek() const { return count_ > 0 ? items_[count_ - 1] : nullptr; }

void* List::pop() { return count_ > 0 ? remove(count_ - 1) : nullptr; }

void List::clear() {
  if (items_ != nullptr) {
    memset(items_, 0, sizeof(void*) * static_cast<size_t>(capacity_));
  }
  count_ = 0;
}

void** List::toArray() const {
  void** array = static_cast<void**>(malloc(sizeof(void*) * (static_cast<size_t>(count_) + 1)));
  if (array == nullptr) {
    return nullptr;
  }
  if (count_ > 0) {
    memcpy(array, items_, sizeof(void*) * static_cast<size_t>(count_));
  }
  array[count_] = nullptr;
  return array;
}

ListIterator List::iterator() const { return ListIterator(this); }
