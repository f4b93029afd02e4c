#include "host/HttpConnections.h"

#include <malloc.h>
#include <sys/socket.h>

#include "framework/Trace.h"

namespace XRV::host {
namespace {

void* socketContextOf(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return info == nullptr ? nullptr : info->socket_context;
}

}  // namespace

void HttpConnections::opened(MHD_Connection* connection, void** socketContext) {
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  auto* state = new State{info == nullptr ? -1 : info->connect_fd,
                          std::chrono::steady_clock::now(), true};
  *socketContext = state;
  XRV::MutexLock lock(mutex_);
  states_.insert(state);
  trimmed_ = false;
}

void HttpConnections::closed(void** socketContext) {
  auto* state = static_cast<State*>(*socketContext);
  if (state == nullptr) {
    return;
  }
  {
    XRV::MutexLock lock(mutex_);
    states_.erase(state);
  }
  delete state;
  *socketContext = nullptr;
}

void HttpConnections::headDone(MHD_Connection* connection) {
  auto* state = static_cast<State*>(socketContextOf(connection));
  if (state != nullptr) {
    XRV::MutexLock lock(mutex_);
    state->waitingForHead = false;
  }
}

void HttpConnections::requestDone(MHD_Connection* connection) {
  auto* state = static_cast<State*>(socketContextOf(connection));
  if (state != nullptr) {
    XRV::MutexLock lock(mutex_);
    state->waitingForHead = true;
    state->since = std::chrono::steady_clock::now();
  }
}

size_t HttpConnections::count() {
  XRV::MutexLock lock(mutex_);
  return states_.size();
}

void HttpConnections::start() {
  XRV::MutexLock lock(mutex_);
  stopping_ = false;
  if (!sweeper_.joinable()) {
    sweeper_ = std::thread(&HttpConnections::sweep, this);
  }
}

void HttpConnections::stop() {
  {
    XRV::MutexLock lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (sweeper_.joinable()) {
    sweeper_.join();
  }
}

void HttpConnections::sweep() {
  XRV_TRACE_FN();
  XRV::MutexLock lock(mutex_);
  for (;;) {
    const auto pauseEnd = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (!stopping_ && wake_.wait_until(lock.native(), pauseEnd) != std::cv_status::timeout) {
    }
    if (stopping_) {
      return;
    }
    const auto deadline = std::chrono::steady_clock::now() - std::chrono::seconds(headSeconds_);
    size_t late = 0;
    for (State* state : states_) {
      if (state->waitingForHead && state->since < deadline && state->fd >= 0) {
        // The loop sees the connection end and closes it; until then it stays listed.
        shutdown(state->fd, SHUT_RDWR);
        state->waitingForHead = false;
        ++late;
      }
    }
    if (late > 0) {
      XRV_TRACE_DETAIL("Closed %zu connections whose request head took over %u s", late,
                       headSeconds_);
    }
    if (states_.empty() && !trimmed_) {
      // After a burst of connections, give their memory back to the system.
      trimmed_ = true;
      malloc_trim(0);
    }
  }
}

}  // namespace XRV::host
