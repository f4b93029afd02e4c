#include "host/StandaloneHost.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "framework/Settings.h"
#include "framework/Trace.h"
#include "host/AgentApi.h"
#include "host/HttpServer.h"
#include "host/ListenAddress.h"
#include "host/RowJson.h"

namespace XRV::host {
namespace {

// An origin node name has at most 32 characters (the ORIGINNODE column).
constexpr size_t kMaxNodeName = 32;
// How long the main loop waits for the process to end after shutdown() came from
// outside the orderly road.
constexpr int kExitGraceMillis = 5000;

std::string text(const char* value) { return value == nullptr ? std::string() : value; }

int64_t nowMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

HostSettings HostSettings::fromConfiguration(std::string* warning) {
  XRV_TRACE_FN();
  HostSettings settings;
  const SettingContext context = SettingContext{}.warningsTo(warning);
  const SettingRead listen = readSetting(Setting::HttpListen);
  if (listen.set) {
    settings.listen = listen.text;
  }
  HttpLimits& http = settings.http;
  auto limit = [&context](Setting id) { return static_cast<unsigned>(settingNumber(id, context)); };
  http.threads = static_cast<int>(limit(Setting::HttpThreads));
  http.maxConnections = limit(Setting::HttpMaxConnections);
  http.maxPerAddress = limit(Setting::HttpMaxConnectionsPerAddress);
  http.headSeconds = limit(Setting::HttpHeadTimeout);
  http.idleSeconds = limit(Setting::HttpIdleTimeout);
  http.maxHeaders = limit(Setting::HttpMaxHeaders);
  http.maxEventStreams = limit(Setting::HttpMaxEventStreams);
  http.tlsCertificateFile = settingText(Setting::HttpTlsCert);
  http.tlsKeyFile = settingText(Setting::HttpTlsKey);
  http.usersFile = settingText(Setting::HttpUsersFile);
  settings.eventBuffer = static_cast<size_t>(settingNumber(Setting::EventBuffer, context));
  settings.adminToken = settingText(Setting::AdminToken);
  XRV_TRACE_DETAIL("HTTP on %s with %d threads, %zu events kept, shutdown through HTTP %s",
                   settings.listen.c_str(), settings.http.threads, settings.eventBuffer,
                   settings.adminToken.empty() ? "disabled" : "enabled");
  return settings;
}

StandaloneHost::StandaloneHost() : wakeFd_(eventfd(0, EFD_CLOEXEC)) {
  if (wakeFd_ < 0) {
    XRV_TRACE_FN();
    XRV_TRACE_ERROR("eventfd failed, errno = %d", errno);
  }
}

StandaloneHost::~StandaloneHost() {
  server_.reset();
  if (wakeFd_ >= 0) {
    close(wakeFd_);
  }
}

int StandaloneHost::run(int /*argc*/, char** /*argv*/) {
  XRV_TRACE_FN();
  std::string problem;
  const HostSettings settings = HostSettings::fromConfiguration(&problem);
  if (!problem.empty()) {
    fprintf(stderr, "xrv-agent: %s\n", problem.c_str());
  }
  ListenAddress address;
  if (!parseListenAddress(settings.listen, &address, &problem)) {
    fprintf(stderr, "xrv-agent: XRV_HTTP_LISTEN %s\n", problem.c_str());
    startFailed_ = true;
    setServing(0);
    return 1;
  }

  eventStore_ = std::make_unique<EventRing>(settings.eventBuffer);
  events_.store(eventStore_.get(), std::memory_order_release);
  catalog_.loadDefinition();
  api_ = std::make_unique<AgentApi>(catalog_, nodes_, *eventStore_, audit_, settings.adminToken,
                                    [this] { requestStop(); });
  server_ = std::make_unique<HttpServer>(*api_, settings.http);
  if (!server_->bind(address, &problem)) {
    fprintf(stderr, "xrv-agent: %s\n", problem.c_str());
    XRV_TRACE_ERROR("%s", problem.c_str());
    startFailed_ = true;
    setServing(0);
    return 1;
  }

  if (FwAgentLoader loader = loader_.load()) {
    const int status = loader();
    XRV_TRACE_DETAIL("Agent loader returned %d", status);
  } else {
    XRV_TRACE_ERROR("No agent loader registered, serving no agent");
  }

  server_->start();
  address.port = server_->port();
  printf("xrv-agent: serving the HTTP API on http://%s/\n", address.toString().c_str());
  fflush(stdout);
  setServing(address.port);

  const StopReason reason = waitForStop();
  XRV_TRACE_DETAIL("Stopping: %s", reason == ORDERLY ? "orderly shutdown" : "framework shutdown");
  if (reason == ORDERLY && stoppingHook_ != nullptr) {
    stoppingHook_();
  }
  server_->stop();
  if (reason == ORDERLY) {
    if (terminateHook_ != nullptr) {
      terminateHook_();
    }
  } else {
    // The signal road ends the process itself; tearing down under its feet would
    // only race with it.
    poll(nullptr, 0, kExitGraceMillis);
  }
  setServing(0);
  return 0;
}

void StandaloneHost::setServing(int port) {
  XRV::MutexLock lock(servingMutex_);
  httpPort_ = port;
  runEnded_ = port == 0;
  servingChanged_.notify_all();
}

bool StandaloneHost::waitUntilServing(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  XRV::MutexLock lock(servingMutex_);
  while (httpPort_ == 0 && !runEnded_) {
    if (servingChanged_.wait_until(lock.native(), deadline) == std::cv_status::timeout) {
      break;
    }
  }
  return httpPort_ != 0;
}

void StandaloneHost::wake(StopReason reason) {
  int expected = NOT_STOPPING;
  stopReason_.compare_exchange_strong(expected, reason);
  const uint64_t one = 1;
  // Async-signal-safe: shutdown() comes here from signal handlers.
  [[maybe_unused]] ssize_t written = write(wakeFd_, &one, sizeof one);
}

StandaloneHost::StopReason StandaloneHost::waitForStop() {
  XRV_TRACE_FN();
  while (stopReason_.load() == NOT_STOPPING) {
    struct pollfd wait = {wakeFd_, POLLIN, 0};
    // Without its eventfd the loop looks at the flag ten times a second.
    if (poll(&wait, 1, wakeFd_ < 0 ? 100 : -1) > 0) {
      uint64_t count = 0;
      [[maybe_unused]] ssize_t got = read(wakeFd_, &count, sizeof count);
    }
  }
  return static_cast<StopReason>(stopReason_.load());
}

void StandaloneHost::requestStop() {
  XRV_TRACE_FN();
  wake(ORDERLY);
}

void StandaloneHost::shutdown(int /*mode*/) { wake(FRAMEWORK_SHUTDOWN); }

void StandaloneHost::initBasicServices(const char* programName) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Basic services for %s", text(programName).c_str());
}

void StandaloneHost::setAffinity(const char* affinity) {
  XRV_TRACE_FN();
  nodes_.setMainAffinity(text(affinity));
}

void StandaloneHost::setAffinityVersion(int version) {
  XRV_TRACE_FN();
  nodes_.setMainAffinity("AFF_V" + std::to_string(version));
}

void StandaloneHost::setAffinityFeature(const char* feature) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Affinity feature %s", text(feature).c_str());
}

