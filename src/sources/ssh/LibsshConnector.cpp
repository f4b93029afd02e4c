#include "sources/ssh/LibsshConnector.h"

#include <libssh/libssh.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "framework/Trace.h"
#include "provider/PerfObject.h"
#include "sources/command/CommandWithTimeout.h"
#include "sources/ssh/SshSessionPool.h"

namespace {

// What decides whether a new configuration changes anything.
std::string configurationOf(const SshTarget& target) {
  return target.identity() + "\n" + target.environmentPrefix + "\n" +
         (target.disconnectAfterCommand ? "Y" : "N");
}

// A NUL byte would end the text early: it is read as '?', as for local commands.
char* copyText(const std::string& text) {
  char* copy = static_cast<char*>(malloc(text.size() + 1));
  if (copy == nullptr) {
    return nullptr;
  }
  memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  std::replace(copy, copy + text.size(), '\0', '?');
  return copy;
}

// One run on `target`: a session from the pool (connected when new), the command
// files, the command.
SshOutcome runOn(const std::shared_ptr<const SshTarget>& target,
                 const std::vector<std::string>& files, const std::string& command,
                 const SshDeadline& deadline, const std::atomic<bool>& cancel,
                 SshCommandOutput* output) {
  XRV_TRACE_FN();
  SshSessionPool& pool = SshSessionPool::instance();
  const std::string text = target->environmentPrefix + command;
  for (int attempt = 0;; ++attempt) {
    bool reused = false;
    SshOutcome outcome;
    std::unique_ptr<SshSession> session = pool.take(target, &reused, &outcome);
    if (session == nullptr) {
      return outcome;
    }
    if (!reused) {
      outcome = session->connect(deadline, cancel);
      if (!outcome.ok()) {
        if (!cancel.load()) {
          pool.connectionFailed(*target, outcome);
        }
        return outcome;
      }
      pool.connectionMade(*target);
    }
    outcome = session->uploadCommandFiles(files, deadline);
    if (outcome.ok()) {
      *output = SshCommandOutput();
      outcome = session->run(text, deadline, cancel, outputSizeLimit, output);
    }
    // A kept session that died while it was idle (the host restarted): once more on a
    // new one, as long as the command was not sent.
    const bool again = !outcome.ok() && reused && attempt == 0 && !output->started &&
                       !session->usable() && !deadline.passed() && !cancel.load();
    pool.giveBack(std::move(session));
    if (!again) {
      return outcome;
    }
    XRV_TRACE_DETAIL("The kept session to %s is gone (%s), connecting again",
                     target->describe().c_str(), outcome.message.c_str());
  }
}

SshConnector* makeLibsshConnector(const char* attributeGroup) {
  return new LibsshConnector(attributeGroup);
}

}  // namespace

LibsshConnector::LibsshConnector(const char* attributeGroup)
    : attributeGroup_(attributeGroup == nullptr ? "" : attributeGroup) {}

LibsshConnector::~LibsshConnector() {
  std::shared_ptr<const SshTarget> target;
  {
    XRV::MutexLock lock(mutex_);
    target = std::move(target_);
  }
  if (target != nullptr) {
    SshSessionPool::instance().release(*target);
  }
}

std::shared_ptr<const SshTarget> LibsshConnector::target() const {
  XRV::MutexLock lock(mutex_);
  return target_;
}

void LibsshConnector::resetConfig(const char* subnodeType, HashMap* configuration) {
  XRV_TRACE_FN();
  SshTarget read;
  const SshTargetRead outcome = readSshTarget(subnodeType, configuration, &read);
  std::shared_ptr<const SshTarget> next;
  if (outcome.errorCode == OBJECT_ACTIVE) {
    next = std::make_shared<const SshTarget>(std::move(read));
  }
  std::shared_ptr<const SshTarget> previous;
  {
    XRV::MutexLock lock(mutex_);
    if (configured_ && next != nullptr && target_ != nullptr &&
        configurationOf(*next) == configurationOf(*target_)) {
      return;  // nothing changed: the sessions stay
    }
    previous = std::move(target_);
    target_ = next;
    configured_ = true;
    configError_ = outcome.errorCode;
    configMessage_ = outcome.message;
    errorCode_ = outcome.errorCode;
    errorMessage_ = outcome.message;
    reportedRun_ = runsStarted_;
  }
  if (next != nullptr) {
    SshSessionPool::instance().retain(*next);
  } else {
    XRV_TRACE_ERROR("Attribute group %s cannot run scripts over SSH: %s", attributeGroup_.c_str(),
                    outcome.message.c_str());
  }
  if (previous != nullptr) {
    XRV_TRACE_DETAIL("SSH settings of attribute group %s changed (were %s)",
                     attributeGroup_.c_str(), previous->describe().c_str());
    SshSessionPool::instance().release(*previous);
  }
}

