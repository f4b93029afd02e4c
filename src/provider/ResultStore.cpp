#include "provider/ResultStore.h"

#include <cstdlib>
#include <cstring>

namespace {

void freeKey(const char* key, const void* /*value*/, void* /*arg*/) {
  free(const_cast<char*>(key));
}

}  // namespace

ResultStore::ResultStore() : byName_(256) {}

ResultStore::~ResultStore() {
  // Nobody else can hold the locks of a store being destroyed; they are taken so that
  // the analysis sees the guarded members touched under them.
  PthreadMutexLock activeGuard(activeLock);
  clearIndex();
}

void ResultStore::appendActive(ResultInstance* row) {
  active_.append(row);
  index(row, false);
}

void ResultStore::prependActive(ResultInstance* row) {
  active_.prepend(row);
  index(row, true);
}

ResultInstance* ResultStore::findActive(const char* name) const {
  if (!indexed_ || name == nullptr) {
    return nullptr;
  }
  return static_cast<ResultInstance*>(byName_.get(name));
}

void ResultStore::replaceActive(ResultInstance* old, ResultInstance* row) {
  active_.replace(old, row);
  const char* name = row->getInstanceName();
  if (indexed_ && name != nullptr && byName_.get(name) == old) {
    byName_.put(name, row);  // same name: the stored key stays
  }
}

void ResultStore::unlinkActive(ResultInstance* row) {
  unindex(row);
  active_.unlink(row);
}

void ResultStore::clearActive() {
  clearIndex();
  active_.clear();
}

void ResultStore::replaceActiveWithNew(ResultList* leaving) {
  clearIndex();
  leaving->takeAll(active_);
  active_.takeAll(new_);
  if (indexed_) {
    for (ResultInstance* row = active_.head(); row != nullptr; row = ResultList::next(row)) {
      index(row, false);
    }
  }
}

void ResultStore::index(ResultInstance* row, bool overrideEarlier) {
  const char* name = row->getInstanceName();
  if (!indexed_ || name == nullptr) {
    return;
  }
  if (!byName_.contains(name)) {
    byName_.put(strdup(name), row);
  } else if (overrideEarlier) {
    byName_.put(name, row);  // the stored key stays
  }
}

void ResultStore::unindex(ResultInstance* row) {
  const char* name = row->getInstanceName();
  if (!indexed_ || name == nullptr || byName_.get(name) != row) {
    return;
  }
  const char* key = nullptr;
  byName_.remove(name, &key);
  free(const_cast<char*>(key));
}

void ResultStore::clearIndex() {
  if (byName_.getCount() == 0) {
    return;
  }
  byName_.foreach (freeKey, nullptr);
  byName_.clear();
}
