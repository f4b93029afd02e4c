#pragma once

// Counts the program's calls of malloc, calloc and realloc, which every allocation
// goes through (operator new, the C library's own), to show that a path meant to run
// without allocating does. Include it in one file of a program only. The sanitizers
// bring their own malloc: under them (XRV_SANITIZED) nothing is replaced or counted.

#include <atomic>
#include <cstddef>

namespace XRV::testing {

inline std::atomic<long> mallocCalls{0};

}  // namespace XRV::testing

#ifndef XRV_SANITIZED
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size) {
  XRV::testing::mallocCalls.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  XRV::testing::mallocCalls.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
  XRV::testing::mallocCalls.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(block, size);
}
}
#endif
