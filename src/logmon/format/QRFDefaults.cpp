// The values of DEFAULT slots: the host name, the fully qualified host name, the
// host's address and the remote-host token.

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>

#include "framework/Settings.h"
#include "logmon/format/QRFConfig.h"
#include "logmon/format/QRFReport.h"

bool QRFConfig::defaultSlotValue(const std::string& name, int line, std::string* value) {
  XRV_TRACE_FN();
  if (name == "hostname") {
    *value = hostName();
  } else if (name == "fqhostname") {
    *value = fqHostName();
  } else if (name == "origin") {
    *value = originAddress();
  } else if (name == "RemoteHost") {
    *value = "%XRV_REMHOST%";
  } else {
    QRF_FAULT(formatPath_, line, "ERROR: unrecognized DEFAULT slot: %s", name.c_str());
    return false;
  }
  XRV_TRACE_DETAIL("DEFAULT slot %s is %s", name.c_str(), value->c_str());
  return true;
}

std::string QRFConfig::hostName() {
  if (hostName_.empty()) {
    hostName_ = localHostName();
  }
  return hostName_;
}

std::string QRFConfig::localHostName() {
  XRV_TRACE_FN();
  std::string host = XRV::settingText(XRV::Setting::ConfiguredHostName);
  if (host.empty()) {
    char buffer[HOST_NAME_MAX + 1] = {};
    const int rc = gethostname(buffer, sizeof buffer - 1);
    if (rc != 0 || buffer[0] == '\0') {
      XRV_TRACE_ERROR("Couldn't determine hostname, rc = %d", rc);
      host = "unknown";
    } else {
      host = buffer;
    }
  }
  return host;
}

std::string QRFConfig::fqHostName() {
  XRV_TRACE_FN();
  std::string domain;
  if (!confValue("FQDomain", &domain) || strcasecmp(domain.c_str(), "no") == 0) {
    return "";
  }
  const std::string host = hostName();
  if (host.find('.') != std::string::npos) {
    return host;
  }
  if (strcasecmp(domain.c_str(), "yes") != 0) {
    return host + "." + domain;
  }
  addrinfo hints{};
  hints.ai_flags = AI_CANONNAME;
  addrinfo* found = nullptr;
  std::string qualified;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) == 0 && found != nullptr &&
      found->ai_canonname != nullptr) {
    qualified = found->ai_canonname;
  }
  if (found != nullptr) {
    freeaddrinfo(found);
  }
  if (qualified.empty()) {
    XRV_TRACE_ERROR("ERROR: getfqhostname() failed, sticking with short hostname");
    return host;
  }
  return qualified;
}

std::string QRFConfig::originAddress() {
  XRV_TRACE_FN();
  const std::string configured = XRV::settingText(XRV::Setting::IpAddr);
  if (!configured.empty()) {
    return configured;
  }
  const std::string host = hostName();
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  std::string address;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) == 0 && found != nullptr) {
    char text[INET6_ADDRSTRLEN] = {};
    const void* raw =
        found->ai_family == AF_INET6
            ? static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(found->ai_addr)->sin6_addr)
            : static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr);
    if (inet_ntop(found->ai_family, raw, text, sizeof text) != nullptr) {
      address = text;
    }
  }
  if (found != nullptr) {
    freeaddrinfo(found);
  }
  if (address.empty()) {
    XRV_TRACE_DETAIL("Couldn't resolve %s to an address, origin is the host name", host.c_str());
    return host;
  }
  return address;
}
