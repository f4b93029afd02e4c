#pragma once

// The agent's small containers for lists of objects.
//
// List: an array of untyped pointers that grows 10 slots at a time, for the short
// lists the agent builds (the attributes of a group, the rows of one sample).
// ListElement / ListCursor: an intrusive doubly linked chain whose elements are the
// objects themselves (every data provider is a ListElement).
//
// No container owns or copies what it holds: the owner of a List of objects deletes
// them. None of them locks; callers that share one across threads lock around it.

class ListIterator;

class List {
 public:
  List();
  // A copy of `other`'s count, capacity and pointer array; the elements are shared.
  explicit List(const List* other);
  virtual ~List();
  List(const List&) = delete;
  List& operator=(const List&) = delete;

  // Appends. When the array is full it grows by 10 slots.
  void add(const void* item);
  // index >= count appends; 0 <= index < count shifts the tail up by one and stores
  // at index; a negative index does nothing.
  void insert(int index, const void* item);
  // The element at index with the gap closed; null (and no change) when out of range.
  void* remove(int index);
  // First index whose element compares equal (compare returns 0), or whose pointer
  // is identical when no comparator is given; -1 when absent.
  int find(const void* item, int (*compare)(const void* element, const void* item) = nullptr) const;
  // No bounds check.
  void* get(int index) const { return items_[index]; }
  int getCount() const { return count_; }
  // Stack use at the end of the list; null when empty.
  void* peek() const;
  void* pop();
  // Count to 0 and the slots zeroed; the capacity is kept.
  void clear();
  // A new array of count + 1 slots, the last one null. Caller frees it with free().
  void** toArray() const;
  ListIterator iterator() const;

 private:
  bool grow();

  int count_;
  int capacity_;
  void** items_;  // allocated on first use
};

class ListIterator {
 public:
  explicit ListIterator(const List* list) : list_(list), next_(0) {}
  bool hasNext() const { return next_ < list_->getCount(); }
  // The next element; advances.
  void* next() { return list_->get(next_++); }

 private:
  const List* list_;
  int next_;
};

// An element of an intrusive chain. Destroying an element does not unlink it.
class ListElement {
 public:
  ListElement() = default;
  virtual ~ListElement() = default;
  ListElement(const ListElement&) = delete;
  ListElement& operator=(const ListElement&) = delete;

  ListElement* getNextElement() const { return next_; }
  void setNextElement(ListElement* element) { next_ = element; }
  ListElement* getPrevElement() const { return prev_; }
  void setPrevElement(ListElement* element) { prev_ = element; }

 private:
  ListElement* next_ = nullptr;
  ListElement* prev_ = nullptr;
};

// Walks a chain of ListElements from its first element:
//   for (ListCursor c(first); c.hasMoreElements(); c.setToNext()) { ... }
class ListCursor {
 public:
  explicit ListCursor(ListElement* first) : first_(first), current_(first) {}
  virtual ~ListCursor() = default;
  ListCursor(const ListCursor&) = default;
  ListCursor& operator=(const ListCursor&) = default;

  void setToFirst() { current_ = first_; }
  // True while there is a current element (not whether a further one follows).
  bool hasMoreElements() const { return current_ != nullptr; }
  ListElement* getCurrentElement() const { return current_; }
  // Moves to the current element's successor when there is a current element.
  // Returns true when there is a current element after the move.
  bool setToNext() {
    if (current_ != nullptr) {
      current_ = current_->getNextElement();
    }
    return current_ != nullptr;
  }

 private:
  ListElement* first_;
  ListElement* current_;
};
