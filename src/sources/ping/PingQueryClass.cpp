#include "sources/ping/PingQueryClass.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <unordered_map>

#include "definition/AttributeGroupMeta.h"
#include "definition/Metric.h"
#include "foundation/List.h"
#include "foundation/Utilities.h"
#include "framework/FwClock.h"
#include "framework/Trace.h"
#include "provider/GroupMetrics.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/UAClientClassList.h"
#include "sources/ping/IcmpPacket.h"
#include "sources/ping/PingResolver.h"
#include "sources/ping/PingTarget.h"

namespace {

constexpr const char* kStateNames[] = {"answered", "timed out", "unresolved", "unreachable"};

int clampTo(int value, int low, int high) { return std::min(std::max(value, low), high); }

bool isIPv6Text(const std::string& address) { return address.find(':') != std::string::npos; }

std::string trimmed(const char* text) {
  std::string value = text == nullptr ? "" : text;
  const size_t begin = value.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) {
    return "";
  }
  return value.substr(begin, value.find_last_not_of(" \t\r\n") - begin + 1);
}

std::string joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) {
    text += (text.empty() ? "" : "; ") + part;
  }
  return text;
}

}  // namespace

// One target: the engine's record, and what the rows report about it.
struct PingQueryClass::Record : PingTarget {
  std::string host;
  std::string listFile;
  std::string address;  // the numeric address pinged; "" when unresolved
  bool noSocket = false;
  int outcome = TIMED_OUT;
  int sent = 0;
  int64_t responseMillis = -1;
  std::vector<int64_t> history;  // response time per collection, -1 unanswered; oldest first
};

// What a collection's sources gave.
struct PingQueryClass::Gathered {
  std::vector<std::pair<std::string, std::string>> hosts;  // host, list file
  std::set<std::string> seen;
  std::vector<std::string> problems;
  bool nameMissing = false;
  bool fileMissing = false;
  bool noFiles = false;

  void add(const std::string& host, const std::string& file) {
    if (!host.empty() && seen.insert(host).second) {
      hosts.emplace_back(host, file);
    }
  }
};

void PingQueryClass::Options::clamp() {
  timeoutMillis = clampTo(timeoutMillis, 10, 60000);
  attempts = clampTo(attempts, 1, 10);
  burstSize = clampTo(burstSize, 0, 1000000);
  burstDelayMillis = clampTo(burstDelayMillis, 0, 10000);
  history = clampTo(history, 1, 1000);
  resolveTimeoutMillis = clampTo(resolveTimeoutMillis, 10, 60000);
}

PingQueryClass::PingQueryClass(const char* applicationName, const char* attributeGroup,
                               const char* name, const Options& options)
    : ResultsManager(applicationName, attributeGroup, UA_PING),
      name_(name == nullptr ? "" : name),
      options_(options) {
  XRV_TRACE_FN();
  options_.clamp();
}

PingQueryClass::PingQueryClass(const PingQueryClass* other, const char* subnodeKey)
    : ResultsManager(other, subnodeKey),
      name_(other->name_),
      options_(other->options_),
      sources_(other->sources_) {
  XRV_TRACE_FN();
}

PingQueryClass::~PingQueryClass() { XRV_TRACE_FN(); }

void PingQueryClass::addTargets(const char* hosts) {
  if (hosts != nullptr && *hosts != '\0') {
    sources_.push_back({false, hosts});
  }
}

void PingQueryClass::addDeviceList(const char* file) { sources_.push_back({true, file == nullptr ? "" : file}); }

void PingQueryClass::addMetricsFromGroup(const AttributeGroupMeta* group) {
  XRV_TRACE_FN();
  if (group == nullptr || getMetricCount() > 0) {
    return;
  }
  ::addMetricsFromGroup(this, group);
  for (int i = 0; i < getMetricCount(); ++i) {
    getMetric(i)->setIsKey(strcmp(getMetric(i)->getMetricName(), "Host") == 0);
  }
}

void PingQueryClass::start() {
  XRV_TRACE_FN();
  addMetricsFromGroup(getAttributeGroupMeta());
  ResultsManager::start();
}

UAClientClass* PingQueryClass::subnodeCopy(const char* subnodeKey, UAClientClassList* list) {
  XRV_TRACE_FN();
  auto* copy = new PingQueryClass(this, subnodeKey);
  if (list != nullptr) {
    list->addClientClass(copy);
  }
  return copy;
}

void PingQueryClass::shutdownExternalProcesses() { engine_.setStopping(true); }

// --- Collection ---

