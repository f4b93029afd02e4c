// Format-file mode's event texts: the engine's OBVEvent value read back into the OBV
// event text and the slots (expandForQRF), the slots mapped onto Class, msg and the
// custom attributes (mapQRFCustomSlots), and the process priority classes.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "FormatTestSupport.h"
#include "logmon/LogMonitorQueryClass.h"
#include "support/TraceCapture.h"

namespace {

using XRV::testing::FormatTest;
using XRV::testing::generate;
using XRV::testing::Generated;
using XRV::testing::TraceCapture;

// Slot `name` = `value` in the default separators.
std::string slot(const std::string& name, const std::string& value) {
  return "\x01" + name + "\x04\x02" + value + "\x03";
}

const char kFormats[] =
    "format Line\n"
    "  pattern %s %s%n%s*\n"
    "  severity = $1\n"
    "  msg = $3\n"
    "  hosts = list($1, \"b\")\n"
    "  map severity to CustomSlot1\n"
    "  map %XRV_FILENAME% to CustomSlot2\n"
    "end\n"
    "format Quoted\n"
    "  regex ^(it's) (.*)$\n"
    "  msg = $2\n"
    "  map msg to CustomSlot3\n"
    "end\n"
    "format Sub extends Line\n"
    "  code = $2\n"
    "  map code to CustomSlot1\n"
    "end\n";

class LogMonitorQrfTest : public FormatTest {};

TEST_F(LogMonitorQrfTest, EventTextsBecomeOBVEventsAndSlots) {
  Generated generated = generate("LogSources=/l\n", kFormats);
  ASSERT_EQ(generated.config->getError(), 0);
  struct Case {
    const char* why;
    std::string text;
    std::string expected;
    int formatIndex;
    QrfSlotMap slots;
  } cases[] = {
      {"plain slots and the class",
       "0#" + slot("severity", "ERROR") + slot("msg", "disk full"),
       "Line;severity='ERROR';msg='disk full';END",
       0,
       {{"__QRF_Class_Slot", {"Line"}}, {"severity", {"ERROR"}}, {"msg", {"disk full"}}}},
      {"a quote in a value is doubled in the text only",
       "0#" + slot("msg", "it's"),
       "Line;msg='it''s';END",
       0,
       {{"__QRF_Class_Slot", {"Line"}}, {"msg", {"it's"}}}},
      {"a list",
       "0#" + slot("hosts", "\x0f" "a\x06" "b\x0e"),
       "Line;hosts=['a','b'];END",
       0,
       {{"__QRF_Class_Slot", {"Line"}}, {"hosts", {"a", "b"}}}},
      {"separators between quote tags are text",
       "0#" + slot("msg", "\x05" "a\x03" "b\x05"),
       "Line;msg='a\x03" "b';END",
       0,
       {{"__QRF_Class_Slot", {"Line"}}, {"msg", {"a\x03" "b"}}}},
      {"the tokens: file, remote host, the format's expression",
       "0#" + slot("XRV_FILENAME", "%XRV_FILENAME%") + slot("from", "%XRV_REMHOST%!") +
           slot("how", "%XRV_REGEX%"),
       "Line;XRV_FILENAME='/var/log/app.log';from='web02!';how='%s %s%n%s*';END",
       0,
       {{"__QRF_Class_Slot", {"Line"}},
        {"XRV_FILENAME", {"/var/log/app.log"}},
        {"from", {"web02!"}},
        {"how", {"%s %s%n%s*"}}}},
      {"a regular expression with a quote",
       "1#" + slot("how", "%XRV_REGEX%"),
       "Quoted;how='^(it''s) (.*)$';END",
       1,
       {{"__QRF_Class_Slot", {"Quoted"}}, {"how", {"^(it's) (.*)$"}}}},
      {"no format index: no class", slot("msg", "m"), "msg='m';END", -1, {{"msg", {"m"}}}},
      {"an index beyond the formats", "7#" + slot("msg", "m"), "msg='m';END", 7, {{"msg", {"m"}}}},
      {"a broken text keeps what could be read",
       "0#" + slot("msg", "m") + "junk",
       "Line;msg='m';END",
       0,
       {{"__QRF_Class_Slot", {"Line"}}, {"msg", {"m"}}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    TraceCapture trace;
    QrfSlotMap slots;
    int index = -2;
    EXPECT_EQ(LogMonitorQueryClass::expandForQRF(*generated.config, c.text.c_str(), &index,
                                                 "/var/log/app.log", "web02", &slots),
              c.expected);
    EXPECT_EQ(index, c.formatIndex);
    EXPECT_EQ(slots, c.slots);
    EXPECT_EQ(trace.hasText("Does not contain format index, continuing, but will not be able to "
                            "use PQL custom attributes"),
              c.formatIndex == -1);
  }
}

TEST_F(LogMonitorQrfTest, SeparatorsComeFromTheConfFile) {
  Generated generated = generate(
      "LogSources=/l\nQRF_START_NAME=<\nQRF_END_NAME=>\nQRF_START_VAL=[\nQRF_END_VAL=]\n",
      kFormats);
  QrfSlotMap slots;
  int index = -1;
  EXPECT_EQ(LogMonitorQueryClass::expandForQRF(*generated.config, "1#<msg>[a b]<x>[c]", &index,
                                               "", "", &slots),
            "Quoted;msg='a b';x='c';END");
  EXPECT_EQ(slots.at("msg"), std::vector<std::string>{"a b"});
}

TEST_F(LogMonitorQrfTest, SlotsFillClassMsgAndTheirCustomAttributes) {
  Generated generated = generate("LogSources=/l\n", kFormats);
  using Values = std::map<std::string, std::string>;
  struct Case {
    const char* why;
    int formatIndex;
    QrfSlotMap slots;
    Values expected;
    const char* trace;
  } cases[] = {
      {"mapped slots, msg and the class",
       0,
       {{"__QRF_Class_Slot", {"Line"}},
        {"severity", {"ERROR"}},
        {"msg", {"disk full"}},
        {"XRV_FILENAME", {"/a.log"}}},
       {{"Class", "Line"}, {"CustomSlot1", "ERROR"}, {"CustomSlot2", "/a.log"}, {"msg", "disk full"}},
       "Found slot severity mapped to custom attribute CustomSlot1"},
      {"a slot without a mapping goes nowhere",
       0,
       {{"__QRF_Class_Slot", {"Line"}}, {"hosts", {"a", "b"}}},
       {{"Class", "Line"}},
       "Found Class value Line mapping to PQL Class attribute"},
      {"msg mapped elsewhere does not fill msg",
       1,
       {{"__QRF_Class_Slot", {"Quoted"}}, {"msg", {"m"}}},
       {{"Class", "Quoted"}, {"CustomSlot3", "m"}},
       "Found slot msg mapped to custom attribute CustomSlot3"},
      {"a list of several items",
       0,
       {{"severity", {"a", "b", "c"}}},
       {{"CustomSlot1", "[a,b,c]"}},
       "QRF: Filling in custom slots"},
      {"a slot the format lacks", 0, {{"ghost", {"x"}}}, {}, "Error: slot ghost does not exist"},
      {"two slots on one attribute: the later one of the format",
       2,
       {{"code", {"42"}}, {"severity", {"E"}}},
       {{"CustomSlot1", "42"}},
       "Found slot code mapped to custom attribute CustomSlot1"},
      {"no format: msg still fills msg",
       -1,
       {{"msg", {"m"}}, {"severity", {"E"}}},
       {{"msg", "m"}},
       "Found msg slot not specifically mapped to something else, mapping automatically to msg "
       "attribute"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    TraceCapture trace;
    Values values;
    LogMonitorQueryClass::mapQRFCustomSlots(*generated.config, c.formatIndex, c.slots, &values);
    EXPECT_EQ(values, c.expected);
    EXPECT_TRUE(trace.hasText(c.trace)) << c.trace;
  }
}

TEST(LogMonitorQrfPriority, ClassesAreNiceValues) {
  const struct {
    char letter;
    bool valid;
    int nice;
  } cases[] = {{'A', true, 20},  {'b', true, 10},   {'C', true, 0},   {'d', true, -5},
               {'E', true, -10}, {'f', true, -20},  {'G', false, 0},  {'1', false, 0},
               {'@', false, 0},  {'`', false, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.letter);
    int nice = 99;
    EXPECT_EQ(LogMonitorQueryClass::priorityClassNice(c.letter, &nice), c.valid);
    EXPECT_EQ(nice, c.valid ? c.nice : 99);
  }
}

}  // namespace
