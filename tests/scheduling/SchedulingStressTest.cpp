// The scheduler under load while subnodes come and go: a pool of 4, the refresh
// thread, 50 providers refreshed every second of a clock the test moves, and another
// thread that removes and adds subnodes and collects their zombies. Under the
// sanitizers (make check-asan, make check-tsan) this is the test of the locking and of
// the providers' lifetimes.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "provider/UAClientClassList.h"
#include "scheduling/CollectDataJob.h"
#include "scheduling/RefreshThread.h"
#include "scheduling/ThreadPool.h"
#include "subnode/SubnodeManager.h"
#include "support/FrameworkDouble.h"
#include "support/TestConfiguration.h"
#include "support/Wait.h"

namespace {

using XRV::testing::TestQueryClass;

SubnodeManager* stressManager = nullptr;
void onCollectionDone(UAClientClass* provider) { stressManager->collectionDone(provider); }

TEST(SchedulingStress, FiftyProvidersWhileSubnodesComeAndGo) {
  XRV::testing::FrameworkDouble framework;
  XRV::testing::ConfigurationFile configuration;
  const std::vector<std::string> keys = {"s1", "s2", "s3", "s4"};
  std::string sections = "[agent]\nCDP_DP_INITIAL_COLLECTION_DELAY = 0\n";
  for (const std::string& key : keys) {
    sections += "[subnode LNX " + key + "]\nHOST = " + key + "\n";
  }
  ASSERT_TRUE(configuration.load(sections));

  UAClientClassList list;
  SubnodeManagerSettings settings;
  settings.applicationName = "XRV";
  SubnodeManager manager(settings, &list);
  stressManager = &manager;
  setCollectionDoneHook(onCollectionDone);

  std::vector<std::unique_ptr<TestQueryClass>> providers;
  for (int i = 0; i < 50; ++i) {
    std::string group = (i < 40 ? "PLAIN" : "SUB") + std::to_string(i);
    AttributeGroupMeta* meta = XRV::testing::defineGroup(
        group.c_str(), R"(<attr name="Name" type="2" size="8"/><attr name="V" type="0" size="4"/>)",
        i < 40 ? "" : R"(subnode_type="LNX")");
    providers.push_back(std::make_unique<TestQueryClass>(
        group.c_str(), std::vector<XRV::testing::TestMetric>{{"Name", STRING_DATA, true}, {"V"}}));
    providers.back()->setAttributeGroupMeta(meta);
    providers.back()->setRefreshInterval(1);
    providers.back()->rows = {{"a", "1"}, {"b", "2"}};
    providers.back()->start();
    list.addClientClass(providers.back().get());
  }
  std::set<UAClientClass*> started;
  auto startCopies = [&] {
    for (UAClientClass* p = list.getFirst(); p != nullptr;
         p = static_cast<UAClientClass*>(p->getNextElement())) {
      if (p->getSubnodeKey() != nullptr && started.insert(p).second) {
        p->start();
      }
    }
  };
  auto msnOf = [&](const std::string& key) {
    char buffer[SUBNODE_MSN_BUFFER_SIZE];
    manager.generateSubnodeManagedSystemName("XRV", key.c_str(), "LNX", buffer);
    return std::string(buffer);
  };
  EXPECT_EQ(manager.applyConfiguredSubnodes(list), 40) << "10 groups x 4 subnodes";
  startCopies();
  for (const std::string& key : keys) {
    ASSERT_TRUE(manager.addSubnode(msnOf(key).c_str(), key.c_str(), "LNX", "aff", "ver", nullptr));
  }

  XRV::testing::FakeClock clock;
  ThreadPool pool(4);
  RefreshThread refresh(0, list, &pool, &manager);
  ASSERT_TRUE(refresh.start());
  std::atomic<bool> stop{false};
  std::atomic<int> churns{0};
  std::thread churn([&] {
    for (size_t i = 0; !stop.load(); ++i) {
      const std::string& key = keys[i % keys.size()];
      EXPECT_TRUE(manager.removeSubnode(msnOf(key).c_str()));
      manager.runGarbageCollection();
      manager.applyConfiguredSubnodes(list);
      startCopies();
      EXPECT_TRUE(
          manager.addSubnode(msnOf(key).c_str(), key.c_str(), "LNX", "aff", "ver", nullptr));
      ++churns;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  // Five turns, each once the last one's plain collections are done, while the churn
  // goes on; then on until it has churned enough.
  auto plainCollected = [&](int turns) {
    return std::all_of(providers.begin(), providers.begin() + 40,
                       [turns](const auto& p) { return p->collections >= turns; });
  };
  for (int turn = 1; turn <= 5; ++turn) {
    clock.advance(1000);
    XRV::testing::waitUntil([&] { return plainCollected(turn); });
  }
  EXPECT_TRUE(XRV::testing::waitUntil([&] { return churns.load() > 20; }, 60)) << "churn stalled";
  stop.store(true);
  churn.join();
  refresh.refreshShutdown();
  pool.shutdown();
  setCollectionDoneHook(nullptr);

  EXPECT_TRUE(plainCollected(5)) << "every plain group collected on every turn";
  // Every subnode still has its ten copies, and they collected.
  for (const std::string& key : keys) {
    EXPECT_TRUE(manager.isManagingSubnode(msnOf(key).c_str()));
  }
  EXPECT_EQ(manager.getAllSubnodeQueryClasses(nullptr).size(), 40u);

  // The live copies belong to the list; the manager deletes the zombies.
  std::vector<UAClientClass*> copies;
  for (UAClientClass* p = list.getFirst(); p != nullptr;
       p = static_cast<UAClientClass*>(p->getNextElement())) {
    if (p->getSubnodeKey() != nullptr) {
      copies.push_back(p);
    }
  }
  for (UAClientClass* copy : copies) {
    list.removeClientClass(copy);
    delete copy;
  }
  for (auto& provider : providers) {
    list.removeClientClass(provider.get());
  }
  resetDefinitionState();
}

}  // namespace
