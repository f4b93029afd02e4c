#pragma once

// ResultMetric: one value of one attribute in one row.
//
// The value is held in the representation its constructor chose: 32-bit, 64-bit or
// unsigned 64-bit integer, double, byte string (in the local code page) or UTF-8
// string. A value built from a Metric refers to the Metric's names instead of
// copying them (a row holds many values, and the Metric outlives every row of its
// provider); one built from names keeps copies.
//
// Not thread-safe; a row belongs to one list of one provider at a time.

#include <cstdint>

#include "definition/Metric.h"
#include "foundation/List.h"
#include "foundation/ObjectPool.h"

class UTF8String;

namespace XRV {
class String;
}

enum RESULT_VALUE_KIND {
  RESULT_INT32,
  RESULT_INT64,
  RESULT_UINT64,
  RESULT_DOUBLE,
  RESULT_STRING,  // byte string, local code page
  RESULT_UTF8,    // UTF8String
};

class ResultMetric : public ListElement {
 public:
  ResultMetric(const Metric* metric, int value);
  ResultMetric(const Metric* metric, long long value);
  ResultMetric(const Metric* metric, unsigned long long value);
  ResultMetric(const Metric* metric, double value);
  // Copies `value`; null becomes "No value".
  ResultMetric(const Metric* metric, const char* value);
  // Takes ownership of `value`; null becomes "No value".
  ResultMetric(const Metric* metric, UTF8String* value);
  // A value that no Metric describes (the names are copied).
  ResultMetric(const char* name, const char* displayName, RAW_METRIC_TYPE type, const char* value);
  ResultMetric(const char* name, const char* displayName, RAW_METRIC_TYPE type, UTF8String* value);
  ~ResultMetric() override;

