#include "definition/Parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "definition/XMLHandler.h"

namespace {

// Writes every callback as one event: "start:a{x=1,y=2}" (attributes sorted by
// name), "text:...", "end:a", "error:...", each with the parser's offset at the time.
class RecordingHandler : public XMLHandler {
 public:
  using XMLHandler::fatalError;

  void startElement(const char* name, HashMap* attributes) override {
    std::vector<std::pair<std::string, std::string>> pairs;
    HashMapIterator it = attributes->iterator();
    while (it.hasNext()) {
      it.next();
      pairs.emplace_back(it.getKey(), static_cast<const char*>(it.getData()));
    }
    std::sort(pairs.begin(), pairs.end());
    std::string event = std::string("start:") + name + "{";
    for (size_t i = 0; i < pairs.size(); ++i) {
      event += (i == 0 ? "" : ",") + pairs[i].first + "=" + pairs[i].second;
    }
    record(event + "}");
  }
  void endElement(const char* name) override { record(std::string("end:") + name); }
  void characters(const char* text) override { record(std::string("text:") + text); }
  void fatalError(const char* message) override { record(std::string("error:") + message); }

  void record(std::string event) {
    events.push_back(std::move(event));
    offsets.push_back(parser == nullptr ? 0 : parser->getCurrentOffset());
  }

  const Parser* parser = nullptr;
  std::vector<std::string> events;
  std::vector<size_t> offsets;
};

struct Result {
  bool ok;
  std::vector<std::string> events;
  std::vector<size_t> offsets;
  size_t finalOffset;
};

template <typename ParserType = Parser>
Result parse(const std::string& document) {
  RecordingHandler handler;
  ParserType parser(&handler);
  handler.parser = &parser;
  std::string buffer = document;
  bool ok = parser.parse(buffer.data());
  return {ok, handler.events, handler.offsets, parser.getCurrentOffset()};
}

struct EventCase {
  const char* name;
  const char* document;
  std::vector<std::string> events;
};

TEST(Parser, ReportsElementsAttributesAndText) {
  // clang-format off
  const EventCase cases[] = {
      {"nesting and text",
       "<a>hi<b/>there</a>", {"start:a{}", "text:hi", "start:b{}", "end:b", "text:there", "end:a"}},
      {"attributes", "<a x=\"1\"  y=\"two words\" ></a>", {"start:a{x=1,y=two words}", "end:a"}},
      {"self-closing with and without a blank",
       "<r><a /><b x=\"1\"/></r>", {"start:r{}", "start:a{}", "end:a", "start:b{x=1}", "end:b", "end:r"}},
      {"a repeated name keeps the last value", "<a x=\"1\" x=\"2\"/>", {"start:a{x=2}", "end:a"}},
      {"a tab is not a separator", "<a x=\"1\"\ty=\"2\"/>", {"start:a{\ty=2,x=1}", "end:a"}},
      {"nor is a line break", "<a x=\"1\"\n y=\"2\"/>", {"start:a{\n y=2,x=1}", "end:a"}},
      {"names are not trimmed", "<a x =\"1\"/>", {"start:a{x =1}", "end:a"}},
      {"no blank needed after a value", "<a x=\"1\"y=\"\"/>", {"start:a{x=1,y=}", "end:a"}},
      {"values may hold < > and single quotes",
       "<s c=\"awk '$1 < 2' > out\"/>", {"start:s{c=awk '$1 < 2' > out}", "end:s"}},
      {"attributes do not carry over to the next tag",
       "<a x=\"1\"><b/></a>", {"start:a{x=1}", "start:b{}", "end:b", "end:a"}},
      {"comments and declarations are skipped",
       "<?xml version=\"1.0\"?><!-- <b> -- --><a><!----><?pi ?></a>", {"start:a{}", "end:a"}},
      {"blank text is text",
       "<a>\n  <b/>\n</a>\n",
       {"start:a{}", "text:\n  ", "start:b{}", "end:b", "text:\n", "end:a", "text:\n"}},
      {"entities in text and values",
       "<a v=\"&lt;&quot;&apos;&gt;\">x &lt; y &amp;&amp; &quot;z&quot;&apos;</a>",
       {"start:a{v=<\"'>}", "text:x < y && \"z\"'", "end:a"}},
      {"empty document", "", {}},
  };
  // clang-format on
  for (const EventCase& c : cases) {
    SCOPED_TRACE(c.name);
    Result result = parse(c.document);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.events, c.events);
  }
}

struct ErrorCase {
  const char* document;
  std::string message;
  size_t offset;
};

