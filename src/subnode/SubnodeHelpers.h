#pragma once

// Small helpers shared by the subnode files: walking a provider list, comparing
// texts that may be null, and printing addresses as the traces do. Stateless.

#include <cstdint>
#include <cstring>

#include "definition/AttributeGroupMeta.h"
#include "provider/UAClientClass.h"

namespace XRV::subnode {

inline bool sameText(const char* a, const char* b) {
  return a != nullptr && b != nullptr && strcmp(a, b) == 0;
}

// The low 32 bits of an address, as the garbage-collection and discovery traces print it.
inline unsigned shortAddress(const void* pointer) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
}

inline const char* subnodeTypeOf(const UAClientClass* provider) {
  const AttributeGroupMeta* meta = provider->getAttributeGroupMeta();
  return meta == nullptr ? nullptr : meta->subnodeType();
}

inline UAClientClass* nextProvider(const UAClientClass* provider) {
  return static_cast<UAClientClass*>(provider->getNextElement());
}

}  // namespace XRV::subnode
