#pragma once
// Counts the test program's allocations through operator new, to show that a path
// meant to run without allocating does. Include it in one file of a test program only,
// and build that program with -Wno-mismatched-new-delete. The sanitizers bring their
// own operator new, so under them nothing is counted.

#include <atomic>
#include <cstdlib>
#include <new>

static std::atomic<std::size_t> allocations{0};

#ifndef XRV_SANITIZED
void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
#endif
