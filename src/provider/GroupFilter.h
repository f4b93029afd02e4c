#pragma once

// GroupFilter: the row filter of a provider's attribute group, parsed from the
// group's filter expression, and the marking of rows with what it made of them.
//
// A row that passes is shown; one that does not, or on which the filter cannot be
// evaluated (an error, or a result that is no boolean), is left out of every
// answer. Without a filter every row passes.
//
// Contract:
// - It holds only the current filter. `lock_` guards the reference, nothing else:
//   a reset replaces the filter while an event may be checked against it on another
//   thread, so whoever evaluates takes a reference with current() and evaluates
//   through that, without the lock.
// - It takes no row lock: the callers of mark() hold the lock of the list they
//   mark (the provider's collection for the new rows, checkFilter for the active
//   ones).
// - Called by the provider: load() from reset(), the rest while collecting, on
//   checkFilter and for every arriving event. Texts passed in are the provider's
//   group name, for the traces.

#include <memory>
#include <string>

#include "foundation/Locks.h"

class AttributeGroupMeta;
class ResultInstance;

// What a filter made of one row.
struct FilterResult {
  bool passes = false;
  std::string error;     // set when the filter could not be evaluated on the row
  int expectedType = 0;  // when the filter gave no boolean: the boolean's type and
  int returnedType = 0;  // the type it gave (the expression language's numbers)
};

// A row filter, parsed from a group's filter expression. Thread-safe.
class RowFilter {
 public:
  virtual ~RowFilter() = default;
  virtual void evaluate(const ResultInstance& row, FilterResult* result) const = 0;
};
// Parses a filter text of one grammar ("filter" or "expression"); null with *error
// set when it does not parse.
using RowFilterParser = RowFilter* (*)(const char* text, std::string* error);
void registerRowFilterParser(const char* grammar, RowFilterParser parser);

class GroupFilter {
 public:
  GroupFilter() = default;
  GroupFilter(const GroupFilter&) = delete;
  GroupFilter& operator=(const GroupFilter&) = delete;

  // Drops the current filter, then parses the filter expression of `meta` (none:
  // no filter). A filter that does not parse leaves none.
  void load(const AttributeGroupMeta* meta, const char* group) XRV_EXCLUDES(lock_);
  // The filter now; null when there is none.
  std::shared_ptr<const RowFilter> current() const XRV_EXCLUDES(lock_);
  // Whether `row` passes `filter`.
  static bool passes(const RowFilter& filter, const ResultInstance* row, const char* group);
  // Marks `first` and every row after it in its list with whether it passes.
  static void mark(const RowFilter& filter, ResultInstance* first, const char* group);

 private:
  mutable PthreadMutex lock_;
  std::shared_ptr<const RowFilter> filter_ XRV_GUARDED_BY(lock_);
};
