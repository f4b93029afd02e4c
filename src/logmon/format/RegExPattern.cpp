#include "logmon/format/RegExPattern.h"

#include <unicode/uregex.h>
#include <unicode/ustring.h>

#include <climits>
#include <vector>

#include "framework/Trace.h"

bool RegExPattern::check(std::string_view pattern, int* groups, int* position,
                         std::string* error) {
  XRV_TRACE_FN();
  *groups = 0;
  *position = -1;
  if (pattern.size() > INT32_MAX / 2) {
    *error = "U_REGEX_PATTERN_TOO_BIG";
    return false;
  }
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  u_strFromUTF8(nullptr, 0, &length, pattern.data(), static_cast<int32_t>(pattern.size()),
                &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
    *error = u_errorName(status);
    return false;
  }
  std::vector<UChar> wide(static_cast<size_t>(length) + 1);
  status = U_ZERO_ERROR;
  u_strFromUTF8(wide.data(), length + 1, nullptr, pattern.data(),
                static_cast<int32_t>(pattern.size()), &status);
  if (U_FAILURE(status)) {
    *error = u_errorName(status);
    return false;
  }
  UParseError where{};
  URegularExpression* compiled = uregex_open(wide.data(), length, 0, &where, &status);
  if (U_FAILURE(status)) {
    *error = u_errorName(status);
    *position = where.offset;
    uregex_close(compiled);
    return false;
  }
  *groups = uregex_groupCount(compiled, &status);
  uregex_close(compiled);
  return true;
}
