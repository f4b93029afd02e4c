#include "ProviderTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionCheck.h"
#include "framework/Configuration.h"
#include "provider/NumericParser.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/UAClientClassList.h"

namespace XRV::testing {

TestQueryClass::TestQueryClass(const char* group, const std::vector<TestMetric>& metrics, int type)
    : ResultsManager("XRV", group, type) {
  for (const TestMetric& described : metrics) {
    auto* metric = new Metric(described.name);
    metric->setSurfName(described.name);
    metric->setRawMetricType(described.type);
    metric->setIsKey(described.key);
    metric->setIsCounter(described.counter);
    metric->setIsHidden(described.hidden);
    if (described.arg1 != nullptr) {
      metric->setOperands(described.arg1, described.arg2,
                          described.op == nullptr ? '\0' : described.op[0]);
      metric->setDerived(true);
    }
    if (described.scale >= 0) {
      metric->setScale(described.scale);
    }
    addMetricObject(metric);
  }
}

TestQueryClass::TestQueryClass(const TestQueryClass* source, const char* subnodeKey)
    : ResultsManager(source, subnodeKey), rows(source->rows) {}

UAClientClass* TestQueryClass::subnodeCopy(const char* subnodeKey, UAClientClassList* list) {
  auto* copy = new TestQueryClass(this, subnodeKey);
  if (list != nullptr) {
    list->addClientClass(copy);
  }
  return copy;
}

ResultInstance* TestQueryClass::makeRow(const std::vector<std::string>& texts) {
  int rawMetrics = 0;
  for (int i = 0; i < getMetricCount(); ++i) {
    rawMetrics += getMetric(i)->isDerived() ? 0 : 1;
  }
  auto* row = new ResultInstance("", rawMetrics);
  size_t next = 0;
  for (int i = 0; i < getMetricCount() && next < texts.size(); ++i) {
    const Metric* metric = getMetric(i);
    if (metric->isDerived()) {
      continue;
    }
    const std::string& text = texts[next++];
    // Text kinds, as the script source reads them: changes of a text are texts too.
    if (metric->isStringType() || metric->getRawMetricType() == VALUE_CHANGED) {
      row->addMetric(new ResultMetric(metric, text.c_str()));
    } else {
      row->addMetric(parseNumericString(metric, text.c_str()));
    }
  }
  return row;
}

void TestQueryClass::internalCollectData(const char* /*subnode*/) {
  ++collections;
  for (const std::vector<std::string>& texts : rows) {
    addResultInstance(makeRow(texts));
  }
}

AttributeGroupMeta* defineGroup(const char* group, const std::string& attributes,
                                const std::string& agAttributes) {
  DefinitionCheck check;
  std::string document = std::string("<agent><metadata><ag name=\"") + group + "\" table=\"T" +
                         group + "\"" + (agAttributes.empty() ? "" : " " + agAttributes) + ">" +
                         attributes + "</ag></metadata></agent>";
  EXPECT_TRUE(check.check(document)) << (check.error() ? check.error()->message : "");
  return findAttributeGroupMeta(group);
}

std::vector<std::string> decodeRow(const AttributeGroupMeta* meta, const char* row) {
  std::vector<std::string> columns;
  for (int i = 0; i < meta->noOfColumns(); ++i) {
    const ColumnInfo* column = meta->attrInfo(i);
    const char* at = row + column->offset;
    if (column->type == 1 || column->type == 2) {
      std::string text(at, static_cast<size_t>(column->size));
      while (!text.empty() && (text.back() == '\0' || text.back() == ' ')) {
        text.pop_back();
      }
      columns.push_back(text.substr(0, strnlen(text.c_str(), text.size())));
    } else if (column->size == 8) {
      long long value;
      memcpy(&value, at, 8);
      columns.push_back(std::to_string(value));
    } else if (column->size == 4) {
      int value;
      memcpy(&value, at, 4);
      columns.push_back(std::to_string(value));
    } else if (column->size == 2) {
      short value;
      memcpy(&value, at, 2);
      columns.push_back(std::to_string(value));
    } else {
      columns.push_back("?");
    }
  }
  return columns;
}

DecodingRequest::DecodingRequest(AttributeGroupMeta* meta)
    : GenericAgentBase(&detail_, &context_),
      meta_(meta),
      detail_("XRV", meta == nullptr ? "" : meta->tableName()) {
  detail_.SetRowSink(this);
}

int DecodingRequest::NumColumns() const { return meta_->noOfColumns(); }

bool DecodingRequest::GetColumnInfo(ColumnInfo* info, int index) const {
  const ColumnInfo* column = meta_->attrInfo(index);
  if (column == nullptr) {
    return false;
  }
  *info = *column;
  return true;
}

int DecodingRequest::acceptRow(GenericAgentBase& /*request*/, const char* row, int length) {
  if (refuseAfter >= 0 && static_cast<int>(rows.size()) >= refuseAfter) {
    return 1;
  }
  EXPECT_EQ(length, meta_->rowSize());
  raw.emplace_back(row, static_cast<size_t>(length));
  rows.push_back(decodeRow(meta_, row));
  return 0;
}

void ProviderTest::SetUp() {
  setenv("TZ", "UTC", 1);
  tzset();
}

void ProviderTest::TearDown() {
  resetDefinitionState();
  resetConfigurationForTesting();
}

std::unique_ptr<TestQueryClass> ProviderTest::provider(const char* group,
                                                       const std::string& attributes,
                                                       const std::vector<TestMetric>& metrics,
                                                       const std::vector<Metric*>& extra,
                                                       const std::string& agAttributes) {
  AttributeGroupMeta* meta = defineGroup(group, attributes, agAttributes);
  auto made = std::make_unique<TestQueryClass>(group, metrics);
  for (Metric* metric : extra) {
    made->addMetricObject(metric);
  }
  made->setAttributeGroupMeta(meta);
  made->start();
  return made;
}

Rows ProviderTest::sample(TestQueryClass& source, const Rows& rows, const char* requestId) const {
  source.rows = rows;
  source.collectData(nullptr);
  return request(source, requestId);
}

Rows ProviderTest::request(TestQueryClass& source, const char* requestId) const {
  DecodingRequest decoding(source.getAttributeGroupMeta());
  decoding.GetRequestDetail()->SetRequestId(requestId);
  source.sendDataToAFW(&decoding, origin_);
  return decoding.rows;
}

}  // namespace XRV::testing
