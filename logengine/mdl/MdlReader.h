// Reads MDL text into an MdlDocument. A text that does not follow the dialect (see
// docs/mdl.md) gives an error naming the line and column and what was expected
// there; no input makes the reader crash or allocate beyond MdlLimits.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "mdl/MdlDocument.h"

namespace xrvlog {

struct MdlError {
  int line = 0;    // 1-based
  int column = 0;  // 1-based byte offset in the line
  std::string message;

  // "line 3, column 17: expected ..."
  std::string toString() const;
};

class MdlReadResult {
 public:
  explicit MdlReadResult(MdlDocument document) : document_(std::move(document)) {}
  explicit MdlReadResult(MdlError error) : error_(std::move(error)) {}

  bool ok() const { return document_.has_value(); }
  const MdlDocument& document() const { return *document_; }
  MdlDocument& document() { return *document_; }
  const MdlError& error() const { return error_; }

 private:
  std::optional<MdlDocument> document_;
  MdlError error_;
};

class MdlReader {
 public:
  // One trailing NUL byte (the terminator the agent counts in the length) is ignored.
  static MdlReadResult read(std::string_view text);
};

}  // namespace xrvlog
