#pragma once

// ObjectPool<T>: keeps freed memory blocks of one class for reuse, for objects that
// are made and destroyed by the tens of thousands on every collection (the values
// and rows of a sample). A class opts in with
//
//   static void* operator new(size_t size) { return ObjectPool<Row>::allocate(size); }
//   static void operator delete(void* block, size_t size) { ObjectPool<Row>::release(block, size);
//   }
//
// (and the std::nothrow_t form of operator new through allocateOrNull).
//
// Each thread keeps its own list of free blocks (no lock, no shared cache line);
// a block freed on another thread than the one that made it joins that thread's
// list. A list holds at most kMaxFree blocks; the rest go back to malloc, and a
// thread's blocks are freed when the thread ends. Sanitizer builds use plain malloc
// so that use-after-free stays visible.

#include <cstddef>
#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define XRV_POOL_DISABLED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define XRV_POOL_DISABLED 1
#endif
#endif

template <typename T>
class ObjectPool {
 public:
  static constexpr size_t kMaxFree = 1 << 20;

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
      FreeList& list = freeList();
      if (list.head != nullptr) {
        Block* block = list.head;
        list.head = block->next;
        --list.count;
        return block;
      }
    }
#endif
    return malloc(size < sizeof(Block) ? sizeof(Block) : size);
  }

  static void release(void* pointer, size_t size) {
    if (pointer == nullptr) {
      return;
    }
#ifndef XRV_POOL_DISABLED
    if (size == sizeof(T)) {
      FreeList& list = freeList();
      if (list.count < kMaxFree) {
        auto* block = static_cast<Block*>(pointer);
        block->next = list.head;
        list.head = block;
        ++list.count;
        return;
      }
    }
#else
    (void)size;
#endif
    free(pointer);
  }

 private:
  struct Block {
    Block* next;
  };
  struct FreeList {
    Block* head = nullptr;
    size_t count = 0;
    ~FreeList() {
      while (head != nullptr) {
        Block* next = head->next;
        free(head);
        head = next;
      }
    }
  };
  static FreeList& freeList() {
    static thread_local FreeList list;
    return list;
  }
};
