#pragma once

// UAClientClassList: the agent's data providers, chained in the order they were
// added. The process-wide list is queryClassList.
//
// Not thread-safe: the list is built at start-up; later changes (subnodes coming and
// going) happen under the subnode manager's lock.

class UAClientClass;

class UAClientClassList {
 public:
  UAClientClassList() = default;
  // Does not destroy the providers: their owner does (deleteAll).
  ~UAClientClassList() = default;
  UAClientClassList(const UAClientClassList&) = delete;
  UAClientClassList& operator=(const UAClientClassList&) = delete;

  // Appends at the end.
  void addClientClass(UAClientClass* provider);
  // Unlinks `provider`; false when it is not in the list.
  bool removeClientClass(UAClientClass* provider);
  // The first provider of the group `attributeGroup` (exact name), or null.
  UAClientClass* getClientClass(const char* attributeGroup) const;
  // The first provider; walk on with getNextElement() (a ListCursor works too).
  UAClientClass* getFirst() const { return first_; }
  int getCount() const { return count_; }
  // Unlinks and destroys every provider, first to last.
  void deleteAll();

 private:
  UAClientClass* first_ = nullptr;
  UAClientClass* last_ = nullptr;
  int count_ = 0;
};

// Every data provider of the agent.
UAClientClassList& queryClassList();
