#pragma once

// Event rows for the host's tests: a group of ORIGINNODE and one text column, and
// rows packed as a provider packs them (texts padded with blanks).

#include <algorithm>
#include <string>

#include "host/TableCatalog.h"

namespace XRV::host::testing {

constexpr int kNodeSize = 32;

inline CatalogGroup textGroup(const std::string& name, int textSize = 4096) {
  CatalogGroup group;
  group.name = name;
  group.table = "XRV" + name;
  group.pureEvent = true;
  group.columns = {{"ORIGINNODE", 2, kNodeSize, 0}, {"Text", 2, textSize, kNodeSize}};
  group.rowSize = kNodeSize + textSize;
  return group;
}

inline std::string packTextRow(const CatalogGroup& group, const std::string& node,
                               const std::string& text) {
  std::string row(static_cast<size_t>(group.rowSize), ' ');
  row.replace(0, std::min<size_t>(node.size(), kNodeSize), node, 0, kNodeSize);
  const size_t room = static_cast<size_t>(group.rowSize - kNodeSize);
  row.replace(kNodeSize, std::min(text.size(), room), text, 0, room);
  return row;
}

}  // namespace XRV::host::testing
