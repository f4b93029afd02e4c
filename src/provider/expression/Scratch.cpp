#include "provider/expression/Scratch.h"

#include <algorithm>

namespace XRV::expression {

char* Scratch::allocate(size_t size) {
  while (block_ < blocks_.size()) {
    Block& block = blocks_[block_];
    if (block.size - used_ >= size) {
      char* at = block.bytes.get() + used_;
      used_ += size;
      return at;
    }
    ++block_;
    used_ = 0;
  }
  size_t blockSize = std::max(size, kBlockSize);
  blocks_.push_back(Block{std::make_unique<char[]>(blockSize), blockSize});
  block_ = blocks_.size() - 1;
  used_ = size;
  return blocks_.back().bytes.get();
}

Scratch& threadScratch() {
  thread_local Scratch scratch;
  return scratch;
}

}  // namespace XRV::expression
