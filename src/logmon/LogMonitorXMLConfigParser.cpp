// The "log_monitor" element: an attribute group filled from log files through the
// log engine.
//
//   <log_monitor app="XRV" ag="App_Errors" sourceMapAttr="Log_File"
//                sourceDescMapAttr="Log_Kind">
//     <metric name="Severity" type="STRING_DATA"/>
//     <metric name="Message" type="STRING_DATA"/>
//     <metric name="Log_File" type="STRING_DATA"/>
//     <metric name="Log_Kind" type="STRING_DATA"/>
//     <mdl_stream>//APPL XRV
//   //NAME App_Errors E
//   //SOURCE FILE '${LOG_DIR}/app.log' TAIL DESCRIPTION='application'
//   //ATTRIBUTES ';'
//   Severity Z 16
//   Message Z 1024</mdl_stream>
//   </log_monitor>
//
// The provider is made when the mdl_stream element ends, if app, ag and the MDL text
// are all there; metrics read before it wait for it. It joins the agent's provider
// list when log_monitor ends.

#include <cstring>
#include <string>
#include <vector>

#include "definition/Metric.h"
#include "definition/XMLConfigParser.h"
#include "framework/Trace.h"
#include "logmon/LogMonitorQueryClass.h"
#include "provider/UAClientClassList.h"

namespace {

class LogMonitorXMLConfigParser : public XMLConfigParser {
 public:
  LogMonitorXMLConfigParser() { registerXMLConfigParser("log_monitor", this); }

  void startElement(const char* name, HashMap* attributes) override {
    XRV_TRACE_FN();
    XRV_TRACE_DETAIL("Tag: %s\n", name);
    if (strcmp(name, "log_monitor") == 0) {
      startLogMonitor(attributes);
    } else if (strcmp(name, "metric") == 0) {
      auto* metric = new Metric();
      initializeMetric(metric, attributes);
      if (provider_ != nullptr) {
        provider_->addMetricObject(metric);
      } else {
        pendingMetrics_.push_back(metric);
      }
    } else if (strcmp(name, "mdl_stream") == 0) {
      inMdlStream_ = true;
      mdl_.clear();
    }
  }

  void characters(const char* text) override {
    if (inMdlStream_) {
      mdl_ += text;
    }
  }

  void endElement(const char* name) override {
    XRV_TRACE_FN();
    if (strcmp(name, "mdl_stream") == 0 && inMdlStream_) {
      inMdlStream_ = false;
      sawMdlStream_ = true;
      createProvider();
    } else if (strcmp(name, "log_monitor") == 0) {
      if (!sawMdlStream_) {
        createProvider();  // says why there is none
      }
      if (provider_ != nullptr) {
        queryClassList().addClientClass(provider_);
        provider_ = nullptr;
      }
      abandon();
    }
  }

  void abandon() override {
    for (Metric* metric : pendingMetrics_) {
      delete metric;
    }
    pendingMetrics_.clear();
    delete provider_;
    provider_ = nullptr;
    inMdlStream_ = false;
    sawMdlStream_ = false;
    mdl_.clear();
  }

 private:
  void startLogMonitor(HashMap* attributes) {
    XRV_TRACE_FN();
    abandon();
    application_ = text(attributes, "app");
    group_ = text(attributes, "ag");
    useQrf_ = getBoolean(attributes, "use_qrf");
    errptCommand_ = text(attributes, "errpt_command");
    sourceMapAttr_.clear();
    sourceDescMapAttr_.clear();
    if (!group_.empty()) {
      sourceMapAttr_ = text(attributes, "sourceMapAttr");
      sourceDescMapAttr_ = text(attributes, "sourceDescMapAttr");
    }
  }

  void createProvider() {
    XRV_TRACE_FN();
    if (provider_ != nullptr) {
      return;  // a second mdl_stream changes nothing
    }
    if (application_.empty() || group_.empty() || mdl_.empty()) {
      XRV_TRACE_ERROR("Do not have all the needed information to create the Log Monitor Class.");
      return;
    }
    provider_ = new LogMonitorQueryClass(application_.c_str(), group_.c_str(), mdl_.c_str(),
                                         orNull(sourceMapAttr_), orNull(sourceDescMapAttr_),
                                         useQrf_, orNull(errptCommand_));
    for (Metric* metric : pendingMetrics_) {
      provider_->addMetricObject(metric);
    }
    pendingMetrics_.clear();
  }

  static std::string text(HashMap* attributes, const char* key) {
    const char* value = getString(attributes, key);
    return value == nullptr ? std::string() : std::string(value);
  }
  static const char* orNull(const std::string& value) {
    return value.empty() ? nullptr : value.c_str();
  }

  std::string application_;
  std::string group_;
  std::string sourceMapAttr_;
  std::string sourceDescMapAttr_;
  std::string errptCommand_;
  bool useQrf_ = false;
  bool inMdlStream_ = false;
  bool sawMdlStream_ = false;
  std::string mdl_;
  std::vector<Metric*> pendingMetrics_;
  LogMonitorQueryClass* provider_ = nullptr;
};

LogMonitorXMLConfigParser instance;

}  // namespace
