#pragma once

// AgentApi: what the agent's HTTP endpoints answer, apart from HTTP itself (the
// server, HttpServer.h, only routes to these and writes the answers).
//
//   GET  /healthz                    health()
//   GET  /api/v1/tables              tables()
//   GET  /api/v1/tables/{group}      table(group, query): node, type, parm, filter,
//                                    interval, request
//   GET  /api/v1/nodes               nodes()
//   GET  /api/v1/events              events(query)
//   GET  /api/v1/events/stream       eventStream(query, lastEventId): where the
//                                    stream starts (EventStreams.h serves it)
//   GET  /api/v1/audit               audit()
//   POST /api/v1/shutdown            shutdown(query, authorization)
//   GET  /metrics                    metrics()
//
// Every answer is JSON except the metrics exposition; failures are 4xx answers with
// {"error": "what is wrong"}. Query parameters an endpoint does not know are refused,
// so that a mistyped one does not silently change the answer.
//
// Thread-safe: the HTTP server calls it from several threads at once.

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "host/AuditTrail.h"
#include "host/EventRing.h"
#include "host/JsonWriter.h"
#include "host/NodeRegistry.h"
#include "host/TableCatalog.h"

namespace XRV::host {

using QueryParams = std::multimap<std::string, std::string>;

struct ApiResponse {
  int status = 200;
  std::string body;
  const char* contentType = "application/json";
  // Asked to answer without waiting, the answer needs a collection: ask again
  // where waiting is allowed. Nothing else is set.
  bool wouldWait = false;
};

// {"error": text} with `status`.
ApiResponse errorResponse(int status, const std::string& text);

// Where an event stream starts and what it shows.
struct EventStreamStart {
  std::string group;   // empty: every group
  uint64_t since = 0;  // the first sequence number to send
  // No position given (neither since= nor Last-Event-ID): the stream starts with the
  // oldest event held when it opens.
  bool fromOldest = true;
};

class AgentApi {
 public:
  // `adminToken` empty: shutdown through the API is refused. `requestStop` starts the
  // orderly shutdown; it must return at once (the answer is still to be sent).
  AgentApi(TableCatalog& catalog, NodeRegistry& nodes, EventRing& events, AuditTrail& audit,
           std::string adminToken, std::function<void()> requestStop);

  ApiResponse health() const;
  ApiResponse tables() const;
  // `withoutWaiting`: answered from current cached rows only, else wouldWait.
  ApiResponse table(const std::string& group, const QueryParams& query,
                    bool withoutWaiting = false) const;
  ApiResponse nodes() const;
  ApiResponse events(const QueryParams& query) const;
  // `lastEventId`: the request's Last-Event-ID header (a reconnecting client's last
  // sequence number), which wins over `since`. A 200 answer (with an empty body)
  // when *start is set, an error answer otherwise.
  ApiResponse eventStream(const QueryParams& query, const std::string& lastEventId,
                          EventStreamStart* start) const;
  EventRing& eventRing() const { return events_; }
  ApiResponse audit() const;
  // `authorization`: the request's Authorization header ("Bearer TOKEN").
  ApiResponse shutdown(const QueryParams& query, const std::string& authorization) const;
  ApiResponse metrics() const;

  // Events per answer unless the request asks for fewer (`limit`).
  static constexpr size_t kDefaultEventLimit = 1000;

 private:
  // Checks the `group` parameter of the event endpoints into *group; an error
  // answer for a group the agent does not have.
  std::optional<ApiResponse> eventGroup(const QueryParams& query, std::string* group) const;

  TableCatalog& catalog_;
  NodeRegistry& nodes_;
  EventRing& events_;
  AuditTrail& audit_;
  const std::string adminToken_;
  const std::function<void()> requestStop_;
};

// "2024-05-01T12:00:00.123Z".
std::string isoTimeUtc(int64_t millisSinceEpoch);

// One event as GET /api/v1/events lists it: {"seq", "group", "node", "time",
// ["continuation",] "row"}.
void writeEventJson(JsonWriter& json, const StoredEvent& event);

}  // namespace XRV::host
