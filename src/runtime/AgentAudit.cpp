#include "runtime/AgentAudit.h"

#include "definition/AgentSettings.h"
#include "framework/Trace.h"

namespace {

// The framework files agent records under these two numbers.
constexpr int kAuditRecordClass = 36;
constexpr int kAuditRecordCode = 6000;

}  // namespace

FwAuditRecord makeAgentAuditRecord(const char* text, const char* category, const char* action,
                                   const char* messageId, const char* productName) {
  return FwAuditRecord{"QBXAgent",
                       text,
                       category,
                       action,
                       messageId,
                       productName,
                       kAuditRecordClass,
                       kAuditRecordCode,
                       applicationSettings().applicationName.c_str()};
}

void writeAgentAuditRecord(const char* text, const char* category, const char* action,
                           const char* messageId) {
  XRV_TRACE_FN();
  if (!fwAuditAvailable()) {
    return;
  }
  fwAuditRecord(makeAgentAuditRecord(text, category, action, messageId, fwGetProductName()));
}
