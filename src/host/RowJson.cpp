#include "host/RowJson.h"

#include "host/TableCatalog.h"

namespace XRV::host {

bool writeRowJson(JsonWriter& json, const CatalogGroup& group, const std::string& row,
                  std::vector<DecodedColumn>* columns) {
  if (!decodeRow(group.columns, group.rowSize, row.data(), row.size(), columns)) {
    return false;
  }
  writeColumnsJson(json, *columns);
  return true;
}

void writeColumnsJson(JsonWriter& json, const std::vector<DecodedColumn>& columns) {
  json.beginObject();
  for (const DecodedColumn& column : columns) {
    json.key(column.name);
    if (column.isNumber()) {
      json.value(column.number);
    } else {
      json.value(column.text);
    }
  }
  json.endObject();
}

}  // namespace XRV::host
