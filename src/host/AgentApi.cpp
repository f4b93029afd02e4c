#include "host/AgentApi.h"

#include <time.h>

#include <charconv>
#include <optional>

#include "framework/Trace.h"
#include "host/JsonWriter.h"
#include "host/MetricsExposition.h"
#include "host/RowJson.h"
#include "host/TableSampler.h"

namespace XRV::host {
namespace {

constexpr int64_t kMaxInterval = 366LL * 24 * 3600;
constexpr size_t kMaxRequestIdLength = 128;

// The value of `name`, or null.
const std::string* param(const QueryParams& query, const char* name) {
  auto found = query.find(name);
  return found == query.end() ? nullptr : &found->second;
}

// An error answer when `query` holds a name outside `allowed` or a name twice.
std::optional<ApiResponse> checkParams(const QueryParams& query,
                                       std::initializer_list<const char*> allowed) {
  for (auto it = query.begin(); it != query.end(); it = query.upper_bound(it->first)) {
    bool known = false;
    for (const char* name : allowed) {
      known = known || it->first == name;
    }
    if (!known) {
      return errorResponse(400, "unknown query parameter: " + it->first);
    }
    if (query.count(it->first) > 1) {
      return errorResponse(400, "query parameter given more than once: " + it->first);
    }
  }
  return std::nullopt;
}

bool parseNumber(const std::string& text, uint64_t max, uint64_t* number) {
  uint64_t value = 0;
  const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || status != std::errc() || end != text.data() + text.size() || value > max) {
    return false;
  }
  *number = value;
  return true;
}

bool tokensMatch(const std::string& given, const std::string& expected) {
  // Takes as long for every wrong token of the same length.
  if (given.size() != expected.size()) {
    return false;
  }
  unsigned char difference = 0;
  for (size_t i = 0; i < given.size(); ++i) {
    difference |= static_cast<unsigned char>(given[i] ^ expected[i]);
  }
  return difference == 0;
}

ApiResponse ok(std::string body) {
  ApiResponse response;
  response.body = std::move(body);
  return response;
}

}  // namespace

ApiResponse errorResponse(int status, const std::string& text) {
  JsonWriter json;
  json.beginObject().key("error").value(text).endObject();
  ApiResponse response;
  response.status = status;
  response.body = json.take();
  return response;
}

std::string isoTimeUtc(int64_t millisSinceEpoch) {
  const time_t seconds = static_cast<time_t>(millisSinceEpoch / 1000);
  struct tm utc;
  gmtime_r(&seconds, &utc);
  char buffer[64];
  snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
           utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
           static_cast<int>(millisSinceEpoch % 1000));
  return buffer;
}

AgentApi::AgentApi(TableCatalog& catalog, NodeRegistry& nodes, EventRing& events, AuditTrail& audit,
                   std::string adminToken, std::function<void()> requestStop)
    : catalog_(catalog),
      nodes_(nodes),
      events_(events),
      audit_(audit),
      adminToken_(std::move(adminToken)),
      requestStop_(std::move(requestStop)) {}

ApiResponse AgentApi::health() const {
  JsonWriter json;
  json.beginObject().key("status").value("ok").endObject();
  return ok(json.take());
}

ApiResponse AgentApi::tables() const {
  JsonWriter json;
  json.beginArray();
  for (const CatalogGroup* group : catalog_.groups()) {
    json.beginObject().key("group").value(group->name).key("table").value(group->table);
    json.key("columns").beginArray();
    for (const ColumnInfo& column : group->columns) {
      json.beginObject()
          .key("name")
          .value(column.name)
          .key("type")
          .value(column.type)
          .key("size")
          .value(column.size)
          .endObject();
    }
    json.endArray();
    json.key("pure_event").value(group->pureEvent);
    json.key("discovery").value(group->discovery);
    json.key("subnode_type");
    if (group->subnodeType.empty()) {
      json.null();
    } else {
      json.value(group->subnodeType);
    }
    json.endObject();
  }
  json.endArray();
  return ok(json.take());
}

