#pragma once

// The event text a format's REPLACEFIRST template writes (QRFConfig.h), read back:
//
//   INDEX "#" { START_NAME name END_NAME START_VAL value END_VAL }
//
// where a value is plain text or START_LIST item { LIST_SEPARATOR item } END_LIST, and
// between two QUOTE tags the tags stand for themselves.

#include <string>
#include <string_view>
#include <vector>

class QRFConfig;

struct QRFEventSlot {
  std::string name;
  std::vector<std::string> values;  // one for a plain value
  bool list = false;
};

struct QRFEventText {
  int formatIndex = -1;  // -1 when the text has no "INDEX#" prefix
  std::vector<QRFEventSlot> slots;
};

// Reads `text` with the separator characters of `config`. False when the text does
// not follow the layout (what was read so far stays in *event).
bool decodeEventText(std::string_view text, const QRFConfig& config, QRFEventText* event);
