#include "support/FrameworkDouble.h"

#include <gtest/gtest.h>

#include <cstring>

namespace XRV::testing {
namespace {
std::string text(const char* value) { return value == nullptr ? std::string() : value; }
}  // namespace

FrameworkDouble::FrameworkDouble(const char* traceRules) : trace_(traceRules) { fwSetHost(this); }

FrameworkDouble::~FrameworkDouble() { fwSetHost(nullptr); }

int FrameworkDouble::run(int /*argc*/, char** /*argv*/) {
  FwAgentLoader loader = agentLoader();
  return loader == nullptr ? 0 : loader();
}

void FrameworkDouble::shutdown(int mode) {
  locked([&] { settings_.shutdownModes.push_back(mode); });
}

void FrameworkDouble::initBasicServices(const char* programName) {
  locked([&] { settings_.programName = text(programName); });
}

void FrameworkDouble::setAffinity(const char* affinity) {
  locked([&] { settings_.affinity = text(affinity); });
}

void FrameworkDouble::setAffinityVersion(int version) {
  locked([&] { settings_.affinityVersion = version; });
}

void FrameworkDouble::setAffinityFeature(const char* feature) {
  locked([&] { settings_.affinityFeatures.push_back(text(feature)); });
}

void FrameworkDouble::setNodeType(const char* nodeType) {
  locked([&] { settings_.nodeType = text(nodeType); });
}

void FrameworkDouble::setProductVersion(const char* version) {
  locked([&] { settings_.productVersion = text(version); });
}

void FrameworkDouble::registerAgentLoader(FwAgentLoader loader) {
  locked([&] { loader_ = loader; });
}

void FrameworkDouble::registerCommandCallback(const char* commandName, FwCommandCallback callback) {
  std::lock_guard<std::mutex> lock(mutex_);
  callbacks_.emplace_back(text(commandName), callback);
  settings_.commandNames.push_back(text(commandName));
}

bool FrameworkDouble::originNode(char* buffer, size_t size) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!originKnown_ || originNode_.size() + 1 > size) {
    return false;
  }
  memcpy(buffer, originNode_.c_str(), originNode_.size() + 1);
  return true;
}

int FrameworkDouble::subnodeRegister(const FwSubnodeRegistration& r) {
  std::lock_guard<std::mutex> lock(mutex_);
  Registration copy{text(r.msn),      text(r.affinity), text(r.type),    text(r.version),
                    text(r.hostInfo), text(r.hostAddr), text(r.hostLoc), {}};
  for (int i = 0; i < r.affinityFeatureCount; ++i) {
    copy.affinityFeatures.push_back(text(r.affinityFeatures[i]));
  }
  registrations_.push_back(std::move(copy));
  return registrationResult_;
}

int FrameworkDouble::subnodeDeregister(const char* msn) {
  std::lock_guard<std::mutex> lock(mutex_);
  deregistrations_.push_back(text(msn));
  return deregistrationResult_;
}

bool FrameworkDouble::auditAvailable() {
  std::lock_guard<std::mutex> lock(mutex_);
  return auditAvailable_;
}

int FrameworkDouble::auditRecord(const FwAuditRecord& r) {
  std::lock_guard<std::mutex> lock(mutex_);
  audits_.push_back(Audit{text(r.component), text(r.text), text(r.category), text(r.action),
                          text(r.messageId), text(r.productName), text(r.applicationName),
                          r.recordClass, r.recordCode});
  return 0;
}

void FrameworkDouble::tableManagerCreated(TableManager* manager) {
  locked([&] { managers_.push_back(manager); });
}

void FrameworkDouble::tableManagerDestroyed(TableManager* manager) {
  locked([&] { std::erase(managers_, manager); });
}

int FrameworkDouble::eventArrived(TableManager* manager, const char* row, int length,
                                  bool continuation) {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back(
      Event{manager->GetTableName(), std::string(row, static_cast<size_t>(length)), continuation});
  return eventResult_;
}

int FrameworkDouble::acceptRow(GenericAgentBase& request, const char* row, int length) {
  std::lock_guard<std::mutex> lock(mutex_);
  rows_.push_back(Row{request.GetRequestDetail()->GetTableName(), &request,
                      std::string(row, static_cast<size_t>(length))});
  return rowResult_;
}

void FrameworkDouble::setOriginNode(const char* msn) {
  std::lock_guard<std::mutex> lock(mutex_);
  originKnown_ = msn != nullptr;
  originNode_ = text(msn);
}

void FrameworkDouble::setRegistrationResult(int result) {
  locked([&] { registrationResult_ = result; });
}

void FrameworkDouble::setDeregistrationResult(int result) {
  locked([&] { deregistrationResult_ = result; });
}

void FrameworkDouble::setAuditAvailable(bool available) {
  locked([&] { auditAvailable_ = available; });
}

void FrameworkDouble::setRowResult(int result) {
  locked([&] { rowResult_ = result; });
}

void FrameworkDouble::setEventResult(int result) {
  locked([&] { eventResult_ = result; });
}

std::vector<std::string> FrameworkDouble::sample(const char* table, RequestDetail& detail,
                                                 ContextInfo& context, int samples) {
  TableManager* manager = findTableManager(table);
  if (manager == nullptr) {
    ADD_FAILURE() << "no table manager for " << table;
    return {};
  }
  detail.SetRowSink(this);
  // A later request may reuse an earlier one's address: only rows from now on count.
  const size_t rowsBefore = rows().size();
  std::unique_ptr<FwRequest> request(manager->CreateRequest(&detail, &context));
  if (request == nullptr) {
    return {};
  }
  request->TakeSampleConstructor();
  for (int i = 0; i < samples; ++i) {
    request->TakeSample();
  }
  request->TakeSampleDestructor();
  std::vector<std::string> sent;
  const std::vector<Row> recorded = rows();
  for (size_t i = rowsBefore; i < recorded.size(); ++i) {
    if (recorded[i].request == request.get()) {
      sent.push_back(recorded[i].bytes);
    }
  }
  return sent;
}

int FrameworkDouble::invokeCommand(const char* name, const char* commandText, const char* node) {
  FwCommandCallback chosen = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [registeredName, callback] : callbacks_) {
      if (registeredName == text(name)) {
        chosen = callback;
      } else if (registeredName == "*" && chosen == nullptr) {
        chosen = callback;
      }
    }
  }
  if (chosen == nullptr) {
    return -1;
  }
  return chosen(FwCommand{name, commandText, node});
}

TableManager* FrameworkDouble::findTableManager(const char* table) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (TableManager* manager : managers_) {
    if (strcmp(manager->GetTableName(), table) == 0) {
      return manager;
    }
  }
  return nullptr;
}

FakeClock::FakeClock(int64_t startMillis) : now_(startMillis) { fwSetClock(this); }

FakeClock::~FakeClock() { fwSetClock(nullptr); }

bool FakeClock::waitFor(std::condition_variable& wakeUp, std::unique_lock<std::mutex>& lock,
                        int64_t milliseconds, const std::function<bool()>& done) {
  const int64_t deadline = nowMillis() + milliseconds;
  wakeUp.wait(lock, [&] { return done() || nowMillis() >= deadline; });
  return done();
}

void FakeClock::advance(int64_t milliseconds) {
  if (milliseconds > 0) {
    now_ += milliseconds;
    monotonic_ += milliseconds;
    fwClockMoved();
  }
}

}  // namespace XRV::testing
