#include "definition/AttributeGroupMeta.h"

#include <cstdlib>
#include <cstring>

#include "definition/AttributeMeta.h"
#include "definition/XMLConfigParser.h"
#include "foundation/HashMap.h"
#include "foundation/Utilities.h"
#include "framework/Trace.h"

namespace {

// Every group ever filed, in definition order (replaced ones too, so that they are
// destroyed with the rest).
List& groupsInOrder() {
  static List groups;
  return groups;
}

PerfObjectStatusHook perfObjectStatusHook = nullptr;

}  // namespace

AttributeGroupMeta::AttributeGroupMeta(const char* applicationName, const char* tableName)
    : applicationName_(strdup(applicationName == nullptr ? "" : applicationName)),
      tableName_(strdup(tableName == nullptr ? "" : tableName)),
      filterGrammar_(strdup("filter")) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("AttributeGroupMeta created for  %s: %s\n", applicationName_, tableName_);
}

AttributeGroupMeta::~AttributeGroupMeta() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("AttributeGroupMeta destroyed for  %s: %s\n", applicationName_, tableName_);
  while (attributes_.getCount() > 0) {
    delete static_cast<AttributeMeta*>(attributes_.pop());
  }
  if (requestInfo_ != nullptr) {
    requestInfo_->foreach (hashMapFreeKeyData, nullptr);
    delete requestInfo_;
  }
  for (char* text : {applicationName_, tableName_, groupName_, subnodeType_, filterExpression_,
                     filterGrammar_, evtFloodThreshold_, evtSummaryInterval_}) {
    free(text);
  }
}

void AttributeGroupMeta::setGroupName(const char* name) {
  Utilities::setOwnedText(&groupName_, name);
}

void AttributeGroupMeta::updateColumns(List& attributes) {
  XRV_TRACE_FN();
  columns_.clear();
  columnAttributes_.clear();
  for (ListIterator it = attributes.iterator(); it.hasNext();) {
    auto* attribute = static_cast<AttributeMeta*>(it.next());
    attributes_.add(attribute);
    if (!attribute->isHidden()) {
      columns_.push_back(ColumnInfo{attribute->getName(), attribute->getType(),
                                    attribute->getSize(), attribute->getOffset()});
      columnAttributes_.push_back(attribute);
    }
  }
  XRV_TRACE_DETAIL("Counts for table %s: attributes=%d, visible=%d\n", tableName_,
                   attributes_.getCount(), noOfColumns());
  if (XRV_TRACE_ENABLED(TRACE_DETAIL)) {
    XRV_TRACE_DETAIL("Application : %s\n", applicationName_);
    XRV_TRACE_DETAIL("Table       : %s\n", tableName_);
    XRV_TRACE_DETAIL("Row size    : %d\n", rowSize_);
    XRV_TRACE_DETAIL("Columns     : %d\n", noOfColumns());
    XRV_TRACE_DETAIL("Attributes  : %d\n", attributes_.getCount());
    for (int i = 0; i < noOfColumns(); ++i) {
      const ColumnInfo& column = columns_[static_cast<size_t>(i)];
      XRV_TRACE_DETAIL("[%d]\tName   : %s\n", i, column.name);
      XRV_TRACE_DETAIL("\tType   : %d\n", column.type);
      XRV_TRACE_DETAIL("\tLength : %d\n", column.size);
      XRV_TRACE_DETAIL("\tOffset : %d\n", column.offset);
    }
  }
}

AttributeMeta* AttributeGroupMeta::getAttribute(int index) const {
  if (index < 0 || index >= attributes_.getCount()) {
    return nullptr;
  }
  return static_cast<AttributeMeta*>(attributes_.get(index));
}

const ColumnInfo* AttributeGroupMeta::attrInfo(int index) const {
  if (index < 0 || index >= noOfColumns()) {
    return nullptr;
  }
  return &columns_[static_cast<size_t>(index)];
}

AttributeMeta* AttributeGroupMeta::getColumnAttribute(int index) const {
  if (index < 0 || index >= noOfColumns()) {
    return nullptr;
  }
  return columnAttributes_[static_cast<size_t>(index)];
}

