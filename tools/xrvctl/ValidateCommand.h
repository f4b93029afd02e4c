#pragma once

// xrvctl validate: reads an agent definition as the agent would and reports what is
// wrong with it, or what it declares.

#include <iosfwd>
#include <string>

struct ValidateOptions {
  std::string definition;  // path of the agent definition
  bool json = false;       // one JSON document on standard output instead of tables
};

// Writes the report to `out` (and, for text output, errors and warnings to `err`).
// Returns the exit status: 0 when the definition can be used, 1 when it cannot.
int runValidate(const ValidateOptions& options, std::ostream& out, std::ostream& err);
