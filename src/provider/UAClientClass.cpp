#include "provider/UAClientClass.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "definition/AttributeMeta.h"
#include "foundation/String.h"
#include "foundation/UTF8String.h"
#include "foundation/Utilities.h"
#include "framework/FwClock.h"
#include "framework/Settings.h"
#include "framework/Trace.h"

// The group's settings (refresh interval, cache time-to-live, rate/delta interval and
// time variation) are read once, when the provider is made; docs/settings.md lists them.

namespace {

constexpr const char kNoTimeStamp[] = "0000000000000001";

// Copies the `size` low-order bytes of `value` (at most all of its bytes) to `target`,
// in the machine's byte order.
template <typename T>
void copyLowBytes(char* target, T value, int size) {
  if (size <= 0) {
    return;
  }
  size_t count = std::min(static_cast<size_t>(size), sizeof value);
  const char* bytes = reinterpret_cast<const char*>(&value);
  if constexpr (std::endian::native == std::endian::big) {
    bytes += sizeof value - count;
  }
  memcpy(target, bytes, count);
}

// Where `attribute`'s value goes in `row`; null when it has no place there.
char* columnOf(char* row, const AttributeMeta* attribute) {
  if (row == nullptr || attribute == nullptr || attribute->getOffset() < 0) {
    return nullptr;
  }
  return row + attribute->getOffset();
}

// Where `attribute`'s text goes in `row`; null when it has no place there or is not
// of a text type (which is traced).
char* textColumnOf(char* row, const AttributeMeta* attribute) {
  XRV_TRACE_SITE();
  char* column = columnOf(row, attribute);
  if (column != nullptr && !isTextAttributeType(attribute->getType())) {
    XRV_TRACE_ERROR("ERROR: Attribute is not of string type '%s' (%d)\n", attribute->getName(),
                    attribute->getType());
    return nullptr;
  }
  return column;
}

// Status texts of the data sources and the error codes they stand for. Filled while
// the definition is read; the map is created by the first entry.
class PerfObjEnumTable {
 public:
  PerfObjEnumTable() = default;
  ~PerfObjEnumTable() {
    LockObjectGuard guard(lock_);
    if (map_ != nullptr) {
      map_->foreach (hashMapFreeKeyData, nullptr);
      delete map_;
      map_ = nullptr;
    }
  }
  PerfObjEnumTable(const PerfObjEnumTable&) = delete;
  PerfObjEnumTable& operator=(const PerfObjEnumTable&) = delete;

  void add(const char* enumText, const char* errorCode) {
    char* code = strdup(errorCode);
    LockObjectGuard guard(lock_);
    if (map_ == nullptr) {
      map_ = new HashMap();
    }
    if (map_->contains(enumText)) {
      free(map_->get(enumText));
      map_->put(enumText, code);
    } else {
      map_->put(strdup(enumText), code);
    }
  }

  // The error code of `enumText`; *tableExists tells whether anything was filed yet.
  const char* find(const char* enumText, bool* tableExists) {
    LockObjectGuard guard(lock_);
    *tableExists = map_ != nullptr;
    return map_ == nullptr ? nullptr : static_cast<const char*>(map_->get(enumText));
  }

 private:
  LockObject lock_;
  HashMap* map_ XRV_GUARDED_BY(lock_) = nullptr;  // owned keys and values
};

PerfObjEnumTable& perfObjEnums() {
  static PerfObjEnumTable table;
  return table;
}

// foreach callback for the outstanding-request hash: frees the id and its filters.
void freeRequestInfo(const char* key, const void* value, void* /*arg*/) {
  free(const_cast<char*>(key));
  delete static_cast<const std::vector<FwFilter>*>(value);
}

// localtime_r takes a lock and reads the time zone; the rows of one second share one
// call per thread.
bool localTimeOf(time_t when, struct tm* out) {
  thread_local bool cached = false;
  thread_local time_t cachedSecond = 0;
  thread_local struct tm cachedLocal {};
  if (!cached || when != cachedSecond) {
    if (localtime_r(&when, &cachedLocal) == nullptr) {
      cached = false;
      return false;
    }
    cached = true;
    cachedSecond = when;
  }
  *out = cachedLocal;
  return true;
}

}  // namespace

UAClientClass::UAClientClass(const char* applicationName, const char* attributeGroup,
                             int objectType)
    : applicationName_(strdup(applicationName == nullptr ? "" : applicationName)),
      attributeGroup_(strdup(attributeGroup == nullptr ? "" : attributeGroup)),
      objectType_(objectType) {
  XRV_TRACE_FN();
  readSettings();
}

