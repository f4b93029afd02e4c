#include "subnode/SubnodeConfiguration.h"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "foundation/HashMap.h"
#include "framework/Configuration.h"
#include "framework/Trace.h"

HashMap* getSubnodeConfiguration(const char* subnodeType, const char* subnodeKey) {
  XRV_TRACE_FN();
  std::vector<std::pair<std::string, std::string>> values;
  if (!getSubnodeSection(subnodeType, subnodeKey, &values)) {
    XRV_TRACE_DETAIL("No configuration section for subnode %s %s",
                     subnodeType == nullptr ? "(null)" : subnodeType,
                     subnodeKey == nullptr ? "(null)" : subnodeKey);
    return nullptr;
  }
  auto* configuration = new HashMap(static_cast<int>(values.size()));
  for (const auto& [name, value] : values) {
    configuration->put(strdup(name.c_str()), strdup(value.c_str()));
  }
  return configuration;
}

void freeSubnodeConfiguration(HashMap* configuration) {
  XRV_TRACE_FN();
  if (configuration == nullptr) {
    return;
  }
  configuration->foreach (hashMapFreeKeyData, nullptr);
  delete configuration;
}
