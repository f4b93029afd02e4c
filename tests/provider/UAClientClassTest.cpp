#include "provider/UAClientClass.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "definition/AttributeMeta.h"
#include "foundation/UTF8String.h"
#include "provider/UAClientClassList.h"
#include "support/FrameworkDouble.h"
#include "support/TestConfiguration.h"

// The expected row bytes below are written for a little-endian machine.
static_assert(std::endian::native == std::endian::little);

namespace {

using XRV::testing::ConfigurationFile;
using XRV::testing::FakeClock;

// The smallest provider: collects nothing.
class TestProvider : public UAClientClass {
 public:
  using UAClientClass::recordCacheHit;
  using UAClientClass::recordCollection;
  using UAClientClass::UAClientClass;

  void collectDataIfNeeded(const char* /*subnode*/) override {}
  void collectData(const char* /*subnode*/) override {}
  void clearResultSet() override {}
  void printResults() override {}
  UAClientClass* subnodeCopy(const char* subnodeKey, UAClientClassList* list) override {
    auto* copy = new TestProvider(this, subnodeKey);
    if (list != nullptr) {
      list->addClientClass(copy);
    }
    return copy;
  }
  void sendDataToAFW(GenericAgentBase* /*agent*/, const char* /*originNode*/) override {}
  std::vector<UAClientClass*> getQueryReferences() override { return {}; }
};

// Empty and invalid values of these settings are SettingsTest's.
TEST(UAClientClassTest, GroupSettingsComeFromTheGroupThenTheAgent) {
  struct Case {
    const char* description;
    const char* config;
    std::vector<int> values;  // refresh, time variation, timeout, rate/delta interval
  };
  const Case cases[] = {
      {"nothing set", "", {0, 2, 30, 0}},
      {"agent-wide values; a cache ttl of 0 becomes 1",
       "CDP_DP_CACHE_TTL = 0\nCDP_DP_RATE_DELTA_TIME_VARIATION = 5\n"
       "CDP_DP_RATE_DELTA_INTERVAL = 60\nCDP_DP_REFRESH_INTERVAL = 99\n",
       {0, 5, 1, 60}},
      {"the group's values win",
       "CDP_DP_CACHE_TTL = 10\nCDP_DISK_USAGE_CACHE_TTL = 45\n"
       "CDP_DP_RATE_DELTA_TIME_VARIATION = 5\nCDP_DISK_USAGE_RATE_DELTA_TIME_VARIATION = 7s\n"
       "CDP_DP_RATE_DELTA_INTERVAL = 60\nCDP_DISK_USAGE_RATE_DELTA_INTERVAL = 300\n"
       "CDP_DISK_USAGE_REFRESH_INTERVAL = 120\n",
       {120, 7, 45, 300}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.description);
    ConfigurationFile file;
    ASSERT_TRUE(file.load(std::string("[agent]\n") + c.config));
    TestProvider provider("XRV", "Disk_Usage", UA_SCRIPT);
    EXPECT_EQ(
        (std::vector<int>{provider.getRefreshInterval(), provider.getTimeFudge(),
                          provider.getTimeoutInterval(), provider.getDefaultRateDeltaInterval()}),
        c.values);
  }
}

TEST(UAClientClassTest, ExpiryAndTimeStampsFollowTheClock) {
  setenv("TZ", "UTC", 1);
  tzset();
  FakeClock clock(1700000000000);  // 2023-11-14 22:13:20 UTC
  TestProvider provider("XRV", "Disk", UA_SCRIPT);
  char stamp[17];
  provider.getTimeStamp(stamp);
  EXPECT_STREQ(stamp, "0000000000000001") << "never collected";
  EXPECT_TRUE(provider.isExpired());

  provider.updateLastTime();
  provider.getTimeStamp(stamp);
  EXPECT_STREQ(stamp, "1231114221320000");
  clock.advance(29999);
  EXPECT_FALSE(provider.isExpired()) << "still in the 29th second after the collection";
  clock.advance(1);
  EXPECT_TRUE(provider.isExpired()) << "exactly the timeout";

  // Expiry counts whole seconds: a collection that ended at 400 ms into a second is
  // stale when the clock turns 30 s later, so a refresh on every 30 s turn collects
  // on every turn, not every other one.
  clock.advance(400);
  provider.updateLastTime();
  clock.advance(29599);
  EXPECT_FALSE(provider.isExpired()) << "29 whole seconds";
  clock.advance(1);
  EXPECT_TRUE(provider.isExpired()) << "30 whole seconds after a collection stamped mid-second";

  provider.setOnlyForcedCollections(true);
  clock.advance(86400000);
  EXPECT_FALSE(provider.isExpired()) << "only forced collections: the data stay valid";

  struct Case {
    int64_t millis;
    const char* expected;
  };
  const Case cases[] = {
      {0, "0000000000000001"},
      {1700000000123, "1231114221320123"},
      {946684799999, "0991231235959999"},    // the last millisecond of the 1900s
      {951782400000, "1000229000000000"},    // 2000-02-29
      {-1, "0691231235959999"},              // before the epoch: the milliseconds stay positive
      {-2208988800000, "0000101000000000"},  // 1900-01-01, the smallest three-digit year
      {32503680000000, "1100010100000000"},  // 3000: four digits for the year, cut to 16
      {4102444799007, "1991231235959007"},   // 2099-12-31, milliseconds below 10
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.millis);
    UAClientClass::formatTimeStampMillis(c.millis, stamp, sizeof stamp);
    EXPECT_STREQ(stamp, c.expected);
    char shorter[9];  // a short buffer gets the beginning
    UAClientClass::formatTimeStampMillis(c.millis, shorter, sizeof shorter);
    EXPECT_EQ(std::string(shorter), std::string(c.expected).substr(0, 8));
    if (c.millis % 1000 == 0) {
      UAClientClass::formatTimeStamp(static_cast<time_t>(c.millis / 1000), stamp, sizeof stamp);
      EXPECT_STREQ(stamp, c.expected);
    }
  }
}

