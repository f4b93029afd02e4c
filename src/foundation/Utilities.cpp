#include "foundation/Utilities.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "framework/FwLocale.h"
#include "framework/Trace.h"

namespace {

constexpr char kReplacementCharacter[] = "\xEF\xBF\xBD";  // U+FFFD in UTF-8
constexpr int kUTF8CodePageId = 1208;

bool isASCII(const char* text, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (static_cast<unsigned char>(text[i]) >= 0x80) {
      return false;
    }
  }
  return true;
}

bool isTrimmed(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// The process locale's code page, worked out once.
struct NativeCodePage {
  const char* name;
  bool utf8;
};

NativeCodePage computeNativeCodePage() {
  XRV_TRACE_FN();
  const FwLocale* locale = fwGetProcessLocale(nullptr);
  NativeCodePage result{locale->codePage, locale->codePageId == kUTF8CodePageId ||
                                              Utilities::isUTF8CodePage(locale->codePage)};
  XRV_TRACE_DETAIL("Native code page %s%s", result.name, result.utf8 ? " (UTF-8)" : "");
  return result;
}

const NativeCodePage& nativeCodePage() {
  static const NativeCodePage codePage = computeNativeCodePage();
  return codePage;
}

// Converts with fwConvertCodePage into *out. *out is empty on failure.
bool convertInto(const char* text, size_t length, const char* from, const char* to,
                 XRV::String* out) {
  XRV_TRACE_FN();
  size_t convertedLength = 0;
  char* converted = fwConvertCodePage(text, length, from, to, &convertedLength);
  if (converted == nullptr) {
    XRV_TRACE_ERROR("Unable to convert text from %s to %s", from, to);
    out->clear();
    return false;
  }
  bool ok = out->assign(converted, convertedLength);
  free(converted);
  if (!ok) {
    out->clear();
  }
  return ok;
}

char* allocatedCopy(bool ok, XRV::String* text) { return ok ? text->release() : nullptr; }

// False (with `out` emptied when there is one) when there is nothing to convert.
bool readyToConvert(const char* text, const char* codePage, XRV::String* out) {
  if (out == nullptr) {
    return false;
  }
  if (text == nullptr || codePage == nullptr) {
    out->clear();
    return false;
  }
  return true;
}

}  // namespace

bool Utilities::isUTF8CodePage(const char* codePage) {
  return codePage != nullptr &&
         (strcasecmp(codePage, "UTF-8") == 0 || strcasecmp(codePage, "UTF8") == 0);
}

size_t Utilities::scanUTF8Character(const char* text, size_t available, bool* valid) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  *valid = false;
  if (available == 0) {
    return 0;
  }
  unsigned char lead = bytes[0];
  if (lead < 0x80) {
    *valid = true;
    return 1;
  }
  // The second byte's range is narrower after some leads: that is what rules out
  // overlong forms, surrogates and values beyond U+10FFFF.
  size_t needed = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    needed = 2;
  } else if (lead == 0xE0) {
    needed = 3;
    low = 0xA0;
  } else if (lead == 0xED) {
    needed = 3;
    high = 0x9F;
  } else if (lead >= 0xE1 && lead <= 0xEF) {
    needed = 3;
  } else if (lead == 0xF0) {
    needed = 4;
    low = 0x90;
  } else if (lead >= 0xF1 && lead <= 0xF3) {
    needed = 4;
  } else if (lead == 0xF4) {
    needed = 4;
    high = 0x8F;
  } else {
    return 1;
  }
  for (size_t i = 1; i < needed; ++i) {
    if (i >= available || bytes[i] < low || bytes[i] > high) {
      return i;
    }
    low = 0x80;
    high = 0xBF;
  }
  *valid = true;
  return needed;
}

