#pragma once

// PerfObjectStatus: the built-in data source of the "Performance_Object_Status"
// attribute group (and of every group whose name contains
// "_Performance_Object_Status"): one row per data provider of the agent, subnode
// copies included, with the provider's attribute group, its status and its error
// code, and the statistics of its collections.
//
// The definition declares the group's attributes; values are matched to them by
// attribute name (docs/status-groups.md lists them). A text attribute gets the
// status and error code as their names ("PERF_OBJECT_ACTIVE", "SCRIPT_NOT_FOUND"), a
// numeric one their numbers. Attributes of other names report 0 or "".
//
// A collection walks the provider list under the subnode manager's lock (subnodes
// come and go while the agent runs) and asks each provider only for its status,
// error code and statistics while the lock is held.

#include "runtime/BuiltInStatusProvider.h"

class AttributeGroupMeta;
class UAClientClassList;

class PerfObjectStatus : public BuiltInStatusProvider {
 public:
  // Reports on every provider of `providers` (which must outlive it).
  PerfObjectStatus(const char* applicationName, const char* attributeGroup,
                   UAClientClassList* providers, AttributeGroupMeta* meta);

  void internalCollectData(const char* subnode) override;
  void printResults() override;

 private:
  UAClientClassList* providers_;
};

// Makes the definition reader create a PerfObjectStatus for every group whose name
// contains "_Performance_Object_Status" as soon as the group has been read: bound to
// the group both ways and added to queryClassList(). Install before reading the
// definition.
void installPerfObjectStatusHook();
