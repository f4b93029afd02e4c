// The host's building blocks on their own: listen addresses, JSON writing, the event
// ring and the audit trail.

#include <gtest/gtest.h>
#include <poll.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/AgentApi.h"
#include "EventRows.h"
#include "host/AuditTrail.h"
#include "host/EventRing.h"
#include "host/JsonWriter.h"
#include "host/ListenAddress.h"
#include "host/MetricsExposition.h"

namespace XRV::host {
namespace {

TEST(ListenAddress, ParsesWhatOperatorsWrite) {
  struct Case {
    const char* text;
    bool ok;
    const char* host;
    int port;
  } cases[] = {
      {"127.0.0.1:9310", true, "127.0.0.1", 9310},
      {"0.0.0.0:80", true, "0.0.0.0", 80},
      {"localhost:0", true, "localhost", 0},
      {":9310", true, "127.0.0.1", 9310},  // no host: loopback, never every interface
      {"[::1]:9310", true, "::1", 9310},
      {"[::]:1", true, "::", 1},
      {"127.0.0.1", false, "", 0},
      {"127.0.0.1:", false, "", 0},
      {"127.0.0.1:65536", false, "", 0},
      {"127.0.0.1:-1", false, "", 0},
      {"127.0.0.1:80x", false, "", 0},
      {"::1:9310", false, "", 0},  // IPv6 without brackets is ambiguous
      {"[::1]9310", false, "", 0},
      {"[::1:9310", false, "", 0},
      {"[]:9310", false, "", 0},
      {"my host:80", false, "", 0},
      {"", false, "", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    ListenAddress address;
    std::string error;
    ASSERT_EQ(parseListenAddress(c.text, &address, &error), c.ok) << error;
    if (c.ok) {
      EXPECT_EQ(address.host, c.host);
      EXPECT_EQ(address.port, c.port);
    } else {
      EXPECT_NE(error.find("HOST:PORT"), std::string::npos) << error;
    }
  }
  EXPECT_EQ((ListenAddress{"::1", 80}).toString(), "[::1]:80");
  EXPECT_EQ((ListenAddress{"127.0.0.1", 80}).toString(), "127.0.0.1:80");
}

TEST(JsonWriter, WritesValidJsonWhateverTheBytes) {
  struct Case {
    std::string text;
    std::string expected;  // as nlohmann reads it back
  } cases[] = {
      {"plain", "plain"},
      {"quote \" and \\ backslash", "quote \" and \\ backslash"},
      {"line\nbreak\ttab\r", "line\nbreak\ttab\r"},
      {std::string("nul\0inside", 10), std::string("nul\0inside", 10)},
      {"\x01\x1f\x7f", "\x01\x1f\x7f"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"},
      {"cut \xc3", "cut \xef\xbf\xbd"},
      {"stray \x80 byte", "stray \xef\xbf\xbd byte"},
      {"overlong \xc0\xaf", "overlong \xef\xbf\xbd\xef\xbf\xbd"},
      {"surrogate \xed\xa0\x80", "surrogate \xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
      {"latin1 \xe9t\xe9", "latin1 \xef\xbf\xbdt\xef\xbf\xbd"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    JsonWriter json;
    json.beginObject().key(c.text).value(c.text).endObject();
    const nlohmann::json parsed = nlohmann::json::parse(json.text());
    ASSERT_EQ(parsed.size(), 1u);
    EXPECT_EQ(parsed.begin().key(), c.expected);
    EXPECT_EQ(parsed.begin().value(), c.expected);
  }
}

TEST(JsonWriter, PlacesCommasInNestedContainers) {
  JsonWriter json;
  json.beginObject().key("a").beginArray();
  json.value(int64_t{-9223372036854775807LL - 1}).value(uint64_t{18446744073709551615ULL});
  json.value(true).null().beginObject().endObject().beginArray().endArray();
  json.endArray().key("b").raw(R"({"x":1})").key("c").value("d").endObject();
  EXPECT_EQ(
      json.text(),
      R"({"a":[-9223372036854775808,18446744073709551615,true,null,{},[]],"b":{"x":1},"c":"d"})");
  EXPECT_TRUE(nlohmann::json::accept(json.text()));
}

// Adds an event of group `name` (one of A, B, G) whose text is `text`.
uint64_t add(EventRing& ring, const char* name, const std::string& text = "") {
  static const CatalogGroup groups[] = {testing::textGroup("A"), testing::textGroup("B"),
                                        testing::textGroup("G")};
  const CatalogGroup& group = groups[name[0] == 'A' ? 0 : name[0] == 'B' ? 1 : 2];
  const std::string row = testing::packTextRow(group, "main:XR", text);
  return ring.add(group, 1746100800123, row.data(), row.size(), false);
}

std::vector<uint64_t> seqs(const EventPage& page) {
  std::vector<uint64_t> result;
  for (const StoredEvent& stored : page.events) {
    result.push_back(stored.seq);
  }
  return result;
}

TEST(EventRing, KeepsTheNewestAndCountsWhatWasDropped) {
  EventRing ring(3);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(add(ring, i % 2 == 0 ? "A" : "B"), static_cast<uint64_t>(i + 1));
  }
  struct Case {
    uint64_t since;
    const char* group;
    size_t limit;
    std::vector<uint64_t> expected;
    uint64_t next;
    uint64_t dropped;
  } cases[] = {
      {0, "", 100, {3, 4, 5}, 6, 2},  // from the first ever: 1 and 2 are gone
      {1, "", 100, {3, 4, 5}, 6, 2}, {2, "", 100, {3, 4, 5}, 6, 1},
      {3, "", 100, {3, 4, 5}, 6, 0}, {5, "", 100, {5}, 6, 0},
      {6, "", 100, {}, 6, 0},   // nothing new yet
      {60, "", 100, {}, 6, 0},  // ahead of the ring: start again from the newest
      {0, "A", 100, {3, 5}, 6, 2},   {0, "B", 100, {4}, 6, 2},
      {0, "", 2, {3, 4}, 5, 2},  // a full page continues where it stopped
      {0, "A", 1, {3}, 5, 2},    // ... at the next event of the group
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message()
                 << "since " << c.since << " group " << c.group << " limit " << c.limit);
    const EventPage page = ring.read(c.since, c.group, c.limit);
    EXPECT_EQ(seqs(page), c.expected);
    EXPECT_EQ(page.next, c.next);
    EXPECT_EQ(page.dropped, c.dropped);
  }
}

// Rows go in packed and come out as the JSON of their columns: padding gone, numbers
// signed, bytes that are not UTF-8 replaced; a row that does not fit is not filed.
TEST(EventRing, GivesBackTheRowsItWasGiven) {
  CatalogGroup group = testing::textGroup("Mixed", 16);
  group.columns.push_back({"Count", 0, 4, group.rowSize});
  group.columns.push_back({"Bytes", 6, 8, group.rowSize + 4});
  group.rowSize += 12;
  auto pack = [&group](const std::string& text, int32_t count, int64_t bytes) {
    std::string row = testing::packTextRow(group, "web1:XR", text);
    memcpy(row.data() + group.rowSize - 12, &count, sizeof count);
    memcpy(row.data() + group.rowSize - 8, &bytes, sizeof bytes);
    return row;
  };
  struct Case {
    std::string row;
    const char* json;  // null: refused
  } cases[] = {
      {pack("GET /", 3, 5000000000), R"({"ORIGINNODE":"web1:XR","Text":"GET /","Count":3,"Bytes":5000000000})"},
      {pack("", -1, -2), R"({"ORIGINNODE":"web1:XR","Text":"","Count":-1,"Bytes":-2})"},
      {pack("exactly sixteen!", 0, 0), R"({"ORIGINNODE":"web1:XR","Text":"exactly sixteen!","Count":0,"Bytes":0})"},
      {pack("a\xff b  ", 0, 0), R"({"ORIGINNODE":"web1:XR","Text":"a\ufffd b","Count":0,"Bytes":0})"},
      {pack("x", 0, 0).substr(0, 20), nullptr},
  };
  EventRing ring(10);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json == nullptr ? "refused" : c.json);
    const uint64_t seq = ring.add(group, 1746100800123, c.row.data(), c.row.size(), true);
    if (c.json == nullptr) {
      EXPECT_EQ(seq, 0u);
      continue;
    }
    ASSERT_NE(seq, 0u);
    const EventPage page = ring.read(seq, "", 1);
    ASSERT_EQ(page.events.size(), 1u);
    const StoredEvent& event = page.events.front();
    EXPECT_EQ(nlohmann::json::parse(event.rowJson), nlohmann::json::parse(c.json));
    EXPECT_EQ(event.node, "web1:XR");
    EXPECT_EQ(event.group, "Mixed");
    EXPECT_EQ(event.timeMillis, 1746100800123);
    EXPECT_TRUE(event.continuation);
  }
  EXPECT_EQ(ring.read(0, "", 100).events.size(), 4u);
}

TEST(EventRing, ReadersAndWritersAtOnce) {
  EventRing ring(64);
  std::vector<std::thread> writers;
  for (int w = 0; w < 4; ++w) {
    writers.emplace_back([&ring] {
      for (int i = 0; i < 2000; ++i) {
        add(ring, "G", "v");
      }
    });
  }
  uint64_t since = 0;
  uint64_t seen = 0;
  uint64_t dropped = 0;
  while (seen + dropped < 8000) {
    const EventPage page = ring.read(since, "", 1000);
    uint64_t expected = since == 0 ? page.dropped + 1 : since + page.dropped;
    for (const StoredEvent& stored : page.events) {
      ASSERT_EQ(stored.seq, expected++);  // no gap that dropped does not account for
    }
    seen += page.events.size();
    dropped += page.dropped;
    since = page.next;
  }
  for (std::thread& writer : writers) {
    writer.join();
  }
  EXPECT_EQ(seen + dropped, 8000u);
}

TEST(EventRing, AWaiterIsSignalledOfEveryAddHoweverTheyInterleave) {
  EventRing ring(1000);
  ASSERT_GE(ring.addedFd(), 0);
  constexpr uint64_t kEvents = 200000;
  std::thread writer([&ring] {
    for (uint64_t i = 0; i < kEvents; ++i) {
      add(ring, "G");
    }
  });
  // Waits as an event stream does: for the signal, then a look at the ring. A
  // signal lost between two adds leaves it waiting although events are there.
  uint64_t next = 1;
  while (next <= kEvents) {
    pollfd wait{ring.addedFd(), POLLIN, 0};
    if (poll(&wait, 1, 2000) <= 0) {
      break;
    }
    ring.takeAddedSignal();
    next = ring.read(next, "G", 1000).next;
  }
  writer.join();
  EXPECT_EQ(next, kEvents + 1) << "a waiter missed the last adds";
  ring.takeAddedSignal();
  pollfd wait{ring.addedFd(), POLLIN, 0};
  EXPECT_EQ(poll(&wait, 1, 0), 0);
  add(ring, "G");
  EXPECT_EQ(poll(&wait, 1, 0), 1);
  EXPECT_EQ(ring.oldestHeld(), kEvents + 1 - 1000 + 1);
}

FwAuditRecord record(const char* text) {
  return FwAuditRecord{"QBXAgent", text, "Start-up", "Start", "XRV9000I",
                       "product",  36,   6000,       "XRV"};
}

TEST(AuditTrail, KeepsTheNewestRecordsInOrder) {
  AuditTrail trail;
  const std::string longText(1000, 'x');
  trail.add(record(longText.c_str()));
  std::vector<AuditEntry> entries = trail.entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].seq, 1u);
  EXPECT_EQ(entries[0].component, "QBXAgent");
  EXPECT_EQ(entries[0].text, std::string(255, 'x'));  // cut to its field
  EXPECT_EQ(entries[0].messageId, "XRV9000I");
  EXPECT_EQ(entries[0].recordClass, 36);
  EXPECT_EQ(entries[0].recordCode, 6000);
  EXPECT_GT(entries[0].timeMillis, 0);

  for (size_t i = 2; i <= AuditTrail::kSlots + 10; ++i) {
    trail.add(record(std::to_string(i).c_str()));
  }
  entries = trail.entries();
  ASSERT_EQ(entries.size(), AuditTrail::kSlots);
  EXPECT_EQ(entries.front().seq, 11u);
  EXPECT_EQ(entries.front().text, "11");
  EXPECT_EQ(entries.back().seq, AuditTrail::kSlots + 10);

  trail.add(FwAuditRecord{nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr});
  EXPECT_EQ(trail.entries().back().text, "") << "null texts are empty";
}

TEST(HostFormats, TimesAndMetricNames) {
  EXPECT_EQ(isoTimeUtc(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(isoTimeUtc(1700000000123), "2023-11-14T22:13:20.123Z");
  EXPECT_EQ(metricName("Disk_Usage"), "Disk_Usage");
  EXPECT_EQ(metricName("9lives-per.cat"), "_lives_per_cat");
  EXPECT_EQ(metricName(""), "_");
}

}  // namespace
}  // namespace XRV::host
