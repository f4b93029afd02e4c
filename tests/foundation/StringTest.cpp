#include "foundation/String.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

namespace {

using XRV::String;

std::string bytesOf(const String& s) { return std::string(s.c_str(), s.length()); }

TEST(String, ConstructionAndComparison) {
  struct Case {
    String value;
    std::string bytes;
    const char* other;
    bool equal;
  };
  const Case cases[] = {
      {String(), "", "", true},
      {String(nullptr), "", nullptr, false},  // null equals nothing
      {String("abc"), "abc", "abc", true},
      {String("abc"), "abc", "abd", false},
      {String("abc"), "abc", "ab", false},
      {String("abcdef", 4), "abcd", "abcde", false},
      {String("a\0b", 3), std::string("a\0b", 3), "a", false},
      {String(nullptr, 5), "", "", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.bytes));
    ASSERT_NE(c.value.c_str(), nullptr);
    EXPECT_EQ(bytesOf(c.value), c.bytes);
    EXPECT_EQ(c.value.empty(), c.bytes.empty());
    EXPECT_EQ(c.value.c_str()[c.value.length()], '\0');
    EXPECT_EQ(c.value == c.other, c.equal);
    if (c.other != nullptr) {
      EXPECT_EQ(c.value == String(c.other), c.equal);
    }
  }
}

TEST(String, AppendGrowsGeometricallyAndKeepsContent) {
  String s;
  std::string expected;
  int reallocations = 0;
  for (int i = 0; i < 5000; ++i) {
    size_t before = s.capacity();
    char c = static_cast<char>('a' + i % 26);
    ASSERT_TRUE(s.append(c));
    expected.push_back(c);
    reallocations += s.capacity() != before;
  }
  EXPECT_LE(reallocations, 12) << "growth must be geometric, not by a fixed step";
  ASSERT_TRUE(s.append(" tail"));
  ASSERT_TRUE(s.append("xyz", 2));
  ASSERT_TRUE(s.append(static_cast<const char*>(nullptr)));
  ASSERT_TRUE(s.append(String("!")));
  EXPECT_EQ(bytesOf(s), expected + " tailxy!");
  EXPECT_EQ(strlen(s.c_str()), s.length());

  // Appending the object to itself while that moves the buffer.
  String twice("abcdefghij");
  while (twice.length() < 200) {
    ASSERT_TRUE(twice.append(twice.c_str(), twice.length()));
  }
  EXPECT_EQ(twice.length(), 320u);
  EXPECT_EQ(std::string(twice.c_str(), 20), "abcdefghijabcdefghij");
  ASSERT_TRUE(twice.assign(twice.c_str() + 4, 3));
  EXPECT_EQ(twice, "efg");
}

TEST(String, AppendFormatFitsOrGrows) {
  String s("n=");
  ASSERT_TRUE(s.appendFormat("%d", 42));
  EXPECT_EQ(s, "n=42");
  // Longer than the room left: formatted a second time after growing.
  std::string longText(300, 'x');
  ASSERT_TRUE(s.appendFormat(" %s/%05.1f", longText.c_str(), 2.25));
  EXPECT_EQ(bytesOf(s), "n=42 " + longText + "/002.2");

  String fresh;
  ASSERT_TRUE(fresh.appendFormat("%s", ""));
  EXPECT_TRUE(fresh.empty());
  ASSERT_TRUE(fresh.appendFormat("%c%c", 'o', 'k'));
  EXPECT_EQ(fresh, "ok");
}

TEST(String, ReaderFillsDataThenSetsLength) {
  const std::string content = "line one\nline two\n";
  String s;
  ASSERT_TRUE(s.reserve(content.size() + 1));
  ASSERT_GE(s.capacity(), content.size() + 1);
  memcpy(s.data(), content.data(), content.size());
  s.setLength(content.size());
  EXPECT_EQ(bytesOf(s), content);
  EXPECT_EQ(s.c_str()[content.size()], '\0');
  s.setLength(4);
  EXPECT_EQ(s, "line");
  s.setLength(s.capacity() + 100);
  EXPECT_EQ(s.length(), s.capacity()) << "clamped to the capacity";
  EXPECT_EQ(s.c_str()[s.length()], '\0');
}

TEST(String, ClearKeepsBufferAndReleaseHandsItOver) {
  String s("some text that needs a buffer of its own");
  size_t capacity = s.capacity();
  const char* buffer = s.c_str();
  s.clear();
  EXPECT_STREQ(s.c_str(), "");
  EXPECT_EQ(s.capacity(), capacity);
  ASSERT_TRUE(s.append("again"));
  EXPECT_EQ(s.c_str(), buffer) << "clear must keep the buffer for reuse";

  char* released = s.release();
  EXPECT_EQ(released, buffer);
  EXPECT_STREQ(released, "again");
  free(released);
  EXPECT_EQ(s.capacity(), String::kInlineCapacity);
  EXPECT_STREQ(s.c_str(), "");

  String never;
  char* empty = never.release();
  ASSERT_NE(empty, nullptr);
  EXPECT_STREQ(empty, "");
  free(empty);

  // A short text lives in the object: release hands over a copy the caller may free.
  String shortText("short");
  char* copy = shortText.release();
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, shortText.c_str());
  EXPECT_STREQ(copy, "short");
  EXPECT_TRUE(shortText.empty());
  free(copy);
}

TEST(String, ShortTextsStayInsideUntilTheyOutgrowIt) {
  String s;
  EXPECT_EQ(s.capacity(), String::kInlineCapacity) << "room without any allocation";
  const std::string fits(String::kInlineCapacity, 'x');
  ASSERT_TRUE(s.assign(fits.c_str()));
  EXPECT_EQ(bytesOf(s), fits);
  EXPECT_EQ(s.capacity(), String::kInlineCapacity);
  // Growing out of the object keeps the text, also when the appended bytes are the
  // object's own.
  ASSERT_TRUE(s.append(s.c_str() + 10, 5));
  EXPECT_EQ(bytesOf(s), fits + "xxxxx");
  EXPECT_GT(s.capacity(), String::kInlineCapacity);
  ASSERT_TRUE(s.appendFormat("%s|%d", "n", 7));
  EXPECT_EQ(bytesOf(s), fits + "xxxxxn|7");
}

TEST(String, CopiesAndMovesAreIndependent) {
  String original("original");
  String copy(original);
  ASSERT_TRUE(copy.append("+copy"));
  EXPECT_EQ(original, "original");
  EXPECT_EQ(copy, "original+copy");

  String assigned;
  assigned = copy;
  const String& same = assigned;
  assigned = same;
  EXPECT_EQ(assigned, "original+copy");

  // Moves take a buffer over without copying it, and carry short texts along.
  for (const char* text : {"short", "a text well beyond the inline room"}) {
    SCOPED_TRACE(text);
    String source(text);
    const bool ownBuffer = source.capacity() > String::kInlineCapacity;
    const char* buffer = source.c_str();
    String moved(std::move(source));
    EXPECT_EQ(moved, text);
    EXPECT_EQ(moved.c_str() == buffer, ownBuffer);
    EXPECT_TRUE(source.empty()) << "a moved-from text is empty and usable";
    ASSERT_TRUE(source.append("reusable"));
    EXPECT_EQ(source, "reusable");

    for (const char* old : {"old", "old content that has a buffer of its own"}) {
      String target(old);
      target = std::move(moved);
      EXPECT_EQ(target, text);
      EXPECT_EQ(target.c_str() == buffer, ownBuffer);
      moved = std::move(target);
    }
  }
}

}  // namespace