enum class Writer { Int64, UInt64, Int, String, ConvertString, Utf8, Fix };

// Writes `value` or `text` with `writer` into a 16-byte row at offset 4 (or offset -1);
// returns the row.
std::string writeRow(Writer writer, int type, int size, int offset, long long value,
                     const std::string& text, char fill) {
  std::string row(16, fill);
  AttributeMeta attribute("Col", nullptr, type, size, offset);
  UTF8String utf8(text.data(), text.size());
  switch (writer) {
    case Writer::Int64:
      UAClientClass::putInt64(row.data(), &attribute, value);
      break;
    case Writer::UInt64:
      UAClientClass::putUInt64(row.data(), &attribute, static_cast<unsigned long long>(value));
      break;
    case Writer::Int:
      UAClientClass::putInt(row.data(), &attribute, static_cast<int>(value));
      break;
    case Writer::String:
    case Writer::ConvertString:
      UAClientClass::putString(row.data(), &attribute, text.c_str(),
                               writer == Writer::ConvertString);
      break;
    case Writer::Utf8:
      UAClientClass::putUTF8String(row.data(), &attribute, &utf8);
      break;
    case Writer::Fix:
      memcpy(row.data() + offset, text.data(), text.size());
      UAClientClass::fixUtf8Trucation(size, row.data() + offset, '#');
      break;
  }
  return row;
}

