#include "subnode/SubnodeManagedSystemNames.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "framework/Trace.h"

namespace {

constexpr size_t kApplicationLimit = 2;
constexpr size_t kKeyLimit = 25;
constexpr size_t kKeyLimitWithoutType = 29;
constexpr size_t kTypeLimit = 3;

}  // namespace

SubnodeManagedSystemNames::SubnodeManagedSystemNames(std::string hostName, std::string excludedType)
    : hostName_(std::move(hostName)), excludedType_(std::move(excludedType)) {}

char* SubnodeManagedSystemNames::generate(const char* application, const char* key,
                                          const char* type, char* buffer) const {
  XRV_TRACE_FN();
  if (application == nullptr || key == nullptr || type == nullptr) {
    XRV_TRACE_ERROR("Failed due to NULL args: appl=%p, key=%p, type=%p",
                    static_cast<const void*>(application), static_cast<const void*>(key),
                    static_cast<const void*>(type));
    return nullptr;
  }

  std::string keyPart = key;
  if (!hostName_.empty()) {
    XRV_TRACE_DETAIL(
        "CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN is set, incorporating CTAFW_HOSTNAME=%s into MSN",
        hostName_.c_str());
    keyPart = hostName_ + "_" + key;
  }
  bool withType = true;
  size_t keyLimit = kKeyLimit;
  if (!excludedType_.empty() && excludedType_ == type) {
    XRV_TRACE_DETAIL(
        "Not including type in MSN for subnode type %s due to "
        "CDP_DP_EXCLUDE_SUBNODE_TYPE_FROM_MSN setting",
        type);
    withType = false;
    keyLimit = kKeyLimitWithoutType;
  }
  if (keyPart.size() > keyLimit) {
    keyPart.resize(keyLimit);
    XRV_TRACE_DETAIL("key will be truncated to \"%25s\"", keyPart.c_str());
  }

  // The application's first character is skipped: "XRV" contributes "XR".
  std::string applicationPart = application;
  if (applicationPart.size() > kApplicationLimit) {
    applicationPart = applicationPart.substr(1, kApplicationLimit);
    XRV_TRACE_DETAIL("appl will be truncated to \"%2s\"", applicationPart.c_str());
  }

  std::string msn = applicationPart + ":" + keyPart;
  if (withType) {
    std::string typePart = type;
    if (typePart.size() > kTypeLimit) {
      typePart.resize(kTypeLimit);
      XRV_TRACE_DETAIL("type will be truncated to \"%3s\"", typePart.c_str());
    }
    msn += ":" + typePart;
  }
  for (size_t i = 0; i < kApplicationLimit && i < msn.size(); ++i) {
    msn[i] = static_cast<char>(toupper(static_cast<unsigned char>(msn[i])));
  }

  if (buffer == nullptr) {
    buffer = static_cast<char*>(malloc(SUBNODE_MSN_BUFFER_SIZE));
    if (buffer == nullptr) {
      XRV_TRACE_ERROR("Out of memory for the MSN of key %s", key);
      return nullptr;
    }
  }
  snprintf(buffer, SUBNODE_MSN_BUFFER_SIZE, "%s", msn.c_str());
  XRV_TRACE_DETAIL("Generated MSN \"%s\"", buffer);
  return buffer;
}

bool SubnodeManagedSystemNames::split(const char* msn, std::string* application, std::string* key,
                                      std::string* type) {
  XRV_TRACE_FN();
  const char* first = msn == nullptr ? nullptr : strchr(msn, ':');
  const char* second = first == nullptr ? nullptr : strchr(first + 1, ':');
  int keyStart = first == nullptr ? -1 : static_cast<int>(first - msn) + 1;
  int keyEnd = -1;
  if (first != nullptr) {
    keyEnd = static_cast<int>(second == nullptr ? strlen(msn) : static_cast<size_t>(second - msn));
  }
  bool malformed = first == nullptr || keyStart < 2 || keyEnd <= keyStart ||
                   (second != nullptr && (second[1] == '\0' || strchr(second + 1, ':') != nullptr));
  if (malformed) {
    XRV_TRACE_ERROR("Failed due to malformed msn=\"%s\", keyEnd=%d, keyStart=%d",
                    msn == nullptr ? "" : msn, keyEnd, keyStart);
    return false;
  }
  if (application != nullptr) {
    application->assign(msn, static_cast<size_t>(keyStart - 1));
  }
  if (key != nullptr) {
    key->assign(msn + keyStart, static_cast<size_t>(keyEnd - keyStart));
  }
  if (type != nullptr) {
    type->assign(second == nullptr ? "" : second + 1);
  }
  return true;
}
