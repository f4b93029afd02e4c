#include "host/TableCatalog.h"

#include <algorithm>
#include <cstring>

#include "definition/AttributeGroupMeta.h"
#include "framework/Trace.h"

namespace XRV::host {

void TableCatalog::loadDefinition() {
  XRV_TRACE_FN();
  for (AttributeGroupMeta* meta : attributeGroupsInDefinitionOrder()) {
    CatalogGroup group;
    group.name = meta->getGroupName();
    group.table = meta->tableName() == nullptr ? "" : meta->tableName();
    for (int i = 0; i < meta->noOfColumns(); ++i) {
      group.columns.push_back(*meta->attrInfo(i));
    }
    group.rowSize = meta->rowSize();
    group.pureEvent = meta->pureEventBased();
    group.discovery = meta->isDiscoveryAttributeGroup();
    group.subnodeType = meta->subnodeType() == nullptr ? "" : meta->subnodeType();
    group.meta = meta;
    XRV_TRACE_DETAIL("Serving attribute group %s as table %s with %zu columns", group.name.c_str(),
                     group.table.c_str(), group.columns.size());
    addGroup(std::move(group));
  }
}

void TableCatalog::addGroup(CatalogGroup group) {
  PthreadMutexLock lock(mutex_);
  if (byName_.contains(group.name)) {
    return;
  }
  const std::string name = group.name;
  const CatalogGroup* entry = &byName_.emplace(name, std::move(group)).first->second;
  ordered_.push_back(entry);
  byTable_.emplace(entry->table, entry);
}

std::vector<const CatalogGroup*> TableCatalog::groups() const {
  PthreadMutexLock lock(mutex_);
  return ordered_;
}

const CatalogGroup* TableCatalog::findGroup(const std::string& name) const {
  PthreadMutexLock lock(mutex_);
  auto found = byName_.find(name);
  return found == byName_.end() ? nullptr : &found->second;
}

const CatalogGroup* TableCatalog::findGroupByTable(std::string_view table) const {
  PthreadMutexLock lock(mutex_);
  auto found = byTable_.find(table);
  return found == byTable_.end() ? nullptr : found->second;
}

void TableCatalog::managerCreated(TableManager* manager) {
  PthreadMutexLock lock(mutex_);
  managers_.push_back(manager);
}

void TableCatalog::managerDestroyed(TableManager* manager) {
  PthreadMutexLock lock(mutex_);
  std::erase(managers_, manager);
}

TableManager* TableCatalog::managerFor(const CatalogGroup& group) const {
  PthreadMutexLock lock(mutex_);
  // The newest first: a table server made again replaces the earlier one.
  for (auto it = managers_.rbegin(); it != managers_.rend(); ++it) {
    if (group.table == (*it)->GetTableName()) {
      return *it;
    }
  }
  return nullptr;
}

}  // namespace XRV::host
