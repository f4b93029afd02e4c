#pragma once

// ValueSource: where a value's names, type and key and counter flags come from, and
// the value's representation, packed into one word.
//
// The word is the Metric's address, or that of a block of the value's own names,
// with flags in its low bits (both are aligned to kAlignment):
//   bits 0-2  the representation (RESULT_VALUE_KIND)
//   bit 3     the names are the value's own block
//   bit 4     the value came out of the value mapping
// The names block starts with a header (has a name, has a display name, type, key
// and counter flags), then the names, each NUL-terminated.
//
// Contract:
// - It holds that one word, nothing more: a row keeps one per attribute, and the
//   size of a value decides whether a large table fits the processor's cache.
// - It owns the names block (freed with it) and refers to the Metric, which outlives
//   every value built from it. Not copyable: a copy of a value makes its own.
// - Not thread-safe; its value belongs to one row, which belongs to one list.
// - Every reader is inline: ResultMetric answers through it for every value of every
//   row it packs, compares or computes.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "definition/Metric.h"

enum RESULT_VALUE_KIND {
  RESULT_INT32,
  RESULT_INT64,
  RESULT_UINT64,
  RESULT_DOUBLE,
  RESULT_STRING,  // byte string, local code page
  RESULT_UTF8,    // UTF8String
};

class ValueSource {
 public:
  // Refers to `metric` (null only when a value was built wrongly).
  ValueSource(const Metric* metric, RESULT_VALUE_KIND kind)
      : word_(reinterpret_cast<uintptr_t>(metric) | kind) {}
  // Copies the names into a block of its own; when that cannot be allocated the
  // names are null and the type numeric.
  ValueSource(const char* name, const char* displayName, RAW_METRIC_TYPE type,
              RESULT_VALUE_KIND kind, bool key, bool counter);
  ~ValueSource();
  ValueSource(const ValueSource&) = delete;
  ValueSource& operator=(const ValueSource&) = delete;

  RESULT_VALUE_KIND kind() const { return static_cast<RESULT_VALUE_KIND>(word_ & kKindMask); }
  void setKind(RESULT_VALUE_KIND kind) { word_ = (word_ & ~kKindMask) | kind; }
  bool ownsNames() const { return (word_ & kOwnsNames) != 0; }
  // The Metric; null for own names.
  const Metric* metric() const {
    return ownsNames() ? nullptr : reinterpret_cast<const Metric*>(word_ & ~kTagMask);
  }
  bool mapped() const { return (word_ & kMapped) != 0; }
  void setMapped(bool mapped) { word_ = mapped ? word_ | kMapped : word_ & ~kMapped; }

  RAW_METRIC_TYPE type() const {
    if (ownsNames()) {
      const char* names = ownNames();
      return names == nullptr ? NUMERIC_DATA : static_cast<RAW_METRIC_TYPE>(names[kOwnType]);
    }
    const Metric* source = metric();
    return source == nullptr ? NUMERIC_DATA : source->getRawMetricType();
  }
  bool isKey() const { return flag(kOwnKey); }
  bool isCounter() const { return flag(kOwnCounter); }
  // The name and the display name; null when there is none.
  const char* name() const;
  const char* displayName() const;

 private:
  static constexpr uintptr_t kKindMask = 0x7;
  static constexpr uintptr_t kOwnsNames = 0x8;
  static constexpr uintptr_t kMapped = 0x10;
  static constexpr uintptr_t kTagMask = 0x1F;
  static constexpr size_t kAlignment = kTagMask + 1;
  static_assert(alignof(Metric) >= kAlignment, "Metric addresses must leave the flag bits");

  enum NamesHeader : size_t { kHasName, kHasDisplayName, kOwnType, kOwnFlags, kNamesStart };
  static constexpr uint8_t kOwnKey = 1;
  static constexpr uint8_t kOwnCounter = 2;

  // The names block; null when it could not be allocated.
  const char* ownNames() const { return reinterpret_cast<const char*>(word_ & ~kTagMask); }
  // The key or counter flag, from the Metric or the own names block.
  bool flag(uint8_t which) const {
    if (ownsNames()) {
      const char* names = ownNames();
      return names != nullptr && (static_cast<uint8_t>(names[kOwnFlags]) & which) != 0;
    }
    const Metric* source = metric();
    return source != nullptr && (which == kOwnKey ? source->getIsKey() : source->isCounter());
  }

  uintptr_t word_;
};

static_assert(sizeof(ValueSource) == sizeof(uintptr_t), "a value's source is one word");

inline const char* ValueSource::name() const {
  if (!ownsNames()) {
    const Metric* source = metric();
    return source == nullptr ? nullptr : source->getMetricName();
  }
  const char* names = ownNames();
  return names != nullptr && names[kHasName] != 0 ? names + kNamesStart : nullptr;
}

inline const char* ValueSource::displayName() const {
  if (!ownsNames()) {
    const Metric* source = metric();
    return source == nullptr ? nullptr : source->getSurfMetricName();
  }
  const char* names = ownNames();
  if (names == nullptr || names[kHasDisplayName] == 0) {
    return nullptr;
  }
  const char* after = names + kNamesStart;
  return names[kHasName] != 0 ? after + strlen(after) + 1 : after;
}
