#pragma once

// The callbacks the log monitor registers with the engine, and what the objects ask
// of the table map (LogMonitorCallbacks.cpp). Internal to src/logmon.

#include "logengine/engine/xpwp.h"

extern "C" void dataCallbackFunc(void* context, const char* table, const char* source,
                                 const char* description, const XPWP_NameValue* pairs, int count);
extern "C" void statusCallbackFunc(void* context, const char* table, const char* source,
                                   int status);

// How many objects are filed in the table map now.
int registeredLogMonitorCount();
