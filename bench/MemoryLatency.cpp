// How fast this machine walks memory of a given size.
// 1. A chain of 64-byte blocks from malloc, touched in chain order. Where the time
//    per block jumps, the working set has outgrown the caches; the provider-cycle
//    figures in RESULTS.md are read against it.
// 2. 64-byte lines of one region read in random order, with 4 KB pages and with the
//    region advised for transparent huge pages: what the TLB adds beyond the cache.

#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

namespace {
struct Block {
  Block* next;
  char payload[56];
};
// Best of three random-order passes over `bytes`, in ns per line.
double randomLines(size_t bytes, bool huge) {
  constexpr size_t kHuge = 2u << 20;
  auto* region = static_cast<char*>(aligned_alloc(kHuge, bytes));
  if (huge) {
    madvise(region, bytes, MADV_HUGEPAGE);
  }
  memset(region, 1, bytes);
  std::vector<unsigned> order(bytes / 64);
  std::iota(order.begin(), order.end(), 0u);
  std::shuffle(order.begin(), order.end(), std::mt19937(1));
  double best = 1e9;
  long sum = 0;
  for (int round = 0; round < 3; ++round) {
    auto start = std::chrono::steady_clock::now();
    for (unsigned line : order) {
      sum += region[static_cast<size_t>(line) * 64];
    }
    auto end = std::chrono::steady_clock::now();
    double ns = std::chrono::duration<double, std::nano>(end - start).count() /
                static_cast<double>(order.size());
    best = ns < best ? ns : best;
  }
  free(region);
  return sum == 0 ? -1 : best;
}

}  // namespace

int main() {
  // 3 to 64 MB, in finer steps from 20 MB on, where the share of the last-level cache
  // that a shared host leaves to this machine ends.
  for (size_t count : {55000ul, 110000ul, 220000ul, 330000ul, 440000ul, 550000ul, 660000ul,
                       770000ul, 880000ul, 1050000ul}) {
    std::vector<Block*> blocks(count);
    for (Block*& block : blocks) {
      block = static_cast<Block*>(malloc(sizeof(Block)));
    }
    for (size_t i = 0; i + 1 < count; ++i) {
      blocks[i]->next = blocks[i + 1];
    }
    blocks[count - 1]->next = nullptr;
    double best = 1e9;
    for (int round = 0; round < 5; ++round) {
      auto start = std::chrono::steady_clock::now();
      for (Block* block = blocks[0]; block != nullptr; block = block->next) {
        ++block->payload[0];
      }
      auto end = std::chrono::steady_clock::now();
      double ns = std::chrono::duration<double, std::nano>(end - start).count() /
                  static_cast<double>(count);
      best = ns < best ? ns : best;
    }
    printf("%8zu blocks (%3zu MB): %6.2f ns per block\n", count, count * sizeof(Block) >> 20, best);
    for (Block* block : blocks) {
      free(block);
    }
  }
  printf("\nrandom 64-byte lines      4 KB pages   huge pages\n");
  for (size_t megabytes : {16ul, 32ul, 64ul, 128ul}) {
    size_t bytes = megabytes << 20;
    printf("%4zu MB               %8.2f ns  %8.2f ns\n", megabytes, randomLines(bytes, false),
           randomLines(bytes, true));
  }
  return 0;
}