UAClientClass::UAClientClass(const UAClientClass* source, const char* subnodeKey)
    : applicationName_(strdup(source->applicationName_)),
      attributeGroup_(strdup(source->attributeGroup_)),
      objectType_(source->objectType_),
      threadPoolEligible_(source->threadPoolEligible_.load()),
      timeoutInterval_(source->timeoutInterval_),
      pureEventBased_(source->pureEventBased_.load()),
      onlyForcedCollections_(source->onlyForcedCollections_),
      subnodeKey_(subnodeKey == nullptr ? nullptr : strdup(subnodeKey)),
      refreshInterval_(source->refreshInterval_.load()),
      rateDeltaTimeVariation_(source->rateDeltaTimeVariation_),
      defaultRateDeltaInterval_(source->defaultRateDeltaInterval_),
      metrics_(&source->metrics_),
      ownsMetrics_(false),
      meta_(source->meta_) {
  XRV_TRACE_FN();
  if (source->isZombie()) {
    XRV_TRACE_ERROR("WARNING: Copying zombie object: %s/%s/%s", applicationName_, attributeGroup_,
                    source->subnodeKey_ == nullptr ? "" : source->subnodeKey_);
  }
}

UAClientClass::~UAClientClass() {
  XRV_TRACE_FN();
  if (ownsMetrics_) {
    while (metrics_.getCount() > 0) {
      delete static_cast<Metric*>(metrics_.pop());
    }
  } else {
    XRV_TRACE_DETAIL("We're a subnode");
  }
  {
    LockObjectGuard guard(requestLock_);
    outstandingRequests_.foreach (freeRequestInfo, nullptr);
    outstandingRequests_.clear();
  }
  free(applicationName_);
  free(attributeGroup_);
  free(subnodeKey_);
}

void UAClientClass::readSettings() {
  XRV_TRACE_FN();
  const XRV::SettingContext here = XRV_SETTING_HERE().forGroup(attributeGroup_);
  const XRV::SettingRead refresh = XRV::readSetting(XRV::Setting::GroupRefreshInterval, here);
  if (refresh.set) {
    refreshInterval_.store(static_cast<int>(refresh.number));
  }
  rateDeltaTimeVariation_ =
      static_cast<int>(XRV::settingNumber(XRV::Setting::GroupRateDeltaTimeVariation, here));
  timeoutInterval_ = static_cast<int>(XRV::settingNumber(XRV::Setting::GroupCacheTtl, here));
  defaultRateDeltaInterval_ =
      static_cast<int>(XRV::settingNumber(XRV::Setting::GroupRateDeltaInterval, here));
}

void UAClientClass::start() {
  XRV_TRACE_FN();
  // The base has nothing to prepare: its settings were read when it was made. Data
  // sources that open files or connections override this.
}

void UAClientClass::shutdownExternalProcesses() {
  XRV_TRACE_FN();
  // The base starts no processes; data sources that do override this.
}

void UAClientClass::visitRows(const std::function<void(const ResultInstance& row)>& /*visit*/) {
  // The base holds no rows.
}

void UAClientClass::setGenericAgentInUse(bool inUse) {
  if (inUse) {
    genericAgentInUse_.fetch_add(1);
    return;
  }
  int held = genericAgentInUse_.load();
  while (held > 0 && !genericAgentInUse_.compare_exchange_weak(held, held - 1)) {
  }
}

void UAClientClass::setPureEventBased(bool pure) {
  XRV_TRACE_FN();
  pureEventBased_.store(pure);
  if (pure) {
    XRV_TRACE_DETAIL("Attribute group is pure event based.");
  }
}

// --- Requests ---

void UAClientClass::setRequestInfo(const char* id, const std::vector<FwFilter>& filters) {
  XRV_TRACE_FN();
  if (id == nullptr) {
    return;
  }
  for (const FwFilter& filter : filters) {
    XRV_TRACE_DETAIL("id=%s name=%s, value=%s", id, filter.name.c_str(), filter.value.c_str());
  }
  auto* copy = new std::vector<FwFilter>(filters);
  char* key = strdup(id);
  LockObjectGuard guard(requestLock_);
  const char* storedKey = nullptr;
  delete static_cast<std::vector<FwFilter>*>(outstandingRequests_.remove(id, &storedKey));
  free(const_cast<char*>(storedKey));
  outstandingRequests_.put(key, copy);
}

