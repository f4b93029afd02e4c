#include "foundation/UTF8String.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

struct Sample {
  const char* name;
  std::string bytes;
  bool valid;
  size_t characters;
};

const Sample kSamples[] = {
    {"empty", "", true, 0},
    {"ASCII", "abc", true, 3},
    {"two-byte", "caf\xC3\xA9", true, 4},
    {"three-byte",
     "\xE2\x82\xAC"
     "5",
     true, 2},
    {"four-byte", "\xF0\x9F\x98\x80", true, 1},
    {"largest code point", "\xF4\x8F\xBF\xBF", true, 1},
    {"smallest of each length", "\xC2\x80\xE0\xA0\x80\xF0\x90\x80\x80", true, 3},
    {"last before the surrogates", "\xED\x9F\xBF", true, 1},
    {"truncated at the end", "a\xC3", false, 2},
    {"truncated before ASCII", "\xE2\x82x", false, 2},
    {"stray continuation byte", "a\x80z", false, 3},
    {"overlong two-byte", "\xC0\x80", false, 2},
    {"overlong three-byte", "\xE0\x80\x80", false, 3},
    {"surrogate", "\xED\xA0\x80", false, 3},
    {"beyond U+10FFFF", "\xF4\x90\x80\x80", false, 4},
    {"impossible byte", "\xFF", false, 1},
    {"embedded NUL", std::string("a\0b", 3), true, 3},
};

TEST(UTF8String, ValidityAndCharacterCount) {
  for (const Sample& s : kSamples) {
    SCOPED_TRACE(s.name);
    UTF8String text(s.bytes.data(), s.bytes.size());
    EXPECT_EQ(text.length(), s.bytes.size());
    EXPECT_EQ(text.isValid(), s.valid);
    EXPECT_EQ(text.charCount(), s.characters);
  }
}

TEST(UTF8String, ConcatAppendsBytes) {
  UTF8String text("caf");
  ASSERT_TRUE(text.concat("\xC3\xA9"));
  ASSERT_TRUE(text.concat(static_cast<const char*>(nullptr)));
  UTF8String tail(" \xE2\x82\xAC");
  ASSERT_TRUE(text.concat(tail));
  EXPECT_STREQ(text.c_str(), "caf\xC3\xA9 \xE2\x82\xAC");
  EXPECT_EQ(text.getBytes(), text.c_str());
  EXPECT_EQ(text.length(), 9u);
  EXPECT_EQ(text.charCount(), 6u);
  EXPECT_STREQ(tail.c_str(), " \xE2\x82\xAC") << "the appended text is not changed";

  ASSERT_TRUE(text.concat(text));
  EXPECT_EQ(text.length(), 18u);

  UTF8String empty(static_cast<const char*>(nullptr));
  EXPECT_TRUE(empty.empty());
  EXPECT_STREQ(empty.c_str(), "");
}

TEST(UTF8String, ComparesBytewise) {
  struct Case {
    const char* left;
    const char* right;
    int sign;
  };
  const Case cases[] = {
      {"abc", "abc", 0},
      {"abc", "abd", -1},
      {"ab", "abc", -1},
      {"abc", "ab", 1},
      {"", "", 0},
      {"z", "\xC3\xA9", -1},  // bytes above 0x7F sort after ASCII
      {"\xC3\xA9", "\xE2\x82\xAC", -1},
  };
  auto sign = [](int value) { return (value > 0) - (value < 0); };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.left) + " vs " + c.right);
    UTF8String left(c.left);
    UTF8String right(c.right);
    EXPECT_EQ(sign(left.compare(right)), c.sign);
    EXPECT_EQ(sign(right.compare(left)), -c.sign);
    EXPECT_EQ(sign(left.compare(c.right)), c.sign);
    EXPECT_EQ(left.equals(right), c.sign == 0);
    EXPECT_EQ(left.equals(c.right), c.sign == 0);
  }
  UTF8String text("a");
  EXPECT_GT(text.compare(static_cast<const char*>(nullptr)), 0);
  EXPECT_FALSE(text.equals(static_cast<const char*>(nullptr)));
}

TEST(UTF8String, FromNative) {
  EXPECT_EQ(UTF8String::fromNative(nullptr), nullptr);

  std::unique_ptr<UTF8String> ascii(UTF8String::fromNative("plain text 123"));
  ASSERT_NE(ascii, nullptr);
  EXPECT_STREQ(ascii->c_str(), "plain text 123");

  // Whatever the process code page, what comes out is well-formed.
  std::unique_ptr<UTF8String> converted(UTF8String::fromNative("caf\xE9 \xFF\x80"));
  ASSERT_NE(converted, nullptr);
  EXPECT_TRUE(converted->isValid());
  EXPECT_EQ(std::string(converted->c_str()).substr(0, 4), "caf\xEF")
      << "the invalid byte is replaced, not dropped";

  UTF8String reused("previous content");
  ASSERT_TRUE(reused.assignNative("abc", 2));
  EXPECT_STREQ(reused.c_str(), "ab");
  EXPECT_FALSE(reused.assignNative(nullptr, 0));
  EXPECT_TRUE(reused.empty());
}

}  // namespace
