#pragma once

// HttpServer: the agent's embedded HTTP server. It routes requests to AgentApi and
// writes its answers; see AgentApi.h for the endpoints.
//
// Requests are served by a fixed pool of threads, one connection per thread at a time
// (a kept-alive connection gives its thread back after 20 requests or 2 idle seconds,
// so that waiting connections get their turn). Bodies above 64 KiB are refused. Routes that do not
// exist, wrong methods and oversized requests get a JSON error like every other failure.
//
// Not thread-safe itself: one owner binds, starts and stops it.

#include <memory>
#include <string>

#include "framework/host/ListenAddress.h"

namespace XRV::host {

class AgentApi;

class HttpServer {
 public:
  HttpServer(AgentApi& api, int threads);
  // Stops serving when still running.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds the listening socket; false with the reason in *error. Port 0 takes any
  // free port (see port()).
  bool bind(const ListenAddress& address, std::string* error);
  // The bound port; 0 before bind.
  int port() const;
  // Serves on a thread of its own until stop().
  void start();
  // Closes the listening socket, lets the requests in progress finish and returns
  // once every serving thread has ended.
  void stop();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace XRV::host
