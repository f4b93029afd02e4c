#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "foundation/HashMap.h"

namespace {

std::vector<std::string> iterationOrder(const HashMap& map) {
  std::vector<std::string> keys;
  HashMapIterator it = map.iterator();
  while (it.hasNext()) {
    it.next();
    keys.emplace_back(it.getKey());
  }
  return keys;
}

// `count` keys "<prefix>N" whose hash falls in the same bucket of a 64-bucket table
// (and therefore of a 32-bucket table too).
std::vector<std::string> collidingKeys(const char* prefix, size_t count) {
  std::map<uint32_t, std::vector<std::string>> byBucket;
  for (int i = 0;; ++i) {
    std::string key = prefix + std::to_string(i);
    auto& bucket = byBucket[hash_function(key.c_str()) & 63];
    bucket.push_back(key);
    if (bucket.size() == count) {
      return bucket;
    }
  }
}

TEST(HashFunction, MultipliesBy33AndAddsSignedBytes) {
  EXPECT_EQ(hash_function(""), 5381u);
  EXPECT_EQ(hash_function("a"), 5381u * 33 + 'a');
  EXPECT_EQ(hash_function("ab"), (5381u * 33 + 'a') * 33 + 'b');
  // 0xE9 counts as -23, so the sum is smaller than for a plain byte.
  EXPECT_EQ(hash_function("\xE9"), 5381u * 33 - 23);
  EXPECT_EQ(hash_function("\xFF"), 5381u * 33 - 1);

  // The function works four bytes at a time; it must equal the byte-by-byte rule for
  // every length and every byte value.
  std::string key;
  for (int i = 0; i < 300; ++i) {
    key.push_back(static_cast<char>(1 + (i * 97) % 255));
    uint32_t expected = 5381;
    for (char c : key) {
      expected =
          expected * 33 + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c)));
    }
    ASSERT_EQ(hash_function(key.c_str()), expected) << "length " << key.size();
  }
}

TEST(HashMap, BucketCountIsAPowerOfTwoOfAtLeast32) {
  const struct {
    int capacity;
    int buckets;
  } cases[] = {{0, 32}, {10, 32}, {32, 32}, {33, 64}, {64, 64}, {100, 128}, {1000, 1024}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.capacity);
    EXPECT_EQ(HashMap(c.capacity).getBucketCount(), c.buckets);
  }
  EXPECT_EQ(HashMap().getBucketCount(), 64);
}

TEST(HashMap, ThirtyTwoBucketsDoubleAtTheTwentyFifthEntry) {
  HashMap map(10);
  std::vector<std::string> keys;
  for (int i = 0; i < 25; ++i) {
    keys.push_back("key" + std::to_string(i));
  }
  for (int i = 0; i < 24; ++i) {
    map.put(keys[i].c_str(), &keys[i]);
  }
  EXPECT_EQ(map.getBucketCount(), 32);
  map.put(keys[24].c_str(), &keys[24]);
  EXPECT_EQ(map.getBucketCount(), 64);
  EXPECT_EQ(map.getCount(), 25);
  for (const std::string& key : keys) {
    EXPECT_EQ(map.get(key.c_str()), &key) << key;
  }
}

TEST(HashMap, IteratesBucketsInOrderAndEachBucketNewestFirst) {
  std::vector<std::string> same = collidingKeys("c", 3);
  std::vector<std::string> keys = {"alpha", same[0], "beta", same[1], "gamma", same[2]};
  HashMap map;
  for (const std::string& key : keys) {
    map.put(key.c_str(), nullptr);
  }
  std::vector<std::string> order = iterationOrder(map);
  ASSERT_EQ(order.size(), keys.size());
  for (size_t i = 1; i < order.size(); ++i) {
    EXPECT_LE(hash_function(order[i - 1].c_str()) & 63, hash_function(order[i].c_str()) & 63)
        << "buckets are visited in ascending order";
  }
  auto position = [&](const std::string& key) {
    return std::find(order.begin(), order.end(), key) - order.begin();
  };
  EXPECT_EQ(position(same[1]), position(same[2]) + 1) << "newest entry first in its bucket";
  EXPECT_EQ(position(same[0]), position(same[1]) + 1);
}

TEST(HashMap, ResizeReversesTheOrderWithinABucket) {
  std::vector<std::string> same = collidingKeys("r", 4);
  HashMap map(10);
  map.put(same[0].c_str(), nullptr);
  map.put(same[1].c_str(), nullptr);
  map.put(same[2].c_str(), nullptr);
  // Fill with keys of other buckets until the 25th entry doubles the table.
  std::vector<std::string> fillers;
  for (int i = 0; fillers.size() < 22; ++i) {
    std::string key = "f" + std::to_string(i);
    if ((hash_function(key.c_str()) & 63) != (hash_function(same[0].c_str()) & 63)) {
      fillers.push_back(key);
    }
  }
  for (const std::string& key : fillers) {
    map.put(key.c_str(), nullptr);
  }
  ASSERT_EQ(map.getBucketCount(), 64);
  map.put(same[3].c_str(), nullptr);

  std::vector<std::string> bucket;
  for (const std::string& key : iterationOrder(map)) {
    if (key[0] == 'r') {
      bucket.push_back(key);
    }
  }
  // Before the resize the chain was r2 r1 r0; moving it reversed it to r0 r1 r2,
  // and r3 arrived at the head afterwards.
  EXPECT_EQ(bucket, (std::vector<std::string>{same[3], same[0], same[1], same[2]}));
}

