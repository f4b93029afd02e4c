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
#include "provider/ValueSource.h"

class UTF8String;

namespace XRV {
class String;
}

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
  RAW_METRIC_TYPE getRawMetricType() const { return source_.type(); }
  // The Metric this value was built from; null for one built from names.
  const Metric* getMetric() const { return source_.metric(); }
  bool isKey() const { return source_.isKey(); }
  bool isCounter() const { return source_.isCounter(); }
  // The value came out of the Metric's value mapping.
  bool isMappedData() const { return source_.mapped(); }
  void setMappedData(bool mapped) { source_.setMapped(mapped); }

  RESULT_VALUE_KIND getKind() const { return source_.kind(); }
  bool isNumber() const { return source_.kind() == RESULT_INT32; }
  bool isNumber64() const { return source_.kind() == RESULT_INT64; }
  bool isNumberU64() const { return source_.kind() == RESULT_UINT64; }
  bool isNumberDouble() const { return source_.kind() == RESULT_DOUBLE; }
  bool isString() const { return source_.kind() == RESULT_STRING; }
  bool isUTF8String() const { return source_.kind() == RESULT_UTF8; }
  bool isNumeric() const { return source_.kind() <= RESULT_DOUBLE; }

  // The value in its own representation; only meaningful for that representation.
  int getInt() const { return value_.i32; }
  long long getInt64() const { return value_.i64; }
  unsigned long long getUInt64() const { return value_.u64; }
  double getDouble() const { return value_.d; }
  const char* getString() const { return isString() ? value_.text : nullptr; }
  const UTF8String* getUTF8String() const { return isUTF8String() ? value_.utf8 : nullptr; }
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

  // Gives `copy` (a new value, or null when it could not be made) this value.
  ResultMetric* finishCopy(ResultMetric* copy) const;
  // The numeric value as `Number`; a double goes through `fromDouble`, a text is 0.
  template <typename Number, typename FromDouble>
  Number numberAs(FromDouble fromDouble) const;

  // Kept to 40 bytes (the list links, the source and the value): a sample holds one of
  // these per attribute of every row, and a table of 20,000 rows fits the processor's
  // cache or not by a few bytes per value. The source holds the names, the type and
  // flags, and the representation (ValueSource.h).
  ValueSource source_;
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
