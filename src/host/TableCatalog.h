#pragma once

// TableCatalog: the attribute groups the agent serves, as the HTTP API shows them,
// and the table server (TableManager) behind each.
//
// The groups come from the agent definition (read before the framework runs, then
// unchanged); table servers announce themselves as the agent loader creates them and
// withdraw when the agent tears down. A group whose data source is missing has no
// table server: it is listed, but cannot be sampled.
//
// Thread-safe. Group entries and their column texts stay valid while the catalog
// lives and the definition is loaded (the host stops serving before the agent tears
// its definition down).

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Locks.h"
#include "framework/FwRequest.h"

class AttributeGroupMeta;

namespace XRV::host {

struct CatalogGroup {
  std::string name;                 // the attribute group's name
  std::string table;                // its table name
  std::vector<ColumnInfo> columns;  // in row order, ORIGINNODE first
  int rowSize = 0;
  bool pureEvent = false;
  bool discovery = false;
  std::string subnodeType;  // empty when the group serves the main node only
  const AttributeGroupMeta* meta = nullptr;
};

class TableCatalog {
 public:
  // Takes every attribute group of the loaded definition, in definition order.
  void loadDefinition() XRV_EXCLUDES(mutex_);
  // For tests: one group described directly.
  void addGroup(CatalogGroup group) XRV_EXCLUDES(mutex_);

  std::vector<const CatalogGroup*> groups() const XRV_EXCLUDES(mutex_);
  // Null when there is no such group.
  const CatalogGroup* findGroup(const std::string& name) const XRV_EXCLUDES(mutex_);
  const CatalogGroup* findGroupByTable(std::string_view table) const XRV_EXCLUDES(mutex_);

  void managerCreated(TableManager* manager) XRV_EXCLUDES(mutex_);
  void managerDestroyed(TableManager* manager) XRV_EXCLUDES(mutex_);
  // The table server of `group`, or null.
  TableManager* managerFor(const CatalogGroup& group) const XRV_EXCLUDES(mutex_);

 private:
  mutable PthreadMutex mutex_;
  // Entries never move once added (the map is node-based), so pointers to them
  // stay valid.
  std::map<std::string, CatalogGroup> byName_ XRV_GUARDED_BY(mutex_);
  std::vector<const CatalogGroup*> ordered_ XRV_GUARDED_BY(mutex_);
  std::map<std::string, const CatalogGroup*, std::less<>> byTable_ XRV_GUARDED_BY(mutex_);
  std::vector<TableManager*> managers_ XRV_GUARDED_BY(mutex_);
};

}  // namespace XRV::host