TEST(HashMap, PutOfAnExistingKeyKeepsTheFirstKeyPointer) {
  HashMap map;
  char first[] = "name";
  char second[] = "name";
  int one = 1;
  int two = 2;
  map.put(first, &one);
  map.put(second, &two);
  EXPECT_EQ(map.getCount(), 1);
  EXPECT_EQ(map.get("name"), &two);
  HashMapIterator it = map.iterator();
  ASSERT_TRUE(it.hasNext());
  it.next();
  EXPECT_EQ(it.getKey(), first);
}

TEST(HashMap, KeysAreCaseSensitiveAndNullValuesAreStillPresent) {
  HashMap map;
  map.put("Key", nullptr);
  EXPECT_TRUE(map.contains("Key"));
  EXPECT_FALSE(map.contains("key"));
  EXPECT_EQ(map.get("Key"), nullptr);
  EXPECT_FALSE(map.contains(nullptr));
  map.put(nullptr, &map);
  EXPECT_EQ(map.getCount(), 1);
}

TEST(HashMap, RemoveHandsBackTheStoredKey) {
  HashMap map;
  char* key = strdup("removable");
  int value = 7;
  map.put(key, &value);
  map.put("other", nullptr);
  const char* storedKey = nullptr;
  EXPECT_EQ(map.remove("removable", &storedKey), &value);
  EXPECT_EQ(storedKey, key);
  free(key);
  EXPECT_EQ(map.getCount(), 1);
  EXPECT_FALSE(map.contains("removable"));
  storedKey = nullptr;
  EXPECT_EQ(map.remove("removable", &storedKey), nullptr);
  EXPECT_EQ(storedKey, nullptr);
  EXPECT_EQ(map.getCount(), 1);
  EXPECT_EQ(map.remove("other", nullptr), nullptr);
  EXPECT_EQ(map.getCount(), 0);
}

TEST(HashMap, RemoveFromTheMiddleOfAChain) {
  std::vector<std::string> same = collidingKeys("m", 3);
  HashMap map;
  for (const std::string& key : same) {
    map.put(key.c_str(), nullptr);
  }
  EXPECT_EQ(map.remove(same[1].c_str(), nullptr), nullptr);
  EXPECT_EQ(iterationOrder(map), (std::vector<std::string>{same[2], same[0]}));
}

TEST(HashMap, FreshIteratorOnAnEmptyMapHasNothing) {
  HashMap map;
  HashMapIterator it = map.iterator();
  EXPECT_FALSE(it.hasNext());
  EXPECT_EQ(it.getKey(), nullptr);
  EXPECT_EQ(it.getData(), nullptr);
  it.next();
  EXPECT_EQ(it.getKey(), nullptr);
}

TEST(HashMap, ClearKeepsTheBucketsAndForeachFreesOwnedEntries) {
  HashMap map(10);
  for (int i = 0; i < 40; ++i) {
    map.put(strdup(("k" + std::to_string(i)).c_str()), strdup("v"));
  }
  int visited = 0;
  map.foreach ([](const char*, const void*, void* arg) { ++*static_cast<int*>(arg); }, &visited);
  EXPECT_EQ(visited, 40);
  map.foreach (hashMapFreeKeyData, nullptr);  // the sanitizer build checks nothing leaks
  int buckets = map.getBucketCount();
  map.clear();
  EXPECT_EQ(map.getCount(), 0);
  EXPECT_EQ(map.getBucketCount(), buckets);
  EXPECT_FALSE(map.iterator().hasNext());
  map.put("again", nullptr);
  EXPECT_TRUE(map.contains("again"));
}

TEST(ThreadSafeHashMap, ConcurrentPutAndGet) {
  ThreadSafeHashMap map(10);
  constexpr int kThreads = 4;
  constexpr int kKeys = 500;
  std::vector<std::vector<std::string>> keys(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kKeys; ++i) {
      keys[t].push_back("t" + std::to_string(t) + "-" + std::to_string(i));
    }
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (const std::string& key : keys[t]) {
        map.put(key.c_str(), &key);
        EXPECT_EQ(map.get(key.c_str()), &key);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(map.getCount(), kThreads * kKeys);
  EXPECT_EQ(map.get(keys[2][17].c_str()), &keys[2][17]);
}

}  // namespace
