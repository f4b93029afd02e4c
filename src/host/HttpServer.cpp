#include "host/HttpServer.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <fcntl.h>
#include <malloc.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <thread>

#include "framework/Mutex.h"
#include "framework/ReadFile.h"
#include "framework/Trace.h"
#include "host/AgentApi.h"
#include "host/BasicAuth.h"
#include "host/EventStreams.h"
#include "host/HttpConnections.h"
#include "host/HttpWorkers.h"

namespace XRV::host {
namespace {

constexpr const char kRealm[] = "xrvagent";
constexpr const char kStopping[] = "the agent is stopping";
// Descriptors kept for everything but HTTP (scripts' pipes, files, the trace).
constexpr rlim_t kReservedDescriptors = 256;

enum class Route {
  HEALTH,
  TABLES,
  TABLE,
  NODES,
  EVENTS,
  EVENT_STREAM,
  AUDIT,
  SHUTDOWN,
  METRICS,
  NONE
};

struct RouteMatch {
  Route route = Route::NONE;
  std::string group;  // TABLE
};

RouteMatch matchRoute(const char* url) {
  static const std::pair<const char*, Route> fixed[] = {
      {"/healthz", Route::HEALTH},     {"/api/v1/tables", Route::TABLES},
      {"/api/v1/nodes", Route::NODES}, {"/api/v1/events", Route::EVENTS},
      {"/api/v1/audit", Route::AUDIT}, {"/api/v1/shutdown", Route::SHUTDOWN},
      {"/metrics", Route::METRICS},    {"/api/v1/events/stream", Route::EVENT_STREAM},
  };
  for (const auto& [path, route] : fixed) {
    if (strcmp(url, path) == 0) {
      return {route, ""};
    }
  }
  constexpr const char kTables[] = "/api/v1/tables/";
  if (strncmp(url, kTables, sizeof kTables - 1) == 0) {
    const char* group = url + sizeof kTables - 1;
    if (*group != '\0' && strchr(group, '/') == nullptr) {
      return {Route::TABLE, group};
    }
  }
  return {};
}

// The request under way on a connection, from its head to its answer.
struct Request {
  RouteMatch match;
  size_t bodyBytes = 0;
  bool submitted = false;
  ApiResponse answer;  // written by a worker before it resumes the connection
  bool answered = false;
};

MHD_Result queue(MHD_Connection* connection, const ApiResponse& answer, bool close,
                 const char* allow = nullptr) {
  MHD_Response* response = MHD_create_response_from_buffer(
      answer.body.size(), const_cast<char*>(answer.body.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) {
    return MHD_NO;
  }
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.contentType);
  if (close) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
  }
  if (allow != nullptr) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, allow);
  }
  if (answer.status == 401) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Bearer");
  }
  const MHD_Result queued =
      MHD_queue_response(connection, static_cast<unsigned>(answer.status), response);
  MHD_destroy_response(response);
  return queued;
}

MHD_Result refuse(MHD_Connection* connection, int status, const std::string& why,
                  const char* allow = nullptr) {
  return queue(connection, errorResponse(status, why), true, allow);
}

MHD_Result collectArgument(void* target, MHD_ValueKind, const char* key, const char* value) {
  static_cast<QueryParams*>(target)->emplace(key == nullptr ? "" : key,
                                             value == nullptr ? "" : value);
  return MHD_YES;
}

std::string header(MHD_Connection* connection, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value == nullptr ? "" : value;
}

// The library's messages: `format` is its own printf format.
__attribute__((format(printf, 2, 0))) void logFromLibrary(void*, const char* format,
                                                          va_list arguments) {
  XRV_TRACE_FN();
  char text[512];
  vsnprintf(text, sizeof text, format, arguments);
  XRV_TRACE_DETAIL("HTTP: %s", text);
}

}  // namespace

struct HttpServer::Impl {
  AgentApi& api;
  HttpLimits limits;
  BasicAuth users;
  std::string certificate;
  std::string key;
  int listenFd = -1;
  int port = 0;
  MHD_Daemon* daemon = nullptr;
  HttpConnections connections;
  HttpWorkers workers;
  EventStreams streams;
  std::atomic<bool> stopping{false};  // requests from now on are answered 503
  // Requests handed to a worker whose answer has not gone out yet: stop() waits for
  // them, so that the answer to a shutdown request reaches its client.
  XRV::Mutex workLock;
  std::condition_variable workDone;
  int answersPending XRV_GUARDED_BY(workLock) = 0;

