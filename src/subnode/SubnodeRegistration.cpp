#include "subnode/SubnodeRegistration.h"

#include "framework/Framework.h"
#include "framework/Trace.h"

namespace {

const char* const kAffinityFeatures[] = {"AFF_FEAT_DM_PARITY", "AFF_FEAT_AGENT_MGMT",
                                         "AFF_FEAT_INTERNATIONALIZATION"};
constexpr int kAffinityFeatureCount = sizeof kAffinityFeatures / sizeof kAffinityFeatures[0];

}  // namespace

bool registerSubnodeWithFramework(const char* msn, const char* affinity, const char* type,
                                  const char* version) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL(
      "Registering subnode with msn=\"%s\", affinity=\"%s\", type=\"%s\", version=\"%s\"", msn,
      affinity, type, version);
  FwHostInfo host{};
  if (fwGetLocalHostInfo(&host)) {
    XRV_TRACE_DETAIL(
        "Setting host information for subnode to local information for msn=\"%s\", "
        "hostInfo=\"%s\", hostAddr=\"%s\", hostLoc=\"%s\"",
        msn, host.hostInfo, host.hostAddr, host.hostLoc);
  } else {
    XRV_TRACE_ERROR("No local host information for msn=\"%s\", registering without it", msn);
  }
  FwSubnodeRegistration registration{msn,
                                     affinity,
                                     type,
                                     version,
                                     kAffinityFeatures,
                                     kAffinityFeatureCount,
                                     host.hostInfo,
                                     host.hostAddr,
                                     host.hostLoc};
  int result = fwSubnodeRegister(registration);
  if (result == FW_SUBNODE_SEND_FAILED) {
    XRV_TRACE_DETAIL(
        "Registration SendRequest failed for msn=\"%s\", affinity=\"%s\", type=\"%s\", "
        "version=\"%s\". The request will be sent when communication with the Nexo is "
        "restored.",
        msn, affinity, type, version);
  } else if (result != FW_SUBNODE_OK) {
    XRV_TRACE_ERROR(
        "Registration failed for msn=\"%s\", affinity=\"%s\", type=\"%s\", version=\"%s\"", msn,
        affinity, type, version);
    return false;
  }
  return true;
}

bool deregisterSubnodeFromFramework(const char* msn) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Deregistering subnode %s", msn);
  int result = fwSubnodeDeregister(msn);
  if (result == FW_SUBNODE_SEND_FAILED) {
    XRV_TRACE_DETAIL(
        "Deregistration SendRequest failed for msn=\"%s\". The request will be sent when "
        "communication with the Nexo is restored.",
        msn);
  } else if (result != FW_SUBNODE_OK) {
    // Still registered as far as we know: the next offline report tries again.
    XRV_TRACE_ERROR("Deregistration failed for msn=\"%s\", rc=%d", msn, result);
    return false;
  }
  return true;
}
