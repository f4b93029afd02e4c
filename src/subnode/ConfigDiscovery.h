#pragma once

// Configuration discovery: subnodes defined by the operator in the configuration file.
//
// ConfigDiscoveryQueryClass fills a discovery attribute group (the "config_discovery"
// element of the agent definition) with one row per [subnode TYPE KEY] section of the
// configuration file, in the columns the subnode manager reads:
//
//   Subnode_Key       KEY
//   Subnode_Type      TYPE
//   Subnode_Affinity  the section's AFFINITY, else the agent's own affinity
//   Subnode_Version   the section's VERSION, else the agent's own version
//   Subnode_Status    "ONLINE"
//   any other column  the section's value of the same name (empty, or 0, when absent)
//
// Values taken from a section have their "${NAME}" references expanded twice (a
// value may refer to a value that refers to another), looked up in the section first.
// With a `type` only the sections of that subnode type are reported.
//
// periodicallyUpdateDiscoveryAttributeGroups is the discovery-update thread: it
// collects every discovery attribute group of the agent (configuration discovery or
// any other data source) on the group's refresh interval, 60 seconds when it has
// none, and hands the rows to the subnode manager, which adds and removes subnodes.
// Before that it makes the provider copies of the subnodes the configuration file
// names (SubnodeManager::applyConfiguredSubnodes) and starts the new ones, so that
// every configured subnode has its own copies when discovery reports it.

#include <atomic>
#include <string>

#include "provider/ResultsManager.h"

class AttributeGroupMeta;
class SubnodeManager;
class UAClientClassList;

class ConfigDiscoveryQueryClass : public ResultsManager {
 public:
  // `subnodeType`: report only sections of this type; null or empty for all.
  ConfigDiscoveryQueryClass(const char* applicationName, const char* attributeGroup,
                            const char* subnodeType);
  ConfigDiscoveryQueryClass(const ConfigDiscoveryQueryClass* source, const char* subnodeKey);

  // Without metrics of its own (a "config_discovery" element without "metric"
  // children) the provider takes one per attribute of `group`, in row order: text
  // attributes as strings, numeric ones as numbers, the subnode key and type as keys.
  // Does nothing when it has metrics already.
  void addMetricsFromGroup(const AttributeGroupMeta* group);

  // Takes its metrics from its group when it has none yet, then starts.
  void start() override;
  void internalCollectData(const char* subnode) override;
  UAClientClass* subnodeCopy(const char* subnodeKey, UAClientClassList* list) override;
  void printResults() override;
  const char* getPerfObjectName() override { return getAttributeGroup(); }
  int getPerfObjectStatus() override {
    return isCollectionDisabled() ? PERF_OBJECT_INACTIVE : PERF_OBJECT_ACTIVE;
  }
  int getPerfErrorCode() override { return isCollectionDisabled() ? DISABLED : errorCode_.load(); }

  const std::string& getSubnodeTypeFilter() const { return subnodeType_; }

 private:
  std::string subnodeType_;
  std::atomic<int> errorCode_{OBJECT_ACTIVE};
};

// Collects every discovery attribute group of `providers` once (their own providers,
// not subnode copies) and hands its rows to `manager`; first makes and starts the
// provider copies of configured subnodes. Returns the number of discovery groups
// collected. The no-argument form works on queryClassList() and getSubnodeManager().
int updateDiscoveryAttributeGroups(UAClientClassList& providers, SubnodeManager& manager);
int updateDiscoveryAttributeGroups();

// The discovery-update thread (pthread entry; the argument is unused). Runs until
// stopDiscoveryAttributeGroupUpdates.
void* periodicallyUpdateDiscoveryAttributeGroups(void* unused);

// Wakes the discovery-update thread and returns once it has left its loop (a
// collection it is running is let finish). Safe to call when no thread runs, and
// before one starts: a thread started afterwards ends at once.
void stopDiscoveryAttributeGroupUpdates();

// Lets a discovery-update thread run again after a stop (tests).
void resetDiscoveryAttributeGroupUpdatesForTesting();
