#pragma once

// ObjectPool<T>: memory for objects that are made and destroyed by the tens of
// thousands on every collection (the values and rows of a sample). A class opts in with
//
//   static void* operator new(size_t size) { return XRV::ObjectPool<Row>::allocate(size); }
//   static void operator delete(void* block, size_t size) {
//     XRV::ObjectPool<Row>::release(block, size);
//   }
//
// (and the std::nothrow_t form of operator new through allocateOrNull).
//
// Blocks are cut from slabs that the pool keeps for the life of the process: a block
// costs sizeof(T) bytes and no allocator header, the blocks of one sample lie side by
// side, and slabs from 2 MB on are advised for huge pages, so that walking a table of
// a million values does not miss the TLB every few rows. Slabs start at 64 KB and
// double, so a small agent stays small. Memory is not given back to the system: a pool
// is as large as the most objects it ever held at once.
//
// Each thread keeps two magazines, arrays of free blocks (no lock, no shared cache
// line, and taking a block does not read the block: a free list threaded through the
// blocks would wait for a cache miss on every allocation). Full magazines go to, and
// come from, a stack shared by all threads, under a mutex. A block freed on another
// thread than the one that made it joins that thread's magazines, and a thread's
// magazines go to the shared stack when the thread ends.
//
// A size other than sizeof(T) (a derived class without its own pool) goes to malloc.
// AddressSanitizer builds use plain malloc so that use-after-free stays visible.

#include <cstddef>
#include <cstdlib>
#include <initializer_list>
#include <mutex>
#include <new>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#define XRV_POOL_DISABLED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define XRV_POOL_DISABLED 1
#endif
#endif

namespace XRV {

namespace objectpool {

// A new slab of `bytes` (a multiple of the page size), zero-filled, aligned to 2 MB and
// advised for huge pages when it is at least that large. Null when the system has no
// memory left.
void* mapSlab(size_t bytes) noexcept;

}  // namespace objectpool

template <typename T>
class ObjectPool {
 public:
  // Blocks in one magazine.
  static constexpr size_t kBatch = 256;

  static constexpr bool enabled() {
#ifdef XRV_POOL_DISABLED
    return false;
#else
    return true;
#endif
  }

  static void* allocate(size_t size) {
    void* block = allocateOrNull(size);
    if (block == nullptr) {
      throw std::bad_alloc();
    }
    return block;
  }

  static void* allocateOrNull(size_t size) noexcept {
#ifndef XRV_POOL_DISABLED
    if (size == sizeof(T)) {
      return takeBlock();
    }
#endif
    return malloc(size);
  }

  static void release(void* pointer, size_t size) noexcept {
    if (pointer == nullptr) {
      return;
    }
#ifndef XRV_POOL_DISABLED
    if (size == sizeof(T)) {
      giveBlock(pointer);
      return;
    }
#else
    (void)size;
#endif
    free(pointer);
  }

  // Bytes of slab the pool has taken from the system so far.
  static size_t slabBytes() {
    Shared& shared = sharedState();
    std::lock_guard<std::mutex> guard(shared.lock);
    return shared.slabBytes;
  }

 private:
  static constexpr size_t kFirstSlab = 64 * 1024;
  static constexpr size_t kLargestSlab = 2 * 1024 * 1024;

  struct Magazine {
    size_t count = 0;
    Magazine* next = nullptr;  // on the shared stacks
    void* blocks[kBatch];
  };

  // Trivially destructible, so that objects freed while the process exits still find
  // it in place.
  struct Shared {
    std::mutex lock;
    Magazine* full = nullptr;   // magazines holding blocks (possibly not all kBatch)
    Magazine* empty = nullptr;  // magazines for reuse
    char* slabNext = nullptr;   // the uncut rest of the newest slab
    char* slabEnd = nullptr;
    size_t nextSlab = kFirstSlab;
    size_t slabBytes = 0;
  };

  struct ThreadCache {
    Magazine* current = nullptr;
    Magazine* spare = nullptr;
    ~ThreadCache() {
      gone() = true;
      Shared& shared = sharedState();
      std::lock_guard<std::mutex> guard(shared.lock);
      for (Magazine* magazine : {current, spare}) {
        if (magazine != nullptr) {
          push(magazine->count == 0 ? &shared.empty : &shared.full, magazine);
        }
      }
    }
  };

  static Shared& sharedState() {
    static Shared shared;
    return shared;
  }
  // Set once this thread's cache has been destroyed (the thread is ending).
  static bool& gone() {
    static thread_local bool flag = false;
    return flag;
  }
  static ThreadCache& threadCache() {
    static thread_local ThreadCache cache;
    return cache;
  }

  static void push(Magazine** stack, Magazine* magazine) {
    magazine->next = *stack;
    *stack = magazine;
  }
  static Magazine* pop(Magazine** stack) {
    Magazine* magazine = *stack;
    if (magazine != nullptr) {
      *stack = magazine->next;
    }
    return magazine;
  }
  // An empty magazine; null when out of memory. Call with the shared lock held.
  static Magazine* emptyMagazine(Shared& shared) {
    Magazine* magazine = pop(&shared.empty);
    if (magazine == nullptr) {
      magazine = new (std::nothrow) Magazine;
    }
    return magazine;
  }

