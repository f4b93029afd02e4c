#pragma once

// The framework's national-language service: the process locale and conversion of
// text between code pages. Code pages are named as ICU names them ("UTF-8",
// "ISO-8859-1", "Shift_JIS") or numbered by their CCSID (1208 is UTF-8).

#include <cstddef>

struct FwLocale {
  char name[64];      // the locale name in effect for character types, "C" when none
  char codePage[64];  // its character set, as the C library names it ("UTF-8")
  int codePageId;     // its CCSID, 0 when the character set has none
};

// The locale that the environment (LC_ALL, LC_CTYPE, LANG) asks for, worked out once
// without changing the process's own locale. When the environment names a locale
// that is not installed, the "C" locale is returned and *error (when given) is set
// to the errno value of the failure; otherwise *error is 0.
const FwLocale* fwGetProcessLocale(int* error);

// CCSID of a code page name; 0 when unknown.
int fwCodePageId(const char* codePageName);
// Name of a CCSID into `out`; false when unknown or `out` is too small.
bool fwCodePageName(int codePageId, char* out, size_t size);

// Converts `length` bytes of `text` from one code page to another. Returns a
// NUL-terminated copy (free() it) and its length in *outLength (when given), or null
// when a code page is unknown. Characters that the target cannot hold become its
// substitution character.
char* fwConvertCodePage(const char* text, size_t length, const char* fromCodePage,
                        const char* toCodePage, size_t* outLength);
