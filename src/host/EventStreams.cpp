#include "host/EventStreams.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "framework/Trace.h"
#include "host/JsonWriter.h"

namespace XRV::host {
namespace {

using Clock = std::chrono::steady_clock;

// Events read from the ring at a time.
constexpr size_t kBatch = 16;
// The first output: how long a client that lost the stream waits before it
// reconnects. It also lets the client see the stream open at once.
constexpr const char kGreeting[] = "retry: 2000\n\n";
constexpr const char kKeepAlive[] = ": keep-alive\n\n";

void appendEvent(std::string& out, const StoredEvent& event) {
  out += "id: ";
  out += std::to_string(event.seq);
  out += "\nevent: event\ndata: ";
  JsonWriter json;
  writeEventJson(json, event);
  out += json.text();
  out += "\n\n";
}

// `lastMissed`: the sequence number of the last event missed, so that a client
// reconnecting with it goes on from the oldest held.
void appendMissed(std::string& out, uint64_t lastMissed, uint64_t missed) {
  out += "id: ";
  out += std::to_string(lastMissed);
  out += "\nevent: missed\ndata: {\"missed\":";
  out += std::to_string(missed);
  out += "}\n\n";
}

}  // namespace

struct EventStreams::Client {
  EventStreams* owner = nullptr;
  MHD_Connection* connection = nullptr;
  int fd = -1;
  std::string group;
  uint64_t next = 0;       // the next sequence number to look at
  std::string pending;     // formatted output not yet handed to the server
  size_t sent = 0;         // of pending
  bool suspended = false;  // waiting for events (or its keep-alive)
  bool probe = false;      // its client may have gone: write, so that the loop finds out
  Clock::time_point lastOutput;
};

EventStreams::EventStreams(EventRing& ring, unsigned maxClients,
                           std::chrono::milliseconds keepAlive)
    : ring_(ring),
      maxClients_(maxClients),
      keepAlive_(keepAlive),
      tick_(std::clamp(keepAlive / 4, std::chrono::milliseconds(10),
                       std::chrono::milliseconds(1000))),
      stopFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      waitFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

EventStreams::~EventStreams() {
  stop(std::chrono::milliseconds(0));
  for (int fd : {stopFd_, waitFd_}) {
    if (fd >= 0) {
      close(fd);
    }
  }
}

EventStreams::Opened EventStreams::open(MHD_Connection* connection, const EventStreamStart& start) {
  XRV_TRACE_FN();
  auto client = std::make_unique<Client>();
  client->owner = this;
  client->connection = connection;
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  client->fd = info == nullptr ? -1 : info->connect_fd;
  client->group = start.group;
  client->next = start.fromOldest ? ring_.oldestHeld() : start.since;
  client->pending = kGreeting;
  client->lastOutput = Clock::now();
  size_t open = 0;
  {
    XRV::MutexLock lock(mutex_);
    if (stopping_) {
      return Opened::STOPPING;
    }
    if (clients_.size() >= maxClients_) {
      return Opened::FULL;
    }
    clients_.insert(client.get());
    open = clients_.size();
  }
  MHD_Response* response = MHD_create_response_from_callback(
      MHD_SIZE_UNKNOWN, kFillBytes, &EventStreams::produce, client.get(), &EventStreams::release);
  if (response == nullptr) {
    XRV::MutexLock lock(mutex_);
    clients_.erase(client.get());
    return Opened::FAILED;
  }
  XRV_TRACE_DETAIL("Event stream %zu of %u opened: group %s, from %llu", open, maxClients_,
                   start.group.empty() ? "(all)" : start.group.c_str(),
                   static_cast<unsigned long long>(client->next));
  client.release();  // the response's now: release() deletes it
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/event-stream");
  MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-cache");
  const MHD_Result queued = MHD_queue_response(connection, MHD_HTTP_OK, response);
  MHD_destroy_response(response);
  return queued == MHD_YES ? Opened::QUEUED : Opened::FAILED;
}

ssize_t EventStreams::produce(void* client, uint64_t /*position*/, char* buffer, size_t max) {
  auto* stream = static_cast<Client*>(client);
  return stream->owner->output(*stream, buffer, max);
}

void EventStreams::release(void* client) {
  auto* stream = static_cast<Client*>(client);
  EventStreams& owner = *stream->owner;
  size_t open = 0;
  {
    XRV::MutexLock lock(owner.mutex_);
    owner.clients_.erase(stream);
    open = owner.clients_.size();
  }
  owner.closed_.notify_all();
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Event stream closed after event %llu, %zu still open",
                   static_cast<unsigned long long>(stream->next), open);
  delete stream;
}

ssize_t EventStreams::output(Client& client, char* buffer, size_t max) {
  XRV::MutexLock lock(mutex_);
  if (stopping_) {
    return MHD_CONTENT_READER_END_OF_STREAM;
  }
  const Clock::time_point now = Clock::now();
  if (client.sent == client.pending.size()) {
    client.pending.clear();
    client.sent = 0;
    if (client.pending.capacity() > 2 * kFillBytes) {
      client.pending.shrink_to_fit();  // after an event far larger than the others
    }
    fill(client);
    if (client.pending.empty() && (client.probe || now - client.lastOutput >= keepAlive_)) {
      client.pending = kKeepAlive;
    }
    client.probe = false;
    if (client.pending.empty()) {
      // Resumed by the pump when events arrive or its keep-alive is due. The lock
      // is held from the look at the ring to here: the pump cannot miss the wait.
      client.suspended = true;
      if (!pumpWatches_) {
        pumpWatches_ = true;
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t written = write(waitFd_, &one, sizeof one);
      }
      MHD_suspend_connection(client.connection);
      return 0;
    }
  }
  const size_t count = std::min(max, client.pending.size() - client.sent);
  memcpy(buffer, client.pending.data() + client.sent, count);
  client.sent += count;
  client.lastOutput = now;
  return static_cast<ssize_t>(count);
}

