#include "tail/LineAssembler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace xrvlog {
namespace {

struct Piece {
  std::string text;
  unsigned flags;
  bool operator==(const Piece&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Piece& p) {
  return os << '"' << p.text << "\"/" << p.flags;
}

// Feeds the chunks one read each, then flushes what is held; checks the counts and
// the held bytes reported on the way.
std::vector<Piece> feed(std::size_t block, std::size_t maxLine,
                        const std::vector<std::string>& chunks) {
  LineAssembler lines(block, maxLine);
  std::vector<Piece> out;
  const LineHandler handler = [&](std::string_view line, unsigned flags) {
    out.push_back({std::string(line), flags});
  };
  for (const auto& chunk : chunks) {
    for (std::size_t at = 0; at < chunk.size();) {
      auto space = lines.writable();
      EXPECT_GE(space.size(), block);
      const std::size_t n = std::min(space.size(), chunk.size() - at);
      std::memcpy(space.data(), chunk.data() + at, n);
      const std::size_t before = out.size();
      const std::size_t counted = lines.commit(n, handler);
      EXPECT_EQ(counted, out.size() - before);
      at += n;
    }
  }
  const std::size_t held = lines.held();
  EXPECT_EQ(lines.flushPartial(handler), held != 0);
  EXPECT_EQ(held, held != 0 ? out.back().text.size() : 0U);
  EXPECT_EQ(lines.held(), 0U);
  return out;
}

TEST(LineAssemblerTest, SplitsHoldsAndCutsLines) {
  struct Case {
    const char* name;
    std::size_t block, maxLine;
    std::vector<std::string> chunks;
    std::vector<Piece> expected;
  };
  const Case cases[] = {
      {"whole lines", 64, 64, {"a\nbb\n\n"}, {{"a", 0}, {"bb", 0}, {"", 0}}},
      {"line split across reads", 64, 64, {"ab", "c\nd", "e\n"}, {{"abc", 0}, {"de", 0}}},
      {"newline alone completes held bytes", 64, 64, {"held", "\n"}, {{"held", 0}}},
      {"unterminated tail flushed", 64, 64, {"x\ntail"}, {{"x", 0}, {"tail", kLineUnterminated}}},
      {"long line cut at the bound",
       4,
       5,
       {"abcdefghijkl\nz\n"},
       {{"abcde", kLineCut},
        {"fghij", kLineCut | kLineContinued},
        {"kl", kLineContinued},
        {"z", 0}}},
      {"cut line ending unterminated",
       4,
       3,
       {"abcdefg"},
       {{"abc", kLineCut},
        {"def", kLineCut | kLineContinued},
        {"g", kLineUnterminated | kLineContinued}}},
      {"line of exactly the bound stays whole", 2, 4, {"ab", "cd", "\n"}, {{"abcd", 0}}},
      {"tiny block, many reads",
       1,
       16,
       {"one\ntwo\nthree\n"},
       {{"one", 0}, {"two", 0}, {"three", 0}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(feed(c.block, c.maxLine, c.chunks), c.expected);
  }
}

}  // namespace
}  // namespace xrvlog
