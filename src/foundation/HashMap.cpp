#include "foundation/HashMap.h"

#include <cstdlib>
#include <cstring>

#include "framework/Trace.h"

namespace {

constexpr int kMinimumBuckets = 32;
constexpr int kDefaultCapacity = 64;

int bucketCountFor(int capacity) {
  int buckets = kMinimumBuckets;
  while (buckets < capacity && buckets < (1 << 30)) {
    buckets <<= 1;
  }
  return buckets;
}

int thresholdFor(int buckets) { return static_cast<int>(buckets * 0.75); }

}  // namespace

namespace {
// The byte counts as signed: bytes 0x80 to 0xFF add a negative amount.
inline uint32_t signedByte(unsigned char c) {
  return static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c)));
}
}  // namespace

uint32_t hash_function(const char* key) {
  // h = h * 33 + c byte by byte is one long chain of dependent steps. Four steps fold
  // into one: h * 33^4 + c0 * 33^3 + c1 * 33^2 + c2 * 33 + c3, the same value in
  // 32-bit arithmetic, with the byte products computed side by side.
  const auto* bytes = reinterpret_cast<const unsigned char*>(key);
  size_t length = strlen(key);
  uint32_t hash = 5381;
  size_t i = 0;
  for (; i + 4 <= length; i += 4) {
    hash = hash * 1185921u + signedByte(bytes[i]) * 35937u + signedByte(bytes[i + 1]) * 1089u +
           signedByte(bytes[i + 2]) * 33u + signedByte(bytes[i + 3]);
  }
  for (; i < length; ++i) {
    hash = hash * 33 + signedByte(bytes[i]);
  }
  return hash;
}

void hashMapFreeKeyData(const char* key, const void* value, void* /*arg*/) {
  free(const_cast<char*>(key));
  free(const_cast<void*>(value));
}

HashMap::HashMap() : HashMap(kDefaultCapacity) {}

HashMap::HashMap(int capacity)
    : count_(0),
      bucketCount_(bucketCountFor(capacity)),
      threshold_(thresholdFor(bucketCount_)),
      buckets_(static_cast<Entry**>(calloc(static_cast<size_t>(bucketCount_), sizeof(Entry*)))) {
  if (buckets_ == nullptr) {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("Cannot allocate %d hash buckets", bucketCount_);
    bucketCount_ = 0;
    threshold_ = 0;
  }
}

HashMap::~HashMap() {
  clear();
  while (spareEntries_ != nullptr) {
    Entry* next = spareEntries_->next;
    free(spareEntries_);
    spareEntries_ = next;
  }
  free(buckets_);
}

HashMap::Entry* HashMap::newEntry() {
  if (spareEntries_ != nullptr) {
    Entry* entry = spareEntries_;
    spareEntries_ = entry->next;
    return entry;
  }
  return static_cast<Entry*>(malloc(sizeof(Entry)));
}

HashMap::Entry* HashMap::findEntry(const char* key, uint32_t hash) const {
  if (bucketCount_ == 0) {
    return nullptr;
  }
  for (Entry* entry = buckets_[hash & static_cast<uint32_t>(bucketCount_ - 1)]; entry != nullptr;
       entry = entry->next) {
    if (entry->hash == hash && strcmp(entry->key, key) == 0) {
      return entry;
    }
  }
  return nullptr;
}

void HashMap::put(const char* key, const void* value) {
  if (key == nullptr || bucketCount_ == 0) {
    return;
  }
  uint32_t hash = hash_function(key);
  if (Entry* existing = findEntry(key, hash)) {
    existing->value = const_cast<void*>(value);
    return;
  }
  Entry* entry = newEntry();
  if (entry == nullptr) {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("Cannot allocate a hash entry for key %s", key);
    return;
  }
  Entry** head = &buckets_[hash & static_cast<uint32_t>(bucketCount_ - 1)];
  *entry = Entry{*head, hash, key, const_cast<void*>(value)};
  *head = entry;
  if (++count_ > threshold_) {
    resize();
  }
}