TEST(UAClientClassTest, NumbersAreClampedAndCutToTheColumn) {
  struct Case {
    const char* description;
    Writer writer;
    int type, size;
    long long value;
    std::string column;  // the bytes at offset 4; "" when the row must stay untouched
  };
  const std::string ff8(8, '\xff');
  const Case cases[] = {
      {"2^40 into a 32-bit column", Writer::Int64, 0, 4, 1LL << 40, "\xff\xff\xff\x7f"},
      {"-2^40 into a 32-bit column", Writer::Int64, 4, 4, -(1LL << 40),
       std::string("\0\0\0\x80", 4)},
      {"2^40 into a 64-bit column", Writer::Int64, 7, 8, 1LL << 40,
       std::string("\0\0\0\0\0\x01\0\0", 8)},
      {"low two bytes into a 2-byte column", Writer::Int64, 3, 2, 0x12345678, "\x78\x56"},
      {"unsigned above the signed 64-bit range", Writer::UInt64, 7, 8,
       static_cast<long long>(0x8000000000000005ULL), ff8.substr(1) + "\x7f"},
      {"unsigned into a 32-bit column", Writer::UInt64, 5, 4, 1LL << 40, "\xff\xff\xff\x7f"},
      {"int sign-extended into type 6", Writer::Int, 6, 8, -1, ff8},
      {"int into a 2-byte column", Writer::Int, 3, 2, 0x01020304, "\x04\x03"},
      {"number refused by a text column", Writer::Int64, 1, 4, 7, ""},
      {"int refused by a 64-bit type other than 6", Writer::Int, 7, 8, 7, ""},
      {"text refused by a number column", Writer::String, 0, 4, 0, ""},
      {"UTF-8 text refused by a number column", Writer::Utf8, 4, 4, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.description);
    std::string row = writeRow(c.writer, c.type, c.size, 4, c.value, "abc", '\x5a');
    std::string expected(16, '\x5a');
    expected.replace(4, c.column.size(), c.column);
    EXPECT_EQ(row, expected);
  }
  // Nothing is written for an attribute without a place in the row.
  for (Writer writer : {Writer::Int64, Writer::UInt64, Writer::Int, Writer::String, Writer::Utf8}) {
    bool text = writer == Writer::String || writer == Writer::Utf8;
    EXPECT_EQ(writeRow(writer, text ? 1 : 0, 4, -1, 1LL << 40, "abc", '\x5a'),
              std::string(16, '\x5a'));
  }
}

TEST(UAClientClassTest, TextsArePaddedAndNeverEndInACutCharacter) {
  struct Case {
    const char* description;
    Writer writer;
    int size;
    std::string text;
    std::string column;  // the `size` bytes at offset 4
  };
  const Case cases[] = {
      {"short text, zeros stay", Writer::String, 6, "abc", std::string("abc\0\0\0", 6)},
      {"Latin-1 kept when not converting", Writer::String, 6, "\xe9t\xe9",
       std::string("\xe9t\xe9\0\0\0", 6)},
      {"ASCII converted", Writer::ConvertString, 6, "abc", std::string("abc\0\0\0", 6)},
      {"3-byte character cut, zero padded", Writer::String, 4, "ab\xe2\x82\xac",
       std::string("ab\0\0", 4)},
      {"UTF-8 padded with blanks", Writer::Utf8, 5, "ab", "ab   "},
      {"2-byte character cut", Writer::Utf8, 4, "abc\xc3\xa9", "abc "},
      {"3-byte character cut after its first two bytes", Writer::Utf8, 3, "a\xe2\x82\xac", "a  "},
      {"4-byte character cut", Writer::Utf8, 3, "\xf0\x9f\x98\x80", "   "},
      {"complete character at the very end", Writer::Utf8, 3, "a\xc3\xa9", "a\xc3\xa9"},
      {"5-byte form cut", Writer::Fix, 6, "ab\xf8\x88\x80\x80", "ab####"},
      {"stray continuation bytes after ASCII", Writer::Fix, 3, "z\x80\x80", "z\x80\x80"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.description);
    std::string row = writeRow(c.writer, 2, c.size, 4, 0, c.text, '\0');
    EXPECT_EQ(row.substr(4, static_cast<size_t>(c.size)), c.column);
    EXPECT_EQ(row.substr(4 + static_cast<size_t>(c.size)),
              std::string(12 - static_cast<size_t>(c.size), '\0'))
        << "nothing beyond the column";
  }
}

