#pragma once

// ThreadPoolStatus: the built-in data source of the "Thread_Pool_Status" attribute
// group: one row with the pool's size, load and waits. The agent definition declares
// the group's attributes; the values are matched to them by attribute name
// ("Thread_Pool_Size", "Thread_Pool_Active_Threads", "Thread_Pool_Avg_Job_Wait", ...).
// Averages are reported × 100; attributes of other names report 0.

#include "runtime/BuiltInStatusProvider.h"

class AttributeGroupMeta;
class ThreadPool;

class ThreadPoolStatus : public BuiltInStatusProvider {
 public:
  // `pool` may be null (no pool configured): the row then reports an empty pool.
  ThreadPoolStatus(const char* applicationName, const char* attributeGroup,
                   AttributeGroupMeta* meta, ThreadPool* pool);

  void internalCollectData(const char* subnode) override;
  void printResults() override;

 private:
  ThreadPool* pool_;
};