void UAClientClass::removeRequestInfo(const char* id) {
  XRV_TRACE_FN();
  if (id == nullptr) {
    return;
  }
  LockObjectGuard guard(requestLock_);
  const char* storedKey = nullptr;
  delete static_cast<std::vector<FwFilter>*>(outstandingRequests_.remove(id, &storedKey));
  free(const_cast<char*>(storedKey));
}

// --- Metrics ---

void UAClientClass::addMetricObject(Metric* metric) {
  XRV_TRACE_FN();
  if (metric == nullptr) {
    return;
  }
  // Metrics are also chained, in the same order, for walking them with a ListCursor.
  if (metrics_.getCount() > 0) {
    Metric* last = getMetric(metrics_.getCount() - 1);
    last->setNextElement(metric);
    metric->setPrevElement(last);
  }
  metrics_.add(metric);
}

Metric* UAClientClass::getMetricObject(const char* name) const {
  XRV_TRACE_FN();
  if (name == nullptr) {
    return nullptr;
  }
  for (int i = 0; i < metrics_.getCount(); ++i) {
    Metric* metric = getMetric(i);
    const char* metricName = metric->getMetricName();
    XRV_TRACE_DETAIL("Checking %s against %s", name, metricName == nullptr ? "" : metricName);
    if (metricName != nullptr && strcmp(metricName, name) == 0) {
      return metric;
    }
  }
  return nullptr;
}

bool UAClientClass::doesMetricListContainRatesOrDeltas() const {
  XRV_TRACE_FN();
  return countRateOrDeltaMetrics() > 0;
}

int UAClientClass::countRateOrDeltaMetrics() const {
  int count = 0;
  for (int i = 0; i < metrics_.getCount(); ++i) {
    count += isRateOrDeltaType(getMetric(i)->getRawMetricType()) ? 1 : 0;
  }
  return count;
}

// --- Time ---

void UAClientClass::updateLastTime() {
  XRV_TRACE_FN();
  PthreadMutexLock lock(collectionMutex_);
  lastMillis_ = fwTimeMillis();
}

void UAClientClass::updateStartTime() {
  XRV_TRACE_FN();
  PthreadMutexLock lock(collectionMutex_);
  startMillis_ = fwTimeMillis();
}

int64_t UAClientClass::getLastTimeMillis() {
  PthreadMutexLock lock(collectionMutex_);
  return lastMillis_;
}

int64_t UAClientClass::getStartTimeMillis() {
  PthreadMutexLock lock(collectionMutex_);
  return startMillis_;
}

void UAClientClass::getTimeStamp(char* buffer) {
  XRV_TRACE_FN();
  formatTimeStampMillis(getLastTimeMillis(), buffer, 17);
}

bool UAClientClass::isExpired() {
  XRV_TRACE_FN();
  if (onlyForcedCollections_) {
    XRV_TRACE_DETAIL("  onlyForcedCollections set, declaring the data valid");
    return false;
  }
  // Whole seconds, as the cache lifetime is given: data stamped at 30.4 s are stale
  // at 60.0 s with a lifetime of 30, so a refresh interval equal to the lifetime
  // collects on every turn rather than on every other one.
  const int64_t now = fwTimeMillis() / 1000;
  PthreadMutexLock lock(collectionMutex_);
  return now - lastMillis_ / 1000 >= static_cast<int64_t>(timeoutInterval_);
}

void UAClientClass::formatTimeStamp(time_t seconds, char* buffer, size_t size) {
  XRV_TRACE_FN();
  formatTimeStampMillis(static_cast<int64_t>(seconds) * 1000, buffer, size);
}

void UAClientClass::formatTimeStampMillis(int64_t millis, char* buffer, size_t size) {
  XRV_TRACE_FN();
  if (buffer == nullptr || size == 0) {
    return;
  }
  // Events come many to a millisecond: the text of the last one is kept per thread.
  thread_local int64_t lastMillis = 0;
  thread_local char lastText[17];
  if (millis != 0 && millis == lastMillis && size >= sizeof lastText) {
    memcpy(buffer, lastText, sizeof lastText);
    return;
  }
  // Floor division, so that a time before the epoch keeps its milliseconds positive.
  int64_t seconds = millis / 1000;
  int64_t milliseconds = millis % 1000;
  if (milliseconds < 0) {
    seconds -= 1;
    milliseconds += 1000;
  }
  time_t when = static_cast<time_t>(seconds);
  struct tm local {};
  if (millis == 0 || !localTimeOf(when, &local)) {
    snprintf(buffer, size, "%s", kNoTimeStamp);
    return;
  }
  // Every event row is stamped, some twice: written by hand rather than by snprintf,
  // which cost a fifth of an event's way to the framework. The same text.
  if (size >= 17 && local.tm_year >= 0 && local.tm_year <= 999) {
    char* out = buffer;
    const auto put = [&out](int value, int digits) {
      for (int i = digits - 1; i >= 0; --i) {
        out[i] = static_cast<char>('0' + value % 10);
        value /= 10;
      }
      out += digits;
    };
    put(local.tm_year, 3);
    put(local.tm_mon + 1, 2);
    put(local.tm_mday, 2);
    put(local.tm_hour, 2);
    put(local.tm_min, 2);
    put(local.tm_sec, 2);
    put(static_cast<int>(milliseconds), 3);
    *out = '\0';
    lastMillis = millis;
    memcpy(lastText, buffer, sizeof lastText);
    return;
  }
  snprintf(buffer, size, "%03d%02d%02d%02d%02d%02d%03d", local.tm_year, local.tm_mon + 1,
           local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<int>(milliseconds));
}