TEST(Parser, ReportsEachSyntaxErrorAtItsConstruct) {
  const ErrorCase cases[] = {
      {"<a><!-- x -- >", "Unfinished comment found", 3},
      {"<?xml version=\"1.0\">", "Unfinished declaration found", 0},
      {"<a", "Cannot find end of tag", 0},
      {"<a></a", "Cannot find end of tag", 3},
      {"<a></a x>", "Element ending tags cannot have attributes", 3},
      {"<a></a/>", "Self terminated tag for end tag: a", 3},
      {"<a></a/x>", "Incorrect end of tag", 3},
      {"<a/></a>", "Unbalanced end tag found: a", 4},
      {"<a><b></a>", "Mismatched end tag found: a != b", 6},
      {"<a/x>", "Incorrect end of tag found", 0},
      {"<a x=\"1\"/ >", "Incorrect end of tag found", 0},
      {"<a><b x>", "Cannot find start of attribute value", 3},
      {"<a x", "Cannot find start of attribute value", 0},
      {"<a x='1'/>", "Attribute value does not start with quote", 0},
      {"<a x= \"1\"/>", "Attribute value does not start with quote", 0},
      {"<a x=\"1/>", "Cannot find end of attribute value", 0},
      {"<a x=\"1\" ", "Cannot find end of tag or start of attribute", 0},
      {"<r>\n<a x=\"1\"><b></b>", "Missing end tag for element: a", 4},
      {"<a>x &; y</a>", "Entity name cannot be empty", 5},
      {"<a>x &nbsp; y</a>", "Unrecognized entity: nbsp", 5},
      {"<a>AT&T rules</a>", "Unrecognized entity: T rules", 5},
      {"<a>&#;</a>", "Unrecognized entity: #", 3},
      {"<a>&#x;</a>", "Unrecognized entity: #x", 3},
      {"<a>&#z1;</a>", "Unrecognized entity: #z1", 3},
      {"<a>&amp;&lt;&bad;</a>", "Unrecognized entity: bad", 12},  // offset as in the file
      {"<a v=\"&amp;&bad;\"/>", "Unrecognized entity: bad", 11},
      {"<a v=\"x&\"/>", "Unrecognized entity: ", 7},
      {"<a>&0123456789012345678901234567890123456789</a>",
       "Unrecognized entity: 01234567890123456789012345678901", 3},
  };
  for (const ErrorCase& c : cases) {
    SCOPED_TRACE(c.document);
    Result result = parse(c.document);
    EXPECT_FALSE(result.ok);
    ASSERT_FALSE(result.events.empty());
    EXPECT_EQ(result.events.back(), "error:" + c.message);
    EXPECT_EQ(std::count_if(result.events.begin(), result.events.end(),
                            [](const std::string& e) { return e.rfind("error:", 0) == 0; }),
              1);
    EXPECT_EQ(result.offsets.back(), c.offset);
    EXPECT_EQ(result.finalOffset, c.offset);
  }
}

TEST(Parser, OffsetsDuringCallbacksAreThoseOfTheOriginalDocument) {
  Result result = parse("<a>&amp;&amp;<b x=\"&lt;\"/>\n</a>");
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.events, (std::vector<std::string>{"start:a{}", "text:&&", "start:b{x=<}",
                                                     "end:b", "text:\n", "end:a"}));
  EXPECT_EQ(result.offsets, (std::vector<size_t>{0, 3, 13, 13, 26, 27}));
}

TEST(Parser, StartsAfreshAfterAnErrorAndWorksWithoutAHandler) {
  RecordingHandler handler;
  Parser parser(&handler);
  std::string bad = "<r><a><b></a>";
  EXPECT_FALSE(parser.parse(bad.data()));
  std::string good = "<c></c>";
  EXPECT_TRUE(parser.parse(good.data()));
  EXPECT_EQ(handler.events.back(), "end:c") << "no element of the failed parse is still open";

  Parser checker(nullptr);
  std::string valid = "<r><a x=\"&amp;\">t</a></r>";
  EXPECT_TRUE(checker.parse(valid.data()));
  std::string unbalanced = "<r><a></r>";
  EXPECT_FALSE(checker.parse(unbalanced.data()));
  EXPECT_EQ(checker.getCurrentOffset(), 6u);
}

struct ReferenceCase {
  const char* reference;
  std::string plain;     // Parser: the low eight bits
  std::string decoding;  // DecodingParser: UTF-8
};