void PingQueryClass::internalCollectData(const char* /*subnode*/) {
  XRV_TRACE_FN();
  const int64_t started = fwMonotonicMillis();
  Gathered gathered;
  gather(&gathered);

  std::map<std::string, std::unique_ptr<Record>> previous;
  for (std::unique_ptr<Record>& record : records_) {
    previous[record->host] = std::move(record);
  }
  records_.clear();
  std::vector<Record*> records;
  for (const auto& [host, file] : gathered.hosts) {
    auto kept = previous.find(host);
    std::unique_ptr<Record> record =
        kept != previous.end() ? std::move(kept->second) : std::make_unique<Record>();
    record->host = host;
    record->listFile = file;
    records.push_back(record.get());
    records_.push_back(std::move(record));
  }

  const int listError = gathered.nameMissing ? PING_DEVICE_LIST_FILE_MISSING
                        : gathered.fileMissing ? PING_FILE_DOES_NOT_EXIST
                        : gathered.noFiles || sources_.empty() ? NO_PING_DEVICE_FILES
                                                               : OBJECT_ACTIVE;
  if (sources_.empty()) {
    gathered.problems.push_back("the group names no targets and no device-list files");
  }
  if (records.empty()) {
    const int error = listError != OBJECT_ACTIVE ? listError : NO_INSTANCES_RETURNED;
    setOutcome(error == NO_INSTANCES_RETURNED ? PERF_OBJECT_ACTIVE : PERF_OBJECT_INACTIVE, error,
               joined(gathered.problems));
    return;
  }
  resolve(records);
  std::string socketProblem;
  const bool sockets = openSockets(records, &socketProblem);
  runPings(records);
  settle(records);

  int count[4] = {};
  for (Record* record : records) {
    ++count[record->outcome];
    auto* row = new ResultInstance("", getMetricCount());
    for (int i = 0; i < getMetricCount(); ++i) {
      if (!getMetric(i)->isDerived()) {
        row->addMetric(valueOf(getMetric(i), *record));
      }
    }
    addResultInstance(row);
  }
  XRV_TRACE_DETAIL(
      "Ping group %s: %d targets, %d answered, %d timed out, %d unresolved, %d unreachable in "
      "%lld ms",
      getAttributeGroup(), static_cast<int>(records.size()), count[ANSWERED], count[TIMED_OUT],
      count[UNRESOLVED], count[UNREACHABLE],
      static_cast<long long>(fwMonotonicMillis() - started));
  std::vector<std::string> detail{socketDescription()};
  if (!sockets) {
    detail.push_back(socketProblem);
  }
  detail.insert(detail.end(), gathered.problems.begin(), gathered.problems.end());
  setOutcome(PERF_OBJECT_ACTIVE, sockets ? listError : static_cast<int>(ICMP_SOCKETS_FAILED),
             joined(detail));
}

void PingQueryClass::gather(Gathered* gathered) {
  XRV_TRACE_FN();
  const AttributeGroupMeta* meta = getAttributeGroupMeta();
  const char* subnodeType = meta == nullptr ? nullptr : meta->subnodeType();
  const char* subnodeKey = subnodeType == nullptr ? nullptr : getSubnodeKey();
  for (const Source& source : sources_) {
    char* expanded = Utilities::substituteEnvVars(source.text.c_str(), subnodeType, subnodeKey, true);
    const std::string value = trimmed(expanded);
    free(expanded);
    if (!source.file) {
      size_t at = 0;
      while ((at = value.find_first_not_of(" \t\r\n,", at)) != std::string::npos) {
        const size_t end = value.find_first_of(" \t\r\n,", at);
        gathered->add(value.substr(at, end == std::string::npos ? end : end - at), "");
        at = end;
      }
    } else if (value.empty()) {
      gathered->nameMissing = true;
      gathered->problems.push_back("the device list " + source.text + " names no file");
    } else if (XRV::ping::isFilePattern(value)) {
      const std::vector<std::string> files = XRV::ping::expandFilePattern(value);
      if (files.empty()) {
        gathered->noFiles = true;
        gathered->problems.push_back("no device-list file matches " + value);
      }
      for (const std::string& file : files) {
        readList(file, value, gathered);
      }
    } else {
      readList(value, value, gathered);
    }
  }
  lists_.forgetUnused();
}

void PingQueryClass::readList(const std::string& path, const std::string& listed,
                              Gathered* gathered) {
  const std::vector<std::string>* hosts = lists_.hosts(path);
  if (hosts == nullptr) {
    gathered->fileMissing = true;
    gathered->problems.push_back("the device list " + listed + " does not exist or cannot be read");
    return;
  }
  for (const std::string& host : *hosts) {
    gathered->add(host, path);
  }
}

