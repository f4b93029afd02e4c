#pragma once

// DefinitionCheck: reads an agent definition through the registered parsers, as the
// agent does, but reports what is wrong instead of ending the process: the first
// error with its line and column, and every warning with its line. Used by xrvctl
// validate and the fuzz tests.
//
// Reading a definition fills the process-wide state (metaMap and the other
// definition values); call resetDefinitionState() before reading another one.

#include <optional>
#include <string>
#include <vector>

struct DefinitionProblem {
  int line;    // 1-based
  int column;  // 1-based
  std::string message;
};

class DefinitionCheck {
 public:
  // Reads `document`. True when it has no error (warnings may still be there).
  bool check(const std::string& document);
  // Reads the file at `path`; an unreadable file is an error at line 0.
  bool checkFile(const std::string& path);

  const std::optional<DefinitionProblem>& error() const { return error_; }
  const std::vector<DefinitionProblem>& warnings() const { return warnings_; }

 private:
  std::optional<DefinitionProblem> error_;
  std::vector<DefinitionProblem> warnings_;
};
