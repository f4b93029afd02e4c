#include "runtime/RowDecoder.h"

#include <bit>
#include <cstring>

#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

// The signed integer in the first `count` bytes of `bytes` (machine byte order).
int64_t readSigned(const char* bytes, size_t count) {
  uint64_t value = 0;
  if constexpr (std::endian::native == std::endian::little) {
    memcpy(&value, bytes, count);
  } else {
    memcpy(reinterpret_cast<char*>(&value) + sizeof value - count, bytes, count);
  }
  if (count < sizeof value) {
    const uint64_t signBit = uint64_t{1} << (count * 8 - 1);
    if ((value & signBit) != 0) {
      value |= ~((signBit << 1) - 1);
    }
  }
  return static_cast<int64_t>(value);
}

// Length of the well-formed UTF-8 character at `bytes` (at most `left` bytes), or 0.
size_t characterLength(const unsigned char* bytes, size_t left) {
  const unsigned char first = bytes[0];
  if (first < 0x80) {
    return 1;
  }
  size_t length = 0;
  unsigned char low = 0x80;  // range of the second byte
  unsigned char high = 0xBF;
  if (first >= 0xC2 && first <= 0xDF) {
    length = 2;
  } else if (first >= 0xE0 && first <= 0xEF) {
    length = 3;
    if (first == 0xE0) {
      low = 0xA0;  // no overlong forms
    } else if (first == 0xED) {
      high = 0x9F;  // no surrogates
    }
  } else if (first >= 0xF0 && first <= 0xF4) {
    length = 4;
    if (first == 0xF0) {
      low = 0x90;
    } else if (first == 0xF4) {
      high = 0x8F;  // nothing above U+10FFFF
    }
  } else {
    return 0;
  }
  if (length > left || bytes[1] < low || bytes[1] > high) {
    return 0;
  }
  for (size_t i = 2; i < length; ++i) {
    if ((bytes[i] & 0xC0) != 0x80) {
      return 0;
    }
  }
  return length;
}

}  // namespace

std::string sanitizeUtf8(const char* bytes, size_t length) {
  std::string text;
  text.reserve(length);
  const auto* in = reinterpret_cast<const unsigned char*>(bytes);
  size_t i = 0;
  while (i < length) {
    size_t run = i;  // copy runs of well-formed characters in one go
    size_t step = 0;
    while (run < length && (step = characterLength(in + run, length - run)) != 0) {
      run += step;
    }
    text.append(bytes + i, run - i);
    if (run < length) {
      text.append(kReplacement);
      ++run;
    }
    i = run;
  }
  return text;
}

namespace {

using Block = char __attribute__((vector_size(16)));

// Lanes of -1 where the 16 bytes at `bytes` are blanks.
Block blanksIn(const char* bytes) {
  Block part;
  memcpy(&part, bytes, sizeof part);
  return part == Block{' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
}

bool allLanes(Block same) {
  uint64_t halves[2];
  memcpy(halves, &same, sizeof halves);
  return (halves[0] & halves[1]) == ~uint64_t{0};
}

}  // namespace

size_t textLength(const char* bytes, size_t size) {
  // A text column is padded with blanks to its full size, most of it for a short value
  // in a wide column: the padding goes first, 64 bytes at a time, and only what is
  // left is searched for a NUL. (A NUL is no blank: there is none in the padding.)
  size_t length = size;
  while (length >= 64 && allLanes(blanksIn(bytes + length - 64) & blanksIn(bytes + length - 48) &
                                  blanksIn(bytes + length - 32) & blanksIn(bytes + length - 16))) {
    length -= 64;
  }
  while (length >= 16 && allLanes(blanksIn(bytes + length - 16))) {
    length -= 16;
  }
  while (length > 0 && bytes[length - 1] == ' ') {
    --length;
  }
  if (const void* nul = memchr(bytes, '\0', length)) {
    length = static_cast<size_t>(static_cast<const char*>(nul) - bytes);
    while (length > 0 && bytes[length - 1] == ' ') {
      --length;
    }
  }
  return length;
}

DecodedColumn decodeColumn(const ColumnInfo& column, const char* bytes) {
  DecodedColumn decoded;
  decoded.name = column.name == nullptr ? "" : column.name;
  decoded.type = column.type;
  const size_t size = column.size > 0 ? static_cast<size_t>(column.size) : 0;
  if (isNumericAttributeType(column.type)) {
    decoded.kind = DecodedColumn::NUMBER;
    const size_t width = is64BitAttributeType(column.type) ? 8 : 4;
    const size_t count = size < width ? size : width;
    decoded.number = count == 0 ? 0 : readSigned(bytes, count);
    return decoded;
  }
  decoded.kind = DecodedColumn::TEXT;
  const size_t length = textLength(bytes, size);
  decoded.text = sanitizeUtf8(bytes, length);
  return decoded;
}

namespace {

// Decodes the `count` columns that `columnAt(i)` gives; see decodeRow.
template <typename ColumnAt>
bool decodeColumns(int count, ColumnAt columnAt, int rowSize, const char* row, size_t length,
                   std::vector<DecodedColumn>* columns) {
  columns->clear();
  if (row == nullptr || rowSize < 0 || length < static_cast<size_t>(rowSize)) {
    return false;
  }
  for (int i = 0; i < count; ++i) {
    const ColumnInfo& column = columnAt(i);
    if (column.offset < 0 || column.size < 0 || column.offset + column.size > rowSize) {
      return false;
    }
  }
  columns->reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    const ColumnInfo& column = columnAt(i);
    columns->push_back(decodeColumn(column, row + column.offset));
  }
  return true;
}

}  // namespace

bool decodeRow(const std::vector<ColumnInfo>& layout, int rowSize, const char* row, size_t length,
               std::vector<DecodedColumn>* columns) {
  return decodeColumns(
      static_cast<int>(layout.size()),
      [&layout](int i) -> const ColumnInfo& { return layout[static_cast<size_t>(i)]; }, rowSize,
      row, length, columns);
}

bool decodeRow(const AttributeGroupMeta& group, const char* row, size_t length,
               std::vector<DecodedColumn>* columns) {
  return decodeColumns(
      group.noOfColumns(), [&group](int i) -> const ColumnInfo& { return *group.attrInfo(i); },
      group.rowSize(), row, length, columns);
}
