#include "tail/CodePageConverter.h"

#include "../CountingNew.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unicode/uclean.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

// ICU's allocations are counted with the program's (under the sanitizers, only ICU's):
// converting a line must make none.
namespace {

void* icuAlloc(const void*, size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size);
}
void* icuRealloc(const void*, void* block, size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return std::realloc(block, size);
}
void icuFree(const void*, void* block) { std::free(block); }

// Before main, so before ICU allocates anything.
const UErrorCode icuHooked = [] {
  UErrorCode status = U_ZERO_ERROR;
  u_setMemoryFunctions(nullptr, icuAlloc, icuRealloc, icuFree, &status);
  return status;
}();

}  // namespace

namespace xrvlog {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

TEST(CodePageConverterTest, ConvertsCodePagesToUtf8) {
  const struct {
    const char* codepage;
    std::string in;
    std::string out;
  } cases[] = {
      {"ISO-8859-1", "caf\xE9 \xFF", "café ÿ"},
      {"819", "caf\xE9", "café"},
      {"windows-1252", "\x80 \x93quoted\x94", "€ “quoted”"},
      {"1252", "\x80", "€"},
      {"Shift_JIS", "\x93\xFA\x96\x7B log", "日本 log"},
      {"932", "\x93\xFA", "日"},
      {"euc-jp", "\xC6\xFC\xCB\xDC", "日本"},
      {"GB18030", "\xD6\xD0", "中"},
      {"ISO-2022-JP", "\x1B$BF|K\\\x1B(B!", "日本!"},
      // Bytes that are no character, and a character cut off by the line's end.
      {"Shift_JIS",
       "a\xFF"
       "b",
       "a\uFFFD"
       "b"},
      {"Shift_JIS", "x\x93", "x\uFFFD"},
      {"EUC-JP", "\xC6", "\uFFFD"},
      {"US-ASCII", "a\x80", "a\uFFFD"},
      {"windows-1252", "", ""},
  };
  for (const auto& c : cases) {
    CodePageConverter converter(c.codepage);
    EXPECT_TRUE(converter.converts()) << c.codepage;
    EXPECT_EQ(converter.convert(c.in), c.out) << c.codepage;
  }
}

TEST(CodePageConverterTest, EachLineStartsFromTheInitialState) {
  CodePageConverter converter("ISO-2022-JP");
  // A line that leaves the two-byte mode open does not change how the next reads.
  EXPECT_EQ(converter.convert("\x1B$BF|"), "日");
  EXPECT_EQ(converter.convert("F|"), "F|");
  CodePageConverter shiftJis("Shift_JIS");
  // A lead byte left at a line's end does not pair with the next line's first byte.
  EXPECT_EQ(shiftJis.convert("\x93"), "\uFFFD");
  EXPECT_EQ(shiftJis.convert("\x96\x7B"), "本");
}

TEST(CodePageConverterTest, LinesLongerThanTheBufferGrowIt) {
  CodePageConverter converter("ISO-8859-1");
  const std::string in(100000, '\xE9');
  std::string expected;
  for (int i = 0; i < 100000; ++i) expected += "é";
  EXPECT_EQ(converter.convert("short"), "short");
  EXPECT_EQ(converter.convert(in), expected);
  EXPECT_EQ(converter.convert("\xE9"), "é");
  // Moved, it keeps converting.
  CodePageConverter moved(std::move(converter));
  EXPECT_EQ(moved.convert(in), expected);
}

TEST(CodePageConverterTest, Utf8NamesConvertNothing) {
  for (const char* name : {"", "UTF-8", "utf8", "Utf-8", " UTF-8 ", "1208", "ibm-1208", "cp1208"}) {
    CodePageConverter converter(name);
    EXPECT_FALSE(converter.converts()) << name;
    EXPECT_EQ(converter.name(), "UTF-8");
    const std::string_view line = "caf\xE9 stays";
    EXPECT_EQ(converter.convert(line).data(), line.data()) << name;
  }
  EXPECT_EQ(CodePageConverter("cp1252").name(), "ibm-5348_P100-1997");
}

TEST(CodePageConverterTest, RefusesUnknownNamesAndCodePagesWithoutAByteLineFeed) {
  const struct {
    const char* name;
    const char* says;
  } cases[] = {
      {"no-such-codepage", "unknown code page 'no-such-codepage'"},
      {"99999", "unknown code page '99999'"},
      {"UTF-16LE", "line feed"},
      {"UTF-16BE", "line feed"},
      {"UTF-16", "line feed"},
      {"UTF-32", "line feed"},
      {"ibm-037", "line feed"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT([&] { CodePageConverter converter(c.name); },
                ThrowsMessage<std::invalid_argument>(AllOf(HasSubstr(c.says), HasSubstr(c.name))))
        << c.name;
  }
}

TEST(CodePageConverterTest, ConvertingALineAllocatesNothingOnceTheBufferHasGrown) {
  ASSERT_EQ(icuHooked, U_ZERO_ERROR) << "ICU's allocator could not be counted";
  for (const char* codepage : {"windows-1252", "Shift_JIS", "ISO-2022-JP"}) {
    CodePageConverter converter(codepage);
    const std::string longest(4000, '\x93');
    converter.convert(longest);
    const std::size_t before = allocations.load();
    std::size_t bytes = 0;
    for (int i = 0; i < 1000; ++i) {
      bytes += converter.convert("\x93\xFA\x96\x7B line \x80\xFF").size();
      bytes += converter.convert(longest).size();
    }
    EXPECT_EQ(allocations.load() - before, 0U) << codepage;
    EXPECT_GT(bytes, 4000U * 1000U);
  }
}

}  // namespace
}  // namespace xrvlog