void LibsshConnector::addCommandFile(const char* name) {
  XRV::MutexLock lock(mutex_);
  commandFiles_.add(name);
}

void LibsshConnector::abortCommands() {
  XRV::MutexLock lock(mutex_);
  for (std::atomic<bool>* cancel : running_) {
    cancel->store(true);
  }
}

bool LibsshConnector::isInErrorState() const { return getErrorCode() != OBJECT_ACTIVE; }

int LibsshConnector::getErrorCode() const {
  XRV::MutexLock lock(mutex_);
  return errorCode_;
}

std::string LibsshConnector::getErrorMessage() const {
  XRV::MutexLock lock(mutex_);
  return errorMessage_;
}

void LibsshConnector::report(uint64_t run, int code, const std::string& message) {
  XRV::MutexLock lock(mutex_);
  if (run < reportedRun_) {
    return;
  }
  reportedRun_ = run;
  errorCode_ = code;
  errorMessage_ = message;
}

int LibsshConnector::executeScript(const char* command, char** out, char** err,
                                   int timeoutSeconds) {
  int exitStatus = 0;
  return runScript(command, out, err, timeoutSeconds, &exitStatus);
}

int LibsshConnector::runScript(const char* command, char** out, char** err, int timeoutSeconds,
                               int* exitStatus) {
  XRV_TRACE_FN();
  *out = nullptr;
  *err = nullptr;
  *exitStatus = -1;
  bool configured = false;
  {
    XRV::MutexLock lock(mutex_);
    configured = configured_;
  }
  if (!configured) {
    resetConfig(nullptr, nullptr);  // a provider that was never reset: the agent's settings
  }
  std::atomic<bool> cancel{false};
  std::shared_ptr<const SshTarget> target;
  std::vector<std::string> files;
  uint64_t run = 0;
  SshOutcome outcome;
  {
    XRV::MutexLock lock(mutex_);
    run = ++runsStarted_;
    target = target_;
    files = commandFiles_.names();
    if (target == nullptr) {
      outcome = SshOutcome::failure(configError_, configMessage_);
    } else {
      running_.insert(&cancel);
    }
  }
  SshCommandOutput output;
  if (target != nullptr) {
    outcome = runOn(target, files, command == nullptr ? "" : command,
                    SshDeadline(std::chrono::seconds(timeoutSeconds)), cancel, &output);
    XRV::MutexLock lock(mutex_);
    running_.erase(&cancel);
  }
  report(run, outcome.code, outcome.message);
  if (!outcome.ok()) {
    XRV_TRACE_ERROR("Running %s over SSH failed (%s): %s", command == nullptr ? "" : command,
                    perfObjectErrorCodeName(outcome.code), outcome.message.c_str());
    return -1;
  }
  if (stdErrSizeLimit > 0 && output.err.size() > static_cast<size_t>(stdErrSizeLimit)) {
    XRV_TRACE_DETAIL("truncated stdErr length %d to %d", static_cast<int>(output.err.size()),
                     stdErrSizeLimit);
    output.err.resize(static_cast<size_t>(stdErrSizeLimit));
  }
  *out = copyText(output.out);
  *err = copyText(output.err);
  *exitStatus = output.exitStatus;
  XRV_TRACE_DETAIL("Remote command %s on %s: exit status %d, %zu bytes out, %zu bytes err", command,
                   target->describe().c_str(), output.exitStatus, output.out.size(),
                   output.err.size());
  return 0;
}

void installSshSupport() {
  static std::once_flag once;
  std::call_once(once, [] {
    ssh_init();
    registerSshConnectorFactory(makeLibsshConnector);
  });
}
