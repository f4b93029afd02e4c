#pragma once

// SubnodeDiscoverySources: which discovery attribute group found which subnodes.
// Each discovery provider is filed under its address printed with "%p", with the
// MSNs it found in the order found.
//
// Owns its map and texts; refers to the providers without owning them. Not
// thread-safe: the subnode manager keeps it under its lock.

#include <string>
#include <vector>

#include "foundation/HashMap.h"

class UAClientClass;

class SubnodeDiscoverySources {
 public:
  SubnodeDiscoverySources() = default;
  ~SubnodeDiscoverySources();
  SubnodeDiscoverySources(const SubnodeDiscoverySources&) = delete;
  SubnodeDiscoverySources& operator=(const SubnodeDiscoverySources&) = delete;

  // Notes that `provider` found `msn`; false when noted already.
  bool add(UAClientClass* provider, const char* msn);
  // False when it was not noted.
  bool remove(const UAClientClass* provider, const char* msn);
  // Whether `provider` found `msn`.
  bool lists(const UAClientClass* provider, const char* msn) const;
  // Whether any discovery group found `msn`.
  bool anyLists(const char* msn) const;
  // The MSNs `provider` found, in the order found.
  std::vector<std::string> foundBy(const UAClientClass* provider) const;
  // The discovery providers that found `msn`.
  std::vector<UAClientClass*> findersOf(const char* msn) const;
  // Forgets `msn` wherever it is noted.
  void forget(const char* msn);
  // Forgets `provider`; returns the MSNs it had found (empty when it was not filed).
  std::vector<std::string> drop(const UAClientClass* provider);

 private:
  struct Source;
  Source* find(const UAClientClass* provider) const;

  HashMap sources_;  // "%p" (owned) -> Source*, owned
};