  void answerPending() {
    XRV::MutexLock lock(workLock);
    ++answersPending;
  }
  void answerSent() {
    {
      XRV::MutexLock lock(workLock);
      --answersPending;
    }
    workDone.notify_all();
  }
  // Waits until every pending answer went out (or its connection ended), at most
  // `limit`.
  void waitForAnswers(std::chrono::milliseconds limit) {
    XRV::MutexLock lock(workLock);
    workDone.wait_for(lock.native(), limit,
                      [this]() XRV_NO_THREAD_SAFETY_ANALYSIS { return answersPending == 0; });
  }

  Impl(AgentApi& agentApi, const HttpLimits& httpLimits)
      : api(agentApi),
        limits(httpLimits),
        connections(httpLimits.headSeconds),
        workers(httpLimits.threads),
        streams(agentApi.eventRing(), httpLimits.maxEventStreams, httpLimits.streamKeepAlive) {}

  ApiResponse answer(const Request& request, MHD_Connection* connection,
                     bool withoutWaiting = false) {
    QueryParams query;
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, collectArgument, &query);
    switch (request.match.route) {
      case Route::HEALTH:
        return api.health();
      case Route::TABLES:
        return api.tables();
      case Route::TABLE:
        return api.table(request.match.group, query, withoutWaiting);
      case Route::NODES:
        return api.nodes();
      case Route::EVENTS:
        return api.events(query);
      case Route::AUDIT:
        return api.audit();
      case Route::SHUTDOWN:
        return api.shutdown(query, header(connection, MHD_HTTP_HEADER_AUTHORIZATION));
      case Route::METRICS:
        return api.metrics();
      case Route::EVENT_STREAM:  // openStream()
      case Route::NONE:
        break;
    }
    return errorResponse(404, "not found");
  }

  // The checks that need the whole head; MHD_NO from *result when one refused.
  bool refusedByHead(MHD_Connection* connection, const char* method, Request* request,
                     MHD_Result* result) {
    const int headers = MHD_get_connection_values(connection, MHD_HEADER_KIND, nullptr, nullptr);
    if (headers > static_cast<int>(limits.maxHeaders)) {
      *result = refuse(connection, 431,
                       "more than " + std::to_string(limits.maxHeaders) + " header fields");
      return true;
    }
    const Route route = request->match.route;
    if (route == Route::NONE) {
      *result = refuse(connection, 404, "not found");
      return true;
    }
    const bool post = strcmp(method, MHD_HTTP_METHOD_POST) == 0;
    const bool get = strcmp(method, MHD_HTTP_METHOD_GET) == 0;
    if ((route == Route::SHUTDOWN) != post || (!post && !get)) {
      *result = refuse(connection, 405, "method not allowed", route == Route::SHUTDOWN ? "POST" : "GET");
      return true;
    }
    const std::string length = header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
    if (!length.empty() && strtoull(length.c_str(), nullptr, 10) > limits.maxBodyBytes) {
      *result = refuse(connection, 413, "request too large");
      return true;
    }
    // A chunked body has no size to check before it is read, and no endpoint needs
    // a body: refused before a byte of it is read.
    if (!header(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING).empty()) {
      *result = refuse(connection, 411, "send a request body with a Content-Length");
      return true;
    }
    if (users.enabled() && route != Route::SHUTDOWN && !authenticated(connection)) {
      ApiResponse denied = errorResponse(401, "authentication required");
      MHD_Response* response = MHD_create_response_from_buffer(
          denied.body.size(), denied.body.data(), MHD_RESPMEM_MUST_COPY);
      MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, denied.contentType);
      *result = MHD_queue_basic_auth_fail_response(connection, kRealm, response);
      MHD_destroy_response(response);
      return true;
    }
    return false;
  }

  // Answers GET /api/v1/events/stream: the stream, or why not.
  MHD_Result openStream(MHD_Connection* connection) {
    QueryParams query;
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, collectArgument, &query);
    EventStreamStart start;
    const ApiResponse checked = api.eventStream(query, header(connection, "Last-Event-ID"), &start);
    if (checked.status != 200) {
      return queue(connection, checked, true);
    }
    switch (streams.open(connection, start)) {
      case EventStreams::Opened::QUEUED:
        return MHD_YES;
      case EventStreams::Opened::FULL:
        return refuse(connection, 503,
                      "too many event streams: at most " + std::to_string(limits.maxEventStreams) +
                          " (XRV_HTTP_MAX_EVENT_STREAMS), try again");
      case EventStreams::Opened::STOPPING:
        return refuse(connection, 503, kStopping);
      case EventStreams::Opened::FAILED:
        break;
    }
    return MHD_NO;
  }

  bool authenticated(MHD_Connection* connection) {
    char* password = nullptr;
    char* user = MHD_basic_auth_get_username_password(connection, &password);
    const bool good = user != nullptr && password != nullptr && users.check(user, password);
    MHD_free(user);
    MHD_free(password);
    return good;
  }

  MHD_Result handle(MHD_Connection* connection, const char* url, const char* method,
                    const char* uploadData, size_t* uploadSize, void** context) {
    auto* request = static_cast<Request*>(*context);
    if (request == nullptr) {
      request = new Request;
      request->match = matchRoute(url);
      *context = request;
      connections.headDone(connection);
      MHD_Result result = MHD_NO;
      if (refusedByHead(connection, method, request, &result)) {
        request->answered = true;
        return result;
      }
      return MHD_YES;  // the body, if any, comes next
    }
    if (request->answered) {
      *uploadSize = 0;  // the rest of a refused body is dropped with the connection
      return MHD_YES;
    }
    if (*uploadSize != 0) {
      // A body within its Content-Length, checked at the head: no endpoint reads it.
      request->bodyBytes += *uploadSize;
      *uploadSize = 0;
      (void)uploadData;
      return request->bodyBytes <= limits.maxBodyBytes ? MHD_YES : MHD_NO;
    }
    if (request->submitted) {
      // Resumed by the worker: its answer is ready.
      request->answered = true;
      return queue(connection, request->answer, request->answer.status >= 400 ||
                                                    request->match.route == Route::SHUTDOWN);
    }
    if (request->match.route == Route::HEALTH) {
      request->answered = true;
      return queue(connection, api.health(), false);
    }
    if (stopping.load()) {
      request->answered = true;
      return refuse(connection, 503, kStopping);
    }
    if (request->match.route == Route::EVENT_STREAM) {
      request->answered = true;
      return openStream(connection);
    }
    if (request->match.route == Route::TABLE) {
      // Most table requests find their rows current in the cache: answered on the
      // loop at once, without two thread switches. Only one that needs a collection
      // goes to a worker.
      ApiResponse now = answer(*request, connection, true);
      if (!now.wouldWait) {
        request->answered = true;
        return queue(connection, now, now.status >= 400);
      }
    }
    request->submitted = true;
    answerPending();
    MHD_suspend_connection(connection);
    if (!workers.submit([this, connection, request] {
          request->answer = answer(*request, connection);
          MHD_resume_connection(connection);
        })) {
      request->answer = errorResponse(
          503, stopping.load() ? kStopping : "too many requests waiting, try again");
      MHD_resume_connection(connection);
    }
    return MHD_YES;
  }
};

