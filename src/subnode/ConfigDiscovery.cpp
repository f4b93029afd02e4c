#include "subnode/ConfigDiscovery.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "definition/Metric.h"
#include "foundation/UTF8String.h"
#include "foundation/Utilities.h"
#include "framework/Configuration.h"
#include "framework/Trace.h"
#include "provider/GroupMetrics.h"
#include "provider/NumericParser.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/UAClientClassList.h"
#include "subnode/SubnodeManager.h"

namespace {

constexpr char kKeyColumn[] = "Subnode_Key";
constexpr char kTypeColumn[] = "Subnode_Type";
constexpr char kAffinityColumn[] = "Subnode_Affinity";
constexpr char kVersionColumn[] = "Subnode_Version";
constexpr char kStatusColumn[] = "Subnode_Status";
constexpr char kOnline[] = "ONLINE";
constexpr char kAffinityKey[] = "AFFINITY";
constexpr char kVersionKey[] = "VERSION";
// Seconds between collections of a discovery group without a refresh interval.
constexpr int kDefaultDiscoveryInterval = 60;

using SectionValues = std::vector<std::pair<std::string, std::string>>;

const std::string* findValue(const SectionValues& values, const char* name) {
  for (const auto& [key, value] : values) {
    if (key == name) {
      return &value;
    }
  }
  return nullptr;
}

// `text` with its "${NAME}" references expanded twice, looked up in the section of
// `type` and `key` first.
std::string expandTwice(const std::string& text, const char* type, const char* key) {
  char* once = Utilities::substituteEnvVars(text.c_str(), type, key, true);
  if (once == nullptr) {
    return text;
  }
  char* twice = Utilities::substituteEnvVars(once, type, key, true);
  std::string expanded = twice == nullptr ? once : twice;
  free(twice);
  free(once);
  return expanded;
}

// The value of the column `name` for the section `type` `key`.
std::string columnValue(const char* name, const std::string& type, const std::string& key,
                        const SectionValues& values) {
  if (strcmp(name, kKeyColumn) == 0) {
    return key;
  }
  if (strcmp(name, kTypeColumn) == 0) {
    return type;
  }
  if (strcmp(name, kStatusColumn) == 0) {
    return kOnline;
  }
  const char* own = nullptr;
  const char* configured = name;
  if (strcmp(name, kAffinityColumn) == 0) {
    own = applicationSettings().affinity.c_str();
    configured = kAffinityKey;
  } else if (strcmp(name, kVersionColumn) == 0) {
    own = applicationSettings().version.c_str();
    configured = kVersionKey;
  }
  if (const std::string* value = findValue(values, configured)) {
    return expandTwice(*value, type.c_str(), key.c_str());
  }
  return own == nullptr ? std::string() : std::string(own);
}

ResultMetric* makeValue(const Metric* metric, const std::string& text) {
  if (metric->isStringType() || metric->getRawMetricType() == VALUE_CHANGED) {
    return new ResultMetric(metric, new UTF8String(text.c_str(), text.size()));
  }
  return parseNumericString(metric, text.c_str());
}

}  // namespace

// --- The data source ---

ConfigDiscoveryQueryClass::ConfigDiscoveryQueryClass(const char* applicationName,
                                                     const char* attributeGroup,
                                                     const char* subnodeType)
    : ResultsManager(applicationName, attributeGroup, UA_CONFIG_DISCOVERY),
      subnodeType_(subnodeType == nullptr ? "" : subnodeType) {
  XRV_TRACE_FN();
}

ConfigDiscoveryQueryClass::ConfigDiscoveryQueryClass(const ConfigDiscoveryQueryClass* source,
                                                     const char* subnodeKey)
    : ResultsManager(source, subnodeKey), subnodeType_(source->subnodeType_) {
  XRV_TRACE_FN();
}

