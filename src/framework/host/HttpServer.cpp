#include "framework/host/HttpServer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <httplib.h>

#include "framework/api/Trace.h"
#include "framework/host/AgentApi.h"

namespace XRV::host {
namespace {

constexpr size_t kMaxBody = 64 * 1024;
// A connection keeps its thread for as long as it is kept alive: give the thread back
// after 20 requests, or after 2 idle seconds, so that waiting connections get a turn.
constexpr size_t kKeepAliveRequests = 20;
constexpr time_t kKeepAliveSeconds = 2;

void send(httplib::Response& res, const ApiResponse& answer) {
  res.status = answer.status;
  if (answer.status == 401) {
    res.set_header("WWW-Authenticate", "Bearer");
  }
  res.set_content(answer.body, answer.contentType);
}

const char* reasonOf(int status) {
  switch (status) {
    case 400:
      return "bad request";
    case 404:
      return "not found";
    case 405:
      return "method not allowed";
    case 413:
      return "request too large";
    case 414:
      return "request URI too long";
    default:
      return status >= 500 ? "internal error" : "request refused";
  }
}

}  // namespace

struct HttpServer::Impl {
  AgentApi& api;
  httplib::Server server;
  std::thread thread;
  std::atomic<bool> listenEnded{false};
  int port = 0;

  explicit Impl(AgentApi& agentApi) : api(agentApi) {}
};

namespace {

// The HTTP library sets SIGPIPE to be ignored when a server is made. The agent has
// its own handler, and an ignored SIGPIPE would be inherited by every command the
// agent runs (a pipeline's writer would see errors instead of ending quietly): keep
// the disposition the agent chose.
std::unique_ptr<HttpServer::Impl> makeImpl(AgentApi& api) {
  struct sigaction saved;
  sigaction(SIGPIPE, nullptr, &saved);
  auto impl = std::make_unique<HttpServer::Impl>(api);
  sigaction(SIGPIPE, &saved, nullptr);
  return impl;
}

}  // namespace

HttpServer::HttpServer(AgentApi& api, int threads) : impl_(makeImpl(api)) {
  httplib::Server& server = impl_->server;
  server.new_task_queue = [threads] {
    return new httplib::ThreadPool(static_cast<size_t>(threads));
  };
  // Only SO_REUSEADDR: SO_REUSEPORT would let a second agent share the port
  // silently. Close-on-exec, so that scripts the agent starts do not inherit it.
  server.set_socket_options([](socket_t sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    fcntl(sock, F_SETFD, fcntl(sock, F_GETFD) | FD_CLOEXEC);
  });
  server.set_keep_alive_max_count(kKeepAliveRequests);
  server.set_keep_alive_timeout(kKeepAliveSeconds);
  server.set_payload_max_length(kMaxBody);
  server.set_tcp_nodelay(true);

  server.set_error_handler([](const httplib::Request& req, httplib::Response& res) {
    if (!res.body.empty()) {
      return;
    }
    const int status = res.status;
    if (status == 400 && req.method == "POST" && !req.has_header("Content-Length")) {
      send(res, errorResponse(status, "a POST needs a Content-Length (send an empty body)"));
    } else {
      send(res, errorResponse(status, reasonOf(status)));
    }
  });
  server.set_exception_handler([](const httplib::Request& req, httplib::Response& res,
                                  std::exception_ptr error) {
    XRV_TRACE_FN();
    std::string what = "unknown exception";
    try {
      std::rethrow_exception(error);
    } catch (const std::exception& e) {
      what = e.what();
    } catch (...) {
    }
    XRV_TRACE_ERROR("Request %s %s failed: %s", req.method.c_str(), req.path.c_str(), what.c_str());
    send(res, errorResponse(500, "internal error"));
  });

  server.Get("/healthz", [this](const httplib::Request&, httplib::Response& res) {
    send(res, impl_->api.health());
  });
  server.Get("/api/v1/tables", [this](const httplib::Request&, httplib::Response& res) {
    send(res, impl_->api.tables());
  });
  server.Get(R"(/api/v1/tables/([^/]+))",
             [this](const httplib::Request& req, httplib::Response& res) {
               send(res, impl_->api.table(req.matches[1].str(), req.params));
             });
  server.Get("/api/v1/nodes", [this](const httplib::Request&, httplib::Response& res) {
    send(res, impl_->api.nodes());
  });
  server.Get("/api/v1/events", [this](const httplib::Request& req, httplib::Response& res) {
    send(res, impl_->api.events(req.params));
  });
  server.Get("/api/v1/audit", [this](const httplib::Request&, httplib::Response& res) {
    send(res, impl_->api.audit());
  });
  server.Post("/api/v1/shutdown", [this](const httplib::Request& req, httplib::Response& res) {
    send(res, impl_->api.shutdown(req.params, req.get_header_value("Authorization")));
    if (res.status == 202) {
      res.set_header("Connection", "close");
    }
  });
  server.Get("/metrics", [this](const httplib::Request&, httplib::Response& res) {
    send(res, impl_->api.metrics());
  });
}

HttpServer::~HttpServer() { stop(); }

bool HttpServer::bind(const ListenAddress& address, std::string* error) {
  XRV_TRACE_FN();
  errno = 0;
  int port = address.port;
  bool bound = false;
  if (port == 0) {
    port = impl_->server.bind_to_any_port(address.host);
    bound = port > 0;
  } else {
    bound = impl_->server.bind_to_port(address.host, port);
  }
  if (!bound) {
    if (error != nullptr) {
      *error = "cannot listen on " + address.toString() + ": " +
               (errno != 0 ? strerror(errno) : "address not usable");
    }
    return false;
  }
  impl_->port = port;
  XRV_TRACE_DETAIL("HTTP server bound to %s, port %d", address.host.c_str(), port);
  return true;
}

int HttpServer::port() const { return impl_->port; }

void HttpServer::start() {
  XRV_TRACE_FN();
  impl_->thread = std::thread([this] {
    if (!impl_->server.listen_after_bind()) {
      XRV_TRACE_ERROR("HTTP server stopped serving unexpectedly");
    }
    impl_->listenEnded = true;
  });
}

void HttpServer::stop() {
  XRV_TRACE_FN();
  if (impl_->thread.joinable()) {
    // The server ignores a stop before it runs: wait for it to get going.
    while (!impl_->server.is_running() && !impl_->listenEnded) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    impl_->server.stop();
    impl_->thread.join();
  }
}

}  // namespace XRV::host
