#include "runtime/ThreadPoolStatus.h"

#include <cstring>
#include <string>

#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "definition/Metric.h"
#include "framework/Trace.h"
#include "provider/GroupMetrics.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "scheduling/ThreadPool.h"

ThreadPoolStatus::ThreadPoolStatus(const char* applicationName, const char* attributeGroup,
                                   AttributeGroupMeta* meta, ThreadPool* pool)
    : BuiltInStatusProvider(applicationName, attributeGroup), pool_(pool) {
  XRV_TRACE_FN();
  setAttributeGroupMeta(meta);
  addMetricsFromGroup(this, meta);
}

void ThreadPoolStatus::internalCollectData(const char* /*subnode*/) {
  XRV_TRACE_FN();
  ThreadPoolStatistics statistics;
  if (pool_ != nullptr) {
    statistics = pool_->getTPStatistics();
  }
  const struct {
    const char* name;
    int value;
  } values[] = {
      {"Thread_Pool_Size", statistics.threads},
      {"Thread_Pool_Max_Size", statistics.threads},
      {"Thread_Pool_Active_Threads", statistics.active},
      {"Thread_Pool_Avg_Active_Threads", static_cast<int>(statistics.averageActive * 100)},
      {"Thread_Pool_Min_Active_Threads", statistics.minimumActive},
      {"Thread_Pool_Max_Active_Threads", statistics.maximumActive},
      {"Thread_Pool_Queue_Length", statistics.queueLength},
      {"Thread_Pool_Avg_Queue_Length", static_cast<int>(statistics.averageQueueLength * 100)},
      {"Thread_Pool_Min_Queue_Length", statistics.minimumQueueLength},
      {"Thread_Pool_Max_Queue_Length", statistics.maximumQueueLength},
      {"Thread_Pool_Avg_Job_Wait", static_cast<int>(statistics.averageJobWait * 100)},
      {"Thread_Pool_Total_Jobs", statistics.completed},
  };
  auto* row = new ResultInstance(getAttributeGroup(), getMetricCount());
  for (int i = 0; i < getMetricCount(); ++i) {
    const Metric* metric = getMetric(i);
    XRV_TRACE_DETAIL("Dealing with metric %s", metric->getMetricName());
    int value = 0;
    for (const auto& known : values) {
      if (strcmp(known.name, metric->getMetricName()) == 0) {
        value = known.value;
        break;
      }
    }
    if (metric->isStringType()) {
      row->addMetric(new ResultMetric(metric, std::to_string(value).c_str()));
    } else {
      row->addMetric(new ResultMetric(metric, value));
    }
  }
  addResultInstance(row);
}

void ThreadPoolStatus::printResults() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Instances and Values for Thread_Pool_Status class");
  printResultInstances();
}
