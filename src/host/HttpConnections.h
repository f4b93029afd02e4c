#pragma once

// HttpConnections: the HTTP server's open connections and the deadline for each
// request head. A connection's head clock starts when it is accepted and again when
// an answer has gone out; a connection whose request head is not complete
// `headSeconds` later (a client trickling a byte every few seconds, or saying
// nothing at all) is shut down by a sweep once a second. Its event loop closes it
// then, as any connection whose peer went away.
//
// Thread-safe: the event loops report connections and heads, the sweep runs on a
// thread of its own; one lock guards the table, and a descriptor is shut down only
// while its connection is in the table (the loop reports a connection closed before
// it closes the descriptor).

#include <microhttpd.h>

#include <chrono>
#include <condition_variable>
#include <thread>
#include <unordered_set>

#include "framework/Mutex.h"

namespace XRV::host {

class HttpConnections {
 public:
  explicit HttpConnections(unsigned headSeconds) : headSeconds_(headSeconds) {}
  ~HttpConnections() { stop(); }
  HttpConnections(const HttpConnections&) = delete;
  HttpConnections& operator=(const HttpConnections&) = delete;

  // From the event loops.
  void opened(MHD_Connection* connection, void** socketContext);
  void closed(void** socketContext);
  void headDone(MHD_Connection* connection);
  void requestDone(MHD_Connection* connection);

  size_t count();
  // The sweep.
  void start();
  void stop();

 private:
  struct State {
    int fd;
    std::chrono::steady_clock::time_point since;  // of the head being waited for
    bool waitingForHead;
  };
  void sweep();

  const unsigned headSeconds_;
  XRV::Mutex mutex_;
  std::condition_variable wake_;
  // The states' fields too are read and written under mutex_.
  std::unordered_set<State*> states_ XRV_GUARDED_BY(mutex_);
  bool stopping_ XRV_GUARDED_BY(mutex_) = false;
  // Memory given back since the last connection closed.
  bool trimmed_ XRV_GUARDED_BY(mutex_) = true;
  std::thread sweeper_;  // started and joined by the owner's thread
};

}  // namespace XRV::host
