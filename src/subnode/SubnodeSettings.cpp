#include "subnode/SubnodeSettings.h"

#include <strings.h>

#include <cstdlib>

#include "framework/Configuration.h"
#include "framework/Framework.h"
#include "framework/Trace.h"

// Settings (configuration properties, read once when the process-wide manager is made):
//
//   CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE  UP (default): register new subnodes at
//                                               once; DOWN: once data was collected
//   CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN          Y: CTAFW_HOSTNAME + "_" in front of keys
//   CDP_DP_EXCLUDE_SUBNODE_TYPE_FROM_MSN        a subnode type whose MSNs leave it out
//   CDP_DP_GARBAGE_COLLECTION_INTERVAL          seconds between zombie-killer passes; 600

namespace {

constexpr int kDefaultGarbageCollectionInterval = 600;

bool flagIsOn(const char* value) {
  return value != nullptr && (value[0] == 'y' || value[0] == 'Y');
}

}  // namespace

SubnodeManagerSettings SubnodeManagerSettings::fromConfiguration() {
  XRV_TRACE_FN();
  SubnodeManagerSettings settings;

  char* state = fwGetEnv("CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE", nullptr);
  if (state != nullptr && *state != '\0') {
    if (strcasecmp(state, "DOWN") == 0) {
      settings.registerNewNodes = false;
      XRV_TRACE_DETAIL(
          "CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE set to DOWN, new nodes will be not be "
          "registered until data is collected");
    } else if (strcasecmp(state, "UP") != 0) {
      XRV_TRACE_ERROR(
          "CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE - invalid value %s, new nodes will be "
          "registered",
          state);
    }
  }
  free(state);

  char* useHostName = fwGetEnv("CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN", nullptr);
  if (flagIsOn(useHostName)) {
    char* hostName = fwGetConfiguredHostName();
    if (hostName != nullptr && *hostName != '\0') {
      settings.msnHostName = hostName;
    } else {
      XRV_TRACE_ERROR(
          "CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN is set, but CTAFW_HOSTNAME is not; subnode MSNs "
          "will not include a host name");
    }
    free(hostName);
  }
  free(useHostName);

  char* excluded = fwGetEnv("CDP_DP_EXCLUDE_SUBNODE_TYPE_FROM_MSN", nullptr);
  if (excluded != nullptr) {
    settings.excludedType = excluded;
    free(excluded);
  }

  char* interval = fwGetEnv("CDP_DP_GARBAGE_COLLECTION_INTERVAL", nullptr);
  if (interval != nullptr && *interval != '\0') {
    int seconds = atoi(interval);
    if (seconds >= 1) {
      settings.garbageCollectionInterval = seconds;
    } else {
      XRV_TRACE_ERROR("CDP_DP_GARBAGE_COLLECTION_INTERVAL - invalid value %s, using %d seconds",
                      interval, kDefaultGarbageCollectionInterval);
    }
  }
  free(interval);
  return settings;
}
