// How fast this machine walks linked memory of a given size: a chain of 64-byte
// blocks from malloc, touched in chain order. Where the time per block jumps, the
// working set has outgrown the caches; the provider-cycle figures in RESULTS.md are
// read against it.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {
struct Block {
  Block* next;
  char payload[56];
};
}  // namespace

int main() {
  for (size_t count : {55000ul, 110000ul, 220000ul, 440000ul, 880000ul}) {
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
  return 0;
}
