#pragma once

// The agent's tables in the Prometheus text exposition format (GET /metrics).
//
// Every attribute group that is not event-driven is sampled on demand (the main
// node, or every online subnode for a subnode group), and each numeric column becomes
// a gauge named xrv_<group>_<column>, one sample per row. The row's managed system is
// the label "node", and every text column of the row is a label of its own (named
// after the column): the text columns are what tells the rows of a table apart.
// Names are cut to the characters the format allows ("_" for the others).

#include <string>

namespace XRV::host {

class NodeRegistry;
class TableCatalog;

std::string exposeMetrics(const TableCatalog& catalog, const NodeRegistry& nodes);

// `text` with every character a metric or label name may not hold made "_".
std::string metricName(const std::string& text);

}  // namespace XRV::host
