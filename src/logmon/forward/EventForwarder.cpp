#include "logmon/forward/EventForwarder.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <random>

#include "framework/Trace.h"

namespace XRV::forward {

namespace {

// Frames written ahead of the server's acknowledgements, at most.
constexpr uint64_t MAX_UNACKNOWLEDGED = 8192;
// Bytes of frames read from the spool at a time.
constexpr size_t FILL_BYTES = 256 * 1024;
// Longest line the server may send.
constexpr size_t MAX_LINE = 1024;

// `line` fit for an error text: printable, not too long.
std::string quoted(std::string_view line) {
  std::string text;
  for (const char c : line.substr(0, 100)) {
    text += (c >= ' ' && c <= '~') ? c : '?';
  }
  return "\"" + text + "\"";
}

// The number after `keyword` + ' ' in `line`, which must be all of it.
bool numberAfter(std::string_view line, std::string_view keyword, uint64_t* value) {
  if (line.size() <= keyword.size() + 1 || !line.starts_with(keyword) ||
      line[keyword.size()] != ' ') {
    return false;
  }
  const char* begin = line.data() + keyword.size() + 1;
  const char* end = line.data() + line.size();
  const auto [stop, code] = std::from_chars(begin, end, *value);
  return code == std::errc() && stop == end;
}

}  // namespace

// One connection to the server after another, on the sender thread; keeps its
// buffers from one to the next.
class EventForwarder::Session {
 public:
  explicit Session(EventForwarder& owner)
      : owner_(owner), connection_(owner.wakeFd_, owner.stopping_) {}

  // Connects, resumes and sends until stop() (true) or a failure (false, *error;
  // *established tells whether the server answered RESUME first).
  bool run(bool* established, std::string* error);

 private:
  bool handshake(std::string* error);
  bool readLine(std::string* line, Clock::time_point deadline, std::string* error);
  // Reads what the server sent and takes in its ACK lines.
  bool takeAcks(std::string* error);
  void fill();

