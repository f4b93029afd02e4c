#include "tail/CodePageConverter.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_cb.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

namespace xrvlog {
namespace {

// Writes U+FFFD for every byte sequence the code page does not map, whatever the
// converter's own substitute (some write U+001A).
void substitute(const void* /*context*/, UConverterToUnicodeArgs* args, const char* /*units*/,
                int32_t /*length*/, UConverterCallbackReason reason, UErrorCode* status) {
  if (reason > UCNV_IRREGULAR) {
    return;  // reset, close, clone: nothing to write
  }
  static const UChar kReplacement = 0xFFFD;
  *status = U_ZERO_ERROR;
  ucnv_cbToUWriteUChars(args, &kReplacement, 1, 0, status);
}

std::string upper(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return result;
}

bool digitsOnly(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
  });
}

// The converter for name, or null when ICU knows no such code page.
UConverter* open(std::string_view name) {
  std::vector<std::string> tries;
  if (digitsOnly(name)) {
    tries = {"cp" + std::string(name), "ibm-" + std::string(name), "windows-" + std::string(name)};
  } else {
    tries = {std::string(name)};
  }
  for (const std::string& candidate : tries) {
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open(candidate.c_str(), &status);
    if (U_SUCCESS(status) && converter != nullptr) {
      return converter;
    }
  }
  return nullptr;
}

// True when the byte 0x0A alone reads as U+000A alone.
bool lineFeedIsOneByte(UConverter* converter) {
  UChar out[4];
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length = ucnv_toUChars(converter, out, 4, "\n", 1, &status);
  ucnv_reset(converter);
  return U_SUCCESS(status) && length == 1 && out[0] == 0x0A;
}

}  // namespace

CodePageConverter::CodePageConverter(std::string_view name) : name_("UTF-8") {
  while (!name.empty() && std::isspace(static_cast<unsigned char>(name.front()))) {
    name.remove_prefix(1);
  }
  while (!name.empty() && std::isspace(static_cast<unsigned char>(name.back()))) {
    name.remove_suffix(1);
  }
  const std::string key = upper(name);
  if (key.empty() || key == "UTF-8" || key == "UTF8" || key == "1208") {
    return;
  }
  UConverter* source = open(name);
  if (source == nullptr) {
    throw std::invalid_argument("unknown code page '" + std::string(name) + "'");
  }
  UErrorCode status = U_ZERO_ERROR;
  if (ucnv_getType(source) == UCNV_UTF8) {
    ucnv_close(source);
    return;
  }
  const std::string icuName = ucnv_getName(source, &status);
  ucnv_setToUCallBack(source, substitute, nullptr, nullptr, nullptr, &status);
  if (U_FAILURE(status) || !lineFeedIsOneByte(source)) {
    ucnv_close(source);
    throw std::invalid_argument("code page '" + std::string(name) + "' (" + icuName +
                                ") is not supported: its line feed is not the single byte 0x0A, "
                                "so its lines cannot be told apart (UTF-16, UTF-32, EBCDIC)");
  }
  status = U_ZERO_ERROR;
  UConverter* utf8 = ucnv_open("UTF-8", &status);
  if (U_FAILURE(status)) {
    ucnv_close(source);
    throw std::runtime_error(std::string("cannot open ICU's UTF-8 converter: ") +
                             u_errorName(status));
  }
  source_ = source;
  utf8_ = utf8;
  name_ = icuName;
}

CodePageConverter::~CodePageConverter() {
  if (source_ != nullptr) {
    ucnv_close(source_);
    ucnv_close(utf8_);
  }
}

CodePageConverter::CodePageConverter(CodePageConverter&& other) noexcept
    : source_(std::exchange(other.source_, nullptr)),
      utf8_(std::exchange(other.utf8_, nullptr)),
      name_(std::move(other.name_)),
      buffer_(std::move(other.buffer_)),
      capacity_(std::exchange(other.capacity_, 0)) {}

CodePageConverter& CodePageConverter::operator=(CodePageConverter&& other) noexcept {
  if (this != &other) {
    CodePageConverter gone(std::move(*this));
    source_ = std::exchange(other.source_, nullptr);
    utf8_ = std::exchange(other.utf8_, nullptr);
    name_ = std::move(other.name_);
    buffer_ = std::move(other.buffer_);
    capacity_ = std::exchange(other.capacity_, 0);
  }
  return *this;
}

void CodePageConverter::reserve(std::size_t bytes, std::size_t keep) {
  if (bytes <= capacity_) {
    return;
  }
  const std::size_t grown = std::max(bytes, capacity_ * 2);
  std::unique_ptr<char[]> bigger(new char[grown]);
  if (keep > 0) {
    std::memcpy(bigger.get(), buffer_.get(), keep);
  }
  buffer_ = std::move(bigger);
  capacity_ = grown;
}

std::string_view CodePageConverter::convert(std::string_view in) {
  if (source_ == nullptr) {
    return in;
  }
  // One byte gives at most three UTF-8 bytes in nearly every code page (a character of
  // the BMP, or U+FFFD); the loop grows the buffer for those few mappings that give more.
  reserve(in.size() * 3 + 4, 0);
  const char* source = in.data();
  char* target = buffer_.get();
  UChar pivot[512];
  UChar* pivotSource = pivot;
  UChar* pivotTarget = pivot;
  bool reset = true;
  for (;;) {
    UErrorCode status = U_ZERO_ERROR;
    ucnv_convertEx(utf8_, source_, &target, buffer_.get() + capacity_, &source,
                   in.data() + in.size(), pivot, &pivotSource, &pivotTarget,
                   pivot + sizeof pivot / sizeof pivot[0], reset, true, &status);
    reset = false;
    if (status != U_BUFFER_OVERFLOW_ERROR) {
      // Every unmapped sequence is substituted, so no other error is expected; should
      // one come, what was converted up to it is the line.
      break;
    }
    const std::size_t used = static_cast<std::size_t>(target - buffer_.get());
    reserve(capacity_ * 2, used);
    target = buffer_.get() + used;
  }
  return {buffer_.get(), static_cast<std::size_t>(target - buffer_.get())};
}

}  // namespace xrvlog
