#include "host/MetricsExposition.h"

#include <cstring>
#include <vector>

#include "host/NodeRegistry.h"
#include "host/TableCatalog.h"
#include "host/TableSampler.h"
#include "runtime/RowDecoder.h"

namespace XRV::host {
namespace {

void appendLabelValue(std::string& out, const std::string& value) {
  out.push_back('"');
  for (char c : value) {
    if (c == '\\' || c == '"') {
      out.push_back('\\');
      out.push_back(c);
    } else if (c == '\n') {
      out.append("\\n");
    } else {
      out.push_back(c);
    }
  }
  out.push_back('"');
}

// The label set of one decoded row: {node="...",Text_Column="...",...}.
std::string labelsOf(const std::vector<DecodedColumn>& columns) {
  std::string labels = "{";
  for (const DecodedColumn& column : columns) {
    if (column.isNumber()) {
      continue;
    }
    if (labels.size() > 1) {
      labels.push_back(',');
    }
    labels.append(column.name == "ORIGINNODE" ? "node" : metricName(column.name));
    labels.push_back('=');
    appendLabelValue(labels, column.text);
  }
  labels.push_back('}');
  return labels;
}

void exposeGroup(std::string& out, const CatalogGroup& group, TableManager& manager,
                 const std::vector<std::string>& nodes) {
  std::vector<std::vector<DecodedColumn>> rows;
  for (const std::string& node : nodes) {
    SampleRequest request;
    request.node = node;
    for (const std::string& row : sampleTable(manager, request).rows) {
      std::vector<DecodedColumn> columns;
      if (decodeRow(group.columns, group.rowSize, row.data(), row.size(), &columns)) {
        rows.push_back(std::move(columns));
      }
    }
  }
  if (rows.empty()) {
    return;
  }
  std::vector<std::string> labels;
  labels.reserve(rows.size());
  for (const auto& row : rows) {
    labels.push_back(labelsOf(row));
  }
  const std::string prefix = "xrv_" + metricName(group.name) + "_";
  for (size_t c = 0; c < group.columns.size(); ++c) {
    if (!rows.front()[c].isNumber()) {
      continue;
    }
    const std::string name = prefix + metricName(group.columns[c].name);
    out.append("# TYPE ").append(name).append(" gauge\n");
    for (size_t r = 0; r < rows.size(); ++r) {
      out.append(name).append(labels[r]).push_back(' ');
      out.append(std::to_string(rows[r][c].number)).push_back('\n');
    }
  }
}

}  // namespace

std::string metricName(const std::string& text) {
  std::string name = text;
  for (size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
    const bool digit = c >= '0' && c <= '9';
    if (!letter && !(digit && i > 0)) {
      name[i] = '_';
    }
  }
  return name.empty() ? "_" : name;
}

std::string exposeMetrics(const TableCatalog& catalog, const NodeRegistry& nodes) {
  std::string out;
  for (const CatalogGroup* group : catalog.groups()) {
    TableManager* manager = catalog.managerFor(*group);
    if (group->pureEvent || manager == nullptr) {
      continue;
    }
    const std::vector<std::string> targets = group->subnodeType.empty()
                                                 ? std::vector<std::string>{""}
                                                 : nodes.onlineSubnodesOfType(group->subnodeType);
    exposeGroup(out, *group, *manager, targets);
  }
  return out;
}

}  // namespace XRV::host
