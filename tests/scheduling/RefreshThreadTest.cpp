#include "scheduling/RefreshThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "framework/Configuration.h"
#include "framework/FwClock.h"
#include "provider/UAClientClassList.h"
#include "scheduling/ThreadPool.h"

namespace {

// A provider that records when each collection started and can take its time.
class TimedSource : public ResultsManager {
 public:
  TimedSource(const char* group, int interval, int collectMillis, int type = UA_SCRIPT)
      : ResultsManager("XRV", group, type), collectMillis_(collectMillis) {
    setRefreshInterval(interval);
  }
  void internalCollectData(const char*) override {
    int now = ++running_;
    int seen = maxRunning_.load();
    while (now > seen && !maxRunning_.compare_exchange_weak(seen, now)) {
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      starts_.push_back(fwTimeMillis());
    }
    if (collectMillis_ > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(collectMillis_));
    }
    --running_;
  }
  const char* getPerfObjectName() override { return getAttributeGroup(); }
  int getPerfObjectStatus() override { return PERF_OBJECT_ACTIVE; }
  int getPerfErrorCode() override { return OBJECT_ACTIVE; }
  void printResults() override {}

  std::vector<int64_t> starts() {
    std::lock_guard<std::mutex> lock(mutex_);
    return starts_;
  }
  int maxRunning() const { return maxRunning_.load(); }

 private:
  int collectMillis_;
  std::atomic<int> running_{0};
  std::atomic<int> maxRunning_{0};
  std::mutex mutex_;
  std::vector<int64_t> starts_;
};

class RefreshThreadTest : public ::testing::Test {
 protected:
  void TearDown() override {
    while (list_.getFirst() != nullptr) {
      list_.removeClientClass(list_.getFirst());
    }
    providers_.clear();
    resetDefinitionState();
    resetConfigurationForTesting();
  }

  TimedSource& add(const char* group, int interval, int collectMillis = 0,
                   const std::string& ag = "", int type = UA_SCRIPT) {
    auto source = std::make_unique<TimedSource>(group, interval, collectMillis, type);
    source->setAttributeGroupMeta(
        XRV::testing::defineGroup(group, R"(<attr name="V" type="0" size="4"/>)", ag));
    list_.addClientClass(source.get());
    providers_.push_back(std::move(source));
    return *providers_.back();
  }

  static void sleepUntilNextSecond() {
    int64_t now = fwTimeMillis();
    std::this_thread::sleep_for(std::chrono::milliseconds(1000 - now % 1000 + 20));
  }

  UAClientClassList list_;
  std::vector<std::unique_ptr<TimedSource>> providers_;
};

TEST_F(RefreshThreadTest, EventGroupsGetAMinuteOnlyWithoutAGlobalInterval) {
  struct Case {
    bool globalIntervalSet;
    int expectedInterval;
  };
  for (const Case& c : {Case{false, 60}, Case{true, 0}}) {
    SCOPED_TRACE(c.globalIntervalSet);
    TimedSource logs1("L1", 0, 0, UA_LOG_MONITOR);
    TimedSource logs2("L2", 0, 0, UA_LOG_MONITOR);
    TimedSource own("L3", 15, 0, UA_LOG_MONITOR);
    TimedSource script("S", 0, 0, UA_SCRIPT);
    UAClientClassList list;
    for (UAClientClass* p : std::vector<UAClientClass*>{&logs1, &logs2, &own, &script}) {
      list.addClientClass(p);
    }
    int logMonitors = -1;
    EXPECT_EQ(getEventGroupCount(list, c.globalIntervalSet, &logMonitors), 3);
    EXPECT_EQ(logMonitors, 3);
    EXPECT_EQ(logs1.getRefreshInterval(), c.expectedInterval);
    EXPECT_EQ(logs2.getRefreshInterval(), c.expectedInterval);
    EXPECT_EQ(own.getRefreshInterval(), 15) << "its own interval stays";
    EXPECT_EQ(script.getRefreshInterval(), 0) << "not an event group";
    for (UAClientClass* p : std::vector<UAClientClass*>{&logs1, &logs2, &own, &script}) {
      list.removeClientClass(p);
    }
  }
}

TEST_F(RefreshThreadTest, InitialQueueOrderAndWhoIsLeftOut) {
  add("Late", 30);
  add("Early", 10);
  add("SameAsEarlyFirst", 10);
  add("Default", 0);                                              // takes the default 20
  add("Discovery", 5, 0, R"(discovery_attribute_group="true")");  // has its own thread
  add("Picky", 5).setThreadPoolEligible(false);
  auto orphan = std::make_unique<TimedSource>("Orphan", 5, 0);  // no metadata
  list_.addClientClass(orphan.get());
  int64_t now = fwTime();
  RefreshThread refresh(20, list_, nullptr, nullptr);
  list_.removeClientClass(orphan.get());
  std::vector<std::pair<UAClientClass*, time_t>> queue = refresh.getQueue();
  std::vector<std::string> order;
  for (const auto& [provider, due] : queue) {
    order.emplace_back(provider->getAttributeGroup());
    EXPECT_EQ(due, now + provider->getRefreshInterval()) << provider->getAttributeGroup();
  }
  // Equal times: the later one goes in front.
  EXPECT_EQ(order, (std::vector<std::string>{"SameAsEarlyFirst", "Early", "Default", "Late"}));
}

