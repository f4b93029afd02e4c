#pragma once

// SubnodeManagedSystemNames: how subnodes' managed system names (MSNs) are made and
// taken apart.
//
// An MSN is: application part (2 characters) ":" key part (at most 25 characters,
// with the configured host name and "_" in front) ":" type (at most 3 characters);
// for the excluded type the key part may have 29 characters and ":" type is left
// out. The first two characters are upper-cased.
//
// Owns copies of the two settings that shape names (host name, excluded type), set
// at construction and never changed: no lock; every operation may be called from
// any thread.

#include <cstddef>
#include <string>

// Bytes of a buffer that generateSubnodeManagedSystemName fills: an MSN has at most
// 32 characters (the width of the ORIGINNODE column), and the NUL.
inline constexpr size_t SUBNODE_MSN_BUFFER_SIZE = 33;

class SubnodeManagedSystemNames {
 public:
  // `hostName`: put in front of keys (empty: none); `excludedType`: the subnode type
  // whose MSNs leave the type out (empty: none).
  SubnodeManagedSystemNames(std::string hostName, std::string excludedType);

  // The MSN of `key` of subnode type `type` found for `application`. Written to
  // `buffer` (SUBNODE_MSN_BUFFER_SIZE bytes) when one is given, else to a new one the
  // caller frees with free(). Null when an argument is null.
  char* generate(const char* application, const char* key, const char* type, char* buffer) const;
  // Takes an MSN apart at its ":" separators; `type` is empty for an MSN without one.
  // False for a malformed MSN (no ":", empty application or key, a third ":").
  static bool split(const char* msn, std::string* application, std::string* key,
                    std::string* type);

 private:
  const std::string hostName_;
  const std::string excludedType_;
};
