#pragma once

// HttpServer: the agent's embedded HTTP server. It routes requests to AgentApi and
// writes its answers; see AgentApi.h for the endpoints.
//
// A few event loops (epoll, one per processor up to `eventLoops`) hold every
// connection, however slow or idle, at the cost of its memory only. A loop answers
// /healthz and a table request whose rows are current in the cache itself; other
// work (a table that needs a collection, which may take as long as its script) is
// handed to a small pool of threads while the loops go on serving the others. Event
// streams (GET /api/v1/events/stream, EventStreams.h) stay on the loops: one that
// waits for events is set aside until events arrive.
//
// Limits, each answered with a JSON error and the connection closed after it:
//   - the request head (request line and headers) must arrive whole within
//     `headSeconds` of the connection's start or of the previous answer, however
//     slowly it trickles in (slow clients are closed, not waited for);
//   - at most `maxHeaders` header fields (431) and `maxHeadBytes` bytes of head
//     (431, or 414 for the request line);
//   - bodies of at most `maxBodyBytes`, announced by Content-Length (a larger one is
//     refused before it is read: 413); a chunked body, whose size nothing announces,
//     is refused before it is read (411: no endpoint needs a body);
//   - at most `maxConnections` connections, `maxPerAddress` of them from one
//     address (further ones are closed at once);
//   - a known path with another method: 405 with Allow;
//   - at most `maxEventStreams` event streams (EventStreams.h) at once (503).
// With `usersFile` set, every endpoint but the shutdown (guarded by the admin
// token) needs HTTP basic authentication of a user of that file (bcrypt hashes).
// With a certificate and key it speaks HTTPS only.
//
// Not thread-safe itself: one owner binds, starts and stops it.

#include <chrono>
#include <memory>
#include <string>

#include "host/ListenAddress.h"

namespace XRV::host {

class AgentApi;

struct HttpLimits {
  int threads = 8;                  // request work, besides the event loops
  unsigned eventLoops = 4;          // at most, and no more than there are processors
  unsigned maxConnections = 4096;   // bounded by the descriptors the process may open
  unsigned maxPerAddress = 256;     // 0: no limit
  unsigned headSeconds = 10;
  unsigned idleSeconds = 30;        // a kept-alive connection without a request
  unsigned maxHeaders = 100;
  size_t maxHeadBytes = 16 * 1024;
  size_t maxBodyBytes = 64 * 1024;
  unsigned maxEventStreams = 64;
  // Time without output after which an idle event stream gets a comment line.
  std::chrono::milliseconds streamKeepAlive{15000};
  std::string tlsCertificateFile;   // both set: HTTPS
  std::string tlsKeyFile;
  std::string usersFile;            // set: basic authentication for reading
};

class HttpServer {
 public:
  HttpServer(AgentApi& api, const HttpLimits& limits);
  // Stops serving when still running.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds the listening socket and reads the TLS and user files; false with the
  // reason in *error. Port 0 takes any free port (see port()).
  bool bind(const ListenAddress& address, std::string* error);
  // The bound port; 0 before bind.
  int port() const;
  // Serves until stop().
  void start();
  // Open event streams, and the formatted output they hold in bytes.
  size_t eventStreams() const;
  size_t eventStreamBytes() const;
  // Stops accepting, lets the requests in progress finish and returns once every
  // serving thread has ended.
  void stop();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace XRV::host
