// The parts of MDL that carry regular expressions: the terms of a FILTER and the
// boundary of a RECORDSET. An expression is kept as text; the reader only finds
// where it ends, by following its groups, classes and escapes.

#pragma once

#include <string>

#include "mdl/MdlCursor.h"
#include "mdl/MdlDocument.h"

namespace xrvlog {

// At "{" after FILTER=: the terms joined by OR, through the closing "}".
MdlFilter readFilter(MdlCursor& cursor, bool drop);

// After //RECORDSET and its blanks: START(0,regex,pattern) or END(0,regex,pattern).
MdlRecordSet readRecordSet(MdlCursor& cursor);

// An expression that runs to the end of a quoted value: checks that its groups
// close and nest within the limit, and returns how many groups capture. `start` is
// where the value starts in the line.
int checkGroups(const MdlCursor& cursor, size_t start, const std::string& regex);

}  // namespace xrvlog
