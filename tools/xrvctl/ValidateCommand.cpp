#include "ValidateCommand.h"

#include "DataSourceCheck.h"
#include "FilterCheck.h"

#include <iomanip>
#include <ostream>

#include <nlohmann/json.hpp>

#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "definition/DefinitionCheck.h"

namespace {

using nlohmann::json;

json nullable(const char* text) { return text == nullptr ? json(nullptr) : json(text); }

json groupAsJson(const AttributeGroupMeta& group) {
  json attributes = json::array();
  for (int i = 0; i < group.noOfAttributes(); ++i) {
    const AttributeMeta* attribute = group.getAttribute(i);
    attributes.push_back({{"name", attribute->getName()},
                          {"hint", nullable(attribute->getHint())},
                          {"type", attribute->getType()},
                          {"size", attribute->getSize()},
                          {"offset", attribute->getOffset()}});
  }
  return {{"group", group.getGroupName()},
          {"table", group.tableName()},
          {"row_size", group.rowSize()},
          {"pure_event", group.pureEventBased()},
          {"discovery", group.isDiscoveryAttributeGroup()},
          {"subnode_type", nullable(group.subnodeType())},
          {"attributes", attributes}};
}

std::string flagsOf(const AttributeGroupMeta& group) {
  std::string flags;
  auto add = [&flags](const std::string& flag) { flags += (flags.empty() ? "" : ", ") + flag; };
  if (group.pureEventBased()) {
    add("pure events");
  }
  if (group.isDiscoveryAttributeGroup()) {
    add("discovery");
  }
  if (group.subnodeType() != nullptr) {
    add(std::string("subnode type ") + group.subnodeType());
  }
  return flags.empty() ? "" : "  [" + flags + "]";
}

void printGroup(const AttributeGroupMeta& group, std::ostream& out) {
  out << group.getGroupName() << "  table " << group.tableName() << ", row " << group.rowSize()
      << " bytes" << flagsOf(group) << "\n";
  size_t width = 9;
  for (int i = 0; i < group.noOfAttributes(); ++i) {
    width = std::max(width, std::string(group.getAttribute(i)->getName()).size());
  }
  out << "  " << std::left << std::setw(static_cast<int>(width)) << "ATTRIBUTE" << std::right
      << "  TYPE  SIZE  OFFSET  HINT\n";
  for (int i = 0; i < group.noOfAttributes(); ++i) {
    const AttributeMeta* attribute = group.getAttribute(i);
    out << "  " << std::left << std::setw(static_cast<int>(width)) << attribute->getName()
        << std::right << std::setw(6) << attribute->getType() << std::setw(6)
        << attribute->getSize() << std::setw(8);
    if (attribute->isHidden()) {
      out << "hidden";
    } else {
      out << attribute->getOffset();
    }
    if (attribute->getHint() != nullptr) {
      out << "  " << attribute->getHint();
    }
    out << "\n";
  }
}

}  // namespace

int runValidate(const ValidateOptions& options, std::ostream& out, std::ostream& err) {
  DefinitionCheck check;
  bool ok = check.checkFile(options.definition);
  // Problems between data sources and groups have no line of their own.
  std::vector<std::string> groupWarnings;
  if (ok) {
    groupWarnings = checkDataSourcesAgainstGroups();
    for (std::string& warning : checkGroupFilters()) {
      groupWarnings.push_back(std::move(warning));
    }
  }
  const size_t warningCount = check.warnings().size() + groupWarnings.size();
  if (options.json) {
    json warnings = json::array();
    for (const DefinitionProblem& warning : check.warnings()) {
      warnings.push_back({{"line", warning.line}, {"message", warning.message}});
    }
    for (const std::string& warning : groupWarnings) {
      warnings.push_back({{"line", nullptr}, {"message", warning}});
    }
    json report;
    if (ok) {
      json groups = json::array();
      for (const AttributeGroupMeta* group : attributeGroupsInDefinitionOrder()) {
        groups.push_back(groupAsJson(*group));
      }
      report["groups"] = groups;
    } else {
      report["error"] = {{"line", check.error()->line},
                         {"column", check.error()->column},
                         {"message", check.error()->message}};
    }
    report["warnings"] = warnings;
    // Texts from the definition may hold bytes that are not UTF-8: replace them.
    out << report.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
    return ok ? 0 : 1;
  }
  for (const DefinitionProblem& warning : check.warnings()) {
    err << options.definition << ":" << warning.line << ": warning: " << warning.message << "\n";
  }
  for (const std::string& warning : groupWarnings) {
    err << options.definition << ": warning: " << warning << "\n";
  }
  if (!ok) {
    const DefinitionProblem& error = *check.error();
    err << options.definition;
    if (error.line > 0) {
      err << ":" << error.line << ":" << error.column;
    }
    err << ": error: " << error.message << "\n";
    return 1;
  }
  std::vector<AttributeGroupMeta*> groups = attributeGroupsInDefinitionOrder();
  for (size_t i = 0; i < groups.size(); ++i) {
    out << (i == 0 ? "" : "\n");
    printGroup(*groups[i], out);
  }
  out << "\n"
      << groups.size() << " attribute group" << (groups.size() == 1 ? "" : "s") << ", "
      << warningCount << " warning" << (warningCount == 1 ? "" : "s") << "\n";
  return 0;
}
