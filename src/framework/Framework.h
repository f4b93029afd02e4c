#pragma once

// The narrow interface between the agent and the framework that hosts it.
//
// The agent calls the fw* functions below; they forward to the installed
// FrameworkHost: our standalone host in the agent binary, an in-memory double in
// tests. The agent's own logic never sees which one it is. Configuration lookup,
// tracing, locks, the clock and locale services belong to the same interface but do
// not depend on a host (Configuration.h, Trace.h, FwLock.h, FwClock.h, FwLocale.h).
//
// Without a host installed the setters do nothing, queries report failure and
// frameworkMain returns 1.

#include <cstddef>

#include "framework/Configuration.h"
#include "framework/FwClock.h"
#include "framework/FwLocale.h"
#include "framework/FwLock.h"

class TableManager;

// The agent loader, called once when the framework is ready to accept tables.
using FwAgentLoader = int (*)();

// One action (command) that the framework hands to the agent.
struct FwCommand {
  const char* name;  // the command name the callback was registered for
  const char* text;  // the command text with its arguments
  const char* node;  // managed system the action is aimed at; null for the main node
};
// Returns the action's status code, 0 for success.
using FwCommandCallback = int (*)(const FwCommand& command);

enum FW_SUBNODE_RESULT {
  FW_SUBNODE_OK = 0,
  FW_SUBNODE_FAILED = 1,       // the framework refused the registration
  FW_SUBNODE_SEND_FAILED = 2,  // accepted, but the request to the server is still pending
};

struct FwSubnodeRegistration {
  const char* msn;
  const char* affinity;
  const char* type;
  const char* version;
  const char* const* affinityFeatures;  // "AFF_FEAT_..." names set in the affinity
  int affinityFeatureCount;
  const char* hostInfo;
  const char* hostAddr;
  const char* hostLoc;
};

struct FwAuditRecord {
  const char* component;
  const char* text;
  const char* category;
  const char* action;
  const char* messageId;
  const char* productName;
  int recordClass;  // the two numbers the framework files the record under
  int recordCode;
  const char* applicationName;
};

struct FwHostInfo {
  char hostInfo[160];  // operating system and release, "Linux~6.1.0"
  char hostAddr[64];   // the host's first non-loopback address, else the loopback one
  char hostLoc[128];   // the host name
};

class FrameworkHost {
 public:
  virtual ~FrameworkHost() = default;

  // frameworkMain: runs until the framework ends; calls the registered agent loader
  // once it is ready. Returns the process's exit status.
  virtual int run(int argc, char** argv) = 0;
  virtual void shutdown(int mode) = 0;
  virtual void initBasicServices(const char* programName) = 0;

  virtual void setAffinity(const char* affinity) = 0;
  virtual void setAffinityVersion(int version) = 0;
  virtual void setAffinityFeature(const char* feature) = 0;
  virtual void setNodeType(const char* nodeType) = 0;
  virtual void setProductVersion(const char* version) = 0;
  virtual void registerAgentLoader(FwAgentLoader loader) = 0;
  virtual void registerCommandCallback(const char* commandName, FwCommandCallback callback) = 0;

  // The main node's managed system name into `buffer`; false when not known.
  virtual bool originNode(char* buffer, size_t size) = 0;
  virtual const char* productName() = 0;

  virtual int subnodeRegister(const FwSubnodeRegistration& registration) = 0;
  virtual int subnodeDeregister(const char* msn) = 0;

  // Hosts that keep no audit trail return false; fwAuditRecord then does nothing.
  virtual bool auditAvailable() = 0;
  virtual int auditRecord(const FwAuditRecord& record) = 0;

  // A table server came into being or went away (TableManager's constructor and
  // destructor). The host must not call the manager's virtual operations from here.
  virtual void tableManagerCreated(TableManager* manager) = 0;
  virtual void tableManagerDestroyed(TableManager* manager) = 0;
  // An event row for the manager's table; `continuation` adds the row to the event
  // that the previous row started. Returns 0 when accepted.
  virtual int eventArrived(TableManager* manager, const char* row, int length,
                           bool continuation) = 0;
};

// Installs the host (null removes it). Done once at start-up, before any other
// thread runs; the caller keeps ownership.
void fwSetHost(FrameworkHost* host);
FrameworkHost* fwGetHost();

int frameworkMain(int argc, char** argv);
void fwShutdown(int mode);
void fwInitBasicServices(const char* programName);
void fwSetAffinity(const char* affinity);
void fwSetAffinityVersion(int version);
void fwSetAffinityFeature(const char* feature);
void fwSetNodeType(const char* nodeType);
void fwSetProductVersion(const char* version);
void fwRegisterAgentLoader(FwAgentLoader loader);
void fwRegisterCommandCallback(const char* commandName, FwCommandCallback callback);
bool fwGetOriginNode(char* buffer, size_t size);
const char* fwGetProductName();
int fwSubnodeRegister(const FwSubnodeRegistration& registration);
int fwSubnodeDeregister(const char* msn);
// True when the host offers audit records.
bool fwAuditAvailable();
// Returns 0 when recorded; -1 when the host offers no audit records.
int fwAuditRecord(const FwAuditRecord& record);

// The configured host name (configuration property "CTAFW_HOSTNAME"): an owned copy
// or null when not configured.
char* fwGetConfiguredHostName();
// Host information of the local system, as subnodes are registered with it.
bool fwGetLocalHostInfo(FwHostInfo* info);
