#include "foundation/ObjectPool.h"

#include <sys/mman.h>

#include <cstdint>

namespace XRV::objectpool {

namespace {

constexpr size_t kHugePage = 2 * 1024 * 1024;

}  // namespace

void* mapSlab(size_t bytes) noexcept {
  if (bytes < kHugePage) {
    void* slab = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return slab == MAP_FAILED ? nullptr : slab;
  }
  // Map a huge page more than asked and give back what lies outside the aligned part.
  size_t mapped = bytes + kHugePage;
  void* raw = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) {
    return nullptr;
  }
  auto start = reinterpret_cast<uintptr_t>(raw);
  uintptr_t aligned = (start + kHugePage - 1) & ~static_cast<uintptr_t>(kHugePage - 1);
  size_t head = aligned - start;
  size_t tail = mapped - head - bytes;
  if (head != 0) {
    munmap(raw, head);
  }
  if (tail != 0) {
    munmap(reinterpret_cast<void*>(aligned + bytes), tail);
  }
  // Advice only: without huge pages the slab works the same.
  madvise(reinterpret_cast<void*>(aligned), bytes, MADV_HUGEPAGE);
  return reinterpret_cast<void*>(aligned);
}

}  // namespace XRV::objectpool
