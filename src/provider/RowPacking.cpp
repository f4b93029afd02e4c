// Packing rows into the framework's fixed-size row buffers: the origin node first,
// then the optional timestamp and instance-name columns, then one column per shown
// attribute, each value written by its representation.

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "framework/Framework.h"
#include "framework/FwClock.h"
#include "framework/FwRequest.h"
#include "framework/Trace.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/ResultsManager.h"
#include "provider/RowPacker.h"

namespace {

// A double as the 64-bit integer value × 10^scale, rounded half away from zero.
long long scaledDouble(double value, int scale) {
  long double scaled = static_cast<long double>(value) * std::pow(10.0L, scale);
  if (std::isnan(scaled)) {
    return 0;
  }
  if (scaled >= static_cast<long double>(std::numeric_limits<long long>::max())) {
    return std::numeric_limits<long long>::max();
  }
  if (scaled <= static_cast<long double>(std::numeric_limits<long long>::min())) {
    return std::numeric_limits<long long>::min();
  }
  return std::llround(scaled);
}

// The next value of a chain, taken.
const ResultMetric* take(const ResultMetric** cursor) {
  const ResultMetric* value = *cursor;
  if (value != nullptr) {
    *cursor = static_cast<const ResultMetric*>(value->getNextElement());
  }
  return value;
}

}  // namespace

void RowPacker::writeValue(ResultsManager& provider, char* buffer, const AttributeMeta* column,
                           const Metric* metric, const ResultMetric* value) const {
  switch (value->getKind()) {
    case RESULT_INT32:
      UAClientClass::putInt64(buffer, column, value->getInt());
      break;
    case RESULT_INT64:
      UAClientClass::putInt64(buffer, column, value->getInt64());
      break;
    case RESULT_UINT64:
      UAClientClass::putUInt64(buffer, column, value->getUInt64());
      break;
    case RESULT_DOUBLE:
      UAClientClass::putInt64(
          buffer, column,
          scaledDouble(value->getDouble(), metric->hasScale() ? metric->getScale() : 0));
      break;
    case RESULT_UTF8:
      UAClientClass::putUTF8String(buffer, column, value->getUTF8String());
      break;
    case RESULT_STRING: {
      const char* text = value->getString();
      if (column->getHint() != nullptr && *column->getHint() != '\0') {
        text = provider.applyDisplayHint(column->getHint(), text);
      }
      UAClientClass::putString(buffer, column, text, !shape.inputIsUTF8);
      break;
    }
  }
}

bool RowPacker::packRow(ResultsManager& provider, const ResultInstance* row, char* buffer,
                        const char* originNode, const char* timestamp, bool eventRow) const {
  XRV_TRACE_SITE();
  AttributeGroupMeta* meta = provider.getAttributeGroupMeta();
  if (row->getInstanceName() == nullptr) {
    // A data source names every row it makes (by its keys; "" without any), so a row
    // without a name is a broken one.
    XRV_TRACE_DETAIL("WARNING: Skipping ResultInstance with name == NULL");
    return false;
  }
  if (shape.checkMetricCounts && row->getExpectedMetricCount() != row->getMetricCount()) {
    XRV_TRACE_DETAIL("Expected %d metrics and got %d.  Skipping row.",
                     row->getExpectedMetricCount(), row->getMetricCount());
    return false;
  }
  if (!row->passesFilter()) {
    XRV_TRACE_DETAIL("AG %s ResultInstance %s filtered out", provider.getAttributeGroup(),
                     row->getInstanceName() == nullptr ? "" : row->getInstanceName());
    return false;
  }
  memset(buffer, 0, static_cast<size_t>(meta->rowSize()));
  int column = 0;
  UAClientClass::putString(buffer, meta->getColumnAttribute(column++),
                           originNode == nullptr ? "" : originNode, false);
  if (shape.timestampColumn) {
    const char* stamp = eventRow && row->hasTimestamp() ? row->getTimestamp() : timestamp;
    UAClientClass::putString(buffer, meta->getColumnAttribute(column++), stamp, false);
  }
  if (shape.instanceNameColumn) {
    const char* name = row->getInstanceName();
    UAClientClass::putString(buffer, meta->getColumnAttribute(column++),
                             name == nullptr ? "" : name, !shape.inputIsUTF8);
  }
  const ResultMetric* nextValue = row->getFirstMetric();
  const ResultMetric* nextDerived = row->getFirstDerivedMetric();
  for (int i = 0; i < provider.getMetricCount(); ++i) {
    const Metric* metric = provider.getMetric(i);
    const ResultMetric* value = take(metric->isDerived() ? &nextDerived : &nextValue);
    if (value == nullptr) {
      if (metric->getIsHidden()) {
        XRV_TRACE_DETAIL("Metric %s is hidden", metric->getMetricName());
      } else {
        XRV_TRACE_DETAIL("Metric %s is missing", metric->getMetricName());
      }
      continue;
    }
    if (metric->getIsHidden()) {
      continue;
    }
    const AttributeMeta* attribute = meta->getColumnAttribute(column++);
    if (attribute == nullptr) {
      XRV_TRACE_ERROR("Attribute group %s has more shown attributes than table columns",
                      provider.getAttributeGroup());
      break;
    }
    writeValue(provider, buffer, attribute, metric, value);
  }
  return true;
}

