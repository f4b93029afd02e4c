#pragma once

// RowDecoder: turns a packed table row (the fixed-size record a request or an event
// hands to the framework) back into named, typed values, by the table's column layout.
// Used by whatever shows rows to a person or a client: xrvctl sample and the HTTP
// host's table and event answers.
//
//   const AttributeGroupMeta* group = findAttributeGroupMeta("Disk_Usage");
//   std::vector<DecodedColumn> values;
//   if (decodeRow(*group, row, length, &values)) {
//     for (const DecodedColumn& value : values) {
//       value.name;                          // "ORIGINNODE", "Mount_Point", ...
//       value.isNumber() ? value.number      // integer columns (types 0, 3-9)
//                        : value.text;       // text columns (types 1 and 2)
//     }
//   }
//
// Rules:
// - Every column of the layout is decoded, in row order, ORIGINNODE (column 0)
//   included; attributes without a place in the row are not columns and do not appear.
// - Numbers are the signed integers written into the row (the low `size` bytes, at
//   most 4 for the 32-bit types 0 and 3-5, at most 8 for the 64-bit types 6-9, in the
//   machine's byte order), sign-extended. A double collected with a scale arrives as
//   value x 10^scale, as the framework sees it: no scale is undone here.
// - Texts end at the first NUL byte; trailing blanks (the padding of UTF-8 columns)
//   are removed. Bytes that are not valid UTF-8 become U+FFFD, so every text is valid
//   UTF-8 (JSON output can take it as it is). Columns of an unknown type code are
//   read as text.
// - A row shorter than the layout's row size is refused (false, nothing decoded): a
//   row is always packed to the full size, so a short one is not a row of this table.
//
// Pure functions: no locks, no tracing, no state. Thread-safe.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "framework/FwRequest.h"

class AttributeGroupMeta;

struct DecodedColumn {
  enum Kind { NUMBER, TEXT };

  std::string name;  // the column's attribute name
  int type = 0;      // the attribute type code of the definition
  Kind kind = TEXT;
  int64_t number = 0;  // when kind == NUMBER
  std::string text;    // when kind == TEXT: UTF-8, padding removed

  bool isNumber() const { return kind == NUMBER; }
};

// Decodes `row` (`length` bytes) by the columns of `group` into *columns (replaced).
// False when the row is shorter than the group's row size.
bool decodeRow(const AttributeGroupMeta& group, const char* row, size_t length,
               std::vector<DecodedColumn>* columns);

// The same by an explicit column list (e.g. from GenericAgentBase::GetColumnInfo).
// `rowSize` is the full size of the record; false when `length` is below it or a
// column lies outside it.
bool decodeRow(const std::vector<ColumnInfo>& layout, int rowSize, const char* row, size_t length,
               std::vector<DecodedColumn>* columns);

// Decodes one column's bytes: `bytes` points at the column (its `size` bytes).
DecodedColumn decodeColumn(const ColumnInfo& column, const char* bytes);

// The length of the text in a text column of `size` bytes at `bytes`: up to its first
// NUL, without the blanks that pad it.
size_t textLength(const char* bytes, size_t size);

// `bytes` as valid UTF-8: ill-formed sequences (stray continuation bytes, overlong
// forms, surrogates, cut characters) replaced by U+FFFD.
std::string sanitizeUtf8(const char* bytes, size_t length);
