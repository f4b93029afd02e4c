#pragma once

// EventStreams: GET /api/v1/events/stream, the event ring served as Server-Sent
// Events to clients that watch it.
//
// Every row is one message:
//
//   id: 42
//   event: event
//   data: {"seq":42,"group":"Log_Errors",...}     (as GET /api/v1/events lists it)
//
// A stream starts at the position its client gives (EventStreamStart), without one
// with the oldest event held when it opens. A client that fell behind the ring (the
// events after its position were overwritten before it took them) gets
// `event: missed` with `data: {"missed":N}` (events of any group) and the id of the
// last event it missed, and goes on with the oldest held.
// After `keepAlive` without output an idle stream gets a comment line, so that
// proxies keep it open. A reconnecting client sends Last-Event-ID and gets exactly
// the events after it that the ring still holds.
//
// Nothing waits for a client. Adding an event only signals the ring's eventfd; the
// pump thread then resumes the streams that wait for events (suspended connections,
// which the server neither watches nor times out meanwhile). The pump watches the
// ring only while a stream waits, so that events nobody waits for cost no wake-up:
// the first stream to wait wakes it to watch again. Each stream pulls
// from the ring by sequence number when its connection can take more: the server's
// event loop asks for output only while the socket accepts it. What a stream holds
// of its own is one batch of formatted events (kFillBytes and at most one event
// beyond); a client that reads nothing holds no more, and its connection is closed
// once nothing went out for the server's idle time-out (XRV_HTTP_IDLE_TIMEOUT).
// At most `maxClients` streams are open at once; the pump also notices a stream
// whose client went away while it waited, so that its place comes free within a
// second or two.
//
// Thread-safe: the event loops open streams and ask for their output, the pump runs
// on a thread of its own, the server's owner starts and stops it. One lock guards
// the streams; it is taken before the ring's, and MHD_suspend_connection is the only
// library call made under it (from the connection's own event loop).

#include <microhttpd.h>

#include <chrono>
#include <condition_variable>
#include <string>
#include <thread>
#include <unordered_set>

#include "framework/Mutex.h"
#include "host/AgentApi.h"
#include "host/EventRing.h"

namespace XRV::host {

class EventStreams {
 public:
  // A stream's own output is formatted in batches of about this size.
  static constexpr size_t kFillBytes = 8 * 1024;

  EventStreams(EventRing& ring, unsigned maxClients, std::chrono::milliseconds keepAlive);
  ~EventStreams();
  EventStreams(const EventStreams&) = delete;
  EventStreams& operator=(const EventStreams&) = delete;

  enum class Opened { QUEUED, FAILED, FULL, STOPPING };
  // Queues the stream as the answer to `connection` (from its access handler).
  // FULL and STOPPING queue nothing: the caller refuses the request.
  Opened open(MHD_Connection* connection, const EventStreamStart& start);

  // The pump.
  void start();
  // Ends every stream (its client sees the end of the response) and waits up to
  // `limit` for their connections to finish; a client that reads nothing is left to
  // the server's stop. No stream opens afterwards.
  void stop(std::chrono::milliseconds limit);

  size_t clients();
  // Formatted output the streams hold, in bytes of memory.
  size_t bufferedBytes();

  struct Client;

 private:
  static ssize_t produce(void* client, uint64_t position, char* buffer, size_t max);
  static void release(void* client);
  ssize_t output(Client& client, char* buffer, size_t max);
  void fill(Client& client) XRV_REQUIRES(mutex_);
  void pump();
  void resumeWaiting(bool eventsAdded);

  EventRing& ring_;
  const unsigned maxClients_;
  const std::chrono::milliseconds keepAlive_;
  const std::chrono::milliseconds tick_;  // how often the pump looks without being woken
  int stopFd_ = -1;                       // eventfd that wakes the pump to end
  int waitFd_ = -1;  // eventfd that wakes the pump when a stream begins to wait
  XRV::Mutex mutex_;
  std::condition_variable closed_;
  // The clients' fields too are read and written under mutex_.
  std::unordered_set<Client*> clients_ XRV_GUARDED_BY(mutex_);
  bool stopping_ XRV_GUARDED_BY(mutex_) = false;
  // The pump watches the ring's eventfd (or is about to); a stream that begins to
  // wait while it does not wakes it through waitFd_.
  bool pumpWatches_ XRV_GUARDED_BY(mutex_) = true;
  std::thread pump_;  // started and joined by the owner's thread
};

}  // namespace XRV::host
