#include "foundation/ObjectPool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

namespace {

using XRV::ObjectPool;

// Each test uses its own pooled type, so that the pools' sizes tell what the test did.
template <int Tag>
struct Item {
  static void* operator new(size_t size) { return ObjectPool<Item>::allocate(size); }
  static void operator delete(void* block, size_t size) { ObjectPool<Item>::release(block, size); }
  uint64_t words[6];
};

// A derived class has another size: it is not the pool's business.
struct Bigger : Item<9> {
  uint64_t extra[4];
};

TEST(ObjectPool, BlocksAreDistinctWholeAndReused) {
  if (!ObjectPool<Item<1>>::enabled()) {
    GTEST_SKIP() << "AddressSanitizer build: plain malloc";
  }
  constexpr int kCount = 20000;  // more than one slab and many batches
  std::vector<Item<1>*> items;
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < kCount; ++i) {
      auto* item = new Item<1>;
      for (uint64_t& word : item->words) {
        word = static_cast<uint64_t>(i);
      }
      items.push_back(item);
    }
    std::set<Item<1>*> distinct(items.begin(), items.end());
    EXPECT_EQ(distinct.size(), items.size());
    for (int i = 0; i < kCount; ++i) {
      for (uint64_t word : items[static_cast<size_t>(i)]->words) {
        ASSERT_EQ(word, static_cast<uint64_t>(i)) << "blocks overlap";
      }
    }
    const size_t slabs = ObjectPool<Item<1>>::slabBytes();
    EXPECT_GE(slabs, kCount * sizeof(Item<1>));
    EXPECT_LE(slabs, 2 * kCount * sizeof(Item<1>) + (2u << 20)) << "slabs double, then stay 2 MB";
    for (Item<1>* item : items) {
      delete item;
    }
    items.clear();
    if (round > 0) {
      EXPECT_EQ(ObjectPool<Item<1>>::slabBytes(), slabs) << "freed blocks are used again";
    }
  }
}

TEST(ObjectPool, BlocksFreedOnOtherThreadsComeBack) {
  if (!ObjectPool<Item<2>>::enabled()) {
    GTEST_SKIP() << "AddressSanitizer build: plain malloc";
  }
  constexpr int kCount = 5000;
  std::vector<Item<2>*> items;
  for (int i = 0; i < kCount; ++i) {
    items.push_back(new Item<2>);
  }
  const size_t slabs = ObjectPool<Item<2>>::slabBytes();
  // Another thread frees them all and ends: its batches go to the shared stack.
  std::thread([&items] {
    for (Item<2>* item : items) {
      delete item;
    }
  }).join();
  items.clear();
  for (int i = 0; i < kCount; ++i) {
    items.push_back(new Item<2>);
  }
  EXPECT_EQ(ObjectPool<Item<2>>::slabBytes(), slabs);
  // Threads that make and free at once share the pool without losing a block.
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int round = 0; round < 50; ++round) {
        std::vector<Item<2>*> mine;
        for (int i = 0; i < 300; ++i) {
          mine.push_back(new Item<2>);
          mine.back()->words[0] = static_cast<uint64_t>(i);
        }
        for (int i = 0; i < 300; ++i) {
          ASSERT_EQ(mine[static_cast<size_t>(i)]->words[0], static_cast<uint64_t>(i));
          delete mine[static_cast<size_t>(i)];
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (Item<2>* item : items) {
    delete item;
  }
  EXPECT_LE(ObjectPool<Item<2>>::slabBytes(), slabs + (1u << 20));
}

TEST(ObjectPool, OtherSizesGoToMalloc) {
  const size_t before = ObjectPool<Item<9>>::slabBytes();
  auto* bigger = new Bigger;
  memset(bigger->extra, 0xab, sizeof bigger->extra);
  delete bigger;
  EXPECT_EQ(ObjectPool<Item<9>>::slabBytes(), before);
}

}  // namespace
