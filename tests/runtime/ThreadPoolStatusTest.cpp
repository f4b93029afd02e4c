#include "runtime/ThreadPoolStatus.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "scheduling/ThreadPool.h"

namespace {

TEST(ThreadPoolStatus, OneRowOfThePoolsStatistics) {
  std::string attributes;
  for (const char* name : {"Thread_Pool_Size", "Thread_Pool_Max_Size", "Thread_Pool_Active_Threads",
                           "Thread_Pool_Avg_Active_Threads", "Thread_Pool_Min_Active_Threads",
                           "Thread_Pool_Max_Active_Threads", "Thread_Pool_Queue_Length",
                           "Thread_Pool_Avg_Queue_Length", "Thread_Pool_Min_Queue_Length",
                           "Thread_Pool_Max_Queue_Length", "Thread_Pool_Avg_Job_Wait",
                           "Thread_Pool_Total_Jobs", "Something_Else"}) {
    attributes += std::string("<attr name=\"") + name + "\" type=\"0\" size=\"4\"/>";
  }
  AttributeGroupMeta* meta = XRV::testing::defineGroup("Thread_Pool_Status", attributes);
  struct Case {
    bool withPool;
    std::vector<std::string> expected;
  };
  // Before any job: averages -1 (reported × 100), minima the pool size.
  const Case cases[] = {
      {true, {"n", "3", "3", "0", "-100", "3", "0", "0", "-100", "3", "0", "-100", "0", "0"}},
      {false, {"n", "0", "0", "0", "-100", "0", "0", "0", "-100", "0", "0", "-100", "0", "0"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.withPool ? "a pool of 3" : "no pool");
    ThreadPool pool(3);
    ThreadPoolStatus status("ZQM", "Thread_Pool_Status", meta, c.withPool ? &pool : nullptr);
    status.start();
    status.collectData(nullptr);
    XRV::testing::DecodingRequest request(meta);
    status.sendDataToAFW(&request, "n");
    ASSERT_EQ(request.rows.size(), 1u);
    EXPECT_EQ(request.rows[0], c.expected);
  }
  resetDefinitionState();
}

}  // namespace
