// The "env_variable" element: a variable that the agent takes into its environment
// from the configuration, so that the commands it runs see it.

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "definition/XMLConfigParser.h"
#include "framework/Configuration.h"
#include "framework/Trace.h"

namespace {

class AgentEnvironmentXMLConfigParser : public XMLConfigParser {
 public:
  AgentEnvironmentXMLConfigParser() { registerXMLConfigParser("env_variable", this); }

  void startElement(const char* name, HashMap* attributes) override {
    XRV_TRACE_FN();
    const char* variable = getString(attributes, "name");
    if (strcmp(name, "env_variable") != 0 || variable == nullptr || *variable == '\0') {
      return;
    }
    char* value = getConfigurationProperty(variable);
    if (value == nullptr) {
      XRV_TRACE_DETAIL("Could not find any value for the variable %s\n", variable);
      return;
    }
    if (setenv(variable, value, 1) != 0) {
      XRV_TRACE_ERROR("Cannot set environment variable %s, errno = %d", variable, errno);
    }
    free(value);
  }
};

AgentEnvironmentXMLConfigParser instance;

}  // namespace