void EventStreams::fill(Client& client) {
  while (client.pending.size() < kFillBytes) {
    const EventPage page = ring_.read(client.next, client.group, kBatch);
    if (page.dropped > 0) {
      appendMissed(client.pending, std::max<uint64_t>(client.next, 1) + page.dropped - 1,
                   page.dropped);
    }
    size_t used = 0;
    while (used < page.events.size() && client.pending.size() < kFillBytes) {
      appendEvent(client.pending, page.events[used++]);
    }
    if (used < page.events.size()) {
      client.next = page.events[used].seq;
      return;
    }
    client.next = page.next;
    if (page.events.size() < kBatch) {
      return;  // all there is
    }
  }
}

void EventStreams::start() {
  XRV::MutexLock lock(mutex_);
  if (!pump_.joinable() && !stopping_) {
    pump_ = std::thread(&EventStreams::pump, this);
  }
}

void EventStreams::pump() {
  XRV_TRACE_FN();
  const int added = ring_.addedFd();
  for (;;) {
    // Without a waiting stream the ring's signal is left as it is: adds write it only
    // while it is not set, so that one signal stands for all events until a stream
    // waits again (it is then taken at once, and the stream looks at the ring anew).
    bool watch = true;
    if (added >= 0 && waitFd_ >= 0) {
      XRV::MutexLock lock(mutex_);
      watch = std::any_of(clients_.begin(), clients_.end(),
                          [](const Client* client) { return client->suspended; });
      pumpWatches_ = watch;
    }
    pollfd waits[3] = {{stopFd_, POLLIN, 0}, {waitFd_, POLLIN, 0}, {added, POLLIN, 0}};
    const int ready = poll(waits, added < 0 || !watch ? 2 : 3, static_cast<int>(tick_.count()));
    if (stopFd_ < 0 || (ready > 0 && (waits[0].revents & POLLIN) != 0)) {
      XRV::MutexLock lock(mutex_);
      if (stopping_) {
        return;
      }
    }
    if (ready > 0 && (waits[1].revents & POLLIN) != 0) {
      uint64_t count = 0;
      [[maybe_unused]] ssize_t got = read(waitFd_, &count, sizeof count);
      continue;  // a stream waits: watch the ring
    }
    const bool eventsAdded = added < 0 || (watch && ready > 0 && (waits[2].revents & POLLIN) != 0);
    if (eventsAdded) {
      ring_.takeAddedSignal();
    }
    resumeWaiting(eventsAdded);
  }
}

void EventStreams::resumeWaiting(bool eventsAdded) {
  std::vector<MHD_Connection*> resume;
  {
    XRV::MutexLock lock(mutex_);
    const Clock::time_point now = Clock::now();
    std::vector<Client*> idle;
    std::vector<pollfd> sockets;
    for (Client* client : clients_) {
      if (!client->suspended) {
        continue;
      }
      if (eventsAdded || now - client->lastOutput >= keepAlive_) {
        client->suspended = false;
        resume.push_back(client->connection);
      } else if (client->fd >= 0) {
        idle.push_back(client);
        sockets.push_back(pollfd{client->fd, POLLRDHUP, 0});
      }
    }
    // The server does not watch a waiting stream's socket: look whether its client
    // hung up, and let the loop find out by writing to it.
    if (!sockets.empty() && poll(sockets.data(), sockets.size(), 0) > 0) {
      for (size_t i = 0; i < sockets.size(); ++i) {
        if ((sockets[i].revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
          idle[i]->suspended = false;
          idle[i]->probe = true;
          resume.push_back(idle[i]->connection);
        }
      }
    }
  }
  // Outside the lock: only this thread and stop() (after joining it) resume, so the
  // connections stay suspended, and alive, until then.
  for (MHD_Connection* connection : resume) {
    MHD_resume_connection(connection);
  }
}

void EventStreams::stop(std::chrono::milliseconds limit) {
  {
    XRV::MutexLock lock(mutex_);
    stopping_ = true;
  }
  if (stopFd_ >= 0) {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t written = write(stopFd_, &one, sizeof one);
  }
  if (pump_.joinable()) {
    pump_.join();
  }
  std::vector<MHD_Connection*> resume;
  XRV::MutexLock lock(mutex_);
  for (Client* client : clients_) {
    if (client->suspended) {
      client->suspended = false;
      resume.push_back(client->connection);
    }
  }
  lock.unlock();
  // Resumed, each stream ends at its next output: a suspended connection must not
  // outlive the server's stop.
  for (MHD_Connection* connection : resume) {
    MHD_resume_connection(connection);
  }
  lock.lock();
  closed_.wait_for(lock.native(), limit,
                   [this]() XRV_NO_THREAD_SAFETY_ANALYSIS { return clients_.empty(); });
}

size_t EventStreams::clients() {
  XRV::MutexLock lock(mutex_);
  return clients_.size();
}

size_t EventStreams::bufferedBytes() {
  XRV::MutexLock lock(mutex_);
  size_t bytes = 0;
  for (const Client* client : clients_) {
    bytes += client->pending.capacity();
  }
  return bytes;
}

}  // namespace XRV::host
