// The data-provider cycle at scale: collect N rows of 20 attributes (a key, 14
// numbers, 5 rates and deltas), compute rates and deltas, update the results and
// pack every row for a request, at 10,000 and 20,000 rows. The time per row must not
// grow with the row count (nothing quadratic), and packing must allocate once per
// request, not once per row.
//
// Two ways of running the cycle:
// - BM_ProviderCycle: cycles back to back. What the previous cycle left in the
//   processor's cache is still there, as far as the table fits the part of the cache
//   the neighbours on the machine leave free; the time per row then jumps where the
//   table outgrows it, wherever that lies at the moment of the run.
// - BM_ProviderCycleCold: the caches are emptied before each cycle (untimed), as an
//   agent meets its cycle: collections are seconds or minutes apart and everything
//   else on the machine runs in between. Nothing carries over from the cycle before;
//   the cache helps only where the cycle reads again what it has just written.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionCheck.h"
#include "definition/Metric.h"
#include "framework/FwRequest.h"
#include "framework/Trace.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/ResultsManager.h"

// Counts every malloc, calloc and realloc of the process while `counting` is set.
namespace {
std::atomic<bool> counting{false};
std::atomic<long> allocations{0};
}  // namespace

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* pointer, size_t size);

extern "C" void* malloc(size_t size) {
  if (counting.load(std::memory_order_relaxed)) {
    allocations.fetch_add(1, std::memory_order_relaxed);
  }
  return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) {
  if (counting.load(std::memory_order_relaxed)) {
    allocations.fetch_add(1, std::memory_order_relaxed);
  }
  return __libc_calloc(count, size);
}

extern "C" void* realloc(void* pointer, size_t size) {
  if (counting.load(std::memory_order_relaxed)) {
    allocations.fetch_add(1, std::memory_order_relaxed);
  }
  return __libc_realloc(pointer, size);
}

namespace {

constexpr int kNumbers = 14;
constexpr int kRates = 5;

// A data source that makes `rows` rows per collection, their counters growing.
class BenchSource : public ResultsManager {
 public:
  explicit BenchSource(int rows) : ResultsManager("XRV", "BENCH", UA_SCRIPT), rows_(rows) {
    auto add = [this](const std::string& name, RAW_METRIC_TYPE type, bool key, bool counter) {
      auto* metric = new Metric(name.c_str());
      metric->setRawMetricType(type);
      metric->setIsKey(key);
      metric->setIsCounter(counter);
      addMetricObject(metric);
    };
    add("Name", STRING_DATA, true, false);
    for (int i = 0; i < kNumbers; ++i) {
      add("N" + std::to_string(i), i % 2 == 0 ? NUMERIC_DATA : NUMERIC_64BIT_DATA, false, false);
    }
    const RAW_METRIC_TYPE rates[kRates] = {DELTA_DATA, RATE_DATA, PERCENT_DELTA_DATA,
                                           RATE_64BIT_DATA, DELTA_64BIT_DATA};
    for (int i = 0; i < kRates; ++i) {
      add("R" + std::to_string(i), rates[i], false, true);
    }
    for (int row = 0; row < rows_; ++row) {
      names_.push_back("instance-" + std::to_string(row));
    }
  }

  void internalCollectData(const char* /*subnode*/) override {
    ++round_;
    for (int row = 0; row < rows_; ++row) {
      auto* instance = new ResultInstance(nullptr, 1 + kNumbers + kRates);
      instance->addMetric(new ResultMetric(getMetric(0), names_[static_cast<size_t>(row)].c_str()));
      for (int i = 1; i <= kNumbers; ++i) {
        if (i % 2 == 1) {
          instance->addMetric(new ResultMetric(getMetric(i), row + i));
        } else {
          instance->addMetric(new ResultMetric(getMetric(i), static_cast<long long>(row) * i));
        }
      }
      for (int i = 0; i < kRates; ++i) {
        instance->addMetric(new ResultMetric(getMetric(1 + kNumbers + i),
                                             static_cast<long long>(round_) * (row + i + 1)));
      }
      addResultInstance(instance);
    }
  }
  const char* getPerfObjectName() override { return "BENCH"; }
  int getPerfObjectStatus() override { return PERF_OBJECT_ACTIVE; }
  int getPerfErrorCode() override { return OBJECT_ACTIVE; }
  void printResults() override {}

