#include "definition/XMLHandler.h"

#include <cstdio>

#include "framework/Trace.h"

namespace {
// Longer messages are cut; the parser's own messages need a fraction of this.
constexpr size_t kMessageSize = 1024;
}  // namespace

void XMLHandler::startElement(const char* /*name*/, HashMap* /*attributes*/) {}

void XMLHandler::endElement(const char* /*name*/) {}

void XMLHandler::characters(const char* /*text*/) {}

void XMLHandler::fatalError(const char* /*message*/) {}

// The format is one of the reader's fixed messages with "%s" conversions only.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

void XMLHandler::fatalError(const char* format, const char* arg) {
  XRV_TRACE_FN();
  char message[kMessageSize];
  snprintf(message, sizeof message, format, arg == nullptr ? "" : arg);
  fatalError(message);
}

void XMLHandler::fatalError(const char* format, const char* arg1, const char* arg2) {
  XRV_TRACE_FN();
  char message[kMessageSize];
  snprintf(message, sizeof message, format, arg1 == nullptr ? "" : arg1,
           arg2 == nullptr ? "" : arg2);
  fatalError(message);
}

#pragma GCC diagnostic pop
