#include "subnode/SubnodeSettings.h"

#include <cstdlib>

#include "framework/Configuration.h"
#include "framework/Framework.h"
#include "framework/Settings.h"
#include "framework/Trace.h"

// The settings themselves (names, defaults, limits, traces) are in the settings
// table; docs/settings.md lists them.

SubnodeManagerSettings SubnodeManagerSettings::fromConfiguration() {
  XRV_TRACE_FN();
  SubnodeManagerSettings settings;
  using XRV::Setting;
  using XRV::settingFlag;
  using XRV::settingNumber;
  using XRV::settingText;

  // A choice of UP (0, the default) or DOWN (1).
  settings.registerNewNodes =
      !settingFlag(Setting::InitialConfigDiscoveryNodeState, XRV_SETTING_HERE());

  if (settingFlag(Setting::UseHostnameInSubnodeMsn, XRV_SETTING_HERE())) {
    char* hostName = fwGetConfiguredHostName();
    if (hostName != nullptr && *hostName != '\0') {
      settings.msnHostName = hostName;
    } else {
      XRV_TRACE_ERROR(
          "CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN is set, but CTAFW_HOSTNAME is not; subnode MSNs "
          "will not include a host name");
    }
    free(hostName);
  }

  settings.excludedType = settingText(Setting::ExcludeSubnodeTypeFromMsn, XRV_SETTING_HERE());
  settings.garbageCollectionInterval =
      static_cast<int>(settingNumber(Setting::GarbageCollectionInterval, XRV_SETTING_HERE()));
  return settings;
}
