#include "logmon/forward/EventSpool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "framework/Trace.h"
#include "logmon/forward/EventForwarderConfig.h"
#include "logmon/forward/EventRecord.h"

namespace XRV::forward {

namespace {

std::string errnoText(const char* what, const std::string& path) {
  return std::string(what) + " " + path + ": " + std::strerror(errno);
}

// The whole file `path` into *content; false (errno set) when it cannot be read.
bool readWhole(const std::string& path, std::string* content) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  content->clear();
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      const int saved = errno;
      ::close(fd);
      errno = saved;
      return n == 0;
    }
    content->append(buffer, static_cast<size_t>(n));
  }
}

// Writes `size` bytes at the end of `fd`; false when not all of them were written.
bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// "<stream>-<digits>.seg": the digits' value, or 0 when `name` is no segment of
// `stream`.
uint64_t segmentNumber(std::string_view name, const std::string& stream) {
  constexpr std::string_view suffix = ".seg";
  if (name.size() <= stream.size() + 1 + suffix.size() || name.substr(0, stream.size()) != stream ||
      name[stream.size()] != '-' || name.substr(name.size() - suffix.size()) != suffix) {
    return 0;
  }
  const std::string_view digits =
      name.substr(stream.size() + 1, name.size() - stream.size() - 1 - suffix.size());
  uint64_t value = 0;
  const auto [end, code] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (code != std::errc() || end != digits.data() + digits.size() || digits[0] == '0') {
    return 0;
  }
  return value;
}

}  // namespace

EventSpool::EventSpool(std::string directory, std::string stream, uint64_t maxBytes)
    : directory_(std::move(directory)),
      stream_(std::move(stream)),
      maxBytes_(std::max(maxBytes, MIN_SPOOL_BYTES)) {}

EventSpool::~EventSpool() {
  close();
  if (lockFd_ >= 0) {
    ::close(lockFd_);
  }
}

std::string EventSpool::path(const std::string& name) const { return directory_ + "/" + name; }

std::string EventSpool::segmentPath(uint64_t firstSeq) const {
  return path(stream_ + "-" + std::to_string(firstSeq) + ".seg");
}

uint64_t EventSpool::firstSeq() const {
  return segments_.empty() ? nextSeq_ : segments_.front().firstSeq;
}

bool EventSpool::open(std::string* error) {
  XRV_TRACE_FN();
  std::error_code code;
  std::filesystem::create_directories(directory_, code);
  if (code) {
    *error = "cannot make the event spool directory " + directory_ + ": " + code.message();
    return false;
  }
  const std::string lockPath = path(stream_ + ".lock");
  lockFd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lockFd_ < 0) {
    *error = errnoText("cannot open", lockPath);
    return false;
  }
  if (flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
    *error = errno == EWOULDBLOCK
                 ? "the event spool of stream " + stream_ + " in " + directory_ +
                       " is in use by another forwarder"
                 : errnoText("cannot lock", lockPath);
    ::close(lockFd_);
    lockFd_ = -1;
    return false;
  }

  // "<last> <acknowledged>\n"; a missing or damaged file counts as "0 0".
  uint64_t recordedLast = 0;
  uint64_t recordedAcked = 0;
  std::string text;
  if (readWhole(path(stream_ + ".state"), &text)) {
    const char* end = text.data() + text.size();
    const auto [next, status] = std::from_chars(text.data(), end, recordedLast);
    if (status == std::errc() && next != end) {
      std::from_chars(next + 1, end, recordedAcked);
    }
  }

  DIR* dir = opendir(directory_.c_str());
  if (dir == nullptr) {
    *error = errnoText("cannot read the event spool directory", directory_);
    return false;
  }
  std::vector<uint64_t> numbers;
  const std::string tmpPrefix = stream_ + "-";
  while (const dirent* entry = readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (const uint64_t number = segmentNumber(name, stream_); number != 0) {
      numbers.push_back(number);
    } else if (name.starts_with(tmpPrefix) && name.ends_with(".seg.tmp")) {
      // A renumbering that did not finish: its source segments are still there.
      ::unlink(path(std::string(name)).c_str());
    }
  }
  closedir(dir);
  std::sort(numbers.begin(), numbers.end());
  for (const uint64_t number : numbers) {
    if (!scanSegment(number, error)) {
      return false;
    }
  }
  nextSeq_ = std::max(segments_.empty() ? 0 : segments_.back().lastSeq, recordedLast) + 1;
  acked_ = std::min(std::max(firstSeq() - 1, recordedAcked), nextSeq_ - 1);
  opened_ = true;
  XRV_TRACE_DETAIL("Event spool %s of stream %s: %zu segments, events %llu to %llu, %llu bytes",
                   directory_.c_str(), stream_.c_str(), segments_.size(),
                   static_cast<unsigned long long>(firstSeq()),
                   static_cast<unsigned long long>(nextSeq_ - 1),
                   static_cast<unsigned long long>(bytes_));
  return true;
}

