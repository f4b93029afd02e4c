#include "framework/Framework.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "framework/Settings.h"
#include "framework/Trace.h"

namespace {

std::atomic<FrameworkHost*> installedHost{nullptr};

FrameworkHost* host() { return installedHost.load(std::memory_order_acquire); }

}  // namespace

void fwSetHost(FrameworkHost* newHost) {
  XRV_TRACE_FN();
  installedHost.store(newHost, std::memory_order_release);
}

FrameworkHost* fwGetHost() { return host(); }

int frameworkMain(int argc, char** argv) {
  XRV_TRACE_FN();
  if (FrameworkHost* h = host()) {
    return h->run(argc, argv);
  }
  XRV_TRACE_ERROR("No framework host installed, nothing to run");
  return 1;
}

void fwShutdown(int mode) {
  XRV_TRACE_FN();
  if (FrameworkHost* h = host()) {
    h->shutdown(mode);
  }
}

void fwInitBasicServices(const char* programName) {
  XRV_TRACE_FN();
  if (FrameworkHost* h = host()) {
    h->initBasicServices(programName);
  }
}

void fwSetAffinity(const char* affinity) {
  XRV_TRACE_FN();
  if (FrameworkHost* h = host()) {
    h->setAffinity(affinity);
  }
}

void fwSetAffinityVersion(int version) {
  XRV_TRACE_FN();
  if (FrameworkHost* h = host()) {
    h->setAffinityVersion(version);
  }
}

void fwSetAffinityFeature(const char* feature) {
  XRV_TRACE_FN();
  if (FrameworkHost* h = host()) {
    h->setAffinityFeature(feature);
  }
}

void fwSetNodeType(const char* nodeType) {
  XRV_TRACE_FN();
  if (FrameworkHost* h = host()) {
    h->setNodeType(nodeType);
  }
}

void fwSetProductVersion(const char* version) {
  XRV_TRACE_FN();
  if (FrameworkHost* h = host()) {
    h->setProductVersion(version);
  }
}

void fwRegisterAgentLoader(FwAgentLoader loader) {
  XRV_TRACE_FN();
  if (FrameworkHost* h = host()) {
    h->registerAgentLoader(loader);
  }
}

void fwRegisterCommandCallback(const char* commandName, FwCommandCallback callback) {
  XRV_TRACE_FN();
  if (FrameworkHost* h = host()) {
    h->registerCommandCallback(commandName, callback);
  }
}

bool fwGetOriginNode(char* buffer, size_t size) {
  XRV_TRACE_FN();
  FrameworkHost* h = host();
  return h != nullptr && buffer != nullptr && size > 0 && h->originNode(buffer, size);
}

const char* fwGetProductName() {
  XRV_TRACE_FN();
  FrameworkHost* h = host();
  return h == nullptr ? "xrvagent" : h->productName();
}

int fwSubnodeRegister(const FwSubnodeRegistration& registration) {
  XRV_TRACE_FN();
  FrameworkHost* h = host();
  return h == nullptr ? FW_SUBNODE_FAILED : h->subnodeRegister(registration);
}

int fwSubnodeDeregister(const char* msn) {
  XRV_TRACE_FN();
  FrameworkHost* h = host();
  return h == nullptr ? FW_SUBNODE_FAILED : h->subnodeDeregister(msn);
}

bool fwAuditAvailable() {
  XRV_TRACE_FN();
  FrameworkHost* h = host();
  return h != nullptr && h->auditAvailable();
}

int fwAuditRecord(const FwAuditRecord& record) {
  XRV_TRACE_FN();
  FrameworkHost* h = host();
  if (h == nullptr || !h->auditAvailable()) {
    return -1;
  }
  return h->auditRecord(record);
}

char* fwGetConfiguredHostName() {
  XRV_TRACE_FN();
  const XRV::SettingRead host = XRV::readSetting(XRV::Setting::ConfiguredHostName);
  return host.set ? strdup(host.text.c_str()) : nullptr;
}

bool fwGetLocalHostInfo(FwHostInfo* info) {
  XRV_TRACE_FN();
  if (info == nullptr) {
    return false;
  }
  struct utsname system;
  if (uname(&system) != 0) {
    XRV_TRACE_ERROR("uname failed, errno = %d", errno);
    return false;
  }
  snprintf(info->hostInfo, sizeof info->hostInfo, "%s~%s", system.sysname, system.release);
  snprintf(info->hostLoc, sizeof info->hostLoc, "%s", system.nodename);
  snprintf(info->hostAddr, sizeof info->hostAddr, "127.0.0.1");
  struct ifaddrs* interfaces = nullptr;
  if (getifaddrs(&interfaces) == 0) {
    for (struct ifaddrs* i = interfaces; i != nullptr; i = i->ifa_next) {
      if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) {
        continue;
      }
      const auto* address = reinterpret_cast<const struct sockaddr_in*>(i->ifa_addr);
      if ((ntohl(address->sin_addr.s_addr) >> 24) == 127) {
        continue;
      }
      inet_ntop(AF_INET, &address->sin_addr, info->hostAddr, sizeof info->hostAddr);
      break;
    }
    freeifaddrs(interfaces);
  }
  XRV_TRACE_DETAIL("Local host information: %s, %s, %s", info->hostInfo, info->hostAddr,
                   info->hostLoc);
  return true;
}
