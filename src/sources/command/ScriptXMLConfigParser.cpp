// The "script" element: an attribute group filled from a command's output.
//
//   <script app="XRV" ag="Disk_Usage" command="df -P" separator=" "
//           multipleSpaceSeparator="true" utf8_input="true" name="disks">
//     <metric name="Mount_Point" type="STRING_DATA" key="true" visible="true"/>
//     <metric name="Rest" type="STRING_DATA"><delimSpecial isLast="true"/></metric>
//     <metric name="Quoted" type="STRING_DATA"><delimString begin="&quot;" end="&quot;"/></metric>
//     <File Name="collect.sh"/>
//   </script>
//
// Each metric element becomes one attribute of the provider at its end tag; its
// delimSpecial and delimString children say how its value is cut out of a line.
// The provider joins the agent's provider list at the end tag of the script.

#include <cstring>

#include "definition/DefinitionWarnings.h"
#include "definition/Metric.h"
#include "definition/XMLConfigParser.h"
#include "framework/Trace.h"
#include "provider/UAClientClassList.h"
#include "sources/command/ShellQueryClass.h"

namespace {

const char* orNull(const char* text) { return text == nullptr ? "(null)" : text; }

class ScriptXMLConfigParser : public XMLConfigParser {
 public:
  ScriptXMLConfigParser() { registerXMLConfigParser("script", this); }

  void startElement(const char* name, HashMap* attributes) override {
    XRV_TRACE_FN();
    XRV_TRACE_DETAIL("Tag: %s\n", name);
    if (strcmp(name, "script") == 0) {
      startScript(attributes);
    } else if (provider_ == nullptr) {
      return;  // inside a script element that was skipped
    } else if (strcmp(name, "metric") == 0) {
      delete metric_;
      metric_ = new Metric();
      initializeMetric(metric_, attributes);
    } else if (strcmp(name, "delimSpecial") == 0) {
      readDelimSpecial(attributes);
    } else if (strcmp(name, "delimString") == 0) {
      readDelimString(attributes);
    } else if (strcmp(name, "File") == 0) {
      if (const char* file = getString(attributes, "Name")) {
        provider_->addCommandFile(file);
      }
    }
  }

  void endElement(const char* name) override {
    XRV_TRACE_FN();
    if (strcmp(name, "metric") == 0 && metric_ != nullptr) {
      XRV_TRACE_DETAIL("Name:%s, len:%d, bdelim:%s, edelim:%s, limit:%d, isRest:%s\n",
                       orNull(metric_->getMetricName()), metric_->getSize(),
                       orNull(metric_->getBeginDelimiter()), orNull(metric_->getEndDelimiter()),
                       metric_->getMaxChars(), metric_->isRestOfRecord() ? "TRUE" : "FALSE");
      provider_->addMetricObject(metric_);
      metric_ = nullptr;
    } else if (strcmp(name, "script") == 0 && provider_ != nullptr) {
      delete metric_;  // a metric left open by a broken definition
      metric_ = nullptr;
      queryClassList().addClientClass(provider_);
      provider_ = nullptr;
    }
  }

  void abandon() override {
    delete metric_;
    metric_ = nullptr;
    delete provider_;
    provider_ = nullptr;
  }

 private:
  void startScript(HashMap* attributes) {
    XRV_TRACE_FN();
    abandon();
    const char* group = getString(attributes, "ag");
    const char* command = getString(attributes, "command");
    if (group == nullptr || *group == '\0') {
      XRV_DEFINITION_WARNING("A script element without an ag attribute is ignored");
      return;
    }
    if (command == nullptr || *command == '\0') {
      XRV_DEFINITION_WARNING(
          "The script element of attribute group %s has no command and is ignored", group);
      return;
    }
    provider_ = new ShellQueryClass(getString(attributes, "app"), group, command,
                                    getString(attributes, "separator"),
                                    getString(attributes, "name"),
                                    getBoolean(attributes, "utf8_input"),
                                    getBoolean(attributes, "ssh"),
                                    getBoolean(attributes, "multipleSpaceSeparator"));
  }

  void readDelimSpecial(HashMap* attributes) {
    XRV_TRACE_FN();
    if (metric_ == nullptr) {
      return;
    }
    if (const char* value = getString(attributes, "value")) {
      metric_->setSeparator(value);
    }
    if (getString(attributes, "maxChars") != nullptr) {
      metric_->setMaxChars(getInteger(attributes, "maxChars"));
    }
    if (getString(attributes, "isLast") != nullptr) {
      metric_->setRestOfRecord(getBoolean(attributes, "isLast"));
    }
  }

  void readDelimString(HashMap* attributes) {
    XRV_TRACE_FN();
    const char* end = getString(attributes, "end");
    if (metric_ == nullptr || end == nullptr) {
      return;
    }
    const char* begin = getString(attributes, "begin");
    if (begin == nullptr) {
      metric_->setSeparator(end);  // an end alone is the attribute's own separator
      return;
    }
    metric_->setBeginDelimiter(begin);
    metric_->setEndDelimiter(end);
  }

  ShellQueryClass* provider_ = nullptr;
  Metric* metric_ = nullptr;
};

ScriptXMLConfigParser instance;

}  // namespace
