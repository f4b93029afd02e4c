// The elements of the process data sources (docs/processes.md):
//
//   <process app="XRV" ag="Web_Processes" rows="process">
//     <match rule="web" name="nginx"/>
//     <match rule="app" cmdline="gunicorn: (master|worker) \[shop\]" user="www-data"/>
//   </process>
//   <process_list app="XRV" ag="Top_Processes" top="10" sort="CPU_Percent"
//                 kernel_threads="false"/>
//   <app_ping_list app="XRV" ag="Availability">
//     <match rule="nginx" name="nginx" min="2"/>
//   </app_ping_list>
//
// A match element is one rule: name, cmdline (a regular expression) and user, any of
// them, all of them holding; min and max are the instance counts a rule row expects
// (default 1 and no maximum). Metric elements are optional: without them the
// provider takes one metric per attribute of its group, each filled by the process
// value of its name. The provider joins the agent's provider list at the end tag.

#include <cstring>
#include <string>

#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionWarnings.h"
#include "definition/Metric.h"
#include "definition/XMLConfigParser.h"
#include "framework/Trace.h"
#include "provider/UAClientClassList.h"
#include "sources/process/ProcessFields.h"
#include "sources/process/ProcessQueryClass.h"
#include "sources/process/ProcessRule.h"

namespace {

std::string text(HashMap* attributes, const char* key) {
  const char* value = XMLConfigParser::getString(attributes, key);
  return value == nullptr ? std::string() : std::string(value);
}

class ProcessXMLConfigParser : public XMLConfigParser {
 public:
  explicit ProcessXMLConfigParser(const char* element) : element_(element) {
    registerXMLConfigParser(element, this);
  }

  void startElement(const char* name, HashMap* attributes) override {
    XRV_TRACE_FN();
    XRV_TRACE_DETAIL("Tag: %s\n", name);
    if (strcmp(name, element_) == 0) {
      startProvider(attributes);
    } else if (provider_ == nullptr) {
      return;  // inside an element that was skipped
    } else if (strcmp(name, "match") == 0) {
      addRule(attributes);
    } else if (strcmp(name, "metric") == 0) {
      auto* metric = new Metric();
      initializeMetric(metric, attributes);
      provider_->addMetricObject(metric);
    }
  }

  void endElement(const char* name) override {
    XRV_TRACE_FN();
    if (strcmp(name, element_) != 0 || provider_ == nullptr) {
      return;
    }
    if (provider_->rowKind() != ProcessQueryClass::EACH_PROCESS && provider_->rules().empty()) {
      XRV_DEFINITION_WARNING("The %s element of attribute group %s has no match rule: it shows "
                             "no process",
                             element_, provider_->getAttributeGroup());
    }
    // When the metadata came first the attributes are known now (validation sees
    // them); else the provider takes them when it starts.
    provider_->addMetricsFromGroup(findAttributeGroupMeta(provider_->getAttributeGroup()));
    for (int i = 0; i < provider_->getMetricCount(); ++i) {
      const Metric* metric = provider_->getMetric(i);
      if (!metric->isDerived() && findProcessField(metric->getMetricName()) == nullptr) {
        XRV_DEFINITION_WARNING(
            "Attribute %s of attribute group %s is no process value and stays empty; the "
            "values are %s",
            metric->getMetricName(), provider_->getAttributeGroup(), processFieldNames().c_str());
      }
    }
    queryClassList().addClientClass(provider_);
    provider_ = nullptr;
  }

  void abandon() override {
    delete provider_;
    provider_ = nullptr;
  }

 private:
  void startProvider(HashMap* attributes) {
    XRV_TRACE_FN();
    abandon();
    matches_ = 0;
    const char* group = getString(attributes, "ag");
    if (group == nullptr || *group == '\0') {
      XRV_DEFINITION_WARNING("A %s element without an ag attribute is ignored", element_);
      return;
    }
    ProcessQueryClass::RowKind rows = ProcessQueryClass::EACH_MATCH;
    int type = UA_PROCESS;
    if (strcmp(element_, "process_list") == 0) {
      rows = ProcessQueryClass::EACH_PROCESS;
    } else if (strcmp(element_, "app_ping_list") == 0) {
      rows = ProcessQueryClass::EACH_RULE;
      type = UA_AVAILABILITY_LIST;
    } else {
      const std::string kind = text(attributes, "rows");
      if (kind == "rule") {
        rows = ProcessQueryClass::EACH_RULE;
      } else if (!kind.empty() && kind != "process") {
        XRV_DEFINITION_WARNING("The process element of attribute group %s has rows=\"%s\"; "
                               "it takes \"process\" or \"rule\", and makes a row per process",
                               group, kind.c_str());
      }
    }
    provider_ = new ProcessQueryClass(getString(attributes, "app"), group, type, rows);
    if (rows == ProcessQueryClass::EACH_PROCESS) {
      const std::string sort = text(attributes, "sort");
      if (!sort.empty() && findProcessField(sort.c_str()) == nullptr) {
        XRV_DEFINITION_WARNING("The process_list of attribute group %s sorts by %s, which is no "
                               "process value; it sorts by CPU_Percent",
                               group, sort.c_str());
      }
      provider_->setTop(getInteger(attributes, "top"),
                        findProcessField(sort.c_str()) == nullptr ? nullptr : sort.c_str());
      provider_->setKernelThreads(text(attributes, "kernel_threads") != "false");
    }
  }

  void addRule(HashMap* attributes) {
    XRV_TRACE_FN();
    if (provider_->rowKind() == ProcessQueryClass::EACH_PROCESS) {
      XRV_DEFINITION_WARNING("A match element in the process_list of attribute group %s is "
                             "ignored: a process list shows every process",
                             provider_->getAttributeGroup());
      return;
    }
    ++matches_;
    std::string error;
    const int minimum = getString(attributes, "min") == nullptr ? 1 : getInteger(attributes, "min");
    auto rule = ProcessRule::make(text(attributes, "rule"), text(attributes, "name"),
                                  text(attributes, "cmdline"), text(attributes, "user"), minimum,
                                  getInteger(attributes, "max"), &error);
    if (rule == nullptr) {
      XRV_DEFINITION_WARNING("Match rule %d of attribute group %s is ignored: %s", matches_,
                             provider_->getAttributeGroup(),
                             error.c_str());
      return;
    }
    provider_->addRule(std::move(rule));
  }

  const char* element_;
  ProcessQueryClass* provider_ = nullptr;
  int matches_ = 0;  // match elements of the current provider
};

ProcessXMLConfigParser processInstance("process");
ProcessXMLConfigParser processListInstance("process_list");
ProcessXMLConfigParser availabilityInstance("app_ping_list");

}  // namespace
