#include "FilterCheck.h"

#include <cstdlib>
#include <cstring>

#include "definition/AttributeGroupMeta.h"
#include "foundation/Utilities.h"
#include "provider/expression/ExpressionLanguage.h"

std::vector<std::string> checkGroupFilters() {
  std::vector<std::string> warnings;
  for (const AttributeGroupMeta* group : attributeGroupsInDefinitionOrder()) {
    const char* text = group->getFilterExpression();
    if (text == nullptr || *text == '\0') {
      continue;
    }
    const char* grammar = group->getFilterGrammar();
    const std::string name = group->getGroupName();
    if (strcmp(grammar, "filter") != 0 && strcmp(grammar, "expression") != 0) {
      warnings.push_back("Attribute group " + name + " names the unknown filter grammar " +
                         grammar + " (\"filter\" or \"expression\"): its filter is not applied");
      continue;
    }
    std::string filter = text;
    if (strcmp(grammar, "filter") == 0) {
      char* expanded = Utilities::substituteEnvVars(text, nullptr, nullptr, true);
      if (expanded != nullptr) {
        filter = expanded;
        free(expanded);
      }
    }
    std::string error;
    int column = 0;
    if (!XRV::expression::checkFilterText(grammar, filter.c_str(), &error, &column)) {
      warnings.push_back("Attribute group " + name + ": its filter does not parse (" + error +
                         "), so no row is filtered out:\n" + filter + "\n" +
                         XRV::expression::markerLine(column));
    }
  }
  return warnings;
}
