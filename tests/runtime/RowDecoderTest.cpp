// Rows packed by the providers' row writers, read back by the decoder.

#include "runtime/RowDecoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "foundation/UTF8String.h"
#include "provider/UAClientClass.h"

namespace {

class RowDecoderTest : public ::testing::Test {
 protected:
  void TearDown() override { resetDefinitionState(); }
};

TEST_F(RowDecoderTest, ReadsBackWhatTheRowWritersPacked) {
  AttributeGroupMeta* group = XRV::testing::defineGroup(
      "Mixed", R"(<attr name="Short" type="0" size="2"/><attr name="Int" type="4" size="4"/>)"
               R"(<attr name="Big" type="9" size="8"/><attr name="Name" type="2" size="8"/>)"
               R"(<attr name="Plain" type="1" size="6"/><attr name="-Hidden" type="0" size="4"/>)"
               R"(<attr name="Odd" type="0" size="3"/>)");
  std::vector<char> row(static_cast<size_t>(group->rowSize()), '\0');
  UAClientClass::putString(row.data(), group->findAttribute("ORIGINNODE", true), "XR:web01:LNX",
                           false);
  UAClientClass::putInt64(row.data(), group->findAttribute("Short", true), -2);
  UAClientClass::putInt64(row.data(), group->findAttribute("Int", true), 5000000000LL);
  UAClientClass::putInt64(row.data(), group->findAttribute("Big", true), -5000000000LL);
  UTF8String name("caf\xC3\xA9");
  UAClientClass::putUTF8String(row.data(), group->findAttribute("Name", true), &name);
  UAClientClass::putString(row.data(), group->findAttribute("Plain", true), "ab", false);
  UAClientClass::putInt64(row.data(), group->findAttribute("Odd", true), -1);

  std::vector<DecodedColumn> columns;
  ASSERT_TRUE(decodeRow(*group, row.data(), row.size(), &columns));
  struct Expected {
    const char* name;
    bool number;
    long long value;
    const char* text;
  };
  const Expected expected[] = {
      {"ORIGINNODE", false, 0, "XR:web01:LNX"},
      {"Short", true, -2, nullptr},
      {"Int", true, 2147483647, nullptr},  // clamped by the writer
      {"Big", true, -5000000000LL, nullptr},
      {"Name", false, 0, "caf\xC3\xA9"},  // space padding removed
      {"Plain", false, 0, "ab"},          // ends at the NUL
      {"Odd", true, -1, nullptr},         // three bytes, sign-extended
  };
  ASSERT_EQ(columns.size(), std::size(expected)) << "the hidden attribute has no column";
  for (size_t i = 0; i < columns.size(); ++i) {
    SCOPED_TRACE(expected[i].name);
    EXPECT_EQ(columns[i].name, expected[i].name);
    EXPECT_EQ(columns[i].isNumber(), expected[i].number);
    if (expected[i].number) {
      EXPECT_EQ(columns[i].number, expected[i].value);
    } else {
      EXPECT_EQ(columns[i].text, expected[i].text);
    }
  }

  // A short row is no row of this table.
  EXPECT_FALSE(decodeRow(*group, row.data(), row.size() - 1, &columns));
  EXPECT_TRUE(columns.empty());
}

TEST_F(RowDecoderTest, TextsAreAlwaysValidUtf8) {
  const struct {
    const char* name;
    std::string bytes;
    std::string text;
  } cases[] = {
      {"ASCII and trailing blanks", "ab  ", "ab"},
      {"two- and four-byte characters", "\xC3\xA9\xF0\x9F\x99\x82", "\xC3\xA9\xF0\x9F\x99\x82"},
      {"a Latin-1 byte", "caf\xE9", "caf\xEF\xBF\xBD"},
      {"a stray continuation byte", "a\x80z", "a\xEF\xBF\xBDz"},
      {"an overlong form", "\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"a surrogate", "\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"a character cut by the column", "ab\xE2\x82", "ab\xEF\xBF\xBD\xEF\xBF\xBD"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ColumnInfo column{"T", 2, static_cast<int>(c.bytes.size()), 0};
    DecodedColumn decoded = decodeColumn(column, c.bytes.data());
    EXPECT_FALSE(decoded.isNumber());
    EXPECT_EQ(decoded.text, c.text);
  }
}

TEST_F(RowDecoderTest, PaddingOfAnyLengthIsRemovedAndInnerBlanksKept) {
  // The padding is skipped 64 bytes at a time, then 16, then byte by byte: lengths
  // around each step, blanks inside the value, a column that is all padding, and NULs
  // before, inside and after padding-like runs.
  const struct {
    std::string bytes;
    std::string text;
  } cases[] = {
      {std::string(16, ' '), ""},
      {std::string(13, ' '), ""},
      {"x" + std::string(7, ' '), "x"},
      {"x" + std::string(8, ' '), "x"},
      {"x" + std::string(23, ' '), "x"},
      {"a" + std::string(9, ' ') + "b" + std::string(30, ' '), "a" + std::string(9, ' ') + "b"},
      {std::string(9, ' ') + "lead", std::string(9, ' ') + "lead"},
      {"end\t" + std::string(16, ' '), "end\t"},  // only blanks are padding
      {"nul" + std::string(8, ' ') + std::string(1, '\0') + "zzzzzzzz", "nul"},
      {"x" + std::string(63, ' '), "x"},
      {"x" + std::string(64, ' '), "x"},
      {"x" + std::string(127, ' '), "x"},
      {std::string(2048, ' '), ""},
      {"a" + std::string(70, ' ') + "b" + std::string(200, ' '), "a" + std::string(70, ' ') + "b"},
      {"ab" + std::string(1, '\0') + std::string(100, ' ') + "tail" + std::string(60, ' '), "ab"},
      {"ab " + std::string(1, '\0') + std::string(300, 'z'), "ab"},
      {std::string(1, '\0') + std::string(80, 'z') + std::string(80, ' '), ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.bytes));
    ColumnInfo column{"T", 2, static_cast<int>(c.bytes.size()), 0};
    EXPECT_EQ(decodeColumn(column, c.bytes.data()).text, c.text);
  }
}

TEST_F(RowDecoderTest, ALayoutOutsideTheRowIsRefused) {
  const char row[8] = {1, 0, 0, 0, 'x', 0, 0, 0};
  std::vector<DecodedColumn> columns;
  std::vector<ColumnInfo> layout = {{"N", 0, 4, 0}, {"T", 1, 4, 4}};
  ASSERT_TRUE(decodeRow(layout, 8, row, sizeof row, &columns));
  EXPECT_EQ(columns[0].number, 1);
  EXPECT_EQ(columns[1].text, "x");
  layout.push_back({"Beyond", 1, 4, 6});
  EXPECT_FALSE(decodeRow(layout, 8, row, sizeof row, &columns));
  EXPECT_TRUE(columns.empty());
}

}  // namespace
