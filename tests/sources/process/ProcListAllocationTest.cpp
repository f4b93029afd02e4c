// A snapshot in the steady state allocates nothing per process: its allocations do
// not grow with the number of processes (counted at malloc; skipped under the
// sanitizers, which replace malloc themselves).

#include <gtest/gtest.h>

#include <string>

#include "FakeProc.h"
#include "sources/process/ProcList.h"
#include "support/CountingMalloc.h"

namespace {

using XRV::testing::FakeProc;
using XRV::testing::FakeProcess;
using XRV::testing::mallocCalls;

// A tree of `count` processes of two users, with command lines of every length.
void fill(FakeProc& proc, int count) {
  for (int i = 0; i < count; ++i) {
    proc.add(FakeProcess{.pid = 1000 + i,
                         .name = "worker" + std::to_string(i % 7),
                         .uid = i % 2 == 0 ? 0 : 65534,
                         .kernelThread = i % 11 == 0,
                         .cmdline = std::string(static_cast<size_t>(1 + i % 300), 'a') + '\0' + "x",
                         .descriptors = 0});
  }
}

// Allocations of one refresh after two to warm up.
long steadyAllocations(ProcList& list) {
  list.refresh();
  list.refresh();
  const long before = mallocCalls.load();
  EXPECT_TRUE(list.refresh());
  return mallocCalls.load() - before;
}

TEST(ProcListAllocationTest, ASteadySnapshotAllocatesNothingPerProcess) {
#ifdef XRV_SANITIZED
  GTEST_SKIP() << "the sanitizers replace malloc";
#endif
  FakeProc small;
  FakeProc large;
  fill(small, 20);
  fill(large, 400);
  ProcList smallList(ProcList::FULL_STATUS_INFO, small.root().c_str());
  ProcList largeList(ProcList::FULL_STATUS_INFO, large.root().c_str());
  smallList.setWalkerCount(2);
  largeList.setWalkerCount(2);
  const long fewer = steadyAllocations(smallList);
  const long more = steadyAllocations(largeList);
  EXPECT_EQ(smallList.getCount(), 20);
  EXPECT_EQ(largeList.getCount(), 400);
  // The same fixed cost (the walker threads, one user lookup per user), 380
  // processes more.
  EXPECT_EQ(more, fewer);
  EXPECT_GT(fewer, 0) << "nothing counted: is malloc interposed?";
}

}  // namespace
