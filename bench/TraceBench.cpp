// What a switched-off trace point costs: the same small function with and without
// the entry/exit scope and one detail line, tracing at its default (errors only).

#include <benchmark/benchmark.h>

#include "framework/Trace.h"

namespace {

__attribute__((noinline)) int plain(int value) {
  benchmark::DoNotOptimize(value);
  return value + 1;
}

__attribute__((noinline)) int traced(int value) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("value=%d", value);
  benchmark::DoNotOptimize(value);
  return value + 1;
}

void BM_Trace_NoCall(benchmark::State& state) {
  int value = 0;
  for (auto _ : state) {
    value = plain(value);
  }
  benchmark::DoNotOptimize(value);
}

void BM_Trace_SwitchedOff(benchmark::State& state) {
  XRV::trace::configure("error");
  int value = 0;
  for (auto _ : state) {
    value = traced(value);
  }
  benchmark::DoNotOptimize(value);
}

BENCHMARK(BM_Trace_NoCall);
BENCHMARK(BM_Trace_SwitchedOff);

}  // namespace