bool EventSpool::scanSegment(uint64_t firstSeq, std::string* error) {
  XRV_TRACE_FN();
  const std::string file = segmentPath(firstSeq);
  std::string content;
  if (!readWhole(file, &content)) {
    *error = errnoText("cannot read the event spool segment", file);
    return false;
  }
  const uint64_t previousLast = segments_.empty() ? 0 : segments_.back().lastSeq;
  SpoolSegment segment{firstSeq, firstSeq - 1, 0, false};
  if (firstSeq <= previousLast) {
    XRV_TRACE_ERROR("Deleting event spool segment %s: its events overlap the segment before",
                    file.c_str());
    ::unlink(file.c_str());
    return true;
  }
  for (;;) {
    uint64_t seq = 0;
    uint64_t length = 0;
    size_t total = 0;
    const size_t offset = static_cast<size_t>(segment.bytes);
    if (offset == content.size()) {
      break;
    }
    const RecordParse parsed =
        parseRecord(content.data() + offset, content.size() - offset, &seq, &length, &total);
    if (parsed != RecordParse::COMPLETE || seq != segment.lastSeq + 1) {
      XRV_TRACE_ERROR("Ignoring %zu bytes of a torn or broken record at the end of %s",
                      content.size() - offset, file.c_str());
      if (::truncate(file.c_str(), static_cast<off_t>(offset)) != 0) {
        *error = errnoText("cannot cut the broken end of", file);
        return false;
      }
      break;
    }
    segment.lastSeq = seq;
    segment.bytes += total;
  }
  if (segment.lastSeq < segment.firstSeq) {
    ::unlink(file.c_str());
    return true;
  }
  bytes_ += segment.bytes;
  segments_.push_back(segment);
  return true;
}

uint64_t EventSpool::append(std::string_view text, std::string* error) {
  XRV_TRACE_FN();
  char header[MAX_RECORD_HEADER];
  const size_t headerSize = formatRecordHeader(header, nextSeq_, text.size());
  const uint64_t recordSize = headerSize + text.size() + 1;
  if (recordSize > maxBytes_) {
    ++dropped_;
    *error = "an event of " + std::to_string(text.size()) + " bytes does not fit the event spool of " +
             std::to_string(maxBytes_) + " bytes";
    return 0;
  }
  while (bytes_ + recordSize > maxBytes_) {
    deleteFront("the event spool is full");
  }
  if (appendFd_ < 0) {
    if (!segments_.empty() && segments_.back().lastSeq < segments_.back().firstSeq) {
      segments_.pop_back();  // left empty by a failed write: the new one takes its name
    }
    const std::string file = segmentPath(nextSeq_);
    appendFd_ = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (appendFd_ < 0) {
      ++dropped_;
      *error = errnoText("cannot make the event spool segment", file);
      return 0;
    }
    segments_.push_back(SpoolSegment{nextSeq_, nextSeq_ - 1, 0, true});
    directoryUnsynced_ = true;
  }
  SpoolSegment& segment = segments_.back();
  iovec parts[3] = {{header, headerSize},
                    {const_cast<char*>(text.data()), text.size()},
                    {const_cast<char*>("\n"), 1}};
  const ssize_t written = ::writev(appendFd_, parts, 3);
  if (written != static_cast<ssize_t>(recordSize)) {
    // Disk full, most likely: take back what part of the record got there, so that
    // the segment holds whole records only.
    *error = written < 0 ? errnoText("cannot write to the event spool in", directory_)
                         : "the event spool in " + directory_ + " is out of disk space";
    if (written > 0 && ::ftruncate(appendFd_, static_cast<off_t>(segment.bytes)) != 0) {
      ::close(appendFd_);  // the next event starts a new segment
      appendFd_ = -1;
    }
    ++dropped_;
    return 0;
  }
  segment.lastSeq = nextSeq_;
  segment.bytes += recordSize;
  segment.unsynced = true;
  bytes_ += recordSize;
  if (segment.bytes >= maxBytes_ / 4) {
    ::close(appendFd_);
    appendFd_ = -1;
  }
  return nextSeq_++;
}

