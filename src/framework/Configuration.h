#pragma once

// Configuration-property lookup: how the framework answers fwGetEnv.
//
// A property is looked up, first match wins, in
//   1. values set at run time with setConfigurationProperty (start-up stores
//      "XRV_AGENT_MSN" this way);
//   2. the process environment;
//   3. the [agent] section of the configuration file named by XRV_CONFIG_FILE,
//      once loadAgentConfig has read it.
// Subnode lookups try the matching [subnode TYPE KEY] section before all of these.
//
// Every text returned is an owned copy (free() it) or null. Thread-safe: lookups
// may run on any thread while the file is reloaded or values are set.

#include <string>
#include <utility>
#include <vector>

namespace XRV {

struct SubnodeSectionName {
  std::string type;
  std::string key;
};

}  // namespace XRV

// Reads the file named by XRV_CONFIG_FILE (nothing to do, and true, when unset).
// An unreadable or malformed file makes it return false, with "FILE:LINE: what is
// wrong" in *error and the same text traced; the previously loaded values stay.
bool loadAgentConfig(std::string* error = nullptr);

char* getConfigurationProperty(const char* name);
// Sets (or, with a null value, removes) a run-time value that overrides the
// environment and the file.
void setConfigurationProperty(const char* name, const char* value);
char* getSubnodeConfigurationProperty(const char* name, const char* subnodeType,
                                      const char* subnodeKey);

// The same lookup as getConfigurationProperty with a default: an owned copy of the
// value, else of `defaultValue`, else null.
char* fwGetEnv(const char* name, const char* defaultValue);

// The NAME = value lines of one [subnode TYPE KEY] section, in file order. False
// when the file has no such section.
bool getSubnodeSection(const char* subnodeType, const char* subnodeKey,
                       std::vector<std::pair<std::string, std::string>>* values);
// The [subnode TYPE KEY] sections of the file, in order of first appearance.
std::vector<XRV::SubnodeSectionName> listSubnodeSections();

// Forgets the file and every run-time value (tests start from a clean state).
void resetConfigurationForTesting();
