// Fuzz target for the agent-definition reader: the XML parser and the dispatcher
// with every registered element parser behind it, as the agent reads a definition,
// and the decoding variant of the parser on its own. Whatever the input, nothing may
// crash or leak, an error must say where it is, and a definition that reads without
// error must lay out rows that hold their columns.

#include <cstddef>
#include <cstdint>
#include <string>

#include "Require.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "definition/DefinitionCheck.h"
#include "definition/Parser.h"
#include "framework/Trace.h"

namespace {

void checkLayout(const AttributeGroupMeta& group) {
  require(group.rowSize() >= 32);
  require(group.noOfColumns() <= group.noOfAttributes());
  for (int i = 0; i < group.noOfColumns(); ++i) {
    const ColumnInfo* column = group.attrInfo(i);
    require(column != nullptr && column->offset >= 0 && column->size >= 0);
    require(column->offset + column->size <= group.rowSize());
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  XRV::trace::configure("off");
  unsetenv("XRV_CONFIG_FILE");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string document(reinterpret_cast<const char*>(data), size);
  DefinitionCheck check;
  if (check.check(document)) {
    for (const AttributeGroupMeta* group : attributeGroupsInDefinitionOrder()) {
      checkLayout(*group);
    }
  } else {
    require(!check.error()->message.empty() && check.error()->line >= 1);
  }
  resetDefinitionState();

  DecodingParser decoding(nullptr);
  decoding.parse(document.data());
  return 0;
}