 private:
  int rows_;
  long long round_ = 0;
  std::vector<std::string> names_;
};

// A request that takes every row and does nothing with it.
class CountingRequest : public GenericAgentBase, public FwRowSink {
 public:
  CountingRequest() : GenericAgentBase(&detail_, &context_), detail_("XRV", "TBENCH") {
    detail_.SetRowSink(this);
  }
  void TakeSample() override {}
  int NumColumns() const override { return 0; }
  bool GetColumnInfo(ColumnInfo*, int) const override { return false; }
  int acceptRow(GenericAgentBase&, const char*, int) override {
    ++rows;
    return 0;
  }
  long rows = 0;

 private:
  RequestDetail detail_;
  ContextInfo context_;
};

AttributeGroupMeta* benchGroup() {
  static AttributeGroupMeta* meta = [] {
    std::string attributes = R"(<attr name="Name" type="2" size="32"/>)";
    for (int i = 0; i < kNumbers; ++i) {
      attributes += "<attr name=\"N" + std::to_string(i) + "\" type=\"" +
                    (i % 2 == 0 ? "0\" size=\"4" : "9\" size=\"8") + "\"/>";
    }
    for (int i = 0; i < kRates; ++i) {
      attributes += "<attr name=\"R" + std::to_string(i) + "\" type=\"" +
                    (i == 3 || i == 4 ? "9\" size=\"8" : "0\" size=\"4") + "\"/>";
    }
    DefinitionCheck check;
    check.check("<agent><metadata><ag name=\"BENCH\" table=\"TBENCH\">" + attributes +
                "</ag></metadata></agent>");
    return findAttributeGroupMeta("BENCH");
  }();
  return meta;
}

// Reads a region several times larger than the part of the last-level cache this
// machine gets to use (memory_latency finds its edge between 20 and 60 MB), so that
// nothing of the provider's tables is left in it. Reading (not writing) leaves clean
// lines behind, which the next cycle can displace without writing them back.
void emptyCaches() {
  constexpr size_t kBytes = 256u << 20;
  static const std::vector<char> region(kBytes, 1);
  long sum = 0;
  for (size_t offset = 0; offset < kBytes; offset += 64) {
    sum += region[offset];
  }
  benchmark::DoNotOptimize(sum);
}

void runProviderCycle(benchmark::State& state, bool cold) {
  XRV::trace::configure("error");
  const int rows = static_cast<int>(state.range(0));
  BenchSource source(rows);
  source.setAttributeGroupMeta(benchGroup());
  source.start();
  source.collectData(nullptr);  // the first sample only fills the previous values
  long sends = 0;
  long packingAllocations = 0;
  for (auto _ : state) {
    if (cold) {
      state.PauseTiming();
      emptyCaches();
      state.ResumeTiming();
    }
    source.collectData(nullptr);
    CountingRequest request;
    allocations.store(0);
    counting.store(true);
    source.sendDataToAFW(&request, "Primary:box:XR");
    counting.store(false);
    packingAllocations += allocations.load();
    ++sends;
    if (request.rows != rows) {
      state.SkipWithError("not every row was packed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * rows);
  // Rows per microsecond, inverted: microseconds of CPU time per row.
  state.counters["us_per_row"] =
      benchmark::Counter(static_cast<double>(rows) * static_cast<double>(state.iterations()) * 1e-6,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["allocs_per_send"] =
      static_cast<double>(packingAllocations) / static_cast<double>(sends == 0 ? 1 : sends);
}

void BM_ProviderCycle(benchmark::State& state) { runProviderCycle(state, false); }
void BM_ProviderCycleCold(benchmark::State& state) { runProviderCycle(state, true); }

BENCHMARK(BM_ProviderCycle)
    ->Arg(5000)
    ->Arg(10000)
    ->Arg(20000)
    ->Arg(40000)
    ->Unit(benchmark::kMillisecond);
// Emptying the caches takes longer than the cycle: fewer cycles per repetition.
BENCHMARK(BM_ProviderCycleCold)
    ->Arg(5000)
    ->Arg(10000)
    ->Arg(20000)
    ->Arg(40000)
    ->MinTime(0.2)
    ->Unit(benchmark::kMillisecond);

}  // namespace
