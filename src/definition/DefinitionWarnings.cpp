#include "definition/DefinitionWarnings.h"

#include <cstdarg>
#include <cstdio>

namespace {
DefinitionWarningSink* installedSink = nullptr;
}  // namespace

void setDefinitionWarningSink(DefinitionWarningSink* sink) { installedSink = sink; }

void reportDefinitionWarning(const char* format, ...) {
  if (installedSink == nullptr) {
    return;
  }
  char message[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(message, sizeof message, format, args);
  va_end(args);
  installedSink->definitionWarning(message);
}
