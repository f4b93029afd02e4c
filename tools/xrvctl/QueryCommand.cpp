#include "QueryCommand.h"

#include <ostream>

#include <nlohmann/json.hpp>

#include "SampleOutput.h"

namespace {

using ordered_json = nlohmann::ordered_json;

// A value of the agent's JSON row as the sample printers take it.
DecodedColumn cell(const std::string& name, const ordered_json& value) {
  DecodedColumn column;
  column.name = name;
  if (value.is_number_integer()) {
    column.kind = DecodedColumn::NUMBER;
    column.number = value.get<int64_t>();
  } else {
    column.text = value.is_string() ? value.get<std::string>() : value.dump();
  }
  return column;
}

// The group's columns and table from GET /api/v1/tables; false when not listed.
bool describeGroup(const ordered_json& tables, SampledGroup* group) {
  if (!tables.is_array()) {
    return false;
  }
  for (const ordered_json& table : tables) {
    if (table.value("group", "") != group->group) {
      continue;
    }
    group->table = table.value("table", "");
    for (const ordered_json& column : table["columns"]) {
      group->columns.push_back(column.value("name", ""));
      const int type = column.value("type", 1);
      group->numeric.push_back(type != 1 && type != 2);
    }
    return true;
  }
  return false;
}

}  // namespace

int runQuery(const QueryOptions& options, std::ostream& out, std::ostream& err) {
  AgentClient agent(options.url);
  std::string path = "/api/v1/tables/" + percentEncode(options.group);
  if (!options.node.empty()) {
    path += "?node=" + percentEncode(options.node);
  }
  const std::optional<ordered_json> found = agent.getList(path, "rows", "query", err);
  if (!found) {
    return 1;
  }
  const ordered_json& answer = *found;

  SampledGroup group;
  group.group = answer.value("group", options.group);
  group.node = answer["node"].is_string() ? answer["node"].get<std::string>() : "";
  const AgentReply tables = agent.get("/api/v1/tables");
  if (tables.status != 200 ||
      !describeGroup(ordered_json::parse(tables.body, nullptr, false), &group)) {
    err << "xrvctl query: the agent does not list the columns of " << group.group << "\n";
    return 1;
  }
  for (const ordered_json& row : answer["rows"]) {
    std::vector<DecodedColumn> cells;
    for (const std::string& column : group.columns) {
      cells.push_back(cell(column, row.contains(column) ? row[column] : ordered_json("")));
    }
    group.rows.push_back(std::move(cells));
  }

  const std::vector<SampledGroup> groups{group};
  if (options.format == "json") {
    printSampleJson(groups, out);
  } else if (options.format == "csv") {
    printSampleCsv(groups, out);
  } else {
    printSampleTable(groups, out);
  }
  return 0;
}
