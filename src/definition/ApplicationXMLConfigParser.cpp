// The "appl" element: the application's name, node type, affinity and versions.

#include <cstdlib>
#include <cstring>
#include <string>

#include "definition/AgentSettings.h"
#include "definition/ConfigXMLParser.h"
#include "foundation/HashMap.h"
#include "framework/Configuration.h"
#include "framework/Trace.h"

namespace {

class ApplicationXMLConfigParser : public XMLConfigParser {
 public:
  ApplicationXMLConfigParser() { registerXMLConfigParser("appl", this); }

  void startElement(const char* name, HashMap* attributes) override {
    XRV_TRACE_FN();
    if (strcmp(name, "appl") != 0) {
      return;
    }
    ApplicationSettings& settings = applicationSettings();
    const struct {
      const char* attribute;
      XRV::String* value;
    } fields[] = {
        {"name", &settings.applicationName},
        {"nodeType", &settings.nodeType},
        {"hostName", &settings.hostName},
        {"hostType", &settings.hostType},
        {"affinity", &settings.affinity},
        {"agentVersion", &settings.agentVersion},
        {"version", &settings.version},
        {"service", &settings.serviceName},
        {"internalAgentVersion", &settings.internalAgentVersion},
    };
    for (const auto& field : fields) {
      const char* value = getString(attributes, field.attribute);
      field.value->assign(value == nullptr ? "" : value);
    }
    const XRV::String& application = settings.applicationName;
    settings.longProductCode.assign(application.c_str(),
                                    application.length() < 3 ? application.length() : 3);
    settings.shortProductCode.assign(
        application.length() > 1 ? application.c_str() + 1 : "",
        application.length() > 1 ? settings.longProductCode.length() - 1 : 0);
    if (!instanceName.empty()) {
      setenv("MVOLA_SUBSYSTEM_ID", instanceName.c_str(), 1);
      settings.serviceName.append("_");
      settings.serviceName.append(instanceName);
    }
    XRV_TRACE_DETAIL("Application %s, node type %s, affinity %s, version %s",
                     settings.applicationName.c_str(), settings.nodeType.c_str(),
                     settings.affinity.c_str(), settings.version.c_str());

    std::string error;
    if (!loadAgentConfig(&error)) {
      reportDefinitionError(error.c_str());
    }
  }
};

ApplicationXMLConfigParser instance;

}  // namespace