namespace {

MHD_Result accessHandler(void* server, MHD_Connection* connection, const char* url,
                         const char* method, const char*, const char* uploadData,
                         size_t* uploadSize, void** context) {
  return static_cast<HttpServer::Impl*>(server)->handle(connection, url, method, uploadData,
                                                         uploadSize, context);
}

void requestCompleted(void* server, MHD_Connection* connection, void** context,
                      MHD_RequestTerminationCode) {
  auto* request = static_cast<Request*>(*context);
  const bool wasPending = request != nullptr && request->submitted;
  delete request;
  *context = nullptr;
  if (wasPending) {
    static_cast<HttpServer::Impl*>(server)->answerSent();
  }
  static_cast<HttpServer::Impl*>(server)->connections.requestDone(connection);
}

void connectionChanged(void* server, MHD_Connection* connection, void** socketContext,
                       MHD_ConnectionNotificationCode code) {
  auto* impl = static_cast<HttpServer::Impl*>(server);
  if (code == MHD_CONNECTION_NOTIFY_STARTED) {
    impl->connections.opened(connection, socketContext);
  } else {
    impl->connections.closed(socketContext);
  }
}

std::string readPem(const std::string& path, std::string* error) {
  std::string text;
  if (!readWholeFile(path.c_str(), 1024 * 1024, &text, error)) {
    return "";
  }
  return text;
}

}  // namespace

HttpServer::HttpServer(AgentApi& api, const HttpLimits& limits)
    : impl_(std::make_unique<Impl>(api, limits)) {}

HttpServer::~HttpServer() {
  stop();
  if (impl_->listenFd >= 0) {
    close(impl_->listenFd);
  }
}