ApiResponse AgentApi::table(const std::string& groupName, const QueryParams& query,
                            bool withoutWaiting) const {
  XRV_TRACE_FN();
  if (auto refused =
          checkParams(query, {"node", "type", "parm", "filter", "interval", "request"})) {
    return *refused;
  }
  const CatalogGroup* group = catalog_.findGroup(groupName);
  if (group == nullptr) {
    return errorResponse(404, "unknown attribute group: " + groupName);
  }
  TableManager* manager = catalog_.managerFor(*group);
  if (manager == nullptr) {
    return errorResponse(404, "attribute group " + groupName + " has no data source");
  }

  SampleRequest request;
  if (const std::string* type = param(query, "type")) {
    if (!parseRequestType(*type, &request.type)) {
      return errorResponse(
          400,
          "type must be DEMAND, NON_HISTORICAL_SITUATION or HISTORICAL_SITUATION, not " + *type);
    }
  }
  if (const std::string* interval = param(query, "interval")) {
    uint64_t seconds = 0;
    if (!parseNumber(*interval, kMaxInterval, &seconds)) {
      return errorResponse(
          400, "interval must be a number of seconds from 0 to " + std::to_string(kMaxInterval));
    }
    request.interval = static_cast<int64_t>(seconds);
  }
  if (const std::string* id = param(query, "request")) {
    if (id->empty() || id->size() > kMaxRequestIdLength) {
      return errorResponse(400, "request must be an identifier of 1 to " +
                                    std::to_string(kMaxRequestIdLength) + " characters");
    }
    request.requestId = *id;
  }
  if (const std::string* parm = param(query, "parm")) {
    request.parameter = *parm;
  }
  if (const std::string* filter = param(query, "filter")) {
    request.filter = *filter;
  }

  std::string node = nodes_.mainNode();
  const std::string* askedNode = param(query, "node");
  if (askedNode != nullptr && *askedNode != node) {
    const std::optional<NodeEntry> subnode = nodes_.findSubnode(*askedNode);
    if (!subnode) {
      return errorResponse(404, "unknown node: " + *askedNode);
    }
    if (group->subnodeType.empty() || subnode->type != group->subnodeType) {
      return errorResponse(404,
                           "attribute group " + groupName + " is not served on node " + *askedNode);
    }
    node = *askedNode;
    request.node = node;
  } else if (askedNode == nullptr && request.type == FW_HISTORICAL_SITUATION &&
             !group->subnodeType.empty()) {
    // Without subnodes named, the request covers every subnode of the group.
    request.history = true;
    node.clear();
  }

  request.cacheOnly = withoutWaiting;
  const SampleResult result = sampleTable(*manager, request);
  if (!result.ok) {
    return errorResponse(503, "table " + group->table + " refused the request");
  }
  if (result.wouldWait) {
    ApiResponse later;
    later.wouldWait = true;
    return later;
  }
  JsonWriter json;
  json.beginObject().key("group").value(group->name).key("node");
  if (node.empty()) {
    json.null();
  } else {
    json.value(node);
  }
  json.key("rows").beginArray();
  std::vector<DecodedColumn> columns;
  for (const std::string& row : result.rows) {
    if (!writeRowJson(json, *group, row, &columns)) {
      XRV_TRACE_ERROR("Row of %d bytes does not fit table %s, skipped",
                      static_cast<int>(row.size()), group->table.c_str());
    }
  }
  json.endArray().endObject();
  return ok(json.take());
}

ApiResponse AgentApi::nodes() const {
  JsonWriter json;
  json.beginArray();
  for (const NodeEntry& node : nodes_.nodes()) {
    json.beginObject()
        .key("msn")
        .value(node.msn)
        .key("type")
        .value(node.type)
        .key("affinity")
        .value(node.affinity)
        .key("version")
        .value(node.version)
        .key("online")
        .value(node.online)
        .key("main")
        .value(node.main)
        .endObject();
  }
  json.endArray();
  return ok(json.take());
}

ApiResponse AgentApi::events(const QueryParams& query) const {
  if (auto refused = checkParams(query, {"group", "since", "limit"})) {
    return *refused;
  }
  std::string group;
  if (auto refused = eventGroup(query, &group)) {
    return *refused;
  }
  uint64_t since = 0;
  if (const std::string* text = param(query, "since")) {
    if (!parseNumber(*text, UINT64_MAX, &since)) {
      return errorResponse(400, "since must be an event sequence number");
    }
  }
  uint64_t limit = kDefaultEventLimit;
  if (const std::string* text = param(query, "limit")) {
    if (!parseNumber(*text, events_.capacity(), &limit) || limit == 0) {
      return errorResponse(
          400, "limit must be a number from 1 to " + std::to_string(events_.capacity()));
    }
  }
  const EventPage page = events_.read(since, group, limit);
  JsonWriter json;
  json.beginObject().key("events").beginArray();
  for (const StoredEvent& event : page.events) {
    writeEventJson(json, event);
  }
  json.endArray().key("next").value(page.next).key("dropped").value(page.dropped).endObject();
  return ok(json.take());
}

