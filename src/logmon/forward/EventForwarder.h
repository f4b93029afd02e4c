#pragma once

// EventForwarder: sends the event texts handed to it to an event server, in order,
// through an on-disk spool that keeps them across server outages and agent restarts
// (docs/event-forwarding.md).
//
//   EventForwarder forwarder(config);
//   forwarder.submit(text);   // on the caller's thread: one write() to the spool
//   ...
//   forwarder.stop();         // or the destructor; the spool stays for next time
//
// submit() never waits for the network: it appends the event to the spool and wakes
// the sender thread, which connects (with back-off after failures), learns from the
// server's RESUME what it already holds, sends the rest and deletes what the server
// acknowledges. Every wait of the sender is bounded and watches for stop(), so
// stopping takes a moment, whatever the server does.
//
// Thread-safe: submit() and status() from any threads.

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>

#include "framework/Mutex.h"
#include "logmon/forward/EventConnection.h"
#include "logmon/forward/EventForwarderConfig.h"
#include "logmon/forward/EventSpool.h"

namespace XRV::forward {

struct EventForwarderStatus {
  uint64_t submitted = 0;      // events handed to submit()
  uint64_t sent = 0;           // EVENT frames written to the server, sent again ones too
  uint64_t acknowledged = 0;   // events the server confirmed holding
  uint64_t dropped = 0;        // events lost: spool full, event too large, write failed
  uint64_t reconnects = 0;     // connection attempts after a failure
  uint64_t pendingEvents = 0;  // spooled and not acknowledged
  uint64_t spoolBytes = 0;
  bool connected = false;      // the server has answered RESUME on the open connection
  std::string lastError;       // the latest failure, empty when none yet
};

class EventForwarder {
 public:
  // Opens the spool (see ready()) and starts the sender thread when the
  // configuration names a server.
  explicit EventForwarder(const EventForwarderConfig& config);
  // stop().
  ~EventForwarder();
  EventForwarder(const EventForwarder&) = delete;
  EventForwarder& operator=(const EventForwarder&) = delete;

  // Whether the spool could be opened; when not, status().lastError says why and
  // every submitted event is dropped.
  bool ready() const { return ready_; }
  // The sanitised stream name.
  const std::string& stream() const { return stream_; }

  // Spools one event for sending; false when it was dropped (see status()).
  bool submit(std::string_view eventText) XRV_EXCLUDES(mutex_);
  // Stops the sender thread, flushes the spool to the disk and closes it; later
  // submissions are dropped. Returns within about a second (a slow disk aside).
  void stop() XRV_EXCLUDES(mutex_);

  EventForwarderStatus status() const XRV_EXCLUDES(mutex_);

 private:
  using Clock = EventConnection::Clock;
  class Session;

  void run();
  void backoffWait(std::chrono::milliseconds wait);
  void syncIfDue(Clock::time_point now) XRV_EXCLUDES(mutex_);
  void setError(const std::string& error) XRV_EXCLUDES(mutex_);

  const EventForwarderConfig config_;
  const std::string stream_;
  bool ready_ = false;
  int wakeFd_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> senderIdle_{false};  // the sender waits for submissions: wake it
  std::atomic<bool> connected_{false};
  std::atomic<uint64_t> submitted_{0};
  std::atomic<uint64_t> sent_{0};
  std::atomic<uint64_t> reconnects_{0};

  mutable Mutex mutex_;
  EventSpool spool_ XRV_GUARDED_BY(mutex_);
  bool spoolOpen_ XRV_GUARDED_BY(mutex_) = false;
  uint64_t acknowledged_ XRV_GUARDED_BY(mutex_) = 0;
  uint64_t droppedUnspooled_ XRV_GUARDED_BY(mutex_) = 0;  // while the spool is not open
  bool appendFailing_ XRV_GUARDED_BY(mutex_) = false;
  std::string lastError_ XRV_GUARDED_BY(mutex_);

  // The sender thread's own.
  Clock::time_point nextSync_;
  std::vector<std::string> unsynced_;
  std::thread sender_;
};

}  // namespace XRV::forward
