#pragma once

// The data sources of the agent's own status groups: they have no outside source
// that could fail, so they always report themselves active, under their group's name.

#include "provider/ResultsManager.h"

class BuiltInStatusProvider : public ResultsManager {
 public:
  BuiltInStatusProvider(const char* applicationName, const char* attributeGroup)
      : ResultsManager(applicationName, attributeGroup, UA_STATUS) {}

  const char* getPerfObjectName() override { return getAttributeGroup(); }
  int getPerfObjectStatus() override { return PERF_OBJECT_ACTIVE; }
  int getPerfErrorCode() override { return OBJECT_ACTIVE; }
};
