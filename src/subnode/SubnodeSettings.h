#pragma once

// SubnodeManagerSettings: what the subnode manager is configured with.
//
// fromConfiguration() is the one place that reads the subnode settings from the
// configuration properties (tracing what it rejects); tests fill the fields
// themselves. A plain value: copied into the manager, which never changes it, so
// it needs no lock.

#include <string>

struct SubnodeManagerSettings {
  // CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE: "UP" (any case, the default) registers
  // new subnodes at once; "DOWN" holds them back until data has been collected.
  bool registerNewNodes = true;
  // The host name put in front of subnode keys in MSNs: CTAFW_HOSTNAME when
  // CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN is on; empty for none.
  std::string msnHostName;
  // CDP_DP_EXCLUDE_SUBNODE_TYPE_FROM_MSN: subnodes of this type have MSNs without
  // their type; empty for none.
  std::string excludedType;
  // CDP_DP_GARBAGE_COLLECTION_INTERVAL: seconds between zombie-killer passes.
  int garbageCollectionInterval = 600;
  // The application whose name makes the first part of discovered subnodes' MSNs;
  // empty: the agent's (applicationSettings().applicationName) at the time of use.
  std::string applicationName;

  static SubnodeManagerSettings fromConfiguration();
};
