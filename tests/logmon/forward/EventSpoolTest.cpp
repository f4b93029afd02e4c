// The record framing, stream names and the spool on its own: numbering across
// reopenings, deletion of acknowledged segments, the size limit, torn records and
// renumbering.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "logmon/forward/EventForwarderConfig.h"
#include "logmon/forward/EventRecord.h"
#include "logmon/forward/EventSpool.h"
#include "support/TempDirectory.h"

namespace XRV::forward {
namespace {

using testing::TempDirectory;

TEST(EventRecord, ParsesWholeRecordsAndTellsCutFromBroken) {
  struct Case {
    std::string data;
    RecordParse expected;
    uint64_t seq = 0;
    size_t total = 0;
  };
  const Case cases[] = {
      {"7 3\nabc\n", RecordParse::COMPLETE, 7, 8},
      {"7 3\nabc\nmore", RecordParse::COMPLETE, 7, 8},
      {"12 0\n\n", RecordParse::COMPLETE, 12, 6},
      {"1 3\na\nb\n", RecordParse::COMPLETE, 1, 8},  // the bytes may hold newlines
      {"18446744073709551615 1\nx\n", RecordParse::COMPLETE, UINT64_MAX, 25},
      {"", RecordParse::NEED_MORE},
      {"7", RecordParse::NEED_MORE},
      {"7 3", RecordParse::NEED_MORE},
      {"7 3\nab", RecordParse::NEED_MORE},
      {"7 3\nabc", RecordParse::NEED_MORE},
      {"7 3\nabcd", RecordParse::INVALID},  // no newline after the bytes
      {"07 3\nabc\n", RecordParse::INVALID},
      {"-7 3\nabc\n", RecordParse::INVALID},
      {"7  3\nabc\n", RecordParse::INVALID},
      {" 7 3\nabc\n", RecordParse::INVALID},
      {"7 x\nabc\n", RecordParse::INVALID},
      {"18446744073709551616 1\nx\n", RecordParse::INVALID},  // past 64 bits
      {"123456789012345678901 1\n", RecordParse::INVALID},
  };
  for (const Case& c : cases) {
    uint64_t seq = 0;
    uint64_t length = 0;
    size_t total = 0;
    EXPECT_EQ(parseRecord(c.data.data(), c.data.size(), &seq, &length, &total), c.expected)
        << c.data;
    if (c.expected == RecordParse::COMPLETE) {
      EXPECT_EQ(seq, c.seq) << c.data;
      EXPECT_EQ(total, c.total) << c.data;
    }
  }
  char header[MAX_RECORD_HEADER];
  const size_t size = formatRecordHeader(header, UINT64_MAX, UINT64_MAX);
  EXPECT_EQ(std::string(header, size), "18446744073709551615 18446744073709551615\n");
}

TEST(EventStream, NamesKeepOnlyTheSafeCharacters) {
  const std::pair<std::string, std::string> cases[] = {
      {"host1:LogGroup:sub-1.a_b", "host1:LogGroup:sub-1.a_b"},
      {"web server/app log", "web_server_app_log"},
      {"../../etc", ".._.._etc"},
      {"h\xc3\xa9te", "h__te"},
      {"", "events"},
      {std::string(300, 'a'), std::string(MAX_STREAM_NAME, 'a')},
  };
  for (const auto& [name, expected] : cases) {
    EXPECT_EQ(sanitiseStreamName(name), expected) << name;
  }
}

std::vector<std::string> segmentFiles(const TempDirectory& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
    if (entry.path().extension() == ".seg") {
      names.push_back(entry.path().filename());
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Every event the spool holds, read back as the sender reads them.
std::vector<std::pair<uint64_t, std::string>> spooled(EventSpool& spool) {
  std::vector<std::pair<uint64_t, std::string>> events;
  SpoolReader reader;
  SpoolSegment segment;
  for (uint64_t seq = spool.firstSeq(); spool.locate(seq, &segment);) {
    std::string out;
    std::string error;
    uint64_t next = 0;
    EXPECT_GE(reader.read(spool.segmentPath(segment.firstSeq), segment, seq, "", 1 << 20, &out,
                          &next, &error),
              0)
        << error;
    for (size_t at = 0; at < out.size();) {
      uint64_t recordSeq = 0;
      uint64_t length = 0;
      size_t total = 0;
      EXPECT_EQ(parseRecord(out.data() + at, out.size() - at, &recordSeq, &length, &total),
                RecordParse::COMPLETE);
      events.emplace_back(recordSeq, out.substr(at + total - length - 1, length));
      at += total;
    }
    seq = std::max(next, segment.lastSeq + 1);
  }
  return events;
}

TEST(EventSpool, NumbersGoOnAcrossReopeningsAndAcknowledgedSegmentsGo) {
  TempDirectory directory;
  std::string error;
  {
    EventSpool spool(directory.path(), "s", 4096);  // segments of about 1 KiB
    ASSERT_TRUE(spool.open(&error)) << error;
    for (int i = 1; i <= 30; ++i) {
      ASSERT_EQ(spool.append(std::string(90, 'a' + i % 26), &error), static_cast<uint64_t>(i));
    }
    EXPECT_GE(spool.segmentCount(), 3u);
    const size_t before = segmentFiles(directory).size();
    // Up to the middle of the second segment: only the first goes.
    SpoolSegment second;
    ASSERT_TRUE(spool.locate(12, &second));
    EXPECT_EQ(spool.acknowledge(12), 12u);
    EXPECT_EQ(segmentFiles(directory).size(), before - 1);
    EXPECT_EQ(spool.firstSeq(), second.firstSeq);
    EXPECT_EQ(spool.acknowledge(5), 0u);  // behind: nothing new
  }
  {
    EventSpool spool(directory.path(), "s", 4096);
    ASSERT_TRUE(spool.open(&error)) << error;
    const auto events = spooled(spool);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back().first, 30u);
    EXPECT_EQ(events.back().second, std::string(90, 'a' + 30 % 26));
    EXPECT_EQ(spool.append("next", &error), 31u);
    // Everything acknowledged: 13 to 31 (12 was before the reopening). No segment
    // is left, yet the numbering goes on.
    EXPECT_EQ(spool.acknowledge(31), 19u);
    EXPECT_TRUE(segmentFiles(directory).empty());
  }
  EventSpool spool(directory.path(), "s", 4096);
  ASSERT_TRUE(spool.open(&error)) << error;
  EXPECT_EQ(spool.append("after", &error), 32u);
  // Another stream in the same directory has a numbering of its own.
  EventSpool other(directory.path(), "s-1", 4096);
  ASSERT_TRUE(other.open(&error)) << error;
  EXPECT_EQ(other.append("x", &error), 1u);
}

TEST(EventSpool, TheLimitDeletesTheOldestSegmentAndCountsWhatWasNotAcknowledged) {
  TempDirectory directory;
  std::string error;
  EventSpool spool(directory.path(), "s", 4096);
  ASSERT_TRUE(spool.open(&error)) << error;
  const std::string text(90, 'x');  // 98-byte records: 11 to a segment
  for (int i = 1; i <= 11; ++i) {
    spool.append(text, &error);
  }
  spool.acknowledge(3);
  for (int i = 12; i <= 60; ++i) {
    ASSERT_NE(spool.append(text, &error), 0u) << error;
    uint64_t onDisk = 0;
    for (const auto& name : segmentFiles(directory)) {
      onDisk += std::filesystem::file_size(directory.file(name));
    }
    ASSERT_LE(onDisk, 4096u);
    ASSERT_EQ(onDisk, spool.bytes());
  }
  // 60 events of which 3 acknowledged; what the spool holds and what it dropped make
  // up the rest, and what it holds is the newest, in order.
  const auto events = spooled(spool);
  EXPECT_EQ(spool.dropped() + events.size(), 57u);
  EXPECT_GT(spool.dropped(), 0u);
  EXPECT_EQ(events.back().first, 60u);
  for (size_t i = 1; i < events.size(); ++i) {
    EXPECT_EQ(events[i].first, events[i - 1].first + 1);
  }
  // An event larger than the whole spool is dropped by itself.
  const uint64_t dropped = spool.dropped();
  EXPECT_EQ(spool.append(std::string(5000, 'y'), &error), 0u);
  EXPECT_NE(error.find("does not fit"), std::string::npos);
  EXPECT_EQ(spool.dropped(), dropped + 1);
  EXPECT_EQ(spool.append("small", &error), 61u);
}

TEST(EventSpool, ATornOrBrokenEndOfASegmentIsCutOnOpening) {
  const std::string tails[] = {"4 10\nabc", "4 1", "4 3\nabcX", "garbage\n", "3 1\nz\n"};
  for (const std::string& tail : tails) {
    TempDirectory directory;
    std::string error;
    std::string segment;
    {
      EventSpool spool(directory.path(), "s", 1 << 20);
      ASSERT_TRUE(spool.open(&error)) << error;
      for (const char* text : {"one", "two\nlines", "three"}) {
        spool.append(text, &error);
      }
      segment = spool.segmentPath(1);
    }
    const auto whole = std::filesystem::file_size(segment);
    std::ofstream(segment, std::ios::app) << tail;
    EventSpool spool(directory.path(), "s", 1 << 20);
    ASSERT_TRUE(spool.open(&error)) << error;
    EXPECT_EQ(std::filesystem::file_size(segment), whole) << tail;
    const auto events = spooled(spool);
    ASSERT_EQ(events.size(), 3u) << tail;
    EXPECT_EQ(events[1].second, "two\nlines");
    EXPECT_EQ(spool.append("four", &error), 4u) << tail;
  }
}

TEST(EventSpool, RenumbersTheUnacknowledgedEventsPastTheServersNumbering) {
  TempDirectory directory;
  std::string error;
  EventSpool spool(directory.path(), "s", 4096);
  ASSERT_TRUE(spool.open(&error)) << error;
  for (int i = 1; i <= 25; ++i) {
    spool.append("event " + std::to_string(i) + std::string(80, '.'), &error);
  }
  spool.acknowledge(4);
  ASSERT_TRUE(spool.renumberAfter(1000, &error)) << error;
  const auto events = spooled(spool);
  ASSERT_EQ(events.size(), 21u);
  for (size_t i = 0; i < events.size(); ++i) {
    EXPECT_EQ(events[i].first, 1001 + i);
    EXPECT_EQ(events[i].second.substr(0, events[i].second.find('.')), "event " + std::to_string(5 + i));
  }
  EXPECT_EQ(segmentFiles(directory), std::vector<std::string>{"s-1001.seg"});
  EXPECT_EQ(spool.append("next", &error), 1022u);
}

TEST(EventSpool, OneForwarderPerStreamAndDirectory) {
  TempDirectory directory;
  std::string error;
  EventSpool first(directory.path(), "s", 4096);
  ASSERT_TRUE(first.open(&error)) << error;
  EventSpool second(directory.path(), "s", 4096);
  EXPECT_FALSE(second.open(&error));
  EXPECT_NE(error.find("in use by another forwarder"), std::string::npos) << error;
}

}  // namespace
}  // namespace XRV::forward