  EventForwarder& owner_;
  EventConnection connection_;
  SpoolReader reader_;
  std::string out_;       // frames to write
  size_t outPos_ = 0;
  uint64_t outFrames_ = 0;
  std::string in_;        // what the server sent, not yet taken in
  uint64_t cursor_ = 0;   // the next event to send
  uint64_t sentUpTo_ = 0;
  uint64_t ackedUpTo_ = 0;
  Clock::time_point ackWaitStart_;
  Clock::time_point lastWrite_;
};

bool EventForwarder::Session::readLine(std::string* line, Clock::time_point deadline,
                                       std::string* error) {
  for (;;) {
    if (const size_t end = in_.find('\n'); end != std::string::npos) {
      line->assign(in_, 0, end);
      in_.erase(0, end + 1);
      return true;
    }
    if (in_.size() > MAX_LINE) {
      *error = "the event server sent an overlong line";
      return false;
    }
    char buffer[1024];
    const ssize_t got = connection_.receive(buffer, sizeof buffer, error);
    if (got < 0) {
      return false;
    }
    if (got > 0) {
      in_.append(buffer, static_cast<size_t>(got));
      continue;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (owner_.stopping_.load()) {
      error->clear();
      return false;
    }
    if (left.count() <= 0) {
      *error = "time-out waiting for the event server's RESUME";
      return false;
    }
    connection_.wait(false, std::min(left, std::chrono::milliseconds(1000)));
  }
}

bool EventForwarder::Session::handshake(std::string* error) {
  XRV_TRACE_FN();
  const Clock::time_point deadline = Clock::now() + owner_.config_.connectTimeout;
  if (!connection_.open(owner_.config_, deadline, error)) {
    return false;
  }
  const std::string hello = "XRVEVENTS 1 " + owner_.stream_ + "\n";
  for (size_t written = 0; written < hello.size();) {
    const ssize_t n = connection_.send(hello.data() + written, hello.size() - written, error);
    if (n < 0) {
      return false;
    }
    written += static_cast<size_t>(n);
    if (n == 0) {
      if (owner_.stopping_.load() || Clock::now() >= deadline) {
        *error = owner_.stopping_.load() ? "" : "time-out greeting the event server";
        return false;
      }
      connection_.wait(true, std::chrono::milliseconds(100));
    }
  }
  in_.clear();
  std::string line;
  if (!readLine(&line, deadline, error)) {
    return false;
  }
  uint64_t resume = 0;
  if (!numberAfter(line, "RESUME", &resume)) {
    *error = line.starts_with("ERROR ") ? "the event server refused: " + quoted(line.substr(6))
                                        : "unexpected answer from the event server: " + quoted(line);
    return false;
  }
  MutexLock lock(owner_.mutex_);
  EventSpool& spool = owner_.spool_;
  if (resume > spool.lastSeq() && !spool.renumberAfter(resume, error)) {
    return false;
  }
  owner_.acknowledged_ += spool.acknowledge(resume);
  cursor_ = std::max(resume + 1, spool.firstSeq());
  sentUpTo_ = cursor_ - 1;
  ackedUpTo_ = sentUpTo_;
  XRV_TRACE_DETAIL("The event server holds stream %s up to %llu; sending from %llu",
                   owner_.stream_.c_str(), static_cast<unsigned long long>(resume),
                   static_cast<unsigned long long>(cursor_));
  return true;
}

void EventForwarder::Session::fill() {
  XRV_TRACE_FN();
  out_.clear();
  outPos_ = 0;
  outFrames_ = 0;
  SpoolSegment segment;
  std::string path;
  {
    MutexLock lock(owner_.mutex_);
    // Events the spool dropped while they waited are gone: on from the oldest kept.
    cursor_ = std::max(cursor_, owner_.spool_.firstSeq());
    if (!owner_.spool_.locate(cursor_, &segment)) {
      return;
    }
    cursor_ = std::max(cursor_, segment.firstSeq);
    path = owner_.spool_.segmentPath(segment.firstSeq);
  }
  uint64_t next = cursor_;
  std::string error;
  const int count = reader_.read(path, segment, cursor_, "EVENT ", FILL_BYTES, &out_, &next, &error);
  if (count < 0) {
    out_.clear();
    MutexLock lock(owner_.mutex_);
    SpoolSegment now;
    if (owner_.spool_.locate(cursor_, &now) && now.firstSeq == segment.firstSeq) {
      // Still there, so damaged: what it holds from here on cannot be sent.
      XRV_TRACE_ERROR("Skipping events %llu to %llu of stream %s: %s",
                      static_cast<unsigned long long>(cursor_),
                      static_cast<unsigned long long>(segment.lastSeq), owner_.stream_.c_str(),
                      error.c_str());
      owner_.lastError_ = error;
      cursor_ = segment.lastSeq + 1;
    }  // else deleted meanwhile (spool full): the next fill goes on after it
    return;
  }
  if (count > 0 && ackedUpTo_ == sentUpTo_) {
    ackWaitStart_ = Clock::now();
  }
  outFrames_ = static_cast<uint64_t>(count);
  cursor_ = next;
  sentUpTo_ = next - 1;
}

bool EventForwarder::Session::takeAcks(std::string* error) {
  for (;;) {
    char buffer[4096];
    const ssize_t got = connection_.receive(buffer, sizeof buffer, error);
    if (got < 0) {
      return false;
    }
    if (got == 0) {
      break;
    }
    in_.append(buffer, static_cast<size_t>(got));
  }
  size_t start = 0;
  uint64_t acked = ackedUpTo_;
  for (size_t end; (end = in_.find('\n', start)) != std::string::npos; start = end + 1) {
    const std::string_view line(in_.data() + start, end - start);
    uint64_t seq = 0;
    if (!numberAfter(line, "ACK", &seq)) {
      *error = line.starts_with("ERROR ") ? "the event server refused: " + quoted(line.substr(6))
                                          : "unexpected answer from the event server: " + quoted(line);
      return false;
    }
    if (seq > sentUpTo_) {
      *error = "the event server acknowledged " + std::to_string(seq) + ", not sent yet";
      return false;
    }
    acked = std::max(acked, seq);
  }
  in_.erase(0, start);
  if (in_.size() > MAX_LINE) {
    *error = "the event server sent an overlong line";
    return false;
  }
  if (acked > ackedUpTo_) {
    ackedUpTo_ = acked;
    ackWaitStart_ = Clock::now();
    MutexLock lock(owner_.mutex_);
    owner_.acknowledged_ += owner_.spool_.acknowledge(acked);
  }
  return true;
}

bool EventForwarder::Session::run(bool* established, std::string* error) {
  XRV_TRACE_FN();
  *established = false;
  out_.clear();
  outPos_ = 0;
  outFrames_ = 0;
  const bool opened = handshake(error);
  if (opened) {
    *established = true;
    owner_.connected_ = true;
    lastWrite_ = Clock::now();
    while (!owner_.stopping_.load()) {
      const Clock::time_point now = Clock::now();
      owner_.syncIfDue(now);
      if (outPos_ == out_.size() && sentUpTo_ - ackedUpTo_ < MAX_UNACKNOWLEDGED) {
        fill();
        lastWrite_ = now;
      }
      if (outPos_ < out_.size()) {
        const ssize_t n = connection_.send(out_.data() + outPos_, out_.size() - outPos_, error);
        if (n < 0) {
          break;
        }
        if (n > 0) {
          outPos_ += static_cast<size_t>(n);
          lastWrite_ = now;
          if (outPos_ == out_.size()) {
            owner_.sent_ += outFrames_;
          }
        }
      }
      if (!takeAcks(error)) {
        break;
      }
      const auto timeout = owner_.config_.ioTimeout;
      if (outPos_ < out_.size() && now - lastWrite_ > timeout) {
        *error = "the event server took nothing for " + std::to_string(timeout.count()) + " ms";
        break;
      }
      if (ackedUpTo_ < sentUpTo_ && now - ackWaitStart_ > timeout) {
        *error = "no acknowledgement from the event server for " + std::to_string(timeout.count()) +
                 " ms";
        break;
      }
      const bool writing = outPos_ < out_.size();
      if (!writing && sentUpTo_ - ackedUpTo_ < MAX_UNACKNOWLEDGED) {
        // Nothing to send: ask submit() for a wake-up, then make sure nothing came
        // in between.
        owner_.senderIdle_ = true;
        MutexLock lock(owner_.mutex_);
        if (cursor_ <= owner_.spool_.lastSeq()) {
          owner_.senderIdle_ = false;
          continue;
        }
      }
      connection_.wait(writing, std::min(timeout, owner_.config_.syncInterval));
    }
  }
  owner_.connected_ = false;
  owner_.senderIdle_ = false;
  connection_.close();
  reader_.close();
  if (owner_.stopping_.load()) {
    error->clear();
    return true;
  }
  return false;
}

EventForwarder::EventForwarder(const EventForwarderConfig& config)
    : config_(config),
      stream_(sanitiseStreamName(config.stream)),
      spool_(config.spoolDirectory, stream_, config.spoolMaxBytes) {
  XRV_TRACE_FN();
  std::string error;
  {
    MutexLock lock(mutex_);
    spoolOpen_ = spool_.open(&error);
    ready_ = spoolOpen_;
    if (!spoolOpen_) {
      lastError_ = error;
      XRV_TRACE_ERROR("Event forwarding of stream %s disabled: %s", stream_.c_str(), error.c_str());
      return;
    }
    if (config_.host.empty()) {
      lastError_ = "no event server configured: events are only spooled";
      return;
    }
  }
  wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeFd_ < 0) {
    setError("cannot make the sender's eventfd");
    return;
  }
  nextSync_ = Clock::now() + config_.syncInterval;
  sender_ = std::thread([this] { run(); });
}

EventForwarder::~EventForwarder() {
  stop();
  if (wakeFd_ >= 0) {
    close(wakeFd_);
  }
}

void EventForwarder::stop() {
  XRV_TRACE_FN();
  stopping_ = true;
  if (sender_.joinable()) {
    const uint64_t one = 1;
    if (write(wakeFd_, &one, sizeof one) < 0) {
      // The counter cannot overflow from one write; the sender polls stopping_ anyway.
    }
    sender_.join();
  }
  MutexLock lock(mutex_);
  if (spoolOpen_) {
    bool directory = false;
    spool_.takeUnsynced(&unsynced_, &directory);
    EventSpool::sync(unsynced_, directory, config_.spoolDirectory);
    spool_.close();
    spoolOpen_ = false;
  }
}

bool EventForwarder::submit(std::string_view eventText) {
  submitted_.fetch_add(1, std::memory_order_relaxed);
  {
    MutexLock lock(mutex_);
    if (!spoolOpen_) {
      ++droppedUnspooled_;
      return false;
    }
    if (spool_.append(eventText, &lastError_) == 0) {
      if (!appendFailing_) {
        XRV_TRACE_SITE();
        XRV_TRACE_ERROR("Cannot spool events of stream %s: %s", stream_.c_str(), lastError_.c_str());
        appendFailing_ = true;
      }
      return false;
    }
    appendFailing_ = false;
  }
  if (senderIdle_.exchange(false)) {
    const uint64_t one = 1;
    if (write(wakeFd_, &one, sizeof one) < 0) {
      // Only when the counter is full, that is when the sender has a wake-up waiting.
    }
  }
  return true;
}

EventForwarderStatus EventForwarder::status() const {
  EventForwarderStatus status;
  status.submitted = submitted_.load(std::memory_order_relaxed);
  status.sent = sent_.load();
  status.reconnects = reconnects_.load();
  status.connected = connected_.load();
  MutexLock lock(mutex_);
  status.acknowledged = acknowledged_;
  status.dropped = spool_.dropped() + droppedUnspooled_;
  status.pendingEvents = spool_.pending();
  status.spoolBytes = spool_.bytes();
  status.lastError = lastError_;
  return status;
}

void EventForwarder::setError(const std::string& error) {
  MutexLock lock(mutex_);
  lastError_ = error;
}

void EventForwarder::syncIfDue(Clock::time_point now) {
  if (now < nextSync_) {
    return;
  }
  nextSync_ = now + config_.syncInterval;
  bool directory = false;
  {
    MutexLock lock(mutex_);
    spool_.takeUnsynced(&unsynced_, &directory);
  }
  if (!unsynced_.empty() || directory) {
    EventSpool::sync(unsynced_, directory, config_.spoolDirectory);
  }
}

void EventForwarder::backoffWait(std::chrono::milliseconds wait) {
  const Clock::time_point end = Clock::now() + wait;
  EventConnection idle(wakeFd_, stopping_);  // no socket: waits on the wake-up only
  for (Clock::time_point now = Clock::now(); now < end && !stopping_.load(); now = Clock::now()) {
    syncIfDue(now);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
    idle.wait(false, std::min(left, config_.syncInterval));
  }
}

void EventForwarder::run() {
  XRV_TRACE_FN();
  Session session(*this);
  std::minstd_rand jitter(static_cast<unsigned>(Clock::now().time_since_epoch().count()));
  std::chrono::milliseconds backoff = config_.backoffMin;
  while (!stopping_.load()) {
    bool established = false;
    std::string error;
    if (session.run(&established, &error)) {
      break;
    }
    if (stopping_.load()) {
      break;
    }
    if (established) {
      backoff = config_.backoffMin;
    }
    // Up to a quarter less, so that senders cut off together do not come back together.
    const auto wait = backoff - backoff * static_cast<long>(jitter() % 256) / 1024;
    XRV_TRACE_ERROR("Event server %s:%d, stream %s: %s; trying again in %lld ms",
                    config_.host.c_str(), config_.port, stream_.c_str(), error.c_str(),
                    static_cast<long long>(wait.count()));
    setError(error);
    backoffWait(wait);
    backoff = std::min(backoff * 2, config_.backoffMax);
    reconnects_.fetch_add(1);
  }
}

std::string sanitiseStreamName(std::string_view name) {
  std::string clean;
  for (const char c : name.substr(0, MAX_STREAM_NAME)) {
    const bool allowed = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                         c == '.' || c == '_' || c == ':' || c == '-';
    clean += allowed ? c : '_';
  }
  return clean.empty() ? "events" : clean;
}

}  // namespace XRV::forward
