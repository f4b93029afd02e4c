#pragma once

// NodeRegistry: the managed systems the agent reports: its main node and the
// subnodes it has registered, for GET /api/v1/nodes and for aiming table requests.
//
// A deregistered subnode stays listed as offline, so an operator sees that it went
// away; registering it again brings it back online.
//
// Thread-safe.

#include <optional>
#include <string>
#include <vector>

#include "foundation/Locks.h"
#include "framework/Framework.h"

namespace XRV::host {

struct NodeEntry {
  std::string msn, type, affinity, version;
  bool online = true;
  bool main = false;
};

class NodeRegistry {
 public:
  // What the main node is registered as; called as the agent tells the framework.
  void setMainNode(const std::string& msn) XRV_EXCLUDES(mutex_);
  void setMainType(const std::string& type) XRV_EXCLUDES(mutex_);
  void setMainAffinity(const std::string& affinity) XRV_EXCLUDES(mutex_);
  void setMainVersion(const std::string& version) XRV_EXCLUDES(mutex_);
  std::string mainNode() const XRV_EXCLUDES(mutex_);

  void registerSubnode(const FwSubnodeRegistration& registration) XRV_EXCLUDES(mutex_);
  // False when `msn` was never registered.
  bool deregisterSubnode(const char* msn) XRV_EXCLUDES(mutex_);

  // The main node first, then the subnodes in the order first registered.
  std::vector<NodeEntry> nodes() const XRV_EXCLUDES(mutex_);
  // The subnode `msn`, when registered at some time.
  std::optional<NodeEntry> findSubnode(const std::string& msn) const XRV_EXCLUDES(mutex_);
  // The MSNs of the online subnodes of `type`.
  std::vector<std::string> onlineSubnodesOfType(const std::string& type) const XRV_EXCLUDES(mutex_);

 private:
  mutable PthreadMutex mutex_;
  NodeEntry main_ XRV_GUARDED_BY(mutex_){"", "", "", "", true, true};
  std::vector<NodeEntry> subnodes_ XRV_GUARDED_BY(mutex_);
};

}  // namespace XRV::host