void ConfigDiscoveryQueryClass::addMetricsFromGroup(const AttributeGroupMeta* group) {
  XRV_TRACE_FN();
  if (group == nullptr || getMetricCount() > 0) {
    return;
  }
  ::addMetricsFromGroup(this, group);
  // A subnode is known by its type and key.
  for (int i = 0; i < getMetricCount(); ++i) {
    Metric* metric = getMetric(i);
    metric->setIsKey(strcmp(metric->getMetricName(), kTypeColumn) == 0 ||
                     strcmp(metric->getMetricName(), kKeyColumn) == 0);
    XRV_TRACE_DETAIL("Attribute group %s: attribute %s from the metadata", getAttributeGroup(),
                     metric->getMetricName());
  }
}

void ConfigDiscoveryQueryClass::start() {
  XRV_TRACE_FN();
  addMetricsFromGroup(getAttributeGroupMeta());
  ResultsManager::start();
}

void ConfigDiscoveryQueryClass::internalCollectData(const char* /*subnode*/) {
  XRV_TRACE_FN();
  int rows = 0;
  SectionValues values;
  for (const XRV::SubnodeSectionName& section : listSubnodeSections()) {
    if (!subnodeType_.empty() && section.type != subnodeType_) {
      continue;
    }
    values.clear();
    if (!getSubnodeSection(section.type.c_str(), section.key.c_str(), &values)) {
      continue;  // the file was reloaded meanwhile
    }
    XRV_TRACE_DETAIL("Configured subnode %s %s", section.type.c_str(), section.key.c_str());
    auto* row = new ResultInstance("", getMetricCount());
    for (int i = 0; i < getMetricCount(); ++i) {
      const Metric* metric = getMetric(i);
      row->addMetric(makeValue(
          metric, columnValue(metric->getMetricName(), section.type, section.key, values)));
    }
    addResultInstance(row);
    ++rows;
  }
  if (rows == 0) {
    XRV_TRACE_DETAIL("The configuration file has no [subnode %s KEY] section",
                     subnodeType_.empty() ? "TYPE" : subnodeType_.c_str());
  }
  errorCode_.store(rows == 0 ? NO_INSTANCES_RETURNED : OBJECT_ACTIVE);
}

UAClientClass* ConfigDiscoveryQueryClass::subnodeCopy(const char* subnodeKey,
                                                      UAClientClassList* list) {
  XRV_TRACE_FN();
  auto* copy = new ConfigDiscoveryQueryClass(this, subnodeKey);
  if (list != nullptr) {
    list->addClientClass(copy);
  }
  return copy;
}

void ConfigDiscoveryQueryClass::printResults() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Instances and Values for %s class", getAttributeGroup());
  printResultInstances();
}

// --- The discovery-update thread ---

namespace {

struct UpdateControl {
  std::mutex mutex;
  std::condition_variable wake;  // a stop was asked for
  std::condition_variable left;  // the thread left its loop
  bool stop = false;
  bool running = false;
};

UpdateControl& control() {
  static auto* updateControl = new UpdateControl();  // outlives every thread
  return *updateControl;
}

bool stopRequested() {
  std::lock_guard<std::mutex> lock(control().mutex);
  return control().stop;
}

UAClientClass* nextProvider(UAClientClass* provider) {
  return static_cast<UAClientClass*>(provider->getNextElement());
}

// The discovery groups' own providers (no subnode copies), in list order.
std::vector<UAClientClass*> discoveryProviders(UAClientClassList& providers,
                                                SubnodeManager& manager) {
  std::vector<UAClientClass*> found;
  manager.acquireLock();
  for (UAClientClass* provider = providers.getFirst(); provider != nullptr;
       provider = nextProvider(provider)) {
    const AttributeGroupMeta* meta = provider->getAttributeGroupMeta();
    if (meta == nullptr || !meta->isDiscoveryAttributeGroup() ||
        provider->getSubnodeKey() != nullptr) {
      continue;
    }
    found.push_back(provider);
  }
  manager.releaseLock();
  return found;
}

// Makes the provider copies of the configured subnodes that have none yet and starts
// them.
void prepareConfiguredSubnodes(UAClientClassList& providers, SubnodeManager& manager) {
  XRV_TRACE_FN();
  std::unordered_set<const UAClientClass*> before;
  manager.acquireLock();
  for (UAClientClass* provider = providers.getFirst(); provider != nullptr;
       provider = nextProvider(provider)) {
    before.insert(provider);
  }
  manager.releaseLock();
  if (manager.applyConfiguredSubnodes(providers) == 0) {
    return;
  }
  std::vector<UAClientClass*> made;
  manager.acquireLock();
  for (UAClientClass* provider = providers.getFirst(); provider != nullptr;
       provider = nextProvider(provider)) {
    if (before.count(provider) == 0) {
      made.push_back(provider);
    }
  }
  manager.releaseLock();
  // Nothing serves them before discovery reports their subnode, so they start here,
  // outside the lock.
  for (UAClientClass* copy : made) {
    XRV_TRACE_DETAIL("Starting the copy of attribute group %s for subnode %s",
                     copy->getAttributeGroup(), copy->getSubnodeKey());
    copy->start();
  }
}

void updateGroup(UAClientClass* group, SubnodeManager& manager) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Updating discovery attribute group %s", group->getAttributeGroup());
  group->collectData(group->getSubnodeKey());
  manager.discoveryAttributeGroupWasUpdated(group);
}