namespace {

// Where the first sequence at or after `from` that is not a whole UTF-8 character
// starts (`length` when there is none), and in `*badSize` how many bytes it takes.
size_t findInvalidUTF8(const char* text, size_t length, size_t from, size_t* badSize) {
  size_t i = from;
  while (i < length) {
    if (static_cast<unsigned char>(text[i]) < 0x80) {
      ++i;
      continue;
    }
    bool valid = false;
    size_t size = Utilities::scanUTF8Character(text + i, length - i, &valid);
    if (!valid) {
      *badSize = size;
      return i;
    }
    i += size;
  }
  return length;
}

}  // namespace

bool Utilities::isValidUTF8(const char* text, size_t length) {
  size_t badSize = 0;
  return findInvalidUTF8(text, length, 0, &badSize) == length;
}

bool Utilities::appendRepairedUTF8(const char* text, size_t length, XRV::String* out) {
  if (!out->reserve(out->length() + length)) {
    return false;
  }
  size_t runStart = 0;
  size_t badSize = 0;
  for (size_t bad = findInvalidUTF8(text, length, 0, &badSize); bad < length;
       bad = findInvalidUTF8(text, length, runStart, &badSize)) {
    if (!out->append(text + runStart, bad - runStart) ||
        !out->append(kReplacementCharacter, sizeof kReplacementCharacter - 1)) {
      return false;
    }
    runStart = bad + badSize;
  }
  return out->append(text + runStart, length - runStart);
}

bool Utilities::codePageToUTF8(const char* text, size_t length, const char* codePage,
                               XRV::String* out) {
  XRV_TRACE_FN();
  if (!readyToConvert(text, codePage, out)) {
    return false;
  }
  if (isASCII(text, length)) {
    return out->assign(text, length);
  }
  if (isUTF8CodePage(codePage)) {
    out->clear();
    return appendRepairedUTF8(text, length, out);
  }
  return convertInto(text, length, codePage, "UTF-8", out);
}

bool Utilities::UTF8ToCodePage(const char* text, size_t length, const char* codePage,
                               XRV::String* out) {
  XRV_TRACE_FN();
  if (!readyToConvert(text, codePage, out)) {
    return false;
  }
  if (isASCII(text, length) || isUTF8CodePage(codePage)) {
    return out->assign(text, length);
  }
  return convertInto(text, length, "UTF-8", codePage, out);
}

bool Utilities::nativeToUTF8(const char* text, size_t length, XRV::String* out) {
  XRV_TRACE_FN();
  const NativeCodePage& native = nativeCodePage();
  return codePageToUTF8(text, length, native.utf8 ? "UTF-8" : native.name, out);
}

bool Utilities::UTF8ToNative(const char* text, size_t length, XRV::String* out) {
  XRV_TRACE_FN();
  const NativeCodePage& native = nativeCodePage();
  return UTF8ToCodePage(text, length, native.utf8 ? "UTF-8" : native.name, out);
}

char* Utilities::nativeToUTF8(const char* native) {
  XRV_TRACE_FN();
  if (native == nullptr) {
    return nullptr;
  }
  XRV::String result;
  return allocatedCopy(nativeToUTF8(native, strlen(native), &result), &result);
}

char* Utilities::UTF8ToNative(const char* utf8) {
  XRV_TRACE_FN();
  if (utf8 == nullptr) {
    return nullptr;
  }
  XRV::String result;
  return allocatedCopy(UTF8ToNative(utf8, strlen(utf8), &result), &result);
}

void Utilities::setOwnedText(char** owned, const char* text) {
  char* copy = text == nullptr ? nullptr : strdup(text);
  free(*owned);
  *owned = copy;
}

double Utilities::calculateAverage(double previousAverage, double sample, int count) {
  if (count <= 0) {
    return sample;
  }
  double samples = static_cast<double>(count);
  return (previousAverage * samples + sample) / (samples + 1.0);
}

void trim_string(char* text) {
  XRV_TRACE_FN();
  if (text == nullptr || *text == '\0') {
    return;
  }
  char* start = text;
  while (isTrimmed(*start)) {
    ++start;
  }
  size_t length = strlen(start);
  while (length > 0 && isTrimmed(start[length - 1])) {
    --length;
  }
  memmove(text, start, length);
  text[length] = '\0';
}
