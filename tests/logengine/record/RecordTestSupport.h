#pragma once
// Rules from a few lines of MDL, and what a builder hands out for a list of lines.

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "mdl/MdlReader.h"
#include "record/RecordBuilder.h"
#include "tail/LineAssembler.h"

namespace xrvlog::test {

// The header lines take lines 1 to 3, so `body` starts on line 4.
inline MdlDocument documentFor(const std::string& body) {
  MdlReadResult read =
      MdlReader::read("//APPL app\n//NAME T E\n//SOURCE FILE '/var/log/app.log'\n" + body);
  if (!read.ok()) {
    throw std::runtime_error(read.error().toString());
  }
  return std::move(read.document());
}

inline std::shared_ptr<const RecordRules> rulesFor(
    const std::string& body, std::size_t maxRecordBytes = RecordRules::kDefaultMaxRecordBytes) {
  return RecordRules::compile(documentFor(body), {}, maxRecordBytes);
}

struct Piece {
  std::string text;
  unsigned flags = kLineComplete;
};

struct Handed {
  std::string record;
  std::uint64_t line;
  bool operator==(const Handed&) const = default;
};

// Feeds the pieces, then flushes when asked; every record handed out, with its line.
inline std::vector<Handed> feed(RecordBuilder& builder, const std::vector<Piece>& pieces,
                                bool flush = true) {
  std::vector<Handed> records;
  const RecordHandler collect = [&](std::string_view record) {
    records.push_back({std::string(record), builder.recordLine()});
  };
  for (const Piece& piece : pieces) {
    builder.addLine(piece.text, piece.flags, collect);
  }
  if (flush) {
    builder.flushPending(collect);
  }
  return records;
}

}  // namespace xrvlog::test
