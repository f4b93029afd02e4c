#pragma once

// Runs one framework request on a table, as the framework would: the table server
// creates the request, which is set up, sampled once and torn down; the packed rows
// it hands over are collected and returned.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "framework/FwRequest.h"

namespace XRV::host {

struct SampleRequest {
  FW_REQUEST_TYPE type = FW_DEMAND;
  std::string node;                      // empty: the agent's main node
  bool history = false;                  // a history request: every subnode of the group
  std::optional<std::string> parameter;  // what replaces "PARMA" in the filter
  // The request's filter: the request information item "_FILTER" that groups
  // receiving request information get; empty for none.
  std::string filter;
  int64_t interval = 0;  // sampling interval in seconds; 0 for none
  std::string requestId;
  bool cacheOnly = false;  // answer from current cached rows or not at all (wouldWait)
};

struct SampleResult {
  bool ok = false;                // false when the table server refused the request
  std::vector<std::string> rows;  // packed rows, in the order sent
  bool wouldWait = false;         // a cache-only request that needs a collection: no rows
};

// The name the request information item "_REQ_TYPE" gives `type`.
const char* requestTypeName(FW_REQUEST_TYPE type);
// The type named `name`; false for an unknown name.
bool parseRequestType(const std::string& name, FW_REQUEST_TYPE* type);

SampleResult sampleTable(TableManager& manager, const SampleRequest& request);

}  // namespace XRV::host
