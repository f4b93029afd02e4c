#pragma once

// Scratch: room for the texts one evaluation makes (numbers turned into text,
// joined texts). Blocks are kept between evaluations, so a thread that evaluates
// again and again allocates only until its largest evaluation fits.
//
// Not thread-safe: one per thread (threadScratch()).

#include <cstddef>
#include <memory>
#include <vector>

namespace XRV::expression {

class Scratch {
 public:
  // `size` bytes that stay in place until reset(); never null.
  char* allocate(size_t size);
  // Forgets every text handed out; keeps the memory.
  void reset() {
    block_ = 0;
    used_ = 0;
  }

 private:
  static constexpr size_t kBlockSize = 4096;
  struct Block {
    std::unique_ptr<char[]> bytes;
    size_t size;
  };
  std::vector<Block> blocks_;
  size_t block_ = 0;  // the block being filled
  size_t used_ = 0;   // bytes used of it
};

// The calling thread's scratch space.
Scratch& threadScratch();

}  // namespace XRV::expression
