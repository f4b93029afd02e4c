#include "LineAssembler.h"

#include <cstring>

namespace xrvlog {

LineAssembler::LineAssembler(std::size_t blockSize, std::size_t maxLine)
    : blockSize_(blockSize == 0 ? 1 : blockSize),
      maxLine_(maxLine == 0 ? 1 : maxLine),
      buffer_(new char[blockSize_ + maxLine_]) {}

std::span<char> LineAssembler::writable() {
  return {buffer_.get() + held_, blockSize_ + maxLine_ - held_};
}

std::size_t LineAssembler::commit(std::size_t n, const LineHandler& handler) {
  char* const base = buffer_.get();
  const std::size_t end = held_ + n;
  std::size_t start = 0;
  std::size_t scan = held_;  // the held bytes hold no newline
  std::size_t lines = 0;
  while (scan < end) {
    const void* nl = std::memchr(base + scan, '\n', end - scan);
    if (nl == nullptr) {
      break;
    }
    const std::size_t at = static_cast<std::size_t>(static_cast<const char*>(nl) - base);
    lines += cutLongerThanBound(at, &start, handler);
    handler(std::string_view(base + start, at - start),
            continuing_ ? kLineContinued : kLineComplete);
    continuing_ = false;
    ++lines;
    start = at + 1;
    scan = start;
  }
  // What is left has no newline: cut it while it exceeds the bound.
  lines += cutLongerThanBound(end, &start, handler);
  held_ = end - start;
  if (held_ != 0 && start != 0) {
    std::memmove(base, base + start, held_);
  }
  return lines;
}

std::size_t LineAssembler::cutLongerThanBound(std::size_t end, std::size_t* start,
                                              const LineHandler& handler) {
  std::size_t pieces = 0;
  while (end - *start > maxLine_) {
    handler(std::string_view(buffer_.get() + *start, maxLine_),
            kLineCut | (continuing_ ? kLineContinued : 0U));
    continuing_ = true;
    ++pieces;
    *start += maxLine_;
  }
  return pieces;
}

bool LineAssembler::flushPartial(const LineHandler& handler) {
  if (held_ == 0) {
    continuing_ = false;
    return false;
  }
  handler(std::string_view(buffer_.get(), held_),
          kLineUnterminated | (continuing_ ? kLineContinued : 0U));
  clear();
  return true;
}

void LineAssembler::clear() {
  held_ = 0;
  continuing_ = false;
}

}  // namespace xrvlog