void ResultsManager::sendDataToAFW(GenericAgentBase* agent, const char* originNode) {
  XRV_TRACE_FN();
  AttributeGroupMeta* meta = getAttributeGroupMeta();
  if (meta == nullptr || meta->rowSize() <= 0) {
    XRV_TRACE_ERROR("Attribute group %s has no metadata, no rows sent", getAttributeGroup());
    return;
  }
  const int rowSize = meta->rowSize();
  std::vector<char> buffer(static_cast<size_t>(rowSize));  // the one allocation of a request
  PthreadMutexLock lock(store_.activeLock);
  char stamp[17];
  getTimeStamp(stamp);

  const bool intervalBased = derived_.hasIntervalBased();
  if (getRefreshInterval() >= 1 && intervalBased && !derived_.empty()) {
    const char* requestId = nullptr;
    if (agent != nullptr && agent->GetRequestDetail() != nullptr) {
      requestId = agent->GetRequestDetail()->GetRequestId();
    }
    int interval = getRequestInterval(requestId);
    if (interval > 0) {
      XRV_TRACE_DETAIL("got a situation based interval - %d", interval);
    } else {
      interval = getDefaultRateDeltaInterval();
      XRV_TRACE_DETAIL("got a default interval - %d", interval);
    }
    if (interval > 0) {
      XRV_TRACE_DETAIL("recalculating derived values for the interval");
      calculateDerivedOnActive(requestId, READ_INTERVAL_DATA);
    } else {
      XRV_TRACE_DETAIL(
          "not recalculating derived. interval is still 0. if you want interval "
          "based demand samples set CDP_DP_RATE_DELTA_INTERVAL or "
          "CDP_<ATTRIBUTE_GROUP>_RATE_DELTA_INTERVAL.");
    }
  }

  int sent = 0;
  RowPrefetcher prefetcher(store_.firstActive(), RowPrefetcher::kReading);
  for (const ResultInstance* row = store_.firstActive(); row != nullptr; row = ResultList::next(row)) {
    prefetcher.next();
    if (!packer_.packRow(*this, row, buffer.data(), originNode, stamp, isPureEventBased())) {
      continue;
    }
    if (sendRowToAFW(agent, buffer.data(), rowSize) == 1) {
      XRV_TRACE_ERROR(
          "Send Row failed. Data rows lost - attribute group=%s, subnodeKey=%s, row "
          "count=%d, numRowsSent=%d, rowSize=%d, refreshInterval=%d, "
          "intervalBased=%s, derived count=%d",
          getAttributeGroup(), getSubnodeKey() == nullptr ? "" : getSubnodeKey(),
          store_.activeCount(), sent, rowSize, getRefreshInterval(),
          intervalBased ? "true" : "false", derived_.count());
      break;
    }
    ++sent;
  }
  XRV_TRACE_DETAIL("Sent %d of %d rows of %s", sent, store_.activeCount(), getAttributeGroup());
}

bool RowPacker::packEvent(ResultsManager& provider, const ResultInstance* row,
                          std::vector<char>* buffer) const {
  XRV_TRACE_FN();
  AttributeGroupMeta* meta = provider.getAttributeGroupMeta();
  if (meta == nullptr || meta->rowSize() <= 0) {
    XRV_TRACE_ERROR("Attribute group %s has no metadata, event not sent",
                    provider.getAttributeGroup());
    return false;
  }
  buffer->assign(static_cast<size_t>(meta->rowSize()), '\0');  // capacity kept
  char stamp[17];
  UAClientClass::formatTimeStampMillis(fwTimeMillis(), stamp, sizeof stamp);
  char origin[64];
  const char* node = provider.getOriginNode();
  if (*node == '\0') {
    node = fwGetOriginNode(origin, sizeof origin) ? origin : "";
  }
  return packRow(provider, row, buffer->data(), node, stamp, true);
}

int RowPacker::deliverEvent(const ResultsManager& provider, const std::vector<char>& buffer) {
  XRV_TRACE_FN();
  AttributeGroupMeta* meta = provider.getAttributeGroupMeta();
  if (meta == nullptr || meta->getTableManager() == nullptr) {
    XRV_TRACE_ERROR("Attribute group %s has no table server yet, event not sent",
                    provider.getAttributeGroup());
    return 1;
  }
  return meta->getTableManager()->EventArrived(buffer.data(), static_cast<int>(buffer.size()));
}

int ResultsManager::sendEventDataToAFW(ResultInstance* row) {
  XRV_TRACE_FN();
  std::vector<char> buffer;
  if (!packer_.packEvent(*this, row, &buffer)) {
    return 0;
  }
  return RowPacker::deliverEvent(*this, buffer);
}
