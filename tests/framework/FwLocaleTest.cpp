#include "framework/FwLocale.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string convert(const std::string& text, const char* from, const char* to) {
  size_t length = 0;
  char* out = fwConvertCodePage(text.data(), text.size(), from, to, &length);
  if (out == nullptr) {
    return "<null>";
  }
  std::string result(out, length);
  EXPECT_EQ(strlen(out), length) << "terminated right after the text";
  free(out);
  return result;
}

TEST(FwLocale, ConvertsBetweenCodePages) {
  struct Case {
    std::string text;
    const char* from;
    const char* to;
    std::string expected;
  };
  // Single-byte code pages and unknown names are covered where Utilities converts.
  const Case cases[] = {
      {"\x82\xA0", "Shift_JIS", "UTF-8", "\xE3\x81\x82"},
      {"\xE3\x81\x82", "UTF-8", "Shift_JIS", "\x82\xA0"},
      {"", "UTF-8", "ISO-8859-1", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.from) + " -> " + c.to);
    EXPECT_EQ(convert(c.text, c.from, c.to), c.expected);
  }
  EXPECT_EQ(fwConvertCodePage(nullptr, 0, "UTF-8", "UTF-8", nullptr), nullptr);
}

TEST(FwLocale, CodePageIdsBothWays) {
  EXPECT_EQ(fwCodePageId("UTF-8"), 1208);
  EXPECT_EQ(fwCodePageId("ISO-8859-1"), 819);
  EXPECT_EQ(fwCodePageId("no-such-code-page"), 0);
  EXPECT_EQ(fwCodePageId(nullptr), 0);
  char name[64];
  ASSERT_TRUE(fwCodePageName(1208, name, sizeof name));
  EXPECT_STREQ(name, "UTF-8");
  ASSERT_TRUE(fwCodePageName(819, name, sizeof name));
  EXPECT_EQ(fwCodePageId(name), 819);
  EXPECT_FALSE(fwCodePageName(-5, name, sizeof name));
  EXPECT_FALSE(fwCodePageName(1208, name, 3)) << "does not fit";
}

TEST(FwLocale, ProcessLocaleHasACodePage) {
  int error = -1;
  const FwLocale* locale = fwGetProcessLocale(&error);
  ASSERT_NE(locale, nullptr);
  EXPECT_GT(strlen(locale->name), 0u);
  EXPECT_GT(strlen(locale->codePage), 0u);
  EXPECT_EQ(locale, fwGetProcessLocale(nullptr)) << "worked out once";
  if (error == 0 && strcmp(locale->codePage, "UTF-8") == 0) {
    EXPECT_EQ(locale->codePageId, 1208);
  }
}

}  // namespace
