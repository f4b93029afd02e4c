#pragma once

// Asking the processor to start loading memory that a walk will read soon, so that the
// walk does not wait on memory at every step.

#include <cstddef>
#include <cstdint>

namespace XRV {

constexpr uintptr_t kCacheLine = 64;

// Every cache line of the `bytes` from `begin`. `Locality` as __builtin_prefetch has
// it: 3 keeps the lines in every level of the cache, 0 marks them as read once (they
// should not push out what stays).
template <int Locality = 3>
inline void prefetchLines(const void* begin, size_t bytes) {
  const auto start = reinterpret_cast<uintptr_t>(begin);
  for (uintptr_t line = start & ~(kCacheLine - 1); line < start + bytes; line += kCacheLine) {
    __builtin_prefetch(reinterpret_cast<const void*>(line), 0, Locality);
  }
}

}  // namespace XRV
