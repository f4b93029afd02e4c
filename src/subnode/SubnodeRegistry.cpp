#include "subnode/SubnodeRegistry.h"

#include <cstdlib>
#include <cstring>

#include "definition/AttributeGroupMeta.h"
#include "framework/Trace.h"
#include "provider/PerfObject.h"
#include "provider/UAClientClass.h"

namespace {

bool providesGroup(const UAClientClass* provider, const AttributeGroupMeta* meta) {
  return provider->getAttributeGroupMeta() == meta ||
         strcmp(provider->getAttributeGroup(), meta->getGroupName()) == 0;
}

UAClientClass* providerAt(const List& list, int index) {
  return static_cast<UAClientClass*>(list.get(index));
}

// The provider of `meta`'s group among the subnode's; null when none is.
UAClientClass* servingGroup(const ManagedSubnode& subnode, const AttributeGroupMeta* meta) {
  for (int i = 0; i < subnode.providers.getCount(); ++i) {
    UAClientClass* provider = providerAt(subnode.providers, i);
    if (providesGroup(provider, meta)) {
      return provider;
    }
  }
  return nullptr;
}

}  // namespace

bool ManagedSubnode::isActive() const {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("checking subnode %s", msn.c_str());
  for (int i = 0; i < providers.getCount(); ++i) {
    UAClientClass* provider = providerAt(providers, i);
    int code = provider->getPerfErrorCode();
    XRV_TRACE_DETAIL("checking attr group %s, errcode %d", provider->getAttributeGroup(), code);
    if (code == OBJECT_ACTIVE || code == NO_INSTANCES_RETURNED) {
      return true;
    }
  }
  return false;
}

SubnodeRegistry::~SubnodeRegistry() { clear(); }

// --- Subnodes by MSN ---

ManagedSubnode* SubnodeRegistry::find(const char* msn) const {
  return msn == nullptr ? nullptr : static_cast<ManagedSubnode*>(byMsn_.get(msn));
}

void SubnodeRegistry::insert(ManagedSubnode* subnode) { byMsn_.put(subnode->msn.c_str(), subnode); }

void SubnodeRegistry::remove(const ManagedSubnode* subnode) {
  byMsn_.remove(subnode->msn.c_str(), nullptr);  // the key was the subnode's own
}

ManagedSubnode* SubnodeRegistry::awaitingServedBy(const UAClientClass* provider) const {
  HashMapIterator it = byMsn_.iterator();
  while (it.hasNext()) {
    it.next();
    auto* subnode = static_cast<ManagedSubnode*>(it.getData());
    if (subnode->awaitingData && subnode->providers.find(provider) >= 0) {
      return subnode;
    }
  }
  return nullptr;
}

int SubnodeRegistry::awaitingCount() const {
  XRV_TRACE_FN();
  int count = 0;
  HashMapIterator it = byMsn_.iterator();
  while (it.hasNext()) {
    it.next();
    count += static_cast<const ManagedSubnode*>(it.getData())->awaitingData ? 1 : 0;
  }
  return count;
}

void SubnodeRegistry::clear() {
  byMsn_.foreach ([](const char* /*key*/, const void* value,
                     void* /*arg*/) { delete static_cast<const ManagedSubnode*>(value); },
                  nullptr);
  byMsn_.clear();
  byGroup_.foreach (
      [](const char* key, const void* value, void* /*arg*/) {
        free(const_cast<char*>(key));
        delete static_cast<const List*>(value);
      },
      nullptr);
  byGroup_.clear();
}

// --- Providers by group ---

bool SubnodeRegistry::addGroupProvider(const char* attributeGroup, UAClientClass* provider) {
  auto* list = static_cast<List*>(byGroup_.get(attributeGroup));
  if (list == nullptr) {
    list = new List();
    byGroup_.put(strdup(attributeGroup), list);
  } else if (list->find(provider) >= 0) {
    return false;
  }
  list->add(provider);
  return true;
}

bool SubnodeRegistry::removeGroupProvider(const char* attributeGroup, UAClientClass* provider) {
  auto* list = static_cast<List*>(byGroup_.get(attributeGroup));
  int index = list == nullptr ? -1 : list->find(provider);
  if (index < 0) {
    return false;
  }
  list->remove(index);
  if (list->getCount() == 0) {
    const char* storedKey = nullptr;
    byGroup_.remove(attributeGroup, &storedKey);
    free(const_cast<char*>(storedKey));
    delete list;
  }
  return true;
}

const List* SubnodeRegistry::groupProviders(const char* attributeGroup) const {
  return static_cast<const List*>(byGroup_.get(attributeGroup));
}

// --- Lookups ---

UAClientClass* SubnodeRegistry::providerFor(const char* msn, const AttributeGroupMeta* meta) const {
  XRV_TRACE_SITE();
  const ManagedSubnode* subnode = find(msn);
  if (subnode == nullptr) {
    XRV_TRACE_ERROR("Failed for msn=\"%s\", meta=%p, because msn is not in _msnToQueries",
                    msn == nullptr ? "" : msn, static_cast<const void*>(meta));
    return nullptr;
  }
  if (meta == nullptr) {
    XRV_TRACE_ERROR("No attribute group given for msn=\"%s\"", msn);
    return nullptr;
  }
  UAClientClass* provider = servingGroup(*subnode, meta);
  if (provider == nullptr) {
    XRV_TRACE_ERROR("No provider of attribute group %s serves msn=\"%s\"", meta->getGroupName(),
                    msn);
  }
  return provider;
}

UAClientClass* SubnodeRegistry::providerForKey(const char* key,
                                               const AttributeGroupMeta* meta) const {
  HashMapIterator it = byMsn_.iterator();
  while (it.hasNext()) {
    it.next();
    const auto* subnode = static_cast<const ManagedSubnode*>(it.getData());
    if (subnode->key != key) {
      continue;
    }
    if (UAClientClass* provider = servingGroup(*subnode, meta)) {
      return provider;
    }
  }
  return nullptr;
}

std::vector<UAClientClass*> SubnodeRegistry::allProviders(const AttributeGroupMeta* meta) const {
  std::vector<UAClientClass*> all;
  auto append = [&all](const List* list) {
    for (int i = 0; list != nullptr && i < list->getCount(); ++i) {
      all.push_back(providerAt(*list, i));
    }
  };
  if (meta != nullptr) {
    append(groupProviders(meta->getGroupName()));
    return all;
  }
  HashMapIterator it = byGroup_.iterator();
  while (it.hasNext()) {
    it.next();
    append(static_cast<const List*>(it.getData()));
  }
  return all;
}
