#pragma once

// QRFParser: reads a format file (docs/format-files.md) into QRFFormatNode objects.
// A recursive-descent parser over QRFScanner's tokens; it stops at the first error,
// which names the line, the token found there and what was expected.
//
//   file     := { format | NEWLINE }
//   format   := "format" CLASS [ "extends" CLASS ] NEWLINE { statement } "end"
//   statement:= "pattern" REST-OF-LINE | "regex" REST-OF-LINE
//             | [ "hidden" ] SLOT "=" value NEWLINE
//             | "map" ( SLOT | %XRV_FILENAME% | %XRV_REGEX% ) "to" ATTRIBUTE NEWLINE
//   value    := $N | "text" | "default" | "printf" "(" "text" { "," SLOT } ")"
//             | "list" "(" item { "," item } ")"
//   item     := $N | "text"
//
// Keywords are matched without regard to case.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "logmon/format/QRFFormatNode.h"

struct QRFParseSettings {
  // Tabs count as blanks in expressions (strict compatibility).
  bool strict = false;
  // The value of the DEFAULT slot `name`; false when there is no such DEFAULT (the
  // callback reports it, and the slot is left out).
  std::function<bool(const std::string& name, int line, std::string* value)> defaultValue;
};

struct QRFParseResult {
  std::vector<std::unique_ptr<QRFFormatNode>> formats;  // in file order, indexed from 0
  bool ok = true;
  int errorLine = 0;
  std::string errorToken;    // what was found where the parse stopped
  std::string errorMessage;  // what was expected there
};

QRFParseResult parseFormatText(std::string_view text, const QRFParseSettings& settings);
