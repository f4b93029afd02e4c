#pragma once

// Packed table rows as JSON objects: {"<column name>": value, ...} in column order,
// numbers as JSON numbers, texts as UTF-8 strings with their padding removed.

#include <string>
#include <vector>

#include "host/JsonWriter.h"
#include "runtime/RowDecoder.h"

namespace XRV::host {

struct CatalogGroup;

// Writes the row as one JSON object; false (nothing written) when the row does not
// fit the group's layout. *columns is scratch space the caller may reuse.
bool writeRowJson(JsonWriter& json, const CatalogGroup& group, const std::string& row,
                  std::vector<DecodedColumn>* columns);

void writeColumnsJson(JsonWriter& json, const std::vector<DecodedColumn>& columns);

}  // namespace XRV::host