int AttributeGroupMeta::findColumn(const char* name) const {
  XRV_TRACE_FN();
  for (int i = 0; name != nullptr && i < noOfColumns(); ++i) {
    if (strcmp(columns_[static_cast<size_t>(i)].name, name) == 0) {
      return i;
    }
  }
  XRV_TRACE_DETAIL("Column not found on table %s: %s\n", tableName_,
                   name == nullptr ? "(null)" : name);
  return -1;
}

AttributeMeta* AttributeGroupMeta::findAttribute(const char* name, bool traceMiss) const {
  XRV_TRACE_FN();
  for (int i = 0; name != nullptr && i < attributes_.getCount(); ++i) {
    auto* attribute = static_cast<AttributeMeta*>(attributes_.get(i));
    if (strcmp(attribute->getName(), name) == 0) {
      return attribute;
    }
  }
  if (traceMiss) {
    XRV_TRACE_DETAIL("Attribute not found on table %s: %s\n", tableName_,
                     name == nullptr ? "(null)" : name);
  }
  return nullptr;
}

bool AttributeGroupMeta::columnInfo(const char* name, int* type, int* size, int* offset) const {
  int index = findColumn(name);
  if (index < 0) {
    return false;
  }
  const ColumnInfo& column = columns_[static_cast<size_t>(index)];
  *type = column.type;
  *size = column.size;
  *offset = column.offset;
  return true;
}

void AttributeGroupMeta::setSubnodeType(const char* type) {
  Utilities::setOwnedText(&subnodeType_, type);
}

void AttributeGroupMeta::setFilterExpression(const char* expression) {
  Utilities::setOwnedText(&filterExpression_, expression);
}

void AttributeGroupMeta::setFilterGrammar(const char* grammar) {
  Utilities::setOwnedText(&filterGrammar_, grammar == nullptr ? "filter" : grammar);
}

void AttributeGroupMeta::setEvtFloodThreshold(const char* threshold) {
  Utilities::setOwnedText(&evtFloodThreshold_, threshold);
}

void AttributeGroupMeta::setEvtSummaryInterval(const char* interval) {
  Utilities::setOwnedText(&evtSummaryInterval_, interval);
}

void AttributeGroupMeta::setRequestInfo(const char* name) {
  XRV_TRACE_FN();
  if (name == nullptr) {
    return;
  }
  if (requestInfo_ == nullptr) {
    requestInfo_ = new HashMap(8);
  }
  if (!requestInfo_->contains(name)) {
    requestInfo_->put(strdup(name), nullptr);
  }
}

void AttributeGroupMeta::setQuery(UAClientClass* query) {
  if (query_ == nullptr) {
    query_ = query;
  }
}

HashMap& metaMap() {
  static HashMap map;
  return map;
}

AttributeGroupMeta* findAttributeGroupMeta(const char* name) {
  return static_cast<AttributeGroupMeta*>(metaMap().get(name));
}

void addAttributeGroupMeta(const char* name, AttributeGroupMeta* group) {
  XRV_TRACE_FN();
  if (name == nullptr || group == nullptr) {
    return;
  }
  group->setGroupName(name);
  if (metaMap().contains(name)) {
    XRV_TRACE_ERROR(
        "Attribute group %s is defined again; the later definition replaces the "
        "earlier one",
        name);
    metaMap().put(name, group);  // the key stored first stays
  } else {
    metaMap().put(strdup(name), group);
  }
  groupsInOrder().add(group);
}

void clearMetaMap() {
  XRV_TRACE_FN();
  // A parser in the middle of a group holds a pointer to it.
  abandonAllXMLConfigParsers();
  metaMap().foreach ([](const char* key, const void*, void*) { free(const_cast<char*>(key)); },
                     nullptr);
  metaMap().clear();
  while (groupsInOrder().getCount() > 0) {
    delete static_cast<AttributeGroupMeta*>(groupsInOrder().pop());
  }
}

std::vector<AttributeGroupMeta*> attributeGroupsInDefinitionOrder() {
  std::vector<AttributeGroupMeta*> groups;
  for (ListIterator it = groupsInOrder().iterator(); it.hasNext();) {
    auto* group = static_cast<AttributeGroupMeta*>(it.next());
    if (findAttributeGroupMeta(group->getGroupName()) == group) {
      groups.push_back(group);
    }
  }
  return groups;
}

void setPerfObjectStatusHook(PerfObjectStatusHook hook) { perfObjectStatusHook = hook; }

PerfObjectStatusHook getPerfObjectStatusHook() { return perfObjectStatusHook; }