void PingQueryClass::resolve(const std::vector<Record*>& records) {
  XRV_TRACE_FN();
  std::vector<std::string> names;
  std::vector<Record*> named;
  for (Record* record : records) {
    record->clearRun();
    record->noSocket = false;
    sockaddr_storage address;
    socklen_t length;
    char text[XRV::icmp::kAddressTextSize];
    if (XRV::icmp::parseNumericAddress(record->host.c_str(), &address, &length) &&
        XRV::icmp::addressText(reinterpret_cast<sockaddr*>(&address), text, sizeof text)) {
      record->address = text;
    } else {
      record->address.clear();
      names.push_back(record->host);
      named.push_back(record);
    }
  }
  const std::vector<std::string> resolved =
      XRV::ping::resolveNames(names, options_.resolveTimeoutMillis);
  for (size_t i = 0; i < named.size(); ++i) {
    named[i]->address = resolved[i];
    if (resolved[i].empty()) {
      XRV_TRACE_DETAIL("Ping target %s did not resolve", named[i]->host.c_str());
    }
  }
  for (Record* record : records) {
    record->setAddress(record->address.empty() ? nullptr : record->address.c_str());
  }
}

bool PingQueryClass::openSockets(const std::vector<Record*>& records, std::string* problem) {
  XRV_TRACE_FN();
  bool needed[2] = {false, false};
  for (const Record* record : records) {
    if (!record->address.empty()) {
      needed[isIPv6Text(record->address) ? 1 : 0] = true;
    }
  }
  bool open[2] = {true, true};
  for (int v6 = 0; v6 < 2; ++v6) {
    if (!needed[v6] || engine_.openSocket(v6 != 0 ? AF_INET6 : AF_INET)) {
      continue;
    }
    open[v6] = false;
    const int error = engine_.rawSocketError(v6 != 0 ? AF_INET6 : AF_INET);
    *problem += std::string(problem->empty() ? "" : "; ") + "no ICMP socket for " +
                (v6 != 0 ? "IPv6" : "IPv4") + ": raw sockets need the CAP_NET_RAW capability (" +
                strerror(error) +
                ") and unprivileged ICMP sockets are not allowed for the agent's group. Either "
                "give the agent CAP_NET_RAW (setcap cap_net_raw+ep on xrv-agent, or "
                "AmbientCapabilities=CAP_NET_RAW in its service unit) or allow its group "
                "unprivileged ICMP with the sysctl net.ipv4.ping_group_range (for example "
                "net.ipv4.ping_group_range = 0 2147483647)";
  }
  for (Record* record : records) {
    record->noSocket = !record->address.empty() && !open[isIPv6Text(record->address) ? 1 : 0];
  }
  if (!open[0] || !open[1]) {
    XRV_TRACE_ERROR("Ping group %s: %s", getAttributeGroup(), problem->c_str());
  }
  return open[0] && open[1];
}

void PingQueryClass::runPings(const std::vector<Record*>& records) {
  XRV_TRACE_FN();
  List list;
  for (Record* record : records) {
    if (!record->address.empty() && !record->noSocket) {
      list.add(static_cast<PingTarget*>(record));
    }
  }
  if (list.getCount() == 0) {
    return;
  }
  for (int attempt = 0; attempt < options_.attempts; ++attempt) {
    engine_.start(&list, options_.timeoutMillis, options_.burstSize, options_.burstDelayMillis);
    bool waiting = false;
    for (int i = 0; i < list.getCount() && !waiting; ++i) {
      waiting = static_cast<PingTarget*>(list.get(i))->getState() ==
                PingTarget::STATE_AWAITING_REPLY;
    }
    if (!waiting || engine_.isStopping()) {
      break;
    }
  }
}

void PingQueryClass::settle(const std::vector<Record*>& records) {
  XRV_TRACE_FN();
  // Targets that share an address: the engine pinged the first of them.
  std::unordered_map<std::string, Record*> pinged;
  for (Record* record : records) {
    if (record->getResolvedAddress() != nullptr) {
      pinged.emplace(record->address, record);
    }
  }
  for (Record* record : records) {
    record->responseMillis = -1;
    record->sent = 0;
    if (record->address.empty()) {
      record->outcome = UNRESOLVED;
    } else if (record->noSocket) {
      record->outcome = UNREACHABLE;
    } else {
      auto found = pinged.find(record->address);
      const Record* source = found == pinged.end() ? nullptr : found->second;
      const int state = source == nullptr ? PingTarget::STATE_NOT_SENT : source->getState();
      record->sent = source == nullptr ? 0 : source->getAttempts();
      record->outcome = state == PingTarget::STATE_ANSWERED          ? ANSWERED
                        : state == PingTarget::STATE_AWAITING_REPLY ? TIMED_OUT
                                                                     : UNREACHABLE;
      if (record->outcome == ANSWERED) {
        record->responseMillis = source->getRoundTrip();
      }
    }
    record->history.push_back(record->responseMillis);
    if (static_cast<int>(record->history.size()) > options_.history) {
      record->history.erase(record->history.begin(),
                            record->history.end() - options_.history);
    }
  }
}

