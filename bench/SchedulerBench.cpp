// Scheduling overhead and lateness: N providers with trivial collections (one small
// row each) refreshed every second on a pool of P workers for S seconds
// (default 1000, 2, 30).
//
// - overhead: CPU time of the whole agent side per collection, minus the CPU time of
//   the same number of bare calls of the providers' collection function;
// - lateness: when a collection starts, minus its whole-second due time.
//
//   scheduler_bench [seconds] [providers] [pool size]

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionCheck.h"
#include "definition/Metric.h"
#include "framework/Configuration.h"
#include "framework/FwClock.h"
#include "framework/Trace.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/ResultsManager.h"
#include "provider/UAClientClassList.h"
#include "scheduling/RefreshThread.h"
#include "scheduling/ThreadPool.h"

namespace {

double cpuSeconds() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

std::atomic<size_t> latenessCount{0};
std::vector<int64_t> latenessMillis;

class TrivialSource : public ResultsManager {
 public:
  explicit TrivialSource(int index)
      : ResultsManager("XRV", "TRIVIAL", UA_SCRIPT), name_("p" + std::to_string(index)) {
    metric_ = new Metric("Value");
    addMetricObject(metric_);
    setRefreshInterval(1);
  }
  void internalCollectData(const char* /*subnode*/) override {
    // The due time of this turn: the scheduler moved the next one on already.
    int64_t due = (static_cast<int64_t>(getNextRefresh()) - 1) * 1000;
    size_t slot = latenessCount.fetch_add(1);
    if (slot < latenessMillis.size()) {
      latenessMillis[slot] = fwTimeMillis() - due;
    }
    work();
  }
  // What a collection does besides being scheduled: one small row.
  void work() {
    auto* row = new ResultInstance(name_.c_str(), 1);
    row->addMetric(new ResultMetric(metric_, 1));
    addResultInstance(row);
  }
  const char* getPerfObjectName() override { return "TRIVIAL"; }
  int getPerfObjectStatus() override { return PERF_OBJECT_ACTIVE; }
  int getPerfErrorCode() override { return OBJECT_ACTIVE; }
  void printResults() override {}

 private:
  std::string name_;
  Metric* metric_;
};

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? atoi(argv[1]) : 30;
  const int count = argc > 2 ? atoi(argv[2]) : 1000;
  const int poolSize = argc > 3 ? atoi(argv[3]) : 2;
  XRV::trace::configure("error");

  DefinitionCheck check;
  check.check(R"(<agent><metadata><ag name="TRIVIAL" table="TTRIVIAL">)"
              R"(<attr name="Value" type="0" size="4"/></ag></metadata></agent>)");
  AttributeGroupMeta* meta = findAttributeGroupMeta("TRIVIAL");

  latenessMillis.resize(static_cast<size_t>(count) * static_cast<size_t>(seconds + 2));
  UAClientClassList list;
  std::vector<std::unique_ptr<TrivialSource>> providers;
  for (int i = 0; i < count; ++i) {
    providers.push_back(std::make_unique<TrivialSource>(i));
    providers.back()->setAttributeGroupMeta(meta);
    providers.back()->start();
    list.addClientClass(providers.back().get());
  }

  // Start on a second boundary, so that every turn falls on the whole second.
  std::this_thread::sleep_for(std::chrono::milliseconds(1000 - fwTimeMillis() % 1000 + 5));
  ThreadPool pool(poolSize);
  RefreshThread refresh(0, list, &pool, nullptr);
  double cpuBefore = cpuSeconds();
  refresh.start();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  refresh.refreshShutdown();
  pool.shutdown();
  double cpuScheduled = cpuSeconds() - cpuBefore;
  size_t collections = std::min(latenessCount.load(), latenessMillis.size());

  // The same work without the scheduler: bare calls, then the rows dropped as
  // updateResults drops them.
  double bareBefore = cpuSeconds();
  for (size_t i = 0; i < collections; ++i) {
    TrivialSource& provider = *providers[i % providers.size()];
    provider.work();
    if (i % providers.size() == providers.size() - 1) {
      for (auto& p : providers) {
        p->clearNewResultSet();
      }
    }
  }
  double cpuBare = cpuSeconds() - bareBefore;

  std::vector<int64_t> late(latenessMillis.begin(),
                            latenessMillis.begin() + static_cast<long>(collections));
  std::sort(late.begin(), late.end());
  auto percentile = [&late](double p) {
    return late.empty() ? 0 : late[std::min(late.size() - 1, static_cast<size_t>(p * late.size()))];
  };
  double perCollection = cpuScheduled / static_cast<double>(collections) * 1e6;
  double perBare = cpuBare / static_cast<double>(collections) * 1e6;
  printf(
      "providers,seconds,pool,collections,cpu_us_per_collection,bare_us_per_call,"
      "overhead_us,late_p50_ms,late_p99_ms,late_max_ms\n");
  printf("%d,%d,%d,%zu,%.2f,%.2f,%.2f,%lld,%lld,%lld\n", count, seconds, poolSize, collections,
         perCollection, perBare, perCollection - perBare, static_cast<long long>(percentile(0.5)),
         static_cast<long long>(percentile(0.99)), static_cast<long long>(late.back()));
  for (auto& provider : providers) {
    list.removeClientClass(provider.get());
  }
  return 0;
}
