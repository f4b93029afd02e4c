#include "provider/ValueSource.h"

#include <cstdlib>
#include <cstring>

#include "framework/Trace.h"

ValueSource::ValueSource(const char* name, const char* displayName, RAW_METRIC_TYPE type,
                         RESULT_VALUE_KIND kind, bool key, bool counter)
    : word_(kOwnsNames | kind) {
  size_t nameLength = name == nullptr ? 0 : strlen(name) + 1;
  size_t displayLength = displayName == nullptr ? 0 : strlen(displayName) + 1;
  size_t size = kNamesStart + nameLength + displayLength;
  size = (size + kAlignment - 1) / kAlignment * kAlignment;
  char* block = static_cast<char*>(aligned_alloc(kAlignment, size));
  if (block == nullptr) [[unlikely]] {
    XRV_TRACE_SITE();
    XRV_TRACE_ERROR("Unable to copy the names of metric %s", name == nullptr ? "" : name);
    return;
  }
  block[kHasName] = name != nullptr ? 1 : 0;
  block[kHasDisplayName] = displayName != nullptr ? 1 : 0;
  block[kOwnType] = static_cast<char>(type);
  block[kOwnFlags] = static_cast<char>((key ? kOwnKey : 0) | (counter ? kOwnCounter : 0));
  if (name != nullptr) {
    memcpy(block + kNamesStart, name, nameLength);
  }
  if (displayName != nullptr) {
    memcpy(block + kNamesStart + nameLength, displayName, displayLength);
  }
  word_ = reinterpret_cast<uintptr_t>(block) | (word_ & kTagMask);
}

ValueSource::~ValueSource() {
  if (ownsNames()) {
    free(const_cast<char*>(ownNames()));
  }
}
