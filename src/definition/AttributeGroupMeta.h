#pragma once

// AttributeGroupMeta: one attribute group (table) of the agent definition: its
// attributes in row order, the layout of its fixed-size binary row, and its
// behaviour flags. The process-wide metaMap files every group under its name.
//
// Every row starts with the 32-byte ORIGINNODE column (the managed system name).
// The columns of the table are the attributes that have a place in the row, in row
// order; attributes named with a leading "-" in the definition have none (offset -1).
//
// Built while the definition is read, then only read; the bound provider and table
// server are set once by the agent loader.

#include <vector>

#include "foundation/List.h"
#include "framework/FwRequest.h"

class AttributeMeta;
class HashMap;
class TableManager;
class UAClientClass;

class AttributeGroupMeta {
 public:
  AttributeGroupMeta(const char* applicationName, const char* tableName);
  // Destroys its attributes.
  virtual ~AttributeGroupMeta();
  AttributeGroupMeta(const AttributeGroupMeta&) = delete;
  AttributeGroupMeta& operator=(const AttributeGroupMeta&) = delete;

  const char* applName() const { return applicationName_; }
  const char* tableName() const { return tableName_; }
  // The group's name in the definition (its key in metaMap).
  const char* getGroupName() const { return groupName_ == nullptr ? "" : groupName_; }
  void setGroupName(const char* name);

  int rowSize() const { return rowSize_; }
  void setRowSize(int size) { rowSize_ = size; }
  // Takes the attributes (in row order; the group owns them from now on) and builds
  // the columns from those that have a place in the row.
  void updateColumns(List& attributes);
  int noOfAttributes() const { return attributes_.getCount(); }
  AttributeMeta* getAttribute(int index) const;
  int noOfColumns() const { return static_cast<int>(columns_.size()); }
  // Column `index`, or null.
  const ColumnInfo* attrInfo(int index) const;
  // The attribute of column `index`, or null.
  AttributeMeta* getColumnAttribute(int index) const;
  // Index of the column named `name`, or -1 ("Column not found on table %s: %s\n").
  int findColumn(const char* name) const;
  // The attribute named `name`, hidden ones included, or null; a miss is traced
  // ("Attribute not found on table %s: %s\n") when `traceMiss` is set.
  AttributeMeta* findAttribute(const char* name, bool traceMiss) const;
  // Type, size and offset of the column named `name`; false when there is none.
  bool columnInfo(const char* name, int* type, int* size, int* offset) const;

  bool pureEventBased() const { return pureEventBased_; }
  void setPureEventBased(bool pure) { pureEventBased_ = pure; }
  bool isDiscoveryAttributeGroup() const { return discovery_; }
  void setIsDiscoveryAttributeGroup(bool discovery) { discovery_ = discovery; }
  // Owned copies; null when absent.
  const char* subnodeType() const { return subnodeType_; }
  void setSubnodeType(const char* type);
  const char* getFilterExpression() const { return filterExpression_; }
  void setFilterExpression(const char* expression);
  // The grammar of the filter expression; "filter" unless the definition names one.
  const char* getFilterGrammar() const { return filterGrammar_; }
  void setFilterGrammar(const char* grammar);
  const char* evtFloodThreshold() const { return evtFloodThreshold_; }
  void setEvtFloodThreshold(const char* threshold);
  const char* evtSummaryInterval() const { return evtSummaryInterval_; }
  void setEvtSummaryInterval(const char* interval);

  // The group receives request information under `name` ("receive_req").
  void setRequestInfo(const char* name);
  // Names of the request information the group receives, or null when none.
  HashMap* getRequestInfoMap() const { return requestInfo_; }

  // The provider that serves the group: the first one bound stays.
  UAClientClass* query() const { return query_; }
  void setQuery(UAClientClass* query);
  TableManager* getTableManager() const { return tableManager_; }
  void setTableManager(TableManager* manager) { tableManager_ = manager; }

 private:
  char* applicationName_;
  char* tableName_;
  char* groupName_ = nullptr;
  int rowSize_ = 0;
  List attributes_;  // of AttributeMeta*, owned
  std::vector<ColumnInfo> columns_;
  std::vector<AttributeMeta*> columnAttributes_;  // parallel to columns_
  bool pureEventBased_ = false;
  bool discovery_ = false;
  char* subnodeType_ = nullptr;
  char* filterExpression_ = nullptr;
  char* filterGrammar_ = nullptr;
  char* evtFloodThreshold_ = nullptr;
  char* evtSummaryInterval_ = nullptr;
  HashMap* requestInfo_ = nullptr;  // names (owned keys) to nothing
  UAClientClass* query_ = nullptr;
  TableManager* tableManager_ = nullptr;
};

// The attribute groups of the agent, by name (owned keys; the map owns the groups).
HashMap& metaMap();
// The group named `name`, or null.
AttributeGroupMeta* findAttributeGroupMeta(const char* name);
// Files `group` under `name`. A group already filed under that name is replaced; it
// stays alive (a provider may already point at it) until clearMetaMap.
void addAttributeGroupMeta(const char* name, AttributeGroupMeta* group);
// Destroys every group, replaced ones included, and empties the map. Element parsers
// in the middle of an element forget it (XMLConfigParser::abandon).
void clearMetaMap();
// The groups filed in metaMap, in the order the definition declared them.
std::vector<AttributeGroupMeta*> attributeGroupsInDefinitionOrder();

// Called when a group whose name contains "_Performance_Object_Status" has been
// read, to create the provider that reports the status of every data provider.
using PerfObjectStatusHook = void (*)(AttributeGroupMeta* group, const char* groupName);
void setPerfObjectStatusHook(PerfObjectStatusHook hook);
PerfObjectStatusHook getPerfObjectStatusHook();
