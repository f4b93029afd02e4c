#pragma once

// LibsshConnector: the SshConnector of this build, on libssh (docs/ssh.md).
//
// resetConfig reads the provider's target (SshTarget) from its subnode's section; a
// configuration that cannot work leaves the connector in its error state
// (SUBNODE_NOT_FOUND_IN_CONFIG, NO_HOSTNAME, AUTHENTICATION_FAILED for an unknown
// SSH_AUTH_TYPE). A changed configuration lets go of the old target's sessions.
//
// executeScript takes a session of the target from the SshSessionPool (connecting it
// when it is new), uploads the command files the session does not have yet and runs
// the subnode's exported settings followed by the command on a channel of its own,
// all within the time-out. A kept session that turns out to be dead before the
// command was sent is replaced once. The outcome of the run that started last is the
// connector's error code (a run that outlived its time-out and ends later does not
// overwrite a newer one).
//
// Thread-safety: any number of runs at once; the connector's lock guards its settings
// and its outcome only and is never held during network I/O.

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "framework/Mutex.h"
#include "sources/command/SshConnector.h"
#include "sources/ssh/SshTarget.h"

class LibsshConnector : public SshConnector {
 public:
  explicit LibsshConnector(const char* attributeGroup);
  ~LibsshConnector() override;

  int executeScript(const char* command, char** out, char** err, int timeoutSeconds) override;
  int runScript(const char* command, char** out, char** err, int timeoutSeconds,
                int* exitStatus) override;
  void resetConfig(const char* subnodeType, HashMap* configuration) override;
  void addCommandFile(const char* name) override;
  void abortCommands() override;
  bool isInErrorState() const override;
  int getErrorCode() const override;
  std::string getErrorMessage() const override;

  // The target in force; null before the first resetConfig or when it failed.
  std::shared_ptr<const SshTarget> target() const;

 private:
  // Takes the outcome of run `run` unless a later-started run reported already.
  void report(uint64_t run, int code, const std::string& message);

  std::string attributeGroup_;
  mutable XRV::Mutex mutex_;
  bool configured_ XRV_GUARDED_BY(mutex_) = false;
  std::shared_ptr<const SshTarget> target_ XRV_GUARDED_BY(mutex_);
  int configError_ XRV_GUARDED_BY(mutex_) = 0;
  std::string configMessage_ XRV_GUARDED_BY(mutex_);
  CommandFileList commandFiles_ XRV_GUARDED_BY(mutex_);
  uint64_t runsStarted_ XRV_GUARDED_BY(mutex_) = 0;
  uint64_t reportedRun_ XRV_GUARDED_BY(mutex_) = 0;
  int errorCode_ XRV_GUARDED_BY(mutex_) = 0;
  std::string errorMessage_ XRV_GUARDED_BY(mutex_);
  // The cancel flags of the runs in progress (abortCommands).
  std::set<std::atomic<bool>*> running_ XRV_GUARDED_BY(mutex_);
};

// Installs the libssh connector's factory (registerSshConnectorFactory) and
// initialises libssh; libssh's own messages go to the trace.
void installSshSupport();
