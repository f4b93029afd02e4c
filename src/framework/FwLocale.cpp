#include "framework/FwLocale.h"

#include <langinfo.h>
#include <locale.h>
#include <unicode/ucnv.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "framework/Trace.h"

namespace {

void copyText(char* out, size_t size, const char* text) {
  snprintf(out, size, "%s", text == nullptr ? "" : text);
}

const char* environmentLocaleName() {
  for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* value = getenv(variable);
    if (value != nullptr && *value != '\0') {
      return value;
    }
  }
  return "C";
}

struct ProcessLocale {
  FwLocale locale;
  int error;
};

ProcessLocale computeProcessLocale() {
  XRV_TRACE_FN();
  ProcessLocale result{};
  const char* name = environmentLocaleName();
  locale_t handle = newlocale(LC_CTYPE_MASK, name, static_cast<locale_t>(0));
  if (handle == static_cast<locale_t>(0)) {
    result.error = errno == 0 ? ENOENT : errno;
    XRV_TRACE_ERROR("Locale %s is not available (errno %d), using C", name, result.error);
    name = "C";
    handle = newlocale(LC_CTYPE_MASK, "C", static_cast<locale_t>(0));
  }
  copyText(result.locale.name, sizeof result.locale.name, name);
  copyText(result.locale.codePage, sizeof result.locale.codePage,
           handle == static_cast<locale_t>(0) ? "ANSI_X3.4-1968" : nl_langinfo_l(CODESET, handle));
  if (handle != static_cast<locale_t>(0)) {
    freelocale(handle);
  }
  result.locale.codePageId = fwCodePageId(result.locale.codePage);
  XRV_TRACE_DETAIL("Process locale %s, code page %s (%d)", result.locale.name,
                   result.locale.codePage, result.locale.codePageId);
  return result;
}

}  // namespace

const FwLocale* fwGetProcessLocale(int* error) {
  XRV_TRACE_FN();
  static const ProcessLocale processLocale = computeProcessLocale();
  if (error != nullptr) {
    *error = processLocale.error;
  }
  return &processLocale.locale;
}

int fwCodePageId(const char* codePageName) {
  XRV_TRACE_FN();
  if (codePageName == nullptr || *codePageName == '\0') {
    return 0;
  }
  UErrorCode status = U_ZERO_ERROR;
  UConverter* converter = ucnv_open(codePageName, &status);
  if (U_FAILURE(status)) {
    XRV_TRACE_DETAIL("Unknown code page %s: %s", codePageName, u_errorName(status));
    return 0;
  }
  int id = ucnv_getCCSID(converter, &status);
  ucnv_close(converter);
  return U_FAILURE(status) ? 0 : id;
}

bool fwCodePageName(int codePageId, char* out, size_t size) {
  XRV_TRACE_FN();
  if (codePageId <= 0 || out == nullptr) {
    return false;
  }
  UErrorCode status = U_ZERO_ERROR;
  UConverter* converter = ucnv_openCCSID(codePageId, UCNV_IBM, &status);
  if (U_FAILURE(status)) {
    XRV_TRACE_DETAIL("Unknown code page id %d: %s", codePageId, u_errorName(status));
    return false;
  }
  const char* name = ucnv_getName(converter, &status);
  bool ok = U_SUCCESS(status) && strlen(name) < size;
  if (ok) {
    memcpy(out, name, strlen(name) + 1);
  }
  ucnv_close(converter);
  return ok;
}

char* fwConvertCodePage(const char* text, size_t length, const char* fromCodePage,
                        const char* toCodePage, size_t* outLength) {
  XRV_TRACE_FN();
  if (text == nullptr || fromCodePage == nullptr || toCodePage == nullptr ||
      length > static_cast<size_t>(INT32_MAX)) {
    return nullptr;
  }
  UErrorCode status = U_ZERO_ERROR;
  int32_t needed = ucnv_convert(toCodePage, fromCodePage, nullptr, 0, text,
                                static_cast<int32_t>(length), &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
    XRV_TRACE_ERROR("Cannot convert from %s to %s: %s", fromCodePage, toCodePage,
                    u_errorName(status));
    return nullptr;
  }
  // Room for a terminator as wide as the widest code unit.
  char* out = static_cast<char*>(malloc(static_cast<size_t>(needed) + 4));
  if (out == nullptr) {
    return nullptr;
  }
  status = U_ZERO_ERROR;
  int32_t written = ucnv_convert(toCodePage, fromCodePage, out, needed + 4, text,
                                 static_cast<int32_t>(length), &status);
  if (U_FAILURE(status)) {
    XRV_TRACE_ERROR("Cannot convert from %s to %s: %s", fromCodePage, toCodePage,
                    u_errorName(status));
    free(out);
    return nullptr;
  }
  memset(out + written, 0, 4);
  if (outLength != nullptr) {
    *outLength = static_cast<size_t>(written);
  }
  return out;
}
