#pragma once

// A data source for tests and the pieces around it: an attribute group read from a
// metadata snippet, metrics described in one line each, rows from texts, and a
// request that decodes the rows a provider packs.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "definition/Metric.h"
#include "framework/FwRequest.h"
#include "provider/ResultsManager.h"
#include "support/FrameworkDouble.h"

class AttributeGroupMeta;
class ResultInstance;

namespace XRV::testing {

// A metric in one line: name, type, and flags.
struct TestMetric {
  const char* name;
  RAW_METRIC_TYPE type = NUMERIC_DATA;
  bool key = false;
  bool counter = false;
  bool hidden = false;
  const char* arg1 = nullptr;  // two-operand derived value
  const char* op = nullptr;
  const char* arg2 = nullptr;
  int scale = -1;  // -1: unset
};

// Fills the new list from `rows` on every collection (a row is one text per raw
// metric; numeric metrics are parsed with parseNumericString).
class TestQueryClass : public ResultsManager {
 public:
  TestQueryClass(const char* group, const std::vector<TestMetric>& metrics, int type = UA_SCRIPT);
  // A copy for the subnode `subnodeKey`: the same metrics and rows.
  TestQueryClass(const TestQueryClass* source, const char* subnodeKey);

  void internalCollectData(const char* subnode) override;
  const char* getPerfObjectName() override { return getAttributeGroup(); }
  int getPerfObjectStatus() override { return PERF_OBJECT_ACTIVE; }
  int getPerfErrorCode() override { return OBJECT_ACTIVE; }
  void printResults() override {}
  UAClientClass* subnodeCopy(const char* subnodeKey, UAClientClassList* list) override;

  // A row of this provider's metrics from texts (one per raw metric).
  ResultInstance* makeRow(const std::vector<std::string>& texts);

  std::vector<std::vector<std::string>> rows;
  std::atomic<int> collections{0};  // read by tests while pool threads collect
};

// Reads `attributes` (the inside of an <ag>) as group `group`, table "T" + group.
AttributeGroupMeta* defineGroup(const char* group, const std::string& attributes,
                                const std::string& agAttributes = "");

// A request whose rows are decoded column by column into texts: numbers in decimal,
// texts without their padding.
class DecodingRequest : public GenericAgentBase, public FwRowSink {
 public:
  explicit DecodingRequest(AttributeGroupMeta* meta);
  void TakeSample() override {}
  int NumColumns() const override;
  bool GetColumnInfo(ColumnInfo* info, int index) const override;
  int acceptRow(GenericAgentBase& request, const char* row, int length) override;

  std::vector<std::vector<std::string>> rows;
  std::vector<std::string> raw;  // the packed bytes
  int refuseAfter = -1;          // refuse rows once this many were taken

 private:
  AttributeGroupMeta* meta_;
  RequestDetail detail_;
  ContextInfo context_;
};

// The columns of a packed row of `meta` as texts.
std::vector<std::string> decodeRow(const AttributeGroupMeta* meta, const char* row);

using Rows = std::vector<std::vector<std::string>>;

// Tests that drive a TestQueryClass through collections: local time is UTC, the clock
// is a FakeClock, and the definition and configuration are reset after each test.
class ProviderTest : public ::testing::Test {
 protected:
  // `origin` is the node name packed into every row.
  explicit ProviderTest(const char* origin) : origin_(origin) {}
  void SetUp() override;
  void TearDown() override;

  // A provider of `metrics` and then `extra` (metrics already made; the provider owns
  // them), bound to its group and started.
  static std::unique_ptr<TestQueryClass> provider(const char* group, const std::string& attributes,
                                                  const std::vector<TestMetric>& metrics,
                                                  const std::vector<Metric*>& extra = {},
                                                  const std::string& agAttributes = "");
  // One collection of `rows`, then the rows packed for a request, as texts.
  Rows sample(TestQueryClass& source, const Rows& rows, const char* requestId = nullptr) const;
  // The rows packed for request `requestId`, as texts.
  Rows request(TestQueryClass& source, const char* requestId) const;

  FakeClock clock_{1700000000000};  // 2023-11-14 22:13:20 UTC

 private:
  const char* origin_;
};

}  // namespace XRV::testing