TEST(UAClientClassTest, SubnodeCopiesShareTheMetricsOfTheirSource) {
  UAClientClassList list;
  auto* base = new TestProvider("XRV", "Disk", UA_SCRIPT);
  list.addClientClass(base);
  auto* size = new Metric("Size");
  auto* rate = new Metric("Read_Rate");
  rate->setRawMetricType(RATE_DATA);
  base->addMetricObject(size);
  EXPECT_FALSE(base->doesMetricListContainRatesOrDeltas());
  base->addMetricObject(rate);
  EXPECT_TRUE(base->doesMetricListContainRatesOrDeltas());
  EXPECT_EQ(base->getMetricObject("Read_Rate"), rate);
  EXPECT_EQ(base->getMetricObject("read_rate"), nullptr) << "names compare exactly";
  base->setRefreshInterval(60);
  base->setTimeoutInterval(90);
  base->setThreadPoolEligible(false);
  base->setPureEventBased(true);
  base->updateLastTime();
  base->recordCollection(1000, 1500);

  UAClientClass* copy = base->subnodeCopy("web01", &list);
  EXPECT_STREQ(copy->getSubnodeKey(), "web01");
  EXPECT_STREQ(copy->getAttributeGroup(), "Disk");
  EXPECT_EQ(copy->getRefreshInterval(), 60);
  EXPECT_EQ(copy->getTimeoutInterval(), 90);
  EXPECT_FALSE(copy->isThreadPoolEligible());
  EXPECT_TRUE(copy->isPureEventBased());
  ASSERT_EQ(copy->getMetricCount(), 2);
  EXPECT_EQ(copy->getMetric(1), rate);
  EXPECT_EQ(copy->getLastTimeMillis(), 0);
  EXPECT_EQ(copy->getPerfstats().collections, 0);
  base->addMetricObject(new Metric("Later"));
  EXPECT_EQ(copy->getMetricCount(), 2) << "the copy's list is its own";

  copy->setZombie(true);
  UAClientClass* copyOfZombie = copy->subnodeCopy("web02", &list);
  EXPECT_FALSE(copyOfZombie->isZombie());
  EXPECT_EQ(list.getCount(), 3);
  // Copies first, then the source, which alone deletes the metrics (ASan catches a
  // double delete or a use after free).
  EXPECT_TRUE(list.removeClientClass(copy));
  delete copy;
  list.deleteAll();
  EXPECT_EQ(list.getCount(), 0);
}

TEST(UAClientClassTest, RequestFiltersAreFiledUnderTheirId) {
  TestProvider provider("XRV", "Disk", UA_SCRIPT);
  provider.setRequestInfo("r1", {{"Mount", "EQ", "/var"}});
  provider.setRequestInfo("r1", {{"Mount", "EQ", "/tmp"}, {"Used", "GT", "90"}});
  provider.setRequestInfo("r2", {});
  provider.lockOutstandingRequestHash();
  int count = provider.getOutstandingRequests()->getCount();
  const auto* stored =
      static_cast<const std::vector<FwFilter>*>(provider.getOutstandingRequests()->get("r1"));
  std::vector<FwFilter> filters = stored == nullptr ? std::vector<FwFilter>{} : *stored;
  provider.unlockOutstandingRequestHash();
  EXPECT_EQ(count, 2);
  ASSERT_EQ(filters.size(), 2u) << "the later filter replaces the earlier one";
  EXPECT_EQ(filters[0].value, "/tmp");
  provider.removeRequestInfo("r1");
  provider.removeRequestInfo("never-filed");
  provider.lockOutstandingRequestHash();
  count = provider.getOutstandingRequests()->getCount();
  provider.unlockOutstandingRequestHash();
  EXPECT_EQ(count, 1) << "only r2 is left";
  // "r2" is freed by the destructor (the leak checker would notice otherwise).
}

TEST(UAClientClassTest, PerfObjectEnumerationsAreProcessWide) {
  EXPECT_EQ(UAClientClass::isAgentPerfObjEnum("FILE_MISSING"), nullptr);
  UAClientClass::addPerfObjEnum("FILE_MISSING", "FILE_OFFLINE");
  UAClientClass::addPerfObjEnum("NO_AUTH", "ACCESS_DENIED");
  UAClientClass::addPerfObjEnum("NO_AUTH", "AUTHENTICATION_FAILED");
  EXPECT_STREQ(UAClientClass::isAgentPerfObjEnum("FILE_MISSING"), "FILE_OFFLINE");
  EXPECT_STREQ(UAClientClass::isAgentPerfObjEnum("NO_AUTH"), "AUTHENTICATION_FAILED");
  EXPECT_EQ(UAClientClass::isAgentPerfObjEnum("file_missing"), nullptr);
}

