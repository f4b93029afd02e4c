#pragma once

// How xrvctl sample prints what it sampled: aligned tables for people, JSON or CSV
// for programs.

#include <iosfwd>
#include <string>
#include <vector>

#include "runtime/RowDecoder.h"

// One attribute group's sample.
struct SampledGroup {
  std::string group;
  std::string table;
  std::string node;                              // the managed system sampled
  std::vector<std::string> columns;              // names, in row order
  std::vector<bool> numeric;                     // per column
  std::vector<std::vector<DecodedColumn>> rows;  // decoded, in the order sent
};

// Per group: a title line "GROUP (TABLE): N rows", the column names and one line per
// row; numbers right-aligned, texts left-aligned. A blank line between groups.
void printSampleTable(const std::vector<SampledGroup>& groups, std::ostream& out);
// One JSON array: [{"group", "table", "node", "rows": [{"COLUMN": value, ...}]}], the
// columns of a row in row order, numbers as JSON numbers.
void printSampleJson(const std::vector<SampledGroup>& groups, std::ostream& out);
// Per group: a header line of column names and one line per row (RFC 4180 quoting, lines ended by
// LF); a blank line between groups.
void printSampleCsv(const std::vector<SampledGroup>& groups, std::ostream& out);
