#include "scheduling/RefreshThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "framework/Configuration.h"
#include "framework/FwClock.h"
#include "provider/UAClientClassList.h"
#include "scheduling/ThreadPool.h"
#include "support/FrameworkDouble.h"
#include "support/Wait.h"

namespace {

using XRV::testing::FakeClock;
using XRV::testing::waitUntil;

// A provider that records when each collection started (on the framework clock). A
// collection takes `collectMillis` of the framework clock, and waits while the
// provider is held.
class TimedSource : public ResultsManager {
 public:
  TimedSource(const char* group, int interval, int millis, int type = UA_SCRIPT)
      : ResultsManager("XRV", group, type), collectMillis(millis) {
    setRefreshInterval(interval);
  }
  void internalCollectData(const char*) override {
    int now = ++running_;
    int seen = maxRunning_.load();
    while (now > seen && !maxRunning_.compare_exchange_weak(seen, now)) {
    }
    std::unique_lock<std::mutex> lock(mutex_);
    starts_.push_back(fwTimeMillis());
    released_.wait(lock, [this] { return !held_; });
    lock.unlock();
    fwSleepMillis(collectMillis.load());
    --running_;
    ++finished;
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
  void hold(bool held) {
    std::lock_guard<std::mutex> lock(mutex_);
    held_ = held;
    released_.notify_all();
  }

  std::atomic<int> collectMillis;
  std::atomic<int> finished{0};

 private:
  std::atomic<int> running_{0};
  std::atomic<int> maxRunning_{0};
  std::mutex mutex_;
  std::condition_variable released_;
  bool held_ = false;
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

TEST_F(RefreshThreadTest, TurnsStayOnTheGridWhileCollectionsTakeTimeOrTheThreadIsLate) {
  FakeClock clock(1700000000000);  // a whole second
  TimedSource& source = add("Grid", 1, 400);
  ThreadPool pool(2);
  RefreshThread refresh(0, list_, &pool, nullptr);
  const int64_t first = static_cast<int64_t>(source.getNextRefresh()) * 1000;
  ASSERT_EQ(first, fwTimeMillis() + 1000);
  ASSERT_TRUE(refresh.start());
  // Each collection takes 400 ms; the next one still starts at its whole second.
  for (int turn = 0; turn < 2; ++turn) {
    clock.advance(first + turn * 1000 - fwTimeMillis());
    ASSERT_TRUE(waitUntil([&] { return source.finished.load() == turn + 1; })) << turn;
    EXPECT_EQ(source.starts()[static_cast<size_t>(turn)], first + turn * 1000);
  }
  // 2.5 s on (at first + 3.9 s) both late turns, first + 2 s and + 3 s, are taken (run
  // or skipped), and the next one is first + 4 s.
  source.collectMillis = 0;
  clock.advance(2500);
  ASSERT_TRUE(waitUntil([&] {
    return source.starts().size() + static_cast<size_t>(source.getSkippedIntervals()) == 4;
  }));
  EXPECT_EQ(static_cast<int64_t>(source.getNextRefresh()) * 1000, first + 4000);
  refresh.refreshShutdown();
}

TEST_F(RefreshThreadTest, ASlowProviderIsNeverQueuedTwice) {
  FakeClock clock;
  TimedSource& slow = add("Slow", 1);
  ThreadPool pool(4);
  RefreshThread refresh(0, list_, &pool, nullptr);
  ASSERT_TRUE(refresh.start());
  slow.hold(true);
  struct Release {  // before the pool waits for its workers, also when a check fails
    TimedSource& source;
    ~Release() { source.hold(false); }
  } release{slow};
  clock.advance(1000);
  ASSERT_TRUE(waitUntil([&] { return slow.starts().size() == 1; }));
  // Two turns while the first collection still runs: both skipped.
  for (int skipped = 1; skipped <= 2; ++skipped) {
    clock.advance(1000);
    ASSERT_TRUE(waitUntil([&] { return slow.getSkippedIntervals() == skipped; })) << skipped;
  }
  slow.hold(false);
  ASSERT_TRUE(waitUntil([&] { return !slow.isOnQueue(); }));
  clock.advance(1000);
  ASSERT_TRUE(waitUntil([&] { return slow.starts().size() == 2; })) << "queued again once done";
  refresh.refreshShutdown();
  EXPECT_EQ(slow.maxRunning(), 1) << "never two collections at once";
  EXPECT_EQ(slow.getSkippedIntervals(), 2);
  pool.shutdown();
}

TEST_F(RefreshThreadTest, OnTheSystemClockTurnsComeOnTimeAndStopIsPrompt) {
  TimedSource& source = add("Soon", 1);
  RefreshThread refresh(0, list_, nullptr, nullptr);
  const int64_t due = static_cast<int64_t>(source.getNextRefresh()) * 1000;
  ASSERT_TRUE(refresh.start());
  ASSERT_TRUE(waitUntil([&] { return source.finished.load() == 1; }));
  EXPECT_GE(source.starts()[0], due);
  EXPECT_LT(source.starts()[0] - due, 200);
  // The next turn is a second away: stopping does not wait for it.
  auto begin = std::chrono::steady_clock::now();
  refresh.refreshShutdown();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100));
}

TEST_F(RefreshThreadTest, WithoutAPoolTheRefreshThreadCollectsItself) {
  FakeClock clock;
  setConfigurationProperty("CDP_DP_INITIAL_COLLECTION_DELAY", "0");
  // Without a pool the turn is collectDataIfNeeded: data stay valid for two seconds.
  setConfigurationProperty("CDP_DP_CACHE_TTL", "2");
  TimedSource& inline_ = add("INLINE", 1);
  RefreshThread refresh(0, list_, nullptr, nullptr);
  ASSERT_TRUE(refresh.start());
  for (int turn = 1; turn <= 3; ++turn) {
    ASSERT_TRUE(waitUntil([&] {
      return inline_.getCacheHitCount() + static_cast<int64_t>(inline_.starts().size()) == turn;
    })) << turn;
    clock.advance(1000);
  }
  refresh.refreshShutdown();
  EXPECT_EQ(inline_.starts().size(), 2u) << "collected at 0 and 2 s, the cache used at 1 s";
  EXPECT_FALSE(inline_.isOnQueue());
}

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
  TimedSource& source = add("Raced", 3600);
  ThreadPool pool(1);
  RefreshThread refresh(0, list_, &pool, nullptr);
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<int> ready{0};
    std::vector<std::thread> racers;
    source.hold(true);  // the first job stays on the queue while the others race
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
    source.hold(false);
    ASSERT_TRUE(waitUntil([&] { return !source.isOnQueue(); }));
  }
  pool.shutdown();
  EXPECT_EQ(source.starts().size(), static_cast<size_t>(kRounds));
  EXPECT_EQ(source.getSkippedIntervals(), kRounds * (kRacers - 1));
}

}  // namespace
