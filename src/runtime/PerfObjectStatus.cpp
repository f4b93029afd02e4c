#include "runtime/PerfObjectStatus.h"

#include <cstring>
#include <string>
#include <vector>

#include "definition/AttributeGroupMeta.h"
#include "definition/Metric.h"
#include "framework/Trace.h"
#include "provider/GroupMetrics.h"
#include "provider/PerfObject.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/UAClientClassList.h"
#include "subnode/SubnodeManager.h"

namespace {

// What one provider reports, copied while the subnode manager's lock is held.
struct ProviderStatus {
  std::string group;
  std::string objectName;
  std::string subnodeKey;
  std::string standardError;
  std::string detail;
  int objectType = 0;
  int status = PERF_OBJECT_ACTIVE;
  int errorCode = OBJECT_ACTIVE;
  int refreshInterval = 0;
  int returnCode = 0;
  int64_t skippedIntervals = 0;
  PerfStats stats;
};

ProviderStatus statusOf(UAClientClass* provider) {
  ProviderStatus s;
  s.group = provider->getAttributeGroup();
  s.subnodeKey = provider->getSubnodeKey() == nullptr ? "" : provider->getSubnodeKey();
  s.objectType = provider->getObjectType();
  s.refreshInterval = provider->getRefreshInterval();
  s.skippedIntervals = provider->getSkippedIntervals();
  s.stats = provider->getPerfstats();
  const char* name = provider->getPerfObjectName();
  s.objectName = name == nullptr ? s.group : name;
  s.status = provider->getPerfObjectStatus();
  s.errorCode = provider->getPerfErrorCode();
  s.returnCode = provider->getCollectionReturnCode();
  s.standardError = provider->getCollectionStdErr();
  s.detail = provider->getCollectionDetail();
  return s;
}

std::string collectionStart(const ProviderStatus& s) {
  if (s.stats.collections == 0) {
    return "";
  }
  char stamp[17];
  UAClientClass::formatTimeStampMillis(s.stats.lastStartMillis, stamp, sizeof stamp);
  return stamp;
}

using Field = StatusField<ProviderStatus>;

long long none(const ProviderStatus&) { return 0; }
long long statusNumber(const ProviderStatus& s) { return s.status; }
std::string statusName(const ProviderStatus& s) { return perfObjectStatusName(s.status); }
long long errorNumber(const ProviderStatus& s) { return s.errorCode; }
std::string errorName(const ProviderStatus& s) { return perfObjectErrorCodeName(s.errorCode); }

const Field kFields[] = {
    {"Query_Name", none, [](const ProviderStatus& s) { return s.group; }},
    {"Object_Name", none, [](const ProviderStatus& s) { return s.objectName; }},
    {"Subnode_Key", none, [](const ProviderStatus& s) { return s.subnodeKey; }},
    {"Object_Type", [](const ProviderStatus& s) -> long long { return s.objectType; }, nullptr},
    {"Object_Status", statusNumber, statusName},
    {"Object_Status_Name", statusNumber, statusName},
    {"Error_Code", errorNumber, errorName},
    {"Error_Code_Name", errorNumber, errorName},
    {"Refresh_Interval", [](const ProviderStatus& s) -> long long { return s.refreshInterval; },
     nullptr},
    {"Number_of_Collections",
     [](const ProviderStatus& s) -> long long { return s.stats.collections; }, nullptr},
    {"Cache_Hits", [](const ProviderStatus& s) -> long long { return s.stats.cacheHits; }, nullptr},
    {"Skipped_Intervals", [](const ProviderStatus& s) -> long long { return s.skippedIntervals; },
     nullptr},
    {"Last_Collection_Start",
     [](const ProviderStatus& s) -> long long {
       return s.stats.collections == 0 ? 0 : s.stats.lastStartMillis;
     },
     collectionStart},
    {"Last_Collection_Duration",
     [](const ProviderStatus& s) -> long long { return s.stats.lastDurationMillis; }, nullptr},
    // × 100, as the other status groups report averages: -100 before the first one.
    {"Average_Collection_Duration",
     [](const ProviderStatus& s) -> long long {
       return static_cast<long long>(s.stats.averageDurationMillis * 100);
     },
     nullptr},
    {"Maximum_Collection_Duration",
     [](const ProviderStatus& s) -> long long { return s.stats.maxDurationMillis; }, nullptr},
    {"Last_Return_Code", [](const ProviderStatus& s) -> long long { return s.returnCode; },
     nullptr},
    {"Last_Standard_Error", none, [](const ProviderStatus& s) { return s.standardError; }},
    {"Collection_Detail", none, [](const ProviderStatus& s) { return s.detail; }},
};

void createForGroup(AttributeGroupMeta* group, const char* groupName) {
  XRV_TRACE_FN();
  auto* provider = new PerfObjectStatus("ZQM", groupName, &queryClassList(), group);
  group->setQuery(provider);
  queryClassList().addClientClass(provider);
}

}  // namespace

PerfObjectStatus::PerfObjectStatus(const char* applicationName, const char* attributeGroup,
                                   UAClientClassList* providers, AttributeGroupMeta* meta)
    : BuiltInStatusProvider(applicationName, attributeGroup), providers_(providers) {
  XRV_TRACE_FN();
  setAttributeGroupMeta(meta);
  addMetricsFromGroup(this, meta);
}

void PerfObjectStatus::internalCollectData(const char* /*subnode*/) {
  XRV_TRACE_FN();
  std::vector<ProviderStatus> statuses;
  SubnodeManager& subnodes = getSubnodeManager();
  subnodes.acquireLock();
  for (UAClientClass* provider = providers_->getFirst(); provider != nullptr;
       provider = static_cast<UAClientClass*>(provider->getNextElement())) {
    statuses.push_back(statusOf(provider));
  }
  subnodes.releaseLock();
  for (const ProviderStatus& s : statuses) {
    XRV_TRACE_DETAIL("Status of %s%s%s: %s, %s", s.group.c_str(), s.subnodeKey.empty() ? "" : "/",
                     s.subnodeKey.c_str(), perfObjectStatusName(s.status),
                     perfObjectErrorCodeName(s.errorCode));
    auto* row = new ResultInstance("", getMetricCount());
    for (int i = 0; i < getMetricCount(); ++i) {
      row->addMetric(statusFieldValue(getMetric(i), s, kFields));
    }
    addResultInstance(row);
  }
}

void PerfObjectStatus::printResults() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Instances and Values for %s class", getAttributeGroup());
  printResultInstances();
}

void installPerfObjectStatusHook() { setPerfObjectStatusHook(createForGroup); }
