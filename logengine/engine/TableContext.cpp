#include "TableContext.h"

#include <cstddef>

namespace xrvlog {

static_assert(sizeof(NameValue) == sizeof(XPWP_NameValue) &&
                  offsetof(NameValue, name) == offsetof(XPWP_NameValue, name) &&
                  offsetof(NameValue, value) == offsetof(XPWP_NameValue, value),
              "the builder's pairs are handed to the agent as they are");

void Callbacks::record(const char* table, const char* source, const char* description,
                       std::span<const NameValue> pairs) const {
  if (const XPWP_DataCallback callback = data_.load()) {
    callback(context_, table, source, description,
             reinterpret_cast<const XPWP_NameValue*>(pairs.data()), static_cast<int>(pairs.size()));
  }
}

void Callbacks::status(const char* table, const char* source, int value) const {
  if (const XPWP_StatusCallback callback = status_.load()) {
    callback(context_, table, source, value);
  }
}

void addPatternStats(std::vector<PatternStats>& into, const std::vector<PatternStats>& from) {
  if (into.size() < from.size()) {
    into.resize(from.size());
  }
  for (std::size_t i = 0; i < from.size(); ++i) {
    into[i] += from[i];
  }
}

void TableContext::firstPassDone(bool following) {
  if (following) {
    anyFollowing.store(true);
  }
  if (awaitingFirstPass.fetch_sub(1) == 1 && anyFollowing.load()) {
    callbacks.status(document.table.c_str(), nullptr, XPWP_TABLE_ACTIVE);
  }
}

}  // namespace xrvlog