// --- Statistics ---

PerfStats UAClientClass::getPerfstats() {
  PthreadMutexLock lock(statsMutex_);
  return stats_;
}

void UAClientClass::recordCollection(int64_t startMillis, int64_t endMillis) {
  XRV_TRACE_FN();
  // A wall clock set back during the collection must not make it take negative time.
  int64_t duration = std::max<int64_t>(endMillis - startMillis, 0);
  PthreadMutexLock lock(statsMutex_);
  int earlier = static_cast<int>(std::min<int64_t>(stats_.collections, INT_MAX));
  stats_.averageDurationMillis = Utilities::calculateAverage(
      stats_.averageDurationMillis, static_cast<double>(duration), earlier);
  stats_.collections += 1;
  stats_.lastStartMillis = startMillis;
  stats_.lastDurationMillis = duration;
  stats_.maxDurationMillis = std::max(stats_.maxDurationMillis, duration);
}

bool UAClientClass::useCurrentCache() {
  if (isOnQueue() || isExpired()) {
    return false;
  }
  recordCacheHit();
  return true;
}

void UAClientClass::recordCacheHit() {
  PthreadMutexLock lock(statsMutex_);
  stats_.cacheHits += 1;
}

// --- Writing values into a framework row ---
//
// These run once for every value of every row: they trace nothing on the way in and
// out, and they never allocate (the UTF-8 conversion reuses a per-thread buffer).

void UAClientClass::putInt64(char* row, const AttributeMeta* attribute, long long value) {
  XRV_TRACE_SITE();
  char* column = columnOf(row, attribute);
  if (column == nullptr) {
    return;
  }
  int type = attribute->getType();
  if (!isNumericAttributeType(type)) {
    XRV_TRACE_ERROR("ERROR: Attribute is not of a numeric type '%s' (%d)\n", attribute->getName(),
                    type);
    return;
  }
  if (is64BitAttributeType(type)) {
    copyLowBytes(column, static_cast<int64_t>(value), attribute->getSize());
    return;
  }
  if (value > INT32_MAX) {
    XRV_TRACE_DETAIL("Metric %s value %lld exceeds maximum for an integer", attribute->getName(),
                     value);
    value = INT32_MAX;
  } else if (value < INT32_MIN) {
    XRV_TRACE_DETAIL("Metric %s value %lld exceeds minimum for an integer", attribute->getName(),
                     value);
    value = INT32_MIN;
  }
  copyLowBytes(column, static_cast<int32_t>(value), attribute->getSize());
}

void UAClientClass::putUInt64(char* row, const AttributeMeta* attribute, unsigned long long value) {
  XRV_TRACE_SITE();
  if (columnOf(row, attribute) == nullptr) {
    return;
  }
  if (value > static_cast<unsigned long long>(INT64_MAX)) {
    XRV_TRACE_DETAIL("Metric %s value %llu exceeds maximum for a signed 64 bit value",
                     attribute->getName(), value);
    value = static_cast<unsigned long long>(INT64_MAX);
  }
  putInt64(row, attribute, static_cast<long long>(value));
}

void UAClientClass::putInt(char* row, const AttributeMeta* attribute, int value) {
  XRV_TRACE_SITE();
  char* column = columnOf(row, attribute);
  if (column == nullptr) {
    return;
  }
  int type = attribute->getType();
  if (type == 6) {
    copyLowBytes(column, static_cast<int64_t>(value), attribute->getSize());
  } else if (type == 0 || (type >= 3 && type <= 5)) {
    copyLowBytes(column, static_cast<int32_t>(value), attribute->getSize());
  } else {
    XRV_TRACE_ERROR("ERROR: Attribute is not of 32-bit integer type '%s' (%d)\n",
                    attribute->getName(), type);
  }
}

