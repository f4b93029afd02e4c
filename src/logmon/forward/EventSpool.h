#pragma once

// EventSpool: the events of one stream on disk, from submission until the event
// server acknowledges them (docs/event-forwarding.md, "The spool").
//
// The spool directory holds, per stream:
//   <stream>-<firstSeq>.seg  segments of records "<seq> <length>\n<bytes>\n"
//                            (EventRecord.h), numbered from the first they hold
//   <stream>.state           the highest sequence number used and the highest
//                            acknowledged, written when the last segment goes and
//                            on closing (numbering goes on from it; the
//                            acknowledged one only keeps the counters exact)
//   <stream>.lock            locked while a forwarder uses the stream's spool
//
// Events are numbered 1, 2, ... and the numbering goes on across restarts. A new
// segment starts when the current one passes a quarter of the size limit; a segment
// whose events are all acknowledged is deleted; when an event would take the spool
// past its limit, the oldest segments are deleted and their unacknowledged events
// counted as dropped. Each event is one writev(); nothing waits for the disk here
// (sync() does that, from the sender's thread).
//
// Not thread-safe: EventForwarder holds its lock around every call. SpoolReader reads
// segment files without that lock, within the bounds that locate() gave it.

#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace XRV::forward {

struct SpoolSegment {
  uint64_t firstSeq = 0;
  uint64_t lastSeq = 0;  // firstSeq - 1 while empty
  uint64_t bytes = 0;    // whole records only
  bool unsynced = false;
};

class EventSpool {
 public:
  // `maxBytes` below MIN_SPOOL_BYTES is raised to it. `stream` must be sanitised.
  EventSpool(std::string directory, std::string stream, uint64_t maxBytes);
  ~EventSpool();
  EventSpool(const EventSpool&) = delete;
  EventSpool& operator=(const EventSpool&) = delete;

  // Makes the directory when missing, locks the stream's spool and reads its
  // segments: a torn or broken record ends its segment (the file is cut there). False
  // with the reason in *error; the spool is then unusable.
  bool open(std::string* error);

  // Appends an event and returns its sequence number; 0 when it was dropped (larger
  // than the spool, or the write failed: *error says why). No allocation once the
  // segment list has grown.
  uint64_t append(std::string_view text, std::string* error);

  // The server holds everything up to `seq`: deletes the segments that are all
  // acknowledged. Returns how many events this acknowledged that were not before.
  uint64_t acknowledge(uint64_t seq);

  // The server's numbering is ahead of ours (it holds `seq`, beyond the last event
  // this spool ever wrote: the spool was lost or reset). Rewrites the unacknowledged
  // events as numbers seq + 1, ... so the server takes them as new, and goes on
  // from there. False with *error when the rewrite failed (nothing changed then).
  bool renumberAfter(uint64_t seq, std::string* error);

  // The segment holding `seq`, or the first after it when `seq` falls where no
  // segment is (dropped or broken events); false when no later event is held.
  bool locate(uint64_t seq, SpoolSegment* segment) const;
  std::string segmentPath(uint64_t firstSeq) const;

  uint64_t firstSeq() const;  // the oldest event held; lastSeq() + 1 when none
  uint64_t lastSeq() const { return nextSeq_ - 1; }
  uint64_t acknowledged() const { return acked_; }
  // Events held and not acknowledged.
  uint64_t pending() const { return nextSeq_ - 1 - std::max(acked_, firstSeq() - 1); }
  uint64_t bytes() const { return bytes_; }
  uint64_t dropped() const { return dropped_; }
  size_t segmentCount() const { return segments_.size(); }

  // The files written since the last call (segments, and the directory itself when
  // files came or went), for sync() outside the caller's lock.
  void takeUnsynced(std::vector<std::string>* files, bool* directory);
  // Flushes those files and, with `directory`, the directory to the disk.
  static void sync(const std::vector<std::string>& files, bool directory,
                   const std::string& spoolDirectory);

  // Closes the current segment and records the numbering. The spool stays on disk.
  void close();

 private:
  bool scanSegment(uint64_t firstSeq, std::string* error);
  void deleteFront(const char* why);
  void recordState();
  std::string path(const std::string& name) const;

  std::string directory_;
  std::string stream_;
  uint64_t maxBytes_;
  bool opened_ = false;
  int lockFd_ = -1;
  int appendFd_ = -1;  // the last segment's, while it takes more events
  std::deque<SpoolSegment> segments_;
  uint64_t nextSeq_ = 1;
  uint64_t acked_ = 0;
  uint64_t bytes_ = 0;
  uint64_t dropped_ = 0;
  bool directoryUnsynced_ = false;
};

// Reads the records of one segment from a sequence number on, as the sender needs
// them. Keeps its file open and its place between calls.
class SpoolReader {
 public:
  SpoolReader() = default;
  ~SpoolReader();
  SpoolReader(const SpoolReader&) = delete;
  SpoolReader& operator=(const SpoolReader&) = delete;

  // Appends `prefix` + record for each event of `segment` (file `path`) from `from`
  // on to `out`, until `out` holds `maxBytes` or more or the segment's known end;
  // *next is then the number after the last one appended. Returns the count
  // appended, or -1 (*error set) when the file is gone or not what the spool wrote.
  int read(const std::string& path, const SpoolSegment& segment, uint64_t from,
           std::string_view prefix, size_t maxBytes, std::string* out, uint64_t* next,
           std::string* error);
  void close();

 private:
  int fd_ = -1;
  uint64_t segmentFirst_ = 0;
  uint64_t offset_ = 0;   // where the record numbered seqAtOffset_ starts
  uint64_t seqAtOffset_ = 0;
  std::vector<char> buffer_;
};

}  // namespace XRV::forward
