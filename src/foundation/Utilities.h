#pragma once

// Text and number helpers shared by the whole agent.
//
// Character sets: "native" text is in the code page of the process locale
// (fwGetProcessLocale), the character set in which commands print and files are named.
// Everything the agent keeps and reports is UTF-8. Conversions go through
// fwConvertCodePage, except where no conversion is needed: pure ASCII text, and text
// whose native code page is UTF-8 already, are copied. Whatever the source, what
// leaves nativeToUTF8 is well-formed UTF-8: an invalid byte sequence becomes U+FFFD.
//
// Every function here is thread-safe (each works on its arguments only; the process
// locale is computed once).

#include <cstddef>

#include "foundation/String.h"

class Utilities {
 public:
  Utilities() = delete;

  // A newly allocated UTF-8 copy of `native` (caller frees with free()); null when
  // `native` is null or the conversion fails.
  static char* nativeToUTF8(const char* native);
  // A newly allocated native copy of `utf8` (caller frees); null when `utf8` is null or
  // the conversion fails. Characters the native code page lacks become its
  // substitution character.
  static char* UTF8ToNative(const char* utf8);

  // The same, for `length` bytes of `text`, into *out (replacing its content; the
  // buffer is reused, so converting row after row does not allocate once *out is large
  // enough, except in the code-page conversion itself). False, with *out empty, when
  // `text` or `out` is null or the conversion fails.
  static bool nativeToUTF8(const char* text, size_t length, XRV::String* out);
  static bool UTF8ToNative(const char* text, size_t length, XRV::String* out);

  // The same with the code page given by name ("ISO-8859-1", "UTF-8", ...) instead of
  // the process locale's. The code page must be a superset of ASCII, as the character
  // set of every Linux locale is; pure ASCII text is copied without looking at it.
  static bool codePageToUTF8(const char* text, size_t length, const char* codePage,
                             XRV::String* out);
  static bool UTF8ToCodePage(const char* text, size_t length, const char* codePage,
                             XRV::String* out);

  // True for the names "UTF-8" and "UTF8", in any case. False for null.
  static bool isUTF8CodePage(const char* codePage);

  // The length of the UTF-8 character at `text`, of which `available` bytes may be
  // read (at least 1). *valid tells whether it is well-formed (no overlong form, no
  // surrogate, nothing beyond U+10FFFF); when not, the length is that of the longest
  // start of a well-formed sequence found there (1 for a byte that cannot start one),
  // which is the part one U+FFFD replaces.
  static size_t scanUTF8Character(const char* text, size_t available, bool* valid);
  // True when the `length` bytes of `text` are well-formed UTF-8.
  static bool isValidUTF8(const char* text, size_t length);
  // Appends `length` bytes of `text` to *out with every ill-formed part replaced by
  // U+FFFD. False when out of memory.
  static bool appendRepairedUTF8(const char* text, size_t length, XRV::String* out);

  // Replaces the malloc'd text *owned with a copy of `text` (null stays null) and
  // frees the old one: how objects keep their own copies of the texts they are given.
  static void setOwnedText(char** owned, const char* text);

  // Running average: `count` samples are already averaged in `previousAverage`, and
  // `sample` is one more: (previousAverage * count + sample) / (count + 1). A count of
  // 0 or below returns `sample`, so the first sample replaces any start value.
  static double calculateAverage(double previousAverage, double sample, int count);

  // Expands "${NAME}" references in `text` (a command, a path, an MDL text) with
  // configuration property values. NAME is looked up in the configuration of the
  // subnode `subnodeType` `subnodeKey` when both are non-null, else in the agent's
  // configuration. Unless `allowAll` is set, only the names isSubstituteAllowed accepts
  // are expanded; references to other names are removed, as are references to names
  // that have no value. A "${" without a "}" behind it on the same line stays as it is.
  // When `text` holds a line feed, every line of the result ends with one, the last
  // line included.
  //
  // Returns a newly allocated text (caller frees with free()); null when `text` is
  // null or memory runs out.
  static char* substituteEnvVars(const char* text, const char* subnodeType, const char* subnodeKey,
                                 bool allowAll);
};

// True for the names whose substitution is always allowed: "AGENT_BIN_DIR",
// "AGENT_ETC_DIR", "AGENT_LIB_DIR", "PELMO_HOME" and "PELMOHOME" (exact case). False
// for null.
bool isSubstituteAllowed(const char* name);

// Removes leading and trailing blanks, tabs, carriage returns and line feeds from
// `text` in place. A null or empty text is left alone.
void trim_string(char* text);
