#include "foundation/Utilities.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "framework/FwLocale.h"
#include "support/TestConfiguration.h"

namespace {

using Text = XRV::testing::OwnedText;

const char* const kFFFD = "\xEF\xBF\xBD";

std::string bytesOf(const XRV::String& s) { return std::string(s.c_str(), s.length()); }

struct Conversion {
  const char* name;
  std::string input;
  const char* codePage;
  std::string expected;
};

TEST(Utilities, CodePageToUTF8) {
  const Conversion cases[] = {
      {"ASCII is copied", "plain, 123", "ISO-8859-1", "plain, 123"},
      {"empty", "", "ISO-8859-1", ""},
      {"Latin-1", "caf\xE9 \xFC", "ISO-8859-1", "caf\xC3\xA9 \xC3\xBC"},
      {"Latin-9 euro", "\xA4", "ISO-8859-15", "\xE2\x82\xAC"},
      {"Windows-1252 euro", "\x80", "windows-1252", "\xE2\x82\xAC"},
      {"UTF-8 is copied", "caf\xC3\xA9 \xF0\x9F\x98\x80", "UTF-8", "caf\xC3\xA9 \xF0\x9F\x98\x80"},
      {"other spelling of UTF-8", "\xC3\xA9", "utf8", "\xC3\xA9"},
      // Ill-formed UTF-8: every maximal ill-formed part becomes one U+FFFD.
      {"truncated at the end", "a\xC3", "UTF-8", std::string("a") + kFFFD},
      {"truncated three-byte", "\xE2\x82x", "UTF-8", std::string(kFFFD) + "x"},
      {"truncated four-byte", "\xF0\x9F\x98!", "UTF-8", std::string(kFFFD) + "!"},
      {"overlong", "\xC0\x80", "UTF-8", std::string(kFFFD) + kFFFD},
      {"surrogate", "\xED\xA0\x80", "UTF-8", std::string(kFFFD) + kFFFD + kFFFD},
      {"Latin-1 read as UTF-8", "caf\xE9", "UTF-8", std::string("caf") + kFFFD},
      {"embedded NUL", std::string("a\0\xE9", 3), "ISO-8859-1", std::string("a\0\xC3\xA9", 4)},
  };
  XRV::String out("stale content");
  for (const Conversion& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(Utilities::codePageToUTF8(c.input.data(), c.input.size(), c.codePage, &out));
    EXPECT_EQ(bytesOf(out), c.expected);
    EXPECT_TRUE(Utilities::isValidUTF8(out.c_str(), out.length()));
  }
}

TEST(Utilities, UTF8ToCodePage) {
  const Conversion cases[] = {
      {"ASCII is copied", "plain", "ISO-8859-1", "plain"},
      {"Latin-1", "caf\xC3\xA9", "ISO-8859-1", "caf\xE9"},
      {"Latin-9 euro", "\xE2\x82\xAC", "ISO-8859-15", "\xA4"},
      {"UTF-8 is copied", "\xF0\x9F\x98\x80", "UTF-8", "\xF0\x9F\x98\x80"},
      {"missing character becomes the substitute", "\xE2\x82\xAC", "ISO-8859-1", "\x1A"},
  };
  XRV::String out;
  for (const Conversion& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(Utilities::UTF8ToCodePage(c.input.data(), c.input.size(), c.codePage, &out));
    EXPECT_EQ(bytesOf(out), c.expected);
  }
}

TEST(Utilities, ConversionFailures) {
  XRV::String out("stale");
  EXPECT_FALSE(Utilities::codePageToUTF8("\xE9", 1, "no-such-code-page", &out));
  EXPECT_TRUE(out.empty());
  out.assign("stale");
  EXPECT_FALSE(Utilities::UTF8ToCodePage("\xC3\xA9", 2, "no-such-code-page", &out));
  EXPECT_TRUE(out.empty());
  out.assign("stale");
  EXPECT_FALSE(Utilities::codePageToUTF8(nullptr, 0, "UTF-8", &out));
  EXPECT_TRUE(out.empty());
  EXPECT_FALSE(Utilities::nativeToUTF8("a", 1, nullptr));
  EXPECT_EQ(Utilities::nativeToUTF8(nullptr), nullptr);
  EXPECT_EQ(Utilities::UTF8ToNative(nullptr), nullptr);
}

// The process locale is worked out once per process, so these check that the native
// forms convert from and to exactly the code page it names, whichever that is.
TEST(Utilities, NativeFormsUseTheProcessCodePage) {
  const char* codePage = fwGetProcessLocale(nullptr)->codePage;
  SCOPED_TRACE(codePage);
  const char* const inputs[] = {"", "ascii only", "caf\xC3\xA9", "caf\xE9", "\xE2\x82\xAC"};
  for (const char* input : inputs) {
    SCOPED_TRACE(input);
    XRV::String expected;
    ASSERT_TRUE(Utilities::codePageToUTF8(input, strlen(input), codePage, &expected));
    Text utf8(Utilities::nativeToUTF8(input));
    ASSERT_NE(utf8, nullptr);
    EXPECT_EQ(std::string(utf8.get()), bytesOf(expected));
    EXPECT_TRUE(Utilities::isValidUTF8(utf8.get(), strlen(utf8.get())));

    ASSERT_TRUE(Utilities::UTF8ToCodePage(input, strlen(input), codePage, &expected));
    Text native(Utilities::UTF8ToNative(input));
    ASSERT_NE(native, nullptr);
    EXPECT_EQ(std::string(native.get()), bytesOf(expected));
  }
  Text ascii(Utilities::UTF8ToNative("ascii"));
  EXPECT_STREQ(ascii.get(), "ascii");
}

TEST(Utilities, CalculateAverage) {
  struct Case {
    double previous;
    double sample;
    int count;
    double expected;
  };
  const Case cases[] = {
      {-1.0, 5.0, 0, 5.0},  // the first sample replaces the start value
      {123.0, 7.0, -4, 7.0}, {5.0, 7.0, 1, 6.0}, {6.0, 9.0, 2, 7.0}, {10.0, 0.0, 4, 8.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.previous << " " << c.sample << " " << c.count);
    EXPECT_DOUBLE_EQ(Utilities::calculateAverage(c.previous, c.sample, c.count), c.expected);
  }
  double average = -1.0;
  for (int i = 0; i < 10; ++i) {
    average = Utilities::calculateAverage(average, i + 1, i);
  }
  EXPECT_DOUBLE_EQ(average, 5.5);
}

TEST(Utilities, TrimString) {
  struct Case {
    const char* input;
    const char* expected;
  };
  const Case cases[] = {
      {"  abc  ", "abc"},
      {"\t\r\n abc \r\n", "abc"},
      {"a b\tc", "a b\tc"},
      {" \t\r\n ", ""},
      {"", ""},
      {"x", "x"},
      {"\vtab\f", "\vtab\f"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.input));
    std::string buffer(c.input);
    trim_string(buffer.data());
    EXPECT_STREQ(buffer.c_str(), c.expected);
  }
  trim_string(nullptr);
}

TEST(Utilities, SubstituteAllowedNames) {
  const char* const allowed[] = {"AGENT_BIN_DIR", "AGENT_ETC_DIR", "AGENT_LIB_DIR", "PELMO_HOME",
                                 "PELMOHOME"};
  for (const char* name : allowed) {
    EXPECT_TRUE(isSubstituteAllowed(name)) << name;
  }
  const char* const refused[] = {
      "agent_bin_dir", "AGENT_BIN_DIR ", "AGENT_BIN", "PELMO_HOMES", "SSH_HOSTNAME", "", "HOME"};
  for (const char* name : refused) {
    EXPECT_FALSE(isSubstituteAllowed(name)) << name;
  }
  EXPECT_FALSE(isSubstituteAllowed(nullptr));
}

}  // namespace
