#pragma once

// HashMap: a chained hash table from NUL-terminated, case-sensitive text keys to
// untyped values. It stores the key and value pointers it is given and never copies
// or frees them; the caller manages their lifetime (hashMapFreeKeyData is the
// ready-made foreach callback for maps whose keys and values came from malloc).
//
// Layout and order are fixed, because callers see them (iteration order decides,
// for instance, the order of exported shell variables):
// - the bucket count is the smallest power of two that is at least 32 and at least
//   the requested capacity; the bucket of a key is hash_function(key) & (buckets-1);
// - when an insertion takes the count above buckets * 0.75, the bucket count
//   doubles and each old bucket's chain, in order, is pushed onto the head of the
//   new buckets (stored hashes are reused); tables never shrink;
// - iteration visits buckets in ascending order and each bucket from its newest
//   entry to its oldest. Adding or removing entries while iterating is not supported.
//
// HashMap takes no locks. ThreadSafeHashMap locks put, get and contains; its remove,
// clear and iteration are unlocked and may be used only where no other thread writes.

#include <cstdint>

#include "framework/FwLock.h"

class HashMapIterator;

// 5381, then h = h * 33 + c for every byte c of the key taken as a signed 8-bit
// value, in unsigned 32-bit arithmetic.
uint32_t hash_function(const char* key);

// foreach callback that frees both key and value with free().
void hashMapFreeKeyData(const char* key, const void* value, void* arg);

class HashMap {
 public:
  HashMap();
  explicit HashMap(int capacity);
  // Frees the entries and the buckets, never keys or values.
  virtual ~HashMap();
  HashMap(const HashMap&) = delete;
  HashMap& operator=(const HashMap&) = delete;

  // Replaces the value of an existing equal key (the key pointer stored first stays)
  // or adds a new entry at the head of its bucket. A null key is ignored.
  virtual void put(const char* key, const void* value);
  // The value, or null when absent.
  virtual void* get(const char* key) const;
  virtual bool contains(const char* key) const;
  // Removes the entry and returns its value (null when absent); the key pointer that
  // was stored is handed back in *storedKey (when given) so that the caller can
  // free it.
  void* remove(const char* key, const char** storedKey);
  // Calls fn for every entry in iteration order.
  void foreach (void (*fn)(const char* key, const void* value, void* arg), void* arg) const;
  // Empties the map (keys and values are not touched); count 0, buckets kept. The
  // entries are kept for reuse by later puts, so a map that is filled and cleared
  // over and over (the attributes of each tag the definition reader reads) stops
  // allocating; the destructor frees them.
  void clear();
  int getCount() const { return count_; }
  int getBucketCount() const { return bucketCount_; }
  HashMapIterator iterator() const;

 private:
  friend class HashMapIterator;

  struct Entry {
    Entry* next;
    uint32_t hash;
    const char* key;
    void* value;
  };

  Entry* findEntry(const char* key, uint32_t hash) const;
  Entry* newEntry();
  void resize();

  int count_;
  int bucketCount_;  // always a power of two
  int threshold_;
  Entry** buckets_;
  Entry* spareEntries_ = nullptr;  // emptied by clear(), linked through next
};

// Walks a HashMap in iteration order:
//   HashMapIterator it = map.iterator();
//   while (it.hasNext()) { it.next(); use(it.getKey(), it.getData()); }
class HashMapIterator {
 public:
  explicit HashMapIterator(const HashMap* map);
  virtual ~HashMapIterator() = default;
  HashMapIterator(const HashMapIterator&) = default;
  HashMapIterator& operator=(const HashMapIterator&) = default;

  bool hasNext() const { return following_ != nullptr; }
  // Moves to the next entry. Must be called before the first getKey.
  void next();
  // Key and value of the current entry; null before the first next().
  const char* getKey() const { return current_ == nullptr ? nullptr : current_->key; }
  void* getData() const { return current_ == nullptr ? nullptr : current_->value; }

 private:
  // Finds the entry after the current one, from bucket `bucket` on.
  void lookAhead(const HashMap::Entry* from, int bucket);

  const HashMap* map_;
  int bucket_;                     // bucket of the current entry; -1 at start
  const HashMap::Entry* current_;  // null at start
  int followingBucket_;
  const HashMap::Entry* following_;  // the entry next() moves to; null at the end
};

class ThreadSafeHashMap : public HashMap {
 public:
  ThreadSafeHashMap();
  explicit ThreadSafeHashMap(int capacity);
  ~ThreadSafeHashMap() override;

  void put(const char* key, const void* value) override;
  void* get(const char* key) const override;
  bool contains(const char* key) const override;

 private:
  mutable FwLock lock_;
};
