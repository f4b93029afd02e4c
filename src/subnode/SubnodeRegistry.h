#pragma once

// SubnodeRegistry: the subnode manager's two indexes.
//
//   by MSN    the managed subnodes, each with what discovery said of it last and the
//             providers serving it (in the order they were indexed);
//   by group  attribute group -> the subnode providers of that group (in the order
//             added), of every subnode.
//
// Contract:
// - Not thread-safe: the subnode manager keeps it under its lock, and every caller
//   holds that lock (the clang build checks it through the manager's annotation).
// - Owns the ManagedSubnode records (from insert until remove hands one back, or
//   clear) and the group lists; refers to the providers without owning them.
// - A subnode is found under its own `msn` text: insert files it under that, so
//   the MSN must not change while it is filed.
// - The lookups trace what they cannot find; nothing else is traced here. Framework
//   registration, the zombie queue and discovery stay with the manager.

#include <string>
#include <vector>

#include "foundation/HashMap.h"
#include "foundation/List.h"

class AttributeGroupMeta;
class UAClientClass;

// One managed subnode.
struct ManagedSubnode {
  std::string msn;
  std::string key;
  std::string type;
  std::string affinity;
  std::string version;
  List providers;             // of UAClientClass*, in the order they were indexed
  bool online = true;         // what discovery said last
  bool registered = false;    // registered with the framework (or the request is pending)
  bool awaitingData = false;  // held back by the DOWN node state until data is collected

  // True when a provider reports OBJECT_ACTIVE or NO_INSTANCES_RETURNED.
  bool isActive() const;
};

class SubnodeRegistry {
 public:
  SubnodeRegistry() = default;
  ~SubnodeRegistry();
  SubnodeRegistry(const SubnodeRegistry&) = delete;
  SubnodeRegistry& operator=(const SubnodeRegistry&) = delete;

  // --- Subnodes by MSN ---
  // Null when `msn` is null or not managed.
  ManagedSubnode* find(const char* msn) const;
  // Files `subnode` (owned from now on) under its MSN.
  void insert(ManagedSubnode* subnode);
  // Unfiles `subnode`; the caller owns it again.
  void remove(const ManagedSubnode* subnode);
  // The subnode held back for data that `provider` serves; null when none is.
  ManagedSubnode* awaitingServedBy(const UAClientClass* provider) const;
  // How many subnodes are held back for data.
  int awaitingCount() const;
  // Deletes every subnode and group list.
  void clear();

  // --- Providers by group ---
  // Files `provider` under its group; false when it is filed there already.
  bool addGroupProvider(const char* attributeGroup, UAClientClass* provider);
  // False when it was not filed there.
  bool removeGroupProvider(const char* attributeGroup, UAClientClass* provider);
  // The providers of the group in the order added; null when it has none.
  const List* groupProviders(const char* attributeGroup) const;

  // --- Lookups ---
  // The provider of `meta`'s group serving `msn`; null when there is none.
  UAClientClass* providerFor(const char* msn, const AttributeGroupMeta* meta) const;
  // The provider of `meta`'s group serving the subnode whose key is `key`.
  UAClientClass* providerForKey(const char* key, const AttributeGroupMeta* meta) const;
  // Every subnode provider of `meta`'s group in the order added (of every group when
  // `meta` is null).
  std::vector<UAClientClass*> allProviders(const AttributeGroupMeta* meta) const;

 private:
  HashMap byMsn_;    // MSN (the subnode's own) -> ManagedSubnode*, owned
  HashMap byGroup_;  // group (owned) -> List* of UAClientClass*, owned
};
