#include "subnode/SubnodeCopies.h"

#include <cstring>

#include "framework/Trace.h"
#include "provider/UAClientClass.h"
#include "provider/UAClientClassList.h"
#include "subnode/SubnodeHelpers.h"

using XRV::subnode::nextProvider;
using XRV::subnode::sameText;
using XRV::subnode::subnodeTypeOf;

int makeConfiguredSubnodeCopies(const std::vector<XRV::SubnodeSectionName>& sections,
                                UAClientClassList& providers) {
  XRV_TRACE_FN();
  // The copies are appended to the list while we go: decide on the providers there
  // were before.
  std::vector<UAClientClass*> templates;
  for (UAClientClass* provider = providers.getFirst(); provider != nullptr;
       provider = nextProvider(provider)) {
    if (provider->getSubnodeKey() == nullptr && subnodeTypeOf(provider) != nullptr) {
      templates.push_back(provider);
    }
  }
  int made = 0;
  for (const XRV::SubnodeSectionName& section : sections) {
    const char* type = section.type.c_str();
    const char* key = section.key.c_str();
    bool served = false;
    for (UAClientClass* source : templates) {
      if (!sameText(subnodeTypeOf(source), type)) {
        continue;
      }
      served = true;
      bool exists = false;
      for (UAClientClass* provider = providers.getFirst(); provider != nullptr && !exists;
           provider = nextProvider(provider)) {
        exists = sameText(provider->getSubnodeKey(), key) &&
                 strcmp(provider->getAttributeGroup(), source->getAttributeGroup()) == 0;
      }
      if (exists) {
        XRV_TRACE_DETAIL("Attribute group %s has a copy for subnode %s %s already",
                         source->getAttributeGroup(), type, key);
        continue;
      }
      if (source->subnodeCopy(key, &providers) == nullptr) {
        XRV_TRACE_ERROR(
            "Attribute group %s cannot serve subnode %s %s: its data source makes "
            "no subnode copies",
            source->getAttributeGroup(), type, key);
        continue;
      }
      XRV_TRACE_DETAIL("Made a copy of attribute group %s for subnode %s %s",
                       source->getAttributeGroup(), type, key);
      ++made;
    }
    if (!served) {
      XRV_TRACE_ERROR(
          "No attribute group has subnode type %s: section [subnode %s %s] serves "
          "nothing",
          type, type, key);
    }
  }
  return made;
}
