// The "ping" element: an attribute group with one row per pinged target.
//
//   <ping app="XRV" ag="Lan_Ping" name="lan" timeout="1000" attempts="2" history="10"
//         burst_size="100" burst_delay="10" resolve_timeout="2000">
//     <target host="gateway.example.com 192.0.2.1"/>
//     <device_list file="${AGENT_ETC_DIR}/ping/*.lst"/>
//     <metric name="Host" type="STRING_DATA" key="true" visible="true"/>
//     <metric name="State" type="STRING_DATA" visible="true"/>
//   </ping>
//
// Numbers out of their limits are clamped (PingQueryClass::Options). Without metric
// elements the provider takes one metric per attribute of its group. It joins the
// agent's provider list at the end tag.

#include <cstring>

#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionWarnings.h"
#include "definition/Metric.h"
#include "definition/XMLConfigParser.h"
#include "framework/Trace.h"
#include "provider/UAClientClassList.h"
#include "sources/ping/PingQueryClass.h"

namespace {

class PingXMLConfigParser : public XMLConfigParser {
 public:
  PingXMLConfigParser() { registerXMLConfigParser("ping", this); }

  void startElement(const char* name, HashMap* attributes) override {
    XRV_TRACE_FN();
    XRV_TRACE_DETAIL("Tag: %s\n", name);
    if (strcmp(name, "ping") == 0) {
      startPing(attributes);
    } else if (provider_ == nullptr) {
      return;  // inside a ping element that was skipped
    } else if (strcmp(name, "target") == 0) {
      provider_->addTargets(getString(attributes, "host"));
    } else if (strcmp(name, "device_list") == 0) {
      provider_->addDeviceList(getString(attributes, "file"));
    } else if (strcmp(name, "metric") == 0) {
      auto* metric = new Metric();
      initializeMetric(metric, attributes);
      provider_->addMetricObject(metric);
    }
  }

  void endElement(const char* name) override {
    XRV_TRACE_FN();
    if (strcmp(name, "ping") != 0 || provider_ == nullptr) {
      return;
    }
    if (!provider_->hasSources()) {
      XRV_DEFINITION_WARNING(
          "The ping element of attribute group %s has no target and no device_list: it pings "
          "nothing",
          provider_->getAttributeGroup());
    }
    // A group declared before the element gives its columns now, so that validate
    // compares them; one declared after it gives them at start.
    provider_->addMetricsFromGroup(findAttributeGroupMeta(provider_->getAttributeGroup()));
    queryClassList().addClientClass(provider_);
    provider_ = nullptr;
  }

  void abandon() override {
    delete provider_;
    provider_ = nullptr;
  }

 private:
  void startPing(HashMap* attributes) {
    XRV_TRACE_FN();
    abandon();
    const char* group = getString(attributes, "ag");
    if (group == nullptr || *group == '\0') {
      XRV_DEFINITION_WARNING("A ping element without an ag attribute is ignored");
      return;
    }
    PingQueryClass::Options options;
    readNumber(attributes, "timeout", &options.timeoutMillis);
    readNumber(attributes, "attempts", &options.attempts);
    readNumber(attributes, "burst_size", &options.burstSize);
    readNumber(attributes, "burst_delay", &options.burstDelayMillis);
    readNumber(attributes, "history", &options.history);
    readNumber(attributes, "resolve_timeout", &options.resolveTimeoutMillis);
    provider_ = new PingQueryClass(getString(attributes, "app"), group,
                                   getString(attributes, "name"), options);
  }

  static void readNumber(HashMap* attributes, const char* key, int* value) {
    if (getString(attributes, key) != nullptr) {
      *value = getInteger(attributes, key);
    }
  }

  PingQueryClass* provider_ = nullptr;
};

PingXMLConfigParser instance;

}  // namespace
