#include "provider/GroupMetrics.h"

#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "definition/Metric.h"
#include "framework/Trace.h"
#include "provider/ResultsManager.h"

void addMetricsFromGroup(ResultsManager* provider, const AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  if (provider == nullptr || meta == nullptr) {
    return;
  }
  for (int i = 1; i < meta->noOfAttributes(); ++i) {  // 0 is ORIGINNODE
    const AttributeMeta* attribute = meta->getAttribute(i);
    auto* metric = new Metric(attribute->getName());
    metric->setSurfName(attribute->getName());
    metric->setMetricType(attribute->getType());
    metric->setSize(attribute->getSize());
    metric->setIsHidden(attribute->isHidden());
    if (isTextAttributeType(attribute->getType())) {
      metric->setRawMetricType(STRING_DATA);
    } else if (is64BitAttributeType(attribute->getType())) {
      metric->setRawMetricType(NUMERIC_64BIT_DATA);
    } else {
      metric->setRawMetricType(NUMERIC_DATA);
    }
    provider->addMetricObject(metric);
  }
}
