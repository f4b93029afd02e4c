#pragma once

// What the log monitor reads and rewrites in an MDL text before the engine gets it:
// the names of its //APPL and //NAME header lines, and the file of its first
// //SOURCE FILE line. The rest of the language is the engine's (docs/mdl.md).

#include <string>

namespace logmon {

// A character of a header name as the log monitor rewrites it: a letter, a digit,
// "-", "_" or "*".
bool isMdlNameCharacter(char c);

// The name that follows the first `keyword` ("//NAME ") of `mdl`: blanks skipped,
// then a run of name characters. "" when the keyword does not occur.
std::string mdlHeaderName(const std::string& mdl, const char* keyword);

// The table name of a subnode's copy of a group whose MDL names `tableName`:
// tableName + "_" + the key, blanks in the key written as "_".
std::string subnodeTableName(const std::string& tableName, const char* subnodeKey);

// For a subnode's copy, when both "//APPL " and "//NAME " occur: the application
// name becomes name + "_" + subnodeType + "_" + subnodeKey (blanks written as "_"),
// and the table name becomes `tableName`. False, with `mdl` unchanged, when one of
// the two lines is missing.
bool rewriteSubnodeHeader(std::string* mdl, const char* subnodeType, const char* subnodeKey,
                          const std::string& tableName);

enum class SourceFileCheck {
  Found,      // *fileName holds what stands between the first quotes
  NoLine,     // no "//SOURCE FILE "
  NoQuote,    // no "'" after it
  EmptyName,  // the quote is followed by another
};

// Finds "//SOURCE FILE " and the first "'" after it.
SourceFileCheck checkSourceFile(const std::string& mdl, std::string* fileName);

}  // namespace logmon