  static void* takeBlock() noexcept {
    if (gone()) {
      return takeSharedBlock();
    }
    ThreadCache& cache = threadCache();
    Magazine* current = cache.current;
    if (current == nullptr || current->count == 0) {
      if (cache.spare != nullptr && cache.spare->count != 0) {
        std::swap(cache.current, cache.spare);
      } else if (!refill(&cache)) {
        return nullptr;
      }
      current = cache.current;
    }
    return current->blocks[--current->count];
  }

  static void giveBlock(void* block) noexcept {
    if (gone()) {
      giveSharedBlock(block);
      return;
    }
    ThreadCache& cache = threadCache();
    Magazine* current = cache.current;
    if (current == nullptr || current->count == kBatch) {
      if (cache.spare != nullptr && cache.spare->count == 0) {
        std::swap(cache.current, cache.spare);
      } else if (!swapForEmpty(&cache)) {
        // No memory even for a magazine: the block stays unused.
        return;
      }
      current = cache.current;
    }
    current->blocks[current->count++] = block;
  }

  // Makes cache.current a magazine with blocks: a full one from the shared stack, or
  // one filled from the newest slab. False when out of memory.
  static bool refill(ThreadCache* cache) noexcept {
    Shared& shared = sharedState();
    std::lock_guard<std::mutex> guard(shared.lock);
    if (Magazine* full = pop(&shared.full)) {
      if (cache->current != nullptr) {
        push(&shared.empty, cache->current);
      }
      cache->current = full;
      return true;
    }
    if (cache->current == nullptr) {
      cache->current = emptyMagazine(shared);
      if (cache->current == nullptr) {
        return false;
      }
    }
    return cut(shared, cache->current);
  }

  // Hands a full cache.current (and a full spare) to the shared stack and makes
  // cache.current an empty magazine. False when out of memory.
  static bool swapForEmpty(ThreadCache* cache) noexcept {
    Shared& shared = sharedState();
    std::lock_guard<std::mutex> guard(shared.lock);
    Magazine* empty = emptyMagazine(shared);
    if (empty == nullptr) {
      return false;
    }
    if (cache->current != nullptr) {
      if (cache->spare != nullptr) {
        push(&shared.full, cache->spare);
      }
      cache->spare = cache->current;
    }
    cache->current = empty;
    return true;
  }

  // Fills `magazine` with up to kBatch new blocks of the newest slab (a new slab when
  // it is used up), so that they are handed out in address order. Call with the
  // shared lock held.
  static bool cut(Shared& shared, Magazine* magazine) noexcept {
    if (static_cast<size_t>(shared.slabEnd - shared.slabNext) < sizeof(T)) {
      void* slab = objectpool::mapSlab(shared.nextSlab);
      if (slab == nullptr) {
        return false;
      }
      shared.slabNext = static_cast<char*>(slab);
      shared.slabEnd = shared.slabNext + shared.nextSlab;
      shared.slabBytes += shared.nextSlab;
      if (shared.nextSlab < kLargestSlab) {
        shared.nextSlab *= 2;
      }
    }
    size_t room = static_cast<size_t>(shared.slabEnd - shared.slabNext) / sizeof(T);
    size_t count = room < kBatch ? room : kBatch;
    for (size_t i = 0; i < count; ++i) {
      magazine->blocks[count - 1 - i] = shared.slabNext + i * sizeof(T);
    }
    shared.slabNext += count * sizeof(T);
    magazine->count = count;
    return true;
  }

  // For a thread whose cache is gone: straight from and to the shared magazines.
  static void* takeSharedBlock() noexcept {
    Shared& shared = sharedState();
    std::lock_guard<std::mutex> guard(shared.lock);
    Magazine* magazine = shared.full;
    if (magazine == nullptr) {
      magazine = emptyMagazine(shared);
      if (magazine == nullptr || !cut(shared, magazine)) {
        if (magazine != nullptr) {
          push(&shared.empty, magazine);
        }
        return nullptr;
      }
      push(&shared.full, magazine);
    }
    void* block = magazine->blocks[--magazine->count];
    if (magazine->count == 0) {
      push(&shared.empty, pop(&shared.full));
    }
    return block;
  }

  static void giveSharedBlock(void* block) noexcept {
    Shared& shared = sharedState();
    std::lock_guard<std::mutex> guard(shared.lock);
    Magazine* magazine = shared.full;
    if (magazine == nullptr || magazine->count == kBatch) {
      magazine = emptyMagazine(shared);
      if (magazine == nullptr) {
        return;
      }
      push(&shared.full, magazine);
    }
    magazine->blocks[magazine->count++] = block;
  }
};

}  // namespace XRV
