// The "metadata" element: the attribute groups (tables) the agent serves, their
// attributes in row order with types and sizes, and the layout of each group's
// binary row.

#include <cstring>

#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "definition/DefinitionWarnings.h"
#include "definition/XMLConfigParser.h"
#include "foundation/List.h"
#include "foundation/String.h"
#include "framework/Trace.h"

namespace {

constexpr int kOriginNodeSize = 32;
// Limits that keep a mistyped size from making every row of a group enormous: a
// column of more than 1 MiB, or a row of more than 16 MiB, is no definition anyone
// meant.
constexpr int kLargestAttributeSize = 1 << 20;
constexpr int kLargestRowSize = 16 << 20;

const char* orEmpty(const char* text) { return text == nullptr ? "" : text; }

class MetadataXMLConfigParser : public XMLConfigParser {
 public:
  MetadataXMLConfigParser() { registerXMLConfigParser("metadata", this); }

  void startElement(const char* name, HashMap* attributes) override {
    XRV_TRACE_FN();
    if (strcmp(name, "ag") == 0) {
      startGroup(attributes);
    } else if (strcmp(name, "attr") == 0) {
      addAttribute(attributes);
    } else if (strcmp(name, "receive_req") == 0) {
      if (group_ == nullptr) {
        XRV_DEFINITION_WARNING("receive_req outside an attribute group is ignored");
      } else {
        group_->setRequestInfo(getString(attributes, "name"));
      }
    }
  }

  void endElement(const char* name) override {
    XRV_TRACE_FN();
    // An "ag" left open at the end of the metadata (or of a "metadata" nested in it)
    // is finished there, so that no group is left without its layout.
    if ((strcmp(name, "ag") == 0 || strcmp(name, "metadata") == 0) && group_ != nullptr) {
      endGroup();
    }
  }

  void abandon() override {
    XRV_TRACE_FN();
    while (attributes_.getCount() > 0) {
      delete static_cast<AttributeMeta*>(attributes_.pop());
    }
    group_ = nullptr;  // filed in metaMap, which owns it
  }

 private:
  void startGroup(HashMap* attributes) {
    XRV_TRACE_FN();
    if (group_ != nullptr) {
      endGroup();
    }
    const char* groupName = getString(attributes, "name");
    const char* table = getString(attributes, "table");
    if (groupName == nullptr || table == nullptr) {
      XRV_DEFINITION_WARNING("Attribute group %s lacks its %s", orEmpty(groupName),
                             groupName == nullptr ? "name" : "table");
    }
    offset_ = kOriginNodeSize;
    group_ = new AttributeGroupMeta(applicationSettings().applicationName.c_str(), table);
    bool pure = getBoolean(attributes, "pure");
    group_->setPureEventBased(pure);
    XRV_TRACE_DETAIL("AttributeGroup %s pure=%s", orEmpty(groupName), pure ? "true" : "false");
    group_->setIsDiscoveryAttributeGroup(getBoolean(attributes, "discovery_attribute_group"));
    group_->setSubnodeType(getString(attributes, "subnode_type"));
    group_->setFilterExpression(getString(attributes, "filter_expression"));
    group_->setFilterGrammar(getString(attributes, "filter_expression_grammar"));
    group_->setEvtFloodThreshold(getString(attributes, "event_flood_threshold"));
    group_->setEvtSummaryInterval(getString(attributes, "event_summary_interval"));
    groupName_.assign(orEmpty(groupName));
    attributes_.add(new AttributeMeta("ORIGINNODE", nullptr, 1, kOriginNodeSize, 0));
    addAttributeGroupMeta(groupName_.c_str(), group_);
  }

  void addAttribute(HashMap* attributes) {
    XRV_TRACE_FN();
    const char* name = getString(attributes, "name");
    if (group_ == nullptr) {
      XRV_DEFINITION_WARNING("Attribute %s outside an attribute group is ignored", orEmpty(name));
      return;
    }
    if (name == nullptr || getString(attributes, "type") == nullptr ||
        getString(attributes, "size") == nullptr) {
      XRV_DEFINITION_WARNING("Attribute %s of group %s lacks its %s", orEmpty(name),
                             groupName_.c_str(),
                             name == nullptr                            ? "name"
                             : getString(attributes, "type") == nullptr ? "type"
                                                                        : "size");
    }
    int type = getInteger(attributes, "type");
    int size = getInteger(attributes, "size");
    const char* hint = getString(attributes, "hint");
    if (name != nullptr && name[0] == '-') {
      attributes_.add(new AttributeMeta(name + 1, hint, type, size, -1));
      return;
    }
    name = orEmpty(name);
    if (size < 0 || size > kLargestAttributeSize) {
      XRV_DEFINITION_WARNING("Attribute %s has the impossible size %d; it gets no space in the row",
                             name, size);
      size = 0;
    } else if (offset_ + size + 3 > kLargestRowSize) {
      XRV_DEFINITION_WARNING(
          "Attribute %s would make rows of group %s larger than %d bytes; it "
          "gets no space in the row",
          name, groupName_.c_str(), kLargestRowSize);
      size = 0;
    }
    if (isNumericAttributeType(type)) {
      if (size == 2) {
        offset_ += offset_ % 2;
      } else if (size == 4 || size == 8) {
        offset_ += (4 - offset_ % 4) % 4;  // 8-byte values too are aligned to 4 only
      } else {
        XRV_DEFINITION_WARNING("WARNING: Attribute %s has an unsupported length: %d", name, size);
      }
    } else if (!isTextAttributeType(type)) {
      XRV_DEFINITION_WARNING("WARNING: Attribute %s is an unknown type %s", name,
                             orEmpty(getString(attributes, "type")));
    }
    attributes_.add(new AttributeMeta(name, hint, type, size, offset_));
    offset_ += size;
  }

  void endGroup() {
    XRV_TRACE_FN();
    group_->setRowSize(offset_);
    group_->updateColumns(attributes_);
    attributes_.clear();
    if (strstr(groupName_.c_str(), "_Performance_Object_Status") != nullptr) {
      if (PerfObjectStatusHook hook = getPerfObjectStatusHook()) {
        hook(group_, groupName_.c_str());
      }
    }
    group_ = nullptr;
  }

  AttributeGroupMeta* group_ = nullptr;  // the group being read
  int offset_ = 0;                       // running offset of its row
  List attributes_;                      // its attributes so far, handed over at its end
  XRV::String groupName_;
};

MetadataXMLConfigParser instance;

}  // namespace
