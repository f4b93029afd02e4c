#pragma once

// StandaloneHost: the framework host of the xrv-agent program. It stands in for the
// monitoring framework: it keeps what the agent tells the framework (node type,
// affinity, subnode registrations, audit records, event rows), runs the agent loader
// when it is ready, and serves the agent's tables over HTTP (AgentApi.h) until it is
// told to stop.
//
// Its settings (XRV_HTTP_*, XRV_EVENT_BUFFER, XRV_ADMIN_TOKEN; docs/settings.md) are
// read through the configuration lookup when run() starts.
//
// Two roads end run():
//   - the orderly one: POST /api/v1/shutdown (or requestStop()). The host stops
//     serving HTTP, calls the terminate hook (the agent's fwTerminate, which tears the
//     agent down) and returns 0;
//   - shutdown() (fwShutdown) from anywhere else, in practice the agent's signal
//     handler, which ends the process itself right after. shutdown() only flags and
//     wakes the main loop, so it is safe in a signal handler; the loop stops serving
//     and gives the process time to end before it returns.
//
// Thread-safety: every FrameworkHost operation may be called from any thread;
// shutdown() and auditRecord() also from a signal handler. run() once, on the main
// thread.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <string>

#include "framework/Framework.h"
#include "framework/Mutex.h"
#include "host/AuditTrail.h"
#include "host/EventRing.h"
#include "host/HttpServer.h"
#include "host/NodeRegistry.h"
#include "host/TableCatalog.h"

namespace XRV::host {

class AgentApi;
class HttpServer;

struct HostSettings {
  std::string listen = "127.0.0.1:9310";
  HttpLimits http;
  size_t eventBuffer = 10000;
  std::string adminToken;

  // Reads the settings; a malformed number is reported in *warning and the default
  // kept.
  static HostSettings fromConfiguration(std::string* warning);
};

class StandaloneHost : public FrameworkHost {
 public:
  using TerminateHook = void (*)();

  StandaloneHost();
  ~StandaloneHost() override;
  StandaloneHost(const StandaloneHost&) = delete;
  StandaloneHost& operator=(const StandaloneHost&) = delete;

  // The agent's orderly teardown, called on the main thread once HTTP serving has
  // stopped.
  void setTerminateHook(TerminateHook hook) { terminateHook_ = hook; }
  // Called first when an orderly stop begins, before HTTP serving stops: ends the
  // work that requests may be waiting for (running commands), so that neither the
  // requests nor the teardown wait for it.
  void setStoppingHook(TerminateHook hook) { stoppingHook_ = hook; }
  // Starts the orderly shutdown (what POST /api/v1/shutdown does).
  void requestStop();
  // Waits until the HTTP server serves; false when run() ended first or the time ran
  // out. The port it serves on, 0 before.
  bool waitUntilServing(std::chrono::milliseconds timeout);
  int httpPort() const { return httpPort_.load(); }
  // True when run() could not serve (a malformed XRV_HTTP_LISTEN, or the address is
  // not usable) and returned 1.
  bool startFailed() const { return startFailed_.load(); }

  // FrameworkHost
  int run(int argc, char** argv) override;
  void shutdown(int mode) override;
  void initBasicServices(const char* programName) override;
  void setAffinity(const char* affinity) override;
  void setAffinityVersion(int version) override;
  void setAffinityFeature(const char* feature) override;
  void setNodeType(const char* nodeType) override;
  void setProductVersion(const char* version) override;
  void registerAgentLoader(FwAgentLoader loader) override;
  void registerCommandCallback(const char* commandName, FwCommandCallback callback) override;
  bool originNode(char* buffer, size_t size) override;
  const char* productName() override { return "xrvagent standalone host"; }
  int subnodeRegister(const FwSubnodeRegistration& registration) override;
  int subnodeDeregister(const char* msn) override;
  bool auditAvailable() override { return true; }
  int auditRecord(const FwAuditRecord& record) override;
  void tableManagerCreated(TableManager* manager) override;
  void tableManagerDestroyed(TableManager* manager) override;
  int eventArrived(TableManager* manager, const char* row, int length, bool continuation) override;

 private:
  enum StopReason { NOT_STOPPING = 0, ORDERLY = 1, FRAMEWORK_SHUTDOWN = 2 };

  // Blocks until shutdown() or requestStop() wakes the main loop; the reason.
  StopReason waitForStop();
  void wake(StopReason reason);
  void setServing(int port);

  int wakeFd_ = -1;  // eventfd the main loop sleeps on
  std::atomic<int> stopReason_{NOT_STOPPING};
  std::atomic<FwAgentLoader> loader_{nullptr};
  TerminateHook terminateHook_ = nullptr;
  TerminateHook stoppingHook_ = nullptr;

  TableCatalog catalog_;
  NodeRegistry nodes_;
  AuditTrail audit_;
  // Made by run() before the agent loader starts any provider; read by
  // eventArrived from then on.
  std::atomic<EventRing*> events_{nullptr};
  std::unique_ptr<EventRing> eventStore_;
  std::unique_ptr<AgentApi> api_;
  std::unique_ptr<HttpServer> server_;

  XRV::Mutex originMutex_;
  std::string originNode_ XRV_GUARDED_BY(originMutex_);
  std::string nodeType_ XRV_GUARDED_BY(originMutex_);

  XRV::Mutex servingMutex_;
  std::condition_variable servingChanged_;
  bool runEnded_ XRV_GUARDED_BY(servingMutex_) = false;
  std::atomic<int> httpPort_{0};
  std::atomic<bool> startFailed_{false};
};

}  // namespace XRV::host
