#include "provider/GroupFilter.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "definition/AttributeGroupMeta.h"
#include "foundation/Utilities.h"
#include "framework/Trace.h"
#include "provider/ResultInstance.h"
#include "provider/ResultList.h"

namespace {

// Row filter parsers by grammar name.
std::mutex filterParsersLock;
std::map<std::string, RowFilterParser>& filterParsers() {
  static std::map<std::string, RowFilterParser> parsers;
  return parsers;
}

RowFilterParser findFilterParser(const char* grammar) {
  std::lock_guard<std::mutex> lock(filterParsersLock);
  auto found = filterParsers().find(grammar == nullptr ? "" : grammar);
  return found == filterParsers().end() ? nullptr : found->second;
}

}  // namespace

void registerRowFilterParser(const char* grammar, RowFilterParser parser) {
  std::lock_guard<std::mutex> lock(filterParsersLock);
  if (parser == nullptr) {
    filterParsers().erase(grammar);
  } else {
    filterParsers()[grammar] = parser;
  }
}

void GroupFilter::load(const AttributeGroupMeta* meta, const char* group) {
  XRV_TRACE_FN();
  {
    PthreadMutexLock lock(lock_);
    filter_.reset();
  }
  const char* text = meta == nullptr ? nullptr : meta->getFilterExpression();
  if (text == nullptr || *text == '\0') {
    return;
  }
  const char* grammar = meta->getFilterGrammar();
  char* expanded = nullptr;
  if (strcmp(grammar, "filter") == 0) {
    XRV_TRACE_DETAIL("Found filter expression %s", text);
    expanded = Utilities::substituteEnvVars(text, nullptr, nullptr, true);
    XRV_TRACE_DETAIL("Found filter expression, expanded to %s",
                     expanded == nullptr ? "" : expanded);
  } else if (strcmp(grammar, "expression") != 0) {
    XRV_TRACE_ERROR("Unknown filter grammar %s for attribute group %s, no filter applied", grammar,
                    group);
    return;
  }
  RowFilterParser parser = findFilterParser(grammar);
  if (parser == nullptr) {
    XRV_TRACE_ERROR(
        "Row filters are not available in this build; the filter of attribute group "
        "%s is not applied",
        group);
  } else {
    std::string error;
    std::shared_ptr<const RowFilter> filter(parser(expanded != nullptr ? expanded : text, &error));
    if (filter != nullptr) {
      PthreadMutexLock lock(lock_);
      filter_ = std::move(filter);
    } else {
      XRV_TRACE_ERROR("AG %s, error parsing filters", group);
      XRV_TRACE_DETAIL("%s", error.c_str());
    }
  }
  free(expanded);
}

std::shared_ptr<const RowFilter> GroupFilter::current() const {
  PthreadMutexLock lock(lock_);
  return filter_;
}

bool GroupFilter::passes(const RowFilter& filter, const ResultInstance* row, const char* group) {
  FilterResult result;
  filter.evaluate(*row, &result);
  if (!result.error.empty()) {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("AG %s, error from filterExpression->evaluate: %s", group,
                    result.error.c_str());
    return false;
  }
  if (result.returnedType != result.expectedType) {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR(
        "Error:  filter should have returned a boolean (ExpressionType[%d]) but instead "
        "returned ExpressionType[%d]",
        result.expectedType, result.returnedType);
    return false;
  }
  return result.passes;
}

void GroupFilter::mark(const RowFilter& filter, ResultInstance* first, const char* group) {
  XRV_TRACE_FN();
  for (ResultInstance* row = first; row != nullptr; row = ResultList::next(row)) {
    row->setPassesFilter(passes(filter, row, group));
  }
}