TEST_F(RefreshThreadTest, InitialDelayMakesEveryoneDueTogether) {
  setConfigurationProperty("CDP_DP_INITIAL_COLLECTION_DELAY", "0");
  add("A", 30);
  add("B", 10);
  int64_t now = fwTime();
  RefreshThread refresh(0, list_, nullptr, nullptr);
  for (const auto& [provider, due] : refresh.getQueue()) {
    EXPECT_EQ(due, now) << provider->getAttributeGroup();
  }
}

TEST_F(RefreshThreadTest, DueTimesStayOnTheGridWhileCollectionsTakeTime) {
  sleepUntilNextSecond();
  TimedSource& slowish = add("Grid", 1, 400);
  ThreadPool pool(2);
  RefreshThread refresh(0, list_, &pool, nullptr);
  time_t first = slowish.getNextRefresh();
  ASSERT_TRUE(refresh.start());
  std::this_thread::sleep_for(std::chrono::milliseconds(3600));
  refresh.refreshShutdown();
  std::vector<int64_t> starts = slowish.starts();
  ASSERT_GE(starts.size(), 3u);
  for (size_t i = 0; i < starts.size(); ++i) {
    SCOPED_TRACE(i);
    // Each collection starts at its whole second, whatever the last one took.
    int64_t due = (static_cast<int64_t>(first) + static_cast<int64_t>(i)) * 1000;
    EXPECT_GE(starts[i], due);
    EXPECT_LT(starts[i] - due, 200);
  }
}

TEST_F(RefreshThreadTest, ASlowProviderIsNeverQueuedTwice) {
  sleepUntilNextSecond();
  TimedSource& slow = add("Slow", 1, 1600);
  ThreadPool pool(4);
  RefreshThread refresh(0, list_, &pool, nullptr);
  ASSERT_TRUE(refresh.start());
  // Turns at 1, 2, 3 and 4 s: each collection takes 1.6 s, so every other turn finds
  // the last one still running.
  std::this_thread::sleep_for(std::chrono::milliseconds(4200));
  refresh.refreshShutdown();
  EXPECT_EQ(slow.maxRunning(), 1) << "never two collections at once";
  size_t started = slow.starts().size();
  EXPECT_LE(started, 2u);
  EXPECT_GE(slow.getSkippedIntervals(), 1);
  EXPECT_EQ(started + static_cast<size_t>(slow.getSkippedIntervals()), 4u) << "every turn counted";
  pool.shutdown();
}

TEST_F(RefreshThreadTest, ShutdownIsPromptWhileTheNextTurnIsAnHourAway) {
  add("Hourly", 3600);
  RefreshThread refresh(0, list_, nullptr, nullptr);
  ASSERT_TRUE(refresh.start());
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  auto begin = std::chrono::steady_clock::now();
  refresh.refreshShutdown();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100));
}

TEST_F(RefreshThreadTest, WithoutAPoolTheRefreshThreadCollectsItself) {
  setConfigurationProperty("CDP_DP_INITIAL_COLLECTION_DELAY", "0");
  // Without a pool the turn is collectDataIfNeeded: data stay valid for a second here.
  setConfigurationProperty("CDP_INLINE_CACHE_TTL", "1");
  TimedSource& inline_ = add("INLINE", 1);
  RefreshThread refresh(0, list_, nullptr, nullptr);
  ASSERT_TRUE(refresh.start());
  std::this_thread::sleep_for(std::chrono::milliseconds(2300));
  refresh.refreshShutdown();
  EXPECT_GE(inline_.starts().size(), 2u);
  EXPECT_GE(inline_.getCacheHitCount() + static_cast<int64_t>(inline_.starts().size()), 3);
  EXPECT_FALSE(inline_.isOnQueue());
}

}  // namespace

TEST_F(RefreshThreadTest, ANegativeDefaultIntervalSchedulesNothing) {
  add("Default", 0);
  RefreshThread refresh(-5, list_, nullptr, nullptr);
  EXPECT_TRUE(refresh.getQueue().empty()) << "a turn every -5 s would spin";
}

TEST_F(RefreshThreadTest, RacingSubmittersQueueOneJob) {
  // The refresh thread and an impatient request may both try to submit a provider:
  // exactly one job may come of it, the other turn counts as skipped.
  constexpr int kRounds = 30;
  constexpr int kRacers = 6;
  TimedSource& source = add("Raced", 3600, 50);
  ThreadPool pool(1);
  RefreshThread refresh(0, list_, &pool, nullptr);
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<int> ready{0};
    std::vector<std::thread> racers;
    for (int i = 0; i < kRacers; ++i) {
      racers.emplace_back([&] {
        ++ready;
        while (ready.load() < kRacers) {
        }
        refresh.startJob(&source);
      });
    }
    for (std::thread& racer : racers) {
      racer.join();
    }
    while (source.isOnQueue()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  pool.shutdown();
  EXPECT_EQ(source.starts().size(), static_cast<size_t>(kRounds));
  EXPECT_EQ(source.getSkippedIntervals(), kRounds * (kRacers - 1));
}
