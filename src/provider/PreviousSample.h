#pragma once

// PreviousSample: the previous values of a provider's rows, by row name, for the
// deltas and rates of the next collection.
//
// Rows mostly arrive in the same order on every collection, so besides the name
// index the sample keeps its entries in the order the last collection brought them:
// most lookups are a comparison with the entry at the same place, and the entries
// ahead can be loaded into the cache while the current row is computed.
//
// A collection goes beginSample, findOrAdd/markSeen for every row it keeps, then
// endSample, which deletes the entries of rows that were not seen.
//
// Contract: touched only by the collecting thread; no lock of its own.

#include <cstddef>
#include <vector>

#include "foundation/HashMap.h"
#include "provider/PrevResult.h"

class PreviousSample {
 public:
  PreviousSample();
  ~PreviousSample();
  PreviousSample(const PreviousSample&) = delete;
  PreviousSample& operator=(const PreviousSample&) = delete;

  // The entry of the row named `name`, or null.
  PrevResultInstance* find(const char* name) const;
  // The entry of the row named `name` that arrives at `position` in this collection;
  // a new entry gets room for `rated` previous values.
  PrevResultInstance* findOrAdd(const char* name, size_t position, int rated);
  // Starts loading the entries a few places after `position` into the cache.
  void prefetch(size_t position) const;

  void beginSample();
  // Keeps `entry` past this collection's endSample.
  void markSeen(PrevResultInstance* entry);
  // Deletes the entries not seen since beginSample; `order` (the entries in the order
  // this collection brought their rows) is the order expected next time.
  void endSample(std::vector<PrevResultInstance*> order);

  void clear();
  int count() const { return byName_.getCount(); }

 private:
  HashMap byName_;  // the entry's own name -> PrevResultInstance (owned)
  std::vector<PrevResultInstance*> order_;
  unsigned generation_ = 0;
  int seen_ = 0;
};