ApiResponse AgentApi::eventStream(const QueryParams& query, const std::string& lastEventId,
                                  EventStreamStart* start) const {
  if (auto refused = checkParams(query, {"group", "since"})) {
    return *refused;
  }
  EventStreamStart asked;
  if (auto refused = eventGroup(query, &asked.group)) {
    return *refused;
  }
  if (!lastEventId.empty()) {
    uint64_t last = 0;
    if (!parseNumber(lastEventId, UINT64_MAX - 1, &last)) {
      return errorResponse(400, "Last-Event-ID must be an event sequence number");
    }
    asked.since = last + 1;
    asked.fromOldest = false;
  } else if (const std::string* text = param(query, "since")) {
    if (!parseNumber(*text, UINT64_MAX, &asked.since)) {
      return errorResponse(400, "since must be an event sequence number");
    }
    asked.fromOldest = false;
  }
  *start = std::move(asked);
  return ok("");
}

std::optional<ApiResponse> AgentApi::eventGroup(const QueryParams& query,
                                                std::string* group) const {
  if (const std::string* name = param(query, "group")) {
    if (catalog_.findGroup(*name) == nullptr) {
      return errorResponse(404, "unknown attribute group: " + *name);
    }
    *group = *name;
  }
  return std::nullopt;
}

void writeEventJson(JsonWriter& json, const StoredEvent& event) {
  json.beginObject()
      .key("seq")
      .value(event.seq)
      .key("group")
      .value(event.group)
      .key("node")
      .value(event.node)
      .key("time")
      .value(isoTimeUtc(event.timeMillis));
  if (event.continuation) {
    json.key("continuation").value(true);
  }
  json.key("row").raw(event.rowJson).endObject();
}

ApiResponse AgentApi::audit() const {
  JsonWriter json;
  json.beginArray();
  for (const AuditEntry& entry : audit_.entries()) {
    json.beginObject()
        .key("seq")
        .value(entry.seq)
        .key("time")
        .value(isoTimeUtc(entry.timeMillis))
        .key("component")
        .value(entry.component)
        .key("text")
        .value(entry.text)
        .key("category")
        .value(entry.category)
        .key("action")
        .value(entry.action)
        .key("message_id")
        .value(entry.messageId)
        .key("product")
        .value(entry.productName)
        .key("application")
        .value(entry.applicationName)
        .key("class")
        .value(entry.recordClass)
        .key("code")
        .value(entry.recordCode)
        .endObject();
  }
  json.endArray();
  return ok(json.take());
}

ApiResponse AgentApi::shutdown(const QueryParams& query, const std::string& authorization) const {
  XRV_TRACE_FN();
  if (auto refused = checkParams(query, {})) {
    return *refused;
  }
  if (adminToken_.empty()) {
    return errorResponse(403, "shutdown through the API is disabled: XRV_ADMIN_TOKEN is not set");
  }
  static constexpr std::string_view kBearer = "Bearer ";
  if (!authorization.starts_with(kBearer) ||
      !tokensMatch(authorization.substr(kBearer.size()), adminToken_)) {
    XRV_TRACE_ERROR("Shutdown request refused: %s",
                    authorization.empty() ? "no token" : "wrong token");
    return errorResponse(401,
                         "shutdown needs the administrator token: Authorization: Bearer TOKEN");
  }
  XRV_TRACE_DETAIL("Shutdown requested through the HTTP API");
  requestStop_();
  JsonWriter json;
  json.beginObject().key("status").value("shutting down").endObject();
  ApiResponse response = ok(json.take());
  response.status = 202;
  return response;
}

ApiResponse AgentApi::metrics() const {
  ApiResponse response;
  response.body = exposeMetrics(catalog_, nodes_);
  response.contentType = "text/plain; version=0.0.4; charset=utf-8";
  return response;
}

}  // namespace XRV::host
