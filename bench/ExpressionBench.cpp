// The expression language against the same computations written in C++:
// - the formula (a * 100) / (b + 1) and the filter cpu > 90 AND name LIKE "web*",
//   evaluated a million times on one row by the evaluator alone (the parsed program
//   over the row's values), beside the C++ that reads the same values;
// - with an allocation counter: the evaluator must not allocate for a numeric
//   formula;
// - the whole calculateDerived per row (building the row's inputs, the derived lock,
//   the new ResultMetric), for 1,000 rows.
// bench/run prints the ratios.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "definition/Metric.h"
#include "definition/XMLConfigParser.h"
#include "framework/Trace.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/ResultsManager.h"
#include "provider/expression/Parsers.h"
#include "provider/expression/Scratch.h"

namespace {
std::atomic<long> newCalls{0};
}  // namespace

// Every operator new of the process is counted (the evaluator's would be among them).
void* operator new(size_t size) {
  newCalls.fetch_add(1, std::memory_order_relaxed);
  if (void* block = malloc(size == 0 ? 1 : size)) {
    return block;
  }
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept { free(block); }
void operator delete(void* block, size_t) noexcept { free(block); }

namespace {

using namespace XRV::expression;

constexpr int64_t kEvaluations = 1000000;

// Values of one row, built from Metrics as a data source builds them.
struct BenchRow {
  Metric* metric(const char* name, RAW_METRIC_TYPE type) {
    metrics.push_back(std::make_unique<Metric>(name));
    metrics.back()->setSurfName(name);
    metrics.back()->setRawMetricType(type);
    return metrics.back().get();
  }
  const ResultMetric* keep(ResultMetric* value) {
    values.emplace_back(value);
    pointers.push_back(value);
    return value;
  }
  std::vector<std::unique_ptr<Metric>> metrics;
  std::vector<std::unique_ptr<ResultMetric>> values;
  std::vector<const ResultMetric*> pointers;
};

std::unique_ptr<Program> parsed(const char* text, bool filter) {
  std::string error;
  int column = 0;
  auto program = filter ? parseFilter(text, &error, &column) : parseFormula(text, &error, &column);
  if (program == nullptr) {
    fprintf(stderr, "%s does not parse: %s\n", text, error.c_str());
    abort();
  }
  return program;
}

void reportPerEvaluation(benchmark::State& state) {
  state.counters["ns_per_eval"] =
      benchmark::Counter(static_cast<double>(state.iterations() * kEvaluations),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// A million evaluations of `text` on `row` per iteration, counting allocations.
void evaluateMillionTimes(benchmark::State& state, const char* text, bool filter,
                          const BenchRow& row) {
  auto program = parsed(text, filter);
  RowValues values(row.pointers.data(), static_cast<int>(row.pointers.size()));
  Scratch& scratch = threadScratch();
  long allocations = 0;
  int64_t sum = 0;
  for (auto _ : state) {
    long before = newCalls.load(std::memory_order_relaxed);
    for (int64_t i = 0; i < kEvaluations; ++i) {
      scratch.reset();
      EvalContext context;
      context.row = &values;
      context.scratch = &scratch;
      sum += program->evaluate(context).i;
    }
    allocations += newCalls.load(std::memory_order_relaxed) - before;
  }
  benchmark::DoNotOptimize(sum);
  reportPerEvaluation(state);
  state.counters["allocs_per_eval"] =
      static_cast<double>(allocations) / static_cast<double>(state.iterations() * kEvaluations);
}

void BM_FormulaEvaluator(benchmark::State& state) {
  BenchRow row;
  row.keep(new ResultMetric(row.metric("a", NUMERIC_DATA), 7));
  row.keep(new ResultMetric(row.metric("b", NUMERIC_DATA), 2));
  evaluateMillionTimes(state, "(a * 100) / (b + 1)", false, row);
}

void BM_FormulaNative(benchmark::State& state) {
  BenchRow row;
  const ResultMetric* a = row.keep(new ResultMetric(row.metric("a", NUMERIC_DATA), 7));
  const ResultMetric* b = row.keep(new ResultMetric(row.metric("b", NUMERIC_DATA), 2));
  int64_t sum = 0;
  for (auto _ : state) {
    for (int64_t i = 0; i < kEvaluations; ++i) {
      benchmark::DoNotOptimize(a);
      benchmark::DoNotOptimize(b);
      sum += (static_cast<int64_t>(a->getInt()) * 100) / (b->getInt() + 1);
    }
  }
  benchmark::DoNotOptimize(sum);
  reportPerEvaluation(state);
}

void BM_FilterEvaluator(benchmark::State& state) {
  BenchRow row;
  row.keep(new ResultMetric(row.metric("name", STRING_DATA), "web01"));
  row.keep(new ResultMetric(row.metric("cpu", NUMERIC_DATA), 95));
  evaluateMillionTimes(state, "cpu > 90 AND name LIKE \"web*\"", true, row);
}

void BM_FilterNative(benchmark::State& state) {
  BenchRow row;
  const ResultMetric* name = row.keep(new ResultMetric(row.metric("name", STRING_DATA), "web01"));
  const ResultMetric* cpu = row.keep(new ResultMetric(row.metric("cpu", NUMERIC_DATA), 95));
  int64_t passed = 0;
  for (auto _ : state) {
    for (int64_t i = 0; i < kEvaluations; ++i) {
      benchmark::DoNotOptimize(name);
      benchmark::DoNotOptimize(cpu);
      passed += cpu->getInt() > 90 && strncmp(name->getString(), "web", 3) == 0 ? 1 : 0;
    }
  }
  benchmark::DoNotOptimize(passed);
  reportPerEvaluation(state);
}

// A provider whose rows are built by the benchmark.
class BenchSource : public ResultsManager {
 public:
  BenchSource() : ResultsManager("XRV", "BENCH", UA_SCRIPT) {}
  void internalCollectData(const char*) override {}
  const char* getPerfObjectName() override { return "BENCH"; }
  int getPerfObjectStatus() override { return PERF_OBJECT_ACTIVE; }
  int getPerfErrorCode() override { return OBJECT_ACTIVE; }
  void printResults() override {}
};

void BM_CalculateDerivedPerRow(benchmark::State& state) {
  constexpr int kRows = 1000;
  BenchSource source;
  auto* a = new Metric("a");
  auto* b = new Metric("b");
  auto* ratio = new Metric("ratio");
  ratio->setDerived(true);
  ratio->setExpressionFormula("(a * 100) / (b + 1)");
  ratio->setExpression(XMLConfigParser::parseExpression("(a * 100) / (b + 1)"));
  source.addMetricObject(a);
  source.addMetricObject(b);
  source.addMetricObject(ratio);
  for (int i = 0; i < kRows; ++i) {
    auto* row = new ResultInstance(nullptr, 2);
    row->addMetric(new ResultMetric(a, i));
    row->addMetric(new ResultMetric(b, 2));
    source.addResultInstance(row);
  }
  long allocations = 0;
  for (auto _ : state) {
    long before = newCalls.load(std::memory_order_relaxed);
    source.calculateDerived(nullptr, STORE_INTERVAL_DATA);
    allocations += newCalls.load(std::memory_order_relaxed) - before;
  }
  // One formula per row: the same counters as the evaluations above, per row.
  state.counters["ns_per_eval"] =
      benchmark::Counter(static_cast<double>(state.iterations() * kRows),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["allocs_per_eval"] =
      static_cast<double>(allocations) / static_cast<double>(state.iterations() * kRows);
}

}  // namespace

BENCHMARK(BM_FormulaEvaluator)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FormulaNative)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FilterEvaluator)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FilterNative)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CalculateDerivedPerRow)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
  XRV::trace::configure("error");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
