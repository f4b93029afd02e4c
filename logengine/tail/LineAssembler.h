#pragma once
// Splits the bytes read from one file into lines without copying them: each complete
// line is handed out as a view into the read buffer. A line still missing its newline
// stays in the buffer until the newline arrives; one that grows beyond the bound is
// handed out in pieces flagged kLineCut.

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string_view>

namespace xrvlog {

// Flags passed with each line.
enum LineFlags : unsigned {
  kLineComplete = 0,
  kLineCut = 1,           // longer than the bound: this piece has no newline, the rest follows
  kLineContinued = 2,     // this piece continues a line handed out cut before
  kLineUnterminated = 4,  // the file ended without a newline and will not be read further
};

// The view is valid only during the call.
using LineHandler = std::function<void(std::string_view line, unsigned flags)>;

class LineAssembler {
 public:
  // blockSize: bytes offered to each read; maxLine: longest line held back whole.
  LineAssembler(std::size_t blockSize, std::size_t maxLine);

  // Free space after the held bytes, at least blockSize long: read into it, then call
  // commit with the number of bytes read.
  std::span<char> writable();
  // Hands out every line completed by the n new bytes; returns the number of lines.
  std::size_t commit(std::size_t n, const LineHandler& handler);
  // Hands out the held bytes (if any) flagged kLineUnterminated and forgets them.
  bool flushPartial(const LineHandler& handler);
  void clear();

  std::size_t held() const { return held_; }

 private:
  // Hands out [*start, end) in pieces of the line bound while it is longer than that,
  // each flagged cut; advances *start and returns the number of pieces.
  std::size_t cutLongerThanBound(std::size_t end, std::size_t* start, const LineHandler& handler);
  std::size_t blockSize_;
  std::size_t maxLine_;
  std::unique_ptr<char[]> buffer_;
  std::size_t held_ = 0;
  bool continuing_ = false;
};

}  // namespace xrvlog
