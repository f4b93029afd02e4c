#include "host/NodeRegistry.h"

#include <algorithm>

namespace XRV::host {
namespace {
std::string text(const char* value) { return value == nullptr ? std::string() : value; }
}  // namespace

void NodeRegistry::setMainNode(const std::string& msn) {
  PthreadMutexLock lock(mutex_);
  main_.msn = msn;
}

void NodeRegistry::setMainType(const std::string& type) {
  PthreadMutexLock lock(mutex_);
  main_.type = type;
}

void NodeRegistry::setMainAffinity(const std::string& affinity) {
  PthreadMutexLock lock(mutex_);
  main_.affinity = affinity;
}

void NodeRegistry::setMainVersion(const std::string& version) {
  PthreadMutexLock lock(mutex_);
  main_.version = version;
}

std::string NodeRegistry::mainNode() const {
  PthreadMutexLock lock(mutex_);
  return main_.msn;
}

void NodeRegistry::registerSubnode(const FwSubnodeRegistration& registration) {
  NodeEntry entry{text(registration.msn),
                  text(registration.type),
                  text(registration.affinity),
                  text(registration.version),
                  true,
                  false};
  PthreadMutexLock lock(mutex_);
  auto known = std::find_if(subnodes_.begin(), subnodes_.end(),
                            [&](const NodeEntry& node) { return node.msn == entry.msn; });
  if (known == subnodes_.end()) {
    subnodes_.push_back(std::move(entry));
  } else {
    *known = std::move(entry);
  }
}

bool NodeRegistry::deregisterSubnode(const char* msn) {
  PthreadMutexLock lock(mutex_);
  for (NodeEntry& node : subnodes_) {
    if (node.msn == text(msn)) {
      node.online = false;
      return true;
    }
  }
  return false;
}

std::vector<NodeEntry> NodeRegistry::nodes() const {
  PthreadMutexLock lock(mutex_);
  std::vector<NodeEntry> all{main_};
  all.insert(all.end(), subnodes_.begin(), subnodes_.end());
  return all;
}

std::optional<NodeEntry> NodeRegistry::findSubnode(const std::string& msn) const {
  PthreadMutexLock lock(mutex_);
  for (const NodeEntry& node : subnodes_) {
    if (node.msn == msn) {
      return node;
    }
  }
  return std::nullopt;
}

std::vector<std::string> NodeRegistry::onlineSubnodesOfType(const std::string& type) const {
  PthreadMutexLock lock(mutex_);
  std::vector<std::string> msns;
  for (const NodeEntry& node : subnodes_) {
    if (node.online && node.type == type) {
      msns.push_back(node.msn);
    }
  }
  return msns;
}

}  // namespace XRV::host
