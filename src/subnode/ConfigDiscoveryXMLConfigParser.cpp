// The "config_discovery" element: a discovery attribute group filled from the
// [subnode TYPE KEY] sections of the configuration file.
//
//   <config_discovery app="XRV" ag="Configured_Servers" type="LNX"/>
//
//   <config_discovery ag="Configured_Servers">
//     <metric name="Subnode_Key" type="STRING_DATA" key="true" visible="true"/>
//     <metric name="Subnode_Type" type="STRING_DATA" key="true" visible="true"/>
//     <metric name="Subnode_Affinity" type="STRING_DATA" visible="true"/>
//     <metric name="Subnode_Version" type="STRING_DATA" visible="true"/>
//     <metric name="Subnode_Status" type="STRING_DATA" visible="true"/>
//     <metric name="HOST_NAME" type="STRING_DATA" visible="true"/>
//   </config_discovery>
//
// "type" (optional) limits it to the sections of one subnode type. Without metric
// elements the provider takes one metric per attribute of its group. The provider
// joins the agent's provider list at the end tag.

#include <cstring>

#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionWarnings.h"
#include "definition/Metric.h"
#include "definition/XMLConfigParser.h"
#include "framework/Trace.h"
#include "provider/UAClientClassList.h"
#include "subnode/ConfigDiscovery.h"

namespace {

class ConfigDiscoveryXMLConfigParser : public XMLConfigParser {
 public:
  ConfigDiscoveryXMLConfigParser() { registerXMLConfigParser("config_discovery", this); }

  void startElement(const char* name, HashMap* attributes) override {
    XRV_TRACE_FN();
    XRV_TRACE_DETAIL("Tag: %s\n", name);
    if (strcmp(name, "config_discovery") == 0) {
      abandon();
      const char* group = getString(attributes, "ag");
      if (group == nullptr || *group == '\0') {
        XRV_DEFINITION_WARNING("A config_discovery element without an ag attribute is ignored");
        return;
      }
      provider_ = new ConfigDiscoveryQueryClass(getString(attributes, "app"), group,
                                                getString(attributes, "type"));
    } else if (provider_ != nullptr && strcmp(name, "metric") == 0) {
      auto* metric = new Metric();
      initializeMetric(metric, attributes);
      provider_->addMetricObject(metric);
    }
  }

  void endElement(const char* name) override {
    XRV_TRACE_FN();
    if (strcmp(name, "config_discovery") != 0 || provider_ == nullptr) {
      return;
    }
    // When the metadata came first the columns are known now (validation sees them);
    // else the provider takes them when it starts.
    provider_->addMetricsFromGroup(findAttributeGroupMeta(provider_->getAttributeGroup()));
    queryClassList().addClientClass(provider_);
    provider_ = nullptr;
  }

  void abandon() override {
    delete provider_;
    provider_ = nullptr;
  }

 private:
  ConfigDiscoveryQueryClass* provider_ = nullptr;
};

ConfigDiscoveryXMLConfigParser instance;

}  // namespace
