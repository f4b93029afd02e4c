#pragma once

// SshConnector: runs scripts on a remote host over SSH for the script data source.
//
// A connector is made per provider (createSshConnector). One that cannot work (no
// SSH support in this build, a missing host name, a subnode that is not configured)
// stays in its error state with a performance-object error code; the provider then
// reports that code instead of collecting.
//
// This build has no SSH support: every connector is in its error state with
// MISSING_LIBRARY. A library with SSH support installs its factory
// (registerSshConnectorFactory).

#include <string>
#include <vector>

class HashMap;

class SshConnector {
 public:
  virtual ~SshConnector() = default;

  // Runs `command` on the remote host: 0 on success, with *out and *err set to
  // malloc'd, NUL-terminated texts the caller frees; non-zero on failure.
  virtual int executeScript(const char* command, char** out, char** err, int timeoutSeconds) = 0;
  // New connection settings: the subnode type and configuration of the provider's
  // subnode (both null for a provider without subnodes).
  virtual void resetConfig(const char* subnodeType, HashMap* configuration) = 0;
  // A command file to upload before commands run.
  virtual void addCommandFile(const char* name) = 0;

  virtual bool isInErrorState() const = 0;
  // A PERF_OBJECT_ERROR_CODE; OBJECT_ACTIVE when the connector works.
  virtual int getErrorCode() const = 0;
};

// A connector that never works: its state is the error `errorCode`, every run fails.
class UnavailableSshConnector : public SshConnector {
 public:
  explicit UnavailableSshConnector(int errorCode) : errorCode_(errorCode) {}
  int executeScript(const char* command, char** out, char** err, int timeoutSeconds) override;
  void resetConfig(const char*, HashMap*) override {}
  void addCommandFile(const char* name) override { commandFiles_.emplace_back(name); }
  bool isInErrorState() const override { return true; }
  int getErrorCode() const override { return errorCode_; }

 private:
  int errorCode_;
  std::vector<std::string> commandFiles_;
};

// Makes the connector of a provider of the group `attributeGroup`; null when it
// cannot be made at all.
using SshConnectorFactory = SshConnector* (*)(const char* attributeGroup);
void registerSshConnectorFactory(SshConnectorFactory factory);
// The installed factory's connector; without one, an UnavailableSshConnector with
// MISSING_LIBRARY.
SshConnector* createSshConnector(const char* attributeGroup);