void HashMap::resize() {
  int newCount = bucketCount_ * 2;
  Entry** newBuckets = static_cast<Entry**>(calloc(static_cast<size_t>(newCount), sizeof(Entry*)));
  if (newBuckets == nullptr) {
    // The map keeps working, only with longer chains.
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("Cannot grow hash table to %d buckets", newCount);
    return;
  }
  uint32_t mask = static_cast<uint32_t>(newCount - 1);
  for (int i = 0; i < bucketCount_; ++i) {
    Entry* entry = buckets_[i];
    while (entry != nullptr) {
      Entry* next = entry->next;
      Entry** head = &newBuckets[entry->hash & mask];
      entry->next = *head;
      *head = entry;
      entry = next;
    }
  }
  free(buckets_);
  buckets_ = newBuckets;
  bucketCount_ = newCount;
  threshold_ = thresholdFor(newCount);
}

void* HashMap::get(const char* key) const {
  if (key == nullptr) {
    return nullptr;
  }
  Entry* entry = findEntry(key, hash_function(key));
  return entry == nullptr ? nullptr : entry->value;
}

bool HashMap::contains(const char* key) const {
  return key != nullptr && findEntry(key, hash_function(key)) != nullptr;
}

void* HashMap::remove(const char* key, const char** storedKey) {
  if (key == nullptr || bucketCount_ == 0) {
    return nullptr;
  }
  uint32_t hash = hash_function(key);
  for (Entry** link = &buckets_[hash & static_cast<uint32_t>(bucketCount_ - 1)]; *link != nullptr;
       link = &(*link)->next) {
    Entry* entry = *link;
    if (entry->hash == hash && strcmp(entry->key, key) == 0) {
      *link = entry->next;
      void* value = entry->value;
      if (storedKey != nullptr) {
        *storedKey = entry->key;
      }
      free(entry);
      if (count_ > 0) {
        --count_;
      }
      return value;
    }
  }
  return nullptr;
}

void HashMap::foreach (void (*fn)(const char* key, const void* value, void* arg), void* arg) const {
  if (fn == nullptr) {
    return;
  }
  for (int i = 0; i < bucketCount_; ++i) {
    // Read the successor first: the callback may free the key and value.
    for (Entry* entry = buckets_[i]; entry != nullptr;) {
      Entry* next = entry->next;
      fn(entry->key, entry->value, arg);
      entry = next;
    }
  }
}

void HashMap::clear() {
  if (count_ == 0) {
    return;  // nothing to unlink: the buckets are all empty already
  }
  for (int i = 0; i < bucketCount_; ++i) {
    Entry* entry = buckets_[i];
    while (entry != nullptr) {
      Entry* next = entry->next;
      entry->next = spareEntries_;
      spareEntries_ = entry;
      entry = next;
    }
    buckets_[i] = nullptr;
  }
  count_ = 0;
}

HashMapIterator HashMap::iterator() const { return HashMapIterator(this); }

HashMapIterator::HashMapIterator(const HashMap* map)
    : map_(map), bucket_(-1), current_(nullptr), followingBucket_(-1), following_(nullptr) {
  lookAhead(nullptr, 0);
}

void HashMapIterator::lookAhead(const HashMap::Entry* from, int bucket) {
  if (from != nullptr && from->next != nullptr) {
    following_ = from->next;
    followingBucket_ = bucket;
    return;
  }
  following_ = nullptr;
  for (int i = from == nullptr ? bucket : bucket + 1; map_ != nullptr && i < map_->bucketCount_;
       ++i) {
    if (map_->buckets_[i] != nullptr) {
      following_ = map_->buckets_[i];
      followingBucket_ = i;
      return;
    }
  }
}

void HashMapIterator::next() {
  if (following_ == nullptr) {
    return;
  }
  current_ = following_;
  bucket_ = followingBucket_;
  lookAhead(current_, bucket_);
}

ThreadSafeHashMap::ThreadSafeHashMap() : ThreadSafeHashMap(kDefaultCapacity) {}

ThreadSafeHashMap::ThreadSafeHashMap(int capacity) : HashMap(capacity) { fwLockInit(&lock_); }

ThreadSafeHashMap::~ThreadSafeHashMap() { fwLockDestroy(&lock_); }

void ThreadSafeHashMap::put(const char* key, const void* value) {
  fwLockGet(&lock_);
  HashMap::put(key, value);
  fwLockRelease(&lock_);
}

void* ThreadSafeHashMap::get(const char* key) const {
  fwLockGet(&lock_);
  void* value = HashMap::get(key);
  fwLockRelease(&lock_);
  return value;
}

bool ThreadSafeHashMap::contains(const char* key) const {
  fwLockGet(&lock_);
  bool found = HashMap::contains(key);
  fwLockRelease(&lock_);
  return found;
}
