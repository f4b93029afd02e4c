#include "DataSourceCheck.h"

#include <cstring>
#include <set>

#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "definition/Metric.h"
#include "provider/UAClientClass.h"
#include "provider/UAClientClassList.h"

namespace {

// Groups the agent fills itself when the definition declares them.
bool isBuiltInGroup(const char* name) {
  for (const char* builtIn : {"Performance_Object_Status", "Thread_Pool_Status",
                              "Take_Action_Status", "Log_File_Status", "Log_File_RegEx_Statistics"}) {
    if (strcmp(name, builtIn) == 0) {
      return true;
    }
  }
  return strstr(name, "_Performance_Object_Status") != nullptr;
}

// The provider's shown attributes against the group's columns, position by position
// (column 0 is the origin node).
void compareColumns(const UAClientClass& provider, const AttributeGroupMeta& group,
                    std::vector<std::string>* warnings) {
  const std::string name = provider.getAttributeGroup();
  int column = 1;
  for (int i = 0; i < provider.getMetricCount(); ++i) {
    const Metric* metric = provider.getMetric(i);
    if (metric->getIsHidden()) {
      continue;
    }
    const char* shown = metric->getSurfMetricName() == nullptr ? "" : metric->getSurfMetricName();
    if (column >= group.noOfColumns()) {
      warnings->push_back("Attribute group " + name + ": the data source shows attribute " +
                          shown + " but the group has no column left for it");
    } else if (strcmp(group.attrInfo(column)->name, shown) != 0) {
      warnings->push_back("Attribute group " + name + ": column " + std::to_string(column) +
                          " is " + group.attrInfo(column)->name +
                          " but the data source puts attribute " + shown + " there");
    }
    ++column;
  }
  if (column < group.noOfColumns()) {
    warnings->push_back("Attribute group " + name + " has " +
                        std::to_string(group.noOfColumns() - 1) +
                        " columns but its data source fills only " + std::to_string(column - 1));
  }
}

}  // namespace

std::vector<std::string> checkDataSourcesAgainstGroups() {
  std::vector<std::string> warnings;
  std::set<std::string> served;
  for (const UAClientClass* provider = queryClassList().getFirst(); provider != nullptr;
       provider = static_cast<const UAClientClass*>(provider->getNextElement())) {
    const char* groupName = provider->getAttributeGroup();
    const AttributeGroupMeta* group = findAttributeGroupMeta(groupName);
    if (group == nullptr) {
      warnings.push_back(std::string("Attribute group ") + groupName +
                         " has a data source but is not declared in the metadata: it has no "
                         "table");
      continue;
    }
    if (!served.insert(groupName).second) {
      warnings.push_back(std::string("Attribute group ") + groupName +
                         " has more than one data source: only the first one is used");
      continue;
    }
    compareColumns(*provider, *group, &warnings);
  }
  const auto groups = attributeGroupsInDefinitionOrder();
  if (groups.empty()) {
    // Text that holds no element at all reads as an empty definition.
    warnings.push_back(
        "The definition declares no attribute group: the agent would serve no table (is "
        "this an agent definition?)");
  }
  for (const AttributeGroupMeta* group : groups) {
    if (served.count(group->getGroupName()) == 0 && !isBuiltInGroup(group->getGroupName())) {
      warnings.push_back(std::string("Attribute group ") + group->getGroupName() +
                         " has no data source: its table stays empty");
    }
  }
  return warnings;
}