TEST(UAClientClassTest, CollectionStatistics) {
  TestProvider provider("XRV", "Disk", UA_SCRIPT);
  EXPECT_EQ(provider.getPerfstats().lastDurationMillis, -1);
  provider.recordCollection(1000, 1500);
  provider.recordCollection(2000, 2100);
  provider.recordCollection(3000, 3300);
  provider.recordCollection(5000, 4000);  // the clock was set back: no negative time
  provider.recordCacheHit();
  PerfStats stats = provider.getPerfstats();
  EXPECT_EQ(stats.collections, 4);
  EXPECT_EQ(stats.cacheHits, 1);
  EXPECT_EQ(stats.lastStartMillis, 5000);
  EXPECT_EQ(stats.lastDurationMillis, 0);
  EXPECT_EQ(stats.maxDurationMillis, 500);
  EXPECT_DOUBLE_EQ(stats.averageDurationMillis, 225.0);
}

TEST(UAClientClassTest, EveryRequestHoldsItsOwnInUseMark) {
  TestProvider provider("XRV", "Disk", UA_SCRIPT);
  provider.setGenericAgentInUse(false);  // a release without a hold changes nothing
  EXPECT_FALSE(provider.genericAgentInUse());
  provider.setGenericAgentInUse(true);
  provider.setGenericAgentInUse(true);
  provider.setGenericAgentInUse(false);
  EXPECT_TRUE(provider.genericAgentInUse()) << "the second request still holds it";
  provider.setGenericAgentInUse(false);
  EXPECT_FALSE(provider.genericAgentInUse());
  provider.setGenericAgentInUse(false);
  provider.setGenericAgentInUse(true);
  EXPECT_TRUE(provider.genericAgentInUse());
}

TEST(UAClientClassListTest, ProvidersAreChainedInOrderAndFoundByGroup) {
  UAClientClassList list;
  auto* first = new TestProvider("XRV", "Disk", UA_SCRIPT);
  auto* middle = new TestProvider("XRV", "Net", UA_SCRIPT);
  auto* second = new TestProvider("XRV", "Disk", UA_PING);
  TestProvider outsider("XRV", "Other", UA_SCRIPT);
  for (UAClientClass* provider : {first, middle, second}) {
    list.addClientClass(provider);
  }
  list.addClientClass(first);  // already in the list: not added again
  EXPECT_EQ(list.getCount(), 3);
  EXPECT_EQ(list.getClientClass("Disk"), first) << "the first one wins";
  EXPECT_EQ(list.getClientClass("disk"), nullptr);
  EXPECT_FALSE(list.removeClientClass(&outsider));

  auto order = [&list] {
    std::vector<UAClientClass*> providers;
    for (ListCursor c(list.getFirst()); c.hasMoreElements(); c.setToNext()) {
      providers.push_back(static_cast<UAClientClass*>(c.getCurrentElement()));
    }
    return providers;
  };
  EXPECT_EQ(order(), (std::vector<UAClientClass*>{first, middle, second}));
  ASSERT_TRUE(list.removeClientClass(middle));
  EXPECT_EQ(order(), (std::vector<UAClientClass*>{first, second}));
  ASSERT_TRUE(list.removeClientClass(first));
  EXPECT_EQ(list.getClientClass("Disk"), second);
  list.addClientClass(middle);
  list.addClientClass(first);
  EXPECT_EQ(order(), (std::vector<UAClientClass*>{second, middle, first}));
  EXPECT_EQ(list.getCount(), 3);
  list.deleteAll();
  EXPECT_EQ(list.getFirst(), nullptr);
}

}  // namespace