ResultMetric* PingQueryClass::valueOf(const Metric* metric, const Record& record) const {
  const char* name = metric->getMetricName() == nullptr ? "" : metric->getMetricName();
  const auto text = [&](const std::string& value) { return new ResultMetric(metric, value.c_str()); };
  const auto number = [&](long long value) {
    return metric->isStringType() ? new ResultMetric(metric, std::to_string(value).c_str())
                                  : new ResultMetric(metric, value);
  };
  if (strcmp(name, "Host") == 0) {
    return text(record.host);
  }
  if (strcmp(name, "Address") == 0) {
    return text(record.address);
  }
  if (strcmp(name, "List_File") == 0) {
    return text(record.listFile);
  }
  if (strcmp(name, "State") == 0) {
    return metric->isStringType() ? text(stateName(record.outcome)) : number(record.outcome);
  }
  long long answered = 0;
  long long total = 0;
  long long low = -1;
  long long high = -1;
  for (int64_t sample : record.history) {
    if (sample >= 0) {
      low = low < 0 ? sample : std::min<long long>(low, sample);
      high = std::max<long long>(high, sample);
      total += sample;
      ++answered;
    }
  }
  const auto samples = static_cast<long long>(record.history.size());
  if (strcmp(name, "Response_Time") == 0) {
    return number(record.responseMillis);
  }
  if (strcmp(name, "Attempts") == 0) {
    return number(record.sent);
  }
  if (strcmp(name, "Loss_Percent") == 0) {
    return number(((samples - answered) * 200 + samples) / (2 * samples));
  }
  if (strcmp(name, "Min_Response_Time") == 0) {
    return number(low);
  }
  if (strcmp(name, "Avg_Response_Time") == 0) {
    return number(answered == 0 ? -1 : (total * 2 + answered) / (2 * answered));
  }
  if (strcmp(name, "Max_Response_Time") == 0) {
    return number(high);
  }
  if (strcmp(name, "Samples") == 0) {
    return number(samples);
  }
  return metric->isStringType() ? text("") : number(0);
}

// --- What the provider reports ---

const char* PingQueryClass::stateName(int state) {
  return state >= 0 && state < 4 ? kStateNames[state] : "";
}

std::string PingQueryClass::socketDescription() const {
  std::vector<std::string> parts;
  for (int family : {AF_INET, AF_INET6}) {
    const char* ip = family == AF_INET ? "IPv4" : "IPv6";
    switch (engine_.socketMode(family)) {
      case Ping::SocketMode::RAW:
        parts.push_back(std::string(ip) + " through a raw ICMP socket");
        break;
      case Ping::SocketMode::DATAGRAM:
        parts.push_back(std::string(ip) +
                        " through an unprivileged ICMP datagram socket (net.ipv4.ping_group_range)");
        break;
      case Ping::SocketMode::NONE:
        break;
    }
  }
  return parts.empty() ? "no ICMP socket open" : "pinging " + joined(parts);
}

void PingQueryClass::setOutcome(int status, int error, const std::string& detail) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Ping group %s: %s, %s", getAttributeGroup(), perfObjectErrorCodeName(error),
                   detail.c_str());
  {
    PthreadMutexLock guard(detailLock_);
    detail_ = detail;
  }
  status_.store(status);
  errorCode_.store(error);
}

const char* PingQueryClass::getPerfObjectName() {
  return name_.empty() ? getAttributeGroup() : name_.c_str();
}

int PingQueryClass::getPerfObjectStatus() {
  return isCollectionDisabled() ? PERF_OBJECT_INACTIVE : status_.load();
}

int PingQueryClass::getPerfErrorCode() {
  return isCollectionDisabled() ? static_cast<int>(DISABLED) : errorCode_.load();
}

std::string PingQueryClass::getCollectionDetail() {
  PthreadMutexLock guard(detailLock_);
  return detail_;
}

void PingQueryClass::printResults() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Ping provider %s: error code %s", getPerfObjectName(),
                   perfObjectErrorCodeName(errorCode_.load()));
  printResultInstances();
}
