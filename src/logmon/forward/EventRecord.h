#pragma once

// The framing shared by the spool's records and the protocol's EVENT frames:
//
//   <seq> <length>\n<length bytes>\n
//
// `seq` and `length` are decimal without leading zeros or signs; the bytes are
// anything (event texts may span lines). A spool record is exactly this; an EVENT
// frame is "EVENT " followed by it.

#include <cstddef>
#include <cstdint>

namespace XRV::forward {

// Longest header "<seq> <length>\n" (two 20-digit numbers, a space, a newline).
inline constexpr size_t MAX_RECORD_HEADER = 42;

// Writes the header for `seq` and `length` into `out` (at least MAX_RECORD_HEADER
// bytes) and returns its length.
size_t formatRecordHeader(char* out, uint64_t seq, uint64_t length);

enum class RecordParse {
  COMPLETE,   // a whole record: *seq, *length, *total (header + bytes + newline) set
  NEED_MORE,  // a valid start of a record, cut short
  INVALID,    // not a record
};

// Parses the record at the start of `data` (`size` bytes).
RecordParse parseRecord(const char* data, size_t size, uint64_t* seq, uint64_t* length,
                        size_t* total);

}  // namespace XRV::forward