TEST(ParserEntities, CharacterReferencesInBothParsers) {
  const ReferenceCase cases[] = {
      {"&#65;", "A", "A"},
      {"&#x41;", "A", "A"},
      {"&#x4a;&#x4A;", "JJ", "JJ"},
      {"&#00065;", "A", "A"},
      {"&#233;", "\xE9", "\xC3\xA9"},
      {"&#321;", "A", "\xC5\x81"},
      {"&#x800;&#xFFFF;", std::string("\0", 1), "\xE0\xA0\x80\xEF\xBF\xBF"},
      {"&#x1F642;", "B", "\xF0\x9F\x99\x82"},
      {"&#1114111;", "\xFF", "\xF4\x8F\xBF\xBF"},
      {"&#xD841;", "A", "A"},  // a surrogate is no character: the low eight bits
      // Read as far as the number goes; values beyond a character keep their low byte.
      {"&#12a;&#x41g;", "\x0C" "A", "\x0C" "A"},
      {"&#x110041;", "A", "A"},
      {"&#99999999999;", "\xFF", "\xFF"},
  };
  for (const ReferenceCase& c : cases) {
    SCOPED_TRACE(c.reference);
    const std::string document =
        std::string("<a v=\"[") + c.reference + "]\">[" + c.reference + "]</a>";
    // A NUL byte ends the reported text.
    const std::string plain =
        std::string("[") + c.plain.c_str() + (c.plain.find('\0') == std::string::npos ? "]" : "");
    Result withParser = parse<Parser>(document);
    ASSERT_TRUE(withParser.ok);
    EXPECT_EQ(withParser.events,
              (std::vector<std::string>{"start:a{v=" + plain + "}", "text:" + plain, "end:a"}));
    Result withDecoding = parse<DecodingParser>(document);
    ASSERT_TRUE(withDecoding.ok);
    const std::string decoded = "[" + c.decoding + "]";
    EXPECT_EQ(withDecoding.events,
              (std::vector<std::string>{"start:a{v=" + decoded + "}", "text:" + decoded, "end:a"}));
  }
}

TEST(ConvertToUTF8, LengthBoundariesAndRejectedValues) {
  struct Case {
    int codePoint;
    int outSize;
    std::string bytes;  // empty: rejected
  };
  const Case cases[] = {
      {0x41, 1, "A"},
      {0x7F, 4, "\x7F"},
      {0x80, 2, "\xC2\x80"},
      {0x7FF, 4, "\xDF\xBF"},
      {0x800, 3, "\xE0\xA0\x80"},
      {0xFFFF, 4, "\xEF\xBF\xBF"},
      {0x10000, 4, "\xF0\x90\x80\x80"},
      {0x10FFFF, 4, "\xF4\x8F\xBF\xBF"},
      {0x110000, 4, ""},
      {0xD7FF, 4, "\xED\x9F\xBF"},
      {0xD800, 4, ""},
      {0xDFFF, 4, ""},
      {0xE000, 4, "\xEE\x80\x80"},
      {-1, 4, ""},
      {0x800, 2, ""},
      {0x10000, 3, ""},
      {0x41, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.codePoint);
    char out[6] = {'Z', 'Z', 'Z', 'Z', 'Z', 'Z'};
    const int count = convertToUTF8(c.codePoint, out, c.outSize);
    ASSERT_EQ(count, static_cast<int>(c.bytes.size()));
    EXPECT_EQ(std::string(out, static_cast<size_t>(count)), c.bytes);
    // Terminated only when there is room; nothing written beyond outSize.
    const int size = std::max(c.outSize, 0);
    if (count > 0 && count < size) {
      EXPECT_EQ(out[count], '\0');
    }
    EXPECT_EQ(out[std::max(size, count)], 'Z');
  }
}

TEST(SubstituteEntities, EscapesMarkupAndControlCharacters) {
  const std::pair<const char*, const char*> cases[] = {
      {"", ""},
      {"plain caf\xC3\xA9 \x7F", "plain caf\xC3\xA9 \x7F"},
      {"a&b<c>\"d'", "a&amp;b&lt;c&gt;&quot;d&apos;"},
      {"l1\nl2\r\n", "l1&#10;l2&#13;&#10;"},
      {"\t\x01\x1F", "&#09;&#01;&#31;"},
  };
  for (const auto& [text, escaped] : cases) {
    SCOPED_TRACE(text);
    char* out = nullptr;
    substituteEntities(text, &out);
    ASSERT_NE(out, nullptr);
    EXPECT_STREQ(out, escaped);
    free(out);
  }
}

TEST(SubstituteEntities, ParserReadsBackEveryByte) {
  std::string text;
  for (int c = 1; c < 256; ++c) {
    text.push_back(static_cast<char>(c));
  }
  char* escaped = nullptr;
  substituteEntities(text.c_str(), &escaped);
  ASSERT_NE(escaped, nullptr);
  Result result = parse(std::string("<a v=\"") + escaped + "\"/>");
  free(escaped);
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.events, (std::vector<std::string>{"start:a{v=" + text + "}", "end:a"}));
}

TEST(ParserErrorFormat, FormatsIntoABoundedMessage) {
  RecordingHandler handler;
  handler.fatalError("Mismatched end tag found: %s != %s", "b", "a");
  handler.fatalError("Unrecognized entity: %s", nullptr);
  const std::string longName(5000, 'n');
  handler.fatalError("Unrecognized entity: %s", longName.c_str());
  ASSERT_EQ(handler.events.size(), 3u);
  EXPECT_EQ(handler.events[0], "error:Mismatched end tag found: b != a");
  EXPECT_EQ(handler.events[1], "error:Unrecognized entity: ");
  const std::string cut = handler.events[2].substr(6);
  EXPECT_EQ(cut.size(), 1023u);
  EXPECT_EQ(cut, "Unrecognized entity: " + longName.substr(0, 1023 - 21));
}

}  // namespace
