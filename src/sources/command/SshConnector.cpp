#include "sources/command/SshConnector.h"

#include <atomic>

#include "framework/Trace.h"
#include "provider/PerfObject.h"

namespace {

std::atomic<SshConnectorFactory> installedFactory{nullptr};

}  // namespace

int UnavailableSshConnector::executeScript(const char* command, char** out, char** err,
                                           int /*timeoutSeconds*/) {
  XRV_TRACE_FN();
  XRV_TRACE_ERROR("Cannot run %s over SSH: the connector is unusable (%s)",
                  command == nullptr ? "(null)" : command, perfObjectErrorCodeName(errorCode_));
  if (out != nullptr) {
    *out = nullptr;
  }
  if (err != nullptr) {
    *err = nullptr;
  }
  return -1;
}

void registerSshConnectorFactory(SshConnectorFactory factory) { installedFactory.store(factory); }

SshConnector* createSshConnector(const char* attributeGroup) {
  XRV_TRACE_FN();
  SshConnectorFactory factory = installedFactory.load();
  if (factory == nullptr) {
    XRV_TRACE_DETAIL("This build has no SSH support: attribute group %s cannot run remote scripts",
                     attributeGroup == nullptr ? "(null)" : attributeGroup);
    return new UnavailableSshConnector(MISSING_LIBRARY);
  }
  return factory(attributeGroup);
}
