#include "provider/PreviousSample.h"

#include <cstring>

#include "framework/Trace.h"
#include "provider/ResultList.h"

PreviousSample::PreviousSample() : byName_(256) {}

PreviousSample::~PreviousSample() { clear(); }

PrevResultInstance* PreviousSample::find(const char* name) const {
  XRV_TRACE_SITE();
  XRV_TRACE_DETAIL("Searching for previous instance named %s\n", name);
  return static_cast<PrevResultInstance*>(byName_.get(name));
}

PrevResultInstance* PreviousSample::findOrAdd(const char* name, size_t position, int rated) {
  if (position < order_.size()) {
    PrevResultInstance* candidate = order_[position];
    if (strcmp(candidate->getName(), name) == 0) {
      return candidate;
    }
  }
  PrevResultInstance* entry = find(name);
  if (entry == nullptr) {
    XRV_TRACE_SITE();
    XRV_TRACE_DETAIL("This instance of %s is new.", name);
    entry = new PrevResultInstance(name);
    // Room for exactly the values a row of this group keeps, in one block.
    entry->reserve(static_cast<size_t>(rated));
    byName_.put(entry->getName(), entry);
  }
  return entry;
}

void PreviousSample::prefetch(size_t position) const {
  // Two steps: the entry itself a little earlier, its values once the entry is in
  // the cache.
  constexpr size_t kAhead = RowPrefetcher::kRowsAhead;
  if (position + 2 * kAhead < order_.size()) {
    __builtin_prefetch(order_[position + 2 * kAhead]);
  }
  if (position + kAhead < order_.size()) {
    order_[position + kAhead]->prefetchValues();
  }
}

void PreviousSample::beginSample() {
  ++generation_;
  seen_ = 0;
}

void PreviousSample::markSeen(PrevResultInstance* entry) {
  if (entry->getGeneration() != generation_) {
    entry->setGeneration(generation_);
    ++seen_;
  }
}

void PreviousSample::endSample(std::vector<PrevResultInstance*> order) {
  if (seen_ != byName_.getCount()) {
    std::vector<PrevResultInstance*> stale;
    HashMapIterator it = byName_.iterator();
    while (it.hasNext()) {
      it.next();
      auto* entry = static_cast<PrevResultInstance*>(it.getData());
      if (entry->getGeneration() != generation_) {
        stale.push_back(entry);
      }
    }
    for (PrevResultInstance* entry : stale) {
      byName_.remove(entry->getName(), nullptr);
      delete entry;
    }
  }
  order_ = std::move(order);
}

void PreviousSample::clear() {
  byName_.foreach ([](const char*, const void* value,
                      void*) { delete static_cast<const PrevResultInstance*>(value); },
                   nullptr);
  byName_.clear();
  order_.clear();
}