void UAClientClass::putString(char* row, const AttributeMeta* attribute, const char* text,
                              bool convert) {
  XRV_TRACE_SITE();
  char* column = textColumnOf(row, attribute);
  if (column == nullptr) {
    return;
  }
  if (text == nullptr) {
    return;
  }
  const char* bytes = text;
  size_t length = strlen(text);
  if (convert) {
    XRV_TRACE_DETAIL("Converting a value to UTF-8");
    thread_local XRV::String scratch;
    // On failure the column stays empty rather than holding text that is not UTF-8.
    Utilities::nativeToUTF8(text, length, &scratch);
    bytes = scratch.c_str();
    length = scratch.length();
  } else {
    XRV_TRACE_DETAIL("NOT Converting a value to UTF-8");
  }
  int size = attribute->getSize();
  if (size <= 0) {
    return;
  }
  size_t count = std::min(length, static_cast<size_t>(size));
  memcpy(column, bytes, count);
  if (count == static_cast<size_t>(size)) {
    XRV_TRACE_DETAIL(
        "The value for a UTF-8 string fills the total length allowed - checking for bad "
        "truncation");
    fixUtf8Trucation(size, column, '\0');
  }
}

void UAClientClass::putUTF8String(char* row, const AttributeMeta* attribute,
                                  const UTF8String* text) {
  XRV_TRACE_SITE();
  char* column = textColumnOf(row, attribute);
  if (column == nullptr) {
    return;
  }
  int size = attribute->getSize();
  if (size <= 0) {
    return;
  }
  size_t length = text == nullptr ? 0 : text->length();
  size_t count = std::min(length, static_cast<size_t>(size));
  if (count > 0) {
    memcpy(column, text->getBytes(), count);
  }
  memset(column + count, ' ', static_cast<size_t>(size) - count);
  if (count == static_cast<size_t>(size)) {
    XRV_TRACE_DETAIL(
        "The value for a UTF-8 string fills the total length allowed - checking for bad "
        "truncation");
    fixUtf8Trucation(size, column, ' ');
  }
}

void UAClientClass::fixUtf8Trucation(int length, char* buffer, char pad) {
  XRV_TRACE_SITE();
  if (buffer == nullptr || length <= 0) {
    return;
  }
  const auto* bytes = reinterpret_cast<const unsigned char*>(buffer);
  int lead = length - 1;
  while (lead >= 0 && (bytes[lead] & 0xC0) == 0x80) {
    --lead;
  }
  if (lead < 0 || (bytes[lead] & 0xC0) != 0xC0) {
    return;  // ends in ASCII (or in continuation bytes without a lead byte)
  }
  unsigned char first = bytes[lead];
  int characterLength = 1;  // 0xFE and 0xFF start no character
  if ((first & 0xE0) == 0xC0) {
    characterLength = 2;
  } else if ((first & 0xF0) == 0xE0) {
    characterLength = 3;
  } else if ((first & 0xF8) == 0xF0) {
    characterLength = 4;
  } else if ((first & 0xFC) == 0xF8) {
    characterLength = 5;
  } else if ((first & 0xFE) == 0xFC) {
    characterLength = 6;
  }
  if (lead + characterLength > length) {
    XRV_TRACE_DETAIL("Character of %d bytes cut off at byte %d of %d, replaced by padding",
                     characterLength, lead, length);
    memset(buffer + lead, pad, static_cast<size_t>(length - lead));
  }
}

int UAClientClass::sendRowToAFW(GenericAgentBase* agent, const char* row, int length) {
  XRV_TRACE_FN();
  return ::sendRowToAFW(agent, row, length);
}

// --- Status texts ---

void UAClientClass::addPerfObjEnum(const char* enumText, const char* errorCode) {
  XRV_TRACE_FN();
  if (enumText == nullptr || errorCode == nullptr) {
    return;
  }
  XRV_TRACE_DETAIL("Adding perf obj enum - enum=%s, error_code=%s.", enumText, errorCode);
  perfObjEnums().add(enumText, errorCode);
}

const char* UAClientClass::isAgentPerfObjEnum(const char* enumText) {
  XRV_TRACE_FN();
  if (enumText == nullptr) {
    return nullptr;
  }
  bool tableExists = false;
  const char* errorCode = perfObjEnums().find(enumText, &tableExists);
  if (!tableExists) {
    XRV_TRACE_DETAIL("no perf obj enum hashtable. Can't look up  %s.", enumText);
  }
  return errorCode;
}
