#pragma once

// An in-memory framework host for tests. While it lives it is the installed
// FrameworkHost and records everything the agent hands to the framework: settings,
// registrations, audit records, table managers, rows and events, and trace lines
// (through an embedded TraceCapture). Behaviour that a test may want to vary (the
// origin node, registration and row results) is settable.
//
// Thread-safe: rows and events may arrive on any thread.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "framework/Framework.h"
#include "framework/FwRequest.h"
#include "support/TraceCapture.h"

namespace XRV::testing {

class FrameworkDouble : public FrameworkHost, public FwRowSink {
 public:
  struct Row {
    std::string table;
    const GenericAgentBase* request;
    std::string bytes;
  };
  struct Event {
    std::string table;
    std::string bytes;
    bool continuation;
  };
  struct Registration {
    std::string msn, affinity, type, version, hostInfo, hostAddr, hostLoc;
    std::vector<std::string> affinityFeatures;
  };
  struct Audit {
    std::string component, text, category, action, messageId, productName, applicationName;
    int recordClass;
    int recordCode;
  };
  struct Settings {
    std::string programName, affinity, nodeType, productVersion;
    int affinityVersion = 0;
    std::vector<std::string> affinityFeatures;
    std::vector<std::string> commandNames;
    std::vector<int> shutdownModes;
  };

  // Captures trace lines under `traceRules` (XRV_TRACE syntax).
  explicit FrameworkDouble(const char* traceRules = "error");
  ~FrameworkDouble() override;

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
  const char* productName() override { return "XRV Test Framework"; }
  int subnodeRegister(const FwSubnodeRegistration& registration) override;
  int subnodeDeregister(const char* msn) override;
  bool auditAvailable() override;
  int auditRecord(const FwAuditRecord& record) override;
  void tableManagerCreated(TableManager* manager) override;
  void tableManagerDestroyed(TableManager* manager) override;
  int eventArrived(TableManager* manager, const char* row, int length, bool continuation) override;

  // FwRowSink
  int acceptRow(GenericAgentBase& request, const char* row, int length) override;

  // Settable behaviour.
  void setOriginNode(const char* msn);       // null: the origin node is unknown
  void setRegistrationResult(int result);    // FW_SUBNODE_* for register
  void setDeregistrationResult(int result);  // FW_SUBNODE_* for deregister
  void setAuditAvailable(bool available);
  void setRowResult(int result);    // what acceptRow answers (0 = taken)
  void setEventResult(int result);  // what eventArrived answers

  // Drives one request on `table` through its manager: CreateRequest,
  // TakeSampleConstructor, `samples` calls of TakeSample, TakeSampleDestructor. The
  // rows the request sent, in order. Fails the test when there is no such table.
  std::vector<std::string> sample(const char* table, RequestDetail& detail, ContextInfo& context,
                                  int samples = 1);
  // Calls the callback registered for `name`, else for "*"; -1 when none.
  int invokeCommand(const char* name, const char* text, const char* node = nullptr);

  // What was recorded, as copies.
  Settings settings() const { return copied(settings_); }
  FwAgentLoader agentLoader() const { return copied(loader_); }
  std::vector<Row> rows() const { return copied(rows_); }
  std::vector<Event> events() const { return copied(events_); }
  std::vector<Registration> registrations() const { return copied(registrations_); }
  std::vector<std::string> deregistrations() const { return copied(deregistrations_); }
  std::vector<Audit> auditRecords() const { return copied(audits_); }
  std::vector<TableManager*> tableManagers() const { return copied(managers_); }
  TableManager* findTableManager(const char* table) const;

  TraceCapture& trace() { return trace_; }

 private:
  // `field` as it is now: the threads of the agent record while the test reads.
  template <typename T>
  T copied(const T& field) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return field;
  }
  // Runs `change` of the recorded state under the lock.
  template <typename Change>
  void locked(Change change) {
    std::lock_guard<std::mutex> lock(mutex_);
    change();
  }

  mutable std::mutex mutex_;
  TraceCapture trace_;
  Settings settings_;
  FwAgentLoader loader_ = nullptr;
  std::vector<std::pair<std::string, FwCommandCallback>> callbacks_;
  std::string originNode_ = "Primary:testhost:XRV";
  bool originKnown_ = true;
  int registrationResult_ = FW_SUBNODE_OK;
  int deregistrationResult_ = FW_SUBNODE_OK;
  bool auditAvailable_ = true;
  int rowResult_ = 0;
  int eventResult_ = 0;
  std::vector<Row> rows_;
  std::vector<Event> events_;
  std::vector<Registration> registrations_;
  std::vector<std::string> deregistrations_;
  std::vector<Audit> audits_;
  std::vector<TableManager*> managers_;
};

// A clock that stands still until the test moves it; sleeping moves it, and every
// move wakes the threads waiting on the framework clock (fwWaitFor), which wait for
// nothing but its moves and their own wake-ups. Installed while it lives.
class FakeClock : public FwClock {
 public:
  explicit FakeClock(int64_t startMillis = 1700000000000);
  ~FakeClock() override;

  int64_t nowMillis() override { return now_.load(); }
  int64_t monotonicMillis() override { return monotonic_.load(); }
  void sleepMillis(int64_t milliseconds) override { advance(milliseconds); }
  bool waitFor(std::condition_variable& wakeUp, std::unique_lock<std::mutex>& lock,
               int64_t milliseconds, const std::function<bool()>& done) override;
  void advance(int64_t milliseconds);

 private:
  std::atomic<int64_t> now_;
  std::atomic<int64_t> monotonic_{0};
};

}  // namespace XRV::testing
