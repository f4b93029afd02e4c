#pragma once

// Packed table rows as JSON objects: {"<column name>": value, ...} in column order,
// numbers as JSON numbers, texts as UTF-8 strings with their padding removed.

#include <cstddef>
#include <string>
#include <string_view>
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

// Whether a packed row of `length` bytes fits the group's layout: as long as a row of
// the group, every column inside it.
bool rowFitsLayout(const CatalogGroup& group, size_t length);

// The compact form in which the event ring keeps a row until someone reads it: per
// column in row order, a number's bytes as packed, a text's length (4 bytes) and its
// bytes without the padding. A 2 KB column holding a 200-byte line keeps 204 bytes.
// Writes it into *into (replaced, its storage reused); false when the row does not
// fit the group's layout (too short, a column outside it).
bool squeezeRow(const CatalogGroup& group, const char* row, size_t length, std::string* into);

// The columns of a row squeezeRow made for `group`, as decodeRow gives them from the
// packed row; false when `squeezed` is not such a row.
bool decodeSqueezedRow(const CatalogGroup& group, std::string_view squeezed,
                       std::vector<DecodedColumn>* columns);

}  // namespace XRV::host
