#pragma once

// The agent's own audit records (start-up completed, shutting down), filed with the
// framework when it keeps an audit trail; nothing is written when it does not.

#include "framework/Framework.h"

// Files one record of the component "QBXAgent" for this agent's application, e.g.
// ("The agent is shutting down.", "Shutdown", "Stop", "XRV9001I").
void writeAgentAuditRecord(const char* text, const char* category, const char* action,
                           const char* messageId);

// The record writeAgentAuditRecord files, for callers that talk to the host
// themselves. Traces nothing and allocates nothing (signal handlers use it); the
// texts must outlive the record.
FwAuditRecord makeAgentAuditRecord(const char* text, const char* category, const char* action,
                                   const char* messageId, const char* productName);
