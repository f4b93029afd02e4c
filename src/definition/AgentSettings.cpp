#include "definition/AgentSettings.h"

#include <cstdlib>
#include <vector>

#include "definition/AttributeGroupMeta.h"
#include "framework/Trace.h"

XRV::String instanceName;

ApplicationSettings& applicationSettings() {
  static ApplicationSettings settings;
  return settings;
}

AgentInformation agentInformation() {
  const ApplicationSettings& s = applicationSettings();
  return AgentInformation{s.applicationName.c_str(), s.nodeType.c_str(), s.affinity.c_str(),
                          s.agentVersion.c_str(),    s.version.c_str(),  s.serviceName.c_str(),
                          instanceName.c_str()};
}

List& repeatableSections() {
  static List sections;
  return sections;
}

namespace {

std::vector<DefinitionResetHook>& resetHooks() {
  static std::vector<DefinitionResetHook> hooks;
  return hooks;
}

}  // namespace

void addDefinitionResetHook(DefinitionResetHook hook) { resetHooks().push_back(hook); }

void resetDefinitionState() {
  XRV_TRACE_FN();
  for (DefinitionResetHook hook : resetHooks()) {
    hook();
  }
  clearMetaMap();
  while (repeatableSections().getCount() > 0) {
    free(repeatableSections().pop());
  }
  applicationSettings() = ApplicationSettings();
}