bool HttpServer::bind(const ListenAddress& address, std::string* error) {
  XRV_TRACE_FN();
  HttpLimits& limits = impl_->limits;
  if (!limits.usersFile.empty() && !impl_->users.load(limits.usersFile, error)) {
    return false;
  }
  if (limits.tlsCertificateFile.empty() != limits.tlsKeyFile.empty()) {
    *error = "HTTPS needs both XRV_HTTP_TLS_CERT and XRV_HTTP_TLS_KEY";
    return false;
  }
  if (!limits.tlsCertificateFile.empty()) {
    impl_->certificate = readPem(limits.tlsCertificateFile, error);
    impl_->key = impl_->certificate.empty() ? "" : readPem(limits.tlsKeyFile, error);
    if (impl_->key.empty()) {
      return false;
    }
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int lookup = getaddrinfo(address.host.empty() ? nullptr : address.host.c_str(),
                                 std::to_string(address.port).c_str(), &hints, &found);
  if (lookup != 0 || found == nullptr) {
    *error = "cannot listen on " + address.toString() + ": " + gai_strerror(lookup);
    return false;
  }
  sockaddr_storage storage{};
  socklen_t length = found->ai_addrlen;
  memcpy(&storage, found->ai_addr, found->ai_addrlen);
  freeaddrinfo(found);
  const int fd = socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // Only SO_REUSEADDR: SO_REUSEPORT would let a second agent share the port silently.
  int yes = 1;
  if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
      ::bind(fd, reinterpret_cast<sockaddr*>(&storage), length) != 0 ||
      listen(fd, SOMAXCONN) != 0) {
    *error = "cannot listen on " + address.toString() + ": " + strerror(errno);
    if (fd >= 0) {
      close(fd);
    }
    return false;
  }
  getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length);
  impl_->port = ntohs(storage.ss_family == AF_INET6
                          ? reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port
                          : reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
  impl_->listenFd = fd;
  // As many connections as descriptors allow, keeping some for the rest of the agent.
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY) {
    const rlim_t usable = files.rlim_cur > kReservedDescriptors * 2
                              ? files.rlim_cur - kReservedDescriptors
                              : files.rlim_cur / 2;
    if (usable < limits.maxConnections) {
      limits.maxConnections = static_cast<unsigned>(usable);
    }
  }
  XRV_TRACE_DETAIL("HTTP server bound to %s, port %d, at most %u connections (%u per address)",
                   address.host.c_str(), impl_->port, limits.maxConnections,
                   limits.maxPerAddress);
  return true;
}

int HttpServer::port() const { return impl_->port; }

size_t HttpServer::eventStreams() const { return impl_->streams.clients(); }

size_t HttpServer::eventStreamBytes() const { return impl_->streams.bufferedBytes(); }

void HttpServer::start() {
  XRV_TRACE_FN();
  Impl& impl = *impl_;
  unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG;
  const bool tls = !impl.certificate.empty();
  if (tls) {
    flags |= MHD_USE_TLS;
  }
  // A second loop on a second processor overlaps reading one request with answering
  // another; more loops than processors only add switches.
  const unsigned loops =
      std::clamp(std::thread::hardware_concurrency(), 1u, std::max(impl.limits.eventLoops, 1u));
  impl.daemon = MHD_start_daemon(
      flags, 0, nullptr, nullptr, accessHandler, &impl, MHD_OPTION_LISTEN_SOCKET, impl.listenFd,
      MHD_OPTION_CONNECTION_LIMIT, impl.limits.maxConnections, MHD_OPTION_PER_IP_CONNECTION_LIMIT,
      impl.limits.maxPerAddress, MHD_OPTION_CONNECTION_TIMEOUT, impl.limits.idleSeconds,
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, impl.limits.maxHeadBytes,
      MHD_OPTION_THREAD_POOL_SIZE, loops, MHD_OPTION_NOTIFY_COMPLETED, requestCompleted, &impl,
      MHD_OPTION_NOTIFY_CONNECTION,
      connectionChanged, &impl, MHD_OPTION_EXTERNAL_LOGGER, logFromLibrary, nullptr,
      tls ? MHD_OPTION_HTTPS_MEM_CERT : MHD_OPTION_END, impl.certificate.c_str(),
      MHD_OPTION_HTTPS_MEM_KEY, impl.key.c_str(), MHD_OPTION_END);
  if (impl.daemon == nullptr) {
    XRV_TRACE_ERROR("HTTP server could not start serving");
    return;
  }
  impl.listenFd = -1;  // the daemon's now
  impl.connections.start();
  impl.streams.start();
}

void HttpServer::stop() {
  XRV_TRACE_FN();
  Impl& impl = *impl_;
  if (impl.daemon == nullptr) {
    return;
  }
  // The requests being worked on finish and resume their connections (a suspended
  // connection must be resumed before the daemon goes), and their answers go out;
  // later ones are refused.
  // The listening socket stays with the daemon until it stops: taking it out of
  // the event loops while they run races with the loops themselves.
  impl.stopping.store(true);
  impl.workers.stop();
  // Open event streams end now; one whose client reads nothing is closed with the
  // daemon below.
  impl.streams.stop(std::chrono::milliseconds(500));
  // The loops still run: the answers the workers left (a shutdown request's own
  // among them) are written before the connections go.
  impl.waitForAnswers(std::chrono::seconds(1));
  impl.connections.stop();
  MHD_stop_daemon(impl.daemon);  // closes the listening socket
  impl.daemon = nullptr;
  malloc_trim(0);
}

}  // namespace XRV::host