void EventSpool::deleteFront(const char* why) {
  XRV_TRACE_FN();
  const SpoolSegment segment = segments_.front();
  if (segments_.size() == 1 && appendFd_ >= 0) {
    ::close(appendFd_);
    appendFd_ = -1;
  }
  const std::string file = segmentPath(segment.firstSeq);
  ::unlink(file.c_str());
  if (segment.lastSeq >= segment.firstSeq && segment.lastSeq > acked_) {
    const uint64_t from = std::max(acked_ + 1, segment.firstSeq);
    dropped_ += segment.lastSeq - from + 1;
    XRV_TRACE_ERROR("Dropped the unacknowledged events %llu to %llu of stream %s: %s",
                    static_cast<unsigned long long>(from),
                    static_cast<unsigned long long>(segment.lastSeq), stream_.c_str(), why);
  }
  bytes_ -= segment.bytes;
  segments_.pop_front();
  directoryUnsynced_ = true;
  if (segments_.empty()) {
    recordState();
  }
}

void EventSpool::recordState() {
  XRV_TRACE_FN();
  // Written whole under another name and renamed, so that it is never half there.
  const std::string file = path(stream_ + ".state");
  const std::string temporary = file + ".tmp";
  const std::string text = std::to_string(nextSeq_ - 1) + " " + std::to_string(acked_) + "\n";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const bool written = fd >= 0 && writeAll(fd, text.data(), text.size());
  if (fd >= 0) {
    ::close(fd);
  }
  if (!written || ::rename(temporary.c_str(), file.c_str()) != 0) {
    XRV_TRACE_ERROR("Cannot record the event numbers of stream %s in %s: %s", stream_.c_str(),
                    file.c_str(), std::strerror(errno));
  }
}

uint64_t EventSpool::acknowledge(uint64_t seq) {
  XRV_TRACE_FN();
  seq = std::min(seq, nextSeq_ - 1);
  // Events the spool dropped before are not acknowledged now.
  const uint64_t before = std::max(acked_, firstSeq() - 1);
  if (seq <= acked_) {
    return 0;
  }
  const uint64_t newly = seq > before ? seq - before : 0;
  acked_ = seq;
  while (!segments_.empty() && segments_.front().lastSeq <= acked_) {
    deleteFront("acknowledged");
  }
  return newly;
}

bool EventSpool::renumberAfter(uint64_t seq, std::string* error) {
  XRV_TRACE_FN();
  // The unacknowledged events, renumbered, into one new segment; then the old ones go.
  std::string content;
  std::string records;
  uint64_t next = seq + 1;
  for (const SpoolSegment& segment : segments_) {
    if (!readWhole(segmentPath(segment.firstSeq), &content)) {
      *error = errnoText("cannot read the event spool segment", segmentPath(segment.firstSeq));
      return false;
    }
    size_t offset = 0;
    uint64_t recordSeq = 0;
    uint64_t length = 0;
    size_t total = 0;
    while (offset < segment.bytes &&
           parseRecord(content.data() + offset, content.size() - offset, &recordSeq, &length,
                       &total) == RecordParse::COMPLETE) {
      if (recordSeq > acked_) {
        char header[MAX_RECORD_HEADER];
        records.append(header, formatRecordHeader(header, next++, length));
        records.append(content, offset + total - length - 1, length + 1);
      }
      offset += total;
    }
  }
  const std::string file = segmentPath(seq + 1);
  if (next > seq + 1) {
    const std::string temporary = file + ".tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const bool written = fd >= 0 && writeAll(fd, records.data(), records.size()) && fsync(fd) == 0;
    if (fd >= 0) {
      ::close(fd);
    }
    if (!written || ::rename(temporary.c_str(), file.c_str()) != 0) {
      *error = errnoText("cannot write the renumbered events to", file);
      ::unlink(temporary.c_str());
      return false;
    }
  }
  close();
  for (const SpoolSegment& segment : segments_) {
    ::unlink(segmentPath(segment.firstSeq).c_str());
  }
  segments_.clear();
  bytes_ = 0;
  if (next > seq + 1) {
    segments_.push_back(SpoolSegment{seq + 1, next - 1, records.size(), false});
    bytes_ = records.size();
  }
  XRV_TRACE_ERROR("The event server holds events of stream %s up to %llu, beyond this spool's "
                  "last (%llu): renumbered %llu unacknowledged events from %llu",
                  stream_.c_str(), static_cast<unsigned long long>(seq),
                  static_cast<unsigned long long>(nextSeq_ - 1),
                  static_cast<unsigned long long>(next - seq - 1),
                  static_cast<unsigned long long>(seq + 1));
  nextSeq_ = next;
  acked_ = seq;
  directoryUnsynced_ = true;
  recordState();
  return true;
}