  // A sample makes and destroys values by the hundred thousand: they reuse memory.
  static void* operator new(size_t size) { return XRV::ObjectPool<ResultMetric>::allocate(size); }
  static void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return XRV::ObjectPool<ResultMetric>::allocateOrNull(size);
  }
  static void operator delete(void* block, size_t size) {
    XRV::ObjectPool<ResultMetric>::release(block, size);
  }

  const char* getMetricName() const;
  const char* getSurfMetricName() const;
  // Type, key and counter flags are the Metric's (or, for a value built from names,
  // what was given when it was built).
  RAW_METRIC_TYPE getRawMetricType() const {
    if (ownsNames()) {
      return ownNamesType();
    }
    const Metric* metric = getMetric();
    return metric == nullptr ? NUMERIC_DATA : metric->getRawMetricType();
  }
  // The Metric this value was built from; null for one built from names.
  const Metric* getMetric() const {
    return ownsNames() ? nullptr : reinterpret_cast<const Metric*>(source_ & ~kTagMask);
  }
  bool isKey() const { return flag(kOwnKey); }
  bool isCounter() const { return flag(kOwnCounter); }
  // The value came out of the Metric's value mapping.
  bool isMappedData() const { return (source_ & kMapped) != 0; }
  void setMappedData(bool mapped) { source_ = mapped ? source_ | kMapped : source_ & ~kMapped; }

  RESULT_VALUE_KIND getKind() const { return kind(); }
  bool isNumber() const { return kind() == RESULT_INT32; }
  bool isNumber64() const { return kind() == RESULT_INT64; }
  bool isNumberU64() const { return kind() == RESULT_UINT64; }
  bool isNumberDouble() const { return kind() == RESULT_DOUBLE; }
  bool isString() const { return kind() == RESULT_STRING; }
  bool isUTF8String() const { return kind() == RESULT_UTF8; }
  bool isNumeric() const { return kind() <= RESULT_DOUBLE; }

  // The value in its own representation; only meaningful for that representation.
  int getInt() const { return value_.i32; }
  long long getInt64() const { return value_.i64; }
  unsigned long long getUInt64() const { return value_.u64; }
  double getDouble() const { return value_.d; }
  const char* getString() const { return kind() == RESULT_STRING ? value_.text : nullptr; }
  const UTF8String* getUTF8String() const { return kind() == RESULT_UTF8 ? value_.utf8 : nullptr; }
  // The bytes of a string value of either kind; null for numbers.
  const char* getTextBytes() const;

  // Any numeric representation converted to the width asked for (doubles truncated,
  // wider integers cut as C casts cut them); 0 for strings.
  int getIntValue() const;
  long long getIntValue64() const;
  double getDoubleValue() const;

  // Replace the value and its representation.
  void setMetricValue(int value);
  void setMetricValue(long long value);
  void setMetricValue(unsigned long long value);
  void setMetricValue(double value);
  void setMetricValue(const char* value);  // copied; null becomes "No value"
  void setMetricValue(UTF8String* value);  // owned; null becomes "No value"
  // Takes the value of `other` (copying strings), keeping this metric's names.
  void setValueFrom(const ResultMetric& other);

  // Copies value, names (shared or copied as in this one) and flags. Caller deletes.
  ResultMetric* getDeepCopy() const;
  // The same value under other names (copied).
  ResultMetric* getDeepCopy(const char* name, const char* displayName) const;

  // Renders the value into *out (replacing its content): "%d", "%lld", "%llu",
  // "%15.15g", strings as they are.
  void toUTF8String(XRV::String* out) const;
  // Equal values: numbers of the same representation by value, byte strings with
  // strcmp, UTF-8 strings by their bytes, a byte string against a UTF-8 string by
  // their bytes. Any other pairing is unequal.
  bool areValuesEqual(const ResultMetric* other) const;

 private:
  ResultMetric(const Metric* metric, RESULT_VALUE_KIND kind);
  ResultMetric(const char* name, const char* displayName, RAW_METRIC_TYPE type,
               RESULT_VALUE_KIND kind, bool key = false, bool counter = false);
  void releaseValue();

  // Kept to 40 bytes (the list links, the source and the value): a sample holds one of
  // these per attribute of every row, and a table of 20,000 rows fits the processor's
  // cache or not by a few bytes per value.
  //
  // `source_` is the Metric's address, or that of a block of this value's own names,
  // with flags in its low bits (both are aligned to kSourceAlignment):
  //   bits 0-2  the representation (RESULT_VALUE_KIND)
  //   bit 3     the names are this value's own block
  //   bit 4     the value came out of the value mapping
  // The names block starts with a header (has a name, has a display name, type, key
  // and counter flags), then the names, each NUL-terminated.
  static constexpr uintptr_t kKindMask = 0x7;
  static constexpr uintptr_t kOwnsNames = 0x8;
  static constexpr uintptr_t kMapped = 0x10;
  static constexpr uintptr_t kTagMask = 0x1F;
  static constexpr size_t kSourceAlignment = kTagMask + 1;
  static_assert(alignof(Metric) >= kSourceAlignment, "Metric addresses must leave the flag bits");

  enum NamesHeader : size_t { kHasName, kHasDisplayName, kOwnType, kOwnFlags, kNamesStart };
  static constexpr uint8_t kOwnKey = 1;
  static constexpr uint8_t kOwnCounter = 2;

  RESULT_VALUE_KIND kind() const { return static_cast<RESULT_VALUE_KIND>(source_ & kKindMask); }
  void setKind(RESULT_VALUE_KIND kind) { source_ = (source_ & ~kKindMask) | kind; }
  bool ownsNames() const { return (source_ & kOwnsNames) != 0; }
  // The names block; null when it could not be allocated.
  const char* ownNames() const { return reinterpret_cast<const char*>(source_ & ~kTagMask); }
  RAW_METRIC_TYPE ownNamesType() const {
    const char* names = ownNames();
    return names == nullptr ? NUMERIC_DATA : static_cast<RAW_METRIC_TYPE>(names[kOwnType]);
  }
  // The key or counter flag, from the Metric or the own names block.
  bool flag(uint8_t which) const {
    if (ownsNames()) {
      const char* names = ownNames();
      return names != nullptr && (static_cast<uint8_t>(names[kOwnFlags]) & which) != 0;
    }
    const Metric* metric = getMetric();
    return metric != nullptr && (which == kOwnKey ? metric->getIsKey() : metric->isCounter());
  }
  // Gives `copy` (a new value, or null when it could not be made) this value.
  ResultMetric* finishCopy(ResultMetric* copy) const;
  // The numeric value as `Number`; a double goes through `fromDouble`, a text is 0.
  template <typename Number, typename FromDouble>
  Number numberAs(FromDouble fromDouble) const;
  // Stores the names, type and key and counter flags in a new block of this value's
  // own (it must have none yet); on failure the names stay null.
  void makeOwnNames(const char* name, const char* displayName, RAW_METRIC_TYPE type, bool key,
                    bool counter);

  uintptr_t source_;
  union {
    int i32;
    long long i64;
    unsigned long long u64;
    double d;
    char* text;
    UTF8String* utf8;
  } value_;
};

static_assert(sizeof(ResultMetric) == 5 * sizeof(void*),
              "a value is its list links, its source and its value, nothing more");
