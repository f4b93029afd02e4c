#include "provider/expression/Regex.h"

#include <unicode/uregex.h>
#include <unicode/utext.h>
#include <unicode/utypes.h>

#include <climits>

namespace XRV::expression {

std::unique_ptr<Regex> Regex::compile(std::string_view pattern, std::string* error) {
  if (pattern.size() > INT32_MAX) {
    *error = "regular expression too long";
    return nullptr;
  }
  UErrorCode status = U_ZERO_ERROR;
  UParseError where{};
  UText text = UTEXT_INITIALIZER;
  utext_openUTF8(&text, pattern.data(), static_cast<int64_t>(pattern.size()), &status);
  URegularExpression* compiled = uregex_openUText(&text, 0, &where, &status);
  utext_close(&text);
  if (U_FAILURE(status)) {
    uregex_close(compiled);
    *error = std::string("invalid regular expression \"") + std::string(pattern) +
             "\": " + u_errorName(status);
    if (where.offset >= 0) {
      *error += " at offset " + std::to_string(where.offset);
    }
    return nullptr;
  }
  // A pathological pattern stops with an error after about a second of matching
  // instead of holding the derived calculation of the whole agent.
  uregex_setTimeLimit(compiled, 1000, &status);
  return std::unique_ptr<Regex>(new Regex(compiled));
}

Regex::~Regex() { uregex_close(compiled_); }

bool Regex::find(std::string_view text, std::string* error) {
  std::lock_guard<std::mutex> guard(lock_);
  UErrorCode status = U_ZERO_ERROR;
  UText subject = UTEXT_INITIALIZER;
  utext_openUTF8(&subject, text.data(), static_cast<int64_t>(text.size()), &status);
  uregex_setUText(compiled_, &subject, &status);
  bool found = U_SUCCESS(status) && uregex_find(compiled_, 0, &status);
  // Drop the matcher's reference to the caller's text.
  UErrorCode ignored = U_ZERO_ERROR;
  UText empty = UTEXT_INITIALIZER;
  utext_openUTF8(&empty, "", 0, &ignored);
  uregex_setUText(compiled_, &empty, &ignored);
  utext_close(&empty);
  utext_close(&subject);
  if (U_FAILURE(status)) {
    *error = std::string("regular expression failed: ") + u_errorName(status);
    return false;
  }
  return found;
}

}  // namespace XRV::expression