bool EventSpool::locate(uint64_t seq, SpoolSegment* segment) const {
  // Few segments (about four): a linear search is as good as any.
  for (const SpoolSegment& candidate : segments_) {
    if (candidate.lastSeq >= seq && candidate.lastSeq >= candidate.firstSeq) {
      *segment = candidate;
      return true;
    }
  }
  return false;
}

void EventSpool::takeUnsynced(std::vector<std::string>* files, bool* directory) {
  files->clear();
  for (SpoolSegment& segment : segments_) {
    if (segment.unsynced) {
      files->push_back(segmentPath(segment.firstSeq));
      segment.unsynced = false;
    }
  }
  *directory = directoryUnsynced_;
  directoryUnsynced_ = false;
}

void EventSpool::sync(const std::vector<std::string>& files, bool directory,
                      const std::string& spoolDirectory) {
  XRV_TRACE_FN();
  // fdatasync through a descriptor of our own: the appending one belongs to the
  // spool's lock, and Linux flushes a file's data whichever descriptor asks.
  for (const std::string& file : files) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {  // else deleted meanwhile: nothing to keep
      fdatasync(fd);
      ::close(fd);
    }
  }
  if (directory) {
    const int fd = ::open(spoolDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
      fsync(fd);
      ::close(fd);
    }
  }
}

void EventSpool::close() {
  if (appendFd_ >= 0) {
    ::close(appendFd_);
    appendFd_ = -1;
  }
  if (opened_) {
    recordState();
  }
}

SpoolReader::~SpoolReader() { close(); }

void SpoolReader::close() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

int SpoolReader::read(const std::string& path, const SpoolSegment& segment, uint64_t from,
                      std::string_view prefix, size_t maxBytes, std::string* out, uint64_t* next,
                      std::string* error) {
  XRV_TRACE_FN();
  if (fd_ < 0 || segmentFirst_ != segment.firstSeq || from < seqAtOffset_) {
    close();
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
      *error = errnoText("cannot open the event spool segment", path);
      return -1;
    }
    segmentFirst_ = segment.firstSeq;
    offset_ = 0;
    seqAtOffset_ = segment.firstSeq;
  }
  if (buffer_.empty()) {
    buffer_.resize(65536);
  }
  int appended = 0;
  while (offset_ < segment.bytes && out->size() < maxBytes) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(buffer_.size(), segment.bytes - offset_));
    const ssize_t got = ::pread(fd_, buffer_.data(), want, static_cast<off_t>(offset_));
    if (got < static_cast<ssize_t>(want)) {
      *error = got < 0 ? errnoText("cannot read the event spool segment", path)
                       : "the event spool segment " + path + " is shorter than written";
      close();
      return -1;
    }
    size_t at = 0;
    for (;;) {
      uint64_t seq = 0;
      uint64_t length = 0;
      size_t total = 0;
      const RecordParse parsed =
          parseRecord(buffer_.data() + at, static_cast<size_t>(got) - at, &seq, &length, &total);
      if (parsed == RecordParse::NEED_MORE) {
        if (at == 0) {
          // One record longer than the buffer: make room for it (rare; the buffer
          // keeps its size afterwards).
          if (buffer_.size() >= segment.bytes - offset_) {
            *error = "the event spool segment " + path + " ends in a cut record";
            close();
            return -1;
          }
          buffer_.resize(std::max<size_t>(buffer_.size() * 2, length + MAX_RECORD_HEADER + 1));
        }
        break;
      }
      if (parsed == RecordParse::INVALID || seq != seqAtOffset_) {
        *error = "the event spool segment " + path + " holds a broken record";
        close();
        return -1;
      }
      if (seq >= from) {
        out->append(prefix);
        out->append(buffer_.data() + at, total);
        ++appended;
      }
      at += total;
      offset_ += total;
      ++seqAtOffset_;
      if (at == static_cast<size_t>(got) || out->size() >= maxBytes) {
        break;
      }
    }
  }
  *next = std::max(from, seqAtOffset_);
  return appended;
}

}  // namespace XRV::forward
