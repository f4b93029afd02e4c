// HashMap against std::unordered_map<std::string, void*> over the same keys: the
// names of attributes, groups and configuration properties the agent files away.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <unordered_map>
#include <vector>

#include "foundation/HashMap.h"

namespace {

std::vector<std::string> keys(size_t count) {
  static const std::vector<std::string> all = [] {
    std::vector<std::string> out;
    const char* stems[] = {"CDP_", "Thread_Pool_", "XRV_ATTR_", "Disk_", "RV:web"};
    for (int i = 0; i < 100000; ++i) {
      char key[64];
      snprintf(key, sizeof key, "%s%d_%s", stems[i % 5], i, i % 3 == 0 ? "INTERVAL" : "Name");
      out.emplace_back(key);
    }
    return out;
  }();
  return std::vector<std::string>(all.begin(), all.begin() + static_cast<long>(count));
}

void BM_HashMap_Put(benchmark::State& state) {
  const std::vector<std::string> k = keys(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    HashMap map;
    for (const std::string& key : k) {
      map.put(key.c_str(), &key);
    }
    benchmark::DoNotOptimize(map.getCount());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(k.size()));
}

void BM_Unordered_Put(benchmark::State& state) {
  const std::vector<std::string> k = keys(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::unordered_map<std::string, void*> map;
    for (const std::string& key : k) {
      map[key] = const_cast<std::string*>(&key);
    }
    benchmark::DoNotOptimize(map.size());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(k.size()));
}

void BM_HashMap_Get(benchmark::State& state) {
  const std::vector<std::string> k = keys(static_cast<size_t>(state.range(0)));
  HashMap map;
  for (const std::string& key : k) {
    map.put(key.c_str(), &key);
  }
  for (auto _ : state) {
    for (const std::string& key : k) {
      benchmark::DoNotOptimize(map.get(key.c_str()));
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(k.size()));
}

void BM_Unordered_Get(benchmark::State& state) {
  const std::vector<std::string> k = keys(static_cast<size_t>(state.range(0)));
  std::unordered_map<std::string, void*> map;
  for (const std::string& key : k) {
    map[key] = const_cast<std::string*>(&key);
  }
  for (auto _ : state) {
    for (const std::string& key : k) {
      benchmark::DoNotOptimize(map.find(key)->second);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(k.size()));
}

void BM_HashMap_Iterate(benchmark::State& state) {
  const std::vector<std::string> k = keys(static_cast<size_t>(state.range(0)));
  HashMap map;
  for (const std::string& key : k) {
    map.put(key.c_str(), &key);
  }
  for (auto _ : state) {
    HashMapIterator it = map.iterator();
    while (it.hasNext()) {
      it.next();
      benchmark::DoNotOptimize(it.getData());
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(k.size()));
}

void BM_Unordered_Iterate(benchmark::State& state) {
  const std::vector<std::string> k = keys(static_cast<size_t>(state.range(0)));
  std::unordered_map<std::string, void*> map;
  for (const std::string& key : k) {
    map[key] = const_cast<std::string*>(&key);
  }
  for (auto _ : state) {
    for (const auto& entry : map) {
      benchmark::DoNotOptimize(entry.second);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(k.size()));
}

BENCHMARK(BM_HashMap_Put)->Arg(64)->Arg(1000)->Arg(100000);
BENCHMARK(BM_Unordered_Put)->Arg(64)->Arg(1000)->Arg(100000);
BENCHMARK(BM_HashMap_Get)->Arg(64)->Arg(1000)->Arg(100000);
BENCHMARK(BM_Unordered_Get)->Arg(64)->Arg(1000)->Arg(100000);
BENCHMARK(BM_HashMap_Iterate)->Arg(64)->Arg(1000)->Arg(100000);
BENCHMARK(BM_Unordered_Iterate)->Arg(64)->Arg(1000)->Arg(100000);

}  // namespace
