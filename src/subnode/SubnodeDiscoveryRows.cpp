#include "subnode/SubnodeDiscoveryRows.h"

#include <utility>

#include "definition/AgentSettings.h"
#include "framework/Trace.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/UAClientClass.h"
#include "subnode/SubnodeHelpers.h"
#include "subnode/SubnodeManagedSystemNames.h"

using XRV::subnode::shortAddress;

namespace {

// The columns of a discovery attribute group.
constexpr const char kKeyColumn[] = "Subnode_Key";
constexpr const char kTypeColumn[] = "Subnode_Type";
constexpr const char kAffinityColumn[] = "Subnode_Affinity";
constexpr const char kVersionColumn[] = "Subnode_Version";
constexpr const char kStatusColumn[] = "Subnode_Status";
constexpr const char kOnline[] = "ONLINE";

// A discovery value as text: strings as they are, numbers in decimal.
std::string metricText(const ResultMetric* metric) {
  const char* text = metric->getTextBytes();
  if (text != nullptr) {
    return text;
  }
  return std::to_string(metric->getIntValue64());
}

// The rows, without their MSNs yet.
std::vector<DiscoveredSubnode> readDiscoveryRows(UAClientClass* discoveryProvider) {
  XRV_TRACE_FN();
  std::vector<DiscoveredSubnode> rows;
  discoveryProvider->visitRows([&](const ResultInstance& row) {
    const ResultMetric* key = row.findMetric(kKeyColumn);
    const ResultMetric* type = row.findMetric(kTypeColumn);
    const ResultMetric* affinity = row.findMetric(kAffinityColumn);
    const ResultMetric* version = row.findMetric(kVersionColumn);
    if (key == nullptr || type == nullptr || affinity == nullptr || version == nullptr) {
      XRV_TRACE_ERROR(
          "DAG row is missing a metric, skipping: key = %08x type = %08x aff = %08x "
          "ver = %08x",
          shortAddress(key), shortAddress(type), shortAddress(affinity), shortAddress(version));
      return;
    }
    if (!row.passesFilter()) {
      XRV_TRACE_DETAIL("DAG row of %s does not pass the filter, skipping",
                       discoveryProvider->getAttributeGroup());
      return;
    }
    const ResultMetric* status = row.findMetric(kStatusColumn);
    DiscoveredSubnode found{"",
                            metricText(key),
                            metricText(type),
                            metricText(affinity),
                            metricText(version),
                            status == nullptr || metricText(status) == kOnline};
    if (found.key.empty() || found.type.empty()) {
      XRV_TRACE_ERROR("DAG row of %s has an empty subnode key or type, skipping",
                      discoveryProvider->getAttributeGroup());
      return;
    }
    rows.push_back(std::move(found));
  });
  return rows;
}

std::string applicationNameForMSNs(const UAClientClass* discoveryProvider,
                                   const std::string& configured) {
  XRV_TRACE_FN();
  if (!configured.empty()) {
    return configured;
  }
  const XRV::String& agent = applicationSettings().applicationName;
  if (!agent.empty()) {
    return agent.c_str();
  }
  return discoveryProvider->getApplicationName();
}

}  // namespace

std::vector<DiscoveredSubnode> readDiscoveredSubnodes(UAClientClass* discoveryProvider,
                                                      const SubnodeManagedSystemNames& names,
                                                      const std::string& application) {
  XRV_TRACE_FN();
  std::vector<DiscoveredSubnode> rows = readDiscoveryRows(discoveryProvider);
  const std::string msnApplication = applicationNameForMSNs(discoveryProvider, application);
  std::vector<DiscoveredSubnode> found;
  for (DiscoveredSubnode& row : rows) {
    char msn[SUBNODE_MSN_BUFFER_SIZE];
    if (names.generate(msnApplication.c_str(), row.key.c_str(), row.type.c_str(), msn) ==
        nullptr) {
      continue;
    }
    if (row.online) {
      XRV_TRACE_DETAIL("status of subnode is ACTIVE for msn = %s", msn);
    } else {
      XRV_TRACE_DETAIL("status of subnode is INACTIVE for msn = %s", msn);
    }
    row.msn = msn;
    found.push_back(std::move(row));
  }
  return found;
}
