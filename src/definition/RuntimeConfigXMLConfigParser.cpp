// The "repeatable_section" element: a configuration section that may be given more
// than once.

#include <cstring>

#include "definition/AgentSettings.h"
#include "definition/XMLConfigParser.h"
#include "framework/Trace.h"

namespace {

class RuntimeConfigXMLConfigParser : public XMLConfigParser {
 public:
  RuntimeConfigXMLConfigParser() { registerXMLConfigParser("repeatable_section", this); }

  void startElement(const char* name, HashMap* attributes) override {
    XRV_TRACE_FN();
    const char* section = getString(attributes, "name");
    if (strcmp(name, "repeatable_section") == 0 && section != nullptr) {
      repeatableSections().add(strdup(section));
      XRV_TRACE_DETAIL("Repeatable section %s", section);
    }
  }
};

RuntimeConfigXMLConfigParser instance;

}  // namespace