int intervalOf(const UAClientClass* group) {
  int interval = group->getRefreshInterval();
  return interval > 0 ? interval : kDefaultDiscoveryInterval;
}

}  // namespace

int updateDiscoveryAttributeGroups(UAClientClassList& providers, SubnodeManager& manager) {
  XRV_TRACE_FN();
  prepareConfiguredSubnodes(providers, manager);
  int updated = 0;
  for (UAClientClass* group : discoveryProviders(providers, manager)) {
    updateGroup(group, manager);
    ++updated;
  }
  return updated;
}

int updateDiscoveryAttributeGroups() {
  return updateDiscoveryAttributeGroups(queryClassList(), getSubnodeManager());
}

void* periodicallyUpdateDiscoveryAttributeGroups(void* /*unused*/) {
  XRV_TRACE_FN();
  using Clock = std::chrono::steady_clock;
  UpdateControl& updates = control();
  {
    std::lock_guard<std::mutex> lock(updates.mutex);
    if (updates.stop) {
      return nullptr;
    }
    updates.running = true;
  }
  UAClientClassList& providers = queryClassList();
  SubnodeManager& manager = getSubnodeManager();
  std::unordered_map<const UAClientClass*, Clock::time_point> due;
  XRV_TRACE_DETAIL("Discovery update thread started");
  for (;;) {
    Clock::time_point now = Clock::now();
    Clock::time_point next = now + std::chrono::seconds(kDefaultDiscoveryInterval);
    prepareConfiguredSubnodes(providers, manager);
    for (UAClientClass* group : discoveryProviders(providers, manager)) {
      if (stopRequested()) {
        break;
      }
      auto it = due.find(group);
      if (it == due.end() || it->second <= now) {
        updateGroup(group, manager);
        now = Clock::now();
        it = due.insert_or_assign(group, now + std::chrono::seconds(intervalOf(group))).first;
      }
      next = std::min(next, it->second);
    }
    std::unique_lock<std::mutex> lock(updates.mutex);
    updates.wake.wait_until(lock, next, [&updates] { return updates.stop; });
    if (updates.stop) {
      break;
    }
  }
  XRV_TRACE_DETAIL("Discovery update thread ending");
  {
    std::lock_guard<std::mutex> lock(updates.mutex);
    updates.running = false;
  }
  updates.left.notify_all();
  return nullptr;
}

void stopDiscoveryAttributeGroupUpdates() {
  XRV_TRACE_FN();
  UpdateControl& updates = control();
  std::unique_lock<std::mutex> lock(updates.mutex);
  updates.stop = true;
  updates.wake.notify_all();
  updates.left.wait(lock, [&updates] { return !updates.running; });
}

void resetDiscoveryAttributeGroupUpdatesForTesting() {
  std::lock_guard<std::mutex> lock(control().mutex);
  control().stop = false;
}
