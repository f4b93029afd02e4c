#include "host/RowJson.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "definition/AttributeMeta.h"
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

namespace {

// The bytes of a number column that decodeColumn reads.
size_t numberWidth(const ColumnInfo& column) {
  const size_t width = is64BitAttributeType(column.type) ? 8 : 4;
  return std::min(static_cast<size_t>(column.size), width);
}

}  // namespace

bool rowFitsLayout(const CatalogGroup& group, size_t length) {
  if (group.rowSize < 0 || length < static_cast<size_t>(group.rowSize)) {
    return false;
  }
  return std::all_of(group.columns.begin(), group.columns.end(), [&group](const ColumnInfo& c) {
    return c.offset >= 0 && c.size >= 0 && c.offset + c.size <= group.rowSize;
  });
}

bool squeezeRow(const CatalogGroup& group, const char* row, size_t length, std::string* into) {
  into->clear();
  if (row == nullptr || !rowFitsLayout(group, length)) {
    return false;
  }
  for (const ColumnInfo& column : group.columns) {
    const char* bytes = row + column.offset;
    if (isNumericAttributeType(column.type)) {
      into->append(bytes, numberWidth(column));
      continue;
    }
    const auto text = static_cast<uint32_t>(textLength(bytes, static_cast<size_t>(column.size)));
    into->append(reinterpret_cast<const char*>(&text), sizeof text);
    into->append(bytes, text);
  }
  return true;
}

bool decodeSqueezedRow(const CatalogGroup& group, std::string_view squeezed,
                       std::vector<DecodedColumn>* columns) {
  columns->clear();
  columns->reserve(group.columns.size());
  size_t at = 0;
  for (const ColumnInfo& column : group.columns) {
    ColumnInfo part = column;  // the column as squeezed: only the bytes kept
    if (isNumericAttributeType(column.type)) {
      part.size = static_cast<int>(numberWidth(column));
    } else {
      uint32_t text = 0;
      if (squeezed.size() - at < sizeof text) {
        return false;
      }
      memcpy(&text, squeezed.data() + at, sizeof text);
      at += sizeof text;
      part.size = static_cast<int>(text);
    }
    if (part.size < 0 || squeezed.size() - at < static_cast<size_t>(part.size)) {
      return false;
    }
    columns->push_back(decodeColumn(part, squeezed.data() + at));
    at += static_cast<size_t>(part.size);
  }
  return at == squeezed.size();
}

}  // namespace XRV::host
