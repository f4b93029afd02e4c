#pragma once

// The subnodes a discovery attribute group reports: its rows read (columns
// Subnode_Key, Subnode_Type, Subnode_Affinity, Subnode_Version, Subnode_Status) and
// each named with its managed system name.
//
// Stateless. Takes the discovery provider's results lock while it reads the rows
// (through visitRows), so it must not be called with the subnode manager's lock
// held: the two are never held together.

#include <string>
#include <vector>

class SubnodeManagedSystemNames;
class UAClientClass;

struct DiscoveredSubnode {
  std::string msn;
  std::string key;
  std::string type;
  std::string affinity;
  std::string version;
  bool online;  // Subnode_Status is "ONLINE", or the group has no such column
};

// The subnodes of `discoveryProvider`'s current rows, in row order; rows missing a
// column, filtered out, or with an empty key or type are skipped (and traced). The
// MSNs' application is `application`, else the agent's, else the provider's.
std::vector<DiscoveredSubnode> readDiscoveredSubnodes(UAClientClass* discoveryProvider,
                                                      const SubnodeManagedSystemNames& names,
                                                      const std::string& application);
