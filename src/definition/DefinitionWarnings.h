#pragma once

// Warnings about an agent definition that the agent can live with (an unknown type
// word, an unusual column size). They are traced; a tool that checks definitions
// (xrvctl validate) also collects them through a sink.

#include "framework/Trace.h"

class DefinitionWarningSink {
 public:
  virtual ~DefinitionWarningSink() = default;
  virtual void definitionWarning(const char* message) = 0;
};

// Installs the sink (null removes it); the caller keeps ownership.
void setDefinitionWarningSink(DefinitionWarningSink* sink);
// Formats the warning and hands it to the sink, when one is installed.
void reportDefinitionWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Traces a warning at the call site (error level) and reports it to the sink.
#define XRV_DEFINITION_WARNING(...)       \
  do {                                    \
    XRV_TRACE_ERROR(__VA_ARGS__);         \
    reportDefinitionWarning(__VA_ARGS__); \
  } while (0)
