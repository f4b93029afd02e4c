#pragma once

// Log monitor groups for tests: definitions read through the real element parsers,
// log files in a temporary directory, the real log engine, and a framework double
// that records the event rows.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionCheck.h"
#include "framework/Configuration.h"
#include "framework/FwRequest.h"
#include "logmon/LogMonitorQueryClass.h"
#include "logmon/XpwLibrary.h"
#include "provider/UAClientClassList.h"
#include "support/FrameworkDouble.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace XRV::testing {

// The table server event rows of a group go to.
class EventTable : public TableManager {
 public:
  explicit EventTable(const char* table) : TableManager("XRV", table) {}
  FwRequest* CreateRequest(RequestDetail*, ContextInfo*) override { return nullptr; }
};

// A definition of group `group` (attributes `attrs`, ag attributes `agAttributes`)
// with a log_monitor element of `monitorAttributes`, `metrics` and `mdl`.
inline std::string logMonitorDefinition(const std::string& group, const std::string& agAttributes,
                                        const std::string& attrs,
                                        const std::string& monitorAttributes,
                                        const std::string& metrics, const std::string& mdl) {
  return "<agent><metadata><ag name=\"" + group + "\" table=\"T" + group + "\" " + agAttributes +
         ">" + attrs + "</ag></metadata><log_monitor " + monitorAttributes + ">" + metrics +
         "<mdl_stream>" + mdl + "</mdl_stream></log_monitor></agent>";
}

// Log monitor tests: UTC, a fake clock (sleeps of the code under test return at once),
// the engine forgotten and the definition and configuration reset after each test.
class LogMonitorTest : public ::testing::Test {
 protected:
  LogMonitorTest() : framework_("all") {}

  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }

  void TearDown() override {
    providers_.clear();  // stops their tables, and the engine with the last one
    tables_.clear();
    forgetXpwLibraryForTesting();
    resetDefinitionState();
    resetConfigurationForTesting();
  }

  // Reads `document` and takes its first provider out of the agent's list, bound to
  // its group as the loader binds it, with a table server for its events; not
  // started. Null when the definition made none.
  LogMonitorQueryClass* load(const std::string& document) {
    DefinitionCheck check;
    EXPECT_TRUE(check.check(document)) << (check.error() ? check.error()->message : "");
    auto* provider = static_cast<LogMonitorQueryClass*>(queryClassList().getFirst());
    if (provider == nullptr) {
      return nullptr;
    }
    queryClassList().removeClientClass(provider);
    adopt(provider);
    return provider;
  }

  // Binds `provider` to its group and keeps it until the end of the test.
  void adopt(LogMonitorQueryClass* provider) {
    AttributeGroupMeta* meta = findAttributeGroupMeta(provider->getAttributeGroup());
    provider->setAttributeGroupMeta(meta);
    if (meta != nullptr) {
      provider->setPureEventBased(meta->pureEventBased());
      if (meta->getTableManager() == nullptr) {
        tables_.push_back(std::make_unique<EventTable>(meta->tableName()));
        meta->setTableManager(tables_.back().get());
      }
    }
    providers_.emplace_back(provider);
  }

  // The event rows the framework received for `group`, decoded, without ORIGINNODE;
  // from the `from`-th on.
  Rows events(const char* group, size_t from = 0) const {
    Rows rows;
    const AttributeGroupMeta* meta = findAttributeGroupMeta(group);
    for (const FrameworkDouble::Event& event : framework_.events()) {
      if (meta != nullptr && event.table == meta->tableName()) {
        std::vector<std::string> row = decodeRow(meta, event.bytes.data());
        row.erase(row.begin());
        rows.push_back(row);
      }
    }
    rows.erase(rows.begin(), rows.begin() + static_cast<long>(std::min(from, rows.size())));
    return rows;
  }

  // The rows a request gets after one collection, without ORIGINNODE.
  static Rows collect(ResultsManager& provider) {
    provider.collectData(nullptr);
    DecodingRequest request(provider.getAttributeGroupMeta());
    provider.sendDataToAFW(&request, "Primary:box:XR");
    Rows rows;
    for (std::vector<std::string>& row : request.rows) {
      row.erase(row.begin());
      rows.push_back(row);
    }
    return rows;
  }

  FrameworkDouble framework_;
  FakeClock clock_{1700000000000};
  TempDirectory directory_{"/tmp/xrv-logmon-"};
  std::vector<std::unique_ptr<EventTable>> tables_;
  std::vector<std::unique_ptr<LogMonitorQueryClass>> providers_;
};

}  // namespace XRV::testing
