#pragma once

// SshConnector: runs scripts on a remote host over SSH for the script data source.
//
// A connector is made per provider (createSshConnector). One that cannot work (no
// SSH support in this build, a missing host name, a subnode that is not configured)
// stays in its error state with a performance-object error code; the provider then
// reports that code instead of collecting.
//
// The connector of this build is installed by the agent at start-up
// (registerSshConnectorFactory; sources/ssh). Without a factory every connector is
// in its error state with MISSING_LIBRARY.
//
// Thread-safety: a connector may run several commands at once (a collection beside
// one that outlived its time-out); resetConfig and addCommandFile may come from
// another thread meanwhile. Its owner keeps it alive while commands run through it
// (SshConnectorLease).

#include <memory>
#include <string>
#include <vector>

#include "foundation/List.h"

class HashMap;

// One command file a connector uploads to the remote host before commands run.
class CommandFileListElement : public ListElement {
 public:
  explicit CommandFileListElement(const char* name);
  ~CommandFileListElement() override;
  const char* getName() const { return name_; }

 private:
  char* name_;
};

// The command files of a connector, in the order they were added: a chain of
// CommandFileListElement that the list owns. Not locked: its owner locks around it.
class CommandFileList {
 public:
  CommandFileList() = default;
  ~CommandFileList();
  CommandFileList(const CommandFileList&) = delete;
  CommandFileList& operator=(const CommandFileList&) = delete;

  // A name that is there already is not added again.
  void add(const char* name);
  std::vector<std::string> names() const;

 private:
  CommandFileListElement* first_ = nullptr;
  CommandFileListElement* last_ = nullptr;
};

class SshConnector {
 public:
  virtual ~SshConnector() = default;

  // Runs `command` on the remote host: 0 when it ran to its end, with *out and *err
  // set to malloc'd, NUL-terminated texts the caller frees; -1 when it could not be
  // run or did not end in time (getErrorCode says why), *out and *err then null.
  virtual int executeScript(const char* command, char** out, char** err, int timeoutSeconds) = 0;
  // The same, with the remote command's exit status in *exitStatus when it ran. A
  // connector that does not know the status reports 0.
  virtual int runScript(const char* command, char** out, char** err, int timeoutSeconds,
                        int* exitStatus);
  // New connection settings: the subnode type and configuration of the provider's
  // subnode (both null for a provider without subnodes).
  virtual void resetConfig(const char* subnodeType, HashMap* configuration) = 0;
  // A command file to upload before commands run.
  virtual void addCommandFile(const char* name) = 0;
  // Ends every command running through this connector now, as at its time-out (the
  // agent stops).
  virtual void abortCommands() {}

  virtual bool isInErrorState() const = 0;
  // A PERF_OBJECT_ERROR_CODE; OBJECT_ACTIVE when the connector works.
  virtual int getErrorCode() const = 0;
  // What went wrong last, for the operator (never a password); "" when nothing did.
  virtual std::string getErrorMessage() const { return ""; }
};

// A connector that never works: its state is the error `errorCode`, every run fails.
class UnavailableSshConnector : public SshConnector {
 public:
  explicit UnavailableSshConnector(int errorCode) : errorCode_(errorCode) {}
  int executeScript(const char* command, char** out, char** err, int timeoutSeconds) override;
  void resetConfig(const char*, HashMap*) override {}
  void addCommandFile(const char* name) override { commandFiles_.add(name); }
  bool isInErrorState() const override { return true; }
  int getErrorCode() const override { return errorCode_; }
  std::string getErrorMessage() const override;

 private:
  int errorCode_;
  CommandFileList commandFiles_;
};

// A share of a connector for one command: it keeps the connector alive until the
// command is over, even when the provider that made it is gone meanwhile (a command
// that outlived its time-out). Everything is passed on.
class SshConnectorLease : public SshConnector {
 public:
  explicit SshConnectorLease(std::shared_ptr<SshConnector> connector)
      : connector_(std::move(connector)) {}
  int executeScript(const char* command, char** out, char** err, int timeoutSeconds) override {
    return connector_->executeScript(command, out, err, timeoutSeconds);
  }
  int runScript(const char* command, char** out, char** err, int timeoutSeconds,
                int* exitStatus) override {
    return connector_->runScript(command, out, err, timeoutSeconds, exitStatus);
  }
  void resetConfig(const char* type, HashMap* configuration) override {
    connector_->resetConfig(type, configuration);
  }
  void addCommandFile(const char* name) override { connector_->addCommandFile(name); }
  void abortCommands() override { connector_->abortCommands(); }
  bool isInErrorState() const override { return connector_->isInErrorState(); }
  int getErrorCode() const override { return connector_->getErrorCode(); }
  std::string getErrorMessage() const override { return connector_->getErrorMessage(); }

 private:
  std::shared_ptr<SshConnector> connector_;
};

// Makes the connector of a provider of the group `attributeGroup`; null when it
// cannot be made at all.
using SshConnectorFactory = SshConnector* (*)(const char* attributeGroup);
// Installs `factory` for the connectors made from now on; null goes back to none.
void registerSshConnectorFactory(SshConnectorFactory factory);
// The installed factory's connector; without one, an UnavailableSshConnector with
// MISSING_LIBRARY.
SshConnector* createSshConnector(const char* attributeGroup);
