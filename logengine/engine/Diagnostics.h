#pragma once
// Where the engine says what went wrong: a load that failed, a file it cannot read.
// The C interface returns only codes, so the words go here: one line each on
// standard error ("xrvlog: ..."), the agent's log, unless a program installs its own
// sink (xrvctl and the tests do).

#include <functional>
#include <string>

namespace xrvlog {

using DiagnosticSink = std::function<void(const std::string& message)>;

// Any thread. An empty sink restores standard error.
void setDiagnosticSink(DiagnosticSink sink);
void diagnose(const std::string& message);

}  // namespace xrvlog