void StandaloneHost::setNodeType(const char* nodeType) {
  XRV_TRACE_FN();
  nodes_.setMainType(text(nodeType));
  XRV::MutexLock lock(originMutex_);
  nodeType_ = text(nodeType);
}

void StandaloneHost::setProductVersion(const char* version) {
  XRV_TRACE_FN();
  nodes_.setMainVersion(text(version));
}

void StandaloneHost::registerAgentLoader(FwAgentLoader loader) {
  XRV_TRACE_FN();
  loader_ = loader;
}

void StandaloneHost::registerCommandCallback(const char* commandName,
                                             FwCommandCallback /*callback*/) {
  XRV_TRACE_FN();
  // This host receives no actions: nothing will call the callback.
  XRV_TRACE_DETAIL("Action callback for %s noted; this host sends no actions",
                   text(commandName).c_str());
}

bool StandaloneHost::originNode(char* buffer, size_t size) {
  XRV_TRACE_FN();
  std::string name;
  {
    XRV::MutexLock lock(originMutex_);
    if (originNode_.empty()) {
      // HOST:NODETYPE, the host being the configured host name (CTAFW_HOSTNAME) or
      // the system's, without its domain; cut so that the whole fits.
      std::string host = settingText(Setting::ConfiguredHostName);
      if (host.empty()) {
        char system[256] = {};
        gethostname(system, sizeof system - 1);
        host = system;
        host = host.substr(0, host.find('.'));
      }
      const std::string suffix = nodeType_.empty() ? "" : ":" + nodeType_;
      const size_t room = suffix.size() < kMaxNodeName ? kMaxNodeName - suffix.size() : 0;
      originNode_ = (host.empty() ? "localhost" : host).substr(0, room) + suffix;
      nodes_.setMainNode(originNode_);
    }
    name = originNode_;
  }
  if (name.size() + 1 > size) {
    return false;
  }
  memcpy(buffer, name.c_str(), name.size() + 1);
  return true;
}

int StandaloneHost::subnodeRegister(const FwSubnodeRegistration& registration) {
  XRV_TRACE_FN();
  nodes_.registerSubnode(registration);
  return FW_SUBNODE_OK;
}

int StandaloneHost::subnodeDeregister(const char* msn) {
  XRV_TRACE_FN();
  return nodes_.deregisterSubnode(msn) ? FW_SUBNODE_OK : FW_SUBNODE_FAILED;
}

int StandaloneHost::auditRecord(const FwAuditRecord& record) {
  audit_.add(record);
  return 0;
}

void StandaloneHost::tableManagerCreated(TableManager* manager) {
  XRV_TRACE_FN();
  catalog_.managerCreated(manager);
}

void StandaloneHost::tableManagerDestroyed(TableManager* manager) {
  XRV_TRACE_FN();
  catalog_.managerDestroyed(manager);
}

int StandaloneHost::eventArrived(TableManager* manager, const char* row, int length,
                                 bool continuation) {
  XRV_TRACE_FN();
  EventRing* ring = events_.load(std::memory_order_acquire);
  const CatalogGroup* group =
      manager == nullptr ? nullptr : catalog_.findGroupByTable(manager->GetTableName());
  if (ring == nullptr || group == nullptr || row == nullptr || length <= 0) {
    return 1;
  }
  if (ring->add(*group, nowMillis(), row, static_cast<size_t>(length), continuation) == 0) {
    XRV_TRACE_ERROR("Event row of %d bytes does not fit table %s", length, group->table.c_str());
    return 1;
  }
  return 0;
}

}  // namespace XRV::host
